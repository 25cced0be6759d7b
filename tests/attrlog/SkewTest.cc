// SPDX-License-Identifier: Apache-2.0
// Two sides whose schemas or values are not the same: what one of them can't hold.

#include "Peer.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010StatusDir.h"
#include "gauge/GaugeReactor.h"
#include "notify/Dump.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

/// A directory and a port in it, mirrored from a peer whose schema is a later one.
struct Later : testing::Test {
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = end.mount<Cl10010ConfigDir>("config");
   Ptr<Cl10010StatusDir> statuses = end.mount<Cl10010StatusDir>("status");
   Peer peer{end};
   Demuxer::Counters const& counters = end.demuxer().counters();

   Later() {
      peer.grant(1, Peer::id(1));
      peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", Peer::id(1));
      member(Peer::id(1), 258, "port", Peer::id(2));
      peer.grant(2, Peer::id(3));
      EXPECT_TRUE(peer.tell());
   }
   template <class... Values>
   void member(EntityId directory, std::int32_t attribute, std::string_view name, Values... values) {
      recordOf(*peer.out, {.entity = directory, .attribute = attribute, .variable = 1, .kind = kind::childLog}, name,
               values...);
   }
};

TEST_F(Later, MembersOfACollectionThatIsUnknownHereKeepTheirIdentifiers) {
   struct Case {
      char const* what;
      std::function<void(std::uint32_t slot)> say;
      U64 Demuxer::Counters::*counter;
   };
   std::uint32_t slot = 4;
   for (auto const& [what, say, counter] : std::vector<Case>{
           // 395 is past the level's last attribute, 269 between two levels, 388 a number here.
           {"at a known entity", [&](auto s) { member(Peer::id(2), 395, "fan", Peer::id(s)); },
            &Demuxer::Counters::unknownAttributes},
           {"between the levels, with parameters",
            [&](auto s) { member(Peer::id(2), 269, "fan", Peer::id(2), EntityId{}, Peer::id(s)); },
            &Demuxer::Counters::unknownAttributes},
           {"of what is a number here", [&](auto s) { member(Peer::id(2), 388, "fan", Peer::id(s)); },
            &Demuxer::Counters::unknownAttributes},
           {"of such a member", [&](auto s) { member(Peer::id(4), 258, "blade", Peer::id(s)); },
            &Demuxer::Counters::unknownTypes},
           {"with a parameter that does not fit",
            [&](auto s) { member(Peer::id(3), 258, "status", Peer::id(1), Peer::id(1), Peer::id(s)); },
            &Demuxer::Counters::badValues},
           {"an orphan with a parameter that does not fit",
            [&](auto s) {
               recordOf(*peer.out, {.entity = orphanAnnouncement, .attribute = attr::orphan, .variable = 1}, Section{1},
                        TypeId{"Hardware::ClariPhy::Cl10010Status"}, Section{3}, std::string_view("status"),
                        Peer::id(1), Peer::id(1), Section{4}, Peer::id(s));
            },
            &Demuxer::Counters::badValues},
        }) {
      SCOPED_TRACE(what);
      U64 const before = counters.*counter;
      for (int i = 0; i < 100; ++i)
         say(slot++);
      member(Peer::id(1), 258, what, Peer::id(slot++));
      ASSERT_TRUE(peer.tell()) << end.failure();
      EXPECT_EQ(counters.*counter, before + 100);
      EXPECT_NE(dir->phyConfig(what), nullptr);
   }
   EXPECT_EQ(dir->phyConfig("port")->refClock(), 0u);
   U64 const before = counters.unknownTypes;
   peer.record(Peer::id(4), 258, 1u);
   peer.record(Peer::id(2), 386, Peer::id(4)); // refers to what is not here
   peer.tell();
   EXPECT_EQ(counters.unknownTypes, before + 1);
   EXPECT_EQ(counters.staleRecords + counters.staleReferences, 0u);

   auto const mirrored = end.demuxer().footprint().mirrored;
   for (std::uint32_t s = 4; s < 104; ++s) {
      peer.out->control(Retire{Peer::id(s)});
      member(Peer::id(1), 258, std::to_string(s), Peer::id(s, 2)); // the slot is free for another
   }
   ASSERT_TRUE(peer.tell()) << end.failure();
   EXPECT_EQ(end.demuxer().footprint().mirrored, mirrored);
   EXPECT_NE(dir->phyConfig("103"), nullptr);
   EXPECT_EQ(dir->auditErrors(3), 0u);
}

TEST_F(Later, AnAnnouncementIsCheckedAlsoWhereItsCollectionIsUnknown) {
   for (auto const id : {Peer::id(5000), EntityId::assigned(5, 0, 1), EntityId{}, Peer::id(2, 7)})
      for (auto const owner : {Peer::id(2), Peer::id(3)}) {
         SCOPED_TRACE(id.number());
         SCOPED_TRACE(owner.number());
         Peer fresh(end);
         peer.out = fresh.out;
         fresh.grant(1, Peer::id(1));
         member(Peer::id(1), 258, "port", Peer::id(2));
         member(Peer::id(2), 395, "fan", Peer::id(3));
         ASSERT_TRUE(fresh.tell()) << end.failure();
         member(owner, 395, "blade", id);
         EXPECT_FALSE(fresh.tell());
         EXPECT_NE(end.failure().find("announced slot"), std::string::npos) << end.failure();
      }
   // One that is too short for an identifier is a record like any other that breaks off.
   Peer fresh(end);
   fresh.grant(1, Peer::id(1));
   recordOf(*fresh.out, {.entity = Peer::id(1), .attribute = 395, .variable = 1, .kind = kind::childLog}, 7u);
   EXPECT_TRUE(fresh.tell()) << end.failure();
   EXPECT_EQ(counters.badValues, 1u);
}

TEST(Enumerators, ANumberThatIsNoneIsNeverSentAndTheNextGoodOneIs) {
   using Hardware::Phy::PhyState, Xcvr::CfpxHostChannel;
   using Skew::Gauge, Skew::Mode;
   constexpr auto noMode = static_cast<Mode>(2), worse = static_cast<Mode>(-1);
   constexpr auto noState = static_cast<PhyState>(6);
   constexpr auto noChannel = static_cast<CfpxHostChannel>(16);
   LocalLink link;
   auto const ours = make<Gauge>("gauge");
   auto const set = [&](Mode mode, PhyState state, CfpxHostChannel channel) {
      ours->modeIs(mode);
      ours->stateIs(state);
      ours->readingIs({mode, 7});
      ours->laneIs(2, mode);
      ours->limitIs(mode, 7);
      ours->profileIs("night", mode);
      ours->countIs(channel, 7);
   };
   set(Mode::both, PhyState::linkUp, CfpxHostChannel::channel3);
   ours->laneIs(3, Mode::on);
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Gauge>("gauge");
   Lines reports, refusals;
   link.left().onReport([&](std::string const& text) { reports.push_back(text); });
   link.right().onReport([&](std::string const& text) { refusals.push_back(text); });
   link.settle();
   auto& counters = link.left().demuxer().counters();
   auto& out = *link.left().demuxer().out();
   struct Road {
      char const* name;
      std::function<void()> before, after;
      std::size_t lost; ///< entries that the mirror no longer has
   };
   for (auto const& [name, before, after, lost] : std::vector<Road>{
           {"at once", [] {}, [] {}, 0},
           {"as a backlog", [&] { out.markIs(0); }, [&] { out.markIs(Out::defaultMark); }, 0},
           {"as a resend", [&] { link.cut(); }, [&] { link.reconnect(); }, 1},
        }) {
      SCOPED_TRACE(name);
      link.settle();
      EXPECT_EQ(diff(*ours, *theirs).size(), 0u) << "the good values of the round before";
      auto const good = dumpLines(*theirs);
      U64 const count = counters.unsentEnums;
      reports.clear();
      before();
      set(noMode, noState, noChannel);
      after();
      link.settle();
      EXPECT_EQ(counters.unsentEnums, count + 7);
      ASSERT_EQ(reports.size(), 7u) << testing::PrintToString(reports);
      EXPECT_TRUE(reports[0].starts_with("stream \"left\", /gauge.mode (258) is not sent: 2 is no Skew::Mode"))
         << reports[0];
      EXPECT_EQ(diff(good, dumpLines(*theirs)).size(), lost) << "an entry that no resend names goes";
      EXPECT_EQ(theirs->profile("night"), lost != 0 ? Mode::off : Mode::both);
      EXPECT_EQ(link.right().state("gauge"), LinkEnd::State::live);
      set(worse, static_cast<PhyState>(-1), static_cast<CfpxHostChannel>(-1));
      ours->limitDel(noMode);
      ours->limitDel(worse);
      ours->countDelAll();
      ours->countIs(CfpxHostChannel::channel3, 8);
      set(Mode::on, PhyState::failed, CfpxHostChannel::channel4);
      set(Mode::both, PhyState::linkUp, CfpxHostChannel::channel3);
   }
   link.settle();
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
   // Such a key, written where it must not be: the owner can't be asked for it.
   EXPECT_NE(thrownBy<ReadOnlyException>([&] { theirs->limitIs(noMode, 1); }).find("limit is read-only"),
             std::string::npos);
   EXPECT_NE(thrownBy<ReadOnlyException>([&] { theirs->countIs(noChannel, 1); }).find("count is read-only"),
             std::string::npos);
   link.settle();
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
   EXPECT_EQ(refusals, Lines{}) << "nothing arrived that the mirror can't hold";
}

} // namespace
} // namespace Mox::NboAttrLog
