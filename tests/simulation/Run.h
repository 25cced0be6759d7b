// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Pipe.h"
#include "World.h"

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace Simulation {

/// One step of a run: a row of the table of what can happen. The word says the rest, so that a list from which steps were taken
/// out still runs the same way.
struct Step {
   std::size_t kind;
   U64 word;
   bool isCalm; ///< of a stretch without cuts, remounts, and resends of whole entities: nothing heals what went wrong
};

/// A situation that seeds have to meet.
struct Situation {
   using Counters = LinkEnd::Counters;
   char const* what;
   U64 Counters::*counter = nullptr; ///< null for one that the simulation counts itself
};
inline Situation const situations[] = {
   {"pause inside a collection", &Situation::Counters::pausedCollections},
   {"table grown while paused", &Situation::Counters::grownWhilePaused},
   {"cut between begin and end"},
   {"change below a paused cursor", &Situation::Counters::belowCursor},
   {"parked reference woken", &Situation::Counters::woken},
   {"name re-created while stalled"},
   {"member under another identifier", &Situation::Counters::renamedMembers},
   {"slot used again", &Situation::Counters::reusedSlots},
   {"sweep that deleted", &Situation::Counters::sweptEntries},
   {"owes all paid", &Situation::Counters::owedAll},
   {"refused write put right"},
   {"announcement restarted", &Situation::Counters::restartedAnnouncements},
   {"throwing reactor"},
   {"new incarnation"},
   {"cut"},
   {"reconnect"},
   {"stall"},
   {"allocation failure"},
   {"paused adapter"},
   {"export closed"},
   {"remount"},
   {"collection restarted", &Situation::Counters::collectionRestarts},
   {"ends that wait for each other", &Situation::Counters::brokenWaits},
   {"two mirrors of one root"},
   {"chain"},
   {"allocation failure in a drain or a record"},
};

/// Runs steps on two or three worlds and compares them. All may throw a `Divergence`.
class Run final : public Surroundings {
public:
   Run(U64 seed, Counts& met);
   /// The steps of a seed.
   static std::vector<Step> stepsOf(U64 seed);
   static char const* textOf(Step const& step) { return kinds[step.kind].text; }

   void play(std::vector<Step> const& steps);
   /// Settles and compares; then closes all roots and looks for what is left.
   void finish();
   void nested(World& world, int role, U64 word, Entity& entity, Entity* member) override;
   bool isStalled() const override {
      return std::any_of(links_.begin(), links_.end(), [this](Link const& link) {
         return link.pipes[0].isStalled(now_) || link.pipes[1].isStalled(now_);
      });
   }

private:
   /// What can happen, and how often it does; the functions get one of the worlds.
   struct Kind {
      unsigned weight;
      char const* text;
      void (*happens)(Run&, World&, Words&);
      bool heals = false; ///< entities are told whole afterwards: none in a calm stretch
   };
   static Kind const kinds[];

   struct Link {
      std::array<Port*, 2> ports;
      std::array<Pipe, 2> pipes{}; ///< from each port
      bool isUp = false;
      /// What each end takes, whatever its hello says; 0 for no limit.
      std::uint32_t longestFrame = 0, highestSlot = 0;
      LinkEnd& end(std::size_t side) const { return *ports[side]->end; }
   };
   /// Reactors that call each other: from two deep on they do nothing.
   auto deeper(unsigned by = 1) {
      depth_ += by;
      auto const back = [this, by](void*) { depth_ -= by; };
      return std::unique_ptr<Run, decltype(back)>(this, back);
   }

   /// Carries bytes until nothing moves.
   void settle(char const* when);
   /// Heals the connection, opens and mounts everything, waits until nothing moves, and compares.
   void settleAndCompare(char const* when);
   void link(World& one, Port* passesOn, World& other, std::string const& owners);
   void connect(Link& link);
   void cut(Link& link, Words& words);
   void restart(World& world, Words& words);
   Link& linkOf(Words& words) noexcept { return links_[words.below(links_.size())]; }
   Pipe& onePipe(Words& words) noexcept { return linkOf(words).pipes[words.below(2)]; }
   bool carry(Link& link, std::size_t from, Words& words, bool isWhole);
   void carry(Words& words) {
      Link& link = linkOf(words);
      bool const isWhole = words.chance(40);
      carry(link, words.below(2), words, isWhole);
   }
   void bytesWithoutMemory(Words& words);
   void contestOne(Words& words);
   void collect(World& world);
   void throwIfWrong();
   void compare(Link const& link, std::size_t side);
   void compareEntities(Entity& truth, Entity& copy, std::string const& path);
   bool isBehind(std::string const& text, Entity* target, unsigned depth) const;
   bool isStranger(Entity const& truth, Entity const* member) const;
   bool isHeldBack(Entity const& truth, Mox::AttributeId attribute, Entity const* target) const;
   template <class Call> void forEachPort(Call call) {
      for (World& world : worlds_)
         for (Port& port : world.ports())
            call(port);
   }

   std::deque<World> worlds_;
   std::vector<Link> links_;
   unsigned now_ = 0;
   unsigned depth_ = 0;
   bool isCalm_ = false;
   bool isEnding_ = false; ///< roots are closed for good: no reactor mounts them again
   U64 incarnations_ = 0;
   // While worlds are compared.
   Port const* owner_ = nullptr;
   Port const* mirror_ = nullptr;
   bool isLimited_ = false; ///< what is compared has been sent to a peer with a limit
   bool isShort_ = false;   ///< the peer takes few identifiers
   bool isGivenUp_ = false; ///< a root is refused for that, on one link or another
   std::set<std::pair<Entity*, Entity*>> compared_;
};

} // namespace Simulation
