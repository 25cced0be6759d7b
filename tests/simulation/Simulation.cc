#include "Simulation.h"

#include "mox/MoxType.h"

#include <iterator>

namespace Simulation {

using namespace Mox;

std::array<char const*, 13> const situations = {"pause inside a collection",
                                                "table grown while paused",
                                                "cut between begin and end",
                                                "change below a paused cursor",
                                                "parked reference woken",
                                                "name re-created while stalled",
                                                "slot used again",
                                                "sweep that deleted",
                                                "owes all paid",
                                                "refused write put right",
                                                "announcement restarted",
                                                "throwing reactor",
                                                "new incarnation"};
std::array<char const*, 10> const faults = {"cut",
                                            "reconnect",
                                            "new incarnation",
                                            "stall",
                                            "split storm",
                                            "allocation failure",
                                            "throwing reactor",
                                            "paused adapter",
                                            "export closed",
                                            "remount"};

namespace {

struct Weight {
   Kind kind;
   unsigned weight;
   char const* text;
};
constexpr Weight weights[] = {
   {Kind::carry, 330, "carry"},
   {Kind::change, 300, "change"},
   {Kind::changeDirectory, 110, "change directory"},
   {Kind::changeMirror, 50, "change mirror"},
   {Kind::failAllocation, 30, "fail allocation"},
   {Kind::release, 20, "release"},
   {Kind::adopt, 15, "adopt"},
   {Kind::addReactor, 45, "add reactor"},
   {Kind::dropReactor, 20, "drop reactor"},
   {Kind::pauseAdapter, 8, "pause adapter"},
   {Kind::resumeAdapter, 8, "resume adapter"},
   {Kind::closeExport, 3, "close export"},
   {Kind::openExport, 5, "open exports"},
   {Kind::remount, 3, "remount"},
   {Kind::stall, 16, "stall"},
   {Kind::splitStorm, 5, "split storm"},
   {Kind::cut, 10, "cut"},
   {Kind::connect, 20, "connect"},
   {Kind::restart, 3, "restart"},
   {Kind::check, 15, "check"},
};
static_assert(std::size(weights) == kinds);

/// Sets a flag or a depth for a scope that an exception may leave.
struct Deeper {
   explicit Deeper(unsigned& d) noexcept : depth(d) { ++depth; }
   ~Deeper() { --depth; }
   Deeper(Deeper const&) = delete;
   Deeper& operator=(Deeper const&) = delete;
   unsigned& depth;
};

} // namespace

char const* textOf(Kind kind) noexcept {
   return weights[static_cast<std::size_t>(kind)].text;
}

std::vector<Step> stepsOf(U64 seed) {
   Words words(seed);
   unsigned all = 0;
   for (Weight const& w : weights)
      all += w.weight;
   std::vector<Step> steps(480 + words.below(200));
   for (Step& step : steps) {
      std::size_t at = words.below(all);
      std::size_t kind = 0;
      while (at >= weights[kind].weight)
         at -= weights[kind++].weight;
      step = {static_cast<Kind>(kind), words.next()};
   }
   return steps;
}

Run::Run(U64 seed) : worlds_{World('a', *this), World('b', *this)} {
   Words words(seed ^ 0x5eed);
   for (World& world : worlds_) {
      world.start(++incarnations_);
      if (words.chance(60))
         world.markIs(200 + words.below(1800));
   }
   if (words.chance(70))
      connect();
   faultsMet_ = 0;
}

void Run::throwIfWrong() const {
   if (!wrong_.empty())
      throw Divergence(wrong_);
   for (World const& world : worlds_)
      if (auto const& failure = const_cast<World&>(world).end().failure(); !failure.empty())
         throw Divergence(std::string("side ") + world.side() + ": " + failure);
}

void Run::play(std::vector<Step> const& steps) {
   for (Step const& s : steps) {
      step(s);
      throwIfWrong();
   }
}

void Run::step(Step const& step) {
   ++now_;
   Words words(step.word);
   std::size_t const side = words.below(2);
   World& world = worlds_[side];
   if (step.kind != Kind::carry && step.kind != Kind::check)
      ++operations_;
   switch (step.kind) {
   case Kind::carry:
      for (std::size_t n = 1 + words.below(4); n != 0; --n)
         carry(words.below(2), words, words.chance(40));
      break;
   case Kind::change:
      if (Entity* const entity = world.own(words)) {
         Ptr<Entity> const held(entity);
         Type::of(*entity).change(*entity, words, world);
      }
      break;
   case Kind::changeDirectory:
      if (Entity* const entity = world.ownDirectory(words))
         Type::of(*entity).change(*entity, words, world);
      break;
   case Kind::changeMirror:
      if (Entity* const entity = world.mirror(words)) {
         Ptr<Entity> const held(entity);
         Type::of(*entity).change(*entity, words, world);
      }
      break;
   case Kind::failAllocation: {
      Deeper const still(depth_), silent(depth_); // what reactors do, the pipes above all, has the memory that it needs
      if (world.changeWithoutMemory(words))
         fault("allocation failure");
      break;
   }
   case Kind::release:
      world.releaseHeld(words);
      break;
   case Kind::adopt:
      world.adopt(words);
      break;
   case Kind::addReactor:
      world.addReactor(words);
      break;
   case Kind::dropReactor:
      world.dropReactor(words);
      break;
   case Kind::pauseAdapter:
      world.pause(words);
      break;
   case Kind::resumeAdapter:
      world.resume(words);
      break;
   case Kind::closeExport:
      world.closeExport(words.below(world.roots().size()));
      fault("export closed");
      break;
   case Kind::openExport:
      world.openExports();
      break;
   case Kind::remount:
      world.unmount(words.below(world.mirrors().size()));
      if (words.chance(60))
         world.mountAll();
      fault("remount");
      break;
   case Kind::stall:
      pipes_[side].stall(now_ + 10 + static_cast<unsigned>(words.below(80)));
      fault("stall");
      break;
   case Kind::splitStorm:
      pipes_[side].splitStorm(100);
      fault("split storm");
      break;
   case Kind::cut:
      cut(words);
      break;
   case Kind::connect:
      connect();
      break;
   case Kind::restart:
      cut(words);
      restart(world);
      break;
   case Kind::check:
      for (World& each : worlds_)
         each.checkMemory();
      break;
   }
}

void Run::nested(World& world, int role, U64 word, Entity& entity, Entity* member) {
   if (depth_ >= 2)
      return;
   Deeper const scope(depth_);
   ++operations_;
   Words words(word);
   if (role < 35) {
      if (Entity* const other = world.own(words)) {
         Ptr<Entity> const held(other);
         Type::of(*other).change(*other, words, world);
      }
   } else if (role < 60) {
      Ptr<Entity> const target(member != nullptr ? member : &entity);
      Type::of(*target).change(*target, words, world);
   } else if (role < 80) {
      fault("throwing reactor");
      throw std::runtime_error("a reactor that throws");
   } else if (role < 90) {
      words.chance(50) ? world.addReactor(words) : world.dropReactor(words);
   } else if (role < 98) {
      carry(words.below(2), words, words.chance(40));
   } else {
      cut(words);
   }
}

bool Run::carry(std::size_t from, Words& words, bool isWhole) {
   if (!isUp_ || pipes_[from].isStalled(now_))
      return false;
   return pipes_[from].carry(worlds_[from].end(), worlds_[1 - from].end(), words, isWhole);
}

void Run::connect() {
   if (isUp_)
      return;
   fault("reconnect");
   for (World& world : worlds_)
      world.end()
         .connected(); // an end that learns only now of the cut runs reactors, and what they carry has no stream yet
   isUp_ = true;
}

void Run::cut(Words& words) {
   if (!isUp_)
      return;
   isUp_ = false;
   fault("cut");
   for (std::size_t from = 0; from < 2; ++from)
      pipes_[from].cut(worlds_[1 - from].end(), words);
   throwIfWrong();
   bool isInside = false;
   for (World& world : worlds_)
      world.demuxer().forEachAdapter([&](Entity::MoxNboAttrLogSa& sa) { isInside |= sa.isMirror() && sa.hasFlowIn(); });
   if (isInside)
      count("cut between begin and end");
   // One side may learn of it no sooner than with the next connection.
   std::size_t const unaware = words.below(6);
   for (std::size_t side = 0; side < 2; ++side)
      if (side != unaware)
         worlds_[side].end().peerGone("cut");
}

void Run::restart(World& world) {
   fault("new incarnation");
   collect(world);
   world.stop();
   world.start(++incarnations_);
}

void Run::collect(World& world) {
   auto const& c = world.demuxer().counters();
   counts_["pause inside a collection"] += c.pausedCollections;
   counts_["table grown while paused"] += c.grownWhilePaused;
   counts_["change below a paused cursor"] += c.belowCursor;
   counts_["parked reference woken"] += c.woken;
   counts_["slot used again"] += c.reusedSlots;
   counts_["sweep that deleted"] += c.sweptEntries;
   counts_["owes all paid"] += c.owedAll;
   counts_["announcement restarted"] += c.restartedAnnouncements;
}

void Run::settle(char const* when) {
   Words words(1);
   for (Pipe& pipe : pipes_)
      pipe.stall(0);
   // A reactor may cut the connection while it settles; its budget ends.
   for (unsigned round = 0; round < 20000; ++round) {
      ++now_;
      connect();
      bool const movedThere = carry(0, words, true);
      bool const moved = carry(1, words, true) || movedThere;
      throwIfWrong();
      if (moved || !isUp_ || !pipes_[0].empty() || !pipes_[1].empty() || !worlds_[0].end().quiet() ||
          !worlds_[1].end().quiet())
         continue;
      // Reactors may have made further entries that nobody was told of.
      bool const toldThere = worlds_[0].tellSilentOnes();
      bool const told = worlds_[1].tellSilentOnes() || toldThere;
      if (!told)
         return;
   }
   std::string text = std::string("does not become quiet ") + when + ":";
   for (World& world : worlds_) {
      auto const f = world.demuxer().footprint();
      text += std::string("\n   ") + world.side() + (world.end().isConnected() ? "" : " is not connected,") +
              (world.end().quiet() ? " is quiet" : " is not quiet") + ", flows " + std::to_string(f.flows) +
              ", parked " + std::to_string(f.parked) + ", retirements " + std::to_string(f.retirements) + ", pending " +
              std::to_string(f.bufferBytes) + (world.demuxer().owes() ? ", owes" : "") + "\n" + world.lastReports();
   }
   throw Divergence(text);
}

void Run::finish() {
   for (World& world : worlds_) {
      world.resumeAll();
      world.openExports();
      world.mountAll();
   }
   settle("after the last change");
   for (World& world : worlds_) {
      world.checkMemory();
      auto const f = world.demuxer().footprint();
      if (f.flows + f.dirtyKeys + f.parked + f.retirements + f.waiting != 0)
         throw Divergence(std::string("side ") + world.side() + " is quiet and still has flows " +
                          std::to_string(f.flows) + ", dirty keys " + std::to_string(f.dirtyKeys) + ", parked " +
                          std::to_string(f.parked) + ", retirements " + std::to_string(f.retirements) + ", waiting " +
                          std::to_string(f.waiting) + "\n" + world.lastReports());
      for (Ptr<Entity> const& mirror : world.mirrors())
         if (auto const state = world.end().state(mirror->name()); state != LinkEnd::State::live)
            throw Divergence(std::string("side ") + world.side() + ": " + mirror->name().str() + " is " +
                             Mox::textOf(state));
   }
   compare(worlds_[0], worlds_[1]);
   compare(worlds_[1], worlds_[0]);
   for (World& world : worlds_)
      world.checkHistories();
   for (World& world : worlds_)
      collect(world);

   for (World& world : worlds_)
      for (std::size_t which = 0; which < world.roots().size(); ++which)
         world.closeExport(which);
   settle("after the exports were closed");
   for (World& world : worlds_)
      for (std::size_t which = 0; which < world.mirrors().size(); ++which)
         world.unmount(which);
   settle("after the roots were closed");
   for (World& world : worlds_) {
      auto const f = world.demuxer().footprint();
      if (f.announced + f.mirrored + f.waiting + f.flows + f.parked + f.retirements != 0)
         throw Divergence(std::string("side ") + world.side() +
                          ": after all roots were closed there are left: announced " + std::to_string(f.announced) +
                          ", mirrored " + std::to_string(f.mirrored) + ", waiting " + std::to_string(f.waiting) +
                          ", flows " + std::to_string(f.flows) + ", parked " + std::to_string(f.parked) +
                          ", retirements " + std::to_string(f.retirements));
   }
   isUp_ = false;
   for (World& world : worlds_)
      world.dropAll();
   for (World& world : worlds_)
      if (world.survivors() != 0)
         throw Divergence(std::string("side ") + world.side() + ": " + std::to_string(world.survivors()) +
                          " entities live although nobody holds them");
}

// Comparison ------------------------------------------------------------------------------------------------------------

void Run::compare(World& owner, World& mirror) {
   for (std::size_t which = 0; which < owner.roots().size(); ++which)
      compareEntities(owner, *owner.roots()[which], mirror, *mirror.mirrors()[which],
                      owner.roots()[which]->fullName().str());
}

void Run::compareEntities(World& owner, Entity& truth, World& mirror, Entity& copy, std::string const& path) {
   if (!compared_.emplace(&truth, &copy).second)
      return;
   auto const fail = [&](std::string const& where, std::string const& ours, std::string const& theirs) {
      throw Divergence(path + where + " is " + ours + " in " + owner.side() + " and " + theirs + " in " +
                       mirror.side() + "\n" + owner.lastReports() + mirror.lastReports());
   };
   if (truth.fwkType() != copy.fwkType()) {
      fail("", truth.fwkType()->name().str(), copy.fwkType()->name().str());
   }
   auto const pathIn = [](World& world) { return [&world](Entity const* e) { return world.pathOf(e); }; };
   Snapshot const ours = Type::of(truth).snapshot(truth, pathIn(owner));
   Snapshot const theirs = Type::of(copy).snapshot(copy, pathIn(mirror));
   auto const textIn = [](Snapshot const& s, Cell const& cell) {
      auto const at = s.cells.find(cell);
      return at == s.cells.end() ? std::string("absent") : at->second;
   };
   auto const compareCells = [&](Snapshot const& of) {
      for (auto const& [cell, text] : of.cells)
         if (auto const a = textIn(ours, cell), b = textIn(theirs, cell); a != b)
            fail("." + truth.attributeString(cell.attribute).str() + cell.key, a, b);
   };
   compareCells(ours);
   compareCells(theirs);
   for (auto const& [cell, target] : ours.entities)
      if (auto const at = theirs.entities.find(cell); at != theirs.entities.end())
         compareEntities(owner, *target, mirror, *at->second,
                         path + "." + truth.attributeString(cell.attribute).str() + cell.key);
}

} // namespace Simulation
