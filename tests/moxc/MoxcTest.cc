// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <map>
#include <string>
#include <string_view>
#include <unistd.h>

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

/// Compares with a file of the source tree, or writes it.
void expectGolden(std::string const& text, fs::path const& golden) {
   if (std::getenv("MOXC_UPDATE") != nullptr) {
      fs::create_directories(golden.parent_path());
      std::ofstream(golden, std::ios::binary) << text;
   }
   EXPECT_EQ(text, contents(golden)) << "see " << golden;
}

TEST_F(Moxc, ReportsEveryFaultOfASchemaAndWritesNothing) {
   for (auto const& [schema, text] : tree(sources / "bad")) {
      if (!schema.ends_with(".toml") || schema.starts_with("with/"))
         continue;
      SCOPED_TRACE(schema);
      // What it is read with stands in its first line.
      std::string const with = text.starts_with("# with: ") ? text.substr(8, text.find('\n') - 8) : "";
      std::string const docs = (folder_ / "out/docs.md").string();
      Result const result = run(sources / "bad", out() + "--unit Bad --docs '" + docs + "' --import with/Base.toml " +
                                                    with + ' ' + schema);
      EXPECT_EQ(result.status, 1);
      expectGolden(result.errors, (sources / "bad" / schema).replace_extension(".expected"));
      EXPECT_TRUE(tree(folder_ / "out").empty());
   }
}

TEST_F(Moxc, EmitsTheSameFilesFromTheSameSchemas) {
   fs::path const golden = sources / "golden";
   auto const made = [&](fs::path const& where, std::string const& schemas) {
      fs::remove_all(folder_ / "out");
      EXPECT_EQ(run(where, out() + "--prefix rack --unit Rack --docs '" +
                              (folder_ / "out/rack/attributes.md").string() + "' " + schemas)
                   .errors,
                "");
      return tree(folder_ / "out");
   };
   auto const files = made(golden, "Unit.toml Fan.toml Probe.toml Cooling.toml");
   for (auto const& [name, text] : files)
      expectGolden(text, golden / "expected" / (name + ".expected"));
   EXPECT_EQ(files, tree(golden / "expected", ".expected"));
   // From another place, with other spellings of the paths.
   std::string const path = " ../moxc/golden/";
   EXPECT_EQ(made(sources, path + "Unit.toml" + path + "Fan.toml" + path + "Probe.toml" + path + "Cooling.toml"),
             files);
}

TEST_F(Moxc, LeavesUnchangedFilesAloneAndReplacesAllOrNothing) {
   fs::path const schemas = folder_ / "schemas", made = folder_ / "out";
   fs::copy(sources / "golden", schemas);
   std::string const arguments = out() + "Unit.toml Fan.toml Probe.toml Cooling.toml";
   ASSERT_EQ(run(schemas, arguments).status, 0);
   auto const old = fs::file_time_type::clock::now() - std::chrono::hours(1);
   fs::last_write_time(made / "Unit.h", old);
   auto const changed = [&](char const* schema) {
      std::string text = contents(schemas / schema);
      text.insert(text.find("doc = \"") + 7, "New: ");
      std::ofstream(schemas / schema) << text;
   };
   changed("Fan.toml");
   ASSERT_EQ(run(schemas, arguments).status, 0);
   EXPECT_NE(contents(made / "Fan.h").find("/// New: A fan of a rack."), std::string::npos);
   EXPECT_LT(fs::last_write_time(made / "Unit.h"), old + std::chrono::minutes(1));

   // What fails after other files have been written: those stay as they were, and no temporary is left.
   changed("Fan.toml");
   auto before = tree(made);
   before.erase("Probe.cc");
   fs::remove(made / "Probe.cc");
   fs::create_directories(made / "Probe.cc/in-the-way");
   Result const blocked = run(schemas, arguments);
   EXPECT_EQ(blocked.status, 1);
   EXPECT_NE(blocked.errors.find("Probe.cc: error: cannot write: a folder is in its place"), std::string::npos)
      << blocked.errors;
   EXPECT_EQ(tree(made), before);

   // The last file can be written but not renamed: it belongs to somebody else, in a folder where that decides.
   changed("Probe.toml");
   fs::remove_all(made / "Probe.cc");
   fs::copy_file(MOXC, folder_ / "moxc");
   fs::permissions(folder_, fs::perms::all);
   std::string const asAnother = "setpriv --reuid 65534 --clear-groups '" + (folder_ / "moxc").string() + "' ";
   if (::getuid() != 0 || shell(folder_, asAnother + "--help").status != 0)
      GTEST_SKIP() << "only root can try as another user";
   fs::permissions(made, fs::perms::all | fs::perms::sticky_bit);
   for (auto const& entry : fs::directory_iterator(made))
      EXPECT_EQ(::chown(entry.path().c_str(), entry.path().filename() == "Probe.h" ? 0 : 65534, 65534), 0);
   Result const owned = shell(schemas, asAnother + arguments);
   EXPECT_EQ(owned.status, 1);
   EXPECT_NE(owned.errors.find("Probe.h: error: cannot write: Operation not permitted"), std::string::npos)
      << owned.errors;
   EXPECT_EQ(tree(made), before);
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
   std::string arguments = "--docs '" + (folder_ / "attributes.md").string() + "' values/values.toml";
   for (std::string const part : {"entities", "phy", "siblings"})
      arguments += " --prefix kestrel/" + part + ' ' + part + "/*.toml";
   ASSERT_EQ(run(sources / "../../src/kestrel", arguments).errors, "");
   EXPECT_TRUE(contents(folder_ / "attributes.md") == contents(sources / "../../docs/attributes.md"))
      << "make it anew with: cmake --build BUILD --target attributes";
}

} // namespace
