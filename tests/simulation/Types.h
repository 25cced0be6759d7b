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

/// What the world of one process offers to whoever changes an entity of it.
class Context {
public:
   virtual ~Context() = default;
   /// Everything that a reference may point to.
   virtual std::vector<Mox::Ptr<Mox::Entity>> targets() = 0;
   /// A local write to a mirror has been refused.
   virtual void refused(Mox::Entity const& entity, Cell const& cell) = 0;
   virtual void created(Mox::Entity& entity) = 0;
   virtual void removed(Mox::Ptr<Mox::Entity> const& entity, Words& words) = 0;
   /// An entry was made that nobody was told of; `tell` does.
   virtual void madeSilently(std::function<void()> tell) = 0;
   virtual bool isStalled() const = 0;
   virtual void recreatedWhileStalled() = 0;
   /// A reactor was called; `member` is the one that the notification is about, if any.
   virtual void reacts(int role, Mox::U64 word, Mox::Entity& entity, Mox::Entity* member) = 0;
   // Histories.
   /// `entity` notified `cell`, which it had told to be `before` (null for never) and now is `now`.
   virtual void told(Mox::Entity const& entity, Cell const& cell, std::string const* before,
                     std::string const& now) = 0;
   virtual void seen(Mox::Entity& entity, bool isMember) = 0;
};

/// What was told about one mirror entity, by the reactor that records it.
class History {
public:
   virtual ~History() = default;
   Snapshot told;
};

/// Of the reactor that records an entity; null for none.
inline History const* historyOf(Mox::Entity const& entity) {
   for (auto* r = entity.moxReactors().first(); r != nullptr; r = r->moxNextInList())
      if (auto const* const history = dynamic_cast<History const*>(r))
         return history;
   return nullptr;
}

/// What the simulator does to an entity, whatever its type.
class Type {
public:
   virtual ~Type() = default;
   /// One operation on one attribute, both from `words`.
   virtual void change(Mox::Entity& entity, Words& words, Context& context) const = 0;
   /// Sets a scalar while the next allocation fails. \return whether it did
   virtual bool changeWithoutMemory(Mox::Entity& entity, Words& words) const = 0;
   virtual Snapshot snapshot(Mox::Entity& entity, EntityText const& textOf) const = 0;
   /// 2 × members + 64, over all collections: how many keys may be dirty.
   virtual std::size_t mostDirtyKeys(Mox::Entity const& entity) const = 0;
   /// A weak reactor that calls `context.reacts`, at most `budget` times.
   virtual Mox::Ptr<Mox::PtrInterface::NotifieeConst> react(Mox::Entity& entity, int role, Mox::U64 word,
                                                            unsigned budget, Context& context) const = 0;
   /// A weak reactor that records; it is a `History`.
   virtual Mox::Ptr<Mox::PtrInterface::NotifieeConst> record(Mox::Entity& entity, Context& context) const = 0;

   static Type const& of(Mox::Entity const& entity);
};

/// The text that tells entities of one process apart.
std::string identityOf(Mox::Entity const* entity);

} // namespace Simulation
