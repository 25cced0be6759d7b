// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace Mox {

/// Singly linked list of objects that carry the link themselves: `T* moxNextInList() const` and `moxNextInListIs(T*)`.
///
/// It owns nothing and counts no reference: whoever puts an element on it takes it off before the element goes. An
/// element is on one list at most. Putting it on a second one is an InternalException, except for the last element of
/// another list, which goes unnoticed.
/// *Cost*: no allocation; both ends in constant time, `unlink` searches from the head.
/// *Iterators*: plain pointers along the links. To call out while walking, take a `SnapshotIterator`.
template <class T> class ListRaw {
public:
   using Element = T;

   class Iterator {
   public:
      using value_type = T;
      using difference_type = std::ptrdiff_t;

      Iterator() noexcept = default;
      explicit Iterator(T* element) noexcept : element_(element) {}
      T& operator*() const noexcept { return *element_; }
      T* operator->() const noexcept { return element_; }
      Iterator& operator++() noexcept {
         element_ = element_->moxNextInList();
         return *this;
      }
      Iterator operator++(int) noexcept {
         Iterator const before = *this;
         ++*this;
         return before;
      }
      friend bool operator==(Iterator, Iterator) noexcept = default;

   private:
      T* element_ = nullptr;
   };

   ListRaw() noexcept = default;
   ListRaw(ListRaw const&) = delete;
   ListRaw& operator=(ListRaw const&) = delete;

   T* first() const noexcept { return head_; }
   T* last() const noexcept { return tail_; }
   bool empty() const noexcept { return head_ == nullptr; }
   std::size_t size() const noexcept { return count_; }
   /// Changes with every insertion and removal.
   std::uint32_t version() const noexcept { return version_; }
   Iterator begin() const noexcept { return Iterator(head_); }
   Iterator end() const noexcept { return Iterator(); }

   bool contains(T const& element) const noexcept {
      for (T const& e : *this)
         if (&e == &element)
            return true;
      return false;
   }

   void pushFront(T& element) {
      requireUnlinked(element);
      element.moxNextInListIs(head_);
      head_ = &element;
      if (tail_ == nullptr)
         tail_ = &element;
      ++count_;
      ++version_;
   }
   void pushBack(T& element) {
      requireUnlinked(element);
      if (tail_ == nullptr)
         head_ = &element;
      else
         tail_->moxNextInListIs(&element);
      tail_ = &element;
      ++count_;
      ++version_;
   }
   /// \return whether the element was on this list
   bool unlink(T& element) noexcept {
      T* before = nullptr;
      T* e = head_;
      while (e != nullptr && e != &element) {
         before = e;
         e = e->moxNextInList();
      }
      if (e == nullptr)
         return false;
      T* const next = element.moxNextInList();
      if (before == nullptr)
         head_ = next;
      else
         before->moxNextInListIs(next);
      if (tail_ == &element)
         tail_ = before;
      element.moxNextInListIs(nullptr);
      --count_;
      ++version_;
      return true;
   }

private:
   /// The last element of another list is the one case that this can't see.
   void requireUnlinked(T const& element) const {
      if (element.moxNextInList() != nullptr || tail_ == &element)
         throwInternalException("a list element is put on a list while it is on one");
   }

   T* head_ = nullptr;
   T* tail_ = nullptr;
   std::size_t count_ = 0;
   std::uint32_t version_ = 0;
};

} // namespace Mox
