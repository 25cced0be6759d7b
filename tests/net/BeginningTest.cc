// SPDX-License-Identifier: Apache-2.0
// A connection that can't be begun, for lack of memory, is none: on neither side does anything of it stay.

#include "net/UnixClient.h"
#include "net/UnixPath.h"
#include "net/UnixServer.h"

#include "entities/Cl10010ConfigDir.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

namespace {

using namespace Mox;
using namespace std::chrono_literals;
using Hardware::ClariPhy::Cl10010ConfigDir;

TEST(Beginning, ThatFindsNoMemoryLeavesRoomForTheNext) {
   for (bool const atServer : {true, false})
      for (std::size_t skipped = 0; skipped != 60; ++skipped) {
         SCOPED_TRACE((atServer ? "server, " : "client, ") + std::to_string(skipped) + " allocations before");
         PrivateFolder const folder;
         UnixServer server(folder.path() + "/link", "server");
         auto const root = make<Cl10010ConfigDir>("config");
         server.mountIs(root);
         UnixClient first("first"), second("second");
         auto const begin = [](auto call, std::size_t n) {
            NoMemory const once(true, n);
            try {
               call();
            } catch (std::bad_alloc const&) {
            }
         };
         auto const connect = [&](UnixClient& client) { client.connect(folder.path() + "/link"); };
         if (atServer) {
            connect(first);
            begin([&] { server.pollOnce(10ms); }, skipped);
         } else {
            begin([&] { connect(first); }, skipped);
            if (!first.isConnected())
               connect(first);
         }
         auto const theirs = make<Cl10010ConfigDir>("config");
         second.exportRoot(theirs);
         connect(second);
         auto const isWhole = [&] {
            return server.state("config") == LinkEnd::State::live && server.quiet() && second.quiet() &&
                   server.peerCount() == 1u + first.isConnected();
         };
         auto const end = std::chrono::steady_clock::now() + 60s; // for one that hangs
         while (!isWhole() && std::chrono::steady_clock::now() < end) {
            server.pollOnce(1ms);
            first.pollOnce(1ms);
            second.pollOnce(1ms);
         }
         EXPECT_TRUE(isWhole());
         EXPECT_EQ(server.auditErrors(), 0u);
      }
}

} // namespace
