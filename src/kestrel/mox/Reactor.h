// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Mox {

class ActivityConfig;
class Activity;
class Entity;

/// Flags of a reactor as the framework passes them around.
struct Mox_BitSet {
   /// The flags that say how a reactor is notified; the others belong to the adapter that carries them.
   static constexpr std::uint32_t notificationBitMask = 0x0000007f;
   std::uint32_t bits = 0;
   friend constexpr bool operator==(Mox_BitSet, Mox_BitSet) noexcept = default;
};

/// Identity of a reactor interface: one object per interface, and the chain of its bases.
///
/// Interfaces of two types that derive from one base have the same depth: only the identity at a level tells them
/// apart.
class ReactorClass {
public:
   /// `PtrInterface` has level 0, `Mox::Entity` 1; moxc refuses types above 7.
   static constexpr unsigned maximumLevels = 8;

   constexpr ReactorClass() noexcept : level_(0) { chain_[0] = this; }
   explicit constexpr ReactorClass(ReactorClass const* base) noexcept : level_(base->level_ + 1), chain_(base->chain_) {
      chain_[level_] = this;
   }
   /// Whether this is `other` or derives from it: one comparison.
   constexpr bool derivesFrom(ReactorClass const& other) const noexcept { return chain_[other.level_] == &other; }
   /// As `derivesFrom`, for an interface that is known at compile time, whose level need not be read.
   template <class Interface> bool isOf() const noexcept {
      constexpr unsigned level = Interface::reactorClass.level_;
      return chain_[level] == &Interface::reactorClass;
   }

   /// Exceptions of reactors of this class that the default `onNotificationException` has swallowed.
   std::uint64_t swallowedExceptions() const noexcept { return swallowed_.load(std::memory_order_relaxed); }
   void swallowedExceptionsInc() const noexcept { swallowed_.fetch_add(1, std::memory_order_relaxed); }

private:
   unsigned level_;
   std::array<ReactorClass const*, maximumLevels> chain_{};
   mutable std::atomic<std::uint64_t> swallowed_{0};
};

/// Base of all reactors: the link to the notifier, registration, and the slots through which the framework reaches a
/// reactor without knowing its type.
///
/// *Lifetime*: registration adds no reference. An ordinary reactor holds its notifier; a weak one does not, and sees
/// `onZeroReferences` when the notifier goes, after which it has no notifier.
/// *Threads*: one thread at a time, the notifier's.
class PtrInterface::NotifieeConst : public PtrInterface {
public:
   static constexpr ReactorClass reactorClass{};

   void hasNotificationActiveIs(bool active) override;
   ~NotifieeConst() override;

   /// The object that reacts: this, or for a forwarding adapter its owner.
   virtual Ptr<PtrInterface> moxReactor() const;
   virtual PtrInterface* moxRawReactor() const;
   /// True for the reactors of attribute-log adapters. The framework decides nothing by it: see `moxIsAtHead`.
   virtual bool isStreamAdapter() const;
   /// Puts the reactor on its notifier's list or takes it off. Without a notifier only the flag is set.
   virtual void isRegisteredNotifieeIs(bool registered) const;
   virtual void mox_bitSetIs(Mox_BitSet flags);
   /// The notifier's name; empty without a notifier.
   virtual Name name() const;
   /// Attaches to `notifier`, or detaches with null. An entity that this reactor can't watch counts as null.
   virtual void notifierIs(Ptr<PtrInterface const> const& notifier);
   virtual void handleNotification(ActivityConfig*);
   virtual void handleDefault(ActivityConfig*, AttributeId, bool);
   virtual void onAttribute(AttributeId);
   virtual void onNotification();
   virtual void onCollectionNotification(String8);
   virtual void onNotificationException();
   /// One of this reactor's notifications threw; the exception is current. The default swallows it, counts it (per
   /// process and per reactor class) and keeps its text (mox/Swallowed.h). What an override throws leaves the mutator.
   virtual void onNotificationException(AttributeId);
   virtual void handleNotificationException(AttributeId);
   virtual void handleNotificationException();
   virtual void onZeroReferences();
   virtual Ptr<Activity> activityPtr() const;
   virtual Activity* moxFwkActivity();
   virtual Activity const* moxFwkActivity() const;
   virtual Activity* actsm();

   bool isRegisteredNotifiee() const noexcept { return registered_; }
   bool hasNotificationActive() const noexcept { return flag(activeFlag); }
   bool isWeakReference() const noexcept { return weak_; }
   /// A weak reactor does not keep its notifier alive. Allowed at any time.
   void isWeakReferenceIs(bool weak);

   ReactorClass const& moxClass() const noexcept { return *class_; }
   template <class Interface> bool isOfClass() const noexcept { return class_->isOf<Interface>(); }

   /// Whether this was an attribute log's reactor when it joined its notifier's list, that is, whether `moxReactor`
   /// returned a state adapter. Such reactors stand at the head of the list.
   bool moxIsAtHead() const noexcept { return isAtHead_; }
   /// The object that reacts, if it is an attribute log's state adapter; else null.
   PtrInterface* moxRawStateAdapter() const {
      PtrInterface* const object = moxRawReactor();
      return object != nullptr && object->moxIsStateAdapter() ? object : nullptr;
   }

   // The list of the notifier.
   NotifieeConst* moxNextInList() const noexcept { return next_; }
   void moxNextInListIs(NotifieeConst* next) const noexcept { next_ = next; }

   /// As `Mox::swallowedExceptions`.
   static std::uint64_t swallowedExceptions() noexcept;

protected:
   NotifieeConst() noexcept : PtrInterface(reactorKind | activeFlag), class_(&reactorClass) {}

   void reactorClassIs(ReactorClass const& c) noexcept { class_ = &c; }
   Entity const* rawNotifier() const noexcept { return notifier_; }
   /// Turns the registered flag off and leaves the list, also where a class overrides `isRegisteredNotifieeIs`.
   void leaveList() const;
   void notifierEntityIs(Entity const* notifier);

private:
   friend class Mox::Entity;
   friend class PtrInterface;

   void join(Entity const& notifier) const;
   void leave(Entity const& notifier) const;

   ReactorClass const* class_;
   mutable Entity const* notifier_ = nullptr;
   mutable NotifieeConst* next_ = nullptr;
   mutable bool registered_ = false;
   mutable bool isAtHead_ = false; // as of the last registration
   bool weak_ = false;
};

/// A reactor that may change what it watches.
class PtrInterface::Notifiee : public PtrInterface::NotifieeConst {};

} // namespace Mox
