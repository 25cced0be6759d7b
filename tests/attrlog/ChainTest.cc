// SPDX-License-Identifier: Apache-2.0
// What a mirror passes on: behind a backlog, and to mirrors of its own.

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "gauge/GaugeReactor.h"
#include "notify/Dump.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

namespace Mox {
namespace {

using namespace Hardware::ClariPhy;
using NboAttrLog::Out;
using Skew::Gauge, Skew::Mode;
using Xcvr::CfpxHostChannel;

TEST(Backlog, AKnownKeyDeletedAndMadeAgainCostsItselfAndNoMore) {
   LocalLink link;
   auto const ours = make<Cl10010ConfigDir>("config");
   for (int i = 0; i < 1000; ++i)
      ours->phyConfigIs(Name(std::to_string(i)));
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010ConfigDir>("config");
   link.settle();
   auto& demuxer = link.left().demuxer();
   U64 const before = demuxer.out()->recordsWritten();
   demuxer.out()->markIs(0);
   ours->phyConfigDel("500");
   ours->phyConfigIs("500");
   demuxer.out()->markIs(Out::defaultMark);
   link.settle();
   EXPECT_LE(demuxer.out()->recordsWritten() - before, 50u) << "the member's announcement, and what it holds";
   EXPECT_EQ(demuxer.counters().collectionRestarts, 0u);
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
}

/// A directory and a gauge of `a`, mirrored by `b`, whose mirrors `c` mirrors.
struct Chain : testing::Test {
   LocalLink ab, bc;
   Ptr<Cl10010ConfigDir> a = make<Cl10010ConfigDir>("config"), b, c;
   Ptr<Gauge> gauge = make<Gauge>("gauge"), gaugeB, gaugeC;
   Ptr<Cl10010Config> port, portC;
   Log log;
   std::vector<Watch> watches;

   Chain() {
      ab.left().exportRoot(a);
      ab.left().exportRoot(gauge);
      b = ab.right().mount<Cl10010ConfigDir>("config");
      gaugeB = ab.right().mount<Gauge>("gauge");
      port =
         a->phyConfigIs("port"); // mirrored before anybody mirrors the mirror: its adapters stand the other way round
      ab.settle();
      bc.left().exportRoot(b);
      bc.left().exportRoot(gaugeB);
      c = bc.right().mount<Cl10010ConfigDir>("config");
      gaugeC = bc.right().mount<Gauge>("gauge");
      bc.settle();
      a->phyConfigIs("late");
      for (auto const& p : {port, a->phyConfig("late")}) {
         p->refClockIs(5);
         p->calibrationIs(CfpxHostChannel::channel1, {1, 1, 1});
         p->initialIngressAmpIs(CfpxHostChannel::channel1, 1);
      }
      gauge->laneIs(1, Mode::on);
      settle();
      portC = c->phyConfig("port");
      auto const note = [this](auto& e, AttributeId id) { log.push_back(e.attributeString(id).str()); };
      watches.push_back(logged(c, Cl10010ConfigDir::Attr::phyConfig, log));
      watches.push_back(onAny(portC, note));
      watches.push_back(onAny(c->phyConfig("late"), note));
      watches.push_back(onAny(gaugeC, note));
   }
   void settle() {
      for (int i = 0; i < 3; ++i) {
         ab.settle();
         bc.settle();
      }
      EXPECT_TRUE(bc.left().quiet());
      for (auto const& d : diff(*a, *c))
         ADD_FAILURE() << d.path << ": " << d.left << " | " << d.right;
      EXPECT_EQ(diff(*gauge, *gaugeC).size(), 0u);
      EXPECT_EQ(bc.right().state("config"), LinkEnd::State::live);
      EXPECT_EQ(bc.right().state("gauge"), LinkEnd::State::live);
      EXPECT_EQ(b->auditErrors(4) + c->auditErrors(4), 0u);
   }
   auto portB() { return b->phyConfig("port"); }
};

TEST_F(Chain, WhatItsMiddleRefusesDoesNotReachItsEnd) {
   Out& out = *bc.left().demuxer().out();
   struct Road {
      char const* name;
      std::function<void()> before, after;
   };
   struct Write {
      char const* name;
      std::function<void()> write;
      Log told; ///< at the end of the chain, when the owner's value is back
   };
   for (auto const& [road, before, after] : std::vector<Road>{
           {"at once", [] {}, [] {}},
           {"behind a backlog",
            [&] {
               out.markIs(0);
               for (auto const& p : {port, a->phyConfig("late")}) {
                  p->refClockIs(5 + p->refClock());
                  p->calibrationIs(CfpxHostChannel::channel2, {p->refClock(), 0, 0});
               }
               ab.settle();
            },
            [&] { out.markIs(Out::defaultMark); }},
           {"before a resend", [] {},
            [&] {
               bc.cut();
               bc.reconnect();
            }},
           {"in a resend", [&] { bc.cut(); }, [&] { bc.reconnect(); }},
        })
      for (auto const& [name, write, told] : std::vector<Write>{
              {"a number", [&] { portB()->refClockIs(77); }, {}},
              {"one of a late member", [&] { b->phyConfig("late")->refClockIs(77); }, {}},
              {"an entry",
               [&] {
                  portB()->calibrationIs(CfpxHostChannel::channel1, {9, 9, 9});
               },
               {}},
              {"a new entry",
               [&] {
                  portB()->calibrationIs(CfpxHostChannel::channel5, {9, 9, 9});
               },
               {}},
              {"the loss of one", [&] { portB()->calibrationDel(CfpxHostChannel::channel1); }, {}},
              {"the loss of one in a hash map",
               [&] { b->phyConfig("late")->initialIngressAmpDel(CfpxHostChannel::channel1); },
               {}},
              {"an element", [&] { gaugeB->laneIs(2, Mode::both); }, {}},
              {"a new member", [&] { b->phyConfigIs("mine")->refClockIs(1); }, {}},
              {"the loss of a member", [&] { b->phyConfigDel("late"); },
               std::string_view(road).ends_with("resend") ? Log{} : Log{"late gone", "late here"}}, // bound in place
           }) {
         SCOPED_TRACE(road);
         SCOPED_TRACE(name);
         settle();
         log.clear();
         before();
         EXPECT_NE(thrownBy<ReadOnlyException>(write).find("is read-only here"), std::string::npos);
         after();
         bc.settle(); // while the owner has not answered
         std::erase_if(log, [](std::string const& line) { return line == "parent"; });
         Log const owners = road == std::string("behind a backlog") ? log : Log{};
         EXPECT_EQ(log, owners);
         EXPECT_NE(portC->refClock(), 77u);
         EXPECT_FALSE(c->phyConfig("mine"));
         EXPECT_EQ(gaugeC->lane(2), Mode::off);
         EXPECT_EQ(portC->calibration(CfpxHostChannel::channel1).gain, 1u);
         log.clear();
         settle();
         std::erase_if(log, [](std::string const& line) { return line == "parent"; });
         if (owners.empty()) {
            EXPECT_EQ(log, told);
         }
         if (std::string_view(name) == "the loss of a member")
            watches.push_back(onAny(c->phyConfig("late"),
                                    [this](auto& e, AttributeId id) { log.push_back(e.attributeString(id).str()); }));
      }
   // What the owner writes meanwhile is told once, also where it is what was written here.
   for (unsigned const owners : {78u, 79u}) {
      log.clear();
      EXPECT_THROW(portB()->refClockIs(2 * owners - 78), ReadOnlyException);
      bc.settle();
      port->refClockIs(owners);
      settle();
      EXPECT_EQ(log, Log{"refClock"});
   }
}

TEST_F(Chain, AMirrorThatEndsHandsOnWhatItHolds) {
   // Two that the exporter has withheld, the second in a collection that can't end before it.
   EXPECT_THROW(portB()->refClockIs(77), ReadOnlyException);
   EXPECT_THROW(portB()->calibrationDel(CfpxHostChannel::channel1), ReadOnlyException);
   bc.cut();
   bc.reconnect();
   bc.settle();
   EXPECT_EQ(bc.right().state("config"), LinkEnd::State::syncing);
   EXPECT_EQ(log, Log{});
   ab.right().unmount("config");
   bc.settle();
   EXPECT_EQ(bc.right().state("config"), LinkEnd::State::live);
   EXPECT_EQ(portC->refClock(), 77u);
   EXPECT_EQ(diff(*b, *c).size(), 0u);
   log.clear();
   b->phyConfigIs("mine"); // an entity of this process from here on
   portB()->refClockIs(78);
   bc.settle();
   EXPECT_EQ(log, (Log{"mine here", "refClock"}));
   EXPECT_TRUE(bc.left().quiet());
}

TEST_F(Chain, MembersThatOnlyTheMiddleKnowsStayThere) {
   auto const raw = b->newPhyConfig("raw");
   bc.cut();
   bc.reconnect();
   settle();
   EXPECT_EQ(log, Log{});
   EXPECT_NE(b->phyConfig("raw"), nullptr);
   // The owner makes one of that name.
   a->phyConfigIs("raw")->refClockIs(9);
   settle();
   EXPECT_EQ(log, Log{"raw here"});
   EXPECT_EQ(b->phyConfig("raw"), raw);
}

TEST(Owners, AnEntityHasOneOverAllLinks) {
   LocalLink first, second;
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const port = dir->phyConfigIs("port");
   first.right().mountIs(port);
   auto const refused = [&](LinkEnd& end, Ptr<Entity> const& entity) {
      return thrownBy<NameInUseException>([&] { end.mountIs(entity); });
   };
   EXPECT_EQ(refused(second.right(), port),
             "/config/port can't be mounted from \"right\": /config/port mirrors \"right\" already, and an entity has "
             "one owner");
   EXPECT_NE(refused(second.right(), dir).find("/config/port mirrors"), std::string::npos) << "it holds a mirror";
   EXPECT_NE(refused(first.right(), dir).find("/config/port mirrors"), std::string::npos);
   first.right().unmount("port");
   second.right().mountIs(dir);
   EXPECT_NE(refused(first.right(), port).find("/config mirrors"), std::string::npos) << "it is part of one";
   EXPECT_FALSE(first.right().hasMounts());
   second.right().unmount("config");
   // A chain may be made from its end; a circle on one link may not.
   first.left().exportRoot(dir);
   EXPECT_NE(refused(first.left(), port).find("is exported there"), std::string::npos);
   EXPECT_EQ(refused(second.right(), dir), "(nothing was thrown)");
}

} // namespace
} // namespace Mox
