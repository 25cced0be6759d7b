// SPDX-License-Identifier: Apache-2.0
// Adapters that the application makes, changes and takes off by itself.

#include "Directories.h"

namespace Mox::NboAttrLog {
namespace {

using ByHand = Directories;

TEST_F(ByHand, AnAdapterMadeInAdvanceIsToldWholeWithItsAnnouncement) {
   auto const root = make<Cl10010ConfigDir>("root");
   auto const member = root->phyConfigIs("port");
   auto const& out = left.demuxer().out();
   for (Entity* const entity : {static_cast<Entity*>(member.get()), static_cast<Entity*>(root.get())})
      entity->moxNboAttrLogSaIs({}, 0, out, nullptr);
   member->refClockIs(5);
   left.exportRoot(root);
   auto const there = right.mount<Cl10010ConfigDir>("root");
   settle();
   expectEqual(*root, *there);
   EXPECT_EQ(right.state("root"), State::live);
   // Taken off and made again, it is mute until somebody announces the member.
   member->moxNboAttrLogSaDel(out);
   member->moxNboAttrLogSaIs({}, 0, out, nullptr);
   member->refClockIs(6);
   root->phyConfigNotify("port");
   settle();
   expectEqual(*root, *there);
}

TEST_F(ByHand, WhoseAnEntityIsNobodyChangesByFlags) {
   mirror->moxNboAttrLogSaIs({}, 0, right.demuxer().out(), nullptr);
   EXPECT_THROW(mirror->refClockIs(99), ReadOnlyException);
   settle();
   expectSame();
}

TEST_F(ByHand, AnAdapterThatWasTakenOffHasNoStream) {
   auto const sa = port->moxNboAttrLogSaDel(left.demuxer().out());
   EXPECT_EQ(sa->handleAttrDeserialization(388, {}, 0, nullptr), 0);
   for (auto const type : {AttrTransactionType::begin, AttrTransactionType::end})
      EXPECT_EQ(sa->handleAttrTransaction(389, type, 0), 0);
   sa->sendTransactionMarker(389, AttrTransactionType::end, 0);
   EXPECT_EQ(sa->handleAttrDeserialization(135, {}, 0, nullptr), 0);
   EXPECT_THROW(sa->doSerializeOrphan(), InternalException);
}

} // namespace
} // namespace Mox::NboAttrLog
