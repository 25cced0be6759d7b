// SPDX-License-Identifier: Apache-2.0
// One end, and a peer that says what it should not.

#include "Peer.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010StatusDir.h"
#include "entities/Cl10010StatusPtrDir.h"
#include "notify/Dump.h"
#include "siblings/Accelerator.h"

#include <gtest/gtest.h>

#include <random>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;

/// A mirror whose owner is played by hand: mounted as slot 1, told in full, live.
struct Told : testing::Test {
   LinkEnd end{"end"};
   Ptr<Cl10010ConfigDir> dir = end.mount<Cl10010ConfigDir>("config");
   Ptr<Cl10010StatusPtrDir> refs = end.mount<Cl10010StatusPtrDir>("refs");
   Ptr<Cl10010Config> port;
   Peer peer{end};
   static constexpr EntityId root = Peer::id(1);
   static constexpr EntityId member = Peer::id(2);

   Told() {
      peer.grant(2, Peer::id(8));
      peer.announce("Hardware::ClariPhy::Cl10010StatusPtrDir", "refs", Peer::id(8));
      peer.record(Peer::id(8), 135, 1u);
      peer.grant(1, root);
      peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", root);
      peer.record(root, 135, 2u);
      peer.out->transactionMarker(root, 258, AttrTransactionType::begin);
      announceMember("port", member);
      peer.out->transactionMarker(root, 258, AttrTransactionType::end);
      peer.record(root, 135, 1u);
      peer.record(member, 135, 2u);
      peer.record(member, 388, 5u);
      peer.record(member, 135, 1u);
      EXPECT_TRUE(peer.tell());
      port = dir->phyConfig("port");
      EXPECT_EQ(end.state("config"), LinkEnd::State::live);
      peer.heard();
   }
   void announceMemberOf(EntityId directory, std::string_view name, EntityId id) {
      recordOf(*peer.out, {.entity = directory, .attribute = 258, .variable = 1, .kind = kind::childLog}, name, id);
   }
   void announceMember(std::string_view name, EntityId id) { announceMemberOf(root, name, id); }
};

TEST_F(Told, WhatItCannotHoldIsCountedAndNamedAndTheConnectionGoesOn) {
   using C = Demuxer::Counters;
   auto const before = dumpLines(*dir);
   struct Case {
      char const* what;
      std::function<void()> say;
      U64 C::*counter;
      char const* text; ///< behind the stream and offset; null where nobody needs to be told
   };
   auto const orphan = [&](auto... values) {
      recordOf(*peer.out, {.entity = orphanAnnouncement, .attribute = attr::orphan, .variable = 1}, values...);
   };
   constexpr auto lowest = std::numeric_limits<std::int32_t>::min();
   for (auto const& [what, say, counter, text] : std::vector<Case>{
           {"a number above the range", [&] { peer.record(member, 394, 2.0F); }, &C::badValues,
            ", /config/port.rollOff (394): RollOff::value < RollOff::min"},
           {"a NaN where there is none", [&] { peer.record(member, 394, std::numeric_limits<float>::quiet_NaN()); },
            &C::badValues, "rollOff (394)"},
           {"an enumerator of later", [&] { peer.record(member, 294, 99u); }, &C::unknownEnums,
            ", /config/port.diagsMode (294): "},
           {"a key that is no enumerator", [&] { peer.record(member, 389, 16u, 1u, 1u, 1u); }, &C::unknownEnums,
            ", /config/port.calibration (389): "},
           {"the loss of such a key", [&] { peer.record(member, -389, 16u); }, &C::unknownEnums, "calibration (389): "},
           {"neither true nor false", [&] { peer.record(member, 303, static_cast<unsigned char>(2)); }, &C::badValues,
            "expected a truth value of 0 or 1, got 2"},
           {"half a value", [&] { peer.record(member, 388, static_cast<unsigned short>(1)); }, &C::badValues,
            "expected 4 bytes at byte 0 of the body, 2 are left"},
           {"a text longer than its record", [&] { peer.record(member, 261, 1000u); }, &C::badValues,
            "expected 1000 bytes at byte 4 of the body, 0 are left"},
           {"a reference to an entity of another type, by name", [&] { peer.record(Peer::id(8), 258, member); },
            &C::badValues, "/refs.phyStatus (258): Entity is the wrong type: /config/port"},
           {"a reference to an entity of another type", [&] { peer.record(member, 392, root); }, &C::badValues,
            "pllStatus (392): Entity is the wrong type: /config"},
           {"a sync mode", [&] { peer.record(member, 135, 3u); }, &C::badValues, "sync mode 3"},
           {"an attribute of later", [&] { peer.record(member, 511, 1u); }, &C::unknownAttributes, nullptr},
           {"one between two levels", [&] { peer.record(member, 383, 1u); }, &C::unknownAttributes, nullptr},
           {"the lowest number", [&] { peer.record(member, lowest, 1u); }, &C::unknownAttributes, nullptr},
           {"a record of an unknown kind",
            [&] { recordOf(*peer.out, {.entity = member, .attribute = 388, .variable = 1, .kind = 77}); },
            &C::unknownKinds, nullptr},
           {"a marker of an unknown type",
            [&] {
               recordOf(*peer.out, {.entity = member, .attribute = lowest, .variable = 1, .kind = kind::marker},
                        static_cast<unsigned char>(9), 0u);
            },
            &C::badValues, "marker type 9"},
           {"a marker of no collection", [&] { peer.out->transactionMarker(member, 388, AttrTransactionType::begin); },
            nullptr, nullptr},
           {"an end without a begin", [&] { peer.out->transactionMarker(member, 389, AttrTransactionType::end); },
            nullptr, nullptr},
           {"an identifier that nobody announced", [&] { peer.record(Peer::id(40), 388, 1u); }, &C::staleRecords,
            nullptr},
           {"another generation", [&] { peer.record(Peer::id(2, 9), 388, 1u); }, &C::staleRecords, nullptr},
           {"a write to what this side owns", [&] { peer.record(EntityId::assigned(3, 0, 1), 388, 1u); },
            &C::refusedWrites, ": write-update from readonly proxy refused"},
           {"an orphan of a type of later", [&] { peer.announce("Later::Thing", "x", Peer::id(3)); }, &C::unknownTypes,
            ": entity of unknown type Later::Thing"},
           {"and a record of it", [&] { peer.record(Peer::id(3), 388, 1u); }, &C::unknownTypes, nullptr},
           {"an orphan without parameters that it needs",
            [&] { peer.announce("Hardware::ClariPhy::Cl10010Status", "x", Peer::id(4)); }, &C::badValues,
            ": orphan announcement: "},
           {"an orphan without its sections", [&] { orphan(Section{1}, Section{4}); }, &C::badValues,
            "expected section 3, the body has no more"},
           {"a section longer than its record", [&] { orphan(true, 99u); }, &C::badValues, "expected 99 bytes"},
           {"a type's name longer than its section",
            [&] { orphan(Section{1}, static_cast<unsigned short>(9), Section{4}); }, &C::badValues, "expected 9 bytes"},
           {"an orphan's record of another attribute", [&] { peer.record(orphanAnnouncement, 388, 1u); },
            &C::unknownAttributes, nullptr},
           {"a refresh of what this side has not",
            [&] {
               peer.out->control(Refresh{EntityId::assigned(9, 0, 1), 388, "x"});
            },
            nullptr, nullptr},
        }) {
      SCOPED_TRACE(what);
      U64 const count = counter == nullptr ? 0 : end.demuxer().counters().*counter;
      peer.reports.clear();
      say();
      ASSERT_TRUE(peer.tell()) << end.failure();
      if (counter != nullptr) {
         EXPECT_EQ(end.demuxer().counters().*counter, count + 1);
      }
      ASSERT_EQ(peer.reports.size(), text == nullptr ? 0u : 1u) << testing::PrintToString(peer.reports);
      if (text != nullptr) {
         EXPECT_TRUE(peer.reports[0].starts_with("stream \"end\", offset ")) << peer.reports[0];
         EXPECT_NE(peer.reports[0].find(text), std::string::npos) << peer.reports[0];
      }
      EXPECT_EQ(diff(before, dumpLines(*dir)).size(), 0u) << "the last good value stands";
   }
   peer.record(member, 388, 6u);
   peer.tell();
   EXPECT_EQ(port->refClock(), 6u);
   EXPECT_EQ(peer.heard(), Lines{"refused"});
}

TEST_F(Told, WhatBreaksTheProtocolEndsTheConnectionAndKeepsTheMirror) {
   struct Case {
      char const* what;
      std::function<void()> say;
      char const* text;
   };
   auto const announce = [&](EntityId id) { return [this, id] { announceMember("more", id); }; };
   for (auto const& [what, say, text] : std::vector<Case>{
           {"this side's identifier", announce(EntityId::assigned(5, 0, 1)),
            "not an identifier of the announcing side"},
           {"null", announce({}), "not an identifier of the announcing side"},
           {"the reserved one", announce(orphanAnnouncement), "not an identifier of the announcing side"},
           {"a slot far ahead", announce(Peer::id(5000)), "expected a slot below "},
           {"a slot past all", announce(Peer::id(Demuxer::highestSlot + 1)), "expected slots up to 16777215"},
           {"a new generation of a slot in use", announce(Peer::id(2, 2)), "the slot is in use under generation 1"},
           {"a generation used before",
            [&] {
               announceMember("gone", Peer::id(3, 5));
               peer.out->control(Retire{Peer::id(3, 5)});
               announceMember("gone", Peer::id(3, 5));
            },
            "the slot has been used up to generation 5"},
           {"a root under this side's identifier", [&] { peer.grant(1, EntityId::assigned(5, 0, 1)); },
            "announcing side"},
           {"a retirement of this side's identifier", [&] { peer.out->control(Retire{EntityId::assigned(1, 0, 1)}); },
            "which is not its own"},
           {"a record of a slot past all", [&] { peer.record(Peer::id(Demuxer::highestSlot + 1), 388, 1u); },
            "expected up to 16777215"},
           {"an acknowledgement of what was not sent", [&] { peer.out->control(Acknowledgement{1}); },
            "acknowledges 1"},
        }) {
      SCOPED_TRACE(what);
      // A new connection, up to the point at which things go wrong.
      Peer fresh(end);
      fresh.grant(1, root);
      ASSERT_TRUE(fresh.tell());
      fresh.heard();
      peer.out = fresh.out; // what is said from here on
      announceMember("port", member);
      ASSERT_TRUE(peer.tell()) << end.failure();
      say();
      EXPECT_FALSE(peer.tell());
      EXPECT_TRUE(end.failure().starts_with("stream \"end\", offset ")) << end.failure();
      EXPECT_NE(end.failure().find(text), std::string::npos) << end.failure();
      EXPECT_EQ(end.state("config"), LinkEnd::State::stale);
      EXPECT_EQ(dir->phyConfig("port"), port);
      EXPECT_EQ(port->refClock(), 5u) << "the mirror keeps what it had";
      EXPECT_EQ(dir->auditErrors(3), 0u);
   }
   Peer right(end);
   EXPECT_TRUE(right.tell()) << "a good one is welcome behind them";
   EXPECT_EQ(end.failure(), "");
}

TEST_F(Told, IdentifiersThatTurnAgainstTheirOwnersDoNoHarm) {
   // A directory that only the stream holds, and a member announced under the directory's own identifier.
   peer.announce("Hardware::ClariPhy::Cl10010ConfigDir", "orphan", Peer::id(3));
   announceMemberOf(Peer::id(3), "cuckoo", Peer::id(3));
   peer.record(Peer::id(3), 388, 1u);
   EXPECT_TRUE(peer.tell()) << end.failure();
   // The same for the root, and one member under two names.
   announceMember("twin", member);
   announceMember("cuckoo", root);
   announceMember("last", Peer::id(5));
   peer.grant(1, Peer::id(6));
   peer.grant(1, Peer::id(7));
   peer.record(Peer::id(6), 135, 2u);
   peer.out->control(Mounted{1, MountState::gone, MountMode::readOnly, Reason::gone, {}});
   peer.out->control(Mounted{1, MountState::gone, MountMode::readOnly, Reason::gone, {}});
   peer.out->control(Retire{root});
   peer.out->control(Retire{Peer::id(7)});
   peer.tell();
   EXPECT_EQ(dir->auditErrors(3), 0u);
   end.peerGone("enough");
   EXPECT_EQ(end.demuxer().footprint().mirrored, 0u);
}

TEST(Skew, AnEntityOfALaterTypeIsMirroredAsTheBaseThatIsKnown) {
   LinkEnd end("end");
   auto const port = end.mount<Cl10010Config>("port");
   Peer peer(end);
   peer.grant(1, Peer::id(1));
   recordOf(*peer.out, {.entity = orphanAnnouncement, .attribute = attr::orphan, .variable = 1}, Section{1},
            TypeId{"Later::Accelerator"}, TypeId{"Hardware::Spi::Accelerator"}, Section{2},
            std::string_view("what this side does not know"), Section{3}, std::string_view("spi"), Section{4},
            Peer::id(2));
   peer.record(Peer::id(2), 258, 400u);
   peer.record(Peer::id(2), 386, 1u); // of the level that this side lacks
   peer.record(Peer::id(2), 259, true);
   peer.record(Peer::id(1), 386, Peer::id(2));
   ASSERT_TRUE(peer.tell()) << end.failure();
   ASSERT_NE(port->spiAccel(), nullptr);
   EXPECT_EQ(port->spiAccel()->clockRate(), 400u);
   EXPECT_TRUE(port->spiAccel()->ready());
   EXPECT_EQ(end.demuxer().counters().unknownAttributes, 1u);
   EXPECT_EQ(end.demuxer().counters().unknownTypes, 0u);
}

/// A conversation with everything in it, as one side said it.
Bytes conversation() {
   LinkEnd left("left", 1);
   auto const config = make<Cl10010ConfigDir>("config");
   auto const status = make<Cl10010StatusDir>("status");
   left.exportRoot(config);
   left.exportRoot(status);
   Peer peer(left);
   peer.out->control(Mount{1, MountMode::readOnly, "config"});
   peer.out->control(Mount{2, MountMode::readOnly, "status"});
   Bytes said;
   auto const settle = [&] {
      peer.tell();
      for (auto bytes = left.bytesToSend(); !bytes.empty(); bytes = left.bytesToSend()) {
         said.insert(said.end(), bytes.begin(), bytes.end());
         left.bytesSent(bytes.size());
      }
   };
   auto const spi = make<Hardware::Spi::Accelerator>("spi");
   for (char const* const name : {"port-0", "port-1", "port-2", "port-1"}) {
      config->phyConfigDel(name);
      status->phyStatusDel(name);
      auto const port = config->phyConfigIs(name);
      port->calibrationIs(Xcvr::CfpxHostChannel::channel3, {1, 2, 3});
      port->spiAccelIs(spi);
      status->phyStatusIs(name, port, nullptr)->fecFramesInc(7);
      settle();
   }
   config->phyConfig("port-0")->calibrationDelAll();
   settle();
   return said;
}

TEST(Damage, AnyBytesEndInARecordASkipOrAClosedConnection) {
   Bytes const good = conversation();
   ASSERT_GT(good.size(), 2000u);
   // The frames, so that some damage stays inside of one and reaches what is behind the framing.
   std::vector<std::pair<std::size_t, std::size_t>> frames;
   for (std::size_t at = 0; at < good.size();) {
      std::size_t const size = 4 + (loadBigEndian<std::uint32_t>(good.data() + at) & frame::lengthMask);
      frames.emplace_back(at, size);
      at += size;
   }
   std::mt19937 random(20);
   auto const below = [&](std::size_t n) { return random() % n; };
   std::size_t survived = 0;
   for (int round = 0; round < 3000; ++round) {
      SCOPED_TRACE(round);
      Bytes bytes;
      bool const isWhole = round % 4 != 0; // leaves length words and tokens alone
      for (auto [at, size] : frames) {
         if (below(40) == 0) // another frame, once more, or none
            std::tie(at, size) = frames[below(frames.size())];
         Bytes one(good.begin() + static_cast<std::ptrdiff_t>(at),
                   good.begin() + static_cast<std::ptrdiff_t>(at + size));
         if (below(15) == 0 && size > 8)
            for (std::size_t flips = 1 + below(3); flips-- > 0;) {
               std::size_t const where = isWhole ? 4 + below(size - 5) : below(size);
               one[where] = static_cast<std::uint8_t>(below(3) == 0 ? random() : one[where] ^ (1u << below(8)));
            }
         bytes.insert(bytes.end(), one.begin(), one.end());
      }
      if (!isWhole)
         bytes.resize(below(bytes.size()));
      LinkEnd end("end");
      auto const mirror = end.mount<Cl10010ConfigDir>("config");
      auto const states = end.mount<Cl10010StatusDir>("status");
      end.connected();
      for (std::size_t at = 0; at < bytes.size();) {
         std::size_t const n = std::min(bytes.size() - at, 1 + below(2000));
         end.bytesArrived(std::span(bytes).subspan(at, n));
         auto const answer = end.bytesToSend();
         end.bytesSent(answer.size());
         at += n;
      }
      EXPECT_NE(end.isConnected(), !end.failure().empty()) << "closed with a reason, or open";
      survived += end.isConnected();
      ASSERT_EQ(mirror->auditErrors(4), 0u);
      ASSERT_EQ(states->auditErrors(4), 0u);
   }
   EXPECT_GT(survived, 100u) << "enough damage gets behind the framing";
}

} // namespace
} // namespace Mox::NboAttrLog
