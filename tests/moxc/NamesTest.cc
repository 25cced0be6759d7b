// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// What moxc lets through must compile, and hide nothing: every name that a header of the framework mentions is tried as a name
// that an attribute would declare, for every kind, and as the name of a class.

namespace {

std::string const root = MOXC_TEST_ROOT;

struct Kind {
   std::string word;
   std::string fields;
   std::string patterns; ///< of what is declared for an attribute `*`, in any of the classes that are generated
} const kinds[] = {
   {"scalar", "value = \"U32\"", "* *Is on* moxIs*DirtyIs"},
   {"optional", "value = \"U32\"", "*Del"},
   {"counter", "value = \"U32\"", "*Inc"},
   {"reference", "value = \"Names::Leaf\"", "*Is"},
   {"array", "value = \"U32\", key = \"ClariPhyTypes::LdpcHistogramIterNum\"", "*DelAll *Notify Mox*Array"},
   {"map", "value = \"U32\", key = \"U32\"",
    "*Is *Del *DelAll *Notify new* on* on*moxImmediate Mox* Mox*Map MoxMoxIs*Dirty mox*HasSyncedIs newMoxIs*Dirty "
    "moxIs*DirtyIs moxIs*DirtyDel"},
   {"hashMap", "value = \"U32\", key = \"U32\"", "Mox* Mox*Map"},
   {"collection", "value = \"Names::Leaf\"", "*Notify new* Mox*Map *NboAttrLogAdapterIs *NboAttrLogAdapterDel"},
   {"hashCollection", "value = \"Names::Bud\"", "new* Mox*Map"},
   {"hashReferences", "value = \"Names::Leaf\"", "new* Mox* Mox*Map"}};

constexpr std::size_t mostOfOneType = 100;

class MoxcNames : public Moxc {
protected:
   /// Schemas by their files: lines that begin a type, and attributes behind them.
   std::map<std::string, std::vector<std::string>> schemas_;
   static constexpr std::size_t attributesBegin = 5;

   /// The lines of a type, which is new or has been asked for before.
   std::vector<std::string>& schema(std::string const& file, std::string const& type,
                                    std::string const& member = "tree") {
      auto& lines = schemas_[file + ".toml"];
      if (lines.empty())
         lines = {"[entity]", "name = \"Names::" + type + '"', "member = \"" + member + '"', "doc = \"A type.\"",
                  "attributes = ["};
      return lines;
   }

   static void addAttribute(std::vector<std::string>& lines, std::string const& name, std::string const& kind,
                            std::string const& fields) {
      lines.push_back("{ id = " + std::to_string(258 + lines.size()) + ", name = \"" + name + "\", kind = \"" + kind +
                      "\", " + fields + ", doc = \"A name.\" },");
   }

   /// Runs moxc until it takes what is left: an attribute that is refused goes, and a type whose name is refused.
   void compileSchemas() {
      std::regex const form("(\\w+\\.toml):(\\d+):\\d+: error: ");
      for (;;) {
         std::string arguments = "--out . --import '" + root + "/src/kestrel/values/values.toml'";
         for (auto const& [file, lines] : schemas_) {
            std::ofstream out(folder_ / file);
            for (std::string const& line : lines)
               out << line << '\n';
            out << "]\n";
            arguments += ' ' + file;
         }
         Result const result = run(folder_, arguments);
         std::sregex_iterator error(result.errors.begin(), result.errors.end(), form);
         if (error == std::sregex_iterator()) {
            ASSERT_EQ(result.errors, "");
            return;
         }
         for (; error != std::sregex_iterator(); ++error)
            if (auto const found = schemas_.find((*error)[1]); found != schemas_.end()) {
               if (std::size_t const line = std::stoul((*error)[2]); line > attributesBegin)
                  found->second.at(line - 1).clear();
               else
                  schemas_.erase(found);
            }
      }
   }

   static std::string compiler() { return MOXC_CXX " -I'" + root + "/src' -I. -x c++ "; }

   /// Identifiers in the headers that generated classes build on, and the macros that can be seen there.
   std::set<std::string> words() const {
      std::ofstream(folder_ / "all.cc")
         << "#include \"kestrel/notify/TypeOperations.h\"\n#include \"kestrel/attrlog/LevelSaImpl.h\"\n";
      std::string headers = "Leaf.h LeafReactor.h LeafLog.h";
      for (char const* const header :
           {"kestrel/core/Ptr.h", "kestrel/mox/Entity.h", "kestrel/mox/Reactor.h", "kestrel/notify/EntityReactor.h",
            "kestrel/attrlog/FlowOut.h", "kestrel/attrlog/StateAdapter.h", "kestrel/attrlog/LevelSa.h"})
         headers += " '" + root + "/src/" + header + '\'';
      std::string const macros =
         compiler() + "-std=gnu++20 -dM -E all.cc | sed -nE 's/^#define ([A-Za-z][A-Za-z0-9]*)\\>.*/\\1/p'";
      // What every include line begins with is no name that the headers mention.
      EXPECT_EQ(shell(folder_, "{ sed 's,//.*,,; s,\"kestrel/,\",' " + headers + " && " + macros +
                                  "; } | grep -oE '[A-Za-z][A-Za-z0-9]*'")
                   .errors,
                "");
      std::ifstream in(folder_ / "stdout");
      return {std::istream_iterator<std::string>(in), {}};
   }
};

TEST_F(MoxcNames, WhatIsAcceptedCompilesAndHidesNothing) {
   schema("Leaf", "Leaf");
   schema("Bud", "Bud", "hash");
   ASSERT_NO_FATAL_FAILURE(compileSchemas());
   std::set<std::string> const all = words();
   for (Kind const& kind : kinds) {
      std::set<std::string> names;
      std::istringstream patterns(kind.patterns);
      for (std::string pattern; patterns >> pattern;) {
         // Behind a prefix a name is raised.
         char const* const name = pattern[0] == '*' ? "([a-z]\\w*)" : "([A-Z]\\w*)";
         std::regex const form(std::regex_replace(pattern, std::regex("\\*"), name));
         for (std::string const& word : all)
            if (std::smatch match; std::regex_match(word, match, form)) {
               std::string attribute = match[1];
               attribute[0] = static_cast<char>(std::tolower(attribute[0]));
               names.insert(attribute);
            }
      }
      // Of neighbours one would often declare what the other does: they go to different types.
      std::size_t const types = names.size() / mostOfOneType + 2;
      std::size_t next = 0;
      for (std::string const& name : names) {
         std::string const type = "Of" + kind.word + std::to_string(next++ % types);
         addAttribute(schema(type, type), name, kind.word, kind.fields);
      }
   }
   for (std::string const& word : all) // macros of one case are beyond any table
      if (std::isupper(word[0]) != 0 &&
          std::any_of(word.begin(), word.end(), [](char c) { return std::islower(c) != 0; }))
         addAttribute(schema("C" + word + "s", word), "child", "collection", "value = \"Names::" + word + '"');
   ASSERT_GT(schemas_.size(), 100u);
   ASSERT_NO_FATAL_FAILURE(compileSchemas());

   EXPECT_GT(schemas_.size(), 50u);

   std::string sources;
   std::set<std::string> operations;
   std::regex const function("\n   [^ /][^(\n]*\\b([a-z]\\w*)\\(");
   for (auto const& [file, lines] : schemas_) {
      std::string const stem = file.substr(0, file.find('.'));
      sources += "#include \"" + stem + "Log.h\"\n";
      std::string const header = contents(folder_ / (stem + ".h"));
      for (std::sregex_iterator it(header.begin(), header.end(), function), end; it != end; ++it)
         if (std::string const name = (*it)[1]; !name.starts_with("mox") && !name.starts_with("fwk"))
            operations.insert(name);
   }
   // A name that two bases have is ambiguous, whoever may see it.
   for (std::string const& name : operations)
      sources += "struct Has_" + name + " { int " + name + "; };\nstruct Both_" + name + " : Mox::Entity, Has_" + name +
                 " {};\ninline int Has_" + name + "::*const " + name + "_ = &Both_" + name + "::" + name + ";\n";
   std::ofstream(folder_ / "names.cc") << sources;
   Result const result = shell(folder_, compiler() + MOXC_CXX_FLAGS " -fsyntax-only -Werror names.cc");
   EXPECT_EQ(result.status, 0) << result.errors.substr(0, 3000);
}

} // namespace
