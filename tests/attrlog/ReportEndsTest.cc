// SPDX-License-Identifier: Apache-2.0
// Who is told that a record can't be sent may end the root whose collection is being told.

#include "Peer.h"
#include "entities/Cl10010ConfigDirReactor.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

TEST(ReportEnds, TheRootWhoseMembersAreBeingTold) {
   for (bool const cuts : {false, true}) {
      SCOPED_TRACE(cuts);
      LinkEnd end("end");
      auto const root = make<Cl10010ConfigDir>("config");
      for (char c = 'a'; c < 'u'; ++c)
         root->phyConfigIs(Name(std::string(600, c)));
      end.exportRoot(root);
      Peer peer(end, {.incarnation = 7, .maximumFrame = 512, .highestSlot = 1000, .window = 64, .name = "peer"});
      int told = 0;
      end.onReport([&](std::string const&) {
         if (++told == 1)
            cuts ? end.peerGone("enough") : end.exportDel(root);
      });
      peer.out->control(Mount{1, MountMode::readOnly, "config"});
      peer.tell();
      peer.heard();
      EXPECT_GE(told, 1);
      EXPECT_EQ(end.demuxer().audit(), "");
   }
}

} // namespace
} // namespace Mox::NboAttrLog
