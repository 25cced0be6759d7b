// SPDX-License-Identifier: Apache-2.0
// Two ends, what a mirror promises, and what it passes on to a mirror of its own.

#include "Directories.h"
#include "gauge/GaugeReactor.h"
#include "kestrel/attrlog/LocalLink.h"
#include "kestrel/siblings/EthPhyIntfStatus.h"
#include "support/Thrown.h"

#include <functional>
#include <stdexcept>

namespace Mox::NboAttrLog {
namespace {

using Xcvr::CfpxHostChannel;
using Mirrored = Directories;

TEST_F(Mirrored, WhatAReactorThrowsIsReportedAndDoesNotStopASweep) {
   ours->phyConfigIs("a");
   ours->phyConfigIs("b");
   settle();
   right.onReport([this](std::string const& text) { reports.push_back(text); });
   struct Faulty : Cl10010ConfigDir::Notifiee {
      void onPhyConfig(Name) override { throw std::runtime_error("no more of this"); }
      void onNotificationException(AttributeId) override { throw; }
   };
   auto const faulty = listening<Faulty>(theirs, false);
   cut();
   ours->phyConfigDel("a");
   ours->phyConfigDel("b");
   reconnect();
   settle();
   EXPECT_EQ(theirs->phyConfig("port"), mirror) << "bound again in place";
   auto const& counters = right.counters();
   EXPECT_EQ(counters.sweptEntries, 2u);
   EXPECT_EQ(counters.applicationExceptions, 1u) << "the first one of the sweep";
   ASSERT_EQ(reports.size(), 1u);
   EXPECT_NE(reports[0].find("/config.phyConfig (258): no more of this"), std::string::npos) << reports[0];
}

TEST_F(Mirrored, ANewMemberIsReadOnlyForTheFirstReactorThatHearsOfIt) {
   int refusals = 0;
   auto const refused = on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& d, Name const& name) {
      EXPECT_THROW(d.phyConfig(name)->refClockIs(9), ReadOnlyException);
      ++refusals;
   });
   ours->phyConfigIs("told as it happens");
   settle();
   left.demuxer().out()->markIs(64);
   ours->phyConfigIs("told as a backlog");
   settle();
   EXPECT_EQ(refusals, 2);
}

TEST_F(Mirrored, AnAdapterThatGoesAnImpossibleWayEndsItsConnection) {
   right.onReport([this](std::string const& text) { reports.push_back(text); });
   right.demuxer().adapterOf(*mirror)->release();
   EXPECT_EQ(reports.size(), 1u);
   EXPECT_TRUE(right.bytesToSend().empty());
   EXPECT_FALSE(right.isConnected());
   EXPECT_NE(right.failure().find("/config/port: its adapter is bound and can't become released"), std::string::npos)
      << right.failure();
   cut();
   reconnect();
   settle();
   EXPECT_TRUE(right.isConnected()) << right.failure();
}

/// The mirror is mirrored in turn.
struct Chain : Directories {
   LocalLink next;
   Ptr<Cl10010ConfigDir> far = next.right().mount<Cl10010ConfigDir>("config");
   Log farLog;
   std::vector<Watch> watches;

   Chain() {
      right.onReport([this](std::string const& text) { reports.push_back(text); });
      port->calibrationIs(CfpxHostChannel::channel1, {1, 1, 1});
      next.left().exportRoot(theirs);
      settle();
      watchAll();
   }
   /// What `directory` and its port are told goes to `to`.
   void watch(Ptr<Cl10010ConfigDir> const& directory, Log& to) {
      watches.push_back(logged(directory, Cl10010ConfigDir::Attr::phyConfig, to));
      watches.push_back(onAny(directory->phyConfig("port"),
                              [&to](Cl10010Config& e, AttributeId id) { to.push_back(e.attributeString(id).str()); }));
   }
   void watchAll() {
      watches.clear();
      watch(theirs, log);
      watch(far, farLog);
   }
   void settle() {
      for (int i = 0; i < 3; ++i) {
         Directories::settle();
         next.settle();
      }
      expectSame();
      EXPECT_TRUE(next.left().quiet());
      expectEqual(*ours, *far);
      EXPECT_EQ(next.right().state("config"), State::live);
   }
};

TEST_F(Chain, AWriteToAMirrorThrowsTheOwnersValueComesBackAndNothingOfItIsPassedOn) {
   Out& out = *next.left().demuxer().out();
   struct Road {
      char const* name;
      std::function<void()> before, after;
   };
   struct Write {
      std::function<void()> write; ///< to the mirror, and to the owner's meanwhile
      char const* thrown;
      Log told, passedOn; ///< once, when the owner's value is back
   };
   for (auto const& [road, before, after] : std::vector<Road>{
           {"at once", [] {}, [] {}},
           {"behind a backlog", [&] { out.markIs(0); }, [&] { out.markIs(Out::defaultMark); }},
           {"in a resend", [&] { next.cut(); }, [&] { next.reconnect(); }},
        })
      for (auto const& [write, thrown, told, passedOn] : std::vector<Write>{
              {[&] {
                  port->refClockIs(port->refClock() + 1);
                  mirror->refClockIs(port->refClock()); // the owner's own is equal
               },
               "/config/port.refClock is read-only here",
               {"refClock"},
               {"refClock"}},
              {[&] { mirror->diagsModeEpochInc(1); }, "Epoch is read-only", {"diagsModeEpoch"}, {}},
              {[&] { mirror->calibrationDel(CfpxHostChannel::channel1); }, "calibration is", {"calibration"}, {}},
              {[&] { theirs->phyConfigIs("mine"); }, "/config.phyConfig is read-only", {"mine gone"}, {}},
              {[&] { theirs->phyConfigDel("port"); },
               "phyConfig is",
               {"parent", "port here"},
               std::string_view(road).ends_with("resend") ? Log{} : Log{"parent", "port gone", "port here"}},
           }) {
         SCOPED_TRACE(road);
         SCOPED_TRACE(thrown);
         settle();
         mirror = theirs->phyConfig("port");
         watchAll();
         log.clear();
         farLog.clear();
         auto const asked = right.counters().refreshesAsked;
         before();
         std::string const text = thrownBy<ReadOnlyException>(write);
         EXPECT_NE(text.find(thrown), std::string::npos) << text;
         EXPECT_TRUE(log.empty() || log[0] == "parent") << "no other reactor is told of it: " << log[0];
         after();
         next.settle(); // while the owner has not answered
         EXPECT_EQ(farLog, Log{});
         settle();
         EXPECT_EQ(log, told);
         EXPECT_EQ(farLog, passedOn);
         EXPECT_LE(right.counters().refreshesAsked - asked, 1u);
      }
   EXPECT_NE(theirs->phyConfig("port"), nullptr);
   EXPECT_EQ(reports, Log{});
}

TEST_F(Chain, MembersThatOnlyTheMiddleKnowsStayThere) {
   auto const raw = theirs->newPhyConfig("raw");
   next.cut();
   next.reconnect();
   next.settle();
   EXPECT_EQ(farLog, Log{});
   EXPECT_EQ(theirs->phyConfig("raw"), raw);
   // The owner makes one of that name.
   ours->phyConfigIs("raw")->refClockIs(9);
   settle();
   EXPECT_EQ(farLog, Log{"raw here"});
   EXPECT_EQ(theirs->phyConfig("raw"), raw);
}

TEST(Roots, AreGrantedOnceToWhatTheyFit) {
   LocalLink link;
   link.left().exportRoot(make<Cl10010ConfigDir>("x"));
   EXPECT_THROW(link.left().exportRoot(make<Cl10010StatusDir>("x")), NameInUseException);
   EXPECT_THROW(link.left().exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
   EXPECT_THROW(link.right().mountIs(nullptr), RangeException);
   EXPECT_THROW(link.right().mount<Hardware::Led::LedConfig>("led"), TypeException);
   EXPECT_THROW(link.right().state("x"), RangeException);
   // Of another type than the owner's, made with other parameters, and not there yet.
   auto const wrong = link.right().mount<Cl10010StatusDir>("x");
   link.left().exportRoot(make<Cl10010Status>("parameters", nullptr, make<Interface::EthPhyIntfStatus>("eth")));
   link.right().mountIs(make<Cl10010Status>("parameters", nullptr, nullptr));
   auto const waiting = link.right().mount<Cl10010ConfigDir>("later");
   link.settle();
   EXPECT_EQ(link.right().state("parameters"), State::mismatch);
   EXPECT_NE(link.right().reason("parameters"), "");
   EXPECT_EQ(link.right().state("x"), State::mismatch);
   EXPECT_EQ(link.right().reason("x"),
             "expected an entity of type Hardware::ClariPhy::Cl10010StatusDir, the owner's is of "
             "type Hardware::ClariPhy::Cl10010ConfigDir");
   EXPECT_EQ(link.right().state("later"), State::notExported);
   auto const later = make<Cl10010ConfigDir>("later");
   auto const former = later->phyConfigIs("former");
   link.left().exportRoot(later);
   link.settle();
   EXPECT_EQ(link.right().state("later"), State::live);

   later->phyConfigDel("former");
   link.settle();
   EXPECT_THROW(link.left().mountIs(former), NameInUseException) << "the peer knows it still";
}

TEST(Roots, OfTwoOneInTheOtherTheFirstIsGranted) {
   for (bool const isMemberFirst : {false, true})
      for (bool const isAtOnce : {false, true}) {
         SCOPED_TRACE(std::to_string(isMemberFirst) + std::to_string(isAtOnce));
         LocalLink link;
         auto const dir = make<Cl10010ConfigDir>("dir");
         auto const port = dir->phyConfigIs("port");
         link.left().exportRoot(dir);
         link.left().exportRoot(port);
         Ptr<Entity> const first = isMemberFirst ? Ptr<Entity>(port) : dir,
                           other = isMemberFirst ? Ptr<Entity>(dir) : port;
         for (auto const& root : {first, other}) {
            if (root == dir)
               link.right().mount<Cl10010ConfigDir>("dir");
            else
               link.right().mount<Cl10010Config>("port");
            if (!isAtOnce)
               link.settle();
         }
         link.settle();
         EXPECT_TRUE(link.right().isConnected()) << link.right().failure();
         EXPECT_EQ(link.right().state(first->name()), State::live);
         EXPECT_EQ(link.right().state(other->name()), State::refused);
      }
}

/// Wherever an attribute can hold one.
TEST(Enumerators, ANumberThatIsNoneIsNeverSentAndTheNextGoodOneIs) {
   using Hardware::Phy::PhyState;
   using Skew::Gauge, Skew::Mode;
   constexpr auto noMode = static_cast<Mode>(2);
   constexpr auto noChannel = static_cast<CfpxHostChannel>(16);
   LocalLink link;
   auto const ours = make<Gauge>("gauge");
   auto const set = [&](Mode mode, PhyState state, CfpxHostChannel channel) {
      ours->modeIs(mode);
      ours->stateIs(state);
      ours->readingIs({mode, 7});
      ours->laneIs(2, mode);
      ours->limitIs(mode, 7);
      ours->profileIs("night", mode);
      ours->countIs(channel, 7);
   };
   set(Mode::both, PhyState::linkUp, CfpxHostChannel::channel3);
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Gauge>("gauge");
   Log reports, refusals;
   link.left().onReport([&](std::string const& text) { reports.push_back(text); });
   link.right().onReport([&](std::string const& text) { refusals.push_back(text); });
   link.settle();
   auto const good = dumpLines(*theirs);
   set(noMode, static_cast<PhyState>(6), noChannel);
   link.settle();
   EXPECT_EQ(link.left().counters().unsentEnums, 7u);
   ASSERT_EQ(reports.size(), 7u) << testing::PrintToString(reports);
   EXPECT_TRUE(reports[0].starts_with("stream \"left\", /gauge.mode (258) is not sent: 2 is no Skew::Mode"))
      << reports[0];
   EXPECT_EQ(diff(good, dumpLines(*theirs)).size(), 0u);
   ours->limitDel(noMode);
   ours->countDelAll();
   set(Mode::on, PhyState::failed, CfpxHostChannel::channel4);
   // Such a key, written where it must not be: the owner can't be asked for it.
   EXPECT_THROW(theirs->limitIs(noMode, 1), ReadOnlyException);
   EXPECT_THROW(theirs->countIs(noChannel, 1), ReadOnlyException);
   link.settle();
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
   EXPECT_EQ(refusals, Log{}) << "nothing arrived that the mirror can't hold";
}

} // namespace
} // namespace Mox::NboAttrLog
