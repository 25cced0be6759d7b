// SPDX-License-Identifier: Apache-2.0
// What a process may rely on, one sentence each: order, slow peers, what `live` means, and peers that take less than is there.

#include "Peer.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDir.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDir.h"
#include "entities/Cl10010StatusReactor.h"
#include "notify/Observe.h"
#include "siblings/Gpo.h"
#include "support/Ends.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using Xcvr::CfpxHostChannel;
using State = LinkEnd::State;
using Reports = std::vector<std::string>;

Name numbered(char const* what, unsigned i) {
   return Name(what + std::to_string(i));
}

/// Three roots on the left, mirrored on the right.
struct Promise : testing::Test {
   LinkEnd left{"left", 1}, right{"right", 2};
   Ptr<Cl10010ConfigDir> ours = make<Cl10010ConfigDir>("config"), mirror;
   Ptr<Cl10010ConfigPtrDir> refs = make<Cl10010ConfigPtrDir>("refs"), refsThere;
   Ptr<Cl10010StatusDir> statuses = make<Cl10010StatusDir>("statuses"), statusesThere;
   Ptr<Cl10010Config> port = ours->phyConfigIs("port");
   Reports reports; ///< of the left
   std::mt19937 random{11};

   Promise() {
      for (Ptr<Entity> const& root : {Ptr<Entity>(refs), Ptr<Entity>(statuses), Ptr<Entity>(ours)})
         left.exportRoot(root);
      refsThere = right.mount<Cl10010ConfigPtrDir>("refs");
      statusesThere = right.mount<Cl10010StatusDir>("statuses");
      mirror = right.mount<Cl10010ConfigDir>("config");
      left.onReport([this](std::string const& text) { reports.push_back(text); });
   }
   unsigned below(unsigned n) { return static_cast<unsigned>(random() % n); }
   void settle() { settleEnds(left, right); }
   void expectSame() {
      expectEqual(*ours, *mirror);
      expectEqual(*refs, *refsThere);
      expectEqual(*statuses, *statusesThere);
      for (char const* const root : {"config", "refs", "statuses"})
         EXPECT_EQ(right.state(root), State::live) << root;
   }
   void cut() {
      left.peerGone("cut");
      right.peerGone("cut");
   }
   /// A stream between the two, on which the right end's hello arrives with other limits than it stated.
   void connect(std::uint32_t maximumFrame = frame::defaultMaximum, std::uint32_t highestSlot = Demuxer::highestSlot) {
      cut();
      left.connected();
      right.connected();
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
      switch (below(12)) {
      case 0:
         ours->phyConfigDel(name);
         break;
      case 1:
         ours->newPhyConfig(name)->refClockIs(below(9));
         if (below(2) != 0)
            ours->phyConfigNotify(name);
         break;
      case 2:
         ours->phyConfigIs(name)->resetUcIs(make<Fru::Gpo>(numbered("gpo ", below(3))));
         break;
      case 3:
         refs->phyConfigIs(ours->phyConfigIs(name));
         break;
      case 4:
         refs->phyConfigDel(name);
         break;
      case 5:
         statuses->phyStatusDel(name);
         break;
      case 6:
         if (!statuses->phyStatus().contains(name))
            statuses->phyStatusIs(name, below(2) != 0 ? ours->phyConfigIs(name) : make<Cl10010Config>("orphan"),
                                  nullptr);
         break;
      case 7:
         ours->phyConfigIs(name)->calibrationIs(CfpxHostChannel(static_cast<int>(below(16))), {below(9), 0, 0});
         break;
      case 8:
         ours->phyConfigIs(name)->calibrationDel(CfpxHostChannel(static_cast<int>(below(16))));
         break;
      case 9:
         if (auto const status = statuses->phyStatus(name))
            status->agcGainIs(Xcvr::CfpxHostLaneId(static_cast<int>(below(4))), static_cast<unsigned short>(below(9)));
         break;
      case 10:
         if (auto const status = statuses->phyStatus(name))
            status->ldpcHistogramsIs(numbered("histogram ", below(3)));
         break;
      default:
         ours->phyConfigIs(name)->refClockIs(below(1000));
      }
   }
};

// Order -----------------------------------------------------------------------------------------------------------------

TEST_F(Promise, OneAttributeNeverGoesBackHoweverThePeerStalls) {
   connect();
   statuses->phyStatusIs("status", port, nullptr);
   settle();
   auto const there = mirror->phyConfig("port");
   auto const status = statuses->phyStatus("status"), statusThere = statusesThere->phyStatus("status");
   std::map<std::string, unsigned> last; // by attribute and key
   unsigned seen = 0;
   auto const advance = [&](std::string const& what, unsigned value) {
      EXPECT_GE(value, last[what]) << what;
      last[what] = value;
      ++seen;
   };
   using C = Cl10010Config::Attr;
   using S = Cl10010Status::Attr;
   std::vector<Watch> watches;
   watches.push_back(on(there, C::refClock, [&](Cl10010Config& e) { advance("refClock", e.refClock()); }));
   watches.push_back(on(there, C::calibration, [&](Cl10010Config& e, CfpxHostChannel key) {
      if (e.calibration().contains(key))
         advance("calibration " + std::to_string(static_cast<int>(key)),
                 static_cast<unsigned>(e.calibration(key).gain));
   }));
   watches.push_back(on(statusThere, S::agcGain, [&](Cl10010Status& e, Xcvr::CfpxHostLaneId key) {
      advance("gain " + std::to_string(key.number()), e.agcGain(key));
   }));
   // A name's later entities have higher clocks, and a new one starts at 0.
   watches.push_back(on(mirror, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& d, Name const& name) {
      if (auto const member = d.phyConfig(name); member && member->model() != "")
         advance("member " + name.str(), static_cast<unsigned>(std::stoul(member->model().str())));
   }));
   for (unsigned i = 1; i < 3000; ++i) {
      left.demuxer().out()->markIs(i % 7 == 0 ? Out::defaultMark : 1 + below(300));
      port->refClockIs(i);
      port->calibrationIs(CfpxHostChannel(static_cast<int>(below(16))), {i, 0, 0});
      status->agcGainIs(Xcvr::CfpxHostLaneId(static_cast<int>(below(4))), static_cast<unsigned short>(i));
      if (i % 11 == 0)
         port->calibrationDel(CfpxHostChannel(static_cast<int>(below(16))));
      if (i % 5 == 0) {
         ours->phyConfigDel(numbered("passing ", i % 3));
         ours->phyConfigIs(numbered("passing ", i % 3))->modelIs(std::to_string(i));
      }
      if (below(4) == 0)
         carry(left, right, below(400)); // may break a frame off
      if (below(9) == 0)
         carry(right, left);
   }
   left.demuxer().out()->markIs(Out::defaultMark);
   settle();
   EXPECT_EQ(last["refClock"], 2999u);
   EXPECT_GT(seen, 1000u);
   expectSame();
}

TEST_F(Promise, BytesThatReactorsHandInStandBehindTheRecordInHandInOrder) {
   connect();
   auto const there = mirror->phyConfig("port");
   std::vector<unsigned> told;
   std::vector<Bytes> later;
   auto const watch = on(there, Cl10010Config::Attr::refClock, [&](Cl10010Config& e) {
      told.push_back(e.refClock());
      for (Bytes& bytes : std::exchange(later, {})) {
         right.bytesArrived(bytes);
         std::fill(bytes.begin(), bytes.end(), std::uint8_t{0xff}); // they are the caller's again
      }
   });
   auto const written = [&] {
      auto const bytes = left.bytesToSend();
      Bytes const copy(bytes.begin(), bytes.end());
      left.bytesSent(copy.size());
      return copy;
   };
   for (unsigned i = 1; i <= 3; ++i)
      port->refClockIs(i);
   Bytes const first = written();
   for (unsigned i = 4; i <= 9; ++i) {
      port->refClockIs(i);
      Bytes const whole = written();
      later.emplace_back(whole.begin(), whole.begin() + 5); // and in pieces
      later.emplace_back(whole.begin() + 5, whole.end());
   }
   right.bytesArrived(first);
   EXPECT_EQ(told, (std::vector<unsigned>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
   settle();
   expectSame();
}

// Slow peers ------------------------------------------------------------------------------------------------------------

enum class Stalled { none, first, second };

/// What a live peer is sent, in a process that has a stalled one too, or none.
std::string sentBeside(Stalled which) {
   struct Script : Promise {
      void TestBody() override {}
      LinkEnd live{"live", 3}, stalled{"stalled", 4};
      std::string sent;
      void open(LinkEnd& end, Peer& peer) {
         for (Ptr<Entity> const& root : {Ptr<Entity>(refs), Ptr<Entity>(statuses), Ptr<Entity>(ours)})
            end.exportRoot(root);
         for (std::uint32_t i = 0; i < 3; ++i)
            peer.out->control(Mount{i, MountMode::readOnly, std::array{"config", "refs", "statuses"}[i]});
         peer.tell();
      }
      void hear(std::size_t most) {
         auto const bytes = live.bytesToSend();
         auto const n = std::min(bytes.size(), most);
         sent += hex(bytes.first(n)) + "\n";
         live.bytesSent(n);
      }
   } s;
   Peer livePeer(s.live), stalledPeer(s.stalled);
   s.live.demuxer().out()->markIs(600);
   s.stalled.demuxer().out()->markIs(200);
   if (which == Stalled::first)
      s.open(s.stalled, stalledPeer);
   s.open(s.live, livePeer);
   if (which == Stalled::second)
      s.open(s.stalled, stalledPeer);
   for (unsigned i = 0; i < 3000; ++i) {
      s.change();
      if (s.below(3) == 0)
         s.hear(s.below(5) == 0 ? s.below(300) : ~std::size_t{0});
      if (which != Stalled::none && i % 4 == 0)
         s.stalled.bytesToSend();
      if (which != Stalled::none && i % 500 == 0) {
         stalledPeer.out->control(Refresh{EntityId::assigned(1, 0, 1), 258, {}});
         stalledPeer.tell();
      }
   }
   for (int i = 0; i < 1000; ++i)
      s.hear(~std::size_t{0});
   EXPECT_FALSE(s.live.demuxer().owes());
   return s.sent;
}

TEST(SlowPeers, ChangeNothingOfWhatAnotherIsSent) {
   auto const alone = sentBeside(Stalled::none);
   EXPECT_GT(alone.size(), 100000u);
   EXPECT_TRUE(sentBeside(Stalled::first) == alone);
   EXPECT_TRUE(sentBeside(Stalled::second) == alone);
}

// Live ------------------------------------------------------------------------------------------------------------------

TEST_F(Promise, LiveIsToldWhenTheMirrorIsWhatTheOwnerHas) {
   unsigned told = 0;
   right.onState([&](Name const& root, State state) {
      if (state != State::live)
         return;
      ++told;
      SCOPED_TRACE(root);
      if (root == "config")
         expectEqual(*ours, *mirror);
      else if (root == "refs")
         expectEqual(*refs, *refsThere);
      else
         expectEqual(*statuses, *statusesThere);
   });
   for (unsigned round = 0; round < 40; ++round) {
      SCOPED_TRACE(round);
      cut();
      for (unsigned i = 0; i < 40; ++i)
         change();
      left.demuxer().out()->markIs(1 + below(400));
      left.connected();
      right.connected();
      told = 0;
      for (int i = 0; i < 100000 && told < 3; ++i) {
         carry(left, right, 1 + below(60));
         carry(right, left);
      }
      EXPECT_EQ(told, 3u);
      settle();
      EXPECT_EQ(told, 3u);
      expectSame();
   }
}

TEST_F(Promise, LiveWaitsForTheMemberThatWaitsForAnother) {
   auto const yours = make<Cl10010ConfigDir>("yours");
   yours->phyConfigIs("theirs");
   right.exportRoot(yours);
   auto const yoursHere = left.mount<Cl10010ConfigDir>("yours");
   connect();
   // The one that waits stands before the other, which is announced behind a pause.
   Name waits("one"), others("two");
   if (bitReversed(waits.hash()) > bitReversed(others.hash()))
      std::swap(waits, others);
   statuses->phyStatusIs(waits, yoursHere->phyConfig("theirs"), nullptr);
   statuses->phyStatusIs(others, port, nullptr);
   settle();
   expectSame();
   for (std::size_t const mark : {Out::defaultMark, std::size_t{64}}) {
      SCOPED_TRACE(mark);
      cut();
      right.exportDel(yours);
      left.demuxer().out()->markIs(mark);
      connect();
      EXPECT_EQ(right.state("statuses"), State::syncing);
      EXPECT_TRUE(statusesThere->phyStatus().contains(waits)) << "nothing is swept before the end";
      statuses->phyStatus(others)->agcGainIs(Xcvr::CfpxHostLaneId(1), 7);
      settle();
      EXPECT_EQ(statusesThere->phyStatus(others)->agcGain(Xcvr::CfpxHostLaneId(1)), 7) << "the rest goes on";
      EXPECT_EQ(right.state("statuses"), State::syncing);
      right.exportRoot(yours);
      settle();
      expectSame();
   }
}

TEST_F(Promise, AnEntityIsSaidToBeToldBehindTheEndsOfItsCollections) {
   Peer peer(left);
   left.demuxer().out()->markIs(64);
   for (std::uint32_t i = 0; i < 3; ++i)
      peer.out->control(Mount{i, MountMode::readOnly, std::array{"config", "refs", "statuses"}[i]});
   for (unsigned i = 0; i < 100; ++i)
      change();
   peer.tell();
   std::set<std::string> open;    // "#slot attribute" of collections begun and not ended
   std::set<std::string> telling; // "#slot "
   unsigned ends = 0;
   for (unsigned i = 0; i < 2000; ++i) {
      if (i < 300)
         change(); // also what has been told already
      auto const bytes = left.bytesToSend();
      Bytes const copy(bytes.begin(), bytes.end());
      left.bytesSent(copy.size());
      for (std::string const& line : linesOf(*peer.in, copy)) {
         auto const entity = line.substr(0, line.find(' ') + 1);
         auto const collection = line.substr(0, line.rfind(' '));
         auto const isOpen = [&](std::string const& c) { return c.starts_with(entity); };
         if (line.ends_with(" 135: 00000002")) {
            telling.insert(entity);
            std::erase_if(open, isOpen);
         } else if (line.ends_with(" 135: 00000001")) {
            EXPECT_EQ(telling.erase(entity), 1u) << line;
            EXPECT_EQ(std::count_if(open.begin(), open.end(), isOpen), 0) << line;
            ++ends;
         } else if (line.ends_with(" begin")) {
            open.insert(collection);
         } else if (line.ends_with(" end") || line.ends_with(" abort")) {
            EXPECT_EQ(open.erase(collection), 1u) << line;
         }
      }
   }
   EXPECT_FALSE(left.demuxer().owes());
   EXPECT_GT(ends, 10u);
}

TEST(Live, IsToldBehindTheLastOfWhatTheOwnerTells) {
   LinkEnd end("end");
   auto const dir = end.mount<Cl10010ConfigDir>("config");
   end.mount<Cl10010ConfigPtrDir>("refs");
   std::vector<std::string> states;
   end.onState([&](Name const& root, State state) { states.push_back(root.str() + " " + textOf(state)); });
   Peer peer(end);
   auto const say = [&](auto&&... values) {
      peer.record(values...);
      EXPECT_TRUE(peer.tell());
   };
   EntityId const root = Peer::id(1), member = Peer::id(2), refs = Peer::id(3), orphan = Peer::id(4);
   states.clear();
   peer.grant(1, root);
   peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", root);
   say(root, 135, 2u);
   peer.out->transactionMarker(root, 258, AttrTransactionType::begin);
   recordOf(*peer.out, {.entity = root, .attribute = 258, .variable = 1, .kind = kind::childLog},
            std::string_view("port"), member);
   peer.out->transactionMarker(root, 258, AttrTransactionType::end);
   say(root, 135, 1u);
   EXPECT_EQ(states, Reports{}) << "its member has not been told";
   say(member, 135, 2u);
   peer.out->transactionMarker(member, 389, AttrTransactionType::begin);
   say(member, 389, 1u, 1u, 1u, 1u);
   peer.announce("Fru::Gpo", "gpo", orphan);
   say(member, 387, orphan);
   peer.out->transactionMarker(member, 389, AttrTransactionType::end);
   say(member, 135, 1u);
   EXPECT_EQ(states, Reports{}) << "what the member refers to has not been told";
   // Another root opens meanwhile, and is told first.
   peer.grant(2, refs);
   peer.announce("Hardware::ClariPhy::Cl10010ConfigPtrDir", "refs", refs);
   say(refs, 135, 2u);
   say(orphan, 135, 2u);
   say(orphan, 135, 1u);
   EXPECT_EQ(states, Reports{}) << "the other root may still name what this one holds";
   say(refs, 135, 1u);
   EXPECT_EQ(states, (Reports{"config live", "refs live"}));
   // A resend of what is live takes nothing back; an abort is no end.
   peer.out->transactionMarker(member, 389, AttrTransactionType::begin);
   peer.out->transactionMarker(member, 389, AttrTransactionType::abort);
   say(member, 388, 1u);
   EXPECT_EQ(dir->phyConfig("port")->calibration().size(), 1u) << "nothing is swept";
}

// Peers that take less --------------------------------------------------------------------------------------------------

TEST_F(Promise, WhatIsTooLongForThePeerIsCountedAndToldOnceAndTheRestGoesOn) {
   Name const longName(std::string(600, 'x'));
   struct Case {
      char const* what;
      std::function<void()> act, undo;
   };
   std::vector<Case> const cases{
      {"a text", [&] { port->modelIs(std::string(600, 'x')); }, [&] { port->modelIs("short"); }},
      {"a member's name", [&] { ours->phyConfigIs(longName); }, [&] { ours->phyConfigDel(longName); }},
      {"an orphan's name", [&] { port->resetUcIs(make<Fru::Gpo>(longName)); },
       [&] { port->resetUcIs(make<Fru::Gpo>("short")); }},
      {"the name of an entry's target", [&] { refs->phyConfigIs(make<Cl10010Config>(longName)); },
       [&] { refs->phyConfigDel(longName); }},
      {"the name of what a member is made with",
       [&] { statuses->phyStatusIs("status", make<Cl10010Config>(longName), nullptr); },
       [&] { statuses->phyStatusDel("status"); }},
   };
   enum When { live, behindABacklog, apart };
   char const* const names[] = {"live", "behind a backlog", "while apart"};
   for (auto const& [what, act, undo] : cases)
      for (int when = live; when <= apart; ++when) {
         SCOPED_TRACE(what);
         SCOPED_TRACE(names[when]);
         connect(512);
         ASSERT_EQ(right.state("config"), State::live);
         reports.clear();
         auto const before = left.demuxer().counters().tooLong;
         if (when == behindABacklog) {
            left.demuxer().out()->markIs(1);
            port->refClockIs(port->refClock() + 1);
         } else if (when == apart) {
            cut();
         }
         act();
         if (when == apart)
            connect(512);
         left.demuxer().out()->markIs(Out::defaultMark);
         for (int i = 0; i < 20; ++i) {
            port->refClockIs(port->refClock() + 1);
            ours->phyConfigIs("other")->refClockIs(port->refClock());
            settle();
            if (testing::Test::HasFailure() && i > 2)
               break; // it never comes to an end
         }
         // One record, and at most the one that needs it.
         auto const times = left.demuxer().counters().tooLong - before;
         EXPECT_TRUE(times == 1 || times == 2) << times;
         EXPECT_EQ(reports.size(), times) << (reports.empty() ? "" : reports.front().substr(0, 300));
         EXPECT_FALSE(left.demuxer().owes());
         EXPECT_TRUE(left.quiet());
         EXPECT_EQ(right.state("config"), State::live);
         EXPECT_EQ(mirror->phyConfig("port")->refClock(), port->refClock());
         EXPECT_EQ(mirror->phyConfig("other")->refClock(), port->refClock());
         undo();
         settle();
         expectSame();
         if (testing::Test::HasFailure())
            break;
      }
}

TEST_F(Promise, WherePeersTakeNoMoreIdentifiersTheRootIsRefusedAndKeepsWhatItHas) {
   left.exportDel(refs);
   left.exportDel(statuses);
   for (unsigned i = 0; i < 10; ++i)
      ours->phyConfigIs(numbered("member ", i))->refClockIs(i + 1);
   connect();
   ASSERT_EQ(right.state("config"), State::live);
   auto const whole = dumpLines(*mirror);
   auto const expectRefused = [&] {
      EXPECT_EQ(right.state("config"), State::refused);
      EXPECT_TRUE(right.isConnected());
      EXPECT_EQ(mirror->phyConfig().size(), 11u);
      EXPECT_EQ(diff(whole, dumpLines(*mirror)).size(), 0u) << "it keeps what it has";
      EXPECT_EQ(reports.size(), 1u) << testing::PrintToString(reports);
      if (!reports.empty()) {
         EXPECT_NE(reports[0].find("identifier"), std::string::npos) << reports[0];
      }
   };
   for (std::uint32_t const highest : {4u, 1u, 11u}) {
      SCOPED_TRACE(highest);
      reports.clear();
      connect(frame::defaultMaximum, highest);
      expectRefused();
      for (unsigned i = 0; i < 10; ++i) { // nothing of it matters any more
         ours->phyConfigIs("one more");
         settle();
         ours->phyConfigDel("one more");
         settle();
      }
      expectRefused();
   }
   // What the peer is told of it, and that another root goes on.
   cut();
   left.exportRoot(refs);
   Peer peer(left, {.incarnation = 7, .highestSlot = 6, .window = 1, .name = "peer"});
   peer.out->control(Mount{1, MountMode::readOnly, "refs"});
   peer.out->control(Mount{2, MountMode::readOnly, "config"});
   peer.tell();
   Lines refused;
   peer.in->reset();
   for (int i = 0; i < 100; ++i) {
      auto const bytes = left.bytesToSend();
      Bytes const copy(bytes.begin(), bytes.end());
      left.bytesSent(copy.size());
      peer.in->consume(copy, [&](In& in) {
         if (in.isControl() && in.controlKind() == ControlKind::mounted)
            if (auto const m = in.control<Mounted>(); m.state == MountState::refused)
               refused.push_back(std::to_string(m.handle) + " reason " + std::to_string(static_cast<int>(m.reason)));
      });
      if (copy.empty())
         break;
      EXPECT_LT(i, 99) << "it never comes to an end";
   }
   EXPECT_EQ(refused, Lines{"2 reason 7"});
   // With limits as they were, all is well again.
   left.exportRoot(statuses);
   connect();
   expectSame();
}

} // namespace
} // namespace Mox::NboAttrLog
