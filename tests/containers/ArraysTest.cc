// SPDX-License-Identifier: Apache-2.0
#include "containers/DynArray.h"
#include "support/Thrown.h"
#include "values/Coherent.h"
#include "values/Records.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using ClariPhyTypes::HostLane;
using Lanes = Mox::DynArray<int, HostLane, 10>;
static_assert(sizeof(Mox::DynArray<Kiln::ConditionStat, HostLane, 10>) == 10 * sizeof(Kiln::ConditionStat) + 8);

TEST(Arrays, AKeyPastItsRangeIsRefusedInTheKeysWordsAndChangesNothing) {
   Lanes lanes;
   HostLane beyond;
   beyond.value = 10;
   for (auto const& call : std::vector<std::function<void()>>{
           [&] { lanes.store(beyond, 1); },
           [&] { lanes.reset(beyond); },
           [&] { static_cast<void>(lanes[beyond]); },
           [&] { Lanes::Iterator(lanes, beyond); },
        })
      EXPECT_EQ(thrownBy<Mox::RangeException>(call), "HostLane::value < 0 or > 9 not allowed");
   EXPECT_EQ(lanes.size(), 0u);
   EXPECT_EQ(lanes.version(), 0u);
}

TEST(Arrays, HoldAsManyElementsAsAnyAttributeMayHave) {
   struct Wide : Mox::Bounded<std::uint16_t, 1023, "Wide::value > 1023 not allowed"> {
      using Bounded::Bounded;
   };
   Mox::DynArray<int, Wide, 1024> array;
   array.store(1023, 7);
   int sum = 0, elements = 0;
   for (auto const [key, value] : array) {
      sum += value * key;
      ++elements;
   }
   EXPECT_EQ(elements, 1024);
   EXPECT_EQ(sum, 7 * 1023);
}

} // namespace
