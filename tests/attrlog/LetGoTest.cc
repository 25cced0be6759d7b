// SPDX-License-Identifier: Apache-2.0
// Mirrors that others refer to while they wait for their owner, or become entities of this process.

#include "kestrel/attrlog/LocalLink.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusPtrDir.h"
#include "kestrel/entities/Cl10010StatusReactor.h"
#include "kestrel/notify/Dump.h"
#include "kestrel/notify/Observe.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace Mox {
namespace {

using namespace Hardware::ClariPhy;

Ptr<Cl10010Status> portOf(Cl10010StatusPtrDir const& refs) {
   auto const* const entry = refs.phyStatus().find("port");
   return entry == nullptr ? nullptr : Ptr<Cl10010Status>(entry->value());
}

/// The state of a port, which this process mirrors, and a root of its own that refers to it.
struct LetGo : testing::Test {
   std::optional<LocalLink> both{std::in_place};
   LocalLink& link = *both;
   Ptr<Cl10010StatusDir> const ours = make<Cl10010StatusDir>("status");
   Ptr<Cl10010Status> const port = ours->phyStatusIs("port", nullptr, nullptr);
   Ptr<Cl10010StatusDir> theirs;
   Ptr<Cl10010StatusPtrDir> const refs = make<Cl10010StatusPtrDir>("refs");

   LetGo() {
      port->ldpcHistogramsIs("first");
      link.left().exportRoot(ours);
      theirs = link.right().mount<Cl10010StatusDir>("status");
      link.settle();
      refs->phyStatusIs(theirs->phyStatus("port"));
   }
};

TEST_F(LetGo, MembersBelowAReplacedMirrorAreToldAsThisSides) {
   link.right().exportRoot(refs);
   auto const mirrored = link.left().mount<Cl10010StatusPtrDir>("refs");
   link.settle();
   EXPECT_EQ(portOf(*mirrored), ours->phyStatus("port"));
   theirs->newPhyStatus("port", nullptr, nullptr);
   ours->phyStatusNotify("port");
   link.settle();
   EXPECT_EQ(link.right().demuxer().audit(), "");
   ASSERT_NE(portOf(*mirrored), nullptr);
   EXPECT_NE(portOf(*mirrored), ours->phyStatus("port")) << "what stood there first is another entity now";
   EXPECT_NE(portOf(*mirrored)->ldpcHistograms("first"), nullptr);
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
   EXPECT_TRUE(link.right().quiet());
}

TEST_F(LetGo, WhatAChainLeftOutIsToldOnceNobodyElseOwnsIt) {
   LocalLink on;
   on.left().exportRoot(refs);
   auto const mirrored = on.right().mount<Cl10010StatusPtrDir>("refs");
   theirs->phyStatus("port")->newLdpcHistograms("mine");
   on.settle();
   ASSERT_NE(portOf(*mirrored), nullptr);
   EXPECT_EQ(portOf(*mirrored)->ldpcHistograms("mine"), nullptr) << "not while it is a mirror";
   link.right().unmount("status");
   on.settle();
   EXPECT_NE(portOf(*mirrored)->ldpcHistograms("mine"), nullptr);
   EXPECT_TRUE(on.left().quiet());
}

/// Under a sanitizer: nothing of the end has gone while reactors are told.
TEST_F(LetGo, AnEndIsWholeWhileItTellsWhatItsMirrorsOwe) {
   LinkEnd& end = link.right();
   std::vector<LinkEnd::State> states;
   end.onState([&](Name const&, LinkEnd::State state) { states.push_back(state); });
   auto const mirror = theirs->phyStatus("port");
   EXPECT_THROW(mirror->nextPhyEntityFullNameIs("mine"), ReadOnlyException);
   unsigned told = 0;
   auto const watch = onAny(mirror, [&](Cl10010Status&, AttributeId) {
      ++told;
      EXPECT_EQ(end.state("status"), LinkEnd::State::live);
      end.unmount("status");
      end.mount<Cl10010StatusDir>("another");
   });
   both.reset();
   EXPECT_EQ(told, 1u);
   EXPECT_EQ(states, std::vector<LinkEnd::State>{});
}

TEST_F(LetGo, WakesForWhatIsAwaitedAlone) {
   link.cut();
   link.left().exportDel(ours);
   auto const busy = make<Cl10010StatusDir>("busy");
   link.left().exportRoot(busy);
   link.right().exportRoot(refs);
   auto const mirrored = link.left().mount<Cl10010StatusPtrDir>("refs");
   link.right().mount<Cl10010StatusDir>("busy");
   link.reconnect();
   link.settle();
   auto const& counters = link.right().demuxer().counters();
   ASSERT_EQ(link.right().demuxer().footprint().parked, 1u);
   U64 const before = counters.woken;
   for (int i = 0; i < 10; ++i) {
      busy->phyStatusIs(Name(std::to_string(i)), nullptr, nullptr);                         // announced from there
      refs->phyStatusIs(make<Cl10010Status>("mine" + std::to_string(i), nullptr, nullptr)); // and from here
      link.settle();
   }
   EXPECT_EQ(counters.woken, before);
   link.left().exportRoot(ours);
   link.settle();
   EXPECT_EQ(portOf(*mirrored), port);
   EXPECT_EQ(counters.woken, before + 1);
}

} // namespace
} // namespace Mox
