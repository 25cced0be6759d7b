#include "containers/DynArray.h"
#include "support/Allocations.h"
#include "values/Coherent.h"
#include "values/Records.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

namespace {

using ClariPhyTypes::HostLane;
using Lanes = Mox::DynArray<int, HostLane, 10>;

TEST(Arrays, FollowTheirTwinAndSoDoIteratorsThroughEveryChange) {
   std::mt19937 random(7);
   Lanes lanes;
   std::array<int, 10> twin{};
   bool isPopulated = false;
   std::vector<Lanes::Iterator> walkers(3);
   std::vector<std::size_t> positions(walkers.size());
   for (int step = 0; step < 3000; ++step) {
      unsigned const index = static_cast<unsigned>(random() % 10);
      auto const version = lanes.version();
      if (step < 20) {
         ASSERT_EQ(lanes[index], 0);
      } else if (random() % 3 != 0) {
         lanes.store(index, step);
         twin[index] = step;
         isPopulated = true;
         ASSERT_EQ(lanes.version(), version + 1);
      } else {
         lanes.reset(index);
         twin[index] = 0;
         ASSERT_EQ(lanes.version(), version + 1);
      }
      std::size_t const w = random() % walkers.size();
      if (step >= 10) {
         if (!walkers[w]) {
            walkers[w] = Lanes::Iterator(lanes, index);
            positions[w] = index;
            isPopulated = true;
         } else {
            walkers[w].advance();
            ++positions[w];
         }
         ASSERT_EQ(static_cast<bool>(walkers[w]), positions[w] < 10);
         ASSERT_EQ(walkers[w].position(), positions[w]);
         if (walkers[w]) {
            ASSERT_EQ(walkers[w].key(), positions[w]);
            ASSERT_EQ(walkers[w].value(), twin[positions[w]]);
         } else {
            ASSERT_THROW(static_cast<void>(walkers[w].key()), Mox::RangeException);
         }
      }
      ASSERT_EQ(lanes.size(), isPopulated ? 10u : 0u);
      lanes.forEach([&](HostLane lane, int value) { ASSERT_EQ(value, twin[lane]); });
   }
   EXPECT_EQ(lanes.auditErrors(), 0u);
}

TEST(Arrays, AKeyPastItsRangeIsRefusedInTheKeysWordsAndChangesNothing) {
   Lanes lanes;
   HostLane beyond;
   beyond.value = 10;
   std::string const expected = "HostLane::value < 0 or > 9 not allowed";
   auto const textOf = [](auto call) -> std::string {
      try {
         call();
         return "nothing thrown";
      } catch (Mox::RangeException const& e) {
         return e.what();
      }
   };
   EXPECT_EQ(textOf([&] { lanes.store(beyond, 1); }), expected);
   EXPECT_EQ(textOf([&] { lanes.reset(beyond); }), expected);
   EXPECT_EQ(textOf([&] { static_cast<void>(lanes[beyond]); }), expected);
   EXPECT_EQ(textOf([&] { Lanes::Iterator(lanes, beyond); }), expected);
   EXPECT_EQ(lanes.size(), 0u);
   EXPECT_EQ(lanes.version(), 0u);
}

TEST(Arrays, LieInlineAndAllocateNothing) {
   static_assert(sizeof(Mox::DynArray<Kiln::ConditionStat, HostLane, 10>) == 10 * sizeof(Kiln::ConditionStat) + 8);
   static_assert(sizeof(Mox::DynArray<std::uint8_t, Xcvr::CfpxHostLaneId, 4>) == 4 + 8);
   auto const before = allocations();
   Lanes lanes;
   int sum = 0;
   for (auto [lane, value] : lanes)
      sum += value + lane;
   lanes.store(3, sum);
   EXPECT_EQ(lanes[3], 45);
   EXPECT_EQ(allocations(), before);
}

} // namespace
