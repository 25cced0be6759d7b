// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

namespace {

std::string fan(std::string const& doc, std::string const& header, std::string const& meaning = "T.") {
   return "[[value]]\nname = 'Rack::Temp'\nheader = '" + header +
          "'\ndoc = 'T.'\n[entity]\nname = 'Rack::Fan'\ndoc = '" + doc +
          "'\nattributes = [{ id = 258, name = 'temp', value = 'Rack::Temp', doc = '''" + meaning + "''' }]\n";
}

// What the C++ compiler would refuse, or would take for something else, and what looks like it and is fine.
TEST_F(Moxc, RefusesWhatWouldNotCompileAsItIsMeant) {
   struct {
      std::string schema, says, makes;
   } const cases[] = {
      {fan("C:\\", "T.h"), "\"doc\" of the entity has a word that ends in a backslash", ""},
      {fan("A fan.", "T.h", "C:\\ or D:"), "\"doc\" of the attribute \"temp\" has a word that ends in", ""},
      {fan("A fan.", "T.h", "\"C:\\\", a\\|b"), "", "| \"C:\\\", a\\\\\\|b |"},
      {fan("A fan.", "core/T.h"), "", "   Mox::Handed<Rack::Temp> temp() const"},
      {fan("A fan.", "Fan.h"), "the header \"Fan.h\" of \"Rack::Temp\" would be the one that is made of a schema", ""},
      {fan("A fan.", "rack/FanLog.h"), "the header \"rack/FanLog.h\" of \"Rack::Temp\" would be", ""},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.schema);
      std::ofstream(folder_ / "Fan.toml") << c.schema;
      auto const result = run(folder_, out() + "--docs page.md --prefix rack Fan.toml");
      EXPECT_EQ(result.status, c.says.empty() ? 0 : 1);
      EXPECT_NE(result.errors.find(c.says), std::string::npos) << result.errors;
      EXPECT_NE((contents(folder_ / "page.md") + contents(folder_ / "out/rack/Fan.h")).find(c.makes),
                std::string::npos);
   }
   std::string chain;
   for (int level = 2; level <= 9; ++level) { // the last is not told of again
      std::string const name = "T" + std::to_string(level) + ".toml";
      std::ofstream(folder_ / name) << "[entity]\nname = 'D::T" << level << "'\ndoc = 'T.'\n"
                                    << (level == 2 ? "" : "base = 'D::T" + std::to_string(level - 1) + "'\n");
      chain += ' ' + name;
      auto const errors = run(folder_, out() + chain).errors;
      EXPECT_EQ(errors.substr(0, errors.find('\n')), level < 8
                                                        ? ""
                                                        : "T8.toml:4:8: error: \"D::T8\" would be at level 8; a chain "
                                                          "of bases ends at level 7, where Mox::Entity is 1");
      EXPECT_EQ(errors.find("T9"), std::string::npos);
   }
}

} // namespace
