// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Simulation.h"

#include <span>

namespace Simulation {

/// A run whose steps are written down: a situation that random steps meet seldom or never.
struct Scenario {
   char const* name;
   void (*play)(Run&);
   bool isMet = true; ///< false while the library doesn't pass it: tests leave it out
   Shape shape = Shape::pair;
};
std::span<Scenario const> scenarios() noexcept;

} // namespace Simulation
