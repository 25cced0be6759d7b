// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"

#include <cstddef>

namespace Simulation {

/// A sequence of numbers that one number fixes.
class Words {
public:
   explicit Words(Mox::U64 seed) noexcept : state_(seed) {}

   Mox::U64 next() noexcept {
      Mox::U64 z = state_ += 0x9e3779b97f4a7c15;
      z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
      z = (z ^ z >> 27) * 0x94d049bb133111eb;
      return z ^ z >> 31;
   }
   /// From 0 to `n` - 1; 0 for an `n` of 0.
   std::size_t below(std::size_t n) noexcept { return n == 0 ? 0 : static_cast<std::size_t>(next() % n); }
   bool chance(unsigned percent) noexcept { return below(100) < percent; }

private:
   Mox::U64 state_;
};

} // namespace Simulation
