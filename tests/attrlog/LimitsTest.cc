// SPDX-License-Identifier: Apache-2.0
// Rules at their edges: what one more or one less, one connection earlier or one byte too few would break.

#include "Peer.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "siblings/EthPhyIntfStatus.h"
#include "support/Ends.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using State = LinkEnd::State;

constexpr EntityId mine = EntityId::assigned(1, 0, 1);

TEST(Edges, AnAcknowledgementNeverGoesBack) {
   LinkEnd end("end");
   end.exportRoot(make<Cl10010ConfigDir>("config"));
   Peer peer(end);
   peer.out->control(Mount{1, MountMode::readOnly, "config"});
   ASSERT_TRUE(peer.tell());
   peer.heard();
   peer.out->control(Acknowledgement{2});
   ASSERT_TRUE(peer.tell()) << end.failure();
   peer.out->control(Acknowledgement{1});
   EXPECT_FALSE(peer.tell()) << "it has said of two records that they are applied";
}

TEST(Edges, AsManyWritesAsTheWindowHasMayWaitForTheirAnswer) {
   LinkEnd end("end");
   Peer peer(end);
   ASSERT_TRUE(peer.tell());
   for (std::uint32_t n = 0; n < requestWindow; ++n)
      peer.record(mine, 388, 1u);
   ASSERT_TRUE(peer.tell()) << end.failure();
   peer.record(mine, 388, 1u);
   EXPECT_FALSE(peer.tell()) << requestWindow + 1 << " writes wait for their answer";
}

TEST(Edges, APeerThatTakesOneIdentifierIsToldOneRoot) {
   LinkEnd end("end");
   end.exportRoot(make<Cl10010ConfigDir>("config"));
   Peer peer(end, {.incarnation = 7, .highestSlot = 1, .window = 1, .name = "peer"});
   peer.out->control(Mount{1, MountMode::readOnly, "config"});
   ASSERT_TRUE(peer.tell());
   auto const lines = peer.heard();
   EXPECT_NE(std::find(lines.begin(), lines.end(), "mounted 1 state 2"), lines.end()) << "slot 1 is one that it takes";
   EXPECT_EQ(end.demuxer().counters().withoutIdentifier, 0u);
}

TEST(Edges, ARefusalOfOneConnectionIsNotToldOnTheNext) {
   LinkEnd end("end");
   {
      Peer peer(end);
      for (int twice = 0; twice < 2; ++twice)
         peer.out->control(Mount{1, MountMode::readOnly, "config"});
      ASSERT_TRUE(peer.tell());
      end.peerGone("cut"); // nothing of the answers has gone out
   }
   EXPECT_EQ(end.footprint().owedAnswers, 0u);
   Peer again(end);
   ASSERT_TRUE(again.tell());
   EXPECT_EQ(again.heard(), Lines{}) << "this peer has asked for nothing";
   EXPECT_EQ(end.auditErrors(), 0u);
}

TEST(Edges, WhatHoldsAnExportedRootCannotBeMountedNorWhatItHolds) {
   LinkEnd end("end");
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const port = dir->phyConfigIs("port");
   end.exportRoot(port);
   EXPECT_NE(thrownBy<NameInUseException>([&] { end.mountIs(dir); }).find("is exported there"), std::string::npos);
   end.exportDel(port);
   end.exportRoot(dir);
   EXPECT_NE(thrownBy<NameInUseException>([&] { end.mountIs(port); }).find("is exported there"), std::string::npos);
}

TEST(Edges, TheFirstFrameOfTheNextConnectionIsAHelloToo) {
   auto const in = make<In>("end");
   auto const first = make<Out>("peer");
   first->control(Hello{.maximumFrame = 4096, .name = "peer"});
   std::size_t frames = 0;
   in->consume(bytesOf(*first), [&](In&) { ++frames; });
   in->reset();
   auto const second = make<Out>("peer");
   recordOf(*second, {.entity = mine, .attribute = 388, .variable = 1}, 1u);
   EXPECT_THROW(in->consume(bytesOf(*second), [&](In&) { ++frames; }), ProtocolException);
   EXPECT_EQ(frames, 1u);
}

TEST(Edges, AnExtensionLeavesRoomForTheBaseOfAWrite) {
   auto const in = make<In>("end");
   auto const out = make<Out>("peer");
   out->control(Hello{.maximumFrame = 4096, .name = "peer"});
   in->consume(bytesOf(*out), [](In&) {});
   constexpr std::size_t length = 1 + 8 + 24 + 8;
   Bytes frame(4 + length, 0);
   frame[0] = 0x60; // a write with an extension
   frame[3] = length;
   frame[4] = 9; // one byte more than what lies between it and the least that a write takes
   frame[4 + length - 1] = 3;
   std::string const why = thrownBy<ProtocolException>([&] { in->consume(frame, [](In&) {}); });
   EXPECT_NE(why.find("an extension of 9 bytes leaves no room"), std::string::npos) << why;
}

TEST(Edges, ARefusalNamesTheOwner) {
   LocalLink link;
   auto const dir = make<Cl10010ConfigDir>("config");
   link.left().exportRoot(dir);
   auto const there = link.right().mount<Cl10010ConfigDir>("config");
   link.settle();
   EXPECT_NE(thrownBy<ReadOnlyException>([&] { there->phyConfigIs("port"); }).find("its owner is \"left\""),
             std::string::npos);
}

TEST(Edges, AnOrphanIsBoundAgainOnlyWithTheSameParameters) {
   // Two statuses of one name that belong nowhere, told apart by what they were made from.
   LinkEnd end("end");
   auto const dir = end.mount<Cl10010ConfigDir>("config");
   constexpr std::string_view status = "Hardware::ClariPhy::Cl10010Status", interface = "Interface::EthPhyIntfStatus";
   auto const say = [&](Peer& peer, std::string_view other) {
      peer.grant(1, Peer::id(1));
      peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", Peer::id(1));
      peer.record(Peer::id(1), 135, 2u);
      peer.announce(interface, "eth0", Peer::id(2));
      peer.announce(interface, "eth1", Peer::id(3));
      recordOf(*peer.out, {.entity = orphanAnnouncement, .attribute = attr::orphan, .variable = 1}, Section{1},
               TypeId{status}, Section{3}, std::string_view("phy"), EntityId{}, Peer::id(other == "eth0" ? 2 : 3),
               Section{4}, Peer::id(4));
      return peer.tell();
   };
   Ptr<Entity> before;
   {
      Peer peer(end);
      ASSERT_TRUE(say(peer, "eth0")) << end.failure();
      before = end.demuxer().mirrorOf(Peer::id(4));
      ASSERT_TRUE(before);
      EXPECT_EQ(staticCast<Cl10010Status>(before)->ethIntfStatus()->name(), "eth0");
      end.peerGone("cut");
   }
   Peer peer(end);
   ASSERT_TRUE(say(peer, "eth1")) << end.failure();
   auto const now = end.demuxer().mirrorOf(Peer::id(4));
   ASSERT_TRUE(now);
   EXPECT_NE(now, before);
   EXPECT_EQ(staticCast<Cl10010Status>(now)->ethIntfStatus()->name(), "eth1");
}

/// A stalled owner costs a mirror no more than the mark, whatever it has to be asked for.
TEST(Edges, WhatIsAskedOfAnOwnerThatDoesNotReadStaysBelowTheMark) {
   for (int const what : {0, 1, 2}) { // one value of each of many, whole entities, many keys of one
      SCOPED_TRACE(what);
      LocalLink link;
      auto const dir = make<Cl10010ConfigDir>("config");
      for (int n = 0; n < 300; ++n)
         dir->phyConfigIs(Name("port" + std::to_string(n)));
      link.left().exportRoot(dir);
      auto const there = link.right().mount<Cl10010ConfigDir>("config");
      link.settle();
      auto& stream = link.right().demuxer();
      auto const out = stream.out();
      out->markIs(512);
      for (int n = 0; n < 300; ++n) {
         auto const port = there->phyConfig(Name("port" + std::to_string(n)));
         if (what == 0)
            EXPECT_THROW(port->refClockIs(9), ReadOnlyException);
         else if (what == 1)
            stream.adapterOf(*port)->owesAllIs();
         else
            EXPECT_THROW(there->phyConfigDel(port->name()), ReadOnlyException);
      }
      link.right().bytesToSend(); // asked for, and carried nowhere
      EXPECT_LE(out->pendingBytes(), 512u + 64) << "one request above the mark";
      out->markIs(Out::defaultMark);
      link.settle();
      expectEqual(*dir, *there);
   }
}

TEST(Edges, ARefusedWriteOfAMovingMirrorIsStillTold) {
   Log log;
   LinkEnd store("store"), owner("owner");
   auto const root = store.mount<Cl10010ConfigDir>("moved");
   auto const sender = make<Cl10010ConfigDir>("moved");
   LinkEnd peer("peer");
   peer.exportRoot(sender);
   sender->phyConfigIs("port")->refClockIs(1);
   store.connected();
   peer.connected();
   settleEnds(store, peer);
   auto const member = root->phyConfig("port");
   ASSERT_TRUE(member);
   EXPECT_THROW(member->refClockIs(5), ReadOnlyException);
   store.peerGone("cut");
   peer.peerGone("cut");
   auto const watch = on(member, Cl10010Config::Attr::refClock, [&](Cl10010Config&) { log.push_back("told"); });
   store.mountMove("moved", owner);
   owner.connected();
   peer.connected();
   sender->phyConfig("port")->refClockIs(5); // what was written here: the reactors have not heard of it
   settleEnds(owner, peer);
   EXPECT_EQ(member->refClock(), 5u);
   EXPECT_EQ(log, Log{"told"});
}

} // namespace
} // namespace Mox::NboAttrLog
