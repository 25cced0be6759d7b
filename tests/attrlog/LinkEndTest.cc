// SPDX-License-Identifier: Apache-2.0
// What one end and its peer say about roots and about the stream itself.

#include "Told.h"
#include "kestrel/attrlog/LocalLink.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/notify/Observe.h"
#include "support/Ends.h"

#include <gtest/gtest.h>

#include <functional>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using State = LinkEnd::State;

void ask(Peer& peer, std::uint32_t handle, std::string_view name) {
   peer.out->control(Mount{handle, MountMode::readOnly, name});
}

Lines const greeting{"hello", "mount 1 config", "mount 2 refs", "mount 3 status"};

/// How the stream begins that `end` has just connected.
Lines beginningOf(LinkEnd& end) {
   auto const in = make<In>("end");
   return linesOf(*in, end.bytesToSend(), true);
}

TEST(Answers, ARootIsGrantedOnceAndItsNewestStandIsAllThatAStalledPeerIsOwed) {
   LinkEnd end("end");
   auto const root = make<Cl10010ConfigDir>("x");
   Peer peer(end);
   peer.heard();
   EXPECT_FALSE(end.quiet()) << "the peer has said nothing yet";
   ask(peer, 1, "x");
   ask(peer, 2, "x");
   ask(peer, 3, std::string(LinkEnd::longestName + 1, 'y'));
   ASSERT_TRUE(peer.tell());
   EXPECT_EQ(peer.heard(), (Lines{"mounted 1 state 1, not exported there", "mounted 2 state 0, a limit is reached",
                                  "mounted 3 state 0, a limit is reached"}));
   end.exportRoot(root);
   EXPECT_EQ(peer.heard().front(), "mounted 1 state 2");
   end.demuxer().out()->markIs(0); // the buffer is full from here on
   for (int i = 0; i < 10; ++i) {
      end.exportDel(root);
      end.exportRoot(root);
      end.bytesToSend();
      EXPECT_EQ(end.footprint().owedAnswers, 1u);
      EXPECT_EQ(end.footprint().controlBytes, 0u);
   }
   EXPECT_FALSE(end.quiet());
   end.demuxer().out()->markIs(Out::defaultMark);
   auto lines = peer.heard();
   std::erase_if(lines, [](std::string const& line) { return !line.starts_with("mounted"); });
   EXPECT_EQ(lines, (Lines{"mounted 1 state 3, gone", "mounted 1 state 2"}));

   Peer next(end, {.incarnation = 8, .highestSlot = 0, .name = "takes no identifier"});
   ask(next, 1, "x");
   ASSERT_TRUE(next.tell());
   EXPECT_EQ(next.heard(), Lines{"mounted 1 state 0, a limit is reached"});
   EXPECT_EQ(next.reports.size(), 1u);
   EXPECT_EQ(end.auditErrors(), 0u);
}

TEST(Answers, APeerThatAsksAboveItsWindowAndReadsNothingEnds) {
   LinkEnd end("end");
   Peer peer(end);
   for (unsigned asked = 0; asked < 10'000 && peer.tell(); ++asked) {
      ask(peer, asked, "root-" + std::to_string(asked));
      end.bytesToSend();
      EXPECT_LE(end.footprint().owedAnswers, requestWindow);
      EXPECT_LE(end.footprint().controlBytes, Out::defaultMark + 32 * requestWindow);
   }
   EXPECT_NE(end.failure().find("mounts without an answer"), std::string::npos) << end.failure();
}

TEST_F(Told, ARefusalNamesTheRecordAndGoesOutBeforeItIsAcknowledged) {
   connect();
   for (unsigned const value : {1u, 2u}) {
      peer->record(member, 388, value);
      peer->record(EntityId::assigned(3, 0, 1), 388, 1u);
   }
   ASSERT_TRUE(peer->tell());
   EXPECT_EQ(peer->heard(true), (Lines{"refused 12, read-only", "refused 14, read-only", "acknowledgement 14"}));
   peer->reports.clear();
   peer->out->control(Refused{7, Reason::badValue, "no"});
   ASSERT_TRUE(peer->tell());
   EXPECT_TRUE(peer->reports.at(0).ends_with("the peer refused record 7: bad value, \"no\"")) << peer->reports[0];
   peer->out->control(Refused{0, Reason::none, "not you"});
   EXPECT_FALSE(peer->tell());
   EXPECT_EQ(end.failure(), "refused by the peer: \"not you\"");
   EXPECT_EQ(end.reason("config"), end.failure()) << "and why it is stale";
}

TEST(Requests, AreMadeAsFarAsThePeersWindowGoes) {
   LinkEnd end("end");
   for (int i = 0; i < 200; ++i)
      end.mount<Cl10010ConfigDir>(Name("root-" + std::to_string(i)));
   Peer peer(end);
   ASSERT_TRUE(peer.tell());
   EXPECT_EQ(peer.heard(true).size(), 1 + leastWindow) << "the hello, and the mounts that it allows";
   EXPECT_FALSE(end.quiet()) << "not all are answered";
}

TEST_F(Told, AnEndIsNotQuietWithHalfAFrame) {
   ASSERT_TRUE(end.quiet());
   peer->record(member, 388, 6u);
   Bytes const bytes = bytesOf(*peer->out);
   end.bytesArrived(std::span(bytes).first(bytes.size() - 1));
   EXPECT_FALSE(end.quiet());
   end.bytesArrived(std::span(bytes).last(1));
   peer->heard();
   EXPECT_TRUE(end.quiet());
}

TEST_F(Told, WhatIsThrownByWhoIsAskedWhoseARootIsCountsAsNo) {
   end.unmount("config");
   end.onOpening([](Name const&) -> bool { throw std::runtime_error("no idea"); });
   auto const again = end.mount<ConfigDir>("config");
   peer->heard();
   peer->grant(4, Peer::id(nextSlot));
   EXPECT_TRUE(peer->tell()) << end.failure();
   EXPECT_NE(peer->reports.back().find("no idea"), std::string::npos);
   EXPECT_FALSE(end.isAnswered("config"));
}

TEST_F(Told, AReactorThatCutsOrConnectsAnewIsTheLastThatHearsOfThatStream) {
   for (bool const connects : {false, true}) {
      SCOPED_TRACE(connects);
      connect();
      auto const watch = on(port, Cl10010Config::Attr::refClock, [&](Cl10010Config&) {
         if (connects)
            end.connected();
         else
            end.peerGone("enough");
         EXPECT_EQ(end.bytesToSend().size(), 0u) << "nothing of the old stream";
      });
      peer->record(member, 388, 6u);
      peer->record(member, 388, 7u);
      EXPECT_EQ(peer->tell(), connects);
      EXPECT_EQ(port->refClock(), 6u);
      EXPECT_EQ(states.at(0), "config stale");
      EXPECT_EQ(end.reason("config"), connects ? "" : "enough");
      EXPECT_EQ(end.failure(), "");
      EXPECT_EQ(beginningOf(end), connects ? greeting : Lines{});
   }
   // So may who is told that a root is stale.
   connect();
   end.onState([&](Name const& name, State state) {
      states.push_back(name.str() + " " + textOf(state));
      if (state == State::stale)
         end.connected();
   });
   end.peerGone("gone");
   EXPECT_EQ(states, (Lines{"config stale", "config syncing", "refs syncing", "status syncing"}));
   EXPECT_EQ(beginningOf(end), greeting);
   EXPECT_EQ(end.auditErrors(), 0u);
}

} // namespace
} // namespace Mox::NboAttrLog
