#pragma once

#include "containers/SnapshotStack.h"

#include <cstddef>

namespace Mox {

/// Walks a list as it is when the iterator is built, and keeps each element alive until it has been passed.
///
///     for (SnapshotIterator<ListRaw<Watcher>> it(watchers); it; it.advance())
///        it->onChange();   // may change the list, drop watchers, or walk the list again
///
/// An element whose last other reference goes before its turn is passed over. The elements are `PtrInterface`s.
/// *Lifetime*: an automatic variable, because longer snapshots of one thread share a stack.
/// *Cost*: two changes of a count per element. Up to sixteen elements live in the iterator; beyond that, a pass allocates
/// only when it is the deepest yet of its thread.
template <class List> class SnapshotIterator {
public:
   using Element = typename List::Element;
   static constexpr std::size_t inlineCount = 16;

   /// \throws std::bad_alloc for more than `inlineCount` elements, before any reference is taken
   explicit SnapshotIterator(List const& list) : count_(list.size()) {
      if (count_ > inlineCount) [[unlikely]]
         base_ = SnapshotStack::push(count_);
      std::size_t i = 0;
      for (Element* e = list.first(); e != nullptr; e = e->moxNextInList()) {
         e->referenceInc();
         slotIs(i++, e);
      }
      current_ = list.first();
   }
   SnapshotIterator(SnapshotIterator const&) = delete;
   SnapshotIterator& operator=(SnapshotIterator const&) = delete;
   static void* operator new(std::size_t) = delete;

   ~SnapshotIterator() {
      while (position_ != count_)
         slot(position_++)->referenceDec();
      if (count_ > inlineCount) [[unlikely]]
         SnapshotStack::pop(base_);
   }

   explicit operator bool() const noexcept { return current_ != nullptr; }
   Element* get() const noexcept { return current_; }
   Element& operator*() const noexcept { return *current_; }
   Element* operator->() const noexcept { return current_; }
   /// Index of the current element in the snapshot; the snapshot's size at the end.
   std::size_t position() const noexcept { return position_; }
   std::size_t size() const noexcept { return count_; }

   /// Lets go of the current element and moves on to the next that somebody else still references.
   void advance() noexcept {
      do {
         ++position_;
         current_->referenceDec();
         current_ = position_ == count_ ? nullptr : slot(position_);
      } while (current_ != nullptr && current_->references() == 1);
   }

private:
   Element* slot(std::size_t i) const noexcept {
      if (count_ <= inlineCount) [[likely]]
         return inline_[i];
      return static_cast<Element*>(SnapshotStack::at(base_ + i));
   }
   void slotIs(std::size_t i, Element* element) noexcept {
      if (count_ <= inlineCount) [[likely]]
         inline_[i] = element;
      else
         SnapshotStack::at(base_ + i) = element;
   }

   Element* current_;
   std::size_t position_ = 0;
   std::size_t const count_;
   std::size_t base_ = 0;
   Element* inline_[inlineCount]; // left as it is: a pass over two elements must not pay for sixteen
};

} // namespace Mox
