// SPDX-License-Identifier: Apache-2.0
// What a process may rely on, one sentence each: order, slow peers, what `live` means, and peers that take less than is there.

#include "Directories.h"
#include "kestrel/entities/Cl10010StatusPtrDir.h"
#include "kestrel/siblings/EthPhyIntfStatus.h"

#include <random>

namespace Mox::NboAttrLog {
namespace {

using Xcvr::CfpxHostChannel;

struct Promise : Directories {
   std::mt19937 random{11};

   unsigned below(unsigned n) { return static_cast<unsigned>(random() % n); }
   /// A stream between the two, on which the right end's hello arrives with other limits than it stated.
   void connect(std::uint32_t maximumFrame, std::uint32_t highestSlot = Demuxer::highestSlot) {
      cut();
      reconnect();
      auto const offered = right.bytesToSend();
      Bytes bytes(offered.begin(), offered.end());
      right.bytesSent(bytes.size());
      storeBigEndian(bytes.data() + 26, maximumFrame);
      storeBigEndian(bytes.data() + 30, highestSlot);
      left.bytesArrived(bytes);
      settle();
   }
   /// A bit of everything.
   void change() {
      Name const name = numbered("member ", below(6));
      auto const channel = CfpxHostChannel(static_cast<int>(below(16)));
      std::function<void()> const changes[] = {
         [&] { ours->phyConfigDel(name); },
         [&] { ours->newPhyConfig(name)->refClockIs(below(9)); },
         [&] { ours->phyConfigNotify(name); },
         [&] { ours->phyConfigIs(name)->resetUcIs(make<Fru::Gpo>(numbered("gpo ", below(3)))); },
         [&] { refs->phyConfigIs(ours->phyConfigIs(name)); },
         [&] { refs->phyConfigDel(name); },
         [&] { statuses->phyStatusDel(name); },
         [&] { statuses->phyStatusIs(name, below(2) ? ours->phyConfigIs(name) : make<Cl10010Config>("x"), nullptr); },
         [&] {
            ours->phyConfigIs(name)->calibrationIs(channel, {below(9), 0, 0});
         },
         [&] { ours->phyConfigIs(name)->calibrationDel(channel); },
         [&] { ours->phyConfigIs(name)->refClockIs(below(1000)); },
      };
      if (auto const which = below(std::size(changes)); which != 7 || !statuses->phyStatus().contains(name))
         changes[which]();
      port->refClockIs(port->refClock() + 1); // and one thing that only goes up
   }
};

TEST_F(Promise, LiveIsToldWhenTheMirrorIsWhatTheOwnerHasAndNothingEverGoesBack) {
   unsigned told = 0, clock = 0;
   auto const watch = on(mirror, Cl10010Config::Attr::refClock,
                         [&](Cl10010Config& e) { EXPECT_GT(e.refClock(), std::exchange(clock, e.refClock())); });
   right.onState([&](Name const& root, State state) {
      if (state != State::live)
         return;
      ++told;
      for (std::size_t i = 0; i < roots.size(); ++i)
         if (roots[i]->name() == root)
            expectEqual(*roots[i], *mirrors[i]);
   });
   for (unsigned round = 0; round < 40; ++round) {
      SCOPED_TRACE(round);
      cut();
      for (unsigned i = 0; i < 40; ++i)
         change();
      left.demuxer().out()->markIs(1 + below(400));
      reconnect();
      told = 0;
      for (int i = 0; i < 100000 && told < 3; ++i) {
         carry(left, right, 1 + below(60));
         carry(right, left);
      }
      for (unsigned i = 0; i < 40; ++i) {
         port->refClockIs(port->refClock() + 1);
         carry(left, right, below(400)); // may break a frame off
      }
      settle();
      EXPECT_EQ(told, 3u);
      expectSame();
   }
}

TEST_F(Promise, LiveWaitsForTheMemberThatWaitsForAnother) {
   auto const yours = make<Cl10010ConfigDir>("yours"), yoursHere = left.mount<Cl10010ConfigDir>("yours");
   yours->phyConfigIs("theirs");
   right.exportRoot(yours);
   connect(frame::defaultMaximum);
   // The one that waits stands before the other, which is announced behind a pause.
   Name waits("one"), others("two");
   if (bitReversed(waits.hash()) > bitReversed(others.hash()))
      std::swap(waits, others);
   statuses->phyStatusIs(waits, yoursHere->phyConfig("theirs"), nullptr);
   statuses->phyStatusIs(others, port, nullptr);
   settle();
   for (unsigned const mark : {65000u, 64u}) {
      SCOPED_TRACE(mark);
      expectSame();
      cut();
      right.exportDel(yours);
      left.demuxer().out()->markIs(mark);
      connect(frame::defaultMaximum);
      EXPECT_TRUE(statusesThere->phyStatus().contains(waits)) << "nothing is swept before the end";
      statuses->phyStatus(others)->agcGainIs(Xcvr::CfpxHostLaneId(1), static_cast<unsigned short>(mark));
      settle();
      EXPECT_EQ(statusesThere->phyStatus(others)->agcGain(Xcvr::CfpxHostLaneId(1)), mark) << "the rest goes on";
      EXPECT_EQ(right.state("statuses"), State::syncing);
      right.exportRoot(yours);
      settle();
   }
   expectSame();
   // It may go on while the others are still told: the end comes behind it all the same.
   for (unsigned i = 0; i < 20; ++i)
      statuses->phyStatusIs(numbered("more", i), nullptr, nullptr);
   settle();
   cut();
   right.exportDel(yours);
   Log told;
   auto const members = logged(statusesThere, Cl10010StatusDir::Attr::phyStatus, told);
   reconnect();
   for (int i = 0; i < 100 && left.footprint().stream.parked == 0; ++i) {
      carry(left, right);
      carry(right, left);
   }
   right.exportRoot(yours);
   settle();
   EXPECT_EQ(told, Log{});
   expectSame();
}

TEST_F(Promise, AnEndIsNotQuietWhileThePeerHoldsWhatHasGone) {
   auto gpo = make<Fru::Gpo>("gpo");
   port->resetUcIs(gpo);
   settle();
   port->resetUcIs(nullptr);
   settle();
   ASSERT_TRUE(left.quiet());
   gpo = nullptr;
   EXPECT_FALSE(left.quiet());
   settle();
   expectSame();
}

TEST(Standstill, EndsAlsoWhereTheFirstToGiveUpAMirrorComesUponTheNext) {
   for (bool const isLeftFirst : {false, true}) {
      SCOPED_TRACE(isLeftFirst);
      LinkEnd left{"left", 1}, right{"right", 2};
      LinkEnd &first = isLeftFirst ? left : right, &second = isLeftFirst ? right : left;
      auto const mine = make<Cl10010StatusDir>("mine"), mineThere = second.mount<Cl10010StatusDir>("mine");
      auto const refs = make<Cl10010StatusPtrDir>("refs"), refsThere = second.mount<Cl10010StatusPtrDir>("refs");
      auto const yours = make<Cl10010StatusDir>("yours"), yoursHere = first.mount<Cl10010StatusDir>("yours");
      first.exportRoot(mine);
      first.exportRoot(refs);
      second.exportRoot(yours);
      auto const connect = [&] {
         left.connected();
         right.connected();
         settleEnds(left, right);
      };
      connect();
      mine->phyStatusIs("goes", nullptr, make<Interface::EthPhyIntfStatus>("of mine"));
      yours->phyStatusIs("goes", nullptr, make<Interface::EthPhyIntfStatus>("of yours"));
      settleEnds(left, right);
      refs->phyStatusIs(yoursHere->phyStatus("goes")); // which is made with a mirror itself
      yours->phyStatusIs("stays", nullptr, mineThere->phyStatus("goes")->ethIntfStatus());
      settleEnds(left, right);
      left.peerGone("cut");
      right.peerGone("cut");
      mine->phyStatusDel("goes");
      yours->phyStatusDel("goes");
      connect();
      expectEqual(*mine, *mineThere);
      expectEqual(*refs, *refsThere);
      expectEqual(*yours, *yoursHere);
      EXPECT_EQ(first.state("yours"), State::live);
      EXPECT_EQ(second.state("refs"), State::live);
      EXPECT_NE(left.counters().brokenWaits + right.counters().brokenWaits, 0u);
   }
}

TEST_F(Promise, NoCollectionWaitsForAnEntryThatWaitsNoMore) {
   auto const unexported = left.mount<Cl10010Config>("waits");
   for (bool const isMadeAgain : {false, true}) {
      statuses->phyStatusIs("old", nullptr, nullptr);
      refs->phyConfigIs(make<Cl10010Config>("old"));
      settle();
      expectSame();
      cut();
      statuses->phyStatusDelAll();
      refs->phyConfigDelAll();
      statuses->phyStatusIs("waits", unexported, nullptr);
      refs->phyConfigIs(unexported);
      reconnect();
      settle();
      EXPECT_EQ(right.state("statuses"), State::syncing);
      statuses->phyStatusDel("waits");
      refs->phyConfigDel("waits");
      if (isMadeAgain) {
         statuses->phyStatusIs("waits", nullptr, nullptr);
         refs->phyConfigIs(make<Cl10010Config>("waits"));
      }
      settle();
      EXPECT_EQ(right.state("statuses"), State::live) << isMadeAgain;
      expectSame();
   }
}

TEST_F(Promise, ANameThatThePeerAskedForIsAnsweredAlsoWhereItGoesWhileItWaits) {
   statuses->phyStatusIs("name", left.mount<Cl10010Config>("waits"), nullptr);
   settle();
   EXPECT_THROW(statusesThere->phyStatusIs("name", nullptr, nullptr), ReadOnlyException);
   settle();
   stall();
   statuses->phyStatusNotify("name");
   statuses->phyStatusDel("name");
   resume();
   expectSame();
   EXPECT_EQ(right.footprint().stream.untold, 0u);
}

TEST_F(Promise, WhatAReactorWritesInASweepIsAskedForAlsoWhereTheResendWasTheAnswer) {
   Name const longName(std::string(70000, 'x')); // of which nobody can ask alone
   auto const write = [&](Name const& name, bool isMade) {
      if (isMade)
         EXPECT_THROW(theirs->phyConfigIs(name), ReadOnlyException);
      else
         EXPECT_THROW(theirs->phyConfigDel(name), ReadOnlyException);
   };
   constexpr unsigned names = 10; // of which some are asked for before the collection, and answered with it
   auto const again = on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& dir, Name const& name) {
      for (unsigned i = 0; name == longName && !dir.phyConfig().contains(name) && i < names; ++i)
         write(numbered("again ", i), true);
   });
   write(longName, true);
   for (unsigned i = 0; i < names; ++i) {
      write(numbered("again ", i), true);
      write(numbered("again ", i), false);
   }
   settle();
   expectSame();
}

TEST_F(Promise, WhatIsTooLongForThePeerIsCountedAndToldOnceAndTheRestGoesOn) {
   Name const longName(std::string(600, 'x'));
   struct Case {
      char const* what;
      std::function<void()> act, undo;
   };
   enum When { live, behindABacklog, apart, all };
   for (auto const& [what, act, undo] : std::vector<Case>{
           {"a text", [&] { port->modelIs(longName.str()); }, [&] { port->modelIs("short"); }},
           {"a member's name", [&] { ours->phyConfigIs(longName); }, [&] { ours->phyConfigDel(longName); }},
           {"an orphan's name", [&] { port->resetUcIs(make<Fru::Gpo>(longName)); }, [&] { port->resetUcIs(nullptr); }},
           {"the name of an entry's target", [&] { refs->phyConfigIs(make<Cl10010Config>(longName)); },
            [&] { refs->phyConfigDel(longName); }},
           {"the name of what a member is made with",
            [&] { statuses->phyStatusIs("status", make<Cl10010Config>(longName), nullptr); },
            [&] { statuses->phyStatusDel("status"); }},
        })
      for (int when = live; when < all; ++when) {
         SCOPED_TRACE(std::string(what) + (when == live ? "" : when == apart ? ", while apart" : ", behind a backlog"));
         connect(512);
         reports.clear();
         auto const before = left.demuxer().counters().tooLong;
         if (when == behindABacklog)
            stall();
         else if (when == apart)
            cut();
         act();
         if (when == apart)
            connect(512);
         resume();
         for (int i = 0; i < 20; ++i) {
            port->refClockIs(port->refClock() + 1);
            settle();
         }
         // One record, and at most the one that needs it.
         auto const times = left.demuxer().counters().tooLong - before;
         EXPECT_TRUE(times == 1 || times == 2) << times;
         EXPECT_EQ(reports.size(), times) << testing::PrintToString(reports);
         EXPECT_FALSE(left.demuxer().owes());
         EXPECT_EQ(right.state("config"), State::live);
         EXPECT_EQ(theirs->phyConfig("port")->refClock(), port->refClock());
         undo();
         settle();
         expectSame();
      }
}

TEST_F(Promise, WherePeersTakeNoMoreIdentifiersTheRootIsRefusedAndKeepsWhatItHas) {
   left.exportDel(refs);
   left.exportDel(statuses);
   connect(frame::defaultMaximum, 2);
   EXPECT_EQ(right.state("config"), State::live) << "as many as there are";
   EXPECT_EQ(left.demuxer().counters().withoutIdentifier, 0u);
   for (unsigned i = 0; i < 10; ++i)
      ours->phyConfigIs(numbered("member ", i))->refClockIs(i + 1);
   connect(frame::defaultMaximum);
   for (std::uint32_t const highest : {1u, 4u, 11u}) {
      SCOPED_TRACE(highest);
      reports.clear();
      connect(frame::defaultMaximum, highest);
      ours->phyConfigIs("one more"); // nothing of it matters any more
      settle();
      ours->phyConfigDel("one more");
      settle();
      EXPECT_EQ(right.state("config"), State::refused);
      EXPECT_NE(right.reason("config").find(textOf(Reason::limit)), std::string::npos) << right.reason("config");
      expectEqual(*ours, *theirs); // it keeps what it has
      ASSERT_EQ(reports.size(), 1u) << testing::PrintToString(reports);
      EXPECT_NE(reports[0].find("identifier"), std::string::npos) << reports[0];
   }
   left.exportRoot(refs);
   left.exportRoot(statuses);
   connect(frame::defaultMaximum);
   expectSame();
}

TEST_F(Promise, WhoIsToldOfWhatIsTooLongMayEndTheRootThatIsBeingTold) {
   for (char c = '!'; c <= '~'; ++c)
      ours->phyConfigIs(Name(std::string(600, c)));
   connect(512);
   EXPECT_LT(reports.size(), 70u) << "many, and no more are kept while a drain runs";
   EXPECT_TRUE(reports.back().ends_with(" more of what could not be told")) << reports.back();
   for (bool const cuts : {true, false}) {
      SCOPED_TRACE(cuts);
      int told = 0;
      left.onReport([&](std::string const&) {
         if (++told == 1)
            cuts ? left.peerGone("enough") : left.exportDel(ours);
      });
      connect(512);
      EXPECT_GE(told, 1);
      left.onReport(nullptr);
   }
}

} // namespace
} // namespace Mox::NboAttrLog
