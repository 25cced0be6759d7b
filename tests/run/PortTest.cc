#include "run/Port.h"

#include "run/Answers.h"
#include "run/Held.h"
#include "run/Options.h"
#include "run/Sides.h"

#include "attrlog/LocalLink.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "siblings/PllStatus.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace Job;
using namespace Hardware::ClariPhy;
using Mox::Name;
using Mox::Ptr;

/// Both sides of the main job with everything between them but the processes.
struct BothSides {
   explicit BothSides(Line& played) : line(played) {
      auto const pll = Mox::make<Hardware::Dpll::PllStatus>("pll");
      pll->lockedIs(true);
      link.left().exportRoot(config);
      mirroredConfig = link.right().mount<Cl10010ConfigDir>("config");
      link.right().exportRoot(status);
      mirroredStatus = link.left().mount<Cl10010StatusDir>("status");
      link.left().exportRoot(watched);
      mirroredWatched = link.right().mount<Cl10010StatusPtrDir>("watched");
      link.right().exportRoot(driven);
      mirroredDriven = link.left().mount<Cl10010ConfigPtrDir>("driven");
      answers = std::make_unique<Answers>(config, mirroredStatus, watched);
      for (std::string const& port : line.ports()) {
         auto const made = config->phyConfigIs(Name(port));
         made->pllStatusIs(pll);
         made->diagsModeEpochInc(1);
      }
      link.settle();
   }

   template <class AfterReading> void play(AfterReading after) {
      std::vector<std::unique_ptr<Channel>> channels;
      std::vector<std::unique_ptr<DrivenPort>> ports;
      for (std::size_t p = 0; p < line.ports().size(); ++p) {
         channels.push_back(std::make_unique<Channel>(1, p));
         ports.push_back(std::make_unique<DrivenPort>(line.ports()[p], static_cast<std::uint32_t>(p), *mirroredConfig,
                                                      *status, *driven, 946684800 - line.interval()));
      }
      for (std::size_t step = 0; step < line.steps(); ++step) {
         for (std::size_t p = 0; p < ports.size(); ++p)
            if (auto const sample = line.next(p, step)) {
               Reading const reading = channels[p]->next(*sample, line.interval());
               ports[p]->read(reading);
               after(*status->phyStatus(Name(line.ports()[p])), reading);
            }
         link.settle();
      }
      for (auto const& port : ports)
         changes += port->changes();
   }

   Held configuring() const { return {config, mirroredDriven, mirroredStatus, watched}; }
   Held driver() const { return {mirroredConfig, driven, status, mirroredWatched}; }
   std::vector<std::string> differences() const {
      return Job::differences(configuring().text("left"), driver().text("right"), 9);
   }

   Line& line;
   Mox::LocalLink link;
   Ptr<Cl10010ConfigDir> config = Mox::make<Cl10010ConfigDir>("config");
   Ptr<Cl10010ConfigDir> mirroredConfig;
   Ptr<Cl10010StatusDir> status = Mox::make<Cl10010StatusDir>("status");
   Ptr<Cl10010StatusDir> mirroredStatus;
   Ptr<Cl10010StatusPtrDir> watched = Mox::make<Cl10010StatusPtrDir>("watched");
   Ptr<Cl10010StatusPtrDir> mirroredWatched;
   Ptr<Cl10010ConfigPtrDir> driven = Mox::make<Cl10010ConfigPtrDir>("driven");
   Ptr<Cl10010ConfigPtrDir> mirroredDriven;
   std::unique_ptr<Answers> answers;
   std::uint64_t changes = 0;
};

template <class X> std::string unchanged(std::set<Mox::AttributeId> const& changed) {
   std::string names;
   X::MoxAttributes::forEach([&](auto a) {
      if (!changed.contains(a.id))
         names += std::string(a.name) + ' ';
   });
   return names;
}

using Attr = Cl10010Status::Attr;

bool allOf(auto const& conditions) {
   bool all = true;
   conditions.forEach([&](auto, Kiln::ConditionStat const& c) { all &= c.condition; });
   return all;
}

TEST(Port, UsualLineMovesEveryAttributeOfTheStatus) {
   auto const line = simulatedLine(usualPorts, usualSteps, 1);
   BothSides job(*line);
   std::set<Mox::AttributeId> changed;
   std::uint64_t changes = 0;
   std::vector<Mox::Watch> watches;
   auto const members =
      Mox::on(job.status, Cl10010StatusDir::Attr::phyStatus, [&](Cl10010StatusDir& directory, Name const& name) {
         auto const status = directory.phyStatus(name);
         watches.push_back(Mox::onAny(status, [&](Cl10010Status&, Mox::AttributeId id) {
            changed.insert(id);
            ++changes;
         }));
         watches.push_back(Mox::on(status, Attr::ldpcHistograms, [&](Cl10010Status& s, Name const& histogram) {
            watches.push_back(
               Mox::onAny(s.ldpcHistograms(histogram), [&](FecHistogram&, Mox::AttributeId) { ++changes; }));
         }));
      });
   job.play([](Cl10010Status const&, Reading const&) {});

   EXPECT_EQ(unchanged<Cl10010Status>(changed), "");
   // Of the base: what belongs to other kinds of PHY (10GBASE-T, XAUI, energy-efficient Ethernet, code groups, validity of
   // what this chip doesn't tell), and what nobody asks for (diagnostics, loopback, resets, trouble with the module).
   EXPECT_EQ(
      unchanged<Hardware::Phy::PhyStatus>(changed),
      "pmaPmdDebugSignalDetectValid tenGBaseTDebugState pcsRxLpiReceived pcsRxLpiChanges lastPcsRxLpiChange "
      "pcsRxLpiValid pcsSyncStatus pcsSyncStatusChanges lastPcsSyncStatusChange pcsSyncStatusValid "
      "phyXsTxLinkStatus phyXsTxLinkStatusChanges lastPhyXsTxLinkStatusChange phyXsRxFault phyXsRxFaultChanges "
      "lastPhyXsRxFaultChange phyXsTxFault phyXsTxFaultChanges lastPhyXsTxFaultChange phyXsLane0To3Sync "
      "phyXsLane0To3SyncChanges lastPhyXsLane0To3SyncChange phyXsLaneAlignmentStatus "
      "phyXsLaneAlignmentStatusChanges lastPhyXsLaneAlignmentStatusChange phyXsDebugStateValid anegDebugState "
      "xcvrEepromReadTimeouts lastXcvrEepromReadTimeout phantomXcvrDetections lastPhantomXcvrDetection diagsMode "
      "loopback nextPhyEntityFullName xauiSyncsUntilAlignHwm lastXauiSyncsUntilAlignHwmIncrement "
      "excessiveXauiSyncUntilAlign lastExcessiveXauiSyncUntilAlign resetAndReInitRequired ");
   EXPECT_EQ(job.changes, changes);
   auto const last = job.status->phyStatus(Name(line->ports().back()));
   Cl10010Status::MoxAttributes::forEach([&](auto a) {
      if constexpr (a.kind == Mox::Kind::array)
         a.cell(*last).forEach([&](auto lane, auto const& value) {
            EXPECT_NE(value, typename decltype(a)::Value{}) << a.name << ' ' << lane;
         });
   });

   EXPECT_EQ(job.differences(), std::vector<std::string>());
   EXPECT_EQ(job.answers->open(), 0u);
   EXPECT_EQ(job.answers->signalLosses(), usualPorts / 2);
   EXPECT_FALSE(job.answers->given().empty());
}

TEST(Port, MirroredReferenceIsThePeersOwnEntityAndAnythingElseIsToldAsADifference) {
   auto const line = simulatedLine(2, 30, 3);
   BothSides job(*line);
   job.play([](Cl10010Status const&, Reading const&) {});
   ASSERT_EQ(job.configuring().references(), 4u);
   ASSERT_EQ(job.driver().references(), 4u);
   for (std::string const& port : line->ports()) {
      EXPECT_EQ(job.mirroredWatched->phyStatus().find(Name(port))->value(), job.status->phyStatus(Name(port)));
      EXPECT_EQ(job.mirroredDriven->phyConfig().find(Name(port))->value(), job.config->phyConfig(Name(port)));
   }
   ASSERT_EQ(job.differences(), std::vector<std::string>());

   // What has not been sent yet differs.
   Name const port(line->ports().front());
   auto const status = job.status->phyStatus(port);
   auto const told = [&](std::string_view path) {
      std::vector<std::string> const all = job.differences();
      return all.size() == 1 && all.front().starts_with(path) ? "" : testing::PrintToString(all);
   };
   status->agcGainIs(2, 1);
   EXPECT_EQ(told("/status/S1%2F1%2F1.agcGain[2]: here "), "");
   job.link.settle();
   status->ldpcHistograms("line")->histogramIs(31, 7);
   EXPECT_EQ(told("/status/S1%2F1%2F1/ldpcHistograms/line.histogram[31]: here "), "");
   job.link.settle();
   EXPECT_EQ(job.differences(), std::vector<std::string>());

   // A namesake on both sides, which the paths alone would not tell.
   auto const strangers = Mox::make<Cl10010ConfigPtrDir>("driven");
   strangers->phyConfigIs(Mox::make<Cl10010Config>(port));
   Held left = job.configuring(), right = job.driver();
   left.driven = right.driven = strangers;
   EXPECT_EQ(Job::differences(left.text("left"), right.text("right"), 9),
             (std::vector<std::string>{
                "/driven.phyConfig[S1/1/1] itself: here no entity of left, in the driver no entity of right"}));
}

TEST(Port, WhatIsStoredBelongsTogether) {
   auto const line = simulatedLine(4, 100, 9);
   BothSides job(*line);
   struct Before {
      std::vector<Kiln::ConditionStat> conditions; // of lanes as well
      std::uint32_t samples = 0;
      std::array<double, 6> sums{};
   };
   std::map<std::string, Before> before;
   unsigned moved = 0;
   job.play([&](Cl10010Status const& s, Reading const& r) {
      Before& b = before[std::string(s.name())];
      std::size_t at = 0;
      Cl10010Status::MoxAttributes::forEach([&](auto a) {
         if constexpr (std::is_same_v<typename decltype(a)::Value, Kiln::ConditionStat>) {
            SCOPED_TRACE(a.name);
            auto const judge = [&](Kiln::ConditionStat const& now) {
               if (at == b.conditions.size())
                  b.conditions.push_back(now);
               Kiln::ConditionStat& was = b.conditions[at++];
               if (now.condition != was.condition) {
                  EXPECT_EQ(now.count, was.count + 1);
                  EXPECT_EQ(now.time, r.time);
                  ++moved;
               } else {
                  EXPECT_EQ(now, was);
               }
               was = now;
            };
            if constexpr (a.isKeyed)
               a.cell(s).forEach([&](auto, Kiln::ConditionStat const& now) { judge(now); });
            else
               judge(a.cell(s));
         }
      });
      EXPECT_EQ(s.performanceMonitorCount(), b.samples + (r.light ? 1 : 0));
      b.samples = s.performanceMonitorCount();
      std::array<double, 6> const last{static_cast<double>(s.diffGroupDelay()),
                                       static_cast<double>(s.chromaticDispersion()),
                                       static_cast<double>(s.polarizationDepLoss()),
                                       static_cast<double>(s.carrierFreqOffset()),
                                       static_cast<double>(s.qFactorH()),
                                       static_cast<double>(s.qFactorV())};
      std::array<double, 6> const sums{static_cast<double>(s.cumDiffGroupDelay()),
                                       static_cast<double>(s.cumChromaticDispersion()),
                                       static_cast<double>(s.cumPolarizationDepLoss()),
                                       static_cast<double>(s.cumCarrierFreqOffset()),
                                       static_cast<double>(s.cumQFactorH()),
                                       static_cast<double>(s.cumQFactorV())};
      for (std::size_t i = 0; i < sums.size(); ++i)
         EXPECT_EQ(sums[i], b.sums[i] + (r.light ? last[i] : 0)) << i;
      b.sums = sums;
      EXPECT_EQ(s.totalLdpcWords(), s.fecFrames() * 4);
      std::uint64_t words = 0;
      auto const& iterations = FecHistogram::Attr::histogram.cell(*s.ldpcHistograms("line"));
      iterations.forEach([&](auto, auto const& count) { words += count; });
      EXPECT_EQ(s.totalLdpcWords(), words);
      EXPECT_EQ(s.ldpcWordErrors(), iterations[Reading::lastIteration]);
      EXPECT_EQ(s.otl4LaneAligned().condition, allOf(Attr::lineLaneAligned.cell(s)));
      EXPECT_EQ(s.hostEgressPcsLaneAligned().condition, allOf(Attr::hostEgressLaneBlockAligned.cell(s)));
      EXPECT_EQ(s.qFactorFromBer(), static_cast<float>(qFactor(r.errorRatio)));
      EXPECT_EQ(s.phyState() == Hardware::Phy::PhyState::linkUp, s.ethIntfStatus()->linkUp());
   });
   EXPECT_GT(moved, 40u);
}

} // namespace
