// SPDX-License-Identifier: Apache-2.0
// In the long run nothing on the road of a change allocates: not the mutator, not the pass, not the record out, not the
// record in, and not what is marked while a peer stalls.

#include "support/Allocations.h"

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigReactor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <vector>

namespace {

using namespace Mox;
using namespace Hardware::ClariPhy;
using Xcvr::CfpxHostChannel;

class Counter final : public Cl10010Config::NotifieeConst {
public:
   void onRefClock() override { ++calls; }
   void onCalibration(CfpxHostChannel) override { ++calls; }
   void onInitialIngressAmp(CfpxHostChannel) override { ++calls; }
   static inline std::size_t calls = 0;
};

TEST(Steady, ChangesAllocateNothingWhetherTheyAreSentOrMarked) {
   LocalLink link;
   auto const ours = make<Cl10010ConfigDir>("config");
   auto const config = ours->phyConfigIs("one");
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010ConfigDir>("config");
   link.settle();
   auto const mirror = theirs->phyConfig("one");
   std::vector<std::uint8_t> buffer(1 << 20);
   // As `settle` does, without its copies and in pieces that break frames off: whatever it allocates is the link's.
   auto const carry = [&] {
      for (std::size_t idle = 0; idle < 2;)
         for (LinkEnd* const from : {&link.left(), &link.right()}) {
            auto const bytes = from->bytesToSend();
            auto const piece = std::span(buffer).first(std::min(bytes.size(), std::size_t{1000}));
            std::copy_n(bytes.begin(), piece.size(), piece.begin());
            from->bytesSent(piece.size());
            (from == &link.left() ? link.right() : link.left()).bytesArrived(piece);
            idle = piece.empty() ? idle + 1 : 0;
         }
   };
   std::uint32_t value = 0;
   // All that the kinds can do without a new key.
   auto const change = [&] {
      config->refClockIs(++value);
      for (int key = 0; key < 16; ++key) {
         config->calibrationIs(CfpxHostChannel(key), {value, 0, 0});
         config->initialIngressAmpIs(CfpxHostChannel(key), value);
      }
   };
   constexpr std::size_t changes = 1 + 2 * 16;
   std::vector<Ptr<Counter>> counters;
   for (std::size_t const reactors : {1u, 4u, 16u, 20u}) { // more than sixteen take another road
      SCOPED_TRACE(reactors);
      while (counters.size() < reactors) {
         counters.push_back(make<Counter>());
         counters.back()->notifierIs(Ptr<PtrInterface const>(counters.size() == 1 ? mirror : config));
         counters.back()->isRegisteredNotifieeIs(true);
      }
      for (int stall = 0; stall < 3; ++stall) {
         change();
         carry();
         Counter::calls = 0;
         auto const sending = allocations();
         for (int round = 0; round < 50; ++round) {
            change();
            carry();
         }
         EXPECT_EQ(Counter::calls, 50 * changes * reactors);
         auto const marking = allocations();
         // No room behind the first record: all others are marked, and marked again.
         link.left().demuxer().out()->markIs(1);
         change();
         auto const again = allocations();
         for (int round = 0; round < 100; ++round)
            change();
         auto const draining = allocations();
         EXPECT_GT(link.left().demuxer().footprint().dirtyKeys, 0u);
         link.left().demuxer().out()->markIs(NboAttrLog::Out::defaultMark);
         carry();
         EXPECT_EQ(draining - again, 0u);
         if (stall > 0) { // memory was taken once for each key
            EXPECT_EQ(marking - sending, 0u);
            EXPECT_EQ(allocations() - draining, 0u);
         }
         EXPECT_EQ(mirror->initialIngressAmp(CfpxHostChannel(15)).number(), value);
      }
   }
}

} // namespace
