// SPDX-License-Identifier: Apache-2.0
#include "kestrel/notify/Dump.h"

#include "kestrel/core/Text.h"
#include "kestrel/mox/MoxType.h"

#include <algorithm>
#include <ostream>

namespace Mox {

namespace {

/// A name may contain " = ", which ends the path in a dump. Its first blank is escaped, in the way that names are.
void encodeSigns(std::string& path) {
   for (std::size_t at = 0; (at = path.find(" = ", at)) != std::string::npos;)
      path.replace(at, 1, "%20");
}

} // namespace

std::string dumpKey(std::string_view text) {
   std::string key;
   for (char const c : percentEncoded(text))
      if (c == '[' || c == ']')
         key += c == '[' ? "%5B" : "%5D";
      else
         key += c;
   return key;
}

std::vector<DumpLine> dumpLines(Entity const& entity) {
   std::vector<DumpLine> lines;
   for (Ptr<MoxType const> type = entity.fwkType(); type; type = type->base())
      if (auto const dumpLevel = type->operations().dumpLines)
         dumpLevel(entity, lines);
   for (DumpLine& line : lines)
      encodeSigns(line.path);
   std::sort(lines.begin(), lines.end());
   return lines;
}

void dump(Entity const& entity, std::ostream& out) {
   auto const isForeign = [](unsigned char c) { return c < ' ' || c >= 0x7f; };
   for (DumpLine const& line : dumpLines(entity)) {
      bool const isPlain =
         !line.value.starts_with('"') && std::none_of(line.value.begin(), line.value.end(), isForeign);
      out << line.path << " = " << (isPlain ? line.value : quoted(line.value)) << '\n';
   }
}

std::vector<Difference> diff(Entity const& left, Entity const& right) {
   return diff(dumpLines(left), dumpLines(right));
}

std::vector<Difference> diff(std::vector<DumpLine> const& left, std::vector<DumpLine> const& right) {
   std::vector<Difference> differences;
   auto l = left.begin();
   auto r = right.begin();
   while (l != left.end() || r != right.end()) {
      if (r == right.end() || (l != left.end() && l->path < r->path)) {
         differences.push_back({l->path, l->value, "(absent)"});
         ++l;
      } else if (l == left.end() || r->path < l->path) {
         differences.push_back({r->path, "(absent)", r->value});
         ++r;
      } else {
         if (l->value != r->value)
            differences.push_back({l->path, l->value, r->value});
         ++l;
         ++r;
      }
   }
   return differences;
}

} // namespace Mox
