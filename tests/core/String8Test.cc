// SPDX-License-Identifier: Apache-2.0
#include "core/String8.h"

#include "core/Exceptions.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using namespace std::string_literals;
using Mox::Name;
using Mox::String8;

TEST(String8, ComparesWithEveryKindOfTextAsBytes) {
   std::vector<std::string> const ascending{"", "\0"s, "\0x"s, "A", "a", "a\0"s, "a\0b"s, "aa", "\x7f", "\x80", "\xff"};
   for (std::size_t i = 0; i < ascending.size(); ++i) {
      for (std::size_t k = 0; k < ascending.size(); ++k) {
         SCOPED_TRACE(testing::Message() << i << " and " << k);
         Name const a(ascending[i]);
         String8 const b(ascending[k]);
         auto const expected = i <=> k;
         EXPECT_EQ(a <=> b, expected);
         EXPECT_EQ(a <=> ascending[k], expected);
         EXPECT_EQ(std::string_view(ascending[i]) <=> b, expected);
         EXPECT_EQ(a == b, i == k);
         EXPECT_EQ(ascending[i] == b, i == k);
         EXPECT_EQ(a.hash() == b.hash(), i == k);
      }
   }
}

TEST(NameHash, EveryBitOfTheTextReachesEveryBitOfTheHash) {
   for (std::size_t const size : {7u, 8u, 9u, 16u, 31u})
      for (std::size_t bit = 0; bit < size * 8; ++bit) {
         std::vector<int> flips(32);
         for (int sample = 0; sample < 400; ++sample) {
            std::string text = std::to_string(sample * 7919) + std::string(size, 'x');
            text.resize(size);
            std::uint32_t const before = Mox::hashOf(text);
            text[bit / 8] = static_cast<char>(text[bit / 8] ^ 1 << bit % 8);
            for (unsigned i = 0; i < 32; ++i)
               flips[i] += static_cast<int>((before ^ Mox::hashOf(text)) >> i & 1);
         }
         for (int const count : flips)
            EXPECT_NEAR(count, 200, 70) << "bit " << bit << " of " << size << " bytes";
      }
   EXPECT_NE(Mox::hashOf("\0"s), Mox::hashOf("\0\0"s));
}

TEST(NameHash, TheKeyCannotChangeUnderNamesAlreadyHashed) {
   GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process in which nothing was hashed yet
   EXPECT_EXIT(
      {
         Mox::nameHashKeyIs(1);
         std::uint32_t const one = Name("port-1").hash();
         Mox::nameHashKeyIs(1);
         try {
            Mox::nameHashKeyIs(2);
         } catch (Mox::InternalException const& e) {
            std::fprintf(stderr, "%s", e.what());
            std::exit(one == Mox::hashOf("port-1") ? 0 : 1);
         }
         std::exit(2);
      },
      testing::ExitedWithCode(0), "the key of name hashes is set after the first name was hashed");
}

} // namespace
