// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Words.h"
#include "kestrel/mox/Entity.h"

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

// What the simulator does to an entity, whatever its type.
namespace Simulation {

using Mox::Entity;
using Mox::Ptr;
using Mox::U64;
using Entities = std::vector<Ptr<Entity>>;
using Reactor = Ptr<Mox::PtrInterface::NotifieeConst>;

class World;

/// What a reactor throws.
struct ReactorFailure final : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// One place for a value: an attribute, or one key of a keyed attribute.
struct Cell {
   Mox::AttributeId attribute;
   std::string key; ///< empty without one
   friend auto operator<=>(Cell const&, Cell const&) = default;
};

/// All values of an entity, as texts. Of what a reference or a member stands for, its user says the text.
struct Snapshot {
   std::map<Cell, std::string> cells;
   std::map<Cell, Entity*> entities; ///< members, and targets of references
};
using EntityText = std::function<std::string(Entity const*)>;
Snapshot snapshotOf(Entity& entity, EntityText const& textOf);
std::string textIn(std::map<Cell, std::string> const& cells, Cell const& cell);
/// The text that tells entities of one process apart.
std::string identityOf(Entity const* entity);

/// One operation on one attribute, both from `words`; of null nothing.
void change(Ptr<Entity> const& entity, Words& words, World& world);
/// Both ends of a link do things to one member's name in turn; what `copy` mirrors is `truth`.
void contest(Entity& truth, Entity& copy, Words& words, World& owner, World& mirror,
             std::function<void()> const& carry);
/// Makes many members, or deletes them.
void crowd(Entity& entity, Words& words, World& world);
/// Sets a scalar while the next allocation fails. \return whether it did
bool changeWithoutMemory(Entity& entity, Words& words);

/// What was told about one mirror entity, by the weak reactor that records it.
struct History {
   virtual ~History() = default;
   Snapshot told;
};
/// Null where nobody records the entity.
History* historyOf(Entity const& entity);
Reactor record(Entity& entity, World& world);
/// A weak reactor that calls `world.reacts`, at most `budget` times.
Reactor react(Entity& entity, int role, U64 word, unsigned budget, World& world);

} // namespace Simulation
