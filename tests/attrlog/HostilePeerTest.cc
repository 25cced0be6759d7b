// SPDX-License-Identifier: Apache-2.0
// One end, and a peer that says what it should not, or what this side does not know yet.

#include "Told.h"
#include "kestrel/notify/Dump.h"
#include "kestrel/siblings/Accelerator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using C = Demuxer::Counters;

constexpr auto statusType = "Hardware::ClariPhy::Cl10010Status";

TEST_F(Told, WhatItCannotHoldIsCountedAndNamedAndTheConnectionGoesOn) {
   struct Case {
      char const* what;
      std::function<void()> say;
      U64 C::*counter;  ///< null where nothing is counted
      char const* text; ///< behind the stream and offset; null where nobody needs to be told
   };
   auto const record = [this](EntityId entity, std::int32_t attribute, auto... values) {
      return [=, this] { peer->record(entity, attribute, values...); };
   };
   auto const marker = [this](AttrTransactionType type) {
      return [=, this] { peer->out->transactionMarker(member, 389, type); };
   };
   constexpr auto bad = &C::badValues, noEnum = &C::unknownEnums, noAttribute = &C::unknownAttributes,
                  noType = &C::unknownTypes, stale = &C::staleRecords;
   constexpr auto nothing = static_cast<U64 C::*>(nullptr);
   auto const before = dumpLines(*dir);
   EXPECT_TRUE(std::is_sorted(before.begin(), before.end())) << "by path, also across the levels of a type";
   for (auto const& [what, say, counter, text] : std::vector<Case>{
           {"above the range", record(member, 394, 2.0F), bad, ", /config/port.rollOff (394): RollOff::value < "},
           {"an enumerator of later", record(member, 294, 99u), noEnum, ", /config/port.diagsMode (294): "},
           {"as a key", record(member, 389, 16u, 1u, 1u, 1u), noEnum, ", /config/port.calibration (389): "},
           {"neither true nor false", record(member, 303, std::uint8_t{2}), bad, "a truth value of 0 or 1, got 2"},
           {"half a value", record(member, 388, std::uint16_t{1}), bad, "4 bytes at byte 0 of the body, 2 are left"},
           {"a longer text", record(member, 261, 1000u), bad, "1000 bytes at byte 4 of the body, 0 are left"},
           {"one by name", record(refsRoot, 258, member), bad, "/refs.phyStatus (258): Entity is the wrong type"},
           {"a reference", record(member, 392, root), bad, "pllStatus (392): Entity is the wrong type: /config"},
           {"an attribute of later", record(member, 511, 1u), noAttribute, nullptr},
           {"a record of a kind of later",
            [&] { recordOf(*peer->out, {.entity = member, .attribute = 388, .variable = 1, .kind = 77}); },
            &C::unknownKinds, nullptr},
           {"a marker of no type", marker(static_cast<AttrTransactionType>(9)), bad, "marker type 9"},
           {"an end without a begin", marker(AttrTransactionType::end), nothing, nullptr},
           {"an identifier that nobody announced", record(Peer::id(40), 388, 1u), stale, nullptr},
           {"a member in a record for values",
            [&] { peer->record(root, 258, std::string_view("another"), Peer::id(5)); }, bad, "kind 0, expected 151"},
           {"a member too short for its identifier", [&] { peer->member(root, 395, "fan"); }, bad, ""},
           {"a write to what this side owns", record(EntityId::assigned(3, 0, 1), 388, 1u), &C::refusedWrites,
            ": write-update from readonly proxy refused"},
           {"a type of later", [&] { peer->announce("Later::Thing", "x", Peer::id(5)); }, noType,
            ": entity of unknown type Later::Thing"},
           {"an orphan without parameters", [&] { peer->announce(statusType, "x", Peer::id(6)); }, bad,
            ": orphan announcement: "},
           {"a section longer than its record", record(orphanAnnouncement, attr::orphan, true, 99u), bad,
            "expected 99 bytes"},
        }) {
      SCOPED_TRACE(what);
      U64 const count = counter == nullptr ? 0 : end.counters().*counter;
      peer->reports.clear();
      say();
      ASSERT_TRUE(peer->tell()) << end.failure();
      if (counter != nullptr) {
         EXPECT_EQ(end.counters().*counter, count + 1);
      }
      ASSERT_EQ(peer->reports.size(), text == nullptr ? 0u : 1u) << testing::PrintToString(peer->reports);
      if (text != nullptr) {
         EXPECT_TRUE(peer->reports[0].starts_with("stream \"end\", offset ")) << peer->reports[0];
         EXPECT_NE(peer->reports[0].find(text), std::string::npos) << peer->reports[0];
      }
      EXPECT_EQ(diff(before, dumpLines(*dir)).size(), 0u) << "the last good value stands";
   }
   peer->record(member, 388, 6u);
   peer->tell();
   EXPECT_EQ(port->refClock(), 6u);
}

TEST_F(Told, WhatBreaksTheProtocolEndsTheConnectionAndKeepsTheMirror) {
   struct Case {
      char const* what;
      std::function<void()> say;
      char const* text;
   };
   auto const announced = [this](EntityId id, std::int32_t attribute = 258) {
      return [=, this] { peer->member(root, attribute, "more", id); };
   };
   constexpr EntityId ours = EntityId::assigned(5, 0, 1);
   constexpr std::uint32_t past = Demuxer::highestSlot + 1;
   for (auto const& [what, say, text] : std::vector<Case>{
           {"this side's identifier", announced(ours), "not an identifier of the announcing side"},
           {"the reserved one", announced(orphanAnnouncement), "not an identifier of the announcing side"},
           {"a slot far ahead", announced(Peer::id(5000)), "expected a slot below "},
           {"one in a collection of later", announced(Peer::id(5000), 395), "expected a slot below "},
           {"a slot in use", announced(Peer::id(2, 2)), "the slot is in use under generation 1"},
           {"a generation used before",
            [&] {
               announced(Peer::id(5, 5))();
               peer->out->control(Retire{Peer::id(5, 5)});
               announced(Peer::id(5, 5))();
            },
            "the slot has been used up to generation 5"},
           {"a root under this side's identifier", [&] { peer->grant(1, ours); }, "announcing side"},
           {"a retirement of what is not its own", [&] { peer->out->control(Retire{ours}); }, "which is not its own"},
           {"a record of a slot past all", [&] { peer->record(Peer::id(past), 388, 1u); }, "expected up to 16777215"},
           {"an acknowledgement too many", [&] { peer->out->control(Acknowledgement{1}); }, "acknowledges 1"},
        }) {
      SCOPED_TRACE(what);
      connect();
      say();
      EXPECT_FALSE(peer->tell());
      EXPECT_TRUE(end.failure().starts_with("stream \"end\", offset ")) << end.failure();
      EXPECT_NE(end.failure().find(text), std::string::npos) << end.failure();
      EXPECT_EQ(end.state("config"), LinkEnd::State::stale);
      EXPECT_EQ(dir->phyConfig("port"), port);
      EXPECT_EQ(port->refClock(), 5u) << "the mirror keeps what it had";
      EXPECT_EQ(dir->auditErrors(3), 0u);
   }
   connect();
   EXPECT_EQ(end.failure(), "") << "a good one is welcome behind them";
}

/// A peer with a later schema: what this side can't make takes its identifiers all the same.
TEST_F(Told, MembersThatCannotBeMadeKeepTheirIdentifiers) {
   std::uint32_t slot = nextSlot;
   auto const announced = [&](auto... body) {
      for (int i = 0; i < 100; ++i)
         peer->member(body..., Peer::id(slot++));
      ASSERT_TRUE(peer->tell()) << end.failure();
   };
   announced(member, 395, "fan"); // past the level's last attribute
   announced(Peer::id(nextSlot), 258, "blade");
   announced(statusRoot, 258, "of parameters that don't fit", root, root);
   EXPECT_EQ(end.counters().unknownAttributes, 100u);
   EXPECT_EQ(end.counters().unknownTypes, 100u);
   EXPECT_EQ(end.counters().badValues, 100u);
   peer->out->control(Retire{Peer::id(nextSlot)});
   peer->member(root, 258, "in its slot", Peer::id(nextSlot, 2));
   peer->member(root, 258, "behind them", Peer::id(slot));
   ASSERT_TRUE(peer->tell()) << end.failure();
   EXPECT_NE(dir->phyConfig("in its slot"), nullptr);
   EXPECT_NE(dir->phyConfig("behind them"), nullptr);
}

TEST_F(Told, AnEntityOfALaterTypeIsMirroredAsTheBaseThatIsKnown) {
   EntityId const spi = Peer::id(nextSlot);
   peer->record(orphanAnnouncement, attr::orphan, Section{1}, TypeId{"Later::Accelerator"},
                TypeId{"Hardware::Spi::Accelerator"}, TypeId{"Fru::Gpo"}, Section{2}, std::string_view("of later"),
                Section{3}, std::string_view("spi"), 7u, Section{4}, spi);
   peer->record(spi, 258, 400u);
   peer->record(spi, 386, 1u); // of the level that this side lacks
   peer->record(spi, 259, true);
   peer->record(member, 386, spi);
   ASSERT_TRUE(peer->tell()) << end.failure();
   ASSERT_NE(port->spiAccel(), nullptr);
   EXPECT_EQ(port->spiAccel()->name(), "spi");
   EXPECT_EQ(port->spiAccel()->clockRate(), 400u);
   EXPECT_TRUE(port->spiAccel()->ready());
   EXPECT_EQ(end.counters().unknownAttributes, 1u);
   // So is a root.
   peer.emplace(end);
   peer->grant(1, root);
   peer->record(orphanAnnouncement, attr::orphan, Section{1}, TypeId{"Later::ConfigDir"},
                TypeId{"Hardware::ClariPhy::Cl10010ConfigDir"}, Section{3}, std::string_view("config"), Section{4},
                root);
   peer->record(root, attr::syncMode, 1u);
   ASSERT_TRUE(peer->tell()) << end.failure();
   EXPECT_EQ(end.state("config"), LinkEnd::State::live) << end.reason("config");
}

TEST(Damage, EndsInARecordASkipOrAClosedConnection) {
   std::mt19937 random(20);
   auto const below = [&](std::size_t n) { return random() % n; };
   auto const truth = make<Cl10010ConfigDir>("config");
   for (char const* const name : {"a", "b", "c", "d", "e"})
      truth->phyConfigIs(name)->spiAccelIs(make<Hardware::Spi::Accelerator>(name));
   std::size_t survived = 0;
   for (int round = 0; round < 3000; ++round) {
      SCOPED_TRACE(round);
      LinkEnd owner("owner"), damaged("damaged");
      owner.exportRoot(truth);
      auto const mirror = damaged.mount<Cl10010ConfigDir>("config");
      owner.connected();
      damaged.connected();
      owner.bytesArrived(damaged.bytesToSend());
      auto const said = owner.bytesToSend();
      Bytes bytes(said.begin(), said.end());
      for (std::size_t hits = below(4); hits != 0; --hits)
         bytes[below(bytes.size())] ^= static_cast<std::uint8_t>(1 + below(255));
      damaged.bytesArrived(std::span(bytes).first(bytes.size() - below(50)));
      EXPECT_NE(damaged.isConnected(), !damaged.failure().empty()) << "closed with a reason, or open";
      survived += damaged.isConnected();
      ASSERT_EQ(mirror->auditErrors(4), 0u);
   }
   EXPECT_GT(survived, 100u) << "enough damage gets behind the framing";
}

} // namespace
} // namespace Mox::NboAttrLog
