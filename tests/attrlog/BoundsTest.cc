// SPDX-License-Identifier: Apache-2.0
// What an end holds, and what it does, however often something changes: memory by its formula, work by the change.

#include "Directories.h"
#include "kestrel/siblings/PllStatus.h"
#include "support/Allocations.h"

#include <ctime>

namespace Mox::NboAttrLog {
namespace {

using Hardware::Dpll::PllStatus;
using Xcvr::CfpxHostChannel;

/// The right end exports a directory too, and has taken back what `waiting` mirrors.
struct Bounds : Directories {
   Ptr<Cl10010ConfigDir> yours = make<Cl10010ConfigDir>("yours"), yoursHere = left.mount<Cl10010ConfigDir>("yours");
   Ptr<PllStatus> waiting = left.mount<PllStatus>("pll");

   Bounds() {
      auto const pll = make<PllStatus>("pll");
      yours->phyConfigIs("port");
      right.exportRoot(yours);
      right.exportRoot(pll);
      settle();
      cut();
      right.exportDel(pll);
      reconnect();
      settle();
      EXPECT_EQ(left.state("yours"), State::live);
   }
   Demuxer::Footprint footprint() { return left.demuxer().footprint(); }
};

/// Runs `step` so often that what it left behind each time would be seen.
void expectFlat(std::function<void(unsigned)> const& step) {
   std::size_t early = 0;
   for (unsigned i = 0; i < 2000; ++i) {
      step(i);
      if (i == 200)
         early = liveBytes();
   }
   EXPECT_LE(liveBytes(), early + 4096) << "bytes at the end, and after a tenth";
}

TEST_F(Bounds, ChangesLeaveNothingBehindWhetherThePeerReadsOrNot) {
   constexpr std::size_t mark = 512, group = 1024;
   bool reads = true;
   auto const tell = [&] {
      if (reads)
         settle();
   };
   struct Case {
      char const* what;
      std::function<void(unsigned)> step;
   };
   for (Case const& each : std::vector<Case>{
           {"a reference to a mirror that waits",
            [&](unsigned i) { port->pllStatusIs(i % 2 == 0 ? waiting : nullptr); }},
           {"members under ever new names, with what they refer to",
            [&](unsigned i) {
               ours->phyConfigIs(numbered("member ", i))->resetUcIs(make<Fru::Gpo>("gpo"));
               tell();
               ours->phyConfigDel(numbered("member ", i));
            }},
           {"a known member, deleted and made again, or replaced raw",
            [&](unsigned i) {
               if (i % 2 == 0)
                  ours->phyConfigDel("port");
               port = i % 2 == 0 ? ours->phyConfigIs("port") : ours->newPhyConfig("port");
               if (i % 4 != 1)
                  ours->phyConfigNotify("port");
            }},
           {"writes that are refused, also to what the owner deletes",
            [&](unsigned i) {
               yours->phyConfigIs("passing");
               tell();
               if (auto const member = yoursHere->phyConfig(i % 2 == 0 ? "passing" : "port")) {
                  EXPECT_THROW(member->refClockIs(100 + i), ReadOnlyException);
               }
               EXPECT_THROW(yoursHere->phyConfigIs("mine"), ReadOnlyException);
               EXPECT_THROW(yoursHere->phyConfigDel("mine"), ReadOnlyException);
               yours->phyConfigDel("passing");
            }},
           {"a root that comes and goes",
            [&](unsigned i) { i % 2 == 0 ? left.exportDel(refs) : left.exportRoot(refs); }},
           {"a mount that comes and goes",
            [&](unsigned i) { i % 2 == 0 ? left.unmount("yours") : left.mountIs(yoursHere); }},
        })
      for (bool const isRead : {true, false}) {
         SCOPED_TRACE(each.what);
         SCOPED_TRACE(isRead);
         reads = isRead;
         if (!reads)
            stall(mark);
         std::size_t most = 0;
         expectFlat([&](unsigned i) {
            each.step(i);
            tell();
            if (i % 3 == 0)
               left.bytesToSend();
            if (i % 5 == 0)
               carry(right, left); // which still writes
            most = std::max(most, footprint().bufferBytes);
            EXPECT_LE(footprint().parked, 1u);
         });
         EXPECT_LE(most, (reads ? Out::defaultMark : mark) + group);
         reads = true;
         port->pllStatusIs(nullptr);
         resume();
         expectSame();
         expectEqual(*yours, *yoursHere);
      }
}

/// Whatever a peer asks for without reading the answers, as long as it may, is owed once.
TEST_F(Bounds, APeerThatAsksAndDoesNotReadCostsLittle) {
   cut();
   Peer peer(left);
   peer.out->control(Mount{1, MountMode::readOnly, "config"});
   ASSERT_TRUE(peer.tell());
   std::size_t before = 0;
   for (std::uint32_t i = 2; i < 10000; ++i) {
      peer.out->control(Mount{i, MountMode::readOnly, "refs"});
      peer.out->control(Unmount{i});
      peer.out->control(Ping{i});
      peer.out->control(Refresh{EntityId::assigned(1, 0, 1), 258, {}});
      peer.out->control(Refresh{EntityId::assigned(1, 0, 1), 258, std::string_view("\0\0\0\4port", 8)});
      peer.record(Peer::id(40), 388, 1u); // each to be acknowledged
      auto const orphan = Peer::id(40, i);
      peer.announce("Fru::Gpo", "gpo", orphan);
      peer.out->control(Retire{orphan});
      ASSERT_TRUE(peer.tell()) << i << left.failure();
      left.bytesToSend();
      peer.reports.clear();
      ASSERT_LE(footprint().bufferBytes, 2 * Out::defaultMark) << "bytes that wait for the peer";
      if (i == 1000)
         before = liveBytes();
   }
   EXPECT_LE(liveBytes(), before + 4096);
   EXPECT_EQ(auditOf(left.demuxer()), "");
}

/// A stalled owner costs a mirror no more than the mark, whatever it has to be asked for.
TEST_F(Bounds, WhatIsAskedOfAnOwnerThatDoesNotReadStaysBelowTheMark) {
   for (unsigned n = 0; n < 300; ++n)
      ours->phyConfigIs(numbered("member ", n));
   settle();
   auto& stream = right.demuxer();
   auto const asks = [&](char const* what, auto const& ask) {
      SCOPED_TRACE(what);
      stream.out()->markIs(512);
      for (unsigned n = 0; n < 300; ++n)
         ask(numbered("member ", n));
      right.bytesToSend(); // asked for, and carried nowhere
      EXPECT_LE(stream.out()->pendingBytes(), 512u + 64) << "one request above the mark";
      stream.out()->markIs(Out::defaultMark);
      settle();
      expectSame();
   };
   asks("one value of each of many",
        [&](Name const& name) { EXPECT_THROW(theirs->phyConfig(name)->refClockIs(9), ReadOnlyException); });
   asks("whole entities", [&](Name const& name) { stream.adapterOf(*theirs->phyConfig(name))->owesAllIs(); });
   asks("many keys of one", [&](Name const& name) { EXPECT_THROW(theirs->phyConfigDel(name), ReadOnlyException); });
}

TEST_F(Bounds, TablesShrinkWithWhatTheyHold) {
   auto const before = footprint();
   constexpr unsigned many = 20000;
   for (unsigned i = 0; i < many; ++i)
      ours->phyConfigIs(numbered("member ", i));
   settle();
   struct Watcher : Cl10010Config::Notifiee {};
   auto const there = listening<Watcher>(theirs->phyConfig("member 7"), true);
   for (unsigned i = 0; i < many; ++i)
      ours->phyConfigDel(numbered("member ", i));
   EXPECT_LE(footprint().dirtyKeys, 2 * 1u + 64) << "the collection is owed whole instead";
   settle();
   ours->phyConfigIs("behind them");
   settle();
   EXPECT_EQ(footprint().announced, before.announced + 1);
   EXPECT_EQ(there->notifier(), nullptr) << "in the mirror's process";
   EXPECT_LT(footprint().slots, many / 4);
   EXPECT_LT(right.demuxer().footprint().slots, many / 4);
   EXPECT_LT(left.demuxer().out()->capacity(), 4 * Out::defaultMark);

   std::size_t const bytes = liveBytes();
   for (unsigned i = 0; i < 2000; ++i)
      right.ask(numbered("root ", i));
   settle();
   for (unsigned i = 0; i < 2000; ++i)
      right.unmount(numbered("root ", i));
   settle();
   EXPECT_LE(liveBytes(), bytes + 65536) << "behind the roots that were asked for";
}

/// What a mirror still has to be told takes memory whether there is a connection or not.
TEST_F(Bounds, TheFootprintShowsWhatIsNotedForMirrorsThatWait) {
   stall();
   EXPECT_THROW(theirs->phyConfigDel("port"), ReadOnlyException);
   cut();
   EXPECT_EQ(right.demuxer().footprint().untold, 1u);
}

using Steady = Directories;

/// Not the mutator, not the pass, not the record out or in, and not what is marked while a peer stalls.
TEST_F(Steady, ChangesAllocateNothingInTheLongRun) {
   std::vector<std::uint8_t> buffer(1 << 20);
   // As `settle` does, without its copies and in pieces that break frames off: whatever it allocates is the link's.
   auto const carryAll = [&] {
      for (std::size_t idle = 0; idle < 2;)
         for (LinkEnd* const from : {&left, &right}) {
            auto const bytes = from->bytesToSend();
            auto const piece = std::span(buffer).first(std::min(bytes.size(), std::size_t{1000}));
            std::copy_n(bytes.begin(), piece.size(), piece.begin());
            from->bytesSent(piece.size());
            (from == &left ? right : left).bytesArrived(piece);
            idle = piece.empty() ? idle + 1 : 0;
         }
   };
   std::uint32_t value = 0;
   // All that the kinds can do without a new key.
   auto const change = [&] {
      port->refClockIs(++value);
      for (int key = 0; key < 16; ++key) {
         port->calibrationIs(CfpxHostChannel(key), {value, 0, 0});
         port->initialIngressAmpIs(CfpxHostChannel(key), value);
      }
   };
   std::size_t calls = 0;
   std::vector<Watch> watches;
   for (std::size_t const reactors : {4u, 20u}) { // more than sixteen take another road
      SCOPED_TRACE(reactors);
      while (watches.size() < reactors)
         watches.push_back(
            on(watches.empty() ? mirror : port, Cl10010Config::Attr::refClock, [&](Cl10010Config&) { ++calls; }));
      for (bool const isFirst : {true, false}) { // memory is taken once for each key
         calls = 0;
         auto const before = allocations();
         for (int round = 0; round < 50; ++round) {
            change();
            carryAll();
         }
         EXPECT_EQ(calls, 50 * reactors);
         auto const sending = allocations() - before;
         // No room behind the first record: all others are marked, and marked again.
         left.demuxer().out()->markIs(1);
         change();
         auto const marking = allocations();
         for (int round = 0; round < 50; ++round)
            change();
         EXPECT_GT(left.demuxer().footprint().dirtyKeys, 0u);
         left.demuxer().out()->markIs(Out::defaultMark);
         carryAll();
         EXPECT_TRUE(isFirst || sending + (allocations() - marking) == 0);
      }
   }
}

} // namespace
} // namespace Mox::NboAttrLog
