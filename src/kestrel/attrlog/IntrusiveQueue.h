// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace Mox::NboAttrLog {

/// What an element of an `IntrusiveQueue` keeps for the queue. Only the queue changes it.
template <class T> struct QueueLinks {
   T* before = nullptr;
   T* behind = nullptr;
   bool isQueued = false;
};

/// A queue whose links are its elements' own: joining and leaving take no memory, can't fail, and cost the same however long the
/// queue is. It owns nothing. \tparam T gives out its links with `queueLinks()`; it can stand in one such queue
template <class T> class IntrusiveQueue {
public:
   IntrusiveQueue() = default;
   IntrusiveQueue(IntrusiveQueue const&) = delete;
   IntrusiveQueue& operator=(IntrusiveQueue const&) = delete;

   bool empty() const noexcept { return head_ == nullptr; }
   std::size_t size() const noexcept { return size_; }
   T* first() const noexcept { return head_; }
   T* last() const noexcept { return tail_; }
   static T* next(T const& element) noexcept { return element.queueLinks().behind; }
   static T* previous(T const& element) noexcept { return element.queueLinks().before; }
   static bool isQueued(T const& element) noexcept { return element.queueLinks().isQueued; }

   /// Does nothing where the element is queued already. \return whether it has joined
   bool enqueue(T& element) noexcept {
      QueueLinks<T>& links = element.queueLinks();
      if (links.isQueued)
         return false;
      links = {tail_, nullptr, true};
      (tail_ == nullptr ? head_ : tail_->queueLinks().behind) = &element;
      tail_ = &element;
      ++size_;
      return true;
   }
   /// Does nothing where the element is not queued. \return whether it has left
   bool dequeue(T& element) noexcept {
      QueueLinks<T>& links = element.queueLinks();
      if (!links.isQueued)
         return false;
      (links.before == nullptr ? head_ : links.before->queueLinks().behind) = links.behind;
      (links.behind == nullptr ? tail_ : links.behind->queueLinks().before) = links.before;
      links = {};
      --size_;
      return true;
   }

private:
   T* head_ = nullptr;
   T* tail_ = nullptr;
   std::size_t size_ = 0;
};

} // namespace Mox::NboAttrLog
