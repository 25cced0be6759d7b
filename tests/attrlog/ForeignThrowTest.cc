// SPDX-License-Identifier: Apache-2.0
// What a program's own calls throw is no affair of the stream.

#include "Peer.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "support/Ends.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

TEST(ForeignThrow, OfOneWhoIsToldOfAStateIsReported) {
   testing::FLAGS_gtest_death_test_style = "threadsafe";
   EXPECT_EXIT(
      {
         LinkEnd end("end");
         auto const mirror = end.mount<Cl10010ConfigDir>("config");
         Peer peer(end);
         end.onState([](Name const&, LinkEnd::State) { throw 42; });
         peer.grant(1, Peer::id(1));
         peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", Peer::id(1));
         peer.record(Peer::id(1), 135, 1u);
         std::exit(peer.tell() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(ForeignThrow, OfOneWhoIsToldOfABadValueEndsNoConnection) {
   LinkEnd end("end");
   auto const mirror = end.mount<Cl10010ConfigDir>("config");
   Peer peer(end);
   end.onReport([](std::string const&) { throw std::runtime_error("no room in the journal"); });
   peer.grant(1, Peer::id(1));
   peer.record(Peer::id(1), 135, 3u); // a sync mode of later
   EXPECT_TRUE(peer.tell()) << end.failure();
}

} // namespace
} // namespace Mox::NboAttrLog
