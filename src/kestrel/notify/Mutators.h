// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/MapEntries.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/mox/MoxType.h" // each type's `fwkType` hands out a counted one
#include "kestrel/mox/Swallowed.h"
#include "kestrel/notify/Kinds.h"

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

// What the mutators of an attribute do, once for each kind. A generated mutator is one call of one of these.
//
// In all of them: an equal value changes, counts and tells nothing. A change is stored and counted before the first
// reactor runs, and stays whatever the reactors do. An exception leaves only if a reactor's own
// `onNotificationException` throws.
// The first reactor may change the name that a caller handed in, so a mutator copies the name for the time of a pass,
// unless it holds the object that carries it. Reactors may drop the last reference to the entity. They run in a pass,
// and where a released object goes: a mutator that touches the entity after either of these holds a reference to it.

namespace Mox {

/// One delivery pass of `A`'s notification; a keyed attribute's takes the key after the entity. Each type declares its
/// passes in its header and defines them in its own source (notify/Delivery.h), the only one that needs the reactor
/// interface, so that types derived from it do not compile them again.
template <class A, class... Key> inline void announce(typename A::Owner const& entity, Key const&... key) {
   entity.template moxAnnounce<A>(key...);
}

/// Floats compare as floats: a NaN always counts as a change, -0.0 equals +0.0.
template <class A> inline void scalarIs(typename A::Owner& entity, typename A::Value const& value) {
   auto& cell = A::cell(entity);
   if (cell == value)
      return;
   entity.moxChangeCountInc();
   // A reference's old target may go, and reactors run then: the owner is held.
   using Holder = std::conditional_t<A::kind == Kind::reference, Ptr<typename A::Owner>, typename A::Owner*>;
   [[maybe_unused]] Holder const held(&entity);
   cell = value;
   if (entity.moxHasReactors())
      announce<A>(entity);
}

/// Adds modulo the width of the type; signed counters wrap in two's complement. Counts a touch, never a change.
template <class A> inline typename A::Value counterInc(typename A::Owner& entity, typename A::Value const& delta) {
   using Value = typename A::Value;
   using Unsigned = std::make_unsigned_t<Value>;
   entity.moxTouchCountInc();
   auto& cell = A::cell(entity);
   auto const sum = static_cast<Value>(static_cast<Unsigned>(cell) + static_cast<Unsigned>(delta));
   if (sum == cell)
      return sum;
   cell = sum;
   if (entity.moxHasReactors())
      announce<A>(entity);
   return sum;
}

/// Back to the default. \return the value that was there
template <class A> inline typename A::Value optionalDel(typename A::Owner& entity) {
   typename A::Value const before = A::cell(entity);
   scalarIs<A>(entity, typename A::Value{});
   return before;
}

/// The value under `key`, or the default.
template <class A> inline typename A::Value mapValue(typename A::Owner const& entity, typename A::Key const& key) {
   auto const* const entry = A::cell(entity).find(key);
   return entry == nullptr ? typename A::Value{} : entry->value();
}

template <class A> inline void keyNotify(typename A::Owner const& entity, typename A::Key const& key) {
   if (entity.moxHasReactors()) {
      typename A::Key const own(key);
      announce<A>(entity, own);
   }
}

namespace detail {

/// As `keyNotify`, for a key that nothing can take away during the pass.
template <class A> inline void heldKeyNotify(typename A::Owner const& entity, typename A::Key const& key) {
   if (entity.moxHasReactors())
      announce<A>(entity, key);
}

/// Runs `first` and then `behind`, also where `first` throws. The exception of `first` goes on; one that `behind`
/// throws besides is swallowed.
template <class A, class First, class Behind>
void inAnyCase(typename A::Owner const& entity, First first, Behind behind) {
   try {
      first();
   } catch (...) {
      try {
         behind();
      } catch (...) {
         exceptionSwallowed(&entity, A::id);
      }
      throw;
   }
   behind();
}

} // namespace detail

/// Puts a new entry into the map, in the place of a present one with that key. Counts and tells nothing.
template <class A>
Ptr<typename A::Entry> newMapEntry(typename A::Owner& entity, typename A::Key const& key,
                                   typename A::Value const& value) {
   auto entry = make<typename A::Entry>(key, value);
   A::cell(entity).insert(entry);
   return entry;
}

template <class A>
inline void mapIs(typename A::Owner& entity, typename A::Key const& key, typename A::Value const& value) {
   if (auto* const entry = A::cell(entity).find(key)) {
      if (entry->value() == value)
         return;
      MapEntryAccess::valueIs(*entry, value);
   } else {
      newMapEntry<A>(entity, key, value);
   }
   entity.moxChangeCountInc();
   keyNotify<A>(entity, key);
}

namespace detail {

/// Does nothing where the map no longer holds `present`.
template <class A> typename A::Value mapEntryDel(typename A::Owner& entity, typename A::Entry& present) {
   auto const entry = A::cell(entity).remove(present);
   if (!entry)
      return {};
   entity.moxChangeCountInc();
   heldKeyNotify<A>(entity, entry->fwkKey());
   return entry->value();
}

} // namespace detail

/// \return the value that was there, or the default; an absent key is no error
template <class A> typename A::Value mapDel(typename A::Owner& entity, typename A::Key const& key) {
   auto* const entry = A::cell(entity).find(key);
   return entry == nullptr ? typename A::Value{} : detail::mapEntryDel<A>(entity, *entry);
}

/// Deletes the entry under the iterator, which keeps it as its position: advancing goes on after its key.
template <class A> typename A::Value mapDel(typename A::Owner& entity, typename A::Container::Iterator& it) {
   return it ? detail::mapEntryDel<A>(entity, *it.entry()) : typename A::Value{};
}

template <class A> void mapDelAll(typename A::Owner& entity) {
   Ptr<typename A::Owner> const held(&entity);
   for (typename A::Container::Iterator it(A::cell(entity)); it; it.advance())
      mapDel<A>(entity, it);
}

// References to entities that live elsewhere, keyed by the entities' own names.

namespace detail {

/// \throws RangeException always: a null reference has no name
[[noreturn]] void throwNullTarget(Ptr<MoxType const> (*type)(), std::string_view attribute);

template <class A> void checkTarget(typename A::Value const& target) {
   if (!target)
      throwNullTarget(&A::Owner::_fwkType, A::name);
}

} // namespace detail

/// Puts a new entry into the map, in the place of one with that name. Counts and tells nothing.
template <class A>
Ptr<typename A::Entry> newReferenceEntry(typename A::Owner& entity, typename A::Value const& target) {
   detail::checkTarget<A>(target);
   auto entry = make<typename A::Entry>(target);
   A::cell(entity).insert(entry);
   return entry;
}

/// \throws RangeException for null; nothing has changed then
template <class A> void referenceIs(typename A::Owner& entity, typename A::Value const& target) {
   detail::checkTarget<A>(target);
   Name const key = target->moxName(); // a reactor may release the target
   Ptr<typename A::Owner> const held(&entity);
   if (auto* const entry = A::cell(entity).find(key)) {
      if (entry->value() == target)
         return;
      // The old target may go, and reactors run then: the entry is not touched after this.
      MapEntryAccess::valueIs(*entry, target);
   } else {
      newReferenceEntry<A>(entity, target);
   }
   entity.moxChangeCountInc();
   detail::heldKeyNotify<A>(entity, key);
}

// Fixed arrays: the elements are always there, and deleting one stores the default.

template <class A>
inline void arrayIs(typename A::Owner& entity, typename A::Key const& key, typename A::Value const& value) {
   auto& array = A::cell(entity);
   if (array[key] == value)
      return; // an array that is not populated stays so
   array.store(key, value);
   entity.moxChangeCountInc();
   keyNotify<A>(entity, key);
}

/// \return the value that was there; a default one was no change
/// \throws RangeException for a key whose number was set past its range; nothing has changed then
template <class A> typename A::Value arrayDel(typename A::Owner& entity, typename A::Key const& key) {
   auto& array = A::cell(entity);
   typename A::Value const before = array[key];
   array.reset(key);
   if (before == typename A::Value{})
      return {};
   entity.moxChangeCountInc();
   keyNotify<A>(entity, key);
   return before;
}

/// Deletes the element under the iterator, which stays where it is. At the end it does nothing and returns the default.
template <class A> typename A::Value arrayDel(typename A::Owner& entity, typename A::Container::Iterator& it) {
   return it ? arrayDel<A>(entity, it.key()) : typename A::Value{};
}

template <class A> void arrayDelAll(typename A::Owner& entity) {
   Ptr<typename A::Owner> const held(&entity);
   for (typename A::Container::Iterator it(A::cell(entity)); it; it.advance())
      arrayDel<A>(entity, it);
}

// Instantiating collections: the member is the entry.

/// Creates a member under `name` and puts it in the place of a present one, which loses its parent. Counts and tells nothing:
/// nobody knows of it, a mirror included, until the name is announced.
template <class A, class... Parameters>
Ptr<typename A::Entry> newMember(typename A::Owner& entity, Name const& name, Parameters const&... parameters) {
   auto member = make<typename A::Entry>(name, parameters...);
   member->parentAttrIdIs(A::id);
   Ptr<typename A::Entry> const replaced = A::cell(entity).insert(member);
   // The new one gets its parent first: reactors of the replaced one find it complete, and may delete it again.
   auto const bind = [&] { member->parentIs(Ptr<Entity>(&entity)); };
   if (replaced) {
      Ptr<typename A::Owner> const held(&entity);
      detail::inAnyCase<A>(entity, bind, [&] { replaced->parentIs(nullptr); });
   } else {
      bind();
   }
   return member;
}

namespace detail {

template <class P, class Member>
void checkParameter(Name const& name, Member const& member, typename P::Value const& given) {
   member.moxTouchCountInc();
   auto const& current = P::cell(member);
   if (current == given)
      return;
   std::string text("Reinstantiating the entity with name ");
   text.append(quoted(name)).append(" where constructor parameter attribute _").append(P::name);
   text.append(" has a different value of ").append(std::string_view(Entity::fullNameOf(given.get())));
   text.append(" than the current value of ").append(std::string_view(Entity::fullNameOf(current.get())));
   text.append(" not allowed");
   throwNameInUseException(text);
}

template <class Member, class... Ps, class... Parameters>
void checkParameters(TypeList<Ps...>, Name const& name, Member const& member, Parameters const&... given) {
   (checkParameter<Ps>(name, member, given), ...);
}

/// Does nothing where the collection no longer holds `present`.
template <class A> Ptr<typename A::Entry> memberEntryDel(typename A::Owner& entity, typename A::Entry& present) {
   Ptr<typename A::Entry> member = A::cell(entity).remove(present);
   if (!member)
      return nullptr;
   entity.moxChangeCountInc();
   Ptr<typename A::Owner> const held(&entity);
   // Whatever the member's own reactors throw, the owner's must hear of it: a mirror would keep the member for ever.
   inAnyCase<A>(
      entity, [&] { member->parentIs(nullptr); }, [&] { heldKeyNotify<A>(entity, member->moxName()); });
   return member;
}

} // namespace detail

/// Finds or creates the member; finding counts as a change of the owner and tells nobody.
/// \throws NameInUseException when the member exists with other constructor parameters; nothing has changed then
template <class A, class... Parameters>
Ptr<typename A::Entry> memberIs(typename A::Owner& entity, Name const& name, Parameters const&... parameters) {
   if (auto* const present = A::cell(entity).find(name)) {
      detail::checkParameters(typename A::Entry::MoxParameters{}, name, *present, parameters...);
      entity.moxChangeCountInc();
      return Ptr<typename A::Entry>(present);
   }
   auto const member = newMember<A>(entity, name, parameters...);
   entity.moxChangeCountInc();
   detail::heldKeyNotify<A>(entity, member->moxName());
   return ValidPtr<typename A::Entry>(member);
}

/// \return the member, or null. Counts a touch, because the member can be changed.
template <class A> inline Ptr<typename A::Entry> memberFind(typename A::Owner& entity, Name const& name) {
   entity.moxTouchCountInc();
   return Ptr<typename A::Entry>(A::cell(entity).find(name));
}
template <class A> inline Ptr<typename A::Entry const> memberFind(typename A::Owner const& entity, Name const& name) {
   return Ptr<typename A::Entry const>(A::cell(entity).find(name));
}

/// A position whose members can be changed: counts a touch.
template <class A, class... Key>
typename A::Container::Iterator memberIterator(typename A::Owner& entity, Key const&... key) {
   entity.moxTouchCountInc();
   return typename A::Container::Iterator(A::cell(entity), key...);
}

/// \return the removed member, its parent cleared, or null; it lives on while somebody references it
template <class A> Ptr<typename A::Entry> memberDel(typename A::Owner& entity, Name const& name) {
   auto* const present = A::cell(entity).find(name);
   return present == nullptr ? Ptr<typename A::Entry>() : detail::memberEntryDel<A>(entity, *present);
}

template <class A> Ptr<typename A::Entry> memberDel(typename A::Owner& entity, typename A::Container::Iterator& it) {
   return it ? detail::memberEntryDel<A>(entity, *it.entry()) : nullptr;
}

template <class A> void memberDelAll(typename A::Owner& entity) {
   Ptr<typename A::Owner> const held(&entity);
   for (typename A::Container::Iterator it(A::cell(entity)); it; it.advance())
      memberDel<A>(entity, it);
}

} // namespace Mox
