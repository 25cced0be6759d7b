// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "simulation/Attributes.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// What an entity must do, written from its rules alone with containers of the standard library: values and counts, who is told
/// what in which order, and what a throwing reactor leaves behind.
namespace Plain {

/// One operation. What `what` and `word` mean depends on the attribute.
struct Op {
   unsigned attribute; ///< position among the attributes of the type, its bases' first
   unsigned what;
   std::uint64_t word;
};

/// What a reactor does when it is told something.
struct Reaction {
   enum What : unsigned { nothing, throws, rethrows, changes, leaves, joins, drops, count };
   What what = nothing;
   Op op{};               ///< what it changes
   std::size_t other = 0; ///< the reactor that it takes off the list, puts on it, or lets go
};

/// Thrown by a reactor, and again by its handler of exceptions.
struct Thrown {};

using Log = std::vector<std::string>;
inline std::string told(std::size_t reactor, unsigned id, std::string const& key) {
   return std::to_string(reactor) + " told " + std::to_string(id) + key;
}
inline std::string threw(std::size_t reactor, unsigned id) {
   return std::to_string(reactor) + " threw in " + std::to_string(id);
}

/// The next one of a reactor.
inline Reaction taken(std::deque<Reaction>& reactions) {
   if (reactions.empty())
      return {};
   Reaction const first = reactions.front();
   reactions.pop_front();
   return first;
}
/// Does it on one of the two sides.
template <class Side> void react(Reaction const& r, Side& side) {
   switch (r.what) {
   case Reaction::throws:
   case Reaction::rethrows:
      throw Thrown{};
   case Reaction::changes:
      side.run(r.op);
      break;
   case Reaction::leaves:
   case Reaction::joins:
      side.registeredIs(r.other, r.what == Reaction::joins);
      break;
   case Reaction::drops:
      side.drop(r.other);
      break;
   case Reaction::nothing:
   case Reaction::count:
      break;
   }
}

/// The counts and the reactors.
class Subject {
public:
   struct Reactor {
      std::size_t number;
      bool isRegistered = false;
      bool isActive = true;
      bool wasRegistered = false;
      std::deque<Reaction> reactions{};
   };

   unsigned changes = 0;
   unsigned touches = 0;
   Log log;
   std::vector<std::shared_ptr<Reactor>> reactors; ///< by number; null where let go
   std::function<void(Op const&)> run;             ///< an operation that a reactor calls

   void registeredIs(std::size_t number, bool registered) {
      auto const r = reactors[number];
      if (!r || r->isRegistered == registered)
         return;
      r->isRegistered = registered;
      if (registered)
         list_.push_back(r);
      else
         std::erase_if(list_, [&](auto const& other) { return other.lock() == r; });
   }
   void activeIs(std::size_t number, bool active) {
      auto const r = reactors[number];
      if (!r || r->isActive == active)
         return;
      r->isActive = active;
      if (!active)
         r->wasRegistered = r->isRegistered;
      if (!active || r->wasRegistered)
         registeredIs(number, active);
   }
   void drop(std::size_t number) { auto const gone = std::exchange(reactors[number], nullptr); }

   void changed(unsigned id, std::string const& key = {}) {
      ++changes;
      pass(id, key);
   }
   /// Everybody who is on the list now, in its order; not who has been let go before its turn.
   void pass(unsigned id, std::string const& key) {
      std::erase_if(list_, [](auto const& r) { return r.expired(); });
      std::vector<std::shared_ptr<Reactor>> snapshot;
      for (auto const& r : list_)
         snapshot.push_back(r.lock());
      for (std::size_t i = 0; i < snapshot.size(); ++i) {
         if (i == 0 || snapshot[i].use_count() != 1)
            tell(*snapshot[i], id, key);
         snapshot[i].reset();
      }
   }

private:
   void tell(Reactor& r, unsigned id, std::string const& key) {
      log.push_back(told(r.number, id, key));
      Reaction const reaction = taken(r.reactions);
      try {
         react(reaction, *this);
      } catch (...) {
         log.push_back(threw(r.number, id));
         if (reaction.what == Reaction::rethrows)
            throw Thrown{};
      }
   }

   std::vector<std::weak_ptr<Reactor>> list_;
};

// The rules of each kind. An equal value is no change; a default element or an absent key can't be deleted.

template <class V> void set(Subject& s, unsigned id, V& cell, V const& v) {
   if (cell == v)
      return;
   cell = v;
   s.changed(id);
}
/// Modulo the width of the type; a touch, and no change.
template <std::integral V> void increment(Subject& s, unsigned id, V& cell, V delta) {
   using U = std::make_unsigned_t<V>;
   ++s.touches;
   V const before = std::exchange(cell, static_cast<V>(static_cast<U>(cell) + static_cast<U>(delta)));
   if (cell != before)
      s.pass(id, {});
}
template <class M> void mapSet(Subject& s, unsigned id, M& map, typename M::value_type const& entry) {
   auto const [at, isNew] = map.insert(entry);
   if (!isNew && at->second == entry.second)
      return;
   at->second = entry.second;
   s.changed(id, Simulation::keyText(entry.first));
}
template <class M> void mapDel(Subject& s, unsigned id, M& map, typename M::key_type const& k) {
   if (map.erase(k) != 0)
      s.changed(id, Simulation::keyText(k));
}
/// From the first key on; what comes ahead of the position goes too.
template <class M> void mapDelAll(Subject& s, unsigned id, M& map) {
   for (auto at = map.begin(); at != map.end();) {
      auto const k = at->first;
      mapDel(s, id, map, k);
      at = map.upper_bound(k);
   }
}
/// A fixed array: its elements, whether anything ever happened to it, and how many were stored.
template <class V> struct Array {
   std::vector<V> values;
   bool isPopulated = false;
   unsigned stores = 0;

   /// A default element that is deleted is stored all the same, and is no change.
   void store(Subject& s, unsigned id, std::size_t i, V const& v, bool deletes) {
      bool const isSame = values[i] == v;
      if (isSame && !deletes)
         return;
      values[i] = v;
      isPopulated = true;
      ++stores;
      if (!isSame)
         s.changed(id, Simulation::keyText(i));
   }
};

} // namespace Plain
