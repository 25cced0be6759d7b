// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace Mox {

class MoxType;
class PtrInterface;
template <class T> class Ptr;

/// The process-wide switch between plain and atomic reference counts.
class VFPtrInterface {
public:
   /// *Threads*: call it before the second thread starts, and from no reactor; it can't be switched back while threads share
   /// objects.
   static void enableThreadSafePointers(bool on = true) noexcept { threadSafe_ = on; }
   static bool threadSafePointers() noexcept { return threadSafe_; }

private:
   static bool threadSafe_;
};

/// Base of everything that is counted: entities, reactors, collection entries, streams.
///
/// An object begins with a count of one, which belongs to its creator. `Mox::make` hands that count over as a `Ptr`; an
/// object on the stack or inside another one keeps it, so that no `Ptr` ever deletes the object. When the last count
/// goes, the object counts one again, does what its kind has to do before it goes (`lastReference`), and is then
/// deleted. A `Ptr` taken in between must be dropped in between: it can't keep the object alive, and the destructor
/// ends the process if one is left.
///
/// *Threads*: counts and flags share a word, changed by atomic operations while `enableThreadSafePointers` is on.
class PtrInterface {
public:
   class NotifieeConst;
   class Notifiee;
   class _Type;

   PtrInterface(PtrInterface const&) = delete;
   PtrInterface& operator=(PtrInterface const&) = delete;

   virtual void hasNotificationActiveIs(bool active);
   /// Number of faults found in this object's own structure, walking members down to `depth` levels.
   virtual unsigned moxAuditErrors(unsigned depth) const;
   virtual unsigned auditErrors(unsigned depth) const;
   /// Tells whoever watches that the last reference has gone.
   virtual void zeroReferencesIs(bool);
   /// The type object of the most derived framework type; null where the class has none.
   virtual Ptr<MoxType const> fwkType() const;
   virtual ~PtrInterface();

   /// Number of references, flags left out.
   std::uint32_t references() const noexcept { return word_.load(std::memory_order_relaxed) & countMask; }

   // Always inlined: a shared library would otherwise call them through its table of symbols, twice for each reactor of
   // a pass.
   [[gnu::always_inline]] void referenceInc() const noexcept {
      if (VFPtrInterface::threadSafePointers()) [[unlikely]]
         sharedReferenceInc();
      else
         plainReferenceInc();
   }
   [[gnu::always_inline]] void referenceDec() const noexcept {
      if (VFPtrInterface::threadSafePointers()) [[unlikely]]
         sharedReferenceDec();
      else
         plainReferenceDec();
   }

   /// As `referenceInc`, without reading the switch: for a pass that has read it once and counts for each reactor.
   [[gnu::always_inline]] void plainReferenceInc() const noexcept {
      word_.store(word_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
   }
   [[gnu::always_inline]] void plainReferenceDec() const noexcept {
      std::uint32_t const left = word_.load(std::memory_order_relaxed) - 1;
      word_.store(left, std::memory_order_relaxed);
      if ((left & countMask) == 0) [[unlikely]]
         lastReference();
   }

   /// Whether this is a state adapter, the object that stands between an entity and a stream of an attribute log. A
   /// flag of the object says so and no virtual function, which anybody may override: where this is true, a cast to the
   /// adapter's type is safe.
   bool moxIsStateAdapter() const noexcept { return kind() == stateAdapterKind; }

   /// Set on an entry or member while an open resend has not confirmed it; the end of the resend deletes what still has it.
   bool moxMarkedForDeletion() const noexcept { return flag(markedForDeletionFlag); }
   void moxMarkedForDeletionIs(bool marked) const noexcept { flagIs(markedForDeletionFlag, marked); }

   /// Only `Mox::make` creates counted objects on the heap.
   static void* operator new(std::size_t) = delete;

protected:
   static constexpr std::uint32_t countMask = 0x03ffffff;
   // Two bits for what the object is. A counted object of any other kind has neither.
   static constexpr std::uint32_t entityKind = 0x04000000;
   static constexpr std::uint32_t reactorKind = 0x08000000;
   static constexpr std::uint32_t stateAdapterKind = 0x0c000000;
   static constexpr std::uint32_t kindMask = 0x0c000000;
   static constexpr std::uint32_t markedForDeletionFlag = 0x10000000;
   static constexpr std::uint32_t activeFlag = 0x20000000;               ///< reactor: notification active
   static constexpr std::uint32_t registeredWhenPausedFlag = 0x40000000; ///< reactor: registered before deactivation
   static constexpr std::uint32_t dyingFlag = 0x80000000; ///< the last reference has gone, or the destructor runs

   explicit PtrInterface(std::uint32_t flags = 0) noexcept : word_(flags | 1u) {}

   std::uint32_t kind() const noexcept { return word_.load(std::memory_order_relaxed) & kindMask; }
   bool flag(std::uint32_t f) const noexcept { return (word_.load(std::memory_order_relaxed) & f) != 0; }
   void flagIs(std::uint32_t f, bool on) const noexcept {
      if (VFPtrInterface::threadSafePointers()) {
         if (on)
            word_.fetch_or(f, std::memory_order_relaxed);
         else
            word_.fetch_and(~f, std::memory_order_relaxed);
      } else {
         std::uint32_t const w = word_.load(std::memory_order_relaxed);
         word_.store(on ? w | f : w & ~f, std::memory_order_relaxed);
      }
   }

private:
   void sharedReferenceInc() const noexcept;
   void sharedReferenceDec() const noexcept;
   /// Defined a layer above (mox/Lifetime.cc), because what an object has to do before it goes depends on whether it is
   /// a reactor or an entity.
   void lastReference() const noexcept;

   mutable std::atomic<std::uint32_t> word_;
};

/// Counted reference; null allowed. Converts to const and to bases, compares by identity, hashes, tests.
template <class T> class Ptr {
public:
   using element_type = T;

   constexpr Ptr() noexcept = default;
   constexpr Ptr(std::nullptr_t) noexcept {}
   Ptr(T* object) noexcept : object_(object) {
      if (object_ != nullptr)
         object_->referenceInc();
   }
   Ptr(Ptr const& other) noexcept : Ptr(other.object_) {}
   Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
   template <class U>
      requires std::convertible_to<U*, T*>
   Ptr(Ptr<U> const& other) noexcept : Ptr(other.get()) {}
   template <class U>
      requires std::convertible_to<U*, T*>
   Ptr(Ptr<U>&& other) noexcept : object_(other.release()) {}
   [[gnu::always_inline]] ~Ptr() {
      if (object_ != nullptr)
         object_->referenceDec();
   }

   // Only a named `Ptr` can be assigned to: an assignment to what a function returns would be lost.
   Ptr& operator=(Ptr const& other) & noexcept { // NOLINT(bugprone-unhandled-self-assignment): takes before it releases
      Ptr(other).swap(*this);
      return *this;
   }
   Ptr& operator=(Ptr&& other) & noexcept {
      Ptr(std::move(other)).swap(*this);
      return *this;
   }

   T* get() const noexcept { return object_; }
   T* operator->() const noexcept { return object_; }
   T& operator*() const noexcept { return *object_; }
   explicit operator bool() const noexcept { return object_ != nullptr; }
   void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }
   /// Gives the reference away without counting; the caller owes one `referenceDec`.
   [[nodiscard]] T* release() noexcept { return std::exchange(object_, nullptr); }
   /// Takes over a count that the caller holds.
   static Ptr adopt(T* object) noexcept {
      Ptr p;
      p.object_ = object;
      return p;
   }

private:
   T* object_ = nullptr;
};

template <class T, class U> bool operator==(Ptr<T> const& a, Ptr<U> const& b) noexcept {
   return a.get() == b.get();
}
template <class T> bool operator==(Ptr<T> const& a, std::nullptr_t) noexcept {
   return a.get() == nullptr;
}
template <class T, class U> bool operator==(Ptr<T> const& a, U* b) noexcept {
   return a.get() == b;
}

/// Creates a counted object; the returned reference is its creator's.
template <class T, class... Args> Ptr<T> make(Args&&... args) {
   static_assert(std::derived_from<T, PtrInterface>,
                 "Mox::make creates counted objects: derive from Mox::PtrInterface");
   return Ptr<T>::adopt(::new T(std::forward<Args>(args)...));
}

template <class T, class U> Ptr<T> staticCast(Ptr<U> const& p) noexcept {
   return Ptr<T>(static_cast<T*>(p.get()));
}

/// A reference that is never null. \throws RangeException "null ValidPtr"
template <class T> class ValidPtr {
public:
   template <class U>
      requires std::convertible_to<U*, T*>
   ValidPtr(Ptr<U> const& p) : p_(p) {
      if (!p_)
         throwRangeException("null ValidPtr");
   }
   operator Ptr<T> const&() const noexcept { return p_; }
   T* get() const noexcept { return p_.get(); }
   T* operator->() const noexcept { return p_.get(); }
   T& operator*() const noexcept { return *p_; }
   friend bool operator==(ValidPtr const& a, ValidPtr const& b) noexcept { return a.p_ == b.p_; }

private:
   Ptr<T> p_;
};

} // namespace Mox

template <class T> struct std::hash<Mox::Ptr<T>> {
   std::size_t operator()(Mox::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.get()); }
};
