// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

// Runs the compiler as a build does. With MOXC_UPDATE=1 in the environment the expected texts are written anew.

namespace fs = std::filesystem;

namespace {

fs::path const sources = MOXC_TEST_SOURCES;

/// Every file below a folder with its bytes, by its name without `suffix`.
std::map<std::string, std::string> tree(fs::path const& folder, std::string_view suffix = {}) {
   std::map<std::string, std::string> files;
   if (fs::exists(folder))
      for (auto const& entry : fs::recursive_directory_iterator(folder))
         if (entry.is_regular_file()) {
            std::string name = entry.path().lexically_relative(folder).generic_string();
            name.resize(name.size() - (name.ends_with(suffix) ? suffix.size() : 0));
            files[name] = contents(entry.path());
         }
   return files;
}

std::vector<fs::path> schemasIn(fs::path const& folder) {
   std::vector<fs::path> schemas;
   for (auto const& entry : fs::directory_iterator(folder))
      if (entry.path().extension() == ".toml")
         schemas.push_back(entry.path());
   std::sort(schemas.begin(), schemas.end());
   return schemas;
}

/// Compares with a file of the source tree, or writes it.
void expectGolden(std::string const& text, fs::path const& golden) {
   if (std::getenv("MOXC_UPDATE") != nullptr) {
      fs::create_directories(golden.parent_path());
      std::ofstream(golden, std::ios::binary) << text;
   }
   EXPECT_EQ(text, contents(golden)) << "see " << golden;
}

TEST_F(Moxc, ReportsEveryFaultOfASchemaAndWritesNothing) {
   for (fs::path const& schema : schemasIn(sources / "bad")) {
      SCOPED_TRACE(schema.filename());
      std::string arguments =
         out() + "--unit Bad --docs '" + (folder_ / "out/docs.md").string() + "' --import with/Base.toml ";
      std::istringstream firstLine(contents(schema).substr(0, contents(schema).find('\n')));
      std::string word;
      if (firstLine >> word >> word && word == "with:")
         while (firstLine >> word)
            arguments += "with/" + word + ' ';
      Result const result = run(sources / "bad", arguments + schema.filename().string());
      EXPECT_EQ(result.status, 1);
      expectGolden(result.errors, fs::path(schema).replace_extension(".expected"));
      EXPECT_TRUE(tree(folder_ / "out").empty());
   }
}

TEST_F(Moxc, EmitsTheSameFilesFromTheSameSchemas) {
   std::string const arguments = "--prefix rack --unit Rack --docs '" + (folder_ / "out/rack/attributes.md").string() +
                                 "' Unit.toml Fan.toml Probe.toml Cooling.toml";
   fs::path const golden = sources / "golden";
   ASSERT_EQ(run(golden, out() + arguments).errors, "");
   auto const files = tree(folder_ / "out");
   for (auto const& [name, text] : files)
      expectGolden(text, golden / "expected" / (name + ".expected"));
   EXPECT_EQ(files, tree(golden / "expected", ".expected"));

   // From another place, with other spellings of the paths, into another folder.
   std::string const elsewhere =
      "--prefix rack --unit Rack --docs '" + (folder_ / "again/rack/attributes.md").string() + "' ";
   std::string paths;
   for (char const* const name : {"Unit", "Fan", "Probe", "Cooling"})
      paths += " '" + (golden / "../golden" / name).string() + ".toml'";
   ASSERT_EQ(run("/", "--out '" + (folder_ / "again").string() + "' " + elsewhere + paths).errors, "");
   EXPECT_EQ(tree(folder_ / "again"), files);
}

TEST_F(Moxc, LeavesUnchangedFilesAloneAndReplacesAllOrNothing) {
   fs::path const schemas = folder_ / "schemas";
   fs::copy(sources / "golden", schemas);
   std::string const arguments = out() + "Unit.toml Fan.toml Probe.toml Cooling.toml";
   ASSERT_EQ(run(schemas, arguments).status, 0);
   fs::path const fan = folder_ / "out/Fan.h";
   fs::path const unit = folder_ / "out/Unit.h";
   auto const longAgo = fs::file_time_type::clock::now() - std::chrono::hours(1);
   fs::last_write_time(fan, longAgo);
   fs::last_write_time(unit, longAgo);
   auto const old = fs::last_write_time(unit);

   std::string text = contents(schemas / "Fan.toml");
   text.replace(text.find("A fan"), 5, "The fan");
   std::ofstream(schemas / "Fan.toml") << text;
   ASSERT_EQ(run(schemas, arguments).status, 0);
   EXPECT_NE(contents(fan).find("/// The fan of a rack."), std::string::npos);
   EXPECT_EQ(fs::last_write_time(unit), old);

   // What fails after other files have been written: those stay as they were, and no temporary is left.
   text.replace(text.find("The fan"), 7, "Some fan");
   std::ofstream(schemas / "Fan.toml") << text;
   auto const before = tree(folder_ / "out");
   fs::remove(folder_ / "out/Probe.cc");
   fs::create_directories(folder_ / "out/Probe.cc/in-the-way");
   Result const blocked = run(schemas, arguments);
   EXPECT_EQ(blocked.status, 1);
   EXPECT_NE(blocked.errors.find("Probe.cc: error: cannot write: a folder is in its place"), std::string::npos)
      << blocked.errors;
   auto after = tree(folder_ / "out");
   after["Probe.cc"] = before.at("Probe.cc");
   EXPECT_EQ(after, before);

   // The last file can be written but not renamed: it belongs to somebody else, in a folder where that decides.
   fs::remove_all(folder_ / "out/Probe.cc");
   fs::copy_file(MOXC, folder_ / "moxc");
   fs::permissions(folder_, fs::perms::all);
   std::string const asAnother = "setpriv --reuid 65534 --clear-groups '" + (folder_ / "moxc").string() + "' ";
   if (::getuid() != 0 || shell(folder_, asAnother + "--help").status != 0)
      GTEST_SKIP() << "only root can try as another user";
   fs::permissions(folder_ / "out", fs::perms::all | fs::perms::sticky_bit);
   for (auto const& entry : fs::directory_iterator(folder_ / "out"))
      EXPECT_EQ(::chown(entry.path().c_str(), entry.path().filename() == "Probe.h" ? 0 : 65534, 65534), 0);
   std::string probe = contents(schemas / "Probe.toml");
   probe.replace(probe.find("doc = \""), 7, "doc = \"Some: ");
   std::ofstream(schemas / "Probe.toml") << probe;
   auto const own = tree(folder_ / "out");
   Result const owned = shell(schemas, asAnother + arguments);
   EXPECT_EQ(owned.status, 1);
   EXPECT_NE(owned.errors.find("Probe.h: error: cannot write: Operation not permitted"), std::string::npos)
      << owned.errors;
   EXPECT_EQ(tree(folder_ / "out"), own);
}

TEST_F(Moxc, SaysWhatIsWrongWithACommandLineOrAFile) {
   struct {
      std::string arguments;
      int status;
      std::string begins;
   } const cases[] = {
      {"", 2, "moxc: error: expected at least one schema\n"},
      {"a.toml", 2, "moxc: error: expected --out or --docs\n"},
      {"--out", 2, "moxc: error: --out needs an operand\n"},
      {"--verbose a.toml", 2, "moxc: error: unknown option \"--verbose\"\n"},
      {"--ilst a.toml", 2, "moxc: error: unknown option \"--ilst\"; did you mean \"--list\"?\n"},
      {"--out x absent.toml", 1,
       "absent.toml: error: cannot read the schema: No such file or directory\nmoxc: 1 error, nothing written\n"},
      {"--out x .", 1, ".: error: cannot read the schema: Is a directory\n"},
      {"--out /dev/null/x golden/Fan.toml", 1, "/dev/null/x/Fan.h: error: cannot create the folder: Not a directory\n"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.arguments);
      Result const result = run(sources, c.arguments);
      EXPECT_EQ(result.status, c.status);
      EXPECT_EQ(result.errors.substr(0, c.begins.size()), c.begins);
   }
}

TEST_F(Moxc, ThePageOfAttributesIsCurrent) {
   fs::path const root = sources / "../..";
   std::string arguments = "--docs '" + (folder_ / "attributes.md").string() + "' values/values.toml";
   for (char const* const part : {"entities", "phy", "siblings"})
      for (fs::path const& schema : schemasIn(root / "src" / part))
         arguments += " --prefix " + std::string(part) + ' ' + part + '/' + schema.filename().string();
   ASSERT_EQ(run(root / "src", arguments).errors, "");
   EXPECT_TRUE(contents(folder_ / "attributes.md") == contents(root / "docs/attributes.md"))
      << "make it anew with: cmake --build BUILD --target attributes";
}

} // namespace
