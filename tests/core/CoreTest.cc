// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/String8.h"
#include "kestrel/core/Text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using namespace std::string_literals;
using Mox::Expect;
using Mox::Name;

TEST(Expected, IsWhatAnyOpenScopeNamesAndNothingElse) {
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

TEST(String8, ComparesWithEveryKindOfTextAsBytes) {
   std::string const ascending[] = {"", "\0"s, "\0x"s, "A", "a", "a\0"s, "a\0b"s, "aa", "\x7f", "\x80", "\xff"};
   for (std::string const& left : ascending)
      for (std::string const& right : ascending) {
         SCOPED_TRACE(testing::Message() << Mox::quoted(left) << " and " << Mox::quoted(right));
         auto const expected = &left <=> &right;
         Name const a(left);
         Mox::String8 const b(right);
         EXPECT_TRUE(a <=> b == expected && a <=> right == expected && std::string_view(left) <=> b == expected);
         EXPECT_TRUE((a == b) == (&left == &right) && (left == b) == (&left == &right));
         EXPECT_EQ(a.hash() == b.hash(), &left == &right);
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
      },
      testing::ExitedWithCode(0), "the key of name hashes is set after the first name was hashed");
}

struct Spelled {
   std::string text, spelling;
};

TEST(Text, QuotedNamesShowNoByteThatATerminalObeys) {
   for (auto const& [text, quoted] :
        {Spelled{"", R"("")"}, Spelled{"port-7", R"("port-7")"}, Spelled{"a \"b\" \\c", R"("a \"b\" \\c")"},
         Spelled{"\r\n\t", R"("\r\n\t")"}, Spelled{"\x1b[2J\x7f\0"s, R"("\x1b[2J\x7f\x00")"},
         Spelled{"\xc2\x9b", R"("\xc2\x9b")"}})
      EXPECT_EQ(Mox::quoted(text), quoted);
}

TEST(Text, PathStepsReadBackWhateverTheyHold) {
   for (auto const& [text, step] :
        {Spelled{"", "%"}, Spelled{"port-7", "port-7"}, Spelled{"a/b", "a%2Fb"}, Spelled{"%", "%25"},
         Spelled{"100 %\n", "100 %25%0A"}, Spelled{"\xc3\xa4\0"s, "%C3%A4%00"}}) {
      EXPECT_EQ(Mox::percentEncoded(text), step);
      EXPECT_EQ(Mox::percentDecoded(step), text);
   }
   EXPECT_EQ(Mox::percentDecoded("%2f%c3"), "/\xc3") << "people type small digits";
   for (char const* const bad : {"", "/", "a/b", "%2", "a%", "%%", "%g0", "%0g", "%2Fx%"})
      EXPECT_EQ(Mox::percentDecoded(bad), std::nullopt) << bad;
}

} // namespace
