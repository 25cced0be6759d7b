// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/ListRaw.h"
#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"
#include "kestrel/mox/Reactor.h"

#include <string>

namespace Mox {

class MoxType;

namespace NboAttrLog {
class Out;
}

/// Base of every entity: a named, counted object with attributes that reactors watch.
///
/// *Threads*: one thread at a time uses an entity, its reactors and its adapters. No lock is taken.
/// *Lifetime*: an entity lives as long as somebody references it; its parent's collection is one of those. The link to
/// the parent is no reference: a parent clears it before it goes.
class Entity : public PtrInterface {
public:
   class NotifieeConst;
   class Notifiee;
   class MoxNboAttrLogSa;
   class GenericIf_;
   class _Type;
   template <class Interface, class Derived> class MoxForwarder;

   /// The attributes of every entity, as values.
   struct Attr {
      struct parent_t {
         static constexpr AttributeId id = attr::parent;
         static constexpr std::string_view name = "parent";
         static constexpr bool isKeyed = false;
         using Owner = Entity;
         static void fire(auto& to) { to.onParent(); }
      };
      static constexpr parent_t parent{};
   };

   /// Depth of the class chain.
   static constexpr unsigned moxLevel = 1;
   /// Whether the log cannot create the type, because its constructor takes what the log does not carry.
   static constexpr bool moxIsAbstract = false;

   explicit Entity(Name name);

   void hasNotificationActiveIs(bool active) override;
   unsigned moxAuditErrors(unsigned depth) const override;
   unsigned auditErrors(unsigned depth) const override;
   void zeroReferencesIs(bool) override;
   Ptr<MoxType const> fwkType() const override;
   ~Entity() override;

   virtual Name name() const;
   virtual Ptr<Entity const> parent() const;
   virtual Ptr<Entity> parent();
   /// \throws InternalException where `parent` is this entity or stands below it; nothing has changed then
   virtual void parentIs(Ptr<Entity> const& parent);
   /// Name of the parent's attribute that holds this entity; empty without a parent.
   virtual String8 parentAttr() const;
   virtual AttributeId parentAttrId() const;
   virtual void parentAttrIdIs(AttributeId id);
   /// `/` before each step, percent-escapes in steps, "%" for the empty name. The name of the parent's attribute is a step of its
   /// own, except below a directory: a type directly below `Mox::Entity` with one collection.
   virtual String8 uriPath() const;
   virtual String8 fullName() const;
   /// The attribute's name, or "unknown".
   virtual String8 attributeString(AttributeId id) const;
   virtual void moxNotifieeAdapterIs(Ptr<PtrInterface::NotifieeConst> const& adapter);
   /// Tells the reactors that the parent has changed.
   virtual void handleParent(Ptr<Entity> const& before);
   virtual Ptr<MoxNboAttrLogSa const> moxNboAttrLogSa(Ptr<NboAttrLog::Out const> const& out) const;
   virtual bool moxHasAttrLogInterface() const;
   virtual Ptr<MoxNboAttrLogSa> moxNboAttrLogSa(Ptr<NboAttrLog::Out const> const& out);
   virtual Ptr<MoxNboAttrLogSa> moxNboAttrLogSaForMsgChannel(Ptr<MoxNboAttrLogSa> const& other) const;
   /// Finds, updates or makes the adapter of the entity's type on `out`.
   /// \throws RangeException "null ValidPtr" for a null stream
   /// \throws InternalException for a type without an attribute log
   virtual Ptr<MoxNboAttrLogSa> moxNboAttrLogSaIs(Mox_BitSet flags, unsigned sequence, Ptr<NboAttrLog::Out> const& out,
                                                  PtrInterface* parent);
   virtual Ptr<MoxNboAttrLogSa> moxNboAttrLogSaDel(Ptr<NboAttrLog::Out const> const& out);

   static Ptr<MoxType const> _fwkType();

   /// Changes of stored state so far. Wraps.
   std::uint32_t changeCount() const noexcept { return changeCount_; }
   /// Accesses that hand out something changeable, and increments. Wraps.
   std::uint32_t touchCount() const noexcept { return touchCount_; }
   void moxChangeCountInc() const noexcept { ++changeCount_; }
   void moxTouchCountInc() const noexcept { ++touchCount_; }

   /// The reactors in the order in which they are called: adapters first, the youngest before the older, then the others as
   /// they registered.
   ListRaw<PtrInterface::NotifieeConst> const& moxReactors() const noexcept { return reactors_; }
   bool moxHasReactors() const noexcept { return !reactors_.empty(); }
   Entity* moxRawParent() const noexcept { return parent_; }
   Name const& moxName() const noexcept { return name_; }
   /// The name's hash. Kept in the entity, so that a directory that looks for a member, or goes on to the next, does not
   /// fetch the name for it.
   std::uint32_t fwkKeyHash() const noexcept { return nameHash_ != 0 ? nameHash_ : nameHash_ = name_.hash(); }
   bool moxIsDying() const noexcept { return flag(dyingFlag); }

   /// The full name of `entity`, or "null".
   static String8 fullNameOf(Entity const* entity);

protected:
   /// What an entity does before it goes: it tells the reactors, deletes its members with notifications, and detaches
   /// its reactors. Every most derived destructor calls this, so that an object on the stack does the same; only the
   /// first call has an effect.
   void moxEnd() noexcept;

private:
   friend class PtrInterface;
   friend class PtrInterface::NotifieeConst;

   void reactorIs(PtrInterface::NotifieeConst const& reactor) const;
   void reactorDel(PtrInterface::NotifieeConst const& reactor) const;
   void idleWeakIs(PtrInterface::NotifieeConst const& reactor) const;
   void idleWeakDel(PtrInterface::NotifieeConst const& reactor) const;

   mutable std::uint32_t nameHash_ = 0; // 0 until it is asked for; stored here, where it fills padding
   Name name_;
   Entity* parent_ = nullptr;
   AttributeId parentAttrId_ = 0;
   mutable std::uint32_t changeCount_ = 0;
   mutable std::uint32_t touchCount_ = 0;
   bool hasBeenParent_ = false; // stored here, where it fills padding
   mutable ListRaw<PtrInterface::NotifieeConst> reactors_;
   /// Weak reactors that are attached but not on the list: they too lose their notifier when the entity goes.
   mutable PtrInterface::NotifieeConst* idleWeak_ = nullptr;
};

/// Reactor interface of every entity type.
class Entity::NotifieeConst : public PtrInterface::NotifieeConst {
public:
   static constexpr ReactorClass reactorClass{&PtrInterface::NotifieeConst::reactorClass};
   using MoxNotifier = Entity;

   virtual void onParent() {}
   /// Never called: no entity has a version.
   virtual void onVersion() {}

   Ptr<Entity const> notifier() const noexcept { return Ptr<Entity const>(rawNotifier()); }
   void notifierIs(Ptr<PtrInterface const> const& notifier) override { notifierOfTypeIs<Entity>(notifier); }

protected:
   NotifieeConst() noexcept { reactorClassIs(reactorClass); }

   /// Takes `notifier` as a `T`; an object of another type counts as null.
   template <class T> void notifierOfTypeIs(Ptr<PtrInterface const> const& notifier) {
      notifierEntityIs(dynamic_cast<T const*>(notifier.get()));
   }
   /// The notifier as a `T`; null where it is only a base of one.
   template <class T> Ptr<T const> notifierOfType() const noexcept {
      return Ptr<T const>(dynamic_cast<T const*>(rawNotifier()));
   }
   template <class T> Ptr<T> changeable() const noexcept {
      return Ptr<T>(const_cast<T*>(dynamic_cast<T const*>(rawNotifier())));
   }
};

/// The variant for reactors that hold the entity as changeable.
class Entity::Notifiee : public Entity::NotifieeConst {
public:
   Ptr<Entity> notifier() const noexcept { return changeable<Entity>(); }
};

} // namespace Mox
