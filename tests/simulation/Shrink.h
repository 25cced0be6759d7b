// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace Simulation {

/// The shortest list that was found to fail still: halves are taken out, then quarters, down to single steps.
template <class Step, class Fails> std::vector<Step> shrink(std::vector<Step> steps, Fails const& fails) {
   for (std::size_t size = steps.size() / 2; size != 0; size /= 2) {
      bool again = true;
      while (again) {
         again = false;
         for (std::size_t at = 0; at < steps.size();) {
            std::vector<Step> fewer = steps;
            auto const from = fewer.begin() + static_cast<std::ptrdiff_t>(at);
            fewer.erase(from, from + static_cast<std::ptrdiff_t>(std::min(size, fewer.size() - at)));
            if (fails(fewer)) {
               steps = std::move(fewer);
               again = size == 1;
            } else {
               at += size;
            }
         }
      }
   }
   return steps;
}

} // namespace Simulation
