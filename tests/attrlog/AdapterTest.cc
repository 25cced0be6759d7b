// SPDX-License-Identifier: Apache-2.0
// One entity and one stream, without a peer: what is marked, drained and written.

#include "Peer.h"
#include "attrlog/Demuxer.h"
#include "entities/Cl10010ConfigLog.h"
#include "entities/Cl10010StatusLog.h"
#include "siblings/LedConfig.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using Xcvr::CfpxHostChannel;

/// An entity with an adapter that writes, on a stream that nobody carries.
template <class X> struct Written {
   Demuxer demuxer{"stream"};
   Ptr<X> port;
   Ptr<Entity::MoxNboAttrLogSa> sa;
   Ptr<In> in = make<In>("reader");
   Lines reports;

   template <class... Parameters> explicit Written(Parameters... parameters) : port(make<X>("port", parameters...)) {
      demuxer.opened();
      demuxer.reportIs([this](std::string const& text) { reports.push_back(text); });
      demuxer.out()->control(Hello{.name = "stream"});
      sa = port->moxNboAttrLogSaIs({StreamAdapter::readOnlyProxy | StreamAdapter::serializing}, 0, demuxer.out(),
                                   nullptr);
      written();
   }
   Lines written() { return linesOf(*in, bytesOf(*demuxer.out())); }
};

struct OneAdapter : testing::Test, Written<Cl10010Config> {};

TEST_F(OneAdapter, IsFoundUpdatedAndTakenOff) {
   EXPECT_THROW(port->moxNboAttrLogSaIs({}, 0, nullptr, nullptr), RangeException);
   Ptr<Out const> const out(demuxer.out());
   EXPECT_EQ(port->moxNboAttrLogSaIs({StreamAdapter::weak}, 0, demuxer.out(), nullptr), sa);
   EXPECT_EQ(port->moxNboAttrLogSa(out), sa);
   EXPECT_EQ(port->moxNboAttrLogSa(Ptr<Out const>()), sa) << "any live stream";
   Demuxer second("second");
   EXPECT_EQ(port->moxNboAttrLogSa(Ptr<Out const>(second.out())), nullptr);
   EXPECT_EQ(port->moxNboAttrLogSaDel(second.out()), nullptr);

   port->refClockIs(1);
   EXPECT_EQ(sa->handleAttrFlowOut(0), attr::none) << "nothing is owed";
   EXPECT_EQ(port->moxNboAttrLogSaDel(demuxer.out()), sa);
   EXPECT_EQ(port->moxNboAttrLogSa(out), nullptr);
   EXPECT_FALSE(port->moxHasReactors());
   port->refClockIs(2);
   EXPECT_EQ(written(), Lines{"#1 388: 00000001"}) << "and nothing of what came behind";
}

TEST_F(OneAdapter, IsFoundBesideAReactorThatSaysItIsOne) {
   struct Pretender : Cl10010Config::Notifiee {
      bool isStreamAdapter() const override { return true; }
   };
   auto const pretender = make<Pretender>();
   pretender->notifierIs(port);
   pretender->isRegisteredNotifieeIs(true);
   EXPECT_EQ(demuxer.adapterOf(*port), sa.get());
   EXPECT_NE(port->moxReactors().first(), pretender.get()) << "adapters stand at the head";
   Demuxer second("second");
   EXPECT_EQ(second.adapterOf(*port), nullptr);
   EXPECT_EQ(port->moxNboAttrLogSaDel(demuxer.out()), sa);
   EXPECT_EQ(demuxer.adapterOf(*port), nullptr);
   EXPECT_EQ(port->auditErrors(0), 0u);
}

TEST_F(OneAdapter, WritesOneRecordPerChange) {
   Written<Cl10010Status> other(nullptr, nullptr);
   auto const& status = other.port;
   port->refClockIs(0x01020304);
   EXPECT_EQ(written(), Lines{"#1 388: 01020304"});

   auto const pll = make<Hardware::Dpll::PllStatus>("pll");
   struct Step {
      std::function<void()> change;
      Lines lines;
   };
   for (auto const& [change, lines] : std::vector<Step>{
           {[&] { port->rollOffIs(0.5F); }, {"#1 394: 3f000000"}},
           {[&] { port->modelIs("cl"); }, {"#1 261: 00000002636c"}},
           {[&] { port->configReadyIs(true); }, {"#1 303: 01"}},
           {[&] { port->diagsModeIs(Hardware::Phy::DiagsMode::both); }, {"#1 294: 00000003"}},
           {[&] { port->overrideEthIntfConfigIs(5); }, {"#1 297: 00000005"}},
           {[&] {
               port->calibrationIs(CfpxHostChannel::channel3, {1, 2, 3});
            },
            {"#1 389: 00000003000000010000000200000003"}},
           {[&] { port->calibrationNotify(CfpxHostChannel::channel4); },
            {"#1 -389: 00000004"}}, // absent is what is said
           {[&] { port->ledConfigIs(make<Hardware::Led::LedConfig>("led")); }, {"#1 293: 0000000000000000"}},
           {[&] { port->ledConfigIs(make<Hardware::Led::LedConfig>("led")); }, {"#1 293: 0000000000000000"}},
           {[&] { status->amplitudeIs(2, 1.5F); }, {"#1 412: 023fc00000"}},
           {[&] { status->amplitudeDel(2); }, {"#1 412: 0200000000"}}, // an element never goes
           {[&] {
               status->lineLaneAlignedIs(1, {true, 2, 0.0});
            },
            {"#1 404: 0101000000020000000000000000"}},
           {[&] {
               other.demuxer.out()->markIs(0); // no room: an array is owed whole
               status->meanSquareErrorIs(1, 7);
               status->meanSquareErrorIs(1, 8);
               other.demuxer.out()->markIs(Out::defaultMark);
               other.demuxer.drain();
            },
            {"#1 413 begin", "#1 413: 000000", "#1 413: 010008", "#1 413: 020000", "#1 413: 030000", "#1 413 end"}},
           {[&] { status->ldpcHistogramsIs("h"); }, {"#1 446: 0000000168000000010000000b"}},
           {[&] {
               other.demuxer.drain();
               other.written();
               status->ldpcHistograms("h")->histogramIs(31, 0xffffffffffff);
            },
            {"#2 258: 1f0000ffffffffffff"}},
        }) {
      change();
      Lines all = written(), more = other.written();
      all.insert(all.end(), more.begin(), more.end());
      EXPECT_EQ(all, lines);
   }
   EXPECT_EQ(demuxer.counters().withoutLog, 2u);
   ASSERT_EQ(reports.size(), 1u) << "once per type";
   EXPECT_NE(reports[0].find("stream \"stream\": references to Hardware::Led::LedConfig travel as null"),
             std::string::npos)
      << reports[0];

   // A reference: its target is announced before, and told whole behind.
   port->pllStatusIs(pll);
   Lines const lines = written();
   ASSERT_EQ(lines.size(), 2u);
   EXPECT_EQ(lines[0].substr(0, 7), "#0 136:");
   EXPECT_EQ(lines[1], "#1 392: 000000010000000b") << "generation 1 of slot 2";
   demuxer.drain();
   EXPECT_EQ(written(), (Lines{"#2 135: 00000002", "#2 258: 00", "#2 259: 0000000000000000", "#2 135: 00000001"}));
   port->pllStatusIs(nullptr);
   EXPECT_EQ(written(), Lines{"#1 392: 0000000000000000"});
}

TEST_F(OneAdapter, ARecordGivenToItIsAnsweredWithTheLocalValue) {
   port->refClockIs(5);
   written();
   auto const feed = make<Out>("given");
   feed->control(Hello{.name = "given"});
   recordOf(*feed, {.entity = sa->entityId(), .attribute = 388, .variable = 1}, 77u);
   recordOf(*feed, {.entity = sa->entityId(), .attribute = -389, .variable = 1}, 1);
   recordOf(*feed, {.entity = sa->entityId(), .attribute = 511, .variable = 1}, 1u); // the level's last
   std::vector<int> known;
   auto const given = make<In>("given");
   given->consume(bytesOf(*feed), [&](In& frame) {
      if (!frame.isControl())
         known.push_back(sa->handleAttrDeserialization(frame.header().attribute, {}, 0, given));
   });
   EXPECT_EQ(known, (std::vector<int>{1, 1, 0}));
   EXPECT_EQ(written(), (Lines{"#1 388: 00000005", "#1 -389: 00000001"}));
   EXPECT_EQ(port->refClock(), 5u);
   // The peer itself may not write here.
   EXPECT_THROW(sa->handleAttrDeserialization(388, {}, 0, nullptr), InternalException);
}

} // namespace
} // namespace Mox::NboAttrLog
