// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <vector>

// What moxc lets through must compile, and hide nothing: every name that a header of the framework mentions is tried as a name
// that an attribute would declare, for every kind, and as the name of a class.

namespace fs = std::filesystem;

namespace {

fs::path const root = MOXC_TEST_ROOT;

struct Kind {
   std::string word;
   std::string fields;
   /// What is declared for an attribute `*`, in any of the classes that are generated.
   std::vector<std::string> patterns;
} const kinds[] = {
   {"scalar", "value = \"U32\"", {"*", "*Is", "on*", "moxIs*DirtyIs"}},
   {"optional", "value = \"U32\"", {"*Del"}},
   {"counter", "value = \"U32\"", {"*Inc"}},
   {"reference", "value = \"Names::Leaf\"", {"*Is"}},
   {"array", "value = \"U32\", key = \"ClariPhyTypes::LdpcHistogramIterNum\"", {"*DelAll", "*Notify", "Mox*Array"}},
   {"map",
    "value = \"U32\", key = \"U32\"",
    {"*Is", "*Del", "*DelAll", "*Notify", "new*", "on*", "on*moxImmediate", "Mox*", "Mox*Map", "MoxMoxIs*Dirty",
     "mox*HasSyncedIs", "newMoxIs*Dirty", "moxIs*DirtyIs", "moxIs*DirtyDel"}},
   {"hashMap", "value = \"U32\", key = \"U32\"", {"Mox*", "Mox*Map"}},
   {"collection",
    "value = \"Names::Leaf\"",
    {"*Notify", "new*", "Mox*Map", "*NboAttrLogAdapterIs", "*NboAttrLogAdapterDel"}},
   {"hashCollection", "value = \"Names::Bud\"", {"new*", "Mox*Map"}},
   {"hashReferences", "value = \"Names::Leaf\"", {"new*", "Mox*", "Mox*Map"}}};

constexpr unsigned mostOfOneType = 120;

class MoxcNames : public Moxc {
protected:
   void SetUp() override {
      Moxc::SetUp();
      write("Leaf.toml", "[entity]\nname = \"Names::Leaf\"\nmember = \"tree\"\ndoc = \"A leaf.\"\n");
      write("Bud.toml", "[entity]\nname = \"Names::Bud\"\nmember = \"hash\"\ndoc = \"A bud.\"\n");
   }

   void write(std::string const& name, std::string const& text) const { std::ofstream(folder_ / name) << text; }

   static std::string compiler() { return MOXC_CXX " -I'" + (root / "src").string() + "' -I. -x c++ "; }

   /// Identifiers in the headers that generated classes build on, and the macros that can be seen there.
   std::set<std::string> words() const {
      std::set<std::string> found;
      EXPECT_EQ(run(folder_, "--out . Leaf.toml").errors, "");
      std::vector<fs::path> headers{folder_ / "Leaf.h", folder_ / "LeafReactor.h", folder_ / "LeafLog.h"};
      for (char const* const header : {"core/Ptr.h", "mox/Entity.h", "mox/Reactor.h", "notify/EntityReactor.h",
                                       "attrlog/FlowOut.h", "attrlog/StateAdapter.h", "attrlog/LevelSa.h"})
         headers.push_back(root / "src" / header);
      std::regex const comment("//[^\n]*");
      std::regex const word("[A-Za-z][A-Za-z0-9]*");
      for (fs::path const& header : headers) {
         std::string const text = std::regex_replace(contents(header), comment, "");
         for (std::sregex_iterator it(text.begin(), text.end(), word), end; it != end; ++it)
            found.insert(it->str());
      }
      write("all.cc", "#include \"notify/TypeOperations.h\"\n#include \"attrlog/LevelSaImpl.h\"\n");
      EXPECT_EQ(shell(folder_, compiler() + "-std=gnu++20 -dM -E all.cc").status, 0);
      std::istringstream macros(contents(folder_ / "stdout"));
      for (std::string line; std::getline(macros, line);) {
         std::string define, name;
         std::istringstream(line) >> define >> name;
         name.resize(std::min(name.size(), name.find('(')));
         if (std::regex_match(name, word))
            found.insert(name);
      }
      return found;
   }

   /// Runs moxc over schemas whose lines may be left out, until it takes what is left. `Rejected` is called with the schema, the
   /// line and the text of each error.
   template <class Rejected> void compileSchemas(std::string const& schemas, Rejected rejected) const {
      for (;;) {
         Result const result =
            run(folder_, "--out . --import '" + (root / "src/values/values.toml").string() + "' " + schemas);
         if (result.status == 0)
            return;
         std::regex const form("(\\w+\\.toml):(\\d+):\\d+: error: (.*)");
         std::istringstream errors(result.errors);
         bool any = false;
         std::smatch match;
         for (std::string line; std::getline(errors, line);)
            if (std::regex_match(line, match, form)) {
               any = true;
               rejected(match[1].str(), std::stoul(match[2].str()), match[3].str());
            }
         ASSERT_TRUE(any) << result.errors;
      }
   }

   void expectToCompile(std::string const& files) const {
      Result const result = shell(folder_, compiler() + MOXC_CXX_FLAGS " -fsyntax-only -Werror " + files);
      EXPECT_EQ(result.status, 0) << result.errors.substr(0, 3000);
   }
};

TEST_F(MoxcNames, AttributesThatAreAcceptedCompileAndHideNothing) {
   std::map<std::string, std::set<std::string>> names;
   for (std::string const& word : words())
      for (Kind const& kind : kinds)
         for (std::string const& pattern : kind.patterns) {
            auto const star = pattern.find('*');
            std::string const after = pattern.substr(star + 1);
            if (word.size() < pattern.size() || word.compare(0, star, pattern, 0, star) != 0 || !word.ends_with(after))
               continue;
            std::string name = word.substr(star, word.size() + 1 - pattern.size());
            // Behind a prefix it was raised.
            if (star != 0 ? std::isupper(name[0]) : std::islower(name[0])) {
               name[0] = static_cast<char>(std::tolower(name[0]));
               names[kind.word].insert(name);
            }
         }
   ASSERT_GT(names["scalar"].size(), 200u);

   std::string schemas = "Leaf.toml Bud.toml";
   std::map<std::string, std::vector<std::string>> lines;
   auto const store = [&](std::string const& file) {
      std::string text;
      for (std::string const& line : lines[file])
         text += line + '\n';
      write(file, text);
   };
   for (Kind const& kind : kinds) {
      // What is refused only because of another name is tried once more, in another type.
      for (std::set<std::string> left = names[kind.word]; !left.empty();) {
         std::string const type = "Names" + std::to_string(lines.size());
         auto& text = lines[type + ".toml"];
         text = {"[entity]", "name = \"Names::" + type + '"', "doc = \"Names.\"", "attributes = ["};
         unsigned id = 258;
         std::vector<std::string> const taken(
            left.begin(), std::next(left.begin(), std::min<long>(mostOfOneType, static_cast<long>(left.size()))));
         for (std::string const& name : taken) {
            left.erase(name);
            text.push_back("{ id = " + std::to_string(id++) + ", name = \"" + name + "\", kind = \"" + kind.word +
                           "\", " + kind.fields + ", doc = \"A name.\" },");
         }
         text.push_back("]");
         store(type + ".toml");
         compileSchemas("Leaf.toml Bud.toml " + type + ".toml",
                        [&](std::string const& file, std::size_t line, std::string const& why) {
                           ASSERT_GT(line, 4u) << why;
                           if (why.find("is also one of") != std::string::npos)
                              left.insert(taken[line - 5]);
                           lines[file][line - 1].clear();
                           store(file);
                        });
         if (HasFatalFailure())
            return;
         schemas += ' ' + type + ".toml";
      }
   }

   std::string sources;
   std::set<std::string> operations;
   std::regex const function("\n   [^ /][^(\n]*\\b([a-z]\\w*)\\(");
   for (auto const& [file, text] : lines) {
      std::string const stem = file.substr(0, file.find('.'));
      sources += "#include \"" + stem + ".h\"\n#include \"" + stem + "Log.h\"\n";
      std::string const header = contents(folder_ / (stem + ".h"));
      for (std::sregex_iterator it(header.begin(), header.end(), function), end; it != end; ++it)
         if (std::string const name = (*it)[1].str(); !name.starts_with("mox") && name != "fwkType")
            operations.insert(name);
   }
   // A name that two bases have is ambiguous, whoever may see it.
   for (std::string const& name : operations)
      sources += "struct Has_" + name + " { int " + name + "; };\nstruct Both_" + name + " : Mox::Entity, Has_" + name +
                 " {};\ninline int Has_" + name + "::*const " + name + "_ = &Both_" + name + "::" + name + ";\n";
   write("names.cc", sources);
   expectToCompile("names.cc");
}

TEST_F(MoxcNames, ClassesThatAreAcceptedCompile) {
   std::string schemas;
   std::string sources;
   std::set<std::string> types;
   for (std::string const& word : words())
      if (std::isupper(word[0]) != 0 &&
          std::any_of(word.begin(), word.end(), [](char c) { return std::islower(c) != 0; }))
         types.insert(word); // macros of one case are beyond any table
   for (std::string const& type : types)
      write("C" + type + "s.toml", "[entity]\nname = \"Names::" + type +
                                      "\"\nmember = \"tree\"\ndoc = \"A name.\"\nattributes = [\n" +
                                      "{ id = 258, name = \"child\", kind = \"collection\", value = \"Names::" + type +
                                      "\", doc = \"Members.\" },\n]\n");
   auto const all = [&] {
      std::string text;
      for (std::string const& type : types)
         text += "C" + type + "s.toml ";
      return text;
   };
   for (bool again = true; again;) {
      again = false;
      Result const result = run(folder_, "--list --out . " + all());
      std::regex const form("C(\\w+)s\\.toml:2:\\d+: error: .*");
      for (std::sregex_iterator it(result.errors.begin(), result.errors.end(), form), end; it != end; ++it)
         again = types.erase((*it)[1].str()) != 0 || again;
      ASSERT_TRUE(again || result.status == 0) << result.errors;
   }
   ASSERT_GT(types.size(), 50u);
   ASSERT_EQ(run(folder_, "--out . " + all()).errors, "");
   for (std::string const& type : types)
      sources += "#include \"C" + type + "sLog.h\"\n";
   write("classes.cc", sources);
   expectToCompile("classes.cc");
}

TEST_F(MoxcNames, AForgottenReactorHeaderIsNamedInOneError) {
   ASSERT_EQ(run(folder_, "--out . --prefix tree Leaf.toml").errors, "");
   for (char const* const call :
        {"on(leaf, Names::Leaf::Attr::parent, [](auto&) {})", "onAny(leaf, [](auto&, unsigned) {})"}) {
      write("watch.cc", "#include \"notify/Observe.h\"\n#include \"tree/Leaf.h\"\n"
                        "auto f(Mox::Ptr<Names::Leaf> const& leaf) { return Mox::" +
                           std::string(call) + "; }\n");
      std::string const errors = shell(folder_, compiler() + MOXC_CXX_FLAGS " -fsyntax-only watch.cc").errors;
      EXPECT_NE(errors.find("include tree/LeafReactor.h to watch a Names::Leaf"), std::string::npos) << errors;
      EXPECT_EQ(errors.find("error:"), errors.rfind("error:")) << errors;
   }
}

} // namespace
