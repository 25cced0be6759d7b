// SPDX-License-Identifier: Apache-2.0
// Rules at their edges: what one more or one less, one connection earlier or one byte too few would break.

#include "Peer.h"
#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010Status.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

struct Edges : testing::Test {
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = make<Cl10010ConfigDir>("config");

   Edges() { end.exportRoot(dir); }
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

TEST_F(Edges, ARefreshOfAKeyThatCannotBeIsCountedAndTheConnectionGoesOn) {
   Peer peer(end);
   mounts(peer);
   ASSERT_TRUE(peer.tell());
   peer.heard();
   peer.out->control(Refresh{EntityId::assigned(1, 0, 1), 258, "a"}); // no name has a single byte
   EXPECT_TRUE(peer.tell()) << end.failure();
   EXPECT_EQ(end.counters().badValues, 1u);
   EXPECT_EQ(peer.reports.size(), 1u);
}

/// A peer that lacks the type makes the entity as the base that it knows.
TEST_F(Edges, AnAnnouncementNamesTheBasesToo) {
   end.exportRoot(make<Cl10010Status>("status", nullptr, nullptr));
   Peer peer(end);
   peer.out->control(Mount{1, MountMode::readOnly, "status"});
   ASSERT_TRUE(peer.tell());
   auto const said = hex(peer.said());
   for (std::string_view const type : {"Hardware::ClariPhy::Cl10010Status", "Hardware::Phy::PhyStatus"})
      EXPECT_NE(said.find(hex({reinterpret_cast<std::uint8_t const*>(type.data()), type.size()})), std::string::npos)
         << type;
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

} // namespace
} // namespace Mox::NboAttrLog
