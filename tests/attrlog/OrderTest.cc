// What must have happened before something else may: an adapter before anyone hears of a member, an identifier before a
// reference to it.

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "notify/Observe.h"
#include "siblings/PllStatus.h"

#include <gtest/gtest.h>

namespace Mox {
namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Hardware::Dpll::PllStatus;

TEST(Order, ANewMemberIsReadOnlyForTheFirstReactorThatHearsOfIt) {
   LocalLink link;
   auto const ours = make<Cl10010ConfigDir>("config");
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010ConfigDir>("config");
   link.settle();
   int refusals = 0;
   auto const watch = on(theirs, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& d, Name const& name) {
      try {
         d.phyConfig(name)->refClockIs(9);
      } catch (ReadOnlyException const&) {
         ++refusals;
      }
   });
   for (char const* const name : {"told as it happens", "told as a backlog"}) {
      SCOPED_TRACE(name);
      refusals = 0;
      auto const port = ours->phyConfigIs(name);
      link.settle();
      EXPECT_EQ(refusals, 1);
      EXPECT_EQ(theirs->phyConfig(name)->refClock(), 0u) << "put right";
      link.left().demuxer().out()->markIs(64);
   }
}

TEST(Order, AReferenceWaitsUntilItsTargetHasAnIdentifier) {
   LocalLink link;
   auto const ours = make<Cl10010ConfigDir>("config");
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010ConfigDir>("config");
   auto const pll = make<PllStatus>("pll");
   link.right().exportRoot(pll);
   auto const mirror = link.left().mount<PllStatus>("pll");
   ours->phyConfigIs("port");
   link.settle();
   // Nobody owns the target on this stream for a while, and the entity changes on.
   link.right().exportDel(pll);
   link.settle();
   ours->phyConfig("port")->pllStatusIs(mirror);
   link.settle();
   ours->phyConfig("port")->refClockIs(7);
   link.settle();
   EXPECT_EQ(theirs->phyConfig("port")->refClock(), 7u) << "what can be told does not wait";
   EXPECT_EQ(theirs->phyConfig("port")->pllStatus(), nullptr);
   link.right().exportRoot(pll);
   link.settle();
   EXPECT_EQ(theirs->phyConfig("port")->pllStatus(), pll);
}

} // namespace
} // namespace Mox
