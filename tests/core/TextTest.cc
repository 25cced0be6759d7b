// SPDX-License-Identifier: Apache-2.0
#include "core/Text.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(Text, QuotedNamesShowNoByteThatATerminalObeys) {
   struct {
      std::string text;
      std::string expected;
   } const cases[] = {
      {"", R"("")"},
      {"port-7", R"("port-7")"},
      {"a \"b\" \\c", R"("a \"b\" \\c")"},
      {"\r\n\t", R"("\r\n\t")"},
      {"\x1b[2J\x7f\0"s, R"("\x1b[2J\x7f\x00")"},
      {"\xc2\x9b", R"("\xc2\x9b")"},
   };
   for (auto const& c : cases)
      EXPECT_EQ(Mox::quoted(c.text), c.expected);
}

TEST(Text, PathStepsReadBackWhateverTheyHold) {
   struct {
      std::string text;
      std::string step;
   } const cases[] = {
      {"", "%"},    {"port-7", "port-7"},      {"a/b", "a%2Fb"},
      {"%", "%25"}, {"100 %\n", "100 %25%0A"}, {"\xc3\xa4", "%C3%A4"},
   };
   for (auto const& c : cases) {
      EXPECT_EQ(Mox::percentEncoded(c.text), c.step);
      EXPECT_EQ(Mox::percentDecoded(c.step), c.text);
   }
   std::string every;
   for (int byte = 0; byte < 256; ++byte)
      every += static_cast<char>(byte);
   std::string const step = Mox::percentEncoded(every);
   EXPECT_EQ(step.find('/'), std::string::npos);
   EXPECT_EQ(Mox::percentDecoded(step), every);
   EXPECT_EQ(Mox::percentDecoded("%2f%c3"), "/\xc3") << "people type small digits";

   for (char const* const bad : {"", "/", "a/b", "%2", "a%", "%%", "%g0", "%0g", "%2Fx%"})
      EXPECT_EQ(Mox::percentDecoded(bad), std::nullopt) << bad;
}

} // namespace
