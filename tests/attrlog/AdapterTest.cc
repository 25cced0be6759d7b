// SPDX-License-Identifier: Apache-2.0
// Two entities and one stream, without a peer: how adapters are found, and the bytes of each kind of change.

#include "Peer.h"
#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/entities/Cl10010ConfigLog.h"
#include "kestrel/entities/Cl10010StatusLog.h"
#include "kestrel/siblings/LedConfig.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <functional>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using Xcvr::CfpxHostChannel;

struct OneAdapter : testing::Test {
   Demuxer demuxer{"stream"};
   Ptr<Out> const out{demuxer.out()};
   Ptr<In> const in = make<In>("reader");
   Ptr<Cl10010Config> port = make<Cl10010Config>("port");
   Ptr<Cl10010Status> status = make<Cl10010Status>("status", nullptr, nullptr);
   Ptr<Entity::MoxNboAttrLogSa> sa;
   Lines reports;

   OneAdapter() {
      demuxer.opened();
      demuxer.reportIs([this](std::string const& text) { reports.push_back(text); });
      out->control(Hello{.name = "stream"});
      Mox_BitSet const flags{StreamAdapter::readOnlyProxy | StreamAdapter::serializing};
      sa = port->moxNboAttrLogSaIs(flags, 0, out, nullptr);
      status->moxNboAttrLogSaIs(flags, 0, out, nullptr);
      written();
   }
   Lines written() { return linesOf(*in, bytesOf(*out)); }
};

TEST_F(OneAdapter, FreesTheBookmarkOfTheFlowsOwnAttributeAlone) {
   auto const flow = make<FlowOut>(attr::none);
   flow->moxFlowOutBookmarkEnq(Mark(393, CfpxHostChannel::channel1));
   for (AttributeId const id : {0U, 388U, 389U, 393U}) {
      EXPECT_TRUE(flow->holdsBookmark(393));
      flow->attrIdIs(id);
      sa->freeResyncState(flow);
   }
   EXPECT_FALSE(flow->holdsBookmark(393));
}

TEST_F(OneAdapter, GoesNoWayThatItsLifeLacks) {
   EntityId const id = sa->entityId();
   EXPECT_EQ(thrownBy<InternalException>([&] { sa->identify(id); }),
             "an adapter of an exported entity that is announced can't become identified");
   EXPECT_EQ(sa->phase(), Phase::announced);
   EXPECT_EQ(sa->entityId(), id);
   sa->standingIs(Standing::root);
   EXPECT_EQ(thrownBy<InternalException>([&] { sa->standingIs(Standing::orphan); }),
             "a root can't become a member or an orphan");
   sa->detach();
   EXPECT_EQ(thrownBy<InternalException>([&] { sa->commitAnnouncement(); }),
             "an adapter of an exported entity that is detached can't become announced");
   EXPECT_EQ(sa->phase(), Phase::detached);
}

TEST_F(OneAdapter, IsFoundBesideAReactorThatSaysItIsOneUntilItIsTakenOff) {
   struct Pretender : Cl10010Config::Notifiee {
      bool isStreamAdapter() const override { return true; }
   };
   auto const pretender = listening<Pretender>(port, false);
   EXPECT_NE(port->moxReactors().first(), pretender.get()) << "adapters stand at the head";
   Demuxer second("second");
   EXPECT_EQ(second.adapterOf(*port), nullptr);
   EXPECT_EQ(port->moxNboAttrLogSaDel(second.out()), nullptr);
   EXPECT_EQ(port->moxNboAttrLogSaIs({StreamAdapter::weak}, 0, out, nullptr), sa) << "one per stream";
   EXPECT_THROW(port->moxNboAttrLogSaIs({}, 0, nullptr, nullptr), RangeException);
   EXPECT_EQ(demuxer.adapterOf(*port), sa.get());
   port->refClockIs(1);
   EXPECT_EQ(port->moxNboAttrLogSaDel(out), sa);
   EXPECT_EQ(demuxer.adapterOf(*port), nullptr);
   port->refClockIs(2);
   EXPECT_EQ(written(), Lines{"#1 388: 00000001"}) << "and nothing of what came behind";
   EXPECT_EQ(port->auditErrors(0), 0u);
}

TEST_F(OneAdapter, WritesOneRecordPerChange) {
   auto const pll = make<Hardware::Dpll::PllStatus>("pll");
   auto const led = [&] { port->ledConfigIs(make<Hardware::Led::LedConfig>("led")); };
   struct Step {
      std::function<void()> change;
      Lines lines;
   };
   for (auto const& [change, lines] : std::vector<Step>{
           {[&] { port->rollOffIs(0.5F); }, {"#1 394: 3f000000"}},
           {[&] { port->modelIs("cl"); }, {"#1 261: 00000002636c"}},
           {[&] {
               port->calibrationIs(CfpxHostChannel(3), {1, 2, 3});
            },
            {"#1 389: 00000003000000010000000200000003"}},
           {[&] { port->calibrationNotify(CfpxHostChannel(4)); }, {"#1 -389: 00000004"}}, // absent is what is said
           {led, {"#1 293: 0000000000000000"}},
           {led, {"#1 293: 0000000000000000"}},
           {[&] { status->amplitudeIs(2, 1.5F); }, {"#2 412: 023fc00000"}},
           {[&] { status->amplitudeDel(2); }, {"#2 412: 0200000000"}}, // an element never goes
           {[&] {
               status->lineLaneAlignedIs(1, {true, 2, 0.5});
            },
            {"#2 404: 0101000000023fe0000000000000"}},
           {[&] {
               out->markIs(0); // no room: an array is owed whole
               status->meanSquareErrorIs(1, 7);
               status->meanSquareErrorIs(1, 8);
               out->markIs(Out::defaultMark);
               demuxer.drain();
            },
            {"#2 413 begin", "#2 413: 000000", "#2 413: 010008", "#2 413: 020000", "#2 413: 030000", "#2 413 end"}},
           {[&] { status->ldpcHistogramsIs("h"); }, {"#2 446: 0000000168000000010000000f"}},
           {[&] {
               demuxer.drain();
               written();
               status->ldpcHistograms("h")->histogramIs(31, 0xffffffffffff);
            },
            {"#3 258: 1f0000ffffffffffff"}},
        }) {
      change();
      EXPECT_EQ(written(), lines);
   }
   EXPECT_EQ(demuxer.counters().withoutLog, 2u);
   ASSERT_EQ(reports.size(), 1u) << "once per type";
   EXPECT_NE(reports[0].find("references to Hardware::Led::LedConfig travel as null"), std::string::npos) << reports[0];

   // A reference: its target is announced before, and told whole behind.
   port->pllStatusIs(pll);
   Lines lines = written();
   lines.front().resize(6);
   EXPECT_EQ(lines, (Lines{"#0 136", "#1 392: 0000000100000013"})) << "generation 1 of slot 4";
   demuxer.drain();
   EXPECT_EQ(written(), (Lines{"#4 135: 00000002", "#4 258: 00", "#4 259: 0000000000000000", "#4 135: 00000001"}));
}

} // namespace
} // namespace Mox::NboAttrLog
