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
   void stall() { link.left().demuxer().out()->markIs(0); } // nothing more fits
   void flow() { link.left().demuxer().out()->markIs(NboAttrLog::Out::defaultMark); }
   Watch logged(Ptr<Cl10010Config> const& c) {
      return onAny(c, [this](Cl10010Config& e, AttributeId id) { log.push_back(e.attributeString(id).str()); });
   }
   Watch loggedMembers() { return ::logged(theirs, Cl10010ConfigDir::Attr::phyConfig, log); }
};

TEST_F(Mirrored, AWriteToItThrowsAndTheOwnersValueComesBack) {
   auto const watch = logged(mirror);
   auto const members = loggedMembers();
   auto& counters = link.right().demuxer().counters();
   struct Case {
      char const* what;
      std::function<void()> write; ///< here, and for one at the owner meanwhile
      char const* thrown;
      Log told; ///< once, when the owner's value is back
   };
   for (auto const& [what, write, thrown, told] : std::vector<Case>{
           {"a scalar", [&] { mirror->refClockIs(9); }, "/config/port.refClock is read-only here", {"refClock"}},
           {"one that the owner changes to the same",
            [&] {
               port->refClockIs(11);
               mirror->refClockIs(11);
            },
            "refClock is read-only",
            {"refClock"}},
           {"one of the base", [&] { mirror->diagsModeEpochInc(1); }, "Epoch is read-only", {"diagsModeEpoch"}},
           {"a key that the owner does not have",
            [&] {
               mirror->calibrationIs(CfpxHostChannel::channel0, ClariPhyTypes::Calibration{2, 2, 2});
            },
            "calibration is",
            {"calibration"}},
           {"the loss of a key",
            [&] { mirror->calibrationDel(CfpxHostChannel::channel1); },
            "calibration is",
            {"calibration"}},
           {"a member", [&] { theirs->phyConfigIs("mine"); }, "/config.phyConfig is read-only", {"mine gone"}},
           {"the loss of a member", [&] { theirs->phyConfigDel("port"); }, "phyConfig is", {"parent", "port here"}},
        }) {
      SCOPED_TRACE(what);
      log.clear();
      auto const asked = counters.refreshesAsked;
      auto const before = dumpLines(*theirs);
      std::string const text = thrownBy<ReadOnlyException>(write);
      EXPECT_NE(text.find(thrown), std::string::npos) << text;
      EXPECT_NE(diff(before, dumpLines(*theirs)).size(), 0u) << "it stands until the owner's value comes";
      EXPECT_TRUE(log.empty() || log[0] == "parent") << "no other reactor is told of it: " << log[0];
      settle();
      EXPECT_EQ(log, told);
      EXPECT_LE(counters.refreshesAsked - asked, 1u);
   }
   EXPECT_NE(theirs->phyConfig("port"), mirror) << "a deleted member comes back as another";
   EXPECT_EQ(reports, Log{});
}

TEST_F(Mirrored, AStalledStreamCostsOneMarkAndTellsEachDifferenceOnce) {
   auto const members = loggedMembers();
   auto const watch = logged(mirror);
   stall();
   for (std::uint32_t i = 0; i < 1000; ++i) {
      port->refClockIs(100 + i);
      ours->phyConfigIs("passing")->refClockIs(i);
      ours->phyConfigDel("passing");
   }
   EXPECT_LE(link.left().demuxer().footprint().dirtyKeys, 1u) << "however often it came and went";
   flow();
   settle();
   EXPECT_EQ(log, Log{"refClock"});

   // Gone and made again under the same name meanwhile: another entity, not a change of the old one.
   log.clear();
   stall();
   ours->phyConfigDel("port");
   port = ours->phyConfigIs("port");
   flow();
   settle();
   EXPECT_EQ(log, (Log{"parent", "port gone", "port here"}));
   EXPECT_EQ(link.right().demuxer().counters().renamedMembers, 1u);
   EXPECT_EQ(mirror->refClock(), 1099u) << "the old one stands as it was";
   EXPECT_NO_THROW(mirror->refClockIs(1)) << "and belongs to whoever holds it";
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
   auto const behind = loggedMembers();
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
   EXPECT_EQ(log, Log{}) << "reactors behind the faulty one miss it";
   ours->phyConfigIs("e");
   settle();
   EXPECT_EQ(counters.applicationExceptions, 2u);
   EXPECT_TRUE(link.right().isConnected());
}

TEST_F(Mirrored, AReactorMayEndTheMirrorInTheMiddleOfWhatIsApplied) {
   for (auto const& [what, change] : std::vector<std::pair<char const*, std::function<void()>>>{
           {"at the first deletion of a sweep",
            [&] {
               link.cut();
               ours->phyConfigDel("a");
               ours->phyConfigDel("b");
               link.reconnect();
            }},
           {"while a member is made", [&] { ours->phyConfigIs("fresh"); }},
           {"while a key is stored",
            [&] {
               port->calibrationIs(CfpxHostChannel::channel6, ClariPhyTypes::Calibration{6, 6, 6});
            }},
           {"while a member makes room for another",
            [&] {
               stall();
               ours->phyConfigDel("port");
               port = ours->phyConfigIs("port");
               flow();
            }},
        }) {
      SCOPED_TRACE(what);
      ours->phyConfigIs("a");
      ours->phyConfigIs("b");
      if (!link.right().hasMounts())
         theirs = link.right().mount<Cl10010ConfigDir>("config");
      settle();
      auto const members =
         on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](auto&, auto const&) { link.right().unmount("config"); });
      auto const keys = on(theirs->phyConfig("port"), Cl10010Config::Attr::calibration,
                           [&](auto&, auto) { link.right().unmount("config"); });
      change();
      link.settle();
      EXPECT_FALSE(link.right().hasMounts());
      EXPECT_EQ(link.left().demuxer().footprint().announced, 0u);
      EXPECT_EQ(link.right().demuxer().footprint().mirrored, 0u);
      EXPECT_FALSE(theirs->moxReactors().first()->isStreamAdapter()) << "no adapter is left on it";
      EXPECT_GE(theirs->phyConfig().size(), 2u) << "what is left stays";
      EXPECT_NO_THROW(theirs->phyConfigDelAll()) << "and is the application's own";
      EXPECT_TRUE(link.right().isConnected());
   }
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
   for (char const* const name : {"told as it happens", "told as a backlog"}) {
      SCOPED_TRACE(name);
      refusals = 0;
      ours->phyConfigIs(name);
      settle();
      EXPECT_EQ(refusals, 1);
      link.left().demuxer().out()->markIs(64);
   }
}

TEST_F(Mirrored, AReferenceWaitsUntilItsTargetHasAnIdentifier) {
   auto const pll = make<PllStatus>("pll");
   link.right().exportRoot(pll);
   auto const pllHere = link.left().mount<PllStatus>("pll");
   settle();
   // Nobody owns the target on this stream for a while, and the entity changes on.
   link.right().exportDel(pll);
   link.settle();
   port->pllStatusIs(pllHere);
   port->refClockIs(7);
   link.settle();
   EXPECT_EQ(mirror->refClock(), 7u) << "what can be told does not wait";
   EXPECT_EQ(mirror->pllStatus(), nullptr);
   link.right().exportRoot(pll);
   settle();
   EXPECT_EQ(mirror->pllStatus(), pll);
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
   ASSERT_NE(oursThere->phyStatus(first), nullptr);
   ASSERT_NE(yoursHere->phyStatus(first), nullptr);
   y->managingMediaIs(!y->managingMedia()); // its owner knows it no more: here it is an entity like any other
   link.settle();
   auto const yThere = oursThere->phyStatus(first)->phyConfig();
   EXPECT_EQ(yThere->name(), "y");
   EXPECT_EQ(yThere->managingMedia(), y->managingMedia());
}

TEST(References, ToAFormerMemberFollowWhatItsConstructorRefersTo) {
   LocalLink link;
   auto const states = make<Cl10010StatusDir>("states");
   auto const chosen = make<Cl10010StatusPtrDir>("chosen");
   auto const configs = make<Cl10010ConfigDir>("configs");
   link.left().exportRoot(states);
   link.left().exportRoot(chosen);
   auto const theirStates = link.right().mount<Cl10010StatusDir>("states");
   auto const theirChosen = link.right().mount<Cl10010StatusPtrDir>("chosen");
   chosen->phyStatusIs(states->phyStatusIs("port", configs->phyConfigIs("c"), nullptr));
   link.settle();
   states->phyStatusDel("port");
   link.settle();
   // The configuration, announced without a parent so far, becomes a member of what is mirrored.
   link.left().exportRoot(configs);
   auto const theirConfigs = link.right().mount<Cl10010ConfigDir>("configs");
   link.settle();
   auto const* const entry = theirChosen->phyStatus().find("port");
   ASSERT_NE(entry, nullptr);
   ASSERT_NE(theirConfigs->phyConfig("c"), nullptr);
   EXPECT_EQ(entry->value()->phyConfig(), theirConfigs->phyConfig("c"));
}

TEST(Roots, AreGrantedOnceToWhatTheyFit) {
   LocalLink link;
   auto const config = make<Cl10010ConfigDir>("x");
   link.left().exportRoot(config);
   EXPECT_THROW(link.left().exportRoot(make<Cl10010StatusDir>("x")), NameInUseException);
   EXPECT_THROW(link.left().exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
   EXPECT_THROW(link.left().exportRoot(nullptr), RangeException);
   EXPECT_THROW(link.right().state("x"), RangeException);
   auto const wrong = link.right().mount<Cl10010StatusDir>("x");
   auto const waiting = link.right().mount<PllStatus>("later");
   EXPECT_THROW(link.right().mount<PllStatus>("later"), NameInUseException);
   link.settle();
   EXPECT_EQ(link.right().state("x"), LinkEnd::State::mismatch);
   EXPECT_EQ(link.right().state("later"), LinkEnd::State::syncing);
   auto const later = make<PllStatus>("later");
   later->lockedIs(true);
   link.left().exportRoot(later);
   link.settle();
   EXPECT_EQ(link.right().state("later"), LinkEnd::State::live);
   EXPECT_TRUE(waiting->locked());
   link.left().exportDel(later);
   link.settle();
   EXPECT_EQ(link.right().state("later"), LinkEnd::State::stale);
   EXPECT_TRUE(waiting->locked()) << "the mirror keeps what it had";
}

} // namespace
} // namespace Mox
