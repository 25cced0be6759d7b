// SPDX-License-Identifier: Apache-2.0
// Two ends that disagree for a while, and what the mirror is in the end.

#include "Directories.h"
#include "support/Thrown.h"

#include <memory>
#include <thread>

namespace Mox::NboAttrLog {
namespace {

using Mirrors = Directories;

/// Whatever both sides do to a name at once, it is the owner's in the end, and reactors are told what differs.
TEST_F(Mirrors, ANameThatBothSidesChangeIsTheOwners) {
   auto const members = logged(theirs, Cl10010ConfigDir::Attr::phyConfig, log);
   auto const announce = [&] { ours->phyConfigNotify("port"); };
   auto const refuse = [&] { EXPECT_THROW(theirs->phyConfigDel("port"), ReadOnlyException); };
   auto const refuseValue = [&] { EXPECT_THROW(theirs->phyConfig("port")->refClockIs(77), ReadOnlyException); };
   auto const rawThere = [&] { theirs->newPhyConfig("port")->hwRevIs("raw"); };
   auto const stalls = [&] { stall(); };
   auto const raw = [&] { ours->newPhyConfig("port")->refClockIs(8); };
   auto const remove = [&] { ours->phyConfigDel("port"); };
   auto const refuseMine = [&] { EXPECT_THROW(theirs->phyConfigIs("mine"), ReadOnlyException); };
   auto const makeMine = [&] { ours->phyConfigIs("mine")->refClockIs(3); };
   auto const removeMine = [&] { ours->phyConfigDel("mine"); };
   auto const asks = [&] { carry(right, left); };
   auto const answers = [&] { carry(left, right); };
   struct Case {
      char const* what;
      std::vector<std::function<void()>> steps; ///< one after the other; then all is carried
      Log told;                                 ///< empty where it doesn't matter
   };
   for (auto const& [what, steps, told] : std::vector<Case>{
           {"a refused deletion behind two announcements", {announce, announce, refuse}, {}},
           {"a raw one in its place", {announce, announce, refuse, rawThere}, {}},
           {"a raw one between announcements", {announce, rawThere, announce, announce}, {}},
           {"a refused value too", {refuseValue, announce, announce, refuse}, {}},
           {"made and deleted unasked", {refuseMine, makeMine, removeMine}, {"mine here", "mine gone"}},
           {"made, and under way", {makeMine, refuseMine}, {"mine here"}},
           {"deleted between question and answer", {refuseMine, asks, makeMine, removeMine}, {"mine gone"}},
           {"deleted behind the answer", {refuseMine, asks, makeMine, answers, removeMine}, {"mine here", "mine gone"}},
           {"deleted behind the question", {refuseMine, makeMine, asks, removeMine}, {"mine here", "mine gone"}},
           {"replaced, told and deleted unread", {stalls, raw, announce, remove}, {"port gone"}},
           {"replaced twice and told unread", {stalls, raw, raw, announce}, {"port gone", "port here"}},
           {"deleted and made raw unread", {stalls, remove, raw, remove}, {"port gone"}},
        }) {
      SCOPED_TRACE(what);
      log.clear();
      for (auto const& step : steps)
         step();
      resume();
      if (!told.empty()) {
         EXPECT_EQ(log, told);
      }
      expectSame();
      ours->phyConfigDel("mine");
      port = ours->phyConfigIs("port");
      settle();
   }
}

TEST_F(Mirrors, AnUnmountThatTellsARefusedWriteMakesTheMirrorWritableFirst) {
   auto const watch = on(mirror, Cl10010Config::Attr::refClock, [&](Cl10010Config& e) {
      log.push_back("told " + std::to_string(e.refClock()));
      if (e.refClock() == 9)
         e.refClockIs(10);
      theirs->phyConfigIs("made in answer");
   });
   EXPECT_NE(thrownBy<ReadOnlyException>([&] { mirror->refClockIs(9); }).find("its owner is \"left\""),
             std::string::npos);
   right.unmount("config");
   EXPECT_EQ(log, (Log{"told 9", "told 10"}));
   EXPECT_TRUE(theirs->phyConfig("made in answer"));
   settle();
   EXPECT_EQ(port->refClock(), 0u) << "it is the mirror's own affair";
   EXPECT_EQ(left.demuxer().counters().refusedWrites, 0u);
}

/// A raw one stands in the place of a member that was written to: its owner's announcement tells that one's reactors.
TEST_F(Mirrors, AWatchMayUnmountBehindARawReplacement) {
   auto const watch = on(mirror, Cl10010Config::Attr::refClock, [&](Cl10010Config&) { right.unmount("config"); });
   EXPECT_THROW(mirror->refClockIs(5), ReadOnlyException);
   theirs->newPhyConfig("port");
   ours->phyConfigNotify("port");
   settle();
   right.mountIs(theirs);
   settle();
   expectSame();
}

TEST(Movable, ARefusedWriteOfAMirrorThatMovesIsStillTold) {
   LinkEnd store("store"), owner("owner"), peer("peer");
   auto const mirror = store.mount<Cl10010Config>("moved"), truth = make<Cl10010Config>("moved");
   peer.exportRoot(truth);
   store.connected();
   peer.connected();
   settleEnds(store, peer);
   EXPECT_THROW(mirror->refClockIs(5), ReadOnlyException);
   store.peerGone("cut");
   peer.peerGone("cut");
   int told = 0;
   auto const watch = on(mirror, Cl10010Config::Attr::refClock, [&](Cl10010Config&) { ++told; });
   store.mountMove("moved", owner);
   owner.connected();
   peer.connected();
   truth->refClockIs(5); // what was written here: the reactors have not heard of it
   settleEnds(owner, peer);
   EXPECT_EQ(mirror->refClock(), 5u);
   EXPECT_EQ(told, 1);
}

/// Two values that are equal are no change, so a mirror keeps the one that it has: they must not be told apart.
TEST_F(Mirrors, ZeroesOfBothSignsAreEqual) {
   cut();
   port->rxSkewHIs(1);
   port->rxSkewHIs(-0.0F);
   reconnect();
   settle();
   expectSame();
}

TEST(Threads, ALinkIsDrivenAndDestroyedByAnotherThanTheOneThatMadeIt) {
   auto left = std::make_unique<LinkEnd>("left", 1), right = std::make_unique<LinkEnd>("right", 2);
   auto const ours = make<Cl10010ConfigDir>("config"), theirs = right->mount<Cl10010ConfigDir>("config");
   left->exportRoot(ours);
   left->connected();
   right->connected();
   ours->phyConfigIs("port")->refClockIs(5);
   std::thread([&] {
      settleEnds(*left, *right);
      EXPECT_EQ(right->state("config"), State::live);
      expectEqual(*ours, *theirs);
      left.reset();
      right.reset();
   }).join();
   theirs->phyConfig("port")->refClockIs(6); // nobody's mirror
}

} // namespace
} // namespace Mox::NboAttrLog
