// SPDX-License-Identifier: Apache-2.0
#include "Scenarios.h"

#include "core/Exceptions.h"
#include "notify/Observe.h"

namespace Simulation {

namespace {

using ClariPhy::Cl10010Config;
using ClariPhy::Cl10010ConfigDir;

constexpr std::size_t configs = 0; ///< the directory's place among the roots
constexpr std::size_t lowMark = 2000;

Cl10010ConfigDir& directory(World& world) {
   return static_cast<Cl10010ConfigDir&>(*world.roots()[configs]);
}
Cl10010ConfigDir& mirrored(World& world) {
   return static_cast<Cl10010ConfigDir&>(*world.port().mirrors[configs]);
}
/// `call` writes `cell` of a mirror in `world`.
template <class Call> void refuses(World& world, Entity const& mirror, Cell const& cell, Call call) {
   try {
      call();
   } catch (Mox::ReadOnlyException const&) {
      world.refused(mirror, cell);
      return;
   }
   world.diverges("a write to a mirror is not refused");
}

void watchUnmountsBehindRawReplacement(Run& run) {
   World& world = run.world(1);
   auto& truth = directory(run.world(0));
   truth.phyConfigIs("x");
   run.settle("before");
   Ptr<Cl10010Config> const member = mirrored(world).phyConfig("x");
   auto const unmounts = [&](Cl10010Config&) { world.unmount(world.port(), configs); };
   Mox::Watch const watch = on(member, Cl10010Config::Attr::refClock, unmounts);
   refuses(world, *member, {Cl10010Config::Attr::refClock.id, {}}, [&] { member->refClockIs(5); });
   mirrored(world).newPhyConfig("x");
   truth.phyConfigNotify("x");
   run.settle("after the announcement");
   run.settleAndCompare("mounted again");
}

void deletedMembersGo(Run& run) {
   run.world(0).port().markIs(lowMark);
   run.settle("before");
   auto const before = run.world(1).survivors();
   auto& truth = directory(run.world(0));
   for (unsigned n = 0; n < 600; ++n) {
      truth.phyConfigIs(Name("m" + std::to_string(n)))->refClockIs(n);
      if (n % 200 != 199)
         continue;
      run.settle("with members");
      truth.phyConfigDelAll();
      run.settle("without them");
   }
   if (auto const left = run.world(1).survivors() - before; left != 0)
      run.world(1).diverges(std::to_string(left) + " deleted members live on");
   run.settleAndCompare("at the end");
}

constexpr Scenario all[] = {
   {"watch-unmounts-behind-raw-replacement", watchUnmountsBehindRawReplacement},
   {"deleted-members-go", deletedMembersGo},
};

} // namespace

std::span<Scenario const> scenarios() noexcept {
   return all;
}

} // namespace Simulation
