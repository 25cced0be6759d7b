// SPDX-License-Identifier: Apache-2.0
#include "attrlog/LocalLink.h"
#include "entities/Cl10010Config.h"
#include "notify/Dump.h"

#include <gtest/gtest.h>

namespace {

using namespace Mox;
using namespace Hardware::ClariPhy;

/// Two values that are equal are no change, so a mirror keeps the one that it has: they must not be told apart.
TEST(Differences, ZeroesOfBothSignsAreEqual) {
   auto const ours = make<Cl10010Config>("config");
   LocalLink link;
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010Config>("config");
   link.settle();
   link.cut();
   ours->rxSkewHIs(1);
   ours->rxSkewHIs(-0.0F);
   link.reconnect();
   link.settle();
   ASSERT_EQ(ours->rxSkewH(), theirs->rxSkewH());
   EXPECT_TRUE(diff(*ours, *theirs).empty());
}

} // namespace
