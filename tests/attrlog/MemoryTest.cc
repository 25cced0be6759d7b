// SPDX-License-Identifier: Apache-2.0
// One allocation fails: whoever watches is told what has changed all the same, and the mirror has it.

#include "Told.h"
#include "kestrel/attrlog/LocalLink.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/notify/Dump.h"
#include "kestrel/notify/Observe.h"
#include "kestrel/siblings/Gpo.h"
#include "support/Allocations.h"
#include "support/Ends.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <vector>

namespace Mox {
namespace {

using namespace Hardware::ClariPhy;
using Xcvr::CfpxHostChannel;

/// A port, its mirror, and many who watch one of them.
struct Watched {
   LocalLink link;
   Ptr<Cl10010ConfigDir> const ours = make<Cl10010ConfigDir>("config");
   Ptr<Cl10010ConfigDir> theirs;
   Ptr<Cl10010Config> port = ours->phyConfigIs("port");
   std::vector<Watch> watches;
   unsigned told = 0;

   Watched(std::size_t count, bool atMirror) {
      port->calibrationIs(CfpxHostChannel::channel1, {1, 1, 1});
      link.left().exportRoot(ours);
      theirs = link.right().mount<Cl10010ConfigDir>("config");
      link.settle();
      auto const& watched = atMirror ? theirs : ours;
      for (std::size_t i = 0; i != count; ++i) {
         watches.push_back(onAny(watched, [this](Cl10010ConfigDir&, AttributeId) { ++told; }));
         watches.push_back(onAny(watched->phyConfig("port"), [this](Cl10010Config&, AttributeId) { ++told; }));
      }
   }
};

TEST(Memory, ThatFailsInAPassKeepsNobodyFromWhatHasChanged) {
   struct Change {
      char const* name;
      std::function<void(Watched&)> make;
   };
   std::vector<Change> const changes = {
      {"number", [](Watched& w) { w.port->refClockIs(5); }},
      {"text", [](Watched& w) { w.port->modelIs("a model whose name is long enough to be allocated"); }},
      {"entry",
       [](Watched& w) {
          w.port->calibrationIs(CfpxHostChannel::channel2, {2, 2, 2});
       }},
      {"entry that goes", [](Watched& w) { w.port->calibrationDel(CfpxHostChannel::channel1); }},
      {"member", [](Watched& w) { w.ours->phyConfigIs("another"); }},
      {"member that goes", [](Watched& w) { w.ours->phyConfigDel("port"); }},
   };
   for (Change const& change : changes)
      for (std::size_t const count : {1u, 40u})
         for (bool const atMirror : {false, true})
            for (std::size_t skipped = 0, isOver = 0; isOver == 0; ++skipped) {
               // In a thread that has made no pass yet: room that one needed stays.
               std::thread([&] {
                  Watched w(count, atMirror);
                  auto const before = dumpLines(*w.theirs);
                  bool const hasFailed = failingOnce(skipped, [&] {
                     change.make(w);
                     if (atMirror)
                        w.link.settle();
                  });
                  isOver = !hasFailed || skipped == 200;
                  w.link.settle();
                  if (!w.link.left().isConnected())
                     w.link.reconnect();
                  w.link.settle();
                  SCOPED_TRACE(std::string(change.name) + ", " + std::to_string(count) + " watches at the " +
                               (atMirror ? "mirror, " : "owner, ") + std::to_string(skipped) + " allocations before");
                  EXPECT_EQ(diff(*w.ours, *w.theirs).size(), 0u);
                  EXPECT_EQ(w.link.left().demuxer().audit() + w.link.right().demuxer().audit(), "");
                  EXPECT_EQ(w.told % count, 0u) << "some were told, and some were not";
                  EXPECT_EQ(w.told != 0, dumpLines(*w.theirs) != before);
               }).join();
            }
}

TEST(Memory, ThatFailsForAQuestionHasTheWholeEntityAskedForAndNothingElse) {
   bool hasFailed = true;
   for (std::size_t skipped = 0; hasFailed; ++skipped) {
      SCOPED_TRACE(skipped);
      Watched w(0, true);
      hasFailed = failingOnce(skipped, [&] {
         try {
            w.theirs->phyConfigDel("port");
         } catch (ReadOnlyException const&) {
         }
      });
      w.link.right().bytesToSend();
      EXPECT_EQ(w.link.right().demuxer().audit(), "");
      w.link.settle();
      EXPECT_EQ(diff(*w.ours, *w.theirs).size(), 0u);
      EXPECT_EQ(w.link.right().demuxer().footprint().untold, 0u);
   }
}

/// An exchange with everything that a link end does, of which one allocation fails. \return whether it came to that
bool exchanged(std::size_t skipped) {
   LocalLink link;
   auto const ours = make<Cl10010ConfigDir>("config");
   for (char const* name : {"a", "b", "c"}) {
      auto const port = ours->phyConfigIs(name);
      port->calibrationIs(CfpxHostChannel::channel1, {1, 1, 1});
      port->resetUcIs(make<Fru::Gpo>("reset"));
   }
   link.left().exportRoot(ours);
   auto theirs = make<Cl10010ConfigDir>("config");
   link.right().mountIs(theirs);
   std::vector<std::function<void()>> const phases = {
      [&] { link.settle(); },
      [&] { ours->phyConfig("a")->modelIs("a model whose name is long enough to be allocated"); },
      [&] { ours->phyConfigDel("b"); },
      [&] { ours->phyConfigIs("d"); },
      [&] { link.settle(); },
      [&] {
         if (auto const port = theirs->phyConfig("a"))
            port->refClockIs(7);
      },
      [&] { theirs->phyConfigDel("c"); },
      [&] { theirs->phyConfigIs("z"); },
      [&] { link.settle(); },
      [&] { link.cut(); },
      [&] { ours->phyConfigDel("d"); },
      [&] { link.reconnect(); },
      [&] { link.settle(); },
   };
   bool hasFailed = false;
   {
      NoMemory const once(true, skipped);
      for (auto const& phase : phases)
         try {
            phase();
         } catch (Exception const&) {
         } catch (std::bad_alloc const&) {
         }
      hasFailed = NoMemory::hasFailed();
   }
   if (!link.left().isConnected() || !link.right().isConnected()) {
      link.cut();
      link.reconnect();
   }
   link.settle();
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
   EXPECT_EQ(link.right().state("config"), LinkEnd::State::live);
   EXPECT_TRUE(link.left().quiet() && link.right().quiet());
   EXPECT_EQ(link.left().demuxer().audit() + link.right().demuxer().audit(), "");
   return hasFailed;
}

TEST(Memory, ThatFailsOnceAnywhereInAnExchangeLeavesBothSidesEqual) {
   for (std::size_t skipped = 0;; ++skipped) {
      SCOPED_TRACE(std::to_string(skipped) + " allocations before");
      if (!exchanged(skipped) || testing::Test::HasFailure())
         break;
   }
}

TEST(Memory, ThatFailsWhileARefusedDeletionIsAnsweredLosesNoWordOfIt) {
   bool hasFailed = true;
   for (std::size_t skipped = 0; hasFailed; ++skipped) {
      Watched w(0, true);
      Name const port("port"); // made here: whoever watches needs no memory
      bool isKnown = true;
      Watch const watch =
         onAny(w.theirs, [&](Cl10010ConfigDir& theirs, AttributeId) { isKnown = theirs.phyConfig(port) != nullptr; });
      EXPECT_THROW(w.theirs->phyConfigDel("port"), Exception);
      carry(w.link.right(), w.link.left());
      auto const bytes = w.link.left().bytesToSend();
      std::vector<std::uint8_t> const answer(bytes.begin(), bytes.end());
      w.link.left().bytesSent(answer.size());
      hasFailed = failingOnce(skipped, [&] { w.link.right().bytesArrived(answer); });
      w.ours->phyConfigDel("port"); // before its owner has been asked once more
      if (!w.link.right().isConnected()) {
         w.link.cut();
         w.link.reconnect();
      }
      w.link.settle();
      EXPECT_FALSE(isKnown) << skipped << " allocations before";
   }
}

TEST(Memory, ThatFailsForAnAnswerToThePeerMakesItWaitAndNotComeTwice) {
   LinkEnd end("end");
   NboAttrLog::Peer peer(end);
   constexpr std::size_t writes = 900; // more than the buffer has room to refuse
   for (std::size_t i = 0; i != writes; ++i)
      peer.record(EntityId::assigned(3, 0, 1), 388, 1u);
   ASSERT_TRUE(peer.tell());
   {
      NoMemory const once(true);
      EXPECT_NO_THROW(end.bytesToSend());
      EXPECT_TRUE(NoMemory::hasFailed());
   }
   EXPECT_FALSE(end.quiet());
   EXPECT_EQ(peer.heard().size(), writes);
}

TEST(Memory, ThatFailsInAnAnnouncementLosesNothingWhereThatComesOnceMoreUnasked) {
   bool hasFailed = true;
   for (std::size_t skipped = 0; hasFailed; ++skipped) {
      Watched w(0, false);
      w.ours->phyConfigIs("late")->refClockIs(5);
      auto const bytes = w.link.left().bytesToSend();
      std::vector<std::uint8_t> const told(bytes.begin(), bytes.end());
      w.link.left().bytesSent(told.size());
      hasFailed = failingOnce(skipped, [&] { w.link.right().bytesArrived(told); });
      w.ours->phyConfigNotify("late");
      carry(w.link.left(), w.link.right()); // before its owner has been asked for it
      if (!w.link.right().isConnected()) {
         w.link.cut();
         w.link.reconnect();
      }
      w.link.settle();
      EXPECT_EQ(diff(*w.ours, *w.theirs).size(), 0u) << skipped << " allocations before";
   }
}

TEST(Memory, ThatFailsInTheAnnouncementOfARootUnmountedMeanwhileEndsNoConnection) {
   struct Unmounted : NboAttrLog::Told {
      void TestBody() override {}
   };
   bool hasFailed = true;
   for (std::size_t skipped = 0; hasFailed; ++skipped) {
      Unmounted t;
      t.end.unmount("config");
      t.peer->announce("Hardware::ClariPhy::Cl10010ConfigDir", "config", Unmounted::root);
      std::vector<std::uint8_t> const bytes = NboAttrLog::bytesOf(*t.peer->out);
      {
         NoMemory const once(true, skipped);
         t.end.bytesArrived(bytes);
         hasFailed = NoMemory::hasFailed();
      }
      EXPECT_TRUE(t.end.isConnected()) << skipped << " allocations before: " << t.end.failure();
   }
}

} // namespace
} // namespace Mox
