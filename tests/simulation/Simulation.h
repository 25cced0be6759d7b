#pragma once

#include "Pipe.h"
#include "World.h"

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace Simulation {

/// What one step of a run does. The word says the rest, so that a list from which steps were taken out still runs the same way.
enum class Kind : std::uint8_t {
   carry,
   change,
   changeDirectory,
   changeMirror,
   failAllocation,
   release,
   adopt,
   addReactor,
   dropReactor,
   pauseAdapter,
   resumeAdapter,
   closeExport,
   openExport,
   remount,
   stall,
   splitStorm,
   cut,
   connect,
   restart,
   check,
};
constexpr std::size_t kinds = static_cast<std::size_t>(Kind::check) + 1;
char const* textOf(Kind kind) noexcept;

struct Step {
   Kind kind;
   Mox::U64 word;
};

/// The steps of a seed.
std::vector<Step> stepsOf(Mox::U64 seed);

/// How often each fault and each situation was met.
using Counts = std::map<std::string, Mox::U64>;
extern std::array<char const*, 13> const situations;
extern std::array<char const*, 10> const faults;

/// The two worlds don't agree, or one of them is not as it must be.
class Divergence : public std::runtime_error {
   using runtime_error::runtime_error;
};

/// Runs steps on two worlds and compares them. \throws Divergence
class Run {
public:
   explicit Run(Mox::U64 seed);
   void play(std::vector<Step> const& steps);
   /// Heals the connection, waits until nothing moves, and compares; then closes all roots and looks for what is left.
   void finish();

   Counts const& counts() const noexcept { return counts_; }
   U64 operations() const noexcept { return operations_; }
   unsigned faultsMet() const noexcept { return faultsMet_; }

   void count(std::string const& what) { ++counts_[what]; }
   void fault(std::string const& what) {
      ++counts_[what];
      ++faultsMet_;
   }
   /// A reactor does something of its own.
   void nested(World& world, int role, Mox::U64 word, Mox::Entity& entity, Mox::Entity* member);
   bool isStalled() const noexcept { return pipes_[0].isStalled(now_) || pipes_[1].isStalled(now_); }
   /// Remembers the first thing that went wrong where throwing is of no use: inside a reactor.
   void wrong(std::string const& text) {
      if (wrong_.empty())
         wrong_ = text;
   }

private:
   void step(Step const& step);
   bool carry(std::size_t from, Words& words, bool isWhole);
   void connect();
   void cut(Words& words);
   void restart(World& world);
   void check(bool atEnd);
   void settle(char const* when);
   void compare(World& owner, World& mirror);
   void compareEntities(World& owner, Mox::Entity& truth, World& mirror, Mox::Entity& copy, std::string const& path);
   void collect(World& world);
   void throwIfWrong() const;

   std::array<World, 2> worlds_;
   std::array<Pipe, 2> pipes_; ///< from each world
   unsigned now_ = 0;
   unsigned depth_ = 0;
   bool isUp_ = false;
   U64 incarnations_ = 0;
   Counts counts_;
   U64 operations_ = 0;
   unsigned faultsMet_ = 0;
   std::string wrong_;
   std::set<std::pair<Mox::Entity*, Mox::Entity*>> compared_;
};

} // namespace Simulation
