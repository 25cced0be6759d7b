// SPDX-License-Identifier: Apache-2.0
// Rules at their edges: what one more or one less, one connection earlier or one byte too few would break.

#include "Peer.h"
#include "entities/Cl10010ConfigDir.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

struct Edges : testing::Test {
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = make<Cl10010ConfigDir>("config");
   Ptr<In> in = make<In>("end");

   Edges() {
      end.exportRoot(dir);
      in->consume(hello(), [](In&) {});
   }
   static Bytes hello() {
      auto const out = make<Out>("peer");
      out->control(Hello{.maximumFrame = 4096, .name = "peer"});
      return bytesOf(*out);
   }
   static void mounts(Peer& peer) { peer.out->control(Mount{1, MountMode::readOnly, "config"}); }
};

TEST_F(Edges, AnAcknowledgementNeverGoesBack) {
   Peer peer(end);
   mounts(peer);
   ASSERT_TRUE(peer.tell());
   peer.heard();
   peer.out->control(Acknowledgement{2});
   ASSERT_TRUE(peer.tell()) << end.failure();
   peer.out->control(Acknowledgement{1});
   EXPECT_FALSE(peer.tell()) << "it has said of two records that they are applied";
}

TEST_F(Edges, AsManyWritesAsTheWindowHasMayWaitForTheirAnswer) {
   Peer peer(end);
   for (std::uint32_t n = 0; n <= requestWindow; ++n) {
      EXPECT_TRUE(peer.tell()) << end.failure();
      peer.record(EntityId::assigned(1, 0, 1), 388, 1u);
   }
   EXPECT_FALSE(peer.tell()) << requestWindow + 1 << " writes wait for their answer";
}

TEST_F(Edges, WhatOneConnectionWasOwedIsNotToldOnTheNext) {
   {
      Peer peer(end);
      mounts(peer);
      mounts(peer);
      ASSERT_TRUE(peer.tell());
      end.peerGone("cut"); // nothing of the answers has gone out
   }
   EXPECT_EQ(end.footprint().owedAnswers, 0u);
   Peer again(end);
   ASSERT_TRUE(again.tell());
   EXPECT_EQ(again.heard(), Lines{}) << "this peer has asked for nothing";
}

TEST_F(Edges, WhatIsExportedOrMirroredCannotBeMountedNorWhatHoldsIt) {
   auto const port = dir->phyConfigIs("port");
   auto const refusal = [&](Ptr<Entity> const& root) {
      return thrownBy<NameInUseException>([&] { end.mountIs(root); });
   };
   EXPECT_NE(refusal(port).find("is exported there"), std::string::npos);
   end.exportDel(dir);
   end.exportRoot(port);
   EXPECT_NE(refusal(dir).find("is exported there"), std::string::npos);
   // An entity has one owner, over all links, and what holds a mirror has one already.
   LinkEnd other("other");
   auto const mirror = other.mount<Cl10010ConfigDir>("mirror"), holder = make<Cl10010ConfigDir>("holder");
   EXPECT_EQ(refusal(mirror),
             "/mirror can't be mounted from \"end\": /mirror mirrors \"other\" already, and an entity has one owner");
   other.mountIs(holder->phyConfigIs("port"));
   EXPECT_NE(refusal(holder), "");
}

TEST_F(Edges, TheFirstFrameOfTheNextConnectionIsAHelloToo) {
   in->reset();
   auto const out = make<Out>("peer");
   recordOf(*out, {.entity = Peer::id(1), .attribute = 388, .variable = 1}, 1u);
   EXPECT_THROW(in->consume(bytesOf(*out), [](In&) { ADD_FAILURE() << "a record before the hello"; }),
                ProtocolException);
}

TEST_F(Edges, AnExtensionLeavesRoomForTheBaseOfAWrite) {
   constexpr std::size_t length = 1 + 8 + 24 + 8;
   Bytes frame(4 + length, 0);
   frame[0] = 0x60; // a write with an extension
   frame[3] = length;
   frame[4] = 9; // one byte more than what lies between it and the least that a write takes
   frame[4 + length - 1] = 3;
   std::string const why = thrownBy<ProtocolException>([&] { in->consume(frame, [](In&) {}); });
   EXPECT_NE(why.find("an extension of 9 bytes leaves no room"), std::string::npos) << why;
}

} // namespace
} // namespace Mox::NboAttrLog
