// SPDX-License-Identifier: Apache-2.0
// Memory that fails once while a connection begins or ends, or in a call: nothing of it stays that has to be started anew to go.

#include "kestrel/net/UnixClient.h"
#include "kestrel/net/UnixPath.h"
#include "kestrel/net/UnixServer.h"

#include "kestrel/entities/Cl10010ConfigDir.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <vector>

namespace {

using namespace Mox;
using namespace std::chrono_literals;
using Hardware::ClariPhy::Cl10010ConfigDir;

/// A server and two clients that export the same root, which it mounts from one of them.
struct Scarce : testing::Test {
   template <class Done> bool until(Done done) {
      auto const end = std::chrono::steady_clock::now() + 10s; // for one that hangs
      while (!done() && std::chrono::steady_clock::now() < end)
         poll(1ms);
      return done();
   }
   void poll(std::chrono::milliseconds time) {
      server->pollOnce(time);
      first->pollOnce(time);
      second->pollOnce(time);
   }
   void begin() {
      first.reset(), second.reset(), server.reset();
      server.emplace(path, "server");
      server->mount<Cl10010ConfigDir>("config");
      first.emplace("first");
      second.emplace("second");
      for (auto* const client : {&first, &second}) {
         (*client)->exportRoot(make<Cl10010ConfigDir>("config"));
         (*client)->connect(path);
         ASSERT_TRUE(until([&] {
            return server->state("config") == LinkEnd::State::live && server->quiet() && (*client)->quiet() &&
                   server->peerCount() == (client == &first ? 1u : 2u);
         }));
      }
   }
   /// Allocation `skipped` fails. \return whether `call` returned
   template <class Call> bool without(std::size_t skipped, Call call) {
      NoMemory const once(true, skipped);
      bool isDone = false;
      try {
         call();
         isDone = true;
      } catch (std::bad_alloc const&) {
      }
      isOver = !NoMemory::hasFailed();
      return isDone;
   }

   PrivateFolder folder;
   std::string path = folder.path() + "/link";
   std::optional<UnixServer> server;
   std::optional<UnixClient> first, second;
   bool isOver = false;
};

TEST_F(Scarce, MemoryThatFailsAtAnEndKeepsNobodyFromHearingOfItAndTheRootFromNoOther) {
   for (bool const atServer : {true, false})
      for (std::size_t skipped = 0; skipped == 0 || !isOver; ++skipped) {
         SCOPED_TRACE((atServer ? "server, " : "client, ") + std::to_string(skipped) + " allocations before");
         ASSERT_NO_FATAL_FAILURE(begin());
         unsigned told = 0, live = 0;
         auto const count = [&](PeerEvent const& event) { told += event.kind == PeerEvent::Kind::lost; };
         server->onPeer(count);
         first->onPeer(count);
         server->onState([&](Name const&, LinkEnd::State state) { live += state == LinkEnd::State::live; });
         if (atServer)
            first->disconnect();
         without(skipped, [&] {
            if (!atServer)
               first->disconnect();
            else
               for (int i = 0; i < 3; ++i)
                  server->pollOnce(0ms);
         });
         ASSERT_TRUE(until([&] { return told == 2 && live == 1 && server->quiet(); }));
         EXPECT_EQ(server->peerCount(), 1u);
         EXPECT_FALSE(first->isConnected());
         first->connect(path);
         ASSERT_TRUE(until([&] { return server->peerCount() == 2 && server->quiet() && first->quiet(); }));
         EXPECT_EQ(server->auditErrors(), 0u);
      }
}

TEST_F(Scarce, MemoryThatFailsInACallOfAServersLeavesItUndoneOrDone) {
   auto const more = make<Cl10010ConfigDir>("more");
   Ptr<Cl10010ConfigDir> mirror;
   auto const isLive = [&] { return server->quiet() && server->state("config") == LinkEnd::State::live; };
   auto const isTold = [&] {
      return first->state("more") == LinkEnd::State::live && second->state("more") == LinkEnd::State::live;
   };
   auto const unmount = [&] { server->unmount("config"); };
   auto const mount = [&] { server->mountIs(mirror); };
   auto const exportRoot = [&] { server->exportRoot(more); };
   auto const exportDel = [&] { server->exportDel(more); };
   struct Case {
      char const* what;
      std::function<void()> before, call, again;
      std::function<bool()> isGood;
   };
   for (Case const& each : std::vector<Case>{
           {"export", [] {}, exportRoot, [] {}, isTold},
           {"its end", [&] { exportRoot(), until(isTold); }, exportDel, exportRoot, isTold},
           {"mount", unmount, mount, [] {}, isLive},
           {"unmount", [] {}, unmount, mount, isLive},
        })
      for (std::size_t skipped = 0; skipped == 0 || !isOver; ++skipped) {
         SCOPED_TRACE(each.what + (", the one that fails is allocation " + std::to_string(skipped)));
         ASSERT_NO_FATAL_FAILURE(begin());
         mirror = make<Cl10010ConfigDir>("config");
         for (auto* const client : {&first, &second})
            (*client)->mount<Cl10010ConfigDir>("more");
         poll(1ms);
         each.before();
         bool const isDone = without(skipped, each.call);
         EXPECT_NO_THROW(isDone ? void() : each.call());
         EXPECT_NO_THROW(each.again());
         ASSERT_TRUE(until(each.isGood));
         EXPECT_EQ(server->auditErrors(), 0u);
      }
}

} // namespace
