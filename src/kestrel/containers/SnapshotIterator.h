// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/SnapshotStack.h"

#include <cstddef>

namespace Mox {

/// Walks a list as it is when the iterator is built, and keeps each element alive until it has been passed.
///
///     for (SnapshotIterator<ListRaw<Watcher>> it(watchers); it; it.advance())
///        it->onChange();   // may change the list, drop watchers, or walk the list again
///
/// An element whose last other reference goes before its turn is skipped. The elements are `PtrInterface`s.
/// *Lifetime*: an automatic variable, because longer snapshots of one thread share a stack.
/// *Cost*: two changes of a count per element. Up to sixteen elements live in the iterator; beyond that, a pass allocates
/// only when it is the deepest yet of its thread.
template <class List> class SnapshotIterator {
public:
   using Element = typename List::Element;
   static constexpr std::size_t inlineCount = 16;

   /// \throws std::bad_alloc for more than `inlineCount` elements, before any reference is taken
   [[gnu::always_inline]] explicit SnapshotIterator(List const& list)
      : slots_(list.size() <= inlineCount ? inline_ : SnapshotStack::push(list.size())), at_(slots_) {
      void** to = slots_;
      for (Element* e = list.first(); e != nullptr; e = e->moxNextInList()) {
         e->referenceInc();
         *to++ = e;
      }
      end_ = to;
   }
   SnapshotIterator(SnapshotIterator const&) = delete;
   SnapshotIterator& operator=(SnapshotIterator const&) = delete;
   static void* operator new(std::size_t) = delete;

   [[gnu::always_inline]] ~SnapshotIterator() {
      if (at_ != end_) [[unlikely]]
         releaseRest(at_, end_);
      if (slots_ != inline_) [[unlikely]]
         SnapshotStack::pop(slots_);
   }

   explicit operator bool() const noexcept { return at_ != end_; }
   Element* get() const noexcept { return at_ == end_ ? nullptr : element(at_); }
   Element& operator*() const noexcept { return *element(at_); }
   Element* operator->() const noexcept { return element(at_); }
   /// Index of the current element in the snapshot; the snapshot's size at the end.
   std::size_t position() const noexcept { return static_cast<std::size_t>(at_ - slots_); }
   std::size_t size() const noexcept { return static_cast<std::size_t>(end_ - slots_); }

   /// Releases the current element and moves on to the next one that somebody else still references.
   [[gnu::always_inline]] void advance() noexcept {
      do
         element(at_++)->referenceDec();
      while (at_ != end_ && element(at_)->references() == 1);
   }

private:
   static Element* element(void** at) noexcept { return static_cast<Element*>(*at); }
   [[gnu::cold]] static void releaseRest(void** at, void** end) noexcept {
      while (at != end)
         element(at++)->referenceDec();
   }

   void** slots_;
   void** at_;
   void** end_;
   void* inline_[inlineCount]; // not initialised: a pass over two elements must not pay for sixteen
};

/// Walks a list where there is no memory for a snapshot. It takes a piece of the list at a time, as many elements as a
/// `SnapshotIterator` holds by itself, and then goes on after the last element of the piece that is still on the list;
/// where none of them is, the walk ends. An element that leaves the list before its piece is taken is skipped, and one
/// that joins may be visited. An element that stays where it is, is not visited twice. *Lifetime*: an automatic
/// variable.
template <class List> class PiecewiseIterator {
public:
   using Element = typename List::Element;
   static constexpr std::size_t pieceCount = SnapshotIterator<List>::inlineCount;

   explicit PiecewiseIterator(List const& list) noexcept : list_(list), left_(list.size()) { take(list.first()); }
   PiecewiseIterator(PiecewiseIterator const&) = delete;
   PiecewiseIterator& operator=(PiecewiseIterator const&) = delete;
   ~PiecewiseIterator() { release(); }

   explicit operator bool() const noexcept { return at_ != end_; }
   Element& operator*() const noexcept { return *piece_[at_]; }

   void advance() noexcept {
      do
         if (++at_ == end_) {
            Element* const behind = next();
            release();
            take(behind);
         }
      while (at_ != end_ && piece_[at_]->references() == 1);
   }

private:
   /// The element after the last one of the piece that is still on the list; null where none of them is.
   Element* next() const noexcept {
      for (std::size_t i = end_; i-- != 0;)
         if (list_.contains(*piece_[i]))
            return piece_[i]->moxNextInList();
      return nullptr;
   }
   void take(Element* from) noexcept {
      for (at_ = end_ = 0; from != nullptr && end_ != pieceCount && left_ != 0; from = from->moxNextInList(), --left_) {
         from->referenceInc();
         piece_[end_++] = from;
      }
   }
   void release() noexcept {
      for (std::size_t i = 0; i != end_; ++i)
         piece_[i]->referenceDec();
      end_ = at_ = 0;
   }

   List const& list_;
   std::size_t left_; ///< how many elements of those on the list at the beginning have not been taken
   std::size_t at_ = 0;
   std::size_t end_ = 0;
   Element* piece_[pieceCount];
};

/// Calls `visit(element)` for each element of a list as it is now, whatever `visit` does to the list. Where there is no
/// memory for the snapshot of a long list, it goes by a `PiecewiseIterator`.
template <class List, class Visit> [[gnu::always_inline]] inline void visitSnapshot(List const& list, Visit visit) {
   if (list.size() > SnapshotIterator<List>::inlineCount && !SnapshotStack::reserve(list.size())) [[unlikely]] {
      for (PiecewiseIterator<List> it(list); it; it.advance())
         visit(*it);
      return;
   }
   for (SnapshotIterator<List> it(list); it; it.advance())
      visit(*it);
}

} // namespace Mox
