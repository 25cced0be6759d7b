// Two ends, and what a mirror promises.

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "notify/Dump.h"
#include "notify/Observe.h"
#include "siblings/LedConfig.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Mox {
namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Hardware::ClariPhy::Cl10010Status;
using Hardware::ClariPhy::Cl10010StatusDir;
using Hardware::Dpll::PllStatus;
using Xcvr::CfpxHostChannel;
using Lines = std::vector<std::string>;

std::string text(String8 const& s) {
   return std::string(std::string_view(s));
}

/// A directory of configurations on the left, mirrored on the right.
struct Mirrored : testing::Test {
   LocalLink link;
   Ptr<Cl10010ConfigDir> ours = make<Cl10010ConfigDir>("config");
   Ptr<Cl10010ConfigDir> theirs;
   Ptr<Cl10010Config> port, mirror;
   Lines log;
   Lines reports;

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
   Watch logged(Ptr<Cl10010Config> const& c) {
      return onAny(c, [this](Cl10010Config& e, AttributeId id) { log.push_back(text(e.attributeString(id))); });
   }
   Watch loggedMembers() {
      return on(theirs, Cl10010ConfigDir::Attr::phyConfig, [this](Cl10010ConfigDir& d, Name const& name) {
         log.push_back(text(name) + (d.phyConfig().contains(name) ? " here" : " gone"));
      });
   }
};

TEST_F(Mirrored, AWriteToItThrowsAndTheOwnersValueComesBack) {
   auto const watch = logged(mirror);
   auto const members = loggedMembers();
   auto& counters = link.right().demuxer().counters();
   struct Case {
      char const* what;
      std::function<void()> write; ///< here, and for some at the owner meanwhile
      std::function<bool()> stands;
      char const* thrown;
      Lines told; ///< once, when the owner's value is back
   };
   for (auto const& [what, write, stands, thrown, told] : std::vector<Case>{
           {"a scalar",
            [&] { mirror->refClockIs(9); },
            [&] { return mirror->refClock() == 9; },
            "/config/port.refClock is read-only here",
            {"refClock"}},
           {"one that the owner changes to the same",
            [&] {
               port->refClockIs(11);
               mirror->refClockIs(11);
            },
            [&] { return mirror->refClock() == 11; },
            "refClock is read-only",
            {"refClock"}},
           {"one of the base",
            [&] { mirror->wakeupTimeIs(3); },
            [&] { return mirror->wakeupTime() == 3; },
            "wakeupTime is read-only",
            {"wakeupTime"}},
           {"an increment",
            [&] { mirror->diagsModeEpochInc(1); },
            [&] { return mirror->diagsModeEpoch() == 1; },
            "diagsModeEpoch is read-only",
            {"diagsModeEpoch"}},
           {"a key",
            [&] {
               mirror->calibrationIs(CfpxHostChannel::channel1, {2, 2, 2});
            },
            [&] { return mirror->calibration(CfpxHostChannel::channel1).gain == 2; },
            "calibration is",
            {"calibration"}},
           {"a key that the owner does not have",
            [&] {
               mirror->calibrationIs(CfpxHostChannel::channel0, {2, 2, 2});
            },
            [&] { return mirror->calibration().size() == 2; },
            "calibration is",
            {"calibration"}},
           {"the loss of a key",
            [&] { mirror->calibrationDel(CfpxHostChannel::channel1); },
            [&] { return mirror->calibration().empty(); },
            "calibration is",
            {"calibration"}},
           {"a member",
            [&] { theirs->phyConfigIs("mine"); },
            [&] { return theirs->phyConfig().contains("mine"); },
            "/config.phyConfig is read-only",
            {"mine gone"}},
        }) {
      SCOPED_TRACE(what);
      log.clear();
      auto const asked = counters.refreshesAsked;
      try {
         write();
         ADD_FAILURE() << "nothing was thrown";
      } catch (ReadOnlyException const& e) {
         EXPECT_NE(std::string(e.what()).find(thrown), std::string::npos) << e.what();
      }
      EXPECT_TRUE(stands());
      EXPECT_EQ(log, Lines{}) << "no other reactor is told of it";
      settle();
      EXPECT_EQ(log, told);
      EXPECT_LE(counters.refreshesAsked - asked, 1u);
   }
   log.clear();
   EXPECT_THROW(theirs->phyConfigDel("port"), ReadOnlyException);
   settle();
   EXPECT_EQ(log, (Lines{"parent", "port here"}));
   EXPECT_NE(theirs->phyConfig("port"), mirror) << "a deleted member comes back as another";
   EXPECT_EQ(reports, Lines{});
}

TEST_F(Mirrored, AStalledStreamTellsTheNewestStateAndEachDifferenceOnce) {
   auto const members = loggedMembers();
   auto const watch = logged(mirror);
   link.left().demuxer().out()->markIs(0); // nothing more fits
   for (std::uint32_t i = 0; i < 1000; ++i) {
      port->refClockIs(100 + i);
      ours->phyConfigIs("passing")->refClockIs(i);
      ours->phyConfigDel("passing");
   }
   ours->phyConfigIs("new")->refClockIs(8);
   EXPECT_LE(link.left().demuxer().footprint().dirtyKeys, 2u) << "one per name, however often it came and went";
   link.left().demuxer().out()->markIs(NboAttrLog::Out::defaultMark);
   settle();
   EXPECT_EQ(log, (Lines{"refClock", "new here"}));
   EXPECT_EQ(mirror->refClock(), 1099u);

   // Gone and made again under the same name meanwhile: another entity, not a change of the old one.
   log.clear();
   link.left().demuxer().out()->markIs(0);
   ours->phyConfigDel("port");
   port = ours->phyConfigIs("port");
   port->rollOffIs(0.75F);
   link.left().demuxer().out()->markIs(NboAttrLog::Out::defaultMark);
   settle();
   EXPECT_EQ(log, (Lines{"parent", "port gone", "port here"}));
   EXPECT_EQ(link.right().demuxer().counters().renamedMembers, 1u);
   EXPECT_NE(theirs->phyConfig("port"), mirror);
   EXPECT_EQ(mirror->refClock(), 1099u) << "the old one stands as it was";
   EXPECT_NO_THROW(mirror->refClockIs(1)) << "and belongs to whoever holds it";
}

TEST_F(Mirrored, AReconnectTellsExactlyTheDifferences) {
   ours->phyConfigIs("other");
   settle();
   std::vector<std::string> states;
   link.right().onState([&](Name const&, LinkEnd::State s) {
      states.push_back(textOf(s));
      if (s == LinkEnd::State::stale)
         throw std::runtime_error("the application is unwell"); // its affair
   });
   auto const watch = logged(mirror);
   auto const members = loggedMembers();
   link.cut();
   ours->phyConfigDel("other");
   ours->phyConfigIs("third");
   port->rollOffIs(0.5F);
   port->refClockIs(6);
   port->refClockIs(5); // as it was
   port->calibrationDel(CfpxHostChannel::channel1);
   EXPECT_EQ(link.right().state("config"), LinkEnd::State::stale);
   link.reconnect();
   settle();
   EXPECT_EQ(states, (std::vector<std::string>{"stale", "syncing", "live"}));
   std::sort(log.begin(), log.end());
   EXPECT_EQ(log, (Lines{"calibration", "other gone", "rollOff", "third here"}));
   EXPECT_EQ(theirs->phyConfig("port"), mirror) << "bound again in place";
}

TEST_F(Mirrored, AThrowingReactorStopsNeitherSweepNorStream) {
   for (char const* name : {"a", "b", "c", "d"})
      ours->phyConfigIs(name);
   settle();
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
   port->refClockIs(7);
   link.reconnect();
   settle();
   EXPECT_EQ(theirs->phyConfig().size(), 1u);
   EXPECT_EQ(link.right().demuxer().counters().sweptEntries, 4u);
   EXPECT_EQ(link.right().demuxer().counters().applicationExceptions, 1u) << "the first one of the sweep";
   ASSERT_FALSE(reports.empty());
   EXPECT_NE(reports[0].find("/config.phyConfig (258): no more of this"), std::string::npos) << reports[0];
   EXPECT_EQ(log, Lines{}) << "reactors behind the faulty one miss it";
   ours->phyConfigIs("e");
   settle();
   EXPECT_EQ(link.right().demuxer().counters().applicationExceptions, 2u);
   EXPECT_TRUE(link.right().isConnected());
}

TEST_F(Mirrored, AReactorMayEndTheMirrorInTheMiddleOfWhatIsApplied) {
   for (char const* name : {"a", "b", "c", "d"})
      ours->phyConfigIs(name);
   settle();
   link.cut();
   for (char const* name : {"a", "b", "c", "d"})
      ours->phyConfigDel(name);
   link.reconnect();
   auto watch = on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir&, Name const&) {
      link.right().unmount("config"); // at the first deletion of a sweep
   });
   link.settle();
   EXPECT_EQ(theirs->phyConfig().size(), 4u) << "what is left stays";
   EXPECT_NO_THROW(theirs->phyConfigDelAll()) << "and is the application's own";
   EXPECT_FALSE(link.right().hasMounts());
   EXPECT_EQ(link.left().demuxer().footprint().announced, 0u);

   // While a member is made, while a key is stored, and from within a member's own notification.
   for (auto const& change : std::vector<std::function<void()>>{
           [&] { ours->phyConfigIs("fresh"); },
           [&] {
              port->calibrationIs(CfpxHostChannel::channel6, {6, 6, 6});
           },
           [&] {
              link.left().demuxer().out()->markIs(0);
              ours->phyConfigDel("port");
              port = ours->phyConfigIs("port");
              link.left().demuxer().out()->markIs(NboAttrLog::Out::defaultMark);
           },
        }) {
      watch.stop();
      theirs = link.right().mount<Cl10010ConfigDir>("config");
      settle();
      auto const end = [&](auto&&...) { link.right().unmount("config"); };
      watch = on(theirs, Cl10010ConfigDir::Attr::phyConfig, end);
      auto const member = on(theirs->phyConfig("port"), Cl10010Config::Attr::calibration,
                             [&](auto&, auto) { link.right().unmount("config"); });
      change();
      link.settle();
      EXPECT_FALSE(link.right().hasMounts());
      EXPECT_EQ(link.right().demuxer().footprint().mirrored, 0u);
      EXPECT_FALSE(theirs->moxReactors().first()->isStreamAdapter()) << "no adapter is left on it";
      EXPECT_TRUE(link.right().isConnected());
   }
}

TEST_F(Mirrored, WhatAReactorWritesWhileARecordIsAppliedGoesItsOwnWay) {
   auto const answer = make<Cl10010StatusDir>("status");
   link.right().exportRoot(answer);
   auto const answers = link.left().mount<Cl10010StatusDir>("status");
   std::vector<Watch> watches;
   watches.push_back(on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& d, Name const& name) {
      auto const config = d.phyConfig(name);
      auto const status = answer->phyStatusIs(name, config, nullptr); // refers to the mirror that is just being made
      status->rollOffIs(0.25F);
      watches.push_back(
         on(config, Cl10010Config::Attr::refClock, [status](Cl10010Config& c) { status->fecFramesInc(c.refClock()); }));
   }));
   auto const fresh = ours->phyConfigIs("fresh");
   settle();
   fresh->refClockIs(40);
   fresh->refClockIs(2);
   settle();
   auto const told = answers->phyStatus("fresh");
   ASSERT_NE(told, nullptr);
   EXPECT_EQ(told->phyConfig(), fresh) << "the reference to a mirror is the owner's own entity again";
   EXPECT_EQ(told->rollOff(), 0.25F);
   EXPECT_EQ(told->fecFrames(), 42u);
   watches.clear();
}

TEST_F(Mirrored, EntitiesWithoutAPlaceComeAsReferencesToThem) {
   auto pll = make<PllStatus>("pll");
   ours->phyConfigIs("second")->pllStatusIs(pll);
   port->pllStatusIs(pll);
   port->ledConfigIs(make<Hardware::Led::LedConfig>("led"));
   settle();
   Ptr<PllStatus const> const theirPll = mirror->pllStatus();
   ASSERT_NE(theirPll, nullptr);
   EXPECT_EQ(theirs->phyConfig("second")->pllStatus(), theirPll) << "one entity, however many refer to it";
   EXPECT_EQ(theirPll->name(), "pll");
   EXPECT_EQ(mirror->ledConfig(), nullptr) << "its type has no log";
   pll->lockedIs(true);
   settle();
   EXPECT_TRUE(theirPll->locked());

   link.cut();
   pll->lockedIs(false);
   link.reconnect();
   settle();
   EXPECT_EQ(mirror->pllStatus(), theirPll) << "the same after a reconnect";
   EXPECT_FALSE(theirPll->locked());

   auto const announced = link.left().demuxer().footprint().announced;
   port->pllStatusIs(nullptr);
   ours->phyConfigDel("second");
   pll = nullptr;
   settle();
   EXPECT_EQ(link.left().demuxer().footprint().announced, announced - 2);
   EXPECT_EQ(theirPll->references(), 1u) << "the stream holds it no more";
}

/// Statuses on both sides, each with a configuration that belongs to the other side and to no directory.
TEST(Resends, ThatWaitForEachOtherComeToAnEnd) {
   LocalLink link;
   auto const ours = make<Cl10010StatusDir>("ours"), yours = make<Cl10010StatusDir>("yours");
   link.left().exportRoot(ours);
   link.right().exportRoot(yours);
   auto const oursThere = link.right().mount<Cl10010StatusDir>("ours");
   auto const yoursHere = link.left().mount<Cl10010StatusDir>("yours");
   auto const expectLive = [&] {
      link.settle();
      for (LinkEnd* const end : {&link.left(), &link.right()}) {
         auto const f = end->demuxer().footprint();
         EXPECT_EQ(f.waiting + f.parked + f.flows, 0u);
      }
      EXPECT_EQ(link.left().state("yours"), LinkEnd::State::live);
      EXPECT_EQ(link.right().state("ours"), LinkEnd::State::live);
   };
   // The one that waits stands before the one that brings what the other side waits for.
   Name first("one"), second("two");
   {
      auto const order = make<Cl10010StatusDir>("order");
      order->phyStatusIs(first, nullptr, nullptr);
      order->phyStatusIs(second, nullptr, nullptr);
      if ((*order->phyStatus().begin()).moxName() != first)
         std::swap(first, second);
   }
   ours->phyStatusIs(second, make<Cl10010Config>("x"), nullptr);
   yours->phyStatusIs(second, make<Cl10010Config>("y"), nullptr);
   link.settle();
   auto const x = oursThere->phyStatus(second)->phyConfig(), y = yoursHere->phyStatus(second)->phyConfig();
   ours->phyStatusIs(first, y, nullptr);
   yours->phyStatusIs(first, x, nullptr);
   expectLive();

   Lines log;
   auto const told = [&](Cl10010StatusDir& d, Name const& name) {
      log.push_back(text(d.fullName()) + "/" + std::string(std::string_view(name)) +
                    (d.phyStatus().contains(name) ? " here" : " gone"));
   };
   auto const watchOurs = on(oursThere, Cl10010StatusDir::Attr::phyStatus, told);
   auto const watchYours = on(yoursHere, Cl10010StatusDir::Attr::phyStatus, told);
   link.cut();
   link.reconnect();
   expectLive();
   EXPECT_EQ(log, Lines{}) << "nothing differs";
   EXPECT_EQ(link.left().demuxer().counters().brokenWaits + link.right().demuxer().counters().brokenWaits, 0u);

   // Each side lets its own go while they are apart, and neither can say so: it would have to come to the end of its resend.
   link.cut();
   ours->phyStatusDel(second);
   yours->phyStatusDel(second);
   link.reconnect();
   expectLive();
   ASSERT_NE(oursThere->phyStatus(first), nullptr);
   ASSERT_NE(yoursHere->phyStatus(first), nullptr);
   y->managingMediaIs(!y->managingMedia()); // its owner knows it no more: here it is an entity like any other
   link.settle();
   auto const yThere = oursThere->phyStatus(first)->phyConfig();
   EXPECT_EQ(yThere->name(), "y");
   EXPECT_EQ(yThere->managingMedia(), y->managingMedia());
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
   later->lockedIs(false);
   link.left().exportRoot(later);
   link.right().unmount("later");
   link.right().mountIs(waiting);
   link.settle();
   EXPECT_FALSE(waiting->locked());
}

} // namespace
} // namespace Mox
