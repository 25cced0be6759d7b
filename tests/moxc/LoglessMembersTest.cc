// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <fstream>

namespace {

/// What is announced over the log has an adapter: a member without a log has none to include.
TEST_F(Moxc, RefusesMembersWithoutALogInATypeWithOne) {
   std::ofstream(folder_ / "Bolt.toml")
      << "[entity]\nname = \"Rack::Bolt\"\nmember = \"hash\"\nlog = false\ndoc = \"A bolt.\"\n";
   std::ofstream(folder_ / "Shelf.toml") << "[entity]\nname = \"Rack::Shelf\"\ndoc = \"A shelf.\"\nattributes = [\n"
                                            "   { id = 258, name = \"bolt\", kind = \"hashCollection\", value = "
                                            "\"Rack::Bolt\", doc = \"Its bolts.\" },\n]\n";
   Result const result = run(folder_, out() + "Bolt.toml Shelf.toml");
   EXPECT_NE(result.status, 0) << "ShelfLog.h includes BoltLog.h, which is not written";
   EXPECT_NE(result.errors.find("Shelf.toml:5:"), std::string::npos) << result.errors;
}

} // namespace
