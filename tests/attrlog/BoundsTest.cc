// SPDX-License-Identifier: Apache-2.0
// What an end holds, and what it does, however often something changes: memory by its formula, work by the change.

#include "Peer.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigPtrDir.h"
#include "entities/Cl10010StatusDir.h"
#include "siblings/Gpo.h"
#include "siblings/PllStatus.h"
#include "support/Allocations.h"
#include "support/Ends.h"

#include <gtest/gtest.h>

#include <ctime>

namespace Mox::NboAttrLog {
namespace {

using namespace Hardware::ClariPhy;
using Hardware::Dpll::PllStatus;
using State = LinkEnd::State;

/// What one record may need in front of it here: markers and announcements under short names.
constexpr std::size_t group = 1024;

Name numbered(char const* what, int i) {
   return Name(what + std::to_string(i));
}

/// Every kind of root between two ends; the right one has taken back what `waitingPll` and `waitingMember` mirror.
struct Bounds : testing::Test {
   LinkEnd left{"left", 1}, right{"right", 2};
   Ptr<Cl10010ConfigDir> ours = make<Cl10010ConfigDir>("config"), mirror;
   Ptr<Cl10010ConfigPtrDir> refs = make<Cl10010ConfigPtrDir>("refs");
   Ptr<Cl10010ConfigDir> yours = make<Cl10010ConfigDir>("yours"), yoursHere;
   Ptr<Cl10010Config> port, waitingMember;
   Ptr<PllStatus> waitingPll;

   Bounds() {
      auto const gone = make<Cl10010ConfigDir>("gone");
      auto const pll = make<PllStatus>("pll");
      gone->phyConfigIs("waits");
      port = ours->phyConfigIs("port");
      yours->phyConfigIs("port")->refClockIs(5);
      left.exportRoot(ours);
      left.exportRoot(refs);
      for (Ptr<Entity> const& root : {Ptr<Entity>(gone), Ptr<Entity>(pll), Ptr<Entity>(yours)})
         right.exportRoot(root);
      mirror = right.mount<Cl10010ConfigDir>("config");
      right.mount<Cl10010ConfigPtrDir>("refs");
      yoursHere = left.mount<Cl10010ConfigDir>("yours");
      waitingPll = left.mount<PllStatus>("pll");
      auto const goneHere = left.mount<Cl10010ConfigDir>("gone");
      reconnect();
      waitingMember = goneHere->phyConfig("waits");
      cut();
      right.exportDel(pll);
      right.exportDel(gone);
      reconnect();
      EXPECT_EQ(left.state("yours"), State::live);
      EXPECT_EQ(right.state("config"), State::live);
   }
   void settle() { settleEnds(left, right); }
   void cut() {
      left.peerGone("cut");
      right.peerGone("cut");
   }
   void reconnect() {
      left.connected();
      right.connected();
      settle();
   }
   Demuxer::Footprint footprint() { return left.demuxer().footprint(); }
   /// Nothing of the left end is carried, and its buffer is full.
   void stall() {
      left.demuxer().out()->markIs(512);
      for (int i = 0; i < 100 && left.demuxer().takesNow(); ++i)
         port->refClockIs(port->refClock() + 1);
      EXPECT_FALSE(left.demuxer().takesNow());
   }
};

using Step = std::function<void(int)>;

/// Runs `step` so often that what it left behind each time would be seen.
void expectFlat(Step const& step, int times = 2000) {
   std::size_t early = 0, half = 0;
   for (int i = 0; i < times; ++i) {
      step(i);
      if (i == times / 10)
         early = liveBytes();
      if (i == times / 2)
         half = liveBytes();
   }
   EXPECT_LE(half, early + 4096) << "bytes after a half, and after a tenth";
   EXPECT_LE(liveBytes(), early + 4096) << "bytes at the end, and after a tenth";
}

TEST_F(Bounds, ChangesBesideALivePeerLeaveNothingBehind) {
   auto const extra = make<Cl10010ConfigDir>("extra");
   extra->phyConfigIs("x")->resetUcIs(make<Fru::Gpo>("gpo"));
   auto const extraThere = right.mount<Cl10010ConfigDir>("extra");
   struct Case {
      char const* what;
      Step step;
   };
   for (Case const& each : std::vector<Case>{
           {"a reference to a mirror that waits, told between",
            [&](int i) {
               port->pllStatusIs(i % 2 == 0 ? waitingPll : nullptr);
               settle();
            }},
           {"a reference to a mirror that waits",
            [&](int i) {
               port->pllStatusIs(i % 2 == 0 ? waitingPll : nullptr);
               if (i % 50 == 0)
                  settle();
            }},
           {"an entry that refers to a mirror that waits",
            [&](int i) {
               if (i % 2 == 0)
                  refs->phyConfigIs(waitingMember);
               else
                  refs->phyConfigDel("waits");
               settle();
            }},
           {"members under ever new names, with what they refer to",
            [&](int i) {
               ours->phyConfigIs(numbered("member ", i))->resetUcIs(make<Fru::Gpo>("gpo"));
               settle();
               ours->phyConfigDel(numbered("member ", i));
               settle();
            }},
           {"a member that is replaced raw",
            [&](int i) {
               ours->newPhyConfig("raw");
               if (i % 3 == 0)
                  ours->phyConfigNotify("raw");
               if (i % 7 == 0)
                  settle();
            }},
           {"writes that are refused",
            [&](int i) {
               EXPECT_THROW(yoursHere->phyConfig("port")->refClockIs(100 + static_cast<unsigned>(i)),
                            ReadOnlyException);
               EXPECT_THROW(yoursHere->phyConfigIs("mine"), ReadOnlyException);
               if (i % 2 == 0) {
                  EXPECT_THROW(yoursHere->phyConfigDel("port"), ReadOnlyException);
               }
               settle();
            }},
           {"refused writes to members that the owner deletes",
            [&](int i) {
               yours->phyConfigIs(numbered("member ", i));
               settle();
               EXPECT_THROW(yoursHere->phyConfig(numbered("member ", i))->refClockIs(1), ReadOnlyException);
               yours->phyConfigDel(numbered("member ", i));
               settle();
            }},
           {"a root that comes and goes",
            [&](int i) {
               if (i % 2 == 0)
                  left.exportRoot(extra);
               else
                  left.exportDel(extra);
               settle();
            }},
           {"a mount that comes and goes",
            [&](int i) {
               if (i % 2 == 0)
                  left.unmount("yours");
               else
                  left.mountIs(yoursHere);
               settle();
            }},
        }) {
      SCOPED_TRACE(each.what);
      expectFlat(each.step);
      port->pllStatusIs(nullptr);
      refs->phyConfigDelAll();
      settle();
      EXPECT_EQ(footprint().parked, 0u);
      expectEqual(*ours, *mirror);
   }
}

TEST_F(Bounds, ChangesTowardsAPeerThatDoesNotReadLeaveOneNoteEach) {
   struct Case {
      char const* what;
      Step step;
   };
   for (Case const& each : std::vector<Case>{
           {"a root that comes and goes",
            [&](int i) {
               if (i % 2 == 0)
                  left.exportDel(refs);
               else
                  left.exportRoot(refs);
            }},
           {"a mount that comes and goes",
            [&](int i) {
               if (i % 2 == 0)
                  left.unmount("yours");
               else
                  yoursHere = left.mount<Cl10010ConfigDir>("yours");
            }},
           {"members under ever new names",
            [&](int i) {
               ours->phyConfigIs(numbered("member ", i));
               ours->phyConfigDel(numbered("member ", i));
            }},
           {"a known member, deleted and made again",
            [&](int) {
               ours->phyConfigDel("port");
               port = ours->phyConfigIs("port");
            }},
           {"a raw one in its place",
            [&](int i) {
               port = ours->newPhyConfig("port");
               if (i % 3 == 0)
                  ours->phyConfigNotify("port");
            }},
           {"references to ever new orphans", [&](int) { port->resetUcIs(make<Fru::Gpo>("gpo")); }},
           {"a reference to a mirror that waits",
            [&](int i) {
               port->pllStatusIs(i % 2 == 0 ? waitingPll : nullptr);
               if (i % 2 == 0)
                  refs->phyConfigIs(waitingMember);
               else
                  refs->phyConfigDel("waits");
            }},
           {"writes that are refused",
            [&](int i) {
               EXPECT_THROW(yoursHere->phyConfigIs("mine")->refClockIs(static_cast<unsigned>(i)), ReadOnlyException);
               EXPECT_THROW(yoursHere->phyConfigDel("mine"), ReadOnlyException);
            }},
        }) {
      SCOPED_TRACE(each.what);
      settle();
      EXPECT_EQ(left.state("yours"), State::live);
      stall();
      std::size_t most = 0;
      expectFlat([&](int i) {
         each.step(i);
         if (i % 3 == 0)
            left.bytesToSend();
         if (i % 5 == 0)
            carry(right, left); // which still writes
         most = std::max(most, footprint().bufferBytes);
         EXPECT_LE(footprint().parked, 2u);
         EXPECT_LE(footprint().dirtyKeys, 2 * (ours->phyConfig().size() + refs->phyConfig().size()) + 2 * 64);
         EXPECT_EQ(auditOf(left.demuxer()), "");
      });
      EXPECT_LE(most, 512 + group);
      left.demuxer().out()->markIs(Out::defaultMark);
      port->pllStatusIs(nullptr);
      refs->phyConfigDelAll();
      settle();
      expectEqual(*ours, *mirror);
      expectEqual(*yours, *yoursHere);
   }
}

/// What a peer asks for without reading the answers ends it, or takes no more room.
TEST_F(Bounds, APeerThatAsksAndDoesNotReadCostsLittle) {
   cut();
   struct Case {
      char const* what;
      std::function<void(Peer&, int)> say;
   };
   for (auto const& [what, say] : std::vector<Case>{
           {"writes", [](Peer& peer, int) { peer.record(EntityId::assigned(1, 0, 1), 388, 1u); }},
           {"mounts of what nobody exports",
            [](Peer& peer, int i) {
               peer.out->control(
                  Mount{100 + static_cast<std::uint32_t>(i), MountMode::readOnly, "nothing " + std::to_string(i)});
            }},
           {"mounts under one name",
            [](Peer& peer, int i) {
               peer.out->control(Mount{100 + static_cast<std::uint32_t>(i), MountMode::readOnly, "config"});
            }},
           {"a mount that comes and goes",
            [](Peer& peer, int i) {
               peer.out->control(Mount{100 + static_cast<std::uint32_t>(i), MountMode::readOnly, "config"});
               peer.out->control(Unmount{100 + static_cast<std::uint32_t>(i)});
            }},
           {"refreshes",
            [](Peer& peer, int) {
               peer.out->control(Refresh{EntityId::assigned(1, 0, 1), 258, {}});
               peer.out->control(Refresh{EntityId::assigned(1, 0, 1), 258, std::string_view("\0\0\0\4port", 8)});
            }},
           {"pings", [](Peer& peer, int i) { peer.out->control(Ping{static_cast<U64>(i)}); }},
           {"records, each to be acknowledged", [](Peer& peer, int) { peer.record(Peer::id(40), 388, 1u); }},
           {"orphans that it takes back",
            [](Peer& peer, int i) {
               auto const id = Peer::id(40, static_cast<std::uint32_t>(i) + 1);
               peer.announce("Fru::Gpo", "gpo", id);
               peer.out->control(Retire{id});
            }},
        }) {
      SCOPED_TRACE(what);
      Peer peer(left);
      peer.out->control(Mount{1, MountMode::readOnly, "config"});
      ASSERT_TRUE(peer.tell());
      left.bytesToSend();
      auto const before = liveBytes();
      std::size_t most = 0;
      for (int i = 0; i < 20000 && left.isConnected(); ++i) {
         peer.reports.clear();
         say(peer, i);
         peer.tell();
         left.bytesToSend();
         most = std::max(most, footprint().bufferBytes);
      }
      EXPECT_LE(most, 2 * Out::defaultMark) << "bytes that wait for the peer";
      EXPECT_LE(liveBytes(), before + 8 * Out::defaultMark);
      EXPECT_EQ(auditOf(left.demuxer()), "");
      left.peerGone("enough");
   }
}

TEST_F(Bounds, BytesThatAreAskedForAndNotCarriedStayAsTheyAre) {
   ours->phyConfigIs("more")->resetUcIs(make<Fru::Gpo>("gpo"));
   EXPECT_THROW(yoursHere->phyConfigDel("port"), ReadOnlyException);
   port->pllStatusIs(waitingPll);
   auto const offered = left.bytesToSend();
   Bytes const first(offered.begin(), offered.end());
   for (int i = 0; i < 2000; ++i) {
      auto const again = left.bytesToSend();
      ASSERT_EQ(hex(again), hex(first)) << i;
   }
   // Records that come in meanwhile are owed one acknowledgement.
   auto const before = footprint().bufferBytes;
   for (int i = 0; i < 2000; ++i) {
      yours->phyConfig("port")->refClockIs(static_cast<unsigned>(i));
      carry(right, left);
      left.bytesToSend();
   }
   EXPECT_LE(footprint().bufferBytes, before + 2 * 64);
   settle();
   expectEqual(*yours, *yoursHere);
   EXPECT_TRUE(right.quiet());
}

TEST_F(Bounds, DirtyKeysStayBelowTwiceTheMembers) {
   auto const dirty = [&] {
      auto const keys = footprint().dirtyKeys;
      EXPECT_LE(keys, 2 * ours->phyConfig().size() + 64);
      return keys;
   };
   for (int i = 0; i < 1000; ++i)
      ours->phyConfigIs(numbered("member ", i));
   settle();
   auto const& counters = left.demuxer().counters();
   // Some of many that are deleted and made again: those are told, and no other.
   stall();
   auto const records = left.demuxer().out()->recordsWritten();
   for (int i = 0; i < 10; ++i) {
      ours->phyConfigDel(numbered("member ", i));
      ours->phyConfigIs(numbered("member ", i));
      dirty();
   }
   EXPECT_EQ(counters.collectionRestarts, 0u);
   left.demuxer().out()->markIs(Out::defaultMark);
   settle();
   EXPECT_LT(left.demuxer().out()->recordsWritten() - records, 500u) << "ten members, each with all that it has";
   expectEqual(*ours, *mirror);
   // Names that the peer has never heard of leave none behind.
   stall();
   for (int i = 0; i < 3000; ++i) {
      ours->phyConfigIs(numbered("passing ", i));
      dirty();
      ours->phyConfigDel(numbered("passing ", i));
   }
   EXPECT_LE(dirty(), 1u);
   // Every member marked, then deleted one after the other, with as many new ones.
   std::size_t most = 0;
   for (int i = 0; i < 1000; ++i)
      ours->phyConfigNotify(numbered("member ", i));
   for (int i = 0; i < 1000; ++i) {
      ours->phyConfigDel(numbered("member ", i));
      ours->phyConfigIs(numbered("another ", i % 300));
      most = std::max(most, dirty());
   }
   EXPECT_GE(most, 1000u);
   EXPECT_GE(counters.collectionRestarts, 1u);
   left.demuxer().out()->markIs(Out::defaultMark);
   settle();
   expectEqual(*ours, *mirror);
   // More than fit their limit, and nothing else.
   stall();
   auto const restarts = counters.collectionRestarts;
   for (int i = 0; i < 300; ++i) {
      ours->phyConfigDel(numbered("another ", i));
      dirty();
   }
   EXPECT_GT(counters.collectionRestarts, restarts);
   auto const before = left.demuxer().out()->recordsWritten();
   left.demuxer().out()->markIs(Out::defaultMark);
   settle();
   EXPECT_LT(left.demuxer().out()->recordsWritten() - before, 150u);
   expectEqual(*ours, *mirror);
   EXPECT_EQ(mirror->phyConfig().size(), 1u);
}

TEST_F(Bounds, WhateverIsOwedAtOnceTheBufferTakesOneGroupAboveItsMark) {
   constexpr int many = 1000;
   auto& out = *left.demuxer().out();
   out.markIs(4096);
   auto const statuses = make<Cl10010StatusDir>("statuses");
   left.exportRoot(statuses);
   auto const statusesThere = right.mount<Cl10010StatusDir>("statuses");
   settle();
   cut(); // the buffer's highest level starts again with the connection
   struct Case {
      char const* what;
      std::function<void(int)> act;
   };
   for (auto const& [what, act] : std::vector<Case>{
           {"members", [&](int i) { ours->phyConfigIs(numbered("member ", i))->resetUcIs(make<Fru::Gpo>("gpo")); }},
           {"what members are made with",
            [&](int i) { statuses->phyStatusIs(numbered("status ", i), make<Cl10010Config>("orphan"), nullptr); }},
           {"the loss of references", [&](int i) { ours->phyConfig(numbered("member ", i))->resetUcIs(nullptr); }},
           {"deletions",
            [&](int i) {
               ours->phyConfigDel(numbered("member ", i));
               statuses->phyStatusDel(numbered("status ", i));
            }},
        })
      for (bool const isApart : {false, true}) {
         SCOPED_TRACE(what);
         SCOPED_TRACE(isApart ? "while apart" : "live");
         if (left.isConnected() == isApart)
            isApart ? cut() : reconnect();
         for (int i = isApart ? many / 2 : 0; i < (isApart ? many : many / 2); ++i) {
            act(i);
            ASSERT_LE(out.pendingBytes(), out.mark() + group);
         }
         if (isApart)
            reconnect();
         else
            settle();
         EXPECT_LE(out.highWater(), out.mark() + group);
         expectEqual(*ours, *mirror);
         expectEqual(*statuses, *statusesThere);
      }
}

TEST_F(Bounds, TablesShrinkWithWhatTheyHold) {
   auto const before = footprint();
   constexpr int many = 20000;
   for (int i = 0; i < many; ++i)
      ours->phyConfigIs(numbered("member ", i));
   settle();
   EXPECT_GE(footprint().slots, static_cast<std::size_t>(many));
   for (int i = 0; i < many; ++i)
      ours->phyConfigDel(numbered("member ", i));
   settle();
   ours->phyConfigIs("behind them");
   settle();
   EXPECT_EQ(footprint().announced, before.announced + 1);
   EXPECT_LT(footprint().slots, static_cast<std::size_t>(many) / 4);
   EXPECT_LT(right.demuxer().footprint().slots, static_cast<std::size_t>(many) / 4);
   EXPECT_LT(left.demuxer().out()->capacity(), 4 * Out::defaultMark);
}

/// Work is bounded by what has changed: eight times as much takes about eight times as long, never near sixty-four.
TEST_F(Bounds, WorkGrowsWithWhatChangesAndNotWithItsSquare) {
   auto const settleFast = [&] { settleEnds(left, right, 0); }; // an audit looks at everything
   using Members = std::vector<Ptr<Cl10010Config>>;
   struct Case {
      char const* what;
      int few;
      std::function<void(int n)> prepare;
      std::function<void(int n)> act; ///< what is measured
   };
   Members here;
   auto const fill = [&](int n) {
      here.clear();
      ours->phyConfigDelAll();
      yours->phyConfigDelAll();
      port = ours->phyConfigIs("port");
      settleFast();
      for (int i = 0; i < n; ++i)
         ours->phyConfigIs(numbered("member ", i));
      settleFast();
   };
   auto const deleteAll = [&](int n) {
      for (int i = 0; i < n; ++i)
         ours->phyConfigDel(numbered("member ", i));
   };
   std::vector<Ptr<Fru::Gpo>> gpos;
   for (Case const& each : std::vector<Case>{
           {"a reconnect behind deletions", 500,
            [&](int n) {
               fill(n);
               cut();
               deleteAll(n);
            },
            [&](int) {
               left.connected();
               right.connected();
               settleFast();
            }},
           {"a reconnect with orphans", 500,
            [&](int n) {
               fill(n);
               for (int i = 0; i < n; ++i)
                  ours->phyConfig(numbered("member ", i))->resetUcIs(make<Fru::Gpo>(numbered("gpo ", i)));
               settleFast();
               cut();
            },
            [&](int) {
               left.connected();
               right.connected();
               settleFast();
            }},
           {"deletions one after the other", 500,
            [&](int n) {
               fill(n);
               for (int i = 0; i < n; ++i)
                  yours->phyConfigIs(numbered("member ", i)); // beside which it happens
               settleFast();
            },
            [&](int n) {
               for (int i = 0; i < n; ++i) {
                  ours->phyConfigDel(numbered("member ", i));
                  if (i % 4 == 0)
                     settleFast();
               }
               settleFast();
            }},
           {"refused writes", 2500,
            [&](int n) {
               fill(0);
               for (int i = 0; i < n; ++i)
                  yours->phyConfigIs(numbered("member ", i));
               settleFast();
               for (int i = 0; i < n; ++i)
                  here.push_back(yoursHere->phyConfig(numbered("member ", i)));
            },
            [&](int n) {
               for (int i = 0; i < n; ++i)
                  EXPECT_THROW(here[static_cast<std::size_t>(i)]->refClockIs(7), ReadOnlyException);
               for (int i = 0; i < n; ++i)
                  EXPECT_THROW(yoursHere->phyConfigDel(numbered("member ", i)), ReadOnlyException);
               settleFast();
            }},
           {"names made behind a backlog", 2500,
            [&](int) {
               fill(0);
               stall();
            },
            [&](int n) {
               for (int i = 0; i < n; ++i)
                  ours->phyConfigIs(numbered("member ", i));
               left.demuxer().out()->markIs(Out::defaultMark);
               settleFast();
            }},
           {"members that are announced again", 1500,
            [&](int n) {
               fill(n);
               for (int i = 0; i < n; ++i)
                  refs->phyConfigIs(ours->phyConfig(numbered("member ", i)));
               settleFast();
            },
            [&](int) {
               left.exportDel(ours);
               left.exportRoot(ours);
               settleFast();
               refs->phyConfigDelAll();
               settleFast();
            }},
        }) {
      SCOPED_TRACE(each.what);
      auto const cost = [&](int count, int rounds) {
         double least = 1e9;
         while (rounds-- > 0) {
            each.prepare(count);
            auto const start = std::clock();
            each.act(count);
            least = std::min(least, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
            here.clear();
            left.demuxer().out()->markIs(Out::defaultMark);
            settleFast();
         }
         return least;
      };
      double const few = cost(each.few, 3), many = cost(8 * each.few, 1);
      EXPECT_LT(many, 24 * few) << "seconds for " << 8 * each.few << " and for " << each.few;
      if (std::getenv("SHOW_COSTS")) {
         std::printf("%-36s %8.4f %8.4f  %5.1f\n", each.what, few, many, many / few);
         std::fflush(stdout);
      }
   }
}

} // namespace
} // namespace Mox::NboAttrLog
