// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Peer.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010ConfigPtrDirReactor.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/entities/Cl10010StatusDirReactor.h"
#include "kestrel/siblings/Gpo.h"
#include "support/Ends.h"
#include "support/Told.h"

#include <gtest/gtest.h>

namespace Mox::NboAttrLog {

using namespace Hardware::ClariPhy;
using State = LinkEnd::State;

inline Name numbered(char const* what, unsigned i) {
   return Name(what + std::to_string(i));
}

/// Three directories of the left end, mirrored by the right one: what is referred to is told last.
struct Directories : testing::Test {
   LinkEnd left{"left", 1}, right{"right", 2};
   Ptr<Cl10010ConfigPtrDir> refs = make<Cl10010ConfigPtrDir>("refs"),
                            refsThere = right.mount<Cl10010ConfigPtrDir>("refs");
   Ptr<Cl10010StatusDir> statuses = make<Cl10010StatusDir>("statuses"),
                         statusesThere = right.mount<Cl10010StatusDir>("statuses");
   Ptr<Cl10010ConfigDir> ours = make<Cl10010ConfigDir>("config"), theirs = right.mount<Cl10010ConfigDir>("config");
   std::vector<Ptr<Entity>> const roots{refs, statuses, ours}, mirrors{refsThere, statusesThere, theirs};
   Ptr<Cl10010Config> port = ours->phyConfigIs("port"), mirror;
   Log log, reports; ///< of the left end

   Directories() {
      for (auto const& root : roots)
         left.exportRoot(root);
      left.onReport([this](std::string const& text) { reports.push_back(text); });
      reconnect();
      settle();
      mirror = theirs->phyConfig("port");
   }
   void settle() { settleEnds(left, right); }
   void cut() {
      left.peerGone("cut");
      right.peerGone("cut");
   }
   void reconnect() {
      left.connected();
      right.connected();
   }
   /// Nothing of the left end goes out any more: what changes is marked.
   void stall(std::size_t mark = 1) {
      left.demuxer().out()->markIs(mark);
      for (int i = 0; i < 1000 && left.demuxer().takesNow(); ++i)
         port->refClockIs(port->refClock() + 1);
   }
   void resume() {
      left.demuxer().out()->markIs(Out::defaultMark);
      settle();
   }
   void expectSame() {
      for (std::size_t i = 0; i < roots.size(); ++i) {
         expectEqual(*roots[i], *mirrors[i]);
         EXPECT_EQ(right.state(roots[i]->name()), State::live) << roots[i]->name();
      }
      EXPECT_TRUE(left.quiet());
      EXPECT_TRUE(right.quiet());
   }
};

} // namespace Mox::NboAttrLog
