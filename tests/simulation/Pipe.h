// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Words.h"
#include "kestrel/attrlog/LinkEnd.h"
#include "support/Allocations.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace Simulation {

/// One direction of a connection: takes what the sender has, as far as its room goes, and hands it over in pieces of any size.
class Pipe {
public:
   bool isStalled(std::size_t now) const noexcept { return now < stalledUntil_; }
   void stall(std::size_t until) noexcept { stalledUntil_ = until; }

   /// \return whether a byte moved
   bool carry(Mox::LinkEnd& from, Mox::LinkEnd& to, Words& words, bool isWhole) {
      bool moved = false;
      if (auto const offered = from.bytesToSend(); !offered.empty() && bytes_.size() < room_) {
         std::size_t const most = std::min(offered.size(), room_ - bytes_.size());
         std::size_t const n = isWhole ? most : 1 + words.below(most);
         bytes_.insert(bytes_.end(), offered.begin(), offered.begin() + static_cast<std::ptrdiff_t>(n));
         from.bytesSent(n);
         moved = true;
      }
      if (!bytes_.empty()) {
         deliver(to, isWhole ? bytes_.size() : 1 + words.below(bytes_.size()));
         moved = true;
      }
      return moved;
   }
   /// Hands over what is under way while one allocation fails. \return whether it did
   bool deliverWithoutMemory(Mox::LinkEnd& to, Words& words) {
      std::vector<std::uint8_t> const piece = std::exchange(bytes_, {});
      NoMemory const once(true, words.below(12));
      to.bytesArrived(piece);
      return NoMemory::hasFailed();
   }
   /// The connection ends: of what is under way some bytes still arrive, the others never.
   void cut(Mox::LinkEnd& to, Words& words) {
      if (!bytes_.empty())
         deliver(to, words.below(bytes_.size() + 1));
      bytes_.clear();
      stalledUntil_ = 0;
   }
   bool empty() const noexcept { return bytes_.empty(); }

private:
   void deliver(Mox::LinkEnd& to, std::size_t n) {
      // Taken out first: a reactor may carry more while this is applied.
      std::vector<std::uint8_t> const piece(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n));
      bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n));
      to.bytesArrived(piece);
   }

   std::vector<std::uint8_t> bytes_;
   static constexpr std::size_t room_ = 2000;
   std::size_t stalledUntil_ = 0;
};

} // namespace Simulation
