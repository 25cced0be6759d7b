// SPDX-License-Identifier: Apache-2.0
// Adapters that the application makes, changes and takes off by itself.

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "notify/Dump.h"

#include <gtest/gtest.h>

namespace Mox {
namespace {

using namespace Hardware::ClariPhy;

struct ByHand : testing::Test {
   LocalLink link;
   Ptr<Cl10010ConfigDir> const ours = make<Cl10010ConfigDir>("config");
   Ptr<Cl10010Config> const port = ours->phyConfigIs("port");
   Ptr<Cl10010ConfigDir> theirs;

   Ptr<NboAttrLog::Out> stream(LinkEnd& end) { return end.demuxer().out(); }
   void mirrored() {
      link.left().exportRoot(ours);
      theirs = link.right().mount<Cl10010ConfigDir>("config");
      link.settle();
   }
   void expectMirrored() {
      link.settle();
      EXPECT_EQ(link.right().state("config"), LinkEnd::State::live);
      EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
      EXPECT_EQ(link.left().demuxer().audit() + link.right().demuxer().audit(), "");
   }
};

TEST_F(ByHand, AnAdapterMadeInAdvanceIsToldWholeWithItsAnnouncement) {
   for (Entity* const entity : {static_cast<Entity*>(port.get()), static_cast<Entity*>(ours.get())})
      entity->moxNboAttrLogSaIs({}, 0, stream(link.left()), nullptr);
   port->refClockIs(5);
   mirrored();
   expectMirrored();
   // Taken off and made again, it is mute until somebody announces the member.
   port->moxNboAttrLogSaDel(stream(link.left()));
   port->moxNboAttrLogSaIs({}, 0, stream(link.left()), nullptr);
   port->refClockIs(6);
   ours->phyConfigNotify("port");
   expectMirrored();
}

TEST_F(ByHand, WhoseAnEntityIsNobodyChangesByFlags) {
   mirrored();
   auto const mirror = theirs->phyConfig("port");
   mirror->moxNboAttrLogSaIs({}, 0, stream(link.right()), nullptr);
   EXPECT_THROW(mirror->refClockIs(99), ReadOnlyException);
   expectMirrored();
}

TEST_F(ByHand, AnAdapterThatWasTakenOffHasNoStream) {
   mirrored();
   auto const sa = port->moxNboAttrLogSaDel(stream(link.left()));
   EXPECT_EQ(sa->handleAttrDeserialization(388, {}, 0, nullptr), 0);
   for (auto const type : {AttrTransactionType::begin, AttrTransactionType::end})
      EXPECT_EQ(sa->handleAttrTransaction(389, type, 0), 0);
   sa->sendTransactionMarker(389, AttrTransactionType::end, 0);
   EXPECT_EQ(sa->handleAttrDeserialization(135, {}, 0, nullptr), 0);
   EXPECT_THROW(sa->doSerializeOrphan(), InternalException);
}

} // namespace
} // namespace Mox
