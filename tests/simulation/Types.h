// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Words.h"
#include "mox/Entity.h"

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Simulation {

/// One place for a value: an attribute, or one key of a keyed attribute.
struct Cell {
   Mox::AttributeId attribute;
   std::string key; ///< empty without one, else with a mark in front: the empty name is a key
   friend auto operator<=>(Cell const&, Cell const&) = default;
};

/// All values of an entity, as texts. Of what a reference or a member stands for, its user says the text.
struct Snapshot {
   std::map<Cell, std::string> cells;
   std::map<Cell, Mox::Entity*> entities; ///< members, and targets of references
};
inline std::string textIn(std::map<Cell, std::string> const& cells, Cell const& cell) {
   auto const at = cells.find(cell);
   return at == cells.end() ? "absent" : at->second;
}
using EntityText = std::function<std::string(Mox::Entity const*)>;

class World;

/// What was told about one mirror entity, by the reactor that records it.
class History {
public:
   virtual ~History() = default;
   Snapshot told;
};

/// Of the reactor that records an entity; null for none.
inline History* historyOf(Mox::Entity const& entity) {
   for (auto* r = entity.moxReactors().first(); r != nullptr; r = r->moxNextInList())
      if (auto* const history = dynamic_cast<History*>(r))
         return history;
   return nullptr;
}

/// What the simulator does to an entity, whatever its type.
class Type {
public:
   virtual ~Type() = default;
   /// One operation on one attribute, both from `words`.
   virtual void change(Mox::Entity& entity, Words& words, World& world) const = 0;
   /// Both ends of a link do things to one member's name in turn; what `copy` mirrors is `truth`. False where none has members.
   virtual bool contest(Mox::Entity& truth, Mox::Entity& copy, Words& words, World& owner, World& mirror,
                        std::function<void()> const& carry) const = 0;
   /// Makes many members, or deletes them; false for a type that owns none.
   virtual bool crowd(Mox::Entity& entity, Words& words, World& world) const = 0;
   /// Sets a scalar while the next allocation fails. \return whether it did
   virtual bool changeWithoutMemory(Mox::Entity& entity, Words& words) const = 0;
   virtual Snapshot snapshot(Mox::Entity& entity, EntityText const& textOf) const = 0;
   /// 2 × members + 64, over all collections: how many keys may be dirty.
   virtual std::size_t mostDirtyKeys(Mox::Entity const& entity) const = 0;
   /// A weak reactor that calls `world.reacts`, at most `budget` times.
   virtual Mox::Ptr<Mox::PtrInterface::NotifieeConst> react(Mox::Entity& entity, int role, Mox::U64 word,
                                                            unsigned budget, World& world) const = 0;
   /// A weak reactor that records; it is a `History`.
   virtual Mox::Ptr<Mox::PtrInterface::NotifieeConst> record(Mox::Entity& entity, World& world) const = 0;

   static Type const& of(Mox::Entity const& entity);
};

/// The text that tells entities of one process apart.
std::string identityOf(Mox::Entity const* entity);

} // namespace Simulation
