// What a mirror passes on: behind a backlog, and to mirrors of its own.

#include "attrlog/LocalLink.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "notify/Dump.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

namespace Mox {
namespace {

using namespace Hardware::ClariPhy;

TEST(Backlog, AKnownKeyDeletedAndMadeAgainCostsItselfAndNoMore) {
   LocalLink link;
   auto const ours = make<Cl10010ConfigDir>("config");
   for (int i = 0; i < 1000; ++i)
      ours->phyConfigIs(Name(std::to_string(i)));
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010ConfigDir>("config");
   link.settle();
   auto& demuxer = link.left().demuxer();
   U64 const before = demuxer.out()->recordsWritten();
   demuxer.out()->markIs(0);
   ours->phyConfigDel("500");
   ours->phyConfigIs("500");
   demuxer.out()->markIs(NboAttrLog::Out::defaultMark);
   link.settle();
   EXPECT_LE(demuxer.out()->recordsWritten() - before, 50u) << "the member's announcement, and what it holds";
   EXPECT_EQ(demuxer.counters().collectionRestarts, 0u);
   EXPECT_EQ(diff(*ours, *theirs).size(), 0u);
}

} // namespace
} // namespace Mox
