// SPDX-License-Identifier: Apache-2.0
#include "Scenarios.h"

#include "Values.h"
#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "notify/Observe.h"
#include "siblings/Gpo.h"

namespace Simulation {

using namespace Mox;

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;

// The places of roots in the worlds' lists.
constexpr std::size_t configs = 0, single = 4, pll = 5;

void must(bool holds, std::string const& what) {
   if (!holds)
      throw Divergence(what);
}
/// \throws Divergence unless `call` throws an `E`
template <class E, class Call> void throws(Call call, char const* what) {
   try {
      call();
   } catch (E const&) {
      return;
   }
   throw Divergence(what);
}
/// Writes `attribute`, of `name` if there is one, of a mirror in `world`.
template <class A, class Call> void refuses(World& world, typename A::Owner& entity, A, char const* name, Call call) {
   throws<ReadOnlyException>(call, "a write to a mirror is not refused");
   world.refused(entity, {A::id, name == nullptr ? "" : "[" + textOf(Name(name)) + "]"});
}

Cl10010ConfigDir& directory(World& world) {
   return static_cast<Cl10010ConfigDir&>(*world.roots()[configs]);
}
Cl10010ConfigDir& mirrored(World& world) {
   return static_cast<Cl10010ConfigDir&>(*world.mirrors()[configs]);
}
Name numbered(std::size_t n) {
   return Name("m" + std::to_string(n));
}
void addMembers(Cl10010ConfigDir& to, std::size_t count) {
   for (std::size_t n = 0; n < count; ++n)
      to.phyConfigIs(numbered(n))->refClockIs(static_cast<std::uint32_t>(n));
}
constexpr std::size_t lowMark = 2000;
/// Has `world`, whose mark is low, owe so much that changes queue behind it.
void makeBacklog(World& world) {
   auto& busy = static_cast<Cl10010Config&>(*world.roots()[single]);
   for (std::uint32_t n = 0; n < lowMark && !world.demuxer().hasBacklog(); ++n)
      busy.refClockIs(1000 + n);
   must(world.demuxer().hasBacklog(), "no backlog");
}

void refusedDeletionTwoAnnouncements(Run& run) {
   auto& truth = directory(run.world(0));
   truth.phyConfigIs("x")->refClockIs(7);
   run.settle("before");
   truth.phyConfigNotify("x");
   truth.phyConfigNotify("x");
   auto& mirror = mirrored(run.world(1));
   refuses(run.world(1), mirror, Cl10010ConfigDir::Attr::phyConfig, "x", [&] { mirror.phyConfigDel("x"); });
   run.settleAndCompare("after two announcements");
}

void deletedAndMadeAgainBehindBacklog(Run& run) {
   World& owner = run.world(0);
   owner.markIs(lowMark);
   auto& truth = directory(owner);
   addMembers(truth, 100);
   run.settle("before");
   makeBacklog(owner);
   truth.phyConfigDel("m7");
   truth.phyConfigIs("m7");
   auto const before = owner.demuxer().out()->recordsWritten();
   run.settleAndCompare("after the replacement");
   auto const written = owner.demuxer().out()->recordsWritten() - before;
   must(written < 60, "one member made again takes " + std::to_string(written) + " records");
}

void manyDeletedBehindBacklog(Run& run) {
   World& owner = run.world(0);
   owner.markIs(lowMark);
   auto& truth = directory(owner);
   addMembers(truth, 300);
   run.settle("before");
   makeBacklog(owner);
   truth.phyConfigDelAll();
   addMembers(truth, 3);
   run.settleAndCompare("after the deletion");
   must(owner.demuxer().counters().collectionRestarts != 0, "the collection has not been sent again");
}

void orphanWithTooLongName(Run& run) {
   World& owner = run.world(0);
   auto& holder = static_cast<Cl10010Config&>(*owner.roots()[single]);
   run.settle("before");
   owner.demuxer().out()->peerMaximumFrameIs(300);
   holder.resetUcIs(make<Fru::Gpo>(Name(std::string(400, 'x'))));
   run.settle("with a name that the peer doesn't take");
   must(owner.demuxer().counters().tooLong != 0, "the name is not counted as too long");
   holder.resetUcIs(make<Fru::Gpo>(Name("short")));
   run.settleAndCompare("with another name");
}

void fewSlots(Run& run) {
   World& owner = run.world(0);
   addMembers(directory(owner), 10);
   run.settle("before");
   owner.demuxer().peerHighestSlotIs(static_cast<std::uint32_t>(owner.demuxer().footprint().slots + 10));
   addMembers(directory(owner), 100);
   run.settle("without identifiers");
   World& mirror = run.world(1);
   must(mirror.end().state(mirror.mirrors()[configs]->name()) == LinkEnd::State::refused, "the root is not refused");
   must(mirrored(mirror).phyConfig("m3") != nullptr, "the mirror has lost what it had");
   run.reconnect();
   run.settleAndCompare("with identifiers again");
}

void watchUnmountsBehindRawReplacement(Run& run) {
   World& world = run.world(1);
   auto& truth = directory(run.world(0));
   truth.phyConfigIs("x");
   run.settle("before");
   Ptr<Cl10010Config> const member = mirrored(world).phyConfig("x");
   Watch const watch = on(member, Cl10010Config::Attr::refClock, [&](Cl10010Config&) { world.unmount(configs); });
   refuses(world, *member, Cl10010Config::Attr::refClock, nullptr, [&] { member->refClockIs(5); });
   mirrored(world).newPhyConfig("x");
   truth.phyConfigNotify("x");
   run.settle("after the announcement");
   run.settleAndCompare("mounted again");
}

void toggledWhileTheTargetWaits(Run& run) {
   World& owner = run.world(0);
   auto& holder = static_cast<Cl10010Config&>(*owner.roots()[single]);
   run.settle("before");
   Ptr<Hardware::Dpll::PllStatus> const target = staticCast<Hardware::Dpll::PllStatus>(owner.mirrors()[pll]);
   run.world(1).closeExport(pll);
   run.reconnect();
   run.settle("without the target");
   for (unsigned n = 0; n < 1000; ++n) {
      holder.pllStatusIs(nullptr);
      holder.pllStatusIs(target);
      owner.end().bytesToSend();
   }
   auto const parked = owner.demuxer().footprint().parked;
   must(parked <= 1, "one reference has " + std::to_string(parked) + " parked marks");
   run.settleAndCompare("with the target");
}

void deletedMembersGo(Run& run) {
   World& mirror = run.world(1);
   run.world(0).markIs(lowMark);
   run.settle("before");
   auto const before = mirror.survivors();
   for (unsigned n = 0; n < 3; ++n) {
      addMembers(directory(run.world(0)), 200);
      run.settle("with members");
      directory(run.world(0)).phyConfigDelAll();
      run.settle("without them");
   }
   auto const left = mirror.survivors() - before;
   must(left == 0, std::to_string(left) + " deleted members live on");
   run.settleAndCompare("at the end");
}

/// What this side does while the peer reads nothing takes no more of the buffer the more often it is done.
template <class Do> void boundedUnread(Run& run, World& world, Do act) {
   run.settle("before");
   std::size_t first = 0;
   for (unsigned n = 0; n < 200; ++n) {
      act();
      if (n == 9)
         first = world.demuxer().footprint().bufferBytes;
   }
   auto const last = world.demuxer().footprint().bufferBytes;
   must(last <= first,
        "the buffer holds " + std::to_string(first) + " bytes after ten times, " + std::to_string(last) + " after 200");
   run.settleAndCompare("when the peer reads again");
}

void exportedAndClosedUnread(Run& run) {
   World& owner = run.world(0);
   boundedUnread(run, owner, [&] {
      owner.closeExport(pll);
      owner.openExports();
   });
}

void mountedAndUnmountedUnread(Run& run) {
   World& mirror = run.world(1);
   boundedUnread(run, mirror, [&] {
      mirror.unmount(pll);
      mirror.mountAll();
   });
}

void manyRetiredUnread(Run& run) {
   World& owner = run.world(0);
   owner.markIs(lowMark);
   addMembers(directory(owner), 2000);
   run.settle("before");
   directory(owner).phyConfigDelAll();
   owner.end().bytesToSend();
   auto const bytes = owner.demuxer().footprint().bufferBytes;
   must(bytes < 2 * lowMark, "the buffer holds " + std::to_string(bytes) + " bytes with a mark of 2000");
   run.settleAndCompare("when the peer reads again");
}

void oneEntityMountedTwice(Run& run) {
   run.settle("before");
   LinkEnd other("other");
   throws<Exception>([&] { other.mountIs(run.world(1).mirrors()[configs]); }, "a second link mounts the same entity");
   run.settleAndCompare("afterwards");
}

/// What is written to a mirror and refused stays in that process: who mirrors the mirror sees the owner's values only.
void refusedWritesInAChain(Run& run) {
   directory(run.world(0)).phyConfigIs("x")->refClockIs(7);
   run.settle("before");
   auto& middle = mirrored(run.world(1));
   auto const far = staticCast<Cl10010ConfigDir>(run.world(2).mirrors()[run.world(1).roots().size() + configs]);
   Ptr<Cl10010Config> const copy = far->phyConfig("x");
   std::string seen;
   Watch const value = on(copy, Cl10010Config::Attr::refClock,
                          [&](Cl10010Config& e) { seen += " refClock " + std::to_string(e.refClock()); });
   Watch const names = on(far, Cl10010ConfigDir::Attr::phyConfig,
                          [&](Cl10010ConfigDir&, Name const& name) { seen += " " + name.str(); });
   auto const member = middle.phyConfig("x");
   refuses(run.world(1), *member, Cl10010Config::Attr::refClock, nullptr, [&] { member->refClockIs(5); });
   run.settle("after the value");
   refuses(run.world(1), middle, Cl10010ConfigDir::Attr::phyConfig, "y", [&] { middle.phyConfigIs("y"); });
   run.settle("after the member");
   must(seen.empty(), "the far mirror is told of" + seen);
   run.settleAndCompare("at the end");
}

constexpr Scenario all[] = {
   {"refused-deletion-two-announcements", refusedDeletionTwoAnnouncements, true},
   {"deleted-and-made-again-behind-backlog", deletedAndMadeAgainBehindBacklog, true},
   {"many-deleted-behind-backlog", manyDeletedBehindBacklog},
   {"orphan-with-too-long-name", orphanWithTooLongName, true},
   {"few-slots", fewSlots, true},
   {"watch-unmounts-behind-raw-replacement", watchUnmountsBehindRawReplacement, true},
   {"toggled-while-the-target-waits", toggledWhileTheTargetWaits, true},
   {"deleted-members-go", deletedMembersGo, true},
   {"exported-and-closed-unread", exportedAndClosedUnread, true},
   {"mounted-and-unmounted-unread", mountedAndUnmountedUnread, true},
   {"many-retired-unread", manyRetiredUnread, true},
   {"one-entity-mounted-twice", oneEntityMountedTwice, true},
   {"refused-writes-in-a-chain", refusedWritesInAChain, false, Shape::chain},
};

} // namespace

std::span<Scenario const> scenarios() noexcept {
   return all;
}

} // namespace Simulation
