// SPDX-License-Identifier: Apache-2.0
// Who owns what a server mounts, while clients come and go.

#include "net/SocketException.h"
#include "net/UnixClient.h"
#include "net/UnixPath.h"
#include "net/UnixServer.h"

#include "Together.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDir.h"
#include "siblings/LedConfig.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include <unistd.h>

namespace {

using namespace Mox;
using namespace std::chrono_literals;
using namespace Hardware::ClariPhy;
using State = LinkEnd::State;

struct Owners : testing::Test {
   Owners() {
      server_.onPeer([this](PeerEvent const& event) { events_.push_back(event); });
      server_.onState([this](Name const&, State state) { states_.push_back(textOf(state)); });
   }
   template <class... Loops> void settle(Loops&... loops) {
      // More than once: what one has just said, another has not heard yet.
      int times = 0;
      auto const isQuiet = [&] {
         times = server_.quiet() && (loops.quiet() && ...) ? times + 1 : 0;
         return times == 4;
      };
      EXPECT_TRUE(together(isQuiet, server_, loops...));
      EXPECT_EQ(server_.auditErrors(), 0u);
   }

   PrivateFolder folder_;
   std::string path_ = folder_.path() + "/link";
   UnixServer server_{path_, "server"};
   std::vector<PeerEvent> events_;
   Log states_;
};

Ptr<Cl10010Config> portOf(Ptr<Cl10010ConfigPtrDir> const& references) {
   auto const* const entry = std::as_const(*references).phyConfig().find("port");
   return entry == nullptr ? nullptr : entry->value();
}

/// A client that exports a directory with one member.
struct Owner {
   Owner(char const* root, char const* member) : directory(make<Cl10010ConfigDir>(root)) {
      directory->phyConfigIs(member)->refClockIs(7);
      client.exportRoot(directory);
   }
   Ptr<Cl10010ConfigDir> directory;
   UnixClient client{"owner"};
};

/// \return what the environment says, for a longer run by hand
unsigned numberOf(char const* variable, unsigned usual) {
   char const* const text = std::getenv(variable);
   return text == nullptr ? usual : static_cast<unsigned>(std::stoul(text));
}

TEST_F(Owners, AllThatComeBackAtOnceAreMirroredAgain) {
   unsigned const clients = numberOf("OWNERS", 10), rounds = numberOf("ROUNDS", 5);
   std::vector<std::unique_ptr<Owner>> owners;
   std::vector<Ptr<Cl10010ConfigDir>> mirrors;
   std::vector<Ptr<Cl10010Config>> members;
   auto const settleAll = [&] {
      for (int quiet = 0, turn = 0; quiet < 4 && turn < 100'000; ++turn) {
         bool isQuiet = true;
         for (auto const& owner : owners)
            owner->client.pollOnce(0ms);
         server_.pollOnce(0ms);
         for (auto const& owner : owners)
            isQuiet = isQuiet && owner->client.quiet();
         quiet = isQuiet && server_.quiet() && server_.peerCount() == clients ? quiet + 1 : 0;
      }
      EXPECT_EQ(server_.auditErrors(), 0u);
      for (auto const& mirror : mirrors) {
         EXPECT_EQ(server_.state(mirror->name()), State::live) << mirror->name();
      }
   };
   for (unsigned i = 0; i < clients; ++i) {
      auto const name = "owner-" + std::to_string(i);
      owners.push_back(std::make_unique<Owner>(name.c_str(), "port"));
      mirrors.push_back(server_.mount<Cl10010ConfigDir>(Name(name)));
      owners.back()->client.connect(path_);
   }
   settleAll();
   for (auto const& mirror : mirrors)
      members.push_back(mirror->phyConfig("port"));
   for (unsigned round = 0; round < rounds; ++round) {
      for (auto const& owner : owners) {
         owner->client.disconnect();
         owner->directory->phyConfig("port")->refClockIs(8 + round);
         owner->client.connect(path_); // before the server has seen the end of the last one
      }
      settleAll();
   }
   for (unsigned i = 0; i < clients; ++i) {
      EXPECT_EQ(mirrors[i]->phyConfig("port"), members[i]) << "bound in place";
      EXPECT_EQ(members[i]->refClock(), 7 + rounds);
   }
   EXPECT_EQ(server_.footprint().stream.waiting, 0u);
}

TEST_F(Owners, AMountBelongsToWhoOpensItAndWhoSaysNothingIsNotWaitedFor) {
   server_.patienceIs(200ms);
   auto const mirror = server_.mount<Cl10010ConfigDir>("answers");
   int const silent = connectedSocket(path_);
   UnixClient tool("tool");
   tool.connect(path_);
   ASSERT_TRUE(together([&] { return server_.peerCount() == 2; }, server_, tool));
   EXPECT_FALSE(server_.quiet()) << "one has not answered";
   Owner real("answers", "port");
   real.client.connect(path_);
   ASSERT_TRUE(together([&] { return server_.state("answers") == State::live; }, server_, tool, real.client));
   EXPECT_EQ(mirror->phyConfig("port")->refClock(), 7u);
   ASSERT_TRUE(together([&] { return server_.peerCount() == 2; }, server_, tool, real.client));
   EXPECT_EQ(events_.back().kind, PeerEvent::Kind::lost);
   EXPECT_EQ(events_.back().peer, 1u);
   EXPECT_EQ(events_.back().reason, "expected a hello within 200 ms, got none");
   ::close(silent);
   settle(tool, real.client);

   // Its owner exports it no more: nobody does, until somebody does.
   states_.clear();
   real.client.exportDel(real.directory);
   settle(tool, real.client);
   EXPECT_EQ(states_, (Log{"stale", "syncing", "stale"})) << "the other one is asked meanwhile";
   EXPECT_EQ(server_.reason("answers"), "its owner exports it no more");
   auto const other = make<Cl10010ConfigDir>("answers");
   other->phyConfigIs("others");
   tool.exportRoot(other);
   settle(tool, real.client);
   EXPECT_EQ(server_.state("answers"), State::live);
   EXPECT_NE(mirror->phyConfig("others"), nullptr);
   EXPECT_EQ(mirror->phyConfig("port"), nullptr) << "swept";
   tool.disconnect();
   ASSERT_TRUE(together([&] { return server_.state("answers") == State::notExported; }, server_, real.client));
   EXPECT_EQ(server_.reason("answers"), "the peer exports no root of that name");
   EXPECT_NE(mirror->phyConfig("others"), nullptr) << "kept";
   real.client.disconnect();
   ASSERT_TRUE(together([&] { return server_.peerCount() == 0; }, server_));
   EXPECT_EQ(server_.state("answers"), State::stale);
   EXPECT_EQ(server_.reason("answers"), "the peer closed the connection");
   EXPECT_EQ(server_.counters().sweptEntries, 1u) << "of a client that has gone";
}

TEST_F(Owners, AMirrorStaysTheSameFromOwnerToOwnerAndSoDoesWhatRefersToIt) {
   auto const watched = make<Cl10010ConfigPtrDir>("watched");
   server_.exportRoot(watched);
   auto const mirror = server_.mount<Cl10010ConfigDir>("answers");
   Owner first("answers", "port"), second("answers", "port");
   auto const orphan = [](char const* name) { return make<Hardware::Dpll::PllStatus>(name); };
   first.directory->phyConfig("port")->pllStatusIs(orphan("pll"));
   second.directory->phyConfig("port")->pllStatusIs(orphan("pll"));
   auto const inFirst = first.client.mount<Cl10010ConfigPtrDir>("watched");
   auto const inSecond = second.client.mount<Cl10010ConfigPtrDir>("watched");
   first.client.connect(path_);
   settle(first.client);
   auto const port = mirror->phyConfig("port");
   auto const pll = port->pllStatus();
   ASSERT_NE(pll, nullptr);
   watched->phyConfigIs(port);
   second.client.connect(path_);
   settle(first.client, second.client);
   EXPECT_EQ(portOf(inFirst), first.directory->phyConfig("port")) << "the owner's own";
   ASSERT_NE(portOf(inSecond), nullptr);
   EXPECT_NE(portOf(inSecond), second.directory->phyConfig("port")) << "another's";

   Log told;
   auto const members = logged(mirror, Cl10010ConfigDir::Attr::phyConfig, told);
   for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(round);
      Owner& from = round % 2 == 0 ? first : second;
      Owner& to = round % 2 == 0 ? second : first;
      from.client.disconnect();
      ASSERT_TRUE(together([&] { return server_.state("answers") == State::live && server_.peerCount() == 1; }, server_,
                           to.client));
      settle(to.client);
      EXPECT_EQ(mirror->phyConfig("port"), port);
      EXPECT_EQ(port->pllStatus(), pll) << "bound in place";
      EXPECT_THROW(port->refClockIs(1), ReadOnlyException);
      auto const& inNew = &to == &first ? inFirst : inSecond;
      settle(to.client);
      EXPECT_EQ(portOf(inNew), to.directory->phyConfig("port")) << "its own, from now on";
      from.client.connect(path_);
      settle(first.client, second.client);
   }
   EXPECT_EQ(told, Log{});
   server_.unmount("answers");
   port->refClockIs(1); // an ordinary entity
   EXPECT_THROW(server_.state("answers"), RangeException);
   settle(first.client, second.client);
}

TEST_F(Owners, WhatCannotTravelIsRefusedAtTheCall) {
   auto const answers = server_.mount<Cl10010ConfigDir>("answers");
   EXPECT_THROW(server_.mount<Cl10010ConfigDir>("answers"), NameInUseException);
   EXPECT_THROW(server_.mountIs(nullptr), RangeException);
   UnixClient client;
   for (bool const isSecond : {false, true}) {
      EXPECT_THROW(server_.exportRoot(nullptr), RangeException);
      EXPECT_THROW(client.exportRoot(nullptr), RangeException);
      EXPECT_THROW(server_.exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
      EXPECT_THROW(client.exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
      if (!isSecond)
         server_.exportRoot(make<Cl10010ConfigDir>("config"));
   }
   client.connect(path_);
   settle(client);
   EXPECT_EQ(server_.state("answers"), State::notExported);
}

} // namespace
