#include "containers/DynArray.h"
#include "support/Allocations.h"
#include "support/Thrown.h"
#include "values/Coherent.h"
#include "values/Records.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using ClariPhyTypes::HostLane;
using Lanes = Mox::DynArray<int, HostLane, 10>;

TEST(Arrays, LieInlineAndAllocateNothing) {
   static_assert(sizeof(Mox::DynArray<Kiln::ConditionStat, HostLane, 10>) == 10 * sizeof(Kiln::ConditionStat) + 8);
   static_assert(sizeof(Mox::DynArray<std::uint8_t, Xcvr::CfpxHostLaneId, 4>) == 4 + 8);
   auto const before = allocations();
   Lanes lanes;
   lanes.store(8, 5);
   Lanes::Iterator it(lanes, 9);
   EXPECT_EQ(it.value(), 0);
   lanes.store(9, 6);
   EXPECT_EQ(it.value(), 6) << "as it is by then";
   it.advance();
   EXPECT_FALSE(it);
   int sum = 0;
   for (auto [lane, value] : lanes)
      sum += value + lane;
   EXPECT_EQ(sum, 45 + 5 + 6);
   EXPECT_EQ(allocations(), before);
   EXPECT_THROW(static_cast<void>(it.key()), Mox::RangeException);
}

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

} // namespace
