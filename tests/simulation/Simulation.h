// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Pipe.h"
#include "World.h"

#include <array>
#include <deque>
#include <map>
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
char const* textOf(Step const& step) noexcept;

/// The steps of a seed.
std::vector<Step> stepsOf(U64 seed);

/// How often each situation was met, faults among them.
using Counts = std::map<std::string, Mox::U64>;
struct Situation {
   char const* what;
   U64 Mox::NboAttrLog::Demuxer::Counters::*counter; ///< null for one that the simulation counts itself
   Expects expects = Expects::always;
};
extern std::array<Situation, 27> const situations;

/// The two worlds don't agree, or one of them is not as it must be.
class Divergence : public std::runtime_error {
   using runtime_error::runtime_error;
};

/// Which worlds there are, and how they are linked.
enum class Shape {
   pair,
   fan,   ///< two mirror what a third owns
   chain, ///< the one in the middle passes on what it mirrors
};

/// Runs steps on two or three worlds and compares them. \throws Divergence
class Run {
public:
   Run(Mox::U64 seed, Counts& counts);
   /// Worlds that are connected, with nothing chosen by chance.
   Run(Shape shape, Counts& counts);
   void play(std::vector<Step> const& steps);
   /// Settles and compares; then closes all roots and looks for what is left.
   void finish();
   /// Carries bytes until nothing moves.
   void settle(char const* when);
   /// Heals the connection, opens and mounts everything, waits until nothing moves, and compares.
   void settleAndCompare(char const* when);
   void reconnect();
   World& world(std::size_t which) noexcept { return worlds_[which]; }

   void count(std::string const& what) { ++counts_[what]; }
   /// A reactor does something of its own.
   void nested(World& world, int role, Mox::U64 word, Mox::Entity& entity, Mox::Entity* member);
   bool isStalled() const noexcept;
   /// Remembers the first thing that went wrong where throwing is of no use: inside a reactor.
   void wrong(std::string const& text) {
      if (wrong_.empty())
         wrong_ = text;
   }

private:
   struct Kind;
   static Kind const kinds[];
   friend std::vector<Step> stepsOf(U64 seed);
   friend char const* textOf(Step const& step) noexcept;

   struct Link {
      std::array<World*, 2> worlds;
      std::array<std::size_t, 2> ports;
      std::array<Pipe, 2> pipes{}; ///< from each world
      bool isUp = false;
      /// What each end takes, whatever its hello says; 0 for no limit.
      std::uint32_t longestFrame = 0, highestSlot = 0;
      Mox::LinkEnd& end(std::size_t side) const { return worlds[side]->end(ports[side]); }
   };
   /// One side of a link.
   struct View {
      World* world;
      std::size_t port;
   };

   void join(Shape shape);
   Link& linkOf(Words& words) noexcept { return links_[words.below(links_.size())]; }
   Pipe& pipeFrom(World const& world, Words& words) noexcept;
   bool carry(Link& link, std::size_t from, Words& words, bool isWhole);
   bool carry(Words& words);
   void limit(Link const& link) const;
   void bytesWithoutMemory(Words& words);
   void contest(Words& words);
   void connect();
   void connect(Link& link);
   void cut(Link& link, Words& words);
   void restart(World& world, Words& words);
   void audit();
   void compare(View owner, View mirror, Link const& link);
   bool isBehind(std::string const& text, Mox::Entity* target, unsigned depth) const;
   void compareEntities(View owner, Mox::Entity& truth, View mirror, Mox::Entity& copy, std::string const& path);
   void collect(World& world);
   void throwIfWrong();

   Counts& counts_;
   std::deque<World> worlds_;
   std::vector<Link> links_;
   unsigned now_ = 0;
   unsigned depth_ = 0;
   bool isCalm_ = false;
   bool isLimited_ = false; ///< what is compared has been sent to a peer with a limit
   bool isShort_ = false;   ///< the peer takes few identifiers
   bool isEnding_ = false;  ///< roots are closed for good: no reactor mounts them again
   U64 incarnations_ = 0;
   std::string wrong_;
   std::set<std::pair<Mox::Entity*, Mox::Entity*>> compared_;
};

} // namespace Simulation
