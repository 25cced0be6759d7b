// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

/// Polls all loops in turn until `done()`.
template <class Done, class... Loops> bool together(Done done, Loops&... loops) {
   using namespace std::chrono_literals;
   auto const end = std::chrono::steady_clock::now() + 60s; // for one that hangs
   while (!done()) {
      if (std::chrono::steady_clock::now() > end)
         return false;
      (loops.pollOnce(1ms), ...);
   }
   return true;
}
