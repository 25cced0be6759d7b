// SPDX-License-Identifier: Apache-2.0
#include "run/Held.h"

#include "kestrel/entities/Cl10010Config.h"
#include "kestrel/entities/Cl10010Status.h"
#include "kestrel/notify/Dump.h"

#include <algorithm>
#include <vector>

namespace Job {

namespace {

using namespace Hardware::ClariPhy;

/// Calls `visit(target)` for each reference.
template <class References, class Visit> void forEachTarget(References const& references, Visit visit) {
   References::MoxAttributes::forEach([&](auto a) {
      auto const& cell = a.cell(references);
      for (auto* entry = cell.first(); entry != nullptr; entry = cell.next(*entry))
         visit(entry->value());
   });
}

} // namespace

std::string Held::text(std::string_view who) const {
   std::vector<Mox::DumpLine> lines;
   for (Mox::Entity const* const root :
        {static_cast<Mox::Entity const*>(config.get()), static_cast<Mox::Entity const*>(driven.get()),
         static_cast<Mox::Entity const*>(status.get()), static_cast<Mox::Entity const*>(watched.get())})
      for (Mox::DumpLine& line : Mox::dumpLines(*root))
         lines.push_back(std::move(line));
   auto const foreign = [&](std::string_view references, auto const& target) {
      lines.push_back({std::string(references) + '[' + Mox::dumpKey(target->moxName()) + "] itself",
                       "no entity of " + std::string(who)});
   };
   forEachTarget(*driven, [&](auto const& target) {
      if (target != config->phyConfig(target->moxName()))
         foreign("/driven.phyConfig", target);
   });
   forEachTarget(*watched, [&](auto const& target) {
      if (target != status->phyStatus(target->moxName()))
         foreign("/watched.phyStatus", target);
   });
   std::sort(lines.begin(), lines.end());
   std::string text;
   for (Mox::DumpLine const& line : lines)
      text.append(line.path).append(" = ").append(line.value).append("\n");
   return text;
}

std::size_t Held::references() const {
   std::size_t count = 0;
   forEachTarget(*driven, [&](auto const&) { ++count; });
   forEachTarget(*watched, [&](auto const&) { ++count; });
   return count;
}

} // namespace Job
