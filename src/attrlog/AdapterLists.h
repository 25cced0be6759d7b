// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "attrlog/StateAdapter.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// The lists of adapters that a demultiplexer keeps. Each adapter stands in a list at most once and knows its place there, so that
// joining and leaving cost the same however many there are.

namespace Mox::NboAttrLog {

/// Adapters that owe everything, in the order in which they came to. The links are the adapters' own: joining can't fail.
class AdapterQueue {
public:
   using Sa = Entity::MoxNboAttrLogSa;

   AdapterQueue() = default;
   AdapterQueue(AdapterQueue const&) = delete;
   AdapterQueue& operator=(AdapterQueue const&) = delete;

   bool empty() const noexcept { return head_ == nullptr; }
   std::size_t size() const noexcept { return size_; }
   Sa* first() const noexcept { return head_; }
   static Sa* next(Sa const& sa) noexcept { return sa.queuedBehind_; }
   static bool isQueued(Sa const& sa) noexcept { return sa.isQueued_; }

   void enqueue(Sa& sa) noexcept {
      if (std::exchange(sa.isQueued_, true))
         return;
      sa.queuedBefore_ = tail_;
      (tail_ == nullptr ? head_ : tail_->queuedBehind_) = &sa;
      tail_ = &sa;
      ++size_;
   }
   void dequeue(Sa& sa) noexcept {
      if (!std::exchange(sa.isQueued_, false))
         return;
      (sa.queuedBefore_ == nullptr ? head_ : sa.queuedBefore_->queuedBehind_) = sa.queuedBehind_;
      (sa.queuedBehind_ == nullptr ? tail_ : sa.queuedBehind_->queuedBefore_) = sa.queuedBefore_;
      sa.queuedBefore_ = sa.queuedBehind_ = nullptr;
      --size_;
   }

private:
   Sa* head_ = nullptr;
   Sa* tail_ = nullptr;
   std::size_t size_ = 0;
};

/// Adapters with notes of one sort, in no particular order. \tparam at the note that holds the adapter's place
template <std::uint32_t Notes::*at> class NotedAdapters {
public:
   using Sa = Entity::MoxNboAttrLogSa;

   bool empty() const noexcept { return adapters_.empty(); }
   std::size_t size() const noexcept { return adapters_.size(); }
   Sa* last() const noexcept { return adapters_.back(); }
   std::vector<Sa*> const& all() const noexcept { return adapters_; }

   /// \throws std::bad_alloc; nothing has changed then
   void add(Sa& sa) {
      Notes& notes = *sa.notes();
      if (notes.*at != Notes::unlisted)
         return;
      adapters_.push_back(&sa);
      notes.*at = static_cast<std::uint32_t>(adapters_.size() - 1);
   }
   void remove(Sa& sa) noexcept {
      if (sa.notes() == nullptr || sa.notes()->*at == Notes::unlisted)
         return;
      std::uint32_t const place = std::exchange(sa.notes()->*at, Notes::unlisted);
      if (place + 1 != adapters_.size()) {
         adapters_[place] = adapters_.back();
         adapters_[place]->notes()->*at = place;
      }
      adapters_.pop_back();
      if (adapters_.empty())
         adapters_ = {}; // memory comes back after a burst
   }

private:
   std::vector<Sa*> adapters_;
};

} // namespace Mox::NboAttrLog
