// SPDX-License-Identifier: Apache-2.0
// Two ends that disagree for a while: writes that are refused, members put in the place of others, roots that come and go.

#include "Peer.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "siblings/Accelerator.h"
#include "siblings/Gpo.h"
#include "support/Ends.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using State = LinkEnd::State;
using ConfigAttr = Cl10010ConfigDir::Attr;

/// A directory of configurations on the left, mirrored on the right.
struct Life : testing::Test {
   LocalLink link;
   LinkEnd &left = link.left(), &right = link.right();
   Ptr<Cl10010ConfigDir> ours = make<Cl10010ConfigDir>("config"), theirs;
   Ptr<Cl10010Config> port, mirror;
   Log log, reports;

   Life() {
      left.exportRoot(ours);
      theirs = right.mount<Cl10010ConfigDir>("config");
      port = ours->phyConfigIs("port");
      port->refClockIs(5);
      port->modelIs("told long ago");
      right.onReport([this](std::string const& t) { reports.push_back(t); });
      settle();
      mirror = theirs->phyConfig("port");
   }
   void settle() {
      settleEnds(left, right);
      EXPECT_TRUE(left.quiet());
      EXPECT_TRUE(right.quiet());
      EXPECT_EQ(right.state("config"), State::live);
      expectEqual(*ours, *theirs);
   }
   /// Nothing is sent at once any more: what changes is marked.
   void stall() {
      left.demuxer().out()->markIs(1);
      port->refClockIs(port->refClock() + 1);
   }
   void resume() {
      left.demuxer().out()->markIs(Out::defaultMark);
      settle();
   }
};

TEST_F(Life, ARefusedDeletionIsPutRightHoweverOftenTheNameIsUnderWay) {
   auto const refuse = [&] { EXPECT_THROW(theirs->phyConfigDel("port"), ReadOnlyException); };
   auto const announce = [&] { ours->phyConfigNotify("port"); };
   struct Case {
      char const* what;
      std::vector<std::function<void()>> steps; ///< one after the other; then all is carried
   };
   for (auto const& [what, steps] : std::vector<Case>{
           {"one announcement under way", {announce, refuse}},
           {"two", {announce, announce, refuse}},
           {"three", {announce, announce, announce, refuse}},
           {"one before and one behind", {announce, refuse, announce}},
           {"two, and a raw one in its place", {announce, announce, refuse, [&] { theirs->newPhyConfig("port"); }}},
           {"a raw one that nobody has told of", {[&] { theirs->newPhyConfig("port"); }, announce}},
           {"and twice", {[&] { theirs->newPhyConfig("port"); }, announce, announce}},
           {"a raw one with a value",
            {announce, [&] { theirs->newPhyConfig("port")->hwRevIs("raw"); }, announce, announce}},
           {"one whose value is refused too",
            {[&] { EXPECT_THROW(theirs->phyConfig("port")->refClockIs(77), ReadOnlyException); }, announce, announce,
             refuse}},
        }) {
      SCOPED_TRACE(what);
      for (auto const& step : steps)
         step();
      settle();
   }
}

TEST_F(Life, ANameThatTheMirrorWasRefusedMayBeTheOwnersMeanwhile) {
   auto const members = logged(theirs, ConfigAttr::phyConfig, log);
   auto const refused = [&] { EXPECT_THROW(theirs->phyConfigIs("mine"), ReadOnlyException); };
   auto const made = [&] { ours->phyConfigIs("mine")->refClockIs(3); };
   auto const deleted = [&] { ours->phyConfigDel("mine"); };
   auto const asks = [&] { carry(right, left); };
   auto const answers = [&] { carry(left, right); };
   struct Case {
      char const* what;
      std::vector<std::function<void()>> steps;
      Log told;
   };
   for (auto const& [what, steps, told] : std::vector<Case>{
           {"made and deleted before the question", {refused, made, deleted}, {"mine here", "mine gone"}},
           {"made, and under way", {made, refused}, {"mine here"}},
           {"deleted between question and answer", {refused, asks, made, deleted}, {"mine gone"}},
           {"made behind the question, deleted behind its answer",
            {refused, asks, made, answers, deleted},
            {"mine here", "mine gone"}},
           {"made before the question, deleted behind it", {refused, made, asks, deleted}, {"mine here", "mine gone"}},
           {"made, deleted, made", {refused, made, deleted, made}, {"mine here", "mine gone", "mine here"}},
        }) {
      SCOPED_TRACE(what);
      log.clear();
      for (auto const& step : steps)
         step();
      settle();
      EXPECT_EQ(log, told);
      ours->phyConfigDel("mine");
      settle();
   }
}

TEST_F(Life, WhatIsMadeRawToldAndDeletedWithinOneStallIsGone) {
   auto const members = logged(theirs, ConfigAttr::phyConfig, log);
   struct Case {
      char const* what;
      std::function<void()> act;
      Log told;
   };
   for (auto const& [what, act, told] : std::vector<Case>{
           {"replaced, told and deleted",
            [&] {
               ours->newPhyConfig("port");
               ours->phyConfigNotify("port");
               ours->phyConfigDel("port");
            },
            {"port gone"}},
           {"replaced and deleted",
            [&] {
               ours->newPhyConfig("port");
               ours->phyConfigDel("port");
            },
            {"port gone"}},
           {"replaced twice and told",
            [&] {
               ours->newPhyConfig("port");
               ours->newPhyConfig("port")->refClockIs(8);
               ours->phyConfigNotify("port");
            },
            {"port gone", "port here"}},
           {"deleted and made raw, which nobody knows of", // an announcement tells of it with the next resend
            [&] {
               ours->phyConfigDel("port");
               ours->newPhyConfig("port");
               ours->phyConfigDel("port");
            },
            {"port gone"}},
        }) {
      SCOPED_TRACE(what);
      stall();
      log.clear();
      act();
      resume();
      EXPECT_EQ(log, told);
      port = ours->phyConfigIs("port");
      settle();
   }
}

/// The watch ends the mirror while the owner's announcement takes the place of a raw member.
TEST_F(Life, WhoeverHearsOfARefusedWriteMayUnmount) {
   mirror->rollOffIs(mirror->rollOff());
   auto const watch = on(mirror, Cl10010Config::Attr::refClock, [&](Cl10010Config&) {
      log.push_back("told");
      right.unmount("config");
   });
   EXPECT_THROW(mirror->refClockIs(9), ReadOnlyException);
   auto const raw = theirs->newPhyConfig("port");
   ours->phyConfigNotify("port");
   settleEnds(left, right);
   EXPECT_EQ(log, Log{"told"});
   EXPECT_FALSE(right.hasMounts());
   EXPECT_EQ(theirs->phyConfig("port"), raw) << "what is left stays as it was";
   raw->refClockIs(1); // and is anybody's
   mirror->refClockIs(1);
   EXPECT_EQ(right.demuxer().footprint().mirrored, 0u);
   EXPECT_EQ(left.demuxer().footprint().announced, 0u);
}

TEST_F(Life, AnUnmountThatTellsARefusedWriteMakesTheMirrorWritableFirst) {
   Ptr<Cl10010Config> made;
   auto const watch = on(mirror, Cl10010Config::Attr::refClock, [&](Cl10010Config& e) {
      log.push_back("told");
      if (e.refClock() == 9)
         e.refClockIs(10);
      e.modelIs("mine");
      made = theirs->phyConfigIs("made in answer");
   });
   EXPECT_THROW(mirror->refClockIs(9), ReadOnlyException);
   right.unmount("config");
   EXPECT_EQ(log, (Log{"told", "told"}));
   EXPECT_EQ(mirror->refClock(), 10u);
   EXPECT_EQ(mirror->model(), "mine");
   EXPECT_TRUE(made);
   settleEnds(left, right);
   EXPECT_EQ(port->refClock(), 5u) << "it is the mirror's own affair";
   EXPECT_EQ(reports, Log{});
}

TEST_F(Life, AMemberThatIsDeletedGoesInTheMirrorsProcessToo) {
   std::vector<Ptr<Presence>> there;
   for (std::size_t const mark : {Out::defaultMark, std::size_t{1}, std::size_t{400}}) {
      SCOPED_TRACE(mark);
      int const members = mark == 1 ? 500 : 2500; // more than a buffer takes, and not too many to tell one at a time
      there.clear();
      for (int i = 0; i < members; ++i)
         ours->phyConfigIs("member " + std::to_string(i))->resetUcIs(make<Fru::Gpo>("gpo"));
      settle();
      for (int i = 0; i < members; ++i) {
         auto const member = theirs->phyConfig("member " + std::to_string(i));
         there.push_back(Presence::of(member));
         there.push_back(Presence::of(member->resetUc()));
      }
      left.demuxer().out()->markIs(mark);
      for (int i = 0; i < members; ++i)
         ours->phyConfigDel("member " + std::to_string(i));
      settle();
      left.demuxer().out()->markIs(Out::defaultMark);
      EXPECT_EQ(std::count_if(there.begin(), there.end(), [](auto const& p) { return p->isThere(); }), 0);
      EXPECT_EQ(right.demuxer().footprint().mirrored, left.demuxer().footprint().announced);
   }
}

TEST_F(Life, ARootIsUnmountedWhileAHundredAnnouncementsAreUnderWay) {
   auto const more = make<Cl10010ConfigDir>("more");
   left.exportRoot(more);
   auto moreThere = right.mount<Cl10010ConfigDir>("more");
   settle();
   for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(round);
      for (int i = 0; i < 100; ++i)
         more->phyConfigIs("member " + std::to_string(i) + " of " + std::to_string(round))
            ->resetUcIs(make<Fru::Gpo>("gpo"));
      left.bytesToSend(); // they are written
      right.unmount("more");
      ours->phyConfigIs("behind " + std::to_string(round))->refClockIs(3);
      settle();
      EXPECT_EQ(right.failure(), "");
      EXPECT_TRUE(right.isConnected());
      moreThere = right.mount<Cl10010ConfigDir>("more");
      settle();
      expectEqual(*more, *moreThere);
   }
   EXPECT_GE(right.demuxer().counters().staleRecords, 100u);
}

TEST_F(Life, OrphansOutliveARemountThatOpensNothing) {
   auto const gpo = make<Fru::Gpo>("gpo");
   port->resetUcIs(gpo);
   settle();
   auto gpoThere = mirror->resetUc();
   link.cut();
   left.exportDel(ours);
   gpo->assertedIs(true);
   link.reconnect();
   settleEnds(left, right);
   EXPECT_NE(right.state("config"), State::live);
   EXPECT_EQ(mirror->resetUc(), gpoThere) << "the mirror keeps what it had";
   left.exportRoot(ours);
   settle();
   EXPECT_TRUE(mirror->resetUc()->asserted());
   // The last unmount: what was referred to is nobody's mirror any more.
   gpoThere = mirror->resetUc();
   right.unmount("config");
   gpoThere->assertedIs(false);
   mirror->refClockIs(77);
   auto const all = right.demuxer().footprint();
   EXPECT_EQ(all.mirrored + all.waiting, 0u);
   settleEnds(left, right);
   EXPECT_EQ(left.demuxer().footprint().announced, 0u);
   EXPECT_TRUE(gpo->asserted());
}

TEST_F(Life, AMemberThatWasReferredToBeforeItsDirectoryIsExportedIsToldOnce) {
   auto const later = make<Cl10010ConfigDir>("later");
   auto const refs = make<Cl10010ConfigPtrDir>("refs");
   left.exportRoot(refs);
   auto const refsThere = right.mount<Cl10010ConfigPtrDir>("refs");
   auto const laterThere = right.mount<Cl10010ConfigDir>("later");
   for (char const* const name : {"a", "b"}) {
      later->phyConfigIs(name)->refClockIs(1);
      refs->phyConfigIs(later->phyConfig(name));
   }
   settleEnds(left, right);
   ASSERT_EQ(refsThere->phyConfig().size(), 2u);
   auto const asEntries = logged(refsThere, Cl10010ConfigPtrDir::Attr::phyConfig, log);
   auto const asMembers = logged(laterThere, ConfigAttr::phyConfig, log);
   left.exportRoot(later);
   settle();
   expectEqual(*later, *laterThere);
   std::sort(log.begin(), log.end());
   EXPECT_EQ(log, (Log{"a here", "a here", "b here", "b here"})) << "once by each of the two";
   for (char const* const name : {"a", "b"})
      EXPECT_EQ(refsThere->phyConfig().find(name)->value(), laterThere->phyConfig(name));
   log.clear();
   later->phyConfig("a")->refClockIs(2);
   settle();
   EXPECT_EQ(refsThere->phyConfig().find("a")->value()->refClock(), 2u);
   EXPECT_EQ(log, Log{});
}

TEST_F(Life, AnOrphanThatIsExportedLaterBecomesTheMountedRoot) {
   auto const gpo = make<Fru::Gpo>("gpo");
   port->resetUcIs(gpo);
   auto const gpoThere = right.mount<Fru::Gpo>("gpo");
   settle();
   auto const orphan = mirror->resetUc();
   EXPECT_NE(orphan, gpoThere);
   auto const watch = on(mirror, Cl10010Config::Attr::resetUc, [&](Cl10010Config&) { log.push_back("told"); });
   left.exportRoot(gpo);
   gpo->assertedIs(true);
   settle();
   EXPECT_EQ(right.state("gpo"), State::live);
   EXPECT_EQ(mirror->resetUc(), gpoThere);
   EXPECT_TRUE(gpoThere->asserted());
   EXPECT_EQ(log, Log{"told"});
   EXPECT_EQ(right.demuxer().footprint().mirrored, 3u) << "the orphan is none any more";
}

/// A mirror whose owner is played by hand: mounted as slot 1, with one member.
struct Handmade : testing::Test {
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = end.mount<Cl10010ConfigDir>("config");
   Peer peer{end};
   static constexpr EntityId root = Peer::id(1), member = Peer::id(2);
   Log log;
   Watch members = logged(dir, ConfigAttr::phyConfig, log);

   Handmade() {
      peer.grant(1, root);
      peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", root);
      peer.record(root, 135, 1u);
      announceMember("port", member);
      peer.record(member, 388, 5u);
      peer.record(member, 135, 1u);
      EXPECT_TRUE(peer.tell());
      EXPECT_EQ(end.state("config"), State::live);
      peer.heard();
      log.clear();
   }
   void announceMember(std::string_view name, EntityId id) {
      recordOf(*peer.out, {.entity = root, .attribute = 258, .variable = 1, .kind = kind::childLog}, name, id);
   }
};

TEST_F(Handmade, ARetirementMayComeBeforeTheLossAndBeforeTheNextOfThatName) {
   auto const lost = [&] { peer.record(root, -258, std::string_view("port")); };
   for (std::uint32_t n = 2; n < 6; ++n) {
      SCOPED_TRACE(n);
      auto const before = dir->phyConfig("port");
      peer.out->control(Retire{Peer::id(n)});
      if (n % 2 != 0)
         peer.tell(); // on its own, or together with what follows
      announceMember("port", Peer::id(n + 1));
      peer.record(Peer::id(n + 1), 135, 1u);
      ASSERT_TRUE(peer.tell()) << end.failure();
      EXPECT_EQ(log, (Log{"port gone", "port here"}));
      ASSERT_TRUE(dir->phyConfig("port"));
      EXPECT_NE(dir->phyConfig("port"), before);
      EXPECT_EQ(dir->phyConfig("port")->refClock(), 0u) << "another entity, of which nothing has been told";
      EXPECT_EQ(before->parent(), nullptr);
      log.clear();
   }
   peer.out->control(Retire{Peer::id(6)});
   lost();
   announceMember("port", Peer::id(6, 2)); // the slot again
   lost();
   ASSERT_TRUE(peer.tell()) << end.failure();
   EXPECT_EQ(log, (Log{"port gone", "port here", "port gone"}));
   EXPECT_EQ(peer.reports, Lines{});
}

TEST_F(Handmade, OrphansOfUnknownTypesTakeTheirSlots) {
   for (std::uint32_t slot = 3; slot <= 5000; ++slot)
      peer.announce("Later::Thing", "x", Peer::id(slot));
   peer.record(Peer::id(5000), 258, 1u);
   peer.record(member, 386, Peer::id(5000)); // reads as null
   peer.announce("Hardware::Spi::Accelerator", "spi", Peer::id(5001));
   peer.record(Peer::id(5001), 258, 400u);
   peer.record(member, 386, Peer::id(5001));
   ASSERT_TRUE(peer.tell()) << end.failure();
   ASSERT_TRUE(dir->phyConfig("port")->spiAccel());
   EXPECT_EQ(dir->phyConfig("port")->spiAccel()->clockRate(), 400u);
   EXPECT_EQ(end.demuxer().counters().unknownTypes, 4998u + 1);
   for (std::uint32_t slot = 3; slot <= 5000; ++slot)
      peer.out->control(Retire{Peer::id(slot)});
   peer.announce("Later::Thing", "y", Peer::id(5000, 2));
   peer.announce("Hardware::Spi::Accelerator", "spi", Peer::id(4999, 2));
   peer.record(member, 386, Peer::id(4999, 2));
   ASSERT_TRUE(peer.tell()) << end.failure();
   EXPECT_EQ(dir->phyConfig("port")->spiAccel()->clockRate(), 0u);
   EXPECT_EQ(auditOf(end.demuxer()), "");
}

TEST(Threads, ALinkIsDrivenAndDestroyedByAnotherThanTheOneThatMadeIt) {
   auto link = std::make_unique<LocalLink>();
   auto const ours = make<Cl10010ConfigDir>("config");
   link->left().exportRoot(ours);
   auto const theirs = link->right().mount<Cl10010ConfigDir>("config");
   ours->phyConfigIs("port")->refClockIs(5);
   std::thread([&] {
      settleEnds(link->left(), link->right());
      EXPECT_EQ(link->right().state("config"), State::live);
      expectEqual(*ours, *theirs);
      link->cut();
      link->reconnect();
      settleEnds(link->left(), link->right());
      EXPECT_EQ(link->right().state("config"), State::live);
      auto const another = std::make_unique<LocalLink>();
      link.reset();
   }).join();
   EXPECT_EQ(theirs->phyConfig("port")->refClock(), 5u);
   theirs->phyConfig("port")->refClockIs(6); // nobody's mirror
}

} // namespace
} // namespace Mox::NboAttrLog
