// SPDX-License-Identifier: Apache-2.0
// What one end and its peer say about roots and about the stream itself.

#include "Peer.h"
#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDir.h"
#include "notify/Observe.h"
#include "siblings/LedConfig.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using State = LinkEnd::State;

/// Control frames in words, with all that their reader acts on; records by number.
struct Heard {
   Lines lines;
   std::size_t records = 0;
   Ptr<In> const in = make<In>("end");

   /// Takes what `end` has to say, as far as it says it at once.
   void from(LinkEnd& end) {
      auto const offered = end.bytesToSend();
      Bytes const bytes(offered.begin(), offered.end());
      end.bytesSent(bytes.size());
      in->consume(bytes, [this](In& frame) {
         if (!frame.isControl())
            lines.push_back("record " + std::to_string(++records));
         else
            frame.dispatchControl([this](auto const& c) { lines.push_back(text(c)); });
      });
   }
   static std::string text(Refused const& r) { return "refused " + std::to_string(r.number) + ", " + textOf(r.reason); }
   static std::string text(Acknowledgement const& a) { return "acknowledged " + std::to_string(a.count); }
   static std::string text(Mount const& m) { return "mount " + std::to_string(m.handle) + " " + std::string(m.name); }
   static std::string text(Unmount const& m) { return "unmount " + std::to_string(m.handle); }
   static std::string text(Mounted const& m) {
      static constexpr char const* states[] = {"refused", "waiting", "open", "gone"};
      return "mounted " + std::to_string(m.handle) + " " + states[static_cast<int>(m.state)] +
             (m.reason == Reason::none ? "" : ", " + textOf(m.reason));
   }
   static std::string text(auto const& c) { return std::remove_cvref_t<decltype(c)>::title; }
   std::size_t count(std::string const& line) const {
      return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
   }
};

void ask(Peer& peer, std::uint32_t handle, std::string_view name) {
   peer.out->control(Mount{handle, MountMode::readOnly, name});
}

TEST(Answers, ARootIsGrantedOnceAndItsNewestStandIsAllThatAStalledPeerIsOwed) {
   LinkEnd end("end");
   auto const root = make<Cl10010ConfigDir>("x");
   Peer peer(end);
   Heard heard;
   ask(peer, 1, "x");
   ask(peer, 2, "x");
   ask(peer, 3, std::string(LinkEnd::longestName + 1, 'y'));
   ASSERT_TRUE(peer.tell());
   heard.from(end);
   EXPECT_EQ(heard.lines, (Lines{"hello", "mounted 1 waiting, not exported there",
                                 "mounted 2 refused, a limit is reached", "mounted 3 refused, a limit is reached"}));
   end.exportRoot(root);
   root->phyConfigIs("port");
   heard.from(end);
   EXPECT_EQ(heard.count("mounted 1 open"), 1u);

   // The buffer is full of something else from here on, and the peer reads nothing.
   end.demuxer().out()->markIs(0);
   auto const before = end.demuxer().out()->pendingBytes();
   for (int i = 0; i < 10'000; ++i) {
      end.exportDel(root);
      end.bytesToSend();
      EXPECT_EQ(end.auditErrors(), 0u);
      end.exportRoot(root);
      end.bytesToSend();
   }
   EXPECT_LT(end.demuxer().out()->pendingBytes(), before + 1000);
   EXPECT_EQ(end.footprint().owedAnswers, 1u);
   EXPECT_FALSE(end.quiet());
   end.demuxer().out()->markIs(Out::defaultMark);
   heard.lines.clear();
   heard.from(end);
   std::erase_if(heard.lines, [](std::string const& line) { return !line.starts_with("mounted"); });
   EXPECT_EQ(heard.lines, (Lines{"mounted 1 gone, gone", "mounted 1 open"}));
   EXPECT_EQ(end.footprint().owedAnswers, 0u);
}

/// What a peer may ask for, as fast as it likes, and what it is told when it has too much without an answer.
TEST(Answers, APeerThatAsksAboveItsWindowEndsAndOneThatReadsIsAnswered) {
   struct Case {
      std::function<void(Peer&, unsigned)> ask;
      char const* text;
      char const* answer; ///< to the last
   };
   auto const root = make<Cl10010ConfigDir>("x");
   for (auto const& [say, text, answer] : std::vector<Case>{
           {[](Peer& p, unsigned i) { ask(p, i, "root-" + std::to_string(i)); }, "mounts without an answer",
            "mounted 5000 refused, a limit is reached"},
           {[](Peer& p, unsigned) { p.record(EntityId::assigned(1, 0, 1), 388, 1u); }, "writes without an answer",
            "refused 5000, read-only"},
        }) {
      SCOPED_TRACE(text);
      for (bool const reads : {true, false}) {
         LinkEnd end("end");
         end.exportRoot(root);
         Peer peer(end);
         Heard heard;
         unsigned asked = 0;
         while (++asked <= (reads ? 5000 : 10'000)) {
            say(peer, asked);
            if (asked % 100 == 0 && !peer.tell())
               break;
            if (reads && asked % 100 == 0)
               heard.from(end);
            else
               end.bytesToSend();
            LinkEnd::Footprint const f = end.footprint();
            EXPECT_LE(f.owedAnswers + f.owedRefusals, requestWindow);
            EXPECT_LE(f.requests, LinkEnd::mostRequests);
            EXPECT_LE(f.controlBytes, Out::defaultMark + 32 * requestWindow);
            if (asked % 100 == 0) {
               EXPECT_EQ(end.auditErrors(), 0u);
            }
         }
         EXPECT_EQ(end.isConnected(), reads) << end.failure();
         if (reads) {
            EXPECT_EQ(heard.count(answer), 1u);
         } else {
            EXPECT_NE(end.failure().find(text), std::string::npos) << end.failure();
            EXPECT_LT(asked, 10'000u);
         }
      }
   }
}

TEST(Answers, ARefusalNamesTheRecordAndGoesOutBeforeItIsAcknowledged) {
   LinkEnd end("end");
   auto const dir = end.mount<Cl10010ConfigDir>("config");
   Peer peer(end);
   Heard heard;
   peer.grant(1, Peer::id(1));
   peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", Peer::id(1));
   peer.record(EntityId::assigned(3, 0, 1), 388, 1u);
   peer.record(Peer::id(1), 135, 2u);
   peer.record(EntityId::assigned(3, 0, 1), 388, 1u);
   peer.record(Peer::id(1), 135, 1u);
   ASSERT_TRUE(peer.tell());
   heard.from(end);
   EXPECT_EQ(heard.lines,
             (Lines{"hello", "mount 1 config", "refused 2, read-only", "refused 4, read-only", "acknowledged 5"}));
   peer.out->control(Refused{7, Reason::badValue, "no"});
   peer.reports.clear();
   ASSERT_TRUE(peer.tell());
   ASSERT_EQ(peer.reports.size(), 1u);
   EXPECT_NE(peer.reports[0].find("the peer refused record 7: bad value, \"no\""), std::string::npos)
      << peer.reports[0];
   peer.out->control(Refused{0, Reason::none, "not you"});
   EXPECT_FALSE(peer.tell());
   EXPECT_EQ(end.failure(), "refused by the peer: \"not you\"");
   EXPECT_EQ(end.reason("config"), end.failure()) << "and why it is stale";
}

TEST(Answers, APeerWithoutAnIdentifierForARootIsToldSoAndStays) {
   LinkEnd end("end");
   auto const root = make<Cl10010ConfigDir>("x");
   end.exportRoot(root);
   Peer peer(end, {.incarnation = 7, .highestSlot = 0, .name = "peer"});
   Heard heard;
   heard.from(end);
   EXPECT_FALSE(end.quiet()) << "the peer has said nothing yet";
   ask(peer, 1, "x");
   ASSERT_TRUE(peer.tell());
   heard.from(end);
   EXPECT_EQ(heard.lines, (Lines{"hello", "mounted 1 refused, a limit is reached"}));
   EXPECT_EQ(peer.reports.size(), 1u);
   EXPECT_EQ(end.auditErrors(), 0u);
}

TEST(Requests, AreMadeAsFarAsThePeersWindowGoesAndMergeWhileItStalls) {
   LinkEnd end("end");
   for (int i = 0; i < 200; ++i)
      end.mount<Cl10010ConfigDir>(Name("root-" + std::to_string(i)));
   Peer peer(end);
   Heard heard;
   ASSERT_TRUE(peer.tell());
   heard.from(end);
   EXPECT_EQ(heard.lines.size(), 1 + leastWindow) << "the hello, and the mounts that it allows";
   for (std::uint32_t handle = 1; handle <= leastWindow; ++handle)
      peer.out->control(Mounted{handle, MountState::waiting, MountMode::readOnly, Reason::notExported, {}});
   ASSERT_TRUE(peer.tell());
   EXPECT_EQ(end.state("root-0"), State::notExported);
   EXPECT_EQ(end.state("root-64"), State::syncing);
   heard.from(end);
   EXPECT_EQ(heard.lines.size(), 1 + 2 * leastWindow);
   EXPECT_FALSE(end.quiet()) << "not all are answered";

   end.demuxer().out()->markIs(0);
   for (int i = 0; i < 10'000; ++i) {
      end.unmount("root-3");
      end.mount<Cl10010ConfigDir>("root-3");
      end.bytesToSend();
   }
   LinkEnd::Footprint const f = end.footprint();
   EXPECT_EQ(f.mounts, 200u);
   EXPECT_EQ(f.owedUnmounts, 1u);
   EXPECT_EQ(f.controlBytes, 0u);
   end.demuxer().out()->markIs(Out::defaultMark);
   heard.lines.clear();
   heard.from(end);
   EXPECT_EQ(heard.lines, Lines{"unmount 4"}) << "the window is used up";
   EXPECT_EQ(end.auditErrors(), 0u);
}

TEST(Requests, WhatCannotBeExportedOrMountedIsRefusedAtTheCall) {
   LinkEnd end("end");
   EXPECT_THROW(end.exportRoot(nullptr), RangeException);
   EXPECT_THROW(end.exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
   EXPECT_THROW(end.mountIs(nullptr), RangeException);
   EXPECT_EQ(end.auditErrors(), 0u);
}

/// A mirror that is live, with one member.
struct OneMirror : testing::Test {
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = end.mount<Cl10010ConfigDir>("config");
   Ptr<Cl10010StatusDir> other = end.mount<Cl10010StatusDir>("other");
   Lines states;

   OneMirror() {
      end.onState([this](Name const& root, State state) { states.push_back(root.str() + " " + textOf(state)); });
   }
   static void tellAll(Peer& peer, std::uint32_t slot = 1) {
      EntityId const root = Peer::id(slot), port = Peer::id(slot + 1);
      peer.grant(1, root);
      peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", root);
      peer.record(root, 135, 2u);
      peer.out->transactionMarker(root, 258, AttrTransactionType::begin);
      recordOf(*peer.out, {.entity = root, .attribute = 258, .variable = 1, .kind = kind::childLog},
               std::string_view("port"), port);
      peer.out->transactionMarker(root, 258, AttrTransactionType::end);
      peer.record(root, 135, 1u);
      peer.record(port, 388, 5u);
      peer.record(port, 135, 1u);
      EXPECT_TRUE(peer.tell());
   }
};

TEST_F(OneMirror, AMirrorWhoseOwnerEndsItKeepsWhatItHasAndRefusesToBeWritten) {
   Peer peer(end);
   tellAll(peer);
   std::uint32_t slot = 1;
   for (auto const& [state, reason, told, why] : std::vector<std::tuple<MountState, Reason, State, char const*>>{
           {MountState::gone, Reason::gone, State::stale, "its owner exports it no more"},
           {MountState::refused, Reason::limit, State::refused, "the owner refuses it: a limit is reached"}}) {
      SCOPED_TRACE(why);
      ASSERT_EQ(end.state("config"), State::live);
      peer.out->control(Mounted{1, state, MountMode::readOnly, reason, {}});
      peer.out->control(Retire{Peer::id(slot)});
      peer.out->control(Retire{Peer::id(slot + 1)});
      ASSERT_TRUE(peer.tell());
      EXPECT_EQ(end.state("config"), told);
      EXPECT_EQ(end.reason("config"), why);
      auto const port = dir->phyConfig("port");
      ASSERT_NE(port, nullptr);
      EXPECT_EQ(port->refClock(), 5u);
      EXPECT_THROW(dir->phyConfigIs("mine"), ReadOnlyException);
      EXPECT_EQ(end.demuxer().footprint().mirrored, 0u);
      EXPECT_EQ(end.auditErrors(), 0u);
      slot += 2;
      tellAll(peer, slot);
      EXPECT_EQ(dir->phyConfig("port"), port) << "bound in place";
   }
   EXPECT_EQ(end.state("config"), State::live);
   EXPECT_EQ(end.reason("config"), "");
}

TEST_F(OneMirror, AReactorThatCutsOrConnectsAnewIsTheLastThatHearsOfThatStream) {
   for (bool const connects : {false, true}) {
      SCOPED_TRACE(connects);
      Peer peer(end);
      tellAll(peer);
      auto const port = dir->phyConfig("port");
      auto const watch = on(port, Cl10010Config::Attr::refClock, [&](Cl10010Config& c) {
         if (c.refClock() != 6)
            return;
         if (connects)
            end.connected();
         else
            end.peerGone("enough");
         EXPECT_EQ(end.bytesToSend().size(), 0u) << "nothing of the old stream";
      });
      peer.record(Peer::id(2), 388, 6u);
      peer.record(Peer::id(2), 388, 7u);
      states.clear();
      EXPECT_EQ(peer.tell(), connects);
      EXPECT_EQ(port->refClock(), 6u);
      EXPECT_EQ(states[0], "config stale");
      EXPECT_EQ(end.failure(), "");
      Heard heard;
      heard.from(end);
      EXPECT_EQ(heard.lines, connects ? (Lines{"hello", "mount 1 config", "mount 2 other"}) : Lines{});
      end.peerGone("over");
   }
}

TEST_F(OneMirror, WhoIsToldThatARootIsStaleMayConnectAnew) {
   Peer peer(end);
   tellAll(peer);
   states.clear();
   end.onState([&](Name const& root, State state) {
      states.push_back(root.str() + " " + textOf(state));
      if (state == State::stale)
         end.connected();
   });
   end.peerGone("gone");
   EXPECT_EQ(states, (Lines{"config stale", "config syncing"})) << "the other one has been asked for all the time";
   EXPECT_EQ(end.state("other"), State::syncing);
   Heard heard;
   heard.from(end);
   EXPECT_EQ(heard.lines, (Lines{"hello", "mount 1 config", "mount 2 other"}));
   EXPECT_EQ(end.auditErrors(), 0u);
}

TEST_F(OneMirror, FramesThatMustBeKnownAndSecondHellosEndTheConnection) {
   struct Case {
      char const* what;
      std::function<void(Peer&)> say;
      char const* failure; ///< null where the connection goes on
   };
   auto const unknown = [](std::uint8_t flags) {
      return [flags](Peer& p) {
         Bytes bytes = bytesOf(*p.out);
         bytes.insert(bytes.end(), {0x80, 0, 0, 2, 77, flags});
         p.saysRaw(bytes);
      };
   };
   Hello const again{.incarnation = 7, .highestSlot = 1000, .name = "peer"};
   for (auto const& [what, say, failure] : std::vector<Case>{
           {"other flags", unknown(0xfe), nullptr},
           {"must be known", unknown(0x01), "77"},
           {"must be known, among others", unknown(0xff), "77"},
           {"a hello again", [&](Peer& p) { p.out->control(again); }, "hello"},
           {"a hello behind a record",
            [&](Peer& p) {
               tellAll(p);
               p.out->control(again);
            },
            "hello"},
        }) {
      SCOPED_TRACE(what);
      Peer peer(end);
      say(peer);
      EXPECT_EQ(peer.tell(), failure == nullptr) << end.failure();
      EXPECT_NE(end.failure().find(failure == nullptr ? "" : failure), std::string::npos) << end.failure();
      EXPECT_EQ(end.failure().empty(), failure == nullptr) << end.failure();
   }
}

/// Statuses on both sides, each with a configuration of the other side's: two ends that wait for each other. Of the frames by which
/// they say so, the first is lost in a cut.
TEST(Resends, ThatWaitForEachOtherComeToAnEndWhereTheWordOfItWasLost) {
   LocalLink link;
   auto const ours = make<Cl10010StatusDir>("ours"), yours = make<Cl10010StatusDir>("yours");
   link.left().exportRoot(ours);
   link.right().exportRoot(yours);
   auto const oursThere = link.right().mount<Cl10010StatusDir>("ours");
   auto const yoursHere = link.left().mount<Cl10010StatusDir>("yours");
   Name first("one"), second("two");
   if (bitReversed(first.hash()) > bitReversed(second.hash()))
      std::swap(first, second);
   ours->phyStatusIs(second, make<Cl10010Config>("x"), nullptr);
   yours->phyStatusIs(second, make<Cl10010Config>("y"), nullptr);
   link.settle();
   auto const x = oursThere->phyStatus(second)->phyConfig(), y = yoursHere->phyStatus(second)->phyConfig();
   ours->phyStatusIs(first, y, nullptr);
   yours->phyStatusIs(first, x, nullptr);
   link.settle();
   link.cut();
   ours->phyStatusDel(second);
   yours->phyStatusDel(second);
   link.reconnect();
   // By hand, up to the first of the two frames.
   Ptr<In> const readers[] = {make<In>("left"), make<In>("right")};
   bool isSaid = false;
   for (int turn = 0; !isSaid && turn < 1000; ++turn) {
      LinkEnd& from = turn % 2 == 0 ? link.left() : link.right();
      auto const offered = from.bytesToSend();
      Bytes const bytes(offered.begin(), offered.end());
      from.bytesSent(bytes.size());
      for (auto const& line : linesOf(*readers[turn % 2], bytes))
         isSaid = isSaid || line == "waiting";
      if (!isSaid)
         (turn % 2 == 0 ? link.right() : link.left()).bytesArrived(bytes);
   }
   ASSERT_TRUE(isSaid);
   link.cut();
   link.reconnect();
   link.settle();
   EXPECT_EQ(link.left().state("yours"), State::live);
   EXPECT_EQ(link.right().state("ours"), State::live);
   EXPECT_EQ(link.left().auditErrors() + link.right().auditErrors(), 0u);
}

} // namespace
} // namespace Mox::NboAttrLog
