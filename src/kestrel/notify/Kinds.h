// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"
#include "kestrel/values/Enumeration.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <type_traits>

namespace Mox {

/// What a schema line calls `kind`. Each has its storage, its mutators (notify/Mutators.h) and its way over the log
/// (attrlog/LevelOut.h, LevelFlow.h, LevelIn.h); nothing else depends on it.
enum class Kind {
   scalar,
   optional,
   counter,
   reference,
   parameter,
   array,
   map,
   hashMap,
   collection,
   hashCollection,
   hashReferences,
};

/// Base of an attribute's descriptor: who owns it, its number, its value.
///
/// A descriptor is an empty class that names one attribute to every template. The compiler adds its `name`, and calls by the
/// attribute's own names: `cell(entity)` (storage), `put` and `drop` (the entity's mutators), `fire(object, key…)` (the
/// notification or handler `on<Attr>` of whatever object it is given).
template <Kind kind_, class Owner_, AttributeId id_, class Value_> struct AttributeBase {
   using Owner = Owner_;
   using Value = Value_;
   static constexpr Kind kind = kind_;
   static constexpr AttributeId id = id_;
   /// Whether notifications carry a key.
   static constexpr bool isKeyed = false;
   /// Whether there are entries, which come and go. An array has elements, which are always there.
   static constexpr bool hasEntries = false;
   /// Whether the entries are entities that the attribute creates and owns.
   static constexpr bool ownsMembers = false;
   /// Bit of the attribute in its level's dirty set.
   static constexpr unsigned bit = id_ - firstAttributeId(id_ / 128);
};

namespace detail {

/// Whether an attribute can begin with `Value{}`. It can't for an enumeration without 0, because the log sends only
/// enumerators.
template <class Value> constexpr bool hasSoundDefault() noexcept {
   if constexpr (Enumeration<Value>)
      return isEnumerator(Value{});
   else
      return true;
}

template <class Value, class Number>
concept ConstantFrom = requires { typename std::bool_constant<(static_cast<void>(Value{Number{}()}), true)>; };
template <class Number> struct ZeroOf {
   constexpr auto operator()() const noexcept { return decltype(Number{}()){}; }
};

} // namespace detail

/// Whether `Value` accepts the number that `number()` returns, a constant. A type that can't be made at compile time at
/// all is not judged here: it checks at run time.
template <class Value, class Number> constexpr bool isFirst(Number) noexcept {
   if constexpr (Enumeration<Value>)
      return isEnumerator(Value{Number{}()});
   else
      return detail::ConstantFrom<Value, Number> || !detail::ConstantFrom<Value, detail::ZeroOf<Number>>;
}

/// A value; `hasDefault` where the schema says which it begins with.
template <class Owner, AttributeId id, class Value, bool hasDefault = false>
struct ScalarAttribute : AttributeBase<Kind::scalar, Owner, id, Value> {
   static_assert(hasDefault || detail::hasSoundDefault<Value>(),
                 "the attribute begins with 0, which is no enumerator: give it a default, or the enumeration a 0");
};
/// A scalar that can be deleted: back to its default.
template <class Owner, AttributeId id, class Value>
struct OptionalAttribute : AttributeBase<Kind::optional, Owner, id, Value> {
   static_assert(detail::hasSoundDefault<Value>(),
                 "the attribute is deleted to 0, which is no enumerator: give the enumeration a 0");
};
template <class Owner, AttributeId id, class Value>
using CounterAttribute = AttributeBase<Kind::counter, Owner, id, Value>;
/// Counted reference to an entity that the owner does not own; `Target` may be const.
template <class Owner, AttributeId id, class Target_>
struct ReferenceAttribute : AttributeBase<Kind::reference, Owner, id, Ptr<Target_>> {
   using Target = Target_;
};
/// Reference handed to the constructor, never changed.
template <class Owner, AttributeId id, class Target_>
struct ParameterAttribute : AttributeBase<Kind::parameter, Owner, id, Ptr<Target_>> {
   using Target = Target_;
};

/// Entries under keys. The container tells the types of both.
template <Kind kind, class Owner, AttributeId id, class Container_, class Value = typename Container_::ValueType>
struct KeyedAttribute : AttributeBase<kind, Owner, id, Value> {
   using Key = typename Container_::KeyType;
   using Entry = typename Container_::EntryType;
   using Container = Container_;
   static constexpr bool isKeyed = true;
   static constexpr bool hasEntries = true;
   static constexpr bool ownsMembers = kind == Kind::collection || kind == Kind::hashCollection;
};

/// Counted references to entities that the owner does not own, under their own names; `Target` may be const.
template <class Owner, AttributeId id, class Container>
struct ReferencesAttribute
   : KeyedAttribute<Kind::hashReferences, Owner, id, Container, Ptr<typename Container::ValueType>> {
   using Target = typename Container::ValueType;
};

/// One value for each key of a bounded type.
template <class Owner, AttributeId id, class Container_>
struct ArrayAttribute : AttributeBase<Kind::array, Owner, id, typename Container_::ValueType> {
   using Key = typename Container_::KeyType;
   using Container = Container_;
   static constexpr bool isKeyed = true;
   static_assert(detail::hasSoundDefault<typename Container_::ValueType>(),
                 "an element is deleted to 0, which is no enumerator: give the enumeration a 0");
};

/// The type that an accessor returns. A class is const, so that `port->rollOff() = 1`, which would change a temporary
/// copy, does not compile.
template <class Value> using Handed = std::conditional_t<std::is_class_v<Value>, Value const, Value>;

/// A list of types, of descriptors mostly.
template <class... Types> struct TypeList {
   static constexpr std::size_t size = sizeof...(Types);
   template <class Visitor> static constexpr void forEach(Visitor&& visit) { (visit(Types{}), ...); }
};

namespace detail {

constexpr AttributeId idOfFirst(TypeList<>, unsigned level) noexcept {
   return firstAttributeId(level);
}
template <class A, class... As> constexpr AttributeId idOfFirst(TypeList<A, As...>, unsigned) noexcept {
   return A::id;
}
template <class... As> constexpr AttributeId idOfLast(TypeList<As...>, unsigned level) noexcept {
   AttributeId last = firstAttributeId(level);
   ((last = As::id), ...);
   return last;
}

template <class Visitor, class A> void visitOne(Visitor& visit) {
   visit(A{});
}

template <class Visitor, AttributeId first, AttributeId last, class... As>
constexpr auto visitorTable(TypeList<As...>) noexcept {
   std::array<void (*)(Visitor&), last - first + 1> table{};
   ((table[As::id - first] = &visitOne<Visitor, As>), ...);
   return table;
}

} // namespace detail

/// Lowest and highest identifier of the attributes that the level of `X` adds; the level's first where it adds none.
template <class X>
inline constexpr AttributeId firstAttribute = detail::idOfFirst(typename X::MoxAttributes{}, X::moxLevel);
template <class X>
inline constexpr AttributeId lastAttribute = detail::idOfLast(typename X::MoxAttributes{}, X::moxLevel);

/// Calls `visit` with the descriptor of attribute `id` of the level that `X` adds to its base: the one dispatch from number to
/// attribute, a table look-up. False where the level has no such attribute.
template <class X, class Visitor> bool visitAttribute(AttributeId id, Visitor&& visit) {
   using V = std::remove_reference_t<Visitor>;
   if constexpr (X::MoxAttributes::size != 0) {
      static constexpr auto table =
         detail::visitorTable<V, firstAttribute<X>, lastAttribute<X>>(typename X::MoxAttributes{});
      if (id < firstAttribute<X> || id > lastAttribute<X>)
         return false;
      if (auto const call = table[id - firstAttribute<X>]) {
         call(visit);
         return true;
      }
   }
   return false;
}

/// Name of attribute `id` of the level that `X` adds to its base, constructor parameters included; empty where it has none.
template <class X> std::string_view attributeNameOf(AttributeId id) {
   std::string_view name;
   visitAttribute<X>(id, [&](auto a) { name = a.name; });
   X::MoxParameters::forEach([&](auto p) {
      if (std::is_same_v<typename decltype(p)::Owner, X> && p.id == id)
         name = p.name;
   });
   return name;
}

} // namespace Mox
