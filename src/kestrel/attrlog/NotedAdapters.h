// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/StateAdapter.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Mox::NboAttrLog {

/// Adapters with notes of one sort, each once, in no particular order. Each knows its place, so that joining and leaving cost the same
/// however many there are. \tparam at the note that holds the adapter's place
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
