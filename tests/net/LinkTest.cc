// SPDX-License-Identifier: Apache-2.0
#include "net/SocketException.h"
#include "net/UnixClient.h"
#include "net/UnixPath.h"
#include "net/UnixServer.h"

#include "Together.h"
#include "attrlog/Out.h"
#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Mox;
using namespace std::chrono_literals;
using namespace Hardware::ClariPhy;

float rollOffOf(Ptr<Cl10010ConfigDir> const& directory, char const* name) {
   auto const config = directory->phyConfig(name);
   return config ? float(config->rollOff()) : -1;
}

class UnixLink : public testing::Test {
protected:
   UnixLink() {
      server_.onPeer([this](PeerEvent const& event) { events_.push_back(event); });
   }

   PrivateFolder folder_;
   std::string path_ = folder_.path() + "/link";
   UnixServer server_{path_, "server"};
   std::vector<PeerEvent> events_;
};

TEST_F(UnixLink, OneServerFeedsManyClientsAndMirrorsTheFirst) {
   auto const ours = make<Cl10010ConfigDir>("config");
   ours->phyConfigIs("before")->rollOffIs(0.1F);
   server_.exportRoot(ours);
   auto const fromClient = server_.mount<Cl10010ConfigDir>("answers");

   auto const answers = make<Cl10010ConfigDir>("answers");
   UnixClient first("first"), second("second");
   first.exportRoot(answers);
   auto const inFirst = first.mount<Cl10010ConfigDir>("config");
   auto const inSecond = second.mount<Cl10010ConfigDir>("config");
   first.connect(path_);
   second.connect(path_);
   EXPECT_THROW(second.connect(path_), InternalException) << "it is connected";

   ASSERT_TRUE(together([&] { return rollOffOf(inSecond, "before") == 0.1F; }, server_, first, second));
   ours->phyConfigIs("after")->rollOffIs(0.7F);
   ours->phyConfigDel("before");
   answers->phyConfigIs("mine")->rollOffIs(0.9F);
   ASSERT_TRUE(together(
      [&] {
         return rollOffOf(inFirst, "after") == 0.7F && rollOffOf(inSecond, "after") == 0.7F &&
                rollOffOf(fromClient, "mine") == 0.9F && server_.quiet() && first.quiet() && second.quiet();
      },
      server_, first, second));
   EXPECT_EQ(rollOffOf(inSecond, "before"), -1);

   // Far more than a socket takes at once.
   for (int i = 0; i < 5000; ++i)
      ours->phyConfigIs(Name("port-" + std::to_string(i)))->refClockIs(static_cast<std::uint32_t>(i));
   ASSERT_TRUE(together([&] { return server_.quiet(); }, server_, first, second));
   EXPECT_EQ(inSecond->phyConfig("port-4999")->refClock(), 4999u);
}

TEST_F(UnixLink, BytesThatAreNoLinkEndThatConnectionAlone) {
   auto const ours = make<Cl10010ConfigDir>("config");
   server_.exportRoot(ours);
   UnixClient good("good");
   auto const mirror = good.mount<Cl10010ConfigDir>("config");
   good.connect(path_);
   ASSERT_TRUE(together([&] { return good.state("config") == LinkEnd::State::live; }, server_, good));

   int const raw = connectedSocket(path_);
   ASSERT_EQ(::write(raw, "GET / HTTP/1.0\r\n\r\n", 18), 18);
   ASSERT_TRUE(
      together([&] { return !events_.empty() && events_.back().kind == PeerEvent::Kind::lost; }, server_, good));
   EXPECT_NE(events_.back().reason.find("expected"), std::string::npos) << events_.back().reason;
   EXPECT_EQ(events_.back().process, static_cast<unsigned long>(::getpid()));
   char byte;
   while (::read(raw, &byte, 1) > 0) {
   }
   ::close(raw);

   ours->phyConfigIs("port");
   EXPECT_TRUE(together([&] { return mirror->phyConfig("port") != nullptr; }, server_, good));
   EXPECT_EQ(server_.peerCount(), 1u);
}

TEST_F(UnixLink, ProcessOfAnotherUserIsRefusedAlsoWhereTheFileSystemLetsItIn) {
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
      client.mount<Cl10010ConfigDir>("config");
      client.waitUntil([&] { return !lost.empty(); }, 10s);
      // It learns why, and nothing else.
      auto const expected = "refused by the peer: \"process " + std::to_string(::getpid()) +
                            " of user 65534 refused: expected this user or root\"";
      ::_exit(lost == expected && !client.isConnected() ? 0 : 2);
   }
   ASSERT_TRUE(server_.waitUntil([&] { return !events_.empty(); }, 10s));
   EXPECT_EQ(events_[0].kind, PeerEvent::Kind::refused);
   EXPECT_EQ(events_[0].reason,
             "process " + std::to_string(child) + " of user 65534 refused: expected this user or root");
   EXPECT_EQ(server_.peerCount(), 0u);
   int status = -1;
   ::waitpid(child, &status, 0);
   EXPECT_EQ(status, 0);
}

TEST_F(UnixLink, AClientIsToldOfTheEndAndWhyAlsoWhereItCannotWriteAnyMore) {
   // A server by hand, which refuses and hangs up before the client has written all that it has to say.
   std::string const path = folder_.path() + "/other";
   auto bound = std::make_optional<BoundSocket>(path);
   int const listening = bound->duplicate();
   UnixClient client("client");
   std::vector<PeerEvent> events;
   client.onPeer([&](PeerEvent const& event) { events.push_back(event); });
   client.connect(path);
   int const accepted = ::accept(listening, nullptr, nullptr);
   auto const words = LinkEnd::refusal("server", "not today");
   ASSERT_EQ(::write(accepted, words.data(), words.size()), static_cast<ssize_t>(words.size()));
   ::close(accepted);
   ::close(listening);
   bound.reset();
   auto const mirror = client.mount<Cl10010ConfigDir>("config"); // to be asked for
   client.waitUntil([&] { return events.size() > 1; }, 10s);
   ASSERT_EQ(events.size(), 2u);
   EXPECT_EQ(events[1].kind, PeerEvent::Kind::lost);
   EXPECT_EQ(events[1].reason, "refused by the peer: \"not today\"");
   EXPECT_EQ(client.state("config"), LinkEnd::State::stale);
   EXPECT_FALSE(client.isConnected());
   EXPECT_FALSE(client.pollOnce(10s)) << "nothing is left to wait for";

   for (bool const byPeer : {false, true}) {
      auto server = std::make_unique<UnixServer>(path);
      events.clear();
      client.connect(path);
      ASSERT_TRUE(together([&] { return server->peerCount() == 1 && client.quiet(); }, *server, client));
      EXPECT_EQ(client.state("config"), LinkEnd::State::notExported);
      if (byPeer)
         server.reset();
      else
         client.disconnect();
      ASSERT_TRUE(client.waitUntil([&] { return events.size() == 2; }, 10s));
      EXPECT_EQ(events[1].kind, PeerEvent::Kind::lost);
      EXPECT_EQ(events[1].process, static_cast<unsigned long>(::getpid()));
      EXPECT_EQ(events[1].reason, byPeer ? "the peer closed the connection" : "closed by this side");
      EXPECT_EQ(client.reason("config"), events[1].reason);
   }
   EXPECT_EQ(client.auditErrors(), 0u);
}

} // namespace
