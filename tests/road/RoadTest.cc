// SPDX-License-Identifier: Apache-2.0
// docs/architecture.md says through which functions one change goes, stop by stop. Here every function of those files reports
// that it was entered, and the page's names must come in the page's order.
#include "attrlog/LocalLink.h"
#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigReactor.h"
#include "notify/Observe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Plain words: what records must not call anything that reports itself.
void* entered[100000];
std::size_t count = 0;
bool isRecording = false;

} // namespace

extern "C" {
[[gnu::no_instrument_function]] void __cyg_profile_func_enter(void* function, void*);
[[gnu::no_instrument_function]] void __cyg_profile_func_exit(void*, void*);
void __cyg_profile_func_enter(void* function, void*) {
   if (isRecording && count < sizeof entered / sizeof *entered)
      entered[count++] = function;
}
void __cyg_profile_func_exit(void*, void*) {}
}

namespace {

/// The qualified name alone: no template arguments, parameters or result.
std::string plainName(void* function) {
   Dl_info info;
   if (dladdr(function, &info) == 0 || info.dli_sname == nullptr)
      return {};
   int status = 0;
   char* const demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
   std::string name = status == 0 ? demangled : info.dli_sname;
   std::free(demangled);
   for (std::size_t open = name.rfind('<'); open != name.npos; open = name.rfind('<'))
      name.erase(open, name.find('>', open) - open + 1);
   name.resize(std::min(name.size(), name.find('(')));
   return name.substr(name.rfind(' ') + 1);
}

/// Whether `name` stands in `qualified` as a whole: a function, or a class whose function it is.
bool stands(std::string const& name, std::string const& qualified) {
   return ("::" + qualified + "::").find("::" + name + "::") != std::string::npos;
}

/// One numbered stop: its file or folder, and the functions in backticks behind it.
struct Stop {
   std::string file;
   std::vector<std::string> names;
};

std::vector<Stop> stopsOf(std::string const& document, std::string const& heading) {
   std::ifstream in(document);
   std::vector<Stop> stops;
   bool isInside = false;
   for (std::string line; std::getline(in, line);) {
      if (line.starts_with("## "))
         isInside = line == heading;
      if (!isInside || line.empty())
         continue;
      if (std::isdigit(static_cast<unsigned char>(line[0])) != 0 && line.find(". ") != std::string::npos)
         stops.emplace_back();
      if (stops.empty())
         continue;
      std::istringstream parts(line);
      std::string text;
      // Every second piece between backticks is a name; none of them is broken over two lines.
      for (bool isName = false; std::getline(parts, text, '`'); isName = !isName)
         if (isName)
            (stops.back().file.empty() ? stops.back().file : stops.back().names.emplace_back()) = text;
   }
   return stops;
}

std::string contentOf(std::string const& file) {
   std::ostringstream text;
   for (std::string const folder : {ROAD_FOLDERS "/", ROAD_GENERATED "/"})
      if (std::ifstream in(folder + file); in)
         text << in.rdbuf();
   return text.str();
}

std::vector<std::string> functionsOfOneChange() {
   using Config = Hardware::ClariPhy::Cl10010Config;
   Mox::LocalLink link;
   auto const ours = Mox::make<Config>("line");
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Config>("line");
   link.settle();
   auto const watch = Mox::on(theirs, Config::Attr::rollOff, [](Config&) { isRecording = false; });
   isRecording = true;
   ours->rollOffIs(0.35F);
   link.settle();
   EXPECT_FALSE(isRecording) << "the mirror's reactor was not called";
   isRecording = false;
   EXPECT_LT(count, std::size(entered)) << "one change enters too many functions to record";
   std::vector<std::string> names;
   for (std::size_t i = 0; i < count; ++i)
      names.push_back(plainName(entered[i]));
   return names;
}

} // namespace

TEST(Road, AChangePassesTheStopsOfTheMapInOrder) {
   std::vector<Stop> const stops = stopsOf(ROAD_DOCUMENT, "## The road of one change");
   ASSERT_GE(stops.size(), 5u);
   EXPECT_LE(stops.size(), 10u);
   std::vector<std::string> const functions = functionsOfOneChange();
   std::size_t at = 0;
   for (Stop const& stop : stops) {
      SCOPED_TRACE("at " + stop.file);
      ASSERT_FALSE(stop.names.empty());
      if (!stop.file.ends_with('/')) {
         std::string const last = stop.names.front().substr(stop.names.front().rfind(':') + 1);
         EXPECT_NE(contentOf(stop.file).find(last), std::string::npos) << last << " does not stand in that file";
      }
      for (std::string const& name : stop.names) {
         while (at < functions.size() && !stands(name, functions[at]))
            ++at;
         ASSERT_LT(at, functions.size()) << name << " is not entered behind the stop before";
         ++at;
      }
   }
}
