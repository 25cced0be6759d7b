// SPDX-License-Identifier: Apache-2.0
// A mirror whose owner is played by hand: in orders that an owner may choose, and as one that turns against it.

#include "Directories.h"
#include "siblings/EthPhyIntfStatus.h"

#include <stdexcept>

namespace Mox::NboAttrLog {
namespace {

constexpr std::string_view directoryType = "Hardware::ClariPhy::Cl10010ConfigDir";

struct HandmadeOwner : testing::Test {
   static constexpr EntityId root = Peer::id(1), member = Peer::id(2), orphan = Peer::id(3);
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = end.mount<Cl10010ConfigDir>("config");
   Peer peer{end};
   Log log;

   /// A new connection, which is the peer's from here on.
   void connectAnew() {
      end.connected();
      peer.out = make<Out>("peer");
      peer.out->control(Hello{.incarnation = 7, .highestSlot = 1000, .window = 1, .name = "peer"});
   }
   void announceMember(std::string_view name, EntityId id, EntityId of = root) {
      recordOf(*peer.out, {.entity = of, .attribute = 258, .variable = 1, .kind = kind::childLog}, name, id);
   }
   void telling(EntityId id) { peer.record(id, attr::syncMode, 2u); }
   void told(EntityId id) { peer.record(id, attr::syncMode, 1u); }
   void begins(EntityId id, AttributeId attribute) {
      peer.out->transactionMarker(id, attribute, AttrTransactionType::begin);
   }
   void ends(EntityId id, AttributeId attribute, AttrTransactionType how = AttrTransactionType::end) {
      peer.out->transactionMarker(id, attribute, how);
   }
};

TEST_F(HandmadeOwner, LiveIsToldBehindTheLastOfWhatItTells) {
   peer.grant(1, root);
   telling(root);
   begins(root, 258);
   announceMember("port", member);
   ends(root, 258);
   ASSERT_TRUE(peer.tell());
   end.onState([&](Name const& name, State state) { log.push_back(name.str() + " " + textOf(state)); });
   auto const expectNothing = [&](char const* why) {
      EXPECT_TRUE(peer.tell()) << end.failure();
      EXPECT_EQ(log, Log{}) << why;
   };
   told(root);
   expectNothing("its member has not been told");
   telling(member);
   begins(member, 389);
   peer.record(member, 389, 1u, 1u, 1u, 1u);
   peer.announce("Fru::Gpo", "gpo", orphan);
   peer.record(member, 387, orphan);
   ends(member, 389);
   told(member);
   expectNothing("what the member refers to has not been told");
   telling(orphan);
   told(orphan);
   EXPECT_TRUE(peer.tell());
   EXPECT_EQ(log, Log{"config live"});
   // A resend of what is live takes nothing back; an abort is no end.
   begins(member, 389);
   ends(member, 389, AttrTransactionType::abort);
   EXPECT_TRUE(peer.tell());
   EXPECT_EQ(dir->phyConfig("port")->calibration().size(), 1u) << "nothing is swept";
}

/// Two statuses of one name that belong nowhere, told apart by what they were made from.
TEST_F(HandmadeOwner, AnOrphanIsBoundAgainOnlyWithTheSameParameters) {
   Ptr<Entity> before;
   for (std::string_view const made : {"eth0", "eth1"}) {
      SCOPED_TRACE(made);
      connectAnew();
      peer.grant(1, root);
      telling(root);
      for (std::uint32_t i = 0; i < 2; ++i)
         peer.announce("Interface::EthPhyIntfStatus", "eth" + std::to_string(i), Peer::id(2 + i));
      recordOf(*peer.out, {.entity = orphanAnnouncement, .attribute = attr::orphan, .variable = 1}, Section{1},
               TypeId{"Hardware::ClariPhy::Cl10010Status"}, Section{3}, std::string_view("phy"), EntityId{},
               Peer::id(made == "eth0" ? 2 : 3), Section{4}, Peer::id(4));
      ASSERT_TRUE(peer.tell()) << end.failure();
      auto const now = end.demuxer().mirrorOf(Peer::id(4));
      ASSERT_TRUE(now);
      EXPECT_NE(now, before);
      EXPECT_EQ(staticCast<Cl10010Status>(now)->ethIntfStatus()->name(), made);
      before = now;
   }
}

/// The root's mirror stays read-only, and is the next owner's, whatever this one did to its identifier.
TEST_F(HandmadeOwner, MayTurnARootsIdentifierAgainstIt) {
   struct Case {
      char const* what;
      std::function<void()> say;
   };
   auto const expectReadOnly = [&](char const* when) {
      EXPECT_THROW(dir->phyConfigIs("mine"), ReadOnlyException) << when;
      EXPECT_THROW(dir->phyConfigDel("mine"), ReadOnlyException) << when;
   };
   for (auto const& [what, say] : std::vector<Case>{
           {"retires it", [&] { peer.out->control(Retire{root}); }},
           {"opens the root under another", [&] { peer.grant(1, Peer::id(2)); }},
           {"gives it to a member",
            [&] {
               peer.announce(directoryType, "other", Peer::id(3));
               announceMember("cuckoo", root, Peer::id(3));
            }},
        }) {
      SCOPED_TRACE(what);
      connectAnew();
      peer.grant(1, root);
      peer.tell();
      say();
      peer.tell();
      expectReadOnly("still mounted");
      EXPECT_EQ(end.auditErrors(), 0u);
      end.peerGone("enough");
      expectReadOnly("stale");
      LinkEnd owner("owner");
      auto const truth = make<Cl10010ConfigDir>("config");
      truth->phyConfigIs("port");
      owner.exportRoot(truth);
      owner.connected();
      end.connected();
      settleEnds(owner, end);
      EXPECT_EQ(end.state("config"), State::live);
      expectEqual(*truth, *dir);
   }
}

/// What a program's own calls throw is no affair of the stream.
TEST_F(HandmadeOwner, IsToldNothingOfWhatThisSidesCallsThrow) {
   end.onState([](Name const&, State) { throw 42; });
   end.onReport([](std::string const&) { throw std::runtime_error("no room in the journal"); });
   peer.grant(1, root);
   told(root);
   peer.record(root, attr::syncMode, 3u); // a mode of later, which is reported
   EXPECT_TRUE(peer.tell()) << end.failure();
   EXPECT_EQ(end.state("config"), State::live);
}

} // namespace
} // namespace Mox::NboAttrLog
