// In the long run nothing on the road of a change allocates: not the mutator, not the pass, not the record out, not the
// record in, and not what is marked while a peer stalls.

#include "support/Allocations.h"

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigReactor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Mox;
using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Xcvr::CfpxHostChannel;

class Counter final : public Cl10010Config::NotifieeConst {
public:
   void onRefClock() override { ++calls; }
   void onCalibration(CfpxHostChannel) override { ++calls; }
   void onInitialIngressAmp(CfpxHostChannel) override { ++calls; }
   std::size_t calls = 0;
};

class Steady : public testing::Test {
protected:
   Steady() {
      link_.left().exportRoot(ours_);
      link_.settle();
      mirror_ = theirs_->phyConfig("one");
      watch(theirs_->phyConfig("one"));
   }
   void watch(Ptr<Cl10010Config> const& config) {
      auto const reactor = make<Counter>();
      reactor->notifierIs(Ptr<PtrInterface const>(config));
      reactor->isRegisteredNotifieeIs(true);
      counters_.push_back(reactor);
   }
   /// `settle` without the copies: whatever it allocates is the link's.
   void carry() {
      auto& left = link_.left();
      auto& right = link_.right();
      for (bool moved = true; moved;) {
         moved = false;
         for (auto* from : {&left, &right})
            if (auto const bytes = from->bytesToSend(); !bytes.empty()) {
               ASSERT_LE(bytes.size(), buffer_.size());
               std::copy(bytes.begin(), bytes.end(), buffer_.begin());
               auto const arrived = std::span(buffer_).first(bytes.size());
               from->bytesSent(bytes.size());
               (from == &left ? right : left).bytesArrived(arrived);
               moved = true;
            }
      }
   }
   /// All that the schema's kinds can do without a new key.
   void change() {
      ++value_;
      config_->refClockIs(value_);
      for (int key = 0; key < 16; ++key) {
         config_->calibrationIs(CfpxHostChannel(key), {value_, 0, 0});
         config_->initialIngressAmpIs(CfpxHostChannel(key), value_);
      }
   }
   static constexpr std::size_t changes = 1 + 2 * 16;

   Ptr<Cl10010ConfigDir> const ours_ = make<Cl10010ConfigDir>("config");
   Ptr<Cl10010Config> const config_ = ours_->phyConfigIs("one");
   LocalLink link_;
   Ptr<Cl10010ConfigDir> const theirs_ = link_.right().mount<Cl10010ConfigDir>("config");
   Ptr<Cl10010Config> mirror_;
   std::vector<Ptr<Counter>> counters_;
   std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(1 << 20);
   std::uint32_t value_ = 0;
};

TEST_F(Steady, ChangesOfAMirroredEntityAllocateNothing) {
   for (std::size_t reactors : std::initializer_list<std::size_t>{0, 1, 4, 16, 20}) {
      SCOPED_TRACE(std::to_string(reactors) + " reactors of the owner");
      while (counters_.size() < 1 + reactors)
         watch(config_);
      for (int warmUp = 0; warmUp < 3; ++warmUp) {
         change();
         carry();
      }
      for (auto const& counter : counters_)
         counter->calls = 0;
      auto const before = allocations();
      for (int round = 0; round < 50; ++round) {
         change();
         carry();
      }
      EXPECT_EQ(allocations() - before, 0u);
      for (auto const& counter : counters_)
         EXPECT_EQ(counter->calls, 50 * changes);
   }
   EXPECT_EQ(mirror_->calibration(CfpxHostChannel(15)).gain, value_);
   EXPECT_TRUE(link_.left().quiet());
}

TEST_F(Steady, AStalledPeerCostsMemoryOncePerKeyAndNotPerChange) {
   auto& out = *link_.left().demuxer().out();
   change();
   carry();
   out.markIs(1); // no room behind the first record: all others are marked
   for (int stall = 0; stall < 3; ++stall) {
      change();
      auto const before = allocations();
      for (int round = 0; round < 100; ++round)
         change();
      EXPECT_EQ(allocations() - before, 0u) << "marking again what is marked";
      // The way out takes its room from the buffer, the way in from the mirror's entries: no memory for either.
      EXPECT_GT(link_.left().demuxer().footprint().dirtyKeys, 0u);
      out.markIs(NboAttrLog::Out::defaultMark);
      auto const drained = allocations();
      carry();
      if (stall > 0) {
         EXPECT_EQ(allocations() - drained, 0u) << "draining";
      }
      EXPECT_EQ(mirror_->refClock(), value_);
      EXPECT_EQ(mirror_->initialIngressAmp(CfpxHostChannel(7)).number(), value_);
      EXPECT_EQ(link_.left().demuxer().footprint().flows, 0u);
      out.markIs(1);
   }
}

} // namespace
