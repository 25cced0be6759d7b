#pragma once

#include "Pipe.h"
#include "World.h"

#include <array>
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
};
extern std::array<Situation, 22> const situations;

/// The two worlds don't agree, or one of them is not as it must be.
class Divergence : public std::runtime_error {
   using runtime_error::runtime_error;
};

/// Runs steps on two worlds and compares them. \throws Divergence
class Run {
public:
   Run(Mox::U64 seed, Counts& counts);
   /// Two worlds that are connected, with nothing chosen by chance.
   explicit Run(Counts& counts);
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
   bool isStalled() const noexcept { return pipes_[0].isStalled(now_) || pipes_[1].isStalled(now_); }
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

   Pipe& pipeFrom(World const& world) noexcept { return pipes_[&world == &worlds_[1] ? 1 : 0]; }
   bool carry(std::size_t from, Words& words, bool isWhole);
   void cut(Words& words);
   void restart(World& world);
   void connect();
   void audit();
   void compare(World& owner, World& mirror);
   void compareEntities(World& owner, Mox::Entity& truth, World& mirror, Mox::Entity& copy, std::string const& path);
   void collect(World& world);
   void throwIfWrong();

   Counts& counts_;
   std::array<World, 2> worlds_;
   std::array<Pipe, 2> pipes_; ///< from each world
   unsigned now_ = 0;
   unsigned depth_ = 0;
   bool isUp_ = false;
   bool isCalm_ = false;
   bool isEnding_ = false; ///< roots are closed for good: no reactor mounts them again
   U64 incarnations_ = 0;
   std::string wrong_;
   std::set<std::pair<Mox::Entity*, Mox::Entity*>> compared_;
};

} // namespace Simulation
