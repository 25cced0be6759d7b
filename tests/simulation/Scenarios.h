// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Run.h"

#include <span>

namespace Simulation {

/// A run whose steps are written down: a situation that random steps meet seldom or never.
struct Scenario {
   char const* name;
   void (*play)(Run&);
   bool isMet = true; ///< false while the library doesn't pass it: it is played only where it is named
   Shape shape = Shape::pair;
};
std::span<Scenario const> scenarios() noexcept;

} // namespace Simulation
