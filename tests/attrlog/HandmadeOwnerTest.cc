// SPDX-License-Identifier: Apache-2.0
// A mirror whose owner is played by hand: in orders that an owner may choose, and as one that turns against it.

#include "Told.h"
#include "kestrel/siblings/EthPhyIntfStatus.h"
#include "support/Ends.h"

#include <functional>
#include <stdexcept>
#include <utility>

namespace Mox::NboAttrLog {
namespace {

using State = LinkEnd::State;

/// On a connection of which nothing has been told yet.
struct HandmadeOwner : Told {
   HandmadeOwner() { peer.emplace(end); }
   void telling(EntityId id) { peer->record(id, attr::syncMode, 2u); }
   void told(EntityId id) { peer->record(id, attr::syncMode, 1u); }
   void marks(EntityId id, AttributeId attribute, AttrTransactionType how) {
      peer->out->transactionMarker(id, attribute, how);
   }
};

TEST_F(HandmadeOwner, LiveIsToldBehindTheLastOfWhatItTells) {
   constexpr auto begin = AttrTransactionType::begin, stop = AttrTransactionType::end;
   constexpr EntityId orphan = Peer::id(nextSlot);
   peer->grant(1, root);
   telling(root);
   marks(root, 258, begin);
   peer->member(root, 258, "port", member);
   marks(root, 258, stop);
   ASSERT_TRUE(peer->tell());
   EXPECT_EQ(std::exchange(states, {}),
             (Lines{"config stale", "refs stale", "status stale", "config syncing", "refs syncing", "status syncing"}))
      << "each once, though all is syncing before it is granted";
   auto const expectNothing = [&](char const* why) {
      EXPECT_TRUE(peer->tell()) << end.failure();
      EXPECT_EQ(states, Lines{}) << why;
   };
   told(root);
   expectNothing("its member has not been told");
   telling(member);
   marks(member, 389, begin);
   peer->record(member, 389, 1u, 1u, 1u, 1u);
   peer->announce("Fru::Gpo", "gpo", orphan);
   peer->record(member, 387, orphan);
   marks(member, 389, stop);
   told(member);
   expectNothing("what the member refers to has not been told");
   telling(orphan);
   told(orphan);
   EXPECT_TRUE(peer->tell());
   EXPECT_EQ(states, Lines{"config live"});
   // A resend of what is live takes nothing back; an abort is no end.
   marks(member, 389, begin);
   marks(member, 389, AttrTransactionType::abort);
   EXPECT_TRUE(peer->tell());
   EXPECT_EQ(dir->phyConfig("port")->calibration().size(), 1u) << "nothing is swept";
   // A value that can't be read leaves the last good one.
   marks(member, 389, begin);
   peer->record(member, 389, 1u);
   marks(member, 389, stop);
   EXPECT_TRUE(peer->tell()) << end.failure();
   EXPECT_EQ(end.counters().badValues, 1u);
   EXPECT_EQ(dir->phyConfig("port")->calibration().size(), 1u) << "the owner has told it";
}

TEST_F(HandmadeOwner, MayAnswerForItsRootsInTurn) {
   connect();
   constexpr EntityId orphan = Peer::id(nextSlot);
   peer->announce("Fru::Gpo", "gpo", orphan);
   ASSERT_TRUE(peer->tell()) << end.failure();
   auto const gpo = end.demuxer().mirrorOf(orphan);
   peer.emplace(end);
   tell(root, member);
   ASSERT_TRUE(peer->tell()) << end.failure();
   EXPECT_EQ(end.state("config"), State::live);
   peer->grant(2, refsRoot);
   peer->announce("Fru::Gpo", "gpo", orphan);
   ASSERT_TRUE(peer->tell()) << end.failure();
   EXPECT_EQ(end.demuxer().mirrorOf(orphan), gpo) << "bound in place: the second root may refer to it";
}

TEST_F(HandmadeOwner, IsAskedForTheWholeCollectionWhereNoKeyOfThatLengthCanTravel) {
   for (auto const& [longest, size] : {std::pair{frame::maximumHello, frame::maximumHello},
                                       std::pair{frame::defaultMaximum, std::uint32_t{0x10000}}}) {
      peer.emplace(end, Hello{.incarnation = 7, .maximumFrame = longest, .highestSlot = 9, .name = "short"});
      tell(root, member);
      ASSERT_TRUE(peer->tell()) << end.failure();
      peer->heard();
      Name const mine(std::string(size, 'x'));
      EXPECT_THROW(dir->phyConfigIs(mine), ReadOnlyException);
      EXPECT_EQ(peer->heard(), Lines{"refresh"});
      marks(root, 258, AttrTransactionType::begin);
      peer->member(root, 258, "port", member);
      marks(root, 258, AttrTransactionType::end);
      ASSERT_TRUE(peer->tell()) << end.failure();
      EXPECT_EQ(dir->phyConfig(mine), nullptr);
   }
}

/// Two statuses of one name that belong nowhere, told apart by what they were made from.
TEST_F(HandmadeOwner, AnOrphanIsBoundAgainOnlyWithTheSameParameters) {
   Ptr<Entity> before;
   for (std::uint32_t const made : {0u, 1u}) {
      peer.emplace(end);
      for (std::uint32_t i = 0; i < 2; ++i)
         peer->announce("Interface::EthPhyIntfStatus", "eth" + std::to_string(i), Peer::id(2 + i));
      peer->record(orphanAnnouncement, attr::orphan, Section{1}, TypeId{"Hardware::ClariPhy::Cl10010Status"},
                   Section{3}, std::string_view("phy"), EntityId{}, Peer::id(2 + made), Section{4}, Peer::id(4));
      ASSERT_TRUE(peer->tell()) << end.failure();
      auto const now = end.demuxer().mirrorOf(Peer::id(4));
      ASSERT_TRUE(now);
      EXPECT_NE(now, before);
      EXPECT_EQ(staticCast<Hardware::ClariPhy::Cl10010Status>(now)->ethIntfStatus()->name(),
                "eth" + std::to_string(made));
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
      EXPECT_EQ(dir->phyConfig("port"), port) << "kept " << when;
   };
   for (auto const& [what, say] : std::vector<Case>{
           {"retires it", [&] { peer->out->control(Retire{root}); }},
           {"refuses it, and retires all",
            [&] {
               peer->out->control(Mounted{1, MountState::refused, {}, Reason::limit, {}});
               peer->out->control(Retire{root});
               peer->out->control(Retire{member});
               peer->tell();
               EXPECT_EQ(end.reason("config"), "the owner refuses it: a limit is reached");
            }},
           {"opens the root under another", [&] { peer->grant(1, Peer::id(nextSlot)); }},
           {"gives it to a member",
            [&] {
               peer->announce("Hardware::ClariPhy::Cl10010ConfigDir", "other", Peer::id(nextSlot));
               peer->member(Peer::id(nextSlot), 258, "cuckoo", root);
            }},
        }) {
      SCOPED_TRACE(what);
      connect();
      say();
      peer->tell();
      expectReadOnly("while mounted");
      EXPECT_EQ(end.auditErrors(), 0u);
      end.peerGone("enough");
      expectReadOnly("while stale");
      LinkEnd owner("owner");
      auto const truth = make<ConfigDir>("config");
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
   peer->grant(1, root);
   told(root);
   peer->record(root, attr::syncMode, 3u); // a mode of later, which is reported
   EXPECT_TRUE(peer->tell()) << end.failure();
   EXPECT_EQ(end.state("config"), State::live);
}

} // namespace
} // namespace Mox::NboAttrLog
