// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Peer.h"
#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusPtrDir.h"

#include <gtest/gtest.h>

#include <optional>

namespace Mox::NboAttrLog {

/// An end with mirrors whose owner is played by hand: a directory with a port, told in full and live, and two more, empty.
struct Told : testing::Test {
   using ConfigDir = Hardware::ClariPhy::Cl10010ConfigDir;
   static constexpr EntityId root = Peer::id(1), member = Peer::id(2), refsRoot = Peer::id(3), statusRoot = Peer::id(4);
   static constexpr std::uint32_t nextSlot = 5;

   LinkEnd end{"end"};
   Ptr<ConfigDir> dir = end.mount<ConfigDir>("config");
   Ptr<Hardware::ClariPhy::Cl10010StatusPtrDir> refs = end.mount<Hardware::ClariPhy::Cl10010StatusPtrDir>("refs");
   Ptr<Hardware::ClariPhy::Cl10010StatusDir> statuses = end.mount<Hardware::ClariPhy::Cl10010StatusDir>("status");
   std::optional<Peer> peer;
   Ptr<Hardware::ClariPhy::Cl10010Config> port;
   Lines states;

   Told() {
      end.onState(
         [this](Name const& name, LinkEnd::State state) { states.push_back(name.str() + " " + textOf(state)); });
      connect();
      port = dir->phyConfig("port");
      EXPECT_EQ(end.state("config"), LinkEnd::State::live);
   }
   /// A new connection, on which all is told as on the one before.
   void connect() {
      peer.emplace(end);
      tell(root, member);
      peer->grant(2, refsRoot);
      peer->grant(3, statusRoot);
      peer->record(refsRoot, 135, 1u);
      peer->record(statusRoot, 135, 1u);
      EXPECT_TRUE(peer->tell()) << end.failure();
      peer->heard();
      states.clear();
   }
   void tell(EntityId directory, EntityId entry) {
      peer->grant(1, directory);
      peer->announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", directory);
      peer->record(directory, 135, 2u);
      peer->out->transactionMarker(directory, 258, AttrTransactionType::begin);
      peer->member(directory, 258, "port", entry);
      peer->out->transactionMarker(directory, 258, AttrTransactionType::end);
      peer->record(directory, 135, 1u);
      peer->record(entry, 388, 5u);
      peer->record(entry, 135, 1u);
   }
};

} // namespace Mox::NboAttrLog
