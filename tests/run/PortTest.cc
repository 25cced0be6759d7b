// SPDX-License-Identifier: Apache-2.0
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

   void play() {
      std::vector<std::unique_ptr<Channel>> channels;
      std::vector<std::unique_ptr<DrivenPort>> ports;
      for (std::size_t p = 0; p < line.ports().size(); ++p) {
         channels.push_back(std::make_unique<Channel>(1, p));
         ports.push_back(std::make_unique<DrivenPort>(line.ports()[p], static_cast<std::uint32_t>(p), *mirroredConfig,
                                                      *status, *driven, 946684800 - line.interval()));
      }
      for (std::size_t step = 0; step < line.steps(); ++step) {
         for (std::size_t p = 0; p < ports.size(); ++p)
            if (auto const sample = line.next(p, step))
               ports[p]->read(channels[p]->next(*sample, line.interval()));
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

using Attr = Cl10010Status::Attr;

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
   job.play();

   Cl10010Status::MoxAttributes::forEach([&](auto a) { EXPECT_TRUE(changed.contains(a.id)) << a.name; });
   EXPECT_EQ(job.changes, changes);
   auto const last = job.status->phyStatus(Name(line->ports().back()));
   Cl10010Status::MoxAttributes::forEach([&](auto a) {
      if constexpr (a.kind == Mox::Kind::array)
         a.cell(*last).forEach([&](auto lane, auto const& value) {
            EXPECT_NE(value, typename decltype(a)::Value{}) << a.name << ' ' << lane;
         });
   });

   std::uint64_t words = 0;
   FecHistogram::Attr::histogram.cell(*last->ldpcHistograms("line")).forEach([&](auto, auto const& n) { words += n; });
   EXPECT_EQ(last->totalLdpcWords(), words);
   EXPECT_EQ(last->totalLdpcWords(), last->fecFrames() * 4);

   EXPECT_EQ(job.differences(), std::vector<std::string>());
   EXPECT_EQ(job.answers->open(), 0u);
   EXPECT_EQ(job.answers->signalLosses(), usualPorts / 2);
}

TEST(Port, WhatDiffersIsToldByItsPathAndANamesakeToo) {
   auto const line = simulatedLine(2, 30, 3);
   BothSides job(*line);
   job.play();
   ASSERT_EQ(job.configuring().references(), 4u);
   ASSERT_EQ(job.differences(), std::vector<std::string>());
   // What has not been sent yet.
   Name const port(line->ports().front());
   job.status->phyStatus(port)->ldpcHistograms("line")->histogramIs(31, 7);
   ASSERT_EQ(job.differences().size(), 1u);
   EXPECT_TRUE(job.differences()[0].starts_with("/status/S1%2F1%2F1/ldpcHistograms/line.histogram[31]: here "));
   job.link.settle();
   // On both sides, where the paths alone would not tell.
   auto const strangers = Mox::make<Cl10010ConfigPtrDir>("driven");
   strangers->phyConfigIs(Mox::make<Cl10010Config>(port));
   Held left = job.configuring(), right = job.driver();
   left.driven = right.driven = strangers;
   EXPECT_EQ(Job::differences(left.text("left"), right.text("right"), 9),
             (std::vector<std::string>{
                "/driven.phyConfig[S1/1/1] itself: here no entity of left, in the driver no entity of right"}));
}

} // namespace
