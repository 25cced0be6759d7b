// SPDX-License-Identifier: Apache-2.0
#include "run/Sides.h"

#include "kestrel/notify/Dump.h"

#include <sstream>

namespace Job {

namespace {

std::vector<Mox::DumpLine> linesOf(std::string_view text) {
   std::vector<Mox::DumpLine> lines;
   std::istringstream in{std::string(text)};
   for (std::string line; std::getline(in, line);) {
      std::size_t const sign = line.find(" = ");
      if (sign == std::string::npos)
         lines.push_back({line, {}});
      else
         lines.push_back({line.substr(0, sign), line.substr(sign + 3)});
   }
   return lines;
}

} // namespace

std::vector<std::string> differences(std::string_view ours, std::string_view theirs, std::size_t most) {
   auto const all = Mox::diff(linesOf(ours), linesOf(theirs));
   std::vector<std::string> out;
   for (Mox::Difference const& d : all) {
      if (out.size() == most) {
         out.push_back("and " + std::to_string(all.size() - most) + " more");
         break;
      }
      out.push_back(d.path + ": here " + d.left + ", in the driver " + d.right);
   }
   return out;
}

} // namespace Job
