// SPDX-License-Identifier: Apache-2.0
// A server and its clients: who is let in, who owns what the server mounts, and what each is told of the others' end.

#include "kestrel/net/SocketException.h"
#include "kestrel/net/UnixClient.h"
#include "kestrel/net/UnixPath.h"
#include "kestrel/net/UnixServer.h"

#include "kestrel/attrlog/Out.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010ConfigPtrDir.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/siblings/LedConfig.h"
#include "kestrel/siblings/PllStatus.h"
#include "support/Allocations.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Mox;
using namespace std::chrono_literals;
using namespace Hardware::ClariPhy;
using State = LinkEnd::State;
using Kind = PeerEvent::Kind;

/// A server in a folder of its own.
struct Server {
   /// Polls all in turn until `done()`.
   template <class Done, class... Loops> bool until(Done done, Loops&... loops) {
      auto const end = std::chrono::steady_clock::now() + 60s; // for one that hangs
      while (!done() && std::chrono::steady_clock::now() < end) {
         server_.pollOnce(1ms);
         (loops.pollOnce(1ms), ...);
      }
      return done();
   }

   PrivateFolder folder_;
   std::string path_ = folder_.path() + "/link";
   UnixServer server_{path_, "server"};
};

/// And who has come and gone there.
struct Served : testing::Test, Server {
   Served() {
      server_.onPeer([this](PeerEvent const& event) {
         events_.push_back(event);
         EXPECT_THROW(server_.pollOnce(0ms), InternalException) << "from inside a poll";
      });
      server_.onState([this](Name const&, State state) { states_.push_back(textOf(state)); });
   }
   template <class... Loops> void settle(Loops&... loops) {
      // More than once: what one has just said, another has not heard yet.
      int times = 0;
      while (times < 4 && until([&] { return server_.quiet() && (loops.quiet() && ...); }, loops...)) {
         server_.pollOnce(0ms);
         (loops.pollOnce(0ms), ...);
         ++times;
      }
      EXPECT_EQ(times, 4);
      EXPECT_EQ(server_.auditErrors(), 0u);
      EXPECT_EQ(std::adjacent_find(states_.begin(), states_.end()), states_.end()) << "a state that stays is not told";
   }

   std::vector<PeerEvent> events_;
   Log states_;
};

/// A client that owns a directory with one member, and sees what the server says of that member.
struct Owner {
   Owner() {
      auto const port = directory->phyConfigIs("port");
      port->refClockIs(7);
      port->pllStatusIs(make<Hardware::Dpll::PllStatus>("pll"));
      client.exportRoot(directory);
   }
   Ptr<Cl10010Config> watchedPort() const {
      auto const* const entry = std::as_const(*watched).phyConfig().find("port");
      return entry == nullptr ? nullptr : entry->value();
   }
   Ptr<Cl10010ConfigDir> directory = make<Cl10010ConfigDir>("answers");
   UnixClient client{"owner"};
   Ptr<Cl10010ConfigPtrDir> watched = client.mount<Cl10010ConfigPtrDir>("watched");
};

TEST_F(Served, ManyClientsMirrorTheSameAndOneThatSpeaksAnotherTongueEndsAlone) {
   auto const ours = make<Cl10010ConfigDir>("config");
   ours->phyConfigIs("before");
   server_.exportRoot(ours);
   EXPECT_THROW(server_.exportRoot(nullptr), RangeException);
   EXPECT_THROW(server_.exportRoot(make<Hardware::Led::LedConfig>("led")), TypeException);
   UnixClient first("first"), second("second");
   auto const inFirst = first.mount<Cl10010ConfigDir>("config");
   auto const inSecond = second.mount<Cl10010ConfigDir>("config");
   first.connect(path_);
   second.connect(path_);
   EXPECT_THROW(second.connect(path_), InternalException) << "it is connected";
   settle(first, second);
   ASSERT_NE(inSecond->phyConfig("before"), nullptr);

   int const raw = connectedSocket(path_);
   ASSERT_EQ(::write(raw, "GET / HTTP/1.0\r\n\r\n", 18), 18);
   ASSERT_TRUE(until([&] { return events_.back().kind == Kind::lost; }, first, second));
   EXPECT_NE(events_.back().reason.find("expected a hello"), std::string::npos) << events_.back().reason;
   EXPECT_EQ(events_.back().process, static_cast<unsigned long>(::getpid()));
   ::close(raw);

   // Far more than a socket takes at once.
   for (std::uint32_t i = 0; i < 5000; ++i)
      ours->phyConfigIs(Name("port-" + std::to_string(i)))->refClockIs(i);
   ours->phyConfigDel("before");
   settle(first, second);
   for (auto const& mirror : {inFirst, inSecond}) {
      EXPECT_EQ(mirror->phyConfig("port-4999")->refClock(), 4999u);
      EXPECT_EQ(mirror->phyConfig("before"), nullptr);
   }
   EXPECT_EQ(server_.peerCount(), 2u);
}

TEST_F(Served, ProcessOfAnotherUserIsRefusedAlsoWhereTheFileSystemLetsItIn) {
   if (::geteuid() != 0)
      GTEST_SKIP() << "only root can become another user";
   std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
   std::filesystem::permissions(path_, std::filesystem::perms(0666));
   pid_t const child = ::fork();
   if (child == 0) {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0)
         ::_exit(1);
      UnixClient client("stranger");
      client.connect(path_);
      std::string lost;
      client.onPeer([&](PeerEvent const& event) { lost = event.reason; });
      client.waitUntil([&] { return !lost.empty(); }, 10s);
      // It learns why, and nothing else.
      auto const expected = "refused by the peer: \"process " + std::to_string(::getpid()) +
                            " of user 65534 refused: expected this user or root\"";
      ::_exit(lost == expected && !client.isConnected() ? 0 : 2);
   }
   ASSERT_TRUE(server_.waitUntil([&] { return !events_.empty(); }, 10s));
   EXPECT_EQ(events_[0].kind, Kind::refused);
   EXPECT_EQ(events_[0].reason,
             "process " + std::to_string(child) + " of user 65534 refused: expected this user or root");
   EXPECT_EQ(server_.peerCount(), 0u);
   int status = -1;
   ::waitpid(child, &status, 0);
   EXPECT_EQ(status, 0);
}

TEST_F(Served, AClientIsToldOfTheEndAndWhyAlsoWhereItCannotWriteAnyMore) {
   // A server by hand, which refuses and hangs up before the client has written all that it has to say.
   auto bound = std::make_unique<BoundSocket>(folder_.path() + "/other");
   int const listening = bound->duplicate();
   UnixClient client("client");
   std::vector<PeerEvent> events;
   client.onPeer([&](PeerEvent const& event) { events.push_back(event); });
   client.connect(bound->path());
   int const accepted = ::accept(listening, nullptr, nullptr);
   auto const words = LinkEnd::refusal("server", "not today");
   ASSERT_EQ(::write(accepted, words.data(), words.size()), static_cast<ssize_t>(words.size()));
   ::close(accepted);
   ::close(listening);
   bound.reset();
   auto const mirror = client.mount<Cl10010ConfigDir>("config"); // to be asked for
   // Longer than the clock goes.
   ASSERT_TRUE(client.waitUntil([&] { return events.size() == 2; }, std::chrono::milliseconds::max()));
   EXPECT_EQ(events[1].kind, Kind::lost);
   EXPECT_EQ(events[1].reason, "refused by the peer: \"not today\"");
   EXPECT_EQ(client.reason("config"), events[1].reason);
   EXPECT_EQ(client.state("config"), State::stale);
   EXPECT_FALSE(client.pollOnce(10s)) << "nothing is left to wait for";
}

TEST_F(Served, AMountBelongsToWhoOpensItAndWhoSaysNothingIsNotWaitedFor) {
   server_.patienceIs(200ms);
   auto const mirror = server_.mount<Cl10010ConfigDir>("answers");
   int const silent = connectedSocket(path_);
   UnixClient tool("tool");
   tool.connect(path_);
   ASSERT_TRUE(until([&] { return server_.peerCount() == 2; }, tool));
   EXPECT_FALSE(server_.quiet()) << "one has not answered";
   Owner real;
   real.client.connect(path_);
   ASSERT_TRUE(until([&] { return server_.state("answers") == State::live; }, tool, real.client));
   auto const port = mirror->phyConfig("port");
   ASSERT_TRUE(until([&] { return server_.peerCount() == 2; }, tool, real.client));
   EXPECT_EQ(events_.back().peer, 1u);
   EXPECT_EQ(events_.back().reason, "expected a hello within 200 ms, got none");
   ::close(silent);

   // It comes back before the server has seen the end of the last connection.
   real.client.disconnect();
   real.directory->phyConfig("port")->refClockIs(8);
   real.client.connect(path_);
   settle(tool, real.client);
   EXPECT_EQ(server_.state("answers"), State::live);
   EXPECT_EQ(mirror->phyConfig("port"), port) << "bound in place";
   EXPECT_EQ(port->refClock(), 8u);

   // Its owner exports it no more: nobody does, until somebody does.
   states_.clear();
   real.client.exportDel(real.directory);
   settle(tool, real.client);
   EXPECT_EQ(states_, (Log{"stale", "syncing", "stale"})) << "the other one is asked meanwhile";
   EXPECT_EQ(server_.reason("answers"), "its owner exports it no more");
   auto const other = make<Cl10010ConfigDir>("answers");
   tool.exportRoot(other);
   settle(tool, real.client);
   EXPECT_EQ(server_.state("answers"), State::live);
   EXPECT_EQ(mirror->phyConfig("port"), nullptr) << "swept";
   tool.disconnect();
   ASSERT_TRUE(until([&] { return server_.state("answers") == State::notExported; }, real.client));
   real.client.disconnect();
   ASSERT_TRUE(until([&] { return server_.peerCount() == 0; }));
   EXPECT_EQ(server_.state("answers"), State::stale);
   EXPECT_EQ(server_.reason("answers"), "the peer closed the connection");
   EXPECT_EQ(server_.counters().sweptEntries, 1u) << "of a client that has gone";
}

TEST_F(Served, AMirrorStaysTheSameFromOwnerToOwnerAndSoDoesWhatRefersToIt) {
   auto const watched = make<Cl10010ConfigPtrDir>("watched");
   server_.exportRoot(watched);
   auto const mirror = server_.mount<Cl10010ConfigDir>("answers");
   Owner first, second;
   first.client.connect(path_);
   settle(first.client);
   auto const port = mirror->phyConfig("port");
   auto const pll = port->pllStatus();
   watched->phyConfigIs(port);
   second.client.connect(path_);
   settle(first.client, second.client);
   EXPECT_EQ(first.watchedPort(), first.directory->phyConfig("port")) << "the owner's own";
   ASSERT_NE(second.watchedPort(), nullptr);
   EXPECT_NE(second.watchedPort(), second.directory->phyConfig("port")) << "another's";

   Log told;
   auto const members = logged(mirror, Cl10010ConfigDir::Attr::phyConfig, told);
   for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(round);
      Owner& from = round % 2 == 0 ? first : second;
      Owner& to = round % 2 == 0 ? second : first;
      from.client.disconnect();
      ASSERT_TRUE(
         until([&] { return server_.state("answers") == State::live && server_.peerCount() == 1; }, to.client));
      settle(to.client);
      EXPECT_EQ(mirror->phyConfig("port"), port);
      EXPECT_EQ(port->pllStatus(), pll) << "bound in place";
      EXPECT_THROW(port->refClockIs(1), ReadOnlyException);
      EXPECT_EQ(to.watchedPort(), to.directory->phyConfig("port")) << "its own, from now on";
      from.client.connect(path_);
      settle(first.client, second.client);
   }
   EXPECT_EQ(told, Log{});
}

/// A connection that can't be begun, for lack of memory, is none: on neither side does anything of it stay.
TEST(Beginning, ThatFindsNoMemoryLeavesRoomForTheNext) {
   for (bool const atServer : {true, false})
      for (std::size_t skipped = 0; skipped != 60; ++skipped) {
         SCOPED_TRACE((atServer ? "server, " : "client, ") + std::to_string(skipped) + " allocations before");
         Server s;
         auto const root = s.server_.mount<Cl10010ConfigDir>("answers");
         UnixClient client("client");
         if (atServer) {
            client.connect(s.path_);
            failingOnce(skipped, [&] { s.server_.pollOnce(10ms); });
         } else {
            failingOnce(skipped, [&] { client.connect(s.path_); });
            if (!client.isConnected())
               client.connect(s.path_);
         }
         Owner owner;
         owner.client.connect(s.path_);
         auto const isWhole = [&] {
            return s.server_.state("answers") == State::live && s.server_.quiet() && owner.client.quiet() &&
                   s.server_.peerCount() == 1u + client.isConnected();
         };
         EXPECT_TRUE(s.until(isWhole, client, owner.client));
         EXPECT_EQ(s.server_.auditErrors(), 0u);
      }
}

/// Under a sanitizer: nothing of the server has gone while reactors are told.
TEST_F(Served, AServerIsWholeWhileItTellsWhatItsMirrorsOwe) {
   std::string const path = folder_.path() + "/going";
   auto server = std::make_unique<UnixServer>(path);
   UnixClient clients[2];
   std::vector<Ptr<Cl10010Config>> mirrors;
   for (std::string const name : {"first", "second"}) {
      UnixClient& client = clients[mirrors.size()];
      auto const ours = make<Cl10010ConfigDir>(Name(name));
      ours->phyConfigIs("port");
      client.exportRoot(ours);
      auto const theirs = server->mount<Cl10010ConfigDir>(Name(name));
      client.connect(path);
      ASSERT_TRUE(until([&] { return server->state(Name(name)) == State::live; }, *server, client));
      mirrors.push_back(theirs->phyConfig("port"));
   }
   UnixServer& going = *server;
   unsigned told = 0;
   std::vector<Watch> watches;
   for (auto const& mirror : mirrors) {
      EXPECT_THROW(mirror->refClockIs(77), ReadOnlyException);
      watches.push_back(on(mirror, Cl10010Config::Attr::refClock, [&](Cl10010Config&) {
         EXPECT_EQ(going.state("first"), State::live);
         EXPECT_EQ(going.footprint().mounts, 4u + told);
         going.exportRoot(make<Cl10010ConfigDir>(Name("more-" + std::to_string(told))));
         going.mount<Cl10010ConfigDir>(Name("more-" + std::to_string(told)));
         ++told;
      }));
   }
   server.reset();
   EXPECT_EQ(told, 2u);
}

TEST_F(Served, AnEndsNameFitsIntoItsHello) {
   std::string const longest(255, 'n'), tooLong(256, 'n');
   EXPECT_THROW(UnixClient{tooLong}, RangeException);
   EXPECT_THROW(UnixServer(folder_.path() + "/named", tooLong), RangeException);
   EXPECT_FALSE(std::filesystem::exists(folder_.path() + "/named"));
   UnixClient client(longest);
   client.connect(path_);
   settle(client);
}

} // namespace
