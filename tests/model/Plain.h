// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// What an entity must do, written from its rules alone with containers of the standard library: values and counts, who is told
/// what in which order, and what a throwing reactor leaves behind.
namespace Plain {

/// One operation: data, so that a sequence can be shortened and run again. What `what` and `word` mean depends on the attribute.
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
      Reaction reaction;
      if (!r.reactions.empty()) {
         reaction = r.reactions.front();
         r.reactions.pop_front();
      }
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

template <class V> void set(Subject& s, unsigned id, V& cell, V const& v, std::string const& key = {}) {
   if (cell == v)
      return;
   cell = v;
   s.changed(id, key);
}
/// Modulo the width of the type; a touch, and no change.
template <class V, class U> void increment(Subject& s, unsigned id, V& cell, V const& delta, U) {
   ++s.touches;
   V const before = cell;
   cell = static_cast<V>(static_cast<U>(cell) + static_cast<U>(delta));
   if (cell != before)
      s.pass(id, {});
}
template <class M, class V>
void mapSet(Subject& s, unsigned id, M& map, typename M::key_type const& k, V const& v, std::string const& key) {
   auto const [at, isNew] = map.try_emplace(k, v);
   if (!isNew && at->second == v)
      return;
   at->second = v;
   s.changed(id, key);
}
template <class M> void mapDel(Subject& s, unsigned id, M& map, typename M::key_type const& k, std::string const& key) {
   if (map.erase(k) != 0)
      s.changed(id, key);
}
/// From the first key on; what comes ahead of the position goes too.
template <class M, class Text> void mapDelAll(Subject& s, unsigned id, M& map, Text text) {
   for (auto at = map.begin(); at != map.end();) {
      auto const k = at->first;
      map.erase(at);
      s.changed(id, text(k));
      at = map.upper_bound(k);
   }
}
/// A fixed array: its elements, whether anything ever happened to it, and how many were stored.
template <class V> struct Array {
   std::vector<V> values;
   bool isPopulated = false;
   unsigned stores = 0;

   void store(std::size_t i, V const& v) {
      values[i] = v;
      isPopulated = true;
      ++stores;
   }
};
template <class V>
void arraySet(Subject& s, unsigned id, Array<V>& array, std::size_t i, V const& v, std::string const& key) {
   if (array.values[i] == v)
      return;
   array.store(i, v);
   s.changed(id, key);
}
/// A default element is stored all the same, and is no change.
template <class V> void arrayDel(Subject& s, unsigned id, Array<V>& array, std::size_t i, std::string const& key) {
   bool const wasDefault = array.values[i] == V{};
   array.store(i, V{});
   if (!wasDefault)
      s.changed(id, key);
}
template <class V, class Text> void arrayDelAll(Subject& s, unsigned id, Array<V>& array, Text text) {
   for (std::size_t i = 0; i < array.values.size(); ++i)
      arrayDel(s, id, array, i, text(i));
}

} // namespace Plain
