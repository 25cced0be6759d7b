// SPDX-License-Identifier: Apache-2.0
// A root's mirror outlives an owner that turns its identifier against it.

#include "Peer.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "support/Ends.h"

#include <gtest/gtest.h>

#include <functional>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

TEST(LyingOwner, WhatItDoesToARootsIdentifierTheNextOwnersMirrorDoesNotSuffer) {
   struct Case {
      char const* what;
      std::function<void(Peer&)> say;
   };
   for (auto const& [what, say] : std::vector<Case>{
           {"retires the root", [](Peer& p) { p.out->control(Retire{Peer::id(1)}); }},
           {"opens it again under another identifier", [](Peer& p) { p.grant(1, Peer::id(2)); }},
           {"gives the identifier to a member",
            [](Peer& p) {
               p.announce("Hardware::ClariPhy::Cl10010ConfigDir", "other", Peer::id(3));
               recordOf(*p.out, {.entity = Peer::id(3), .attribute = 258, .variable = 1, .kind = kind::childLog},
                        std::string_view("cuckoo"), Peer::id(1));
            }},
        }) {
      SCOPED_TRACE(what);
      LinkEnd end("end");
      auto const mirror = end.mount<Cl10010ConfigDir>("config");
      auto const isReadOnly = [&] {
         try {
            mirror->phyConfigIs("mine");
            mirror->phyConfigDel("mine");
            return false;
         } catch (ReadOnlyException const&) {
            return true;
         }
      };
      {
         Peer peer(end);
         peer.grant(1, Peer::id(1));
         peer.tell();
         say(peer);
         peer.tell();
         EXPECT_TRUE(isReadOnly()) << "still mounted";
         EXPECT_EQ(end.auditErrors(), 0u);
         end.peerGone("enough");
      }
      EXPECT_TRUE(isReadOnly()) << "stale";
      LinkEnd owner("owner");
      auto const truth = make<Cl10010ConfigDir>("config");
      truth->phyConfigIs("port-0");
      owner.exportRoot(truth);
      owner.connected();
      end.connected();
      settleEnds(owner, end, 0);
      EXPECT_EQ(end.state("config"), LinkEnd::State::live);
      expectEqual(*truth, *mirror);
      EXPECT_EQ(end.auditErrors(), 0u);
      end.peerGone("cut");
      EXPECT_TRUE(isReadOnly()) << "stale behind an honest owner";
      LinkEnd second("second");
      EXPECT_THROW(second.mountIs(mirror), NameInUseException) << "an entity has one owner";
   }
}

} // namespace
} // namespace Mox::NboAttrLog
