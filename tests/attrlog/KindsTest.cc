// Arrays, members of members, and directories of references on their way to a mirror.

#include "Peer.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusPtrDirReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "notify/Dump.h"
#include "notify/Observe.h"

#include <gtest/gtest.h>

#include <algorithm>

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

/// Statuses and a selection of configurations on the left, mirrored on the right, which has configurations of its own.
struct Both : testing::Test {
   LocalLink link;
   Ptr<Cl10010StatusDir> states = make<Cl10010StatusDir>("states");
   Ptr<Cl10010ConfigDir> configs = make<Cl10010ConfigDir>("configs"); // exported by the right
   Ptr<Cl10010ConfigPtrDir> chosen = make<Cl10010ConfigPtrDir>("chosen");
   Ptr<Cl10010StatusDir> theirStates;
   Ptr<Cl10010ConfigDir> ourConfigs;
   Ptr<Cl10010ConfigPtrDir> theirChosen;
   Ptr<Cl10010Status> port, mirror;
   Lines log;
   std::vector<Watch> watches;

   Both() {
      link.left().exportRoot(states);
      link.left().exportRoot(chosen);
      link.right().exportRoot(configs);
      theirStates = link.right().mount<Cl10010StatusDir>("states");
      theirChosen = link.right().mount<Cl10010ConfigPtrDir>("chosen");
      ourConfigs = link.left().mount<Cl10010ConfigDir>("configs");
      for (char const* const name : {"a", "b", "c"})
         configs->phyConfigIs(name);
      port = states->phyStatusIs("port", nullptr, nullptr);
      port->rxSkewIs(2, 5);
      port->ldpcHistogramsIs("h")->histogramIs(7, 70);
      settle();
      mirror = theirStates->phyStatus("port");
      watches.push_back(onAny(mirror, [this](Cl10010Status& s, AttributeId id) { told(s, id); }));
      watches.push_back(onAny(theirChosen, [this](Cl10010ConfigPtrDir& d, AttributeId id) { told(d, id); }));
   }
   void told(Entity& e, AttributeId id) { log.push_back(std::string(std::string_view(e.attributeString(id)))); }
   Lines settle() {
      link.settle();
      EXPECT_TRUE(link.left().quiet());
      EXPECT_TRUE(link.right().quiet());
      auto differences = diff(*states, *theirStates);
      for (auto const& d : diff(*chosen, *theirChosen))
         differences.push_back(d);
      for (auto const& d : differences)
         ADD_FAILURE() << d.path << ": " << d.left << " | " << d.right;
      EXPECT_EQ(theirStates->auditErrors(4) + theirChosen->auditErrors(4), 0u);
      return std::exchange(log, {});
   }
   void refresh(Lines const& expected, std::function<void()> const& change) {
      link.cut();
      change();
      link.reconnect();
      Lines told = settle();
      std::sort(told.begin(), told.end());
      EXPECT_EQ(told, expected);
   }
};

TEST_F(Both, HistogramsAreMirroredInsideTheMirrorOfTheirStatus) {
   auto const h = mirror->ldpcHistograms("h");
   ASSERT_NE(h, nullptr);
   EXPECT_EQ(h->histogram(7), 70u);
   port->ldpcHistograms("h")->histogramDel(7);
   port->ldpcHistogramsIs("k")->histogramIs(0, 1);
   EXPECT_EQ(settle(), Lines{"ldpcHistograms"});
   EXPECT_EQ(mirror->ldpcHistograms("h"), h);

   // Another in its place, told when it is announced: another entity there too.
   port->newLdpcHistograms("h")->histogramIs(1, 11);
   port->ldpcHistogramsNotify("h");
   settle();
   EXPECT_NE(mirror->ldpcHistograms("h"), h);
   EXPECT_EQ(h->parent(), nullptr);

   auto const again = mirror->ldpcHistograms("h");
   refresh({"ldpcHistograms", "ldpcHistograms", "rxSkew"}, [&] {
      port->ldpcHistogramsDel("k");
      port->ldpcHistogramsIs("l");
      port->ldpcHistograms("h")->histogramIs(2, 22);
      port->rxSkewIs(0, 1);
      port->amplitudeNotify(3);
   });
   EXPECT_EQ(mirror->ldpcHistograms("h"), again) << "bound again in place";

   // With its status every histogram goes.
   states->phyStatusDel("port");
   port = nullptr;
   settle();
   EXPECT_TRUE(mirror->ldpcHistograms().empty() || mirror->parent() == nullptr);
}

TEST_F(Both, AReferenceResolvesToTheReadersOwnEntity) {
   chosen->phyConfigIs(ourConfigs->phyConfig("a"));
   chosen->phyConfigIs(ourConfigs->phyConfig("b"));
   auto const loose = make<Cl10010Config>("loose"); // belongs to no directory
   chosen->phyConfigIs(loose);
   EXPECT_EQ(settle(), (Lines(3, "phyConfig")));
   auto const target = [&](char const* name) {
      auto const* const entry = theirChosen->phyConfig().find(name);
      return entry == nullptr ? Ptr<Cl10010Config>() : entry->value();
   };
   EXPECT_EQ(target("a"), configs->phyConfig("a"));
   EXPECT_EQ(target("b"), configs->phyConfig("b"));
   ASSERT_NE(target("loose"), nullptr);
   loose->refClockIs(3);
   EXPECT_EQ(settle(), Lines{});
   EXPECT_EQ(target("loose")->refClock(), 3u);

   // Equal entries of a resend tell nobody and are not swept; what went meanwhile is.
   refresh({"phyConfig", "phyConfig"}, [&] {
      chosen->phyConfigDel("b");
      chosen->phyConfigIs(ourConfigs->phyConfig("c"));
   });
   EXPECT_EQ(target("a"), configs->phyConfig("a"));
   EXPECT_EQ(target("b"), nullptr);

   // Another entity of the same name takes its place.
   auto const other = make<Cl10010Config>("loose");
   other->refClockIs(4);
   chosen->phyConfigIs(other);
   EXPECT_EQ(settle(), Lines{"phyConfig"});
   EXPECT_EQ(target("loose")->refClock(), 4u);

   // A mirror can't be written.
   EXPECT_THROW(theirChosen->phyConfigDel("a"), ReadOnlyException);
   settle();
   EXPECT_EQ(target("a"), configs->phyConfig("a"));
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
