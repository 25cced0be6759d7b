// SPDX-License-Identifier: Apache-2.0
#include "core/Exceptions.h"

#include <gtest/gtest.h>

namespace {

using Mox::Expect;

TEST(Expected, IsWhatAnyOpenScopeNamesAndNothingElse) {
   EXPECT_FALSE(Expect::isExpected(16));
   {
      Expect const outer(16);
      {
         Expect const inner(48), none(0);
         EXPECT_TRUE(Expect::isExpected(16) && Expect::isExpected(48) && !Expect::isExpected(0));
      }
      EXPECT_TRUE(Expect::isExpected(16) && !Expect::isExpected(48));
   }
   EXPECT_FALSE(Expect::isExpected(16));
}

} // namespace
