// SPDX-License-Identifier: Apache-2.0
// Two ends, and what a mirror promises.

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusPtrDir.h"
#include "notify/Dump.h"
#include "siblings/LedConfig.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Mox {
namespace {

using namespace Hardware::ClariPhy;
using Hardware::Dpll::PllStatus;
using Xcvr::CfpxHostChannel;

/// A directory of configurations on the left, mirrored on the right.
struct Mirrored : testing::Test {
   LocalLink link;
   Ptr<Cl10010ConfigDir> ours = make<Cl10010ConfigDir>("config");
   Ptr<Cl10010ConfigDir> theirs;
   Ptr<Cl10010Config> port, mirror;
   Log log, reports;

   Mirrored() {
      link.left().exportRoot(ours);
      theirs = link.right().mount<Cl10010ConfigDir>("config");
      port = ours->phyConfigIs("port");
      port->refClockIs(5);
      port->calibrationIs(CfpxHostChannel::channel1, {1, 1, 1});
      link.right().onReport([this](std::string const& t) { reports.push_back(t); });
      settle();
      mirror = theirs->phyConfig("port");
   }
   void settle() {
      link.settle();
      EXPECT_TRUE(link.left().quiet());
      EXPECT_TRUE(link.right().quiet());
      for (auto const& d : diff(*ours, *theirs))
         ADD_FAILURE() << d.path << ": " << d.left << " | " << d.right;
      EXPECT_EQ(theirs->auditErrors(4), 0u);
   }
};

TEST_F(Mirrored, WhoIsToldOfAStateMayHandInMore) {
   link.right().onState([&](Name const&, LinkEnd::State state) {
      if (state != LinkEnd::State::live)
         return;
      port->rollOffIs(0.35F);
      auto const offered = link.left().bytesToSend();
      std::vector<std::uint8_t> bytes(offered.begin(), offered.end());
      link.left().bytesSent(bytes.size());
      link.right().bytesArrived(bytes);
      std::fill(bytes.begin(), bytes.end(), std::uint8_t{0xff}); // they are the caller's again
   });
   link.cut();
   link.reconnect();
   settle();
   EXPECT_EQ(mirror->rollOff(), 0.35F);
}

TEST_F(Mirrored, AWriteToItThrowsAndTheOwnersValueComesBack) {
   auto const watch =
      onAny(mirror, [&](Cl10010Config& e, AttributeId id) { log.push_back(e.attributeString(id).str()); });
   auto const members = logged(theirs, Cl10010ConfigDir::Attr::phyConfig, log);
   auto& counters = link.right().demuxer().counters();
   struct Case {
      std::function<void()> write; ///< here, and for one at the owner meanwhile
      char const* thrown;
      Log told; ///< once, when the owner's value is back
   };
   for (auto const& [write, thrown, told] : std::vector<Case>{
           {[&] {
               port->refClockIs(11); // the owner's own is equal
               mirror->refClockIs(11);
            },
            "/config/port.refClock is read-only here",
            {"refClock"}},
           {[&] { mirror->diagsModeEpochInc(1); }, "Epoch is read-only", {"diagsModeEpoch"}},
           {[&] { mirror->calibrationDel(CfpxHostChannel::channel1); }, "calibration is", {"calibration"}},
           {[&] { theirs->phyConfigIs("mine"); }, "/config.phyConfig is read-only", {"mine gone"}},
           {[&] { theirs->phyConfigDel("port"); }, "phyConfig is", {"parent", "port here"}},
        }) {
      SCOPED_TRACE(thrown);
      log.clear();
      auto const asked = counters.refreshesAsked;
      std::string const text = thrownBy<ReadOnlyException>(write);
      EXPECT_NE(text.find(thrown), std::string::npos) << text;
      EXPECT_TRUE(log.empty() || log[0] == "parent") << "no other reactor is told of it: " << log[0];
      settle();
      EXPECT_EQ(log, told);
      EXPECT_LE(counters.refreshesAsked - asked, 1u);
   }
   EXPECT_NE(theirs->phyConfig("port"), mirror) << "a deleted member comes back as another";
   EXPECT_EQ(reports, Log{});
}

TEST_F(Mirrored, WhatItsUsersThrowIsReportedAndStopsNeitherSweepNorStream) {
   for (char const* name : {"a", "b", "c", "d"})
      ours->phyConfigIs(name);
   settle();
   Log states;
   link.right().onState([&](Name const&, LinkEnd::State s) {
      states.push_back(textOf(s));
      if (s == LinkEnd::State::stale)
         throw std::runtime_error("the application is unwell"); // its affair
   });
   struct Faulty : Cl10010ConfigDir::Notifiee {
      void onPhyConfig(Name) override { throw std::runtime_error("no more of this"); }
      void onNotificationException(AttributeId) override { throw; }
   };
   auto const faulty = make<Faulty>();
   faulty->notifierIs(theirs);
   faulty->isRegisteredNotifieeIs(true);
   link.cut();
   for (char const* name : {"a", "b", "c", "d"})
      ours->phyConfigDel(name);
   link.reconnect();
   settle();
   EXPECT_EQ(states, (Log{"stale", "syncing", "live"}));
   EXPECT_EQ(theirs->phyConfig("port"), mirror) << "bound again in place";
   auto const& counters = link.right().demuxer().counters();
   EXPECT_EQ(counters.sweptEntries, 4u);
   EXPECT_EQ(counters.applicationExceptions, 1u) << "the first one of the sweep";
   ASSERT_EQ(reports.size(), 2u);
   EXPECT_EQ(reports[0], "root \"config\", told that it is stale: the application is unwell");
   EXPECT_NE(reports[1].find("/config.phyConfig (258): no more of this"), std::string::npos) << reports[1];
   EXPECT_TRUE(link.right().isConnected());
}

TEST_F(Mirrored, ANewMemberIsReadOnlyForTheFirstReactorThatHearsOfIt) {
   int refusals = 0;
   auto const watch = on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& d, Name const& name) {
      try {
         d.phyConfig(name)->refClockIs(9);
      } catch (ReadOnlyException const&) {
         ++refusals;
      }
   });
   ours->phyConfigIs("told as it happens");
   settle();
   EXPECT_EQ(refusals, 1);
   link.left().demuxer().out()->markIs(64);
   ours->phyConfigIs("told as a backlog");
   settle();
   EXPECT_EQ(refusals, 2);
}

/// Statuses on both sides, each with a configuration that belongs to the other side and to no directory.
TEST(Resends, ThatWaitForEachOtherComeToAnEnd) {
   LocalLink link;
   auto const ours = make<Cl10010StatusDir>("ours"), yours = make<Cl10010StatusDir>("yours");
   link.left().exportRoot(ours);
   link.right().exportRoot(yours);
   auto const oursThere = link.right().mount<Cl10010StatusDir>("ours");
   auto const yoursHere = link.left().mount<Cl10010StatusDir>("yours");
   auto const settleLive = [&] {
      link.settle();
      EXPECT_EQ(link.left().state("yours"), LinkEnd::State::live);
      EXPECT_EQ(link.right().state("ours"), LinkEnd::State::live);
   };
   // The one that waits stands before the one that brings what the other side waits for.
   Name first("one"), second("two");
   if (bitReversed(first.hash()) > bitReversed(second.hash()))
      std::swap(first, second);
   ours->phyStatusIs(second, make<Cl10010Config>("x"), nullptr);
   yours->phyStatusIs(second, make<Cl10010Config>("y"), nullptr);
   link.settle();
   auto const x = oursThere->phyStatus(second)->phyConfig(), y = yoursHere->phyStatus(second)->phyConfig();
   ours->phyStatusIs(first, y, nullptr);
   yours->phyStatusIs(first, x, nullptr);
   settleLive();
   // Each side lets its own go while they are apart, and neither can say so: it would have to come to the end of its resend.
   link.cut();
   ours->phyStatusDel(second);
   yours->phyStatusDel(second);
   link.reconnect();
   settleLive();
   EXPECT_GT(link.left().demuxer().counters().brokenWaits + link.right().demuxer().counters().brokenWaits, 0u);
   EXPECT_EQ(oursThere->phyStatus(first)->phyConfig()->name(), "y");
}

TEST(Roots, AreGrantedOnceToWhatTheyFit) {
   LocalLink link;
   auto const config = make<Cl10010ConfigDir>("x");
   link.left().exportRoot(config);
   EXPECT_THROW(link.left().exportRoot(make<Cl10010StatusDir>("x")), NameInUseException);
   EXPECT_THROW(link.left().exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
   EXPECT_THROW(link.right().state("x"), RangeException);
   auto const wrong = link.right().mount<Cl10010StatusDir>("x");
   auto const waiting = link.right().mount<PllStatus>("later");
   link.settle();
   EXPECT_EQ(link.right().state("x"), LinkEnd::State::mismatch);
   EXPECT_EQ(link.right().reason("x"),
             "expected an entity of type Hardware::ClariPhy::Cl10010StatusDir, the owner's is of "
             "type Hardware::ClariPhy::Cl10010ConfigDir");
   EXPECT_EQ(link.right().state("later"), LinkEnd::State::notExported);
   auto const later = make<PllStatus>("later");
   later->lockedIs(true);
   link.left().exportRoot(later);
   link.settle();
   EXPECT_EQ(link.right().state("later"), LinkEnd::State::live);
   EXPECT_TRUE(waiting->locked());
}

} // namespace
} // namespace Mox
