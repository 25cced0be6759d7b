// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Lists.h"
#include "kestrel/attrlog/StateAdapter.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Mox::NboAttrLog {

/// An entity of the peer's as it stands here, and its adapter.
struct Mirror {
   Ptr<Entity::MoxNboAttrLogSa> sa; ///< null for what this side has no type for
   Ptr<Entity> entity; ///< held until the peer retires the identifier, so that references in order always resolve
};

/// Mirrors that have no identifier: of an earlier connection, until the peer announces them again or has told everything, and roots
/// that wait for their first opening. Each knows its place, and orphans are found by their names.
class WaitingMirrors {
public:
   using Sa = Entity::MoxNboAttrLogSa;

   bool empty() const noexcept { return mirrors_.empty(); }
   std::size_t size() const noexcept { return mirrors_.size(); }
   static bool isWaiting(Sa const& sa) noexcept { return sa.waitingAt() != Notes::unlisted; }

   /// Room for `n` mirrors in all: adding up to so many can't fail. \throws std::bad_alloc; nothing has changed then
   void roomIs(std::size_t n) {
      if (n > mirrors_.capacity())
         mirrors_.reserve(std::max(n, 2 * mirrors_.capacity()));
   }
   /// Gives back most of a room that is many times as large as `n` mirrors need.
   void trim(std::size_t n) noexcept { shrink(mirrors_, n); }
   /// \throws std::bad_alloc without room; nothing has changed then
   void add(Mirror mirror);
   Sa& at(std::size_t i) const noexcept { return *mirrors_[i].sa; }
   /// Takes the mirror out; it waits.
   Mirror taken(Sa& sa) noexcept;
   /// Those for which `is(sa)` holds, in the order in which they came.
   template <class Predicate> std::vector<Mirror> thoseOf(Predicate is) const {
      std::vector<Mirror> some;
      for (Mirror const& mirror : mirrors_)
         if (is(*mirror.sa))
            some.push_back(mirror);
      return some;
   }
   /// Takes those out for which `isTaken(sa)` holds, in the order in which they came.
   template <class Predicate> std::vector<Mirror> takenIf(Predicate isTaken) {
      std::vector<Mirror> some = thoseOf(isTaken);
      for (Mirror const& mirror : some)
         taken(*mirror.sa);
      return some;
   }
   /// Whether `is(sa)` holds for an orphan of that name; the first for which it does, or null.
   template <class Predicate> Sa* orphan(Name const& name, Predicate is) const {
      if (!isIndexWhole_) {
         for (Mirror const& mirror : mirrors_)
            if (mirror.sa->isOrphan() && mirror.entity->moxName() == name && is(*mirror.sa))
               return mirror.sa.get();
         return nullptr;
      }
      // Not `equal_range`, which walks all of that name to find their end.
      for (auto at = orphans_.find(name); at != orphans_.end() && at->first == name; ++at)
         if (is(*at->second))
            return at->second;
      return nullptr;
   }
   template <class Predicate> bool any(Predicate is) const {
      for (Mirror const& mirror : mirrors_)
         if (is(*mirror.sa))
            return true;
      return false;
   }

   /// What is wrong with the list; empty where all is well.
   std::string audit() const;

private:
   std::vector<Mirror> mirrors_;
   std::unordered_multimap<Name, Sa*> orphans_;
   bool isIndexWhole_ =
      true; ///< `orphans_` has them all; where there was no memory for one, the list is walked instead
};

} // namespace Mox::NboAttrLog
