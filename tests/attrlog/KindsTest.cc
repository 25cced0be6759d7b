// Arrays, members of members, and directories of references on their way to a mirror.

#include "Peer.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010StatusDir.h"
#include "entities/Cl10010StatusPtrDir.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

/// A status with an adapter that writes, on a stream that nobody carries.
struct Status : testing::Test {
   Demuxer demuxer{"stream"};
   Ptr<Cl10010Status> port = make<Cl10010Status>("port", nullptr, nullptr);
   Ptr<Entity::MoxNboAttrLogSa> sa;
   Ptr<In> in = make<In>("reader");

   Status() {
      demuxer.opened();
      demuxer.out()->control(Hello{.name = "stream"});
      sa = port->moxNboAttrLogSaIs({StreamAdapter::readOnlyProxy | StreamAdapter::serializing}, 0, demuxer.out(),
                                   nullptr);
      written();
   }
   Lines written() { return linesOf(*in, bytesOf(*demuxer.out())); }
};

TEST_F(Status, AnElementIsSentWithItsValueAlsoWhenItIsDeleted) {
   port->amplitudeIs(2, 1.5F);
   port->amplitudeIs(2, 1.5F);
   port->adcRowOffsetIs(3, 7);
   port->amplitudeDel(0); // the default already
   port->amplitudeDel(2);
   port->lineLaneAlignedIs(1, {true, 2, 0.0});
   auto const histogram = port->ldpcHistogramsIs("h");
   EXPECT_EQ(written(), (Lines{"#1 412: 023fc00000", "#1 419: 0307", "#1 412: 0200000000",
                               "#1 404: 0101000000020000000000000000", "#1 446: 0000000168000000010000000b"}));
   demuxer.drain();
   written();
   histogram->histogramIs(31, 0xffffffffffff);
   port->ldpcHistogramsDel("h");
   EXPECT_EQ(written(), (Lines{"#2 258: 1f0000ffffffffffff", "#1 -446: 0000000168"}));
}

TEST_F(Status, AnArrayIsResentWholeAndOnceMoreForWhatChangesBehindItsPosition) {
   demuxer.out()->markIs(0);
   port->meanSquareErrorIs(1, 1);
   port->meanSquareErrorIs(3, 3);
   port->meanSquareErrorIs(3, 4); // merged
   port->agcGainIs(0, 9);
   port->agcGainIs(0, 0); // as it was: sent all the same
   EXPECT_EQ(written(), Lines{});
   demuxer.out()->markIs(1); // room for one record at a time
   Lines all;
   for (int i = 0; i < 100 && demuxer.owes(); ++i) {
      demuxer.drain();
      for (std::string& line : written()) {
         all.push_back(std::move(line));
         if (all.back() == "#1 413: 010001") {
            port->meanSquareErrorIs(2, 2); // ahead: as it is by then
            port->meanSquareErrorIs(0, 8); // behind: with a second round
         }
      }
   }
   Lines const agc{"#1 414 begin",   "#1 414: 000000", "#1 414: 010000",
                   "#1 414: 020000", "#1 414: 030000", "#1 414 end"};
   Lines expected{"#1 413 begin", "#1 413: 000000", "#1 413: 010001", "#1 413: 020002", "#1 413: 030004", "#1 413 end"};
   expected.insert(expected.end(), agc.begin(), agc.end());
   for (char const* const line :
        {"#1 413 begin", "#1 413: 000008", "#1 413: 010001", "#1 413: 020002", "#1 413: 030004", "#1 413 end"})
      expected.push_back(line);
   EXPECT_EQ(all, expected);
   EXPECT_EQ(sa->flow(), nullptr);
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

TEST(References, ToAnotherTypeAreRefusedAndNamed) {
   LinkEnd end{"end"};
   auto const refs = end.mount<Cl10010StatusPtrDir>("refs");
   Peer peer{end};
   auto const root = Peer::id(1);
   peer.grant(1, root);
   peer.announce({"Hardware::ClariPhy::Cl10010StatusPtrDir"}, "refs", root);
   peer.announce({"Hardware::ClariPhy::Cl10010Config"}, "config", Peer::id(2));
   peer.record(root, 258, Peer::id(2));
   EXPECT_TRUE(peer.tell());
   EXPECT_EQ(end.demuxer().counters().badValues, 1u);
   ASSERT_FALSE(peer.reports.empty());
   EXPECT_NE(peer.reports.back().find("/refs.phyStatus (258): Entity is the wrong type: /config"), std::string::npos)
      << peer.reports.back();
   EXPECT_TRUE(refs->phyStatus().empty());
}

} // namespace
} // namespace Mox::NboAttrLog
