// SPDX-License-Identifier: Apache-2.0
#include "Simulation.h"

#include "Values.h"
#include "mox/MoxType.h"
#include "support/Allocations.h"

#include <algorithm>
#include <iterator>

namespace Simulation {

using namespace Mox;

using Counters = NboAttrLog::Demuxer::Counters;

std::array<Situation, 27> const situations = {{
   {"pause inside a collection", &Counters::pausedCollections},
   {"table grown while paused", &Counters::grownWhilePaused},
   {"cut between begin and end", nullptr},
   {"change below a paused cursor", &Counters::belowCursor},
   {"parked reference woken", &Counters::woken},
   {"name re-created while stalled", nullptr},
   {"member under another identifier", &Counters::renamedMembers},
   {"slot used again", &Counters::reusedSlots},
   {"sweep that deleted", &Counters::sweptEntries},
   {"owes all paid", &Counters::owedAll},
   {"refused write put right", nullptr},
   {"announcement restarted", &Counters::restartedAnnouncements},
   {"throwing reactor", nullptr},
   {"new incarnation", nullptr},
   {"cut", nullptr},
   {"reconnect", nullptr},
   {"stall", nullptr},
   {"split storm", nullptr},
   {"allocation failure", nullptr},
   {"paused adapter", nullptr},
   {"export closed", nullptr},
   {"remount", nullptr},
   {"collection restarted", &Counters::collectionRestarts},
   {"collection aborted", nullptr},
   {"two mirrors of one root", nullptr},
   {"chain", nullptr},
   {"allocation failure in a drain or a record", nullptr, Expects::failingMemory},
}};

/// What can happen, and how often it does; the functions get one of the worlds.
struct Run::Kind {
   unsigned weight;
   char const* text;
   void (*happens)(Run&, World&, Words&);
   char const* fault = nullptr; ///< that it is
   bool heals = false;          ///< entities are told whole afterwards: none in a calm stretch
   Expects expects = Expects::always;
};

namespace {

/// Sets a depth for a scope that an exception may leave.
struct Deeper {
   explicit Deeper(unsigned& d) noexcept : depth(d) { ++depth; }
   ~Deeper() { --depth; }
   Deeper(Deeper const&) = delete;
   Deeper& operator=(Deeper const&) = delete;
   unsigned& depth;
};

using Footprint = NboAttrLog::Demuxer::Footprint;

std::size_t owed(Footprint const& f) {
   return f.flows + f.dirtyKeys + f.parked + f.retirements + f.waiting;
}
std::string textOf(Footprint const& f) {
   return std::to_string(f.announced) + " announced, " + std::to_string(f.mirrored) + " mirrored, " +
          std::to_string(f.flows) + " flows, " + std::to_string(f.dirtyKeys) + " dirty keys, " +
          std::to_string(f.parked) + " parked, " + std::to_string(f.retirements) + " retirements, " +
          std::to_string(f.waiting) + " waiting, " + std::to_string(f.untold) + " unanswered";
}

/// Changes `entity`, unless it is null; it is held meanwhile.
void change(Ptr<Entity> const& entity, World& world, Words& words) {
   if (entity)
      Type::of(*entity).change(*entity, words, world);
}

/// What is not passed on because somebody has written them here, and the owner's value, which can't be sent, answers nothing.
bool isUnanswered(Entity const& entity, AttributeId id) {
   auto const* const mirror = Entity::MoxNboAttrLogSa::mirrorAdapterOf(entity);
   if (mirror == nullptr || !mirror->hasUntold() || mirror->streamDemuxer() == nullptr)
      return false;
   auto const& untold = mirror->notes()->untold;
   return std::any_of(untold.begin(), untold.end(), [&](auto const& each) { return each.first.attribute == id; });
}
std::size_t unanswered(NboAttrLog::Demuxer& stream) {
   std::size_t count = 0;
   stream.forEachAdapter([&](Entity::MoxNboAttrLogSa& sa) {
      auto const* const mirror = Entity::MoxNboAttrLogSa::mirrorAdapterOf(*sa.entity());
      if (sa.isMirror() || mirror == nullptr || sa.notes() == nullptr)
         return;
      for (NboAttrLog::Mark const& mark : sa.notes()->parked)
         count += mirror->isUntold(mark);
   });
   return count;
}

} // namespace

Run::Kind const Run::kinds[] = {
   {330, "carry",
    [](Run& r, World&, Words& words) {
       for (std::size_t n = 1 + words.below(4); n != 0; --n)
          r.carry(words);
    }},
   {300, "change", [](Run&, World& w, Words& words) { change(Ptr<Entity>(w.own(words)), w, words); }},
   {110, "change directory",
    [](Run&, World& w, Words& words) { change(Ptr<Entity>(w.ownDirectory(words)), w, words); }},
   {25, "contest", [](Run& r, World&, Words& words) { r.contest(words); }, nullptr, false, Expects::contests},
   {1, "crowd",
    [](Run&, World& w, Words& words) {
       Ptr<Entity> const directory = w.roots()[words.chance(70) ? 0 : 1];
       Type::of(*directory).crowd(*directory, words, w);
    }},
   {10, "ask for bytes",
    [](Run&, World& w, Words& words) {
       LinkEnd& end = w.end(words.below(w.ports()));
       for (std::size_t n = 1 + words.below(20); n != 0; --n)
          end.bytesToSend();
    }},
   {50, "change mirror", [](Run&, World& w, Words& words) { change(Ptr<Entity>(w.mirror(words)), w, words); }},
   {30, "fail allocation",
    [](Run& r, World& w, Words& words) {
       // What reactors do, the pipes above all, has the memory that it needs.
       Deeper const still(r.depth_), silent(r.depth_);
       if (w.changeWithoutMemory(words))
          r.count("allocation failure");
    },
    nullptr, true},
   {20, "release", [](Run&, World& w, Words& words) { w.releaseHeld(words); }},
   {15, "adopt", [](Run&, World& w, Words& words) { w.adopt(words); }},
   {45, "add reactor", [](Run&, World& w, Words& words) { w.addReactor(words); }},
   {20, "drop reactor", [](Run&, World& w, Words& words) { w.dropReactor(words); }},
   {8, "pause adapter", [](Run&, World& w, Words& words) { w.pause(words); }, nullptr, true},
   {8, "resume adapter", [](Run&, World& w, Words& words) { w.resume(words); }, nullptr, true},
   {3, "close export", [](Run&, World& w, Words& words) { w.closeOne(words); },
    "export closed", true},
   {5, "open exports", [](Run&, World& w, Words&) { w.openExports(); }},
   {3, "remount",
    [](Run&, World& w, Words& words) {
       w.unmountOne(words);
       if (words.chance(60))
          w.mountAll();
    },
    "remount", true},
   {16, "stall",
    [](Run& r, World& w, Words& words) { r.pipeFrom(w, words).stall(r.now_ + 10 + static_cast<unsigned>(words.below(80))); },
    "stall"},
   {5, "split storm", [](Run& r, World& w, Words& words) { r.pipeFrom(w, words).splitStorm(100); }, "split storm"},
   {10, "ping", [](Run&, World& w, Words& words) { w.demuxer(words.below(w.ports())).out()->control(NboAttrLog::Ping{words.next()}); }},
   {6, "bytes without memory", [](Run& r, World&, Words& words) { r.bytesWithoutMemory(words); }, nullptr, true, Expects::failingMemory},
   {10, "cut", [](Run& r, World&, Words& words) { r.cut(r.linkOf(words), words); }, nullptr, true},
   {20, "connect", [](Run& r, World&, Words& words) { r.connect(r.linkOf(words)); }},
   {3, "restart",
    [](Run& r, World& w, Words& words) {
       r.restart(w, words);
    },
    nullptr, true},
   {4, "settle and compare", [](Run& r, World&, Words&) { r.settleAndCompare("on the way"); }},
   {15, "check",
    [](Run& r, World&, Words&) {
       for (World& each : r.worlds_)
          each.checkMemory();
    }},
};

char const* textOf(Step const& step) noexcept {
   return Run::kinds[step.kind].text;
}

std::vector<Step> stepsOf(U64 seed) {
   Words words(seed);
   unsigned all = 0;
   for (auto const& kind : Run::kinds)
      all += kind.weight;
   std::vector<Step> steps(400 + words.below(170));
   std::size_t left = 0;
   bool isCalm = false;
   for (Step& step : steps) {
      if (left-- == 0) {
         left = 40 + words.below(200);
         isCalm = words.chance(50);
      }
      do {
         std::size_t at = words.below(all);
         step.kind = 0;
         while (at >= Run::kinds[step.kind].weight)
            at -= Run::kinds[step.kind++].weight;
      } while ((isCalm && Run::kinds[step.kind].heals) || !plays(Run::kinds[step.kind].expects));
      step.word = words.next();
      step.isCalm = isCalm;
   }
   return steps;
}

void Run::join(Shape shape) {
   for (char const side : {'a', 'b', 'c'})
      if (side != 'c' || shape != Shape::pair)
         worlds_.emplace_back(side, *this);
   auto const link = [this](World& one, std::string owners, int passesOn, World& other, std::string ownersThere) {
      links_.push_back({{&one, &other}, {one.ports(), other.ports()}});
      one.addPort(std::move(owners), passesOn);
      other.addPort(std::move(ownersThere), -1);
   };
   link(worlds_[0], "b", -1, worlds_[1], "a");
   if (shape == Shape::fan)
      link(worlds_[0], "c", -1, worlds_[2], "a");
   if (shape == Shape::chain)
      link(worlds_[1], "c", 0, worlds_[2], "ba");
   for (World& world : worlds_)
      world.start(++incarnations_);
}

Run::Run(U64 seed, Counts& counts) : counts_(counts) {
   Words words(seed ^ 0x5eed);
   std::size_t const shape = words.below(6);
   join(shape == 0 ? Shape::fan : shape == 1 ? Shape::chain : Shape::pair);
   if (shape < 2)
      count(shape == 0 ? "two mirrors of one root" : "chain");
   for (World& world : worlds_)
      for (std::size_t port = 0; port < world.ports(); ++port)
         if (words.chance(60))
            world.markIs(200 + words.below(1800), port);
   for (Link& link : links_) {
      if (words.chance(10))
         link.longestFrame = 300;
      if (plays(Expects::fewSlots) && words.chance(5))
         link.highestSlot = 30 + static_cast<std::uint32_t>(words.below(100));
      if (words.chance(70))
         connect(link);
   }
}

Run::Run(Shape shape, Counts& counts) : counts_(counts) {
   join(shape);
   connect();
}

void Run::reconnect() {
   Words words(0);
   for (Link& link : links_)
      cut(link, words);
   connect();
}

bool Run::isStalled() const noexcept {
   return std::any_of(links_.begin(), links_.end(), [this](Link const& link) {
      return link.pipes[0].isStalled(now_) || link.pipes[1].isStalled(now_);
   });
}

Pipe& Run::pipeFrom(World const& world, Words& words) noexcept {
   for (;;)
      if (Link& link = linkOf(words); link.worlds[0] == &world)
         return link.pipes[0];
      else if (link.worlds[1] == &world)
         return link.pipes[1];
}

void Run::throwIfWrong() {
   if (!wrong_.empty())
      throw Divergence(wrong_);
   for (World& world : worlds_)
      for (std::size_t port = 0; port < world.ports(); ++port)
         if (auto const& failure = world.end(port).failure(); !failure.empty() && failure != std::bad_alloc().what())
            world.diverges(failure);
}

void Run::play(std::vector<Step> const& steps) {
   for (Step const& step : steps) {
      ++now_;
      Words words(step.word);
      World& world = worlds_[words.below(worlds_.size())];
      Kind const& kind = kinds[step.kind];
      count("steps");
      isCalm_ = step.isCalm;
      kind.happens(*this, world, words);
      if (kind.fault != nullptr)
         count(kind.fault);
      throwIfWrong();
      audit();
   }
}

/// After every step: what is wrong for a moment only is found too.
void Run::audit() {
   for (World& world : worlds_)
      world.audit();
}

void Run::nested(World& world, int role, U64 word, Entity& entity, Entity* member) {
   if (depth_ >= 2)
      return;
   Deeper const scope(depth_);
   count("steps");
   Words words(word);
   if (role < 35) {
      change(Ptr<Entity>(world.own(words)), world, words);
   } else if (role < 60) {
      change(Ptr<Entity>(member != nullptr ? member : &entity), world, words);
   } else if (role < 80) {
      count("throwing reactor");
      throw std::runtime_error("a reactor that throws");
   } else if (role < 90) {
      words.chance(50) ? world.addReactor(words) : world.dropReactor(words);
   } else if (role < 96) {
      carry(words);
   } else if (role < 98) {
      if (isEnding_ || isCalm_)
         return;
      world.unmountOne(words);
      if (words.chance(60))
         world.mountAll();
      count("remount");
   } else if (!isCalm_) {
      cut(linkOf(words), words);
   }
}

bool Run::carry(Link& link, std::size_t from, Words& words, bool isWhole) {
   if (!link.isUp || link.pipes[from].isStalled(now_))
      return false;
   bool const moved = link.pipes[from].carry(link.end(from), link.end(1 - from), words, isWhole);
   limit(link);
   return moved;
}

/// Nobody's hello says less than the library can: what a peer with limits would have said is set behind it.
void Run::limit(Link const& link) const {
   if (link.longestFrame != 0 || link.highestSlot != 0)
      for (std::size_t side = 0; side < 2; ++side)
         if (LinkEnd& end = link.end(side); !end.peerName().empty()) {
            if (link.longestFrame != 0)
               end.demuxer().out()->peerMaximumFrameIs(link.longestFrame);
            if (link.highestSlot != 0)
               end.demuxer().peerHighestSlotIs(link.highestSlot);
         }
}

/// One allocation fails while bytes are made, or applied.
void Run::bytesWithoutMemory(Words& words) {
   Link& link = linkOf(words);
   std::size_t const from = words.below(2);
   if (!link.isUp)
      return;
   Deeper const still(depth_), silent(depth_);
   if (words.chance(50)) {
      NoMemory const once(true, words.below(8));
      link.end(from).bytesToSend();
      if (!NoMemory::hasFailed())
         return;
   } else if (!link.pipes[from].deliverWithoutMemory(link.end(1 - from), words)) {
      return;
   }
   count("allocation failure in a drain or a record");
   // Where memory for the bytes themselves runs out, the stream ends.
   if (!link.end(from).isConnected() || !link.end(1 - from).isConnected())
      cut(link, words);
}

bool Run::carry(Words& words) {
   Link& link = linkOf(words);
   return carry(link, words.below(2), words, words.chance(40));
}

void Run::contest(Words& words) {
   Link& link = linkOf(words);
   std::size_t const side = words.below(2);
   World& owner = *link.worlds[side];
   World& mirror = *link.worlds[1 - side];
   std::size_t const which = words.below(2);
   Ptr<Entity> truth = owner.roots()[which];
   Ptr<Entity> copy = mirror.mirrors(link.ports[1 - side])[which];
   if (!copy)
      return;
   if (words.chance(30)) {
      // A member of both, and its members. One of that name that has not been announced yet is another.
      auto const isSame = [&](Entity const& own, Entity const& theirs) {
         auto const* const announced = link.end(side).demuxer().adapterOf(own);
         auto const* const bound = link.end(1 - side).demuxer().adapterOf(theirs);
         return announced != nullptr && bound != nullptr && bound->isMirror() &&
                NboAttrLog::Demuxer::ofPeer(announced->entityId()) == bound->entityId();
      };
      auto const ours = Type::of(*truth).snapshot(*truth, identityOf).entities;
      auto const theirs = Type::of(*copy).snapshot(*copy, identityOf).entities;
      for (auto const& [cell, member] : ours)
         if (auto const at = theirs.find(cell); at != theirs.end() && isSame(*member, *at->second)) {
            truth = Ptr<Entity>(member);
            copy = Ptr<Entity>(at->second);
            break;
         }
   }
   Type::of(*truth).contest(*truth, *copy, words, owner, mirror, [&] { carry(words); });
}

void Run::connect(Link& link) {
   if (link.isUp)
      return;
   count("reconnect");
   for (std::size_t side = 0; side < 2; ++side)
      link.end(side).connected(); // one that learns only now of the cut runs reactors, whose bytes have no stream yet
   link.isUp = true;
}

void Run::connect() {
   for (Link& link : links_)
      connect(link);
}

void Run::cut(Link& link, Words& words) {
   if (!link.isUp)
      return;
   link.isUp = false;
   count("cut");
   for (std::size_t from = 0; from < 2; ++from)
      link.pipes[from].cut(link.end(1 - from), words);
   throwIfWrong();
   bool isInside = false;
   for (std::size_t side = 0; side < 2; ++side)
      link.end(side).demuxer().forEachAdapter(
         [&](Entity::MoxNboAttrLogSa& sa) { isInside |= sa.isMirror() && sa.hasFlowIn(); });
   if (isInside)
      count("cut between begin and end");
   // One side may learn of it no sooner than with the next connection.
   std::size_t const unaware = words.below(6);
   for (std::size_t side = 0; side < 2; ++side)
      if (side != unaware)
         link.end(side).peerGone("cut");
}

void Run::restart(World& world, Words& words) {
   count("new incarnation");
   for (Link& link : links_)
      if (link.worlds[0] == &world || link.worlds[1] == &world)
         cut(link, words);
   collect(world);
   world.stop();
   world.start(++incarnations_);
}

void Run::collect(World& world) {
   for (Situation const& situation : situations)
      if (situation.counter != nullptr)
         for (std::size_t port = 0; port < world.ports(); ++port)
            counts_[situation.what] += world.demuxer(port).counters().*situation.counter;
}

void Run::settle(char const* when) {
   Words words(1);
   for (Link& link : links_)
      for (Pipe& pipe : link.pipes)
         pipe.stall(0);
   // A reactor may cut the connection while it settles; its budget ends.
   for (unsigned round = 0; round < 20000; ++round) {
      ++now_;
      connect();
      bool moved = false, isQuiet = true;
      for (Link& link : links_)
         for (std::size_t side = 0; side < 2; ++side)
            moved = carry(link, side, words, true) || moved;
      throwIfWrong();
      for (Link const& link : links_)
         for (std::size_t side = 0; side < 2; ++side)
            isQuiet = isQuiet && link.isUp && link.pipes[side].empty() && link.end(side).quiet();
      if (moved || !isQuiet)
         continue;
      // Reactors may have made further entries that nobody was told of.
      bool told = false;
      for (World& world : worlds_)
         told = world.tellSilentOnes() || told;
      if (!told)
         return;
   }
   std::string text = std::string("does not become quiet ") + when + ":";
   for (Link const& link : links_)
      for (std::size_t side = 0; side < 2; ++side) {
         LinkEnd& end = link.end(side);
         text += std::string("\n   ") + link.worlds[side]->side() + " to " + link.worlds[1 - side]->side() +
                 (end.isConnected() ? "" : " is not connected,") + (end.quiet() ? " is quiet, " : " is not quiet, ") +
                 textOf(end.demuxer().footprint()) + (end.demuxer().owes() ? ", owes" : "") + "\n" +
                 link.worlds[side]->lastReport();
      }
   throw Divergence(text);
}

void Run::settleAndCompare(char const* when) {
   // What is told while it settles runs reactors, which may unmount.
   do {
      for (World& world : worlds_) {
         world.resumeAll();
         world.openExports();
         world.mountAll();
      }
      settle(when);
   } while (!std::all_of(worlds_.begin(), worlds_.end(), [](World const& world) { return world.isWhole(); }));
   bool isLimited = false;
   for (Link& link : links_)
      for (std::size_t side = 0; side < 2; ++side)
         isLimited |= link.longestFrame != 0 || link.end(side).demuxer().counters().unsentEnums != 0;
   for (World& world : worlds_) {
      world.checkMemory();
      for (std::size_t port = 0; port < world.ports(); ++port) {
         auto f = world.demuxer(port).footprint();
         bool isUnansweredHere = isLimited;
         if (isLimited)
            f.parked -= unanswered(world.demuxer(port));
         for (Ptr<Entity> const& mirror : world.mirrors(port)) {
            auto const state = world.end(port).state(mirror->name());
            if (state == LinkEnd::State::refused) {
               --f.waiting;  // to be opened again some day
               f.parked = 0; // so long, what is made with a reference to it can't be told
               isUnansweredHere = true;
            } else if (state != LinkEnd::State::live)
               world.diverges(mirror->name().str() + " is " + Mox::textOf(state));
         }
         if (owed(f) != 0 || (f.untold != 0 && !isUnansweredHere))
            world.diverges("is quiet and still has " + textOf(f));
      }
   }
   compared_.clear();
   for (Link const& link : links_)
      for (std::size_t side = 0; side < 2; ++side)
         compare({link.worlds[side], link.ports[side]}, {link.worlds[1 - side], link.ports[1 - side]}, link);
   for (World& world : worlds_)
      world.checkHistories(isLimited);
}

void Run::finish() {
   isCalm_ = false;
   settleAndCompare("after the last change");
   for (World& world : worlds_)
      collect(world);

   isEnding_ = true;
   for (World& world : worlds_)
      for (std::size_t port = 0; port < world.ports(); ++port)
         for (std::size_t which = 0; which < world.exports(port).size(); ++which)
            world.closeExport(which, port);
   settle("after the exports were closed");
   for (World& world : worlds_)
      for (std::size_t port = 0; port < world.ports(); ++port)
         for (std::size_t which = 0; which < world.mirrors(port).size(); ++which)
            world.unmount(which, port);
   settle("after the roots were closed");
   for (World& world : worlds_)
      for (std::size_t port = 0; port < world.ports(); ++port)
         if (auto const f = world.demuxer(port).footprint(); f.announced + f.mirrored + owed(f) != 0)
            world.diverges("after all roots were closed there are left " + textOf(f));
   for (Link& link : links_)
      link.isUp = false;
   for (World& world : worlds_)
      world.dropAll();
   for (World& world : worlds_)
      if (world.survivors() != 0)
         world.diverges(std::to_string(world.survivors()) + " entities live although nobody holds them");
}

// Comparison ------------------------------------------------------------------------------------------------------------

void Run::compare(View owner, View mirror, Link const& link) {
   auto const& exports = owner.world->exports(owner.port);
   // Where the mirror's own roots are refused, what its owner makes with references to them can't be told.
   auto const isRefused = [](View view) {
      auto const& all = view.world->mirrors(view.port);
      return std::any_of(all.begin(), all.end(), [&](Ptr<Entity> const& root) {
         return view.world->end(view.port).state(root->name()) == LinkEnd::State::refused;
      });
   };
   if (link.highestSlot != 0 && isRefused(owner))
      return;
   // Nobody answers what is written to a mirror whose root is refused: so it is not passed on.
   auto const isGivenUp = [&](Entity const& root) {
      for (std::size_t port = 0; port < owner.world->ports(); ++port)
         for (Ptr<Entity> const& relayed : owner.world->mirrors(port))
            if (relayed == &root && owner.world->end(port).state(root.name()) == LinkEnd::State::refused)
               return true;
      return false;
   };
   for (std::size_t which = 0; which < exports.size(); ++which) {
      if (isGivenUp(*exports[which]))
         continue;
      // Behind few identifiers a root may be refused: its mirror keeps what it had.
      if (mirror.world->end(mirror.port).state(exports[which]->moxName()) == LinkEnd::State::refused) {
         if (link.highestSlot == 0)
            mirror.world->diverges(exports[which]->name().str() + " is refused");
         continue;
      }
      isLimited_ = link.longestFrame != 0;
      isShort_ = link.highestSlot != 0;
      compareEntities(owner, *exports[which], mirror, *mirror.world->mirrors(mirror.port)[which],
                      exports[which]->fullName().str());
   }
}

/// Whether the mirror may lack what `text` stands for, in the owner: it can't be sent.
bool Run::isBehind(std::string const& text, Entity* target, unsigned depth) const {
   if (text == std::to_string(noEnumerator) || (isLimited_ && text.size() >= tooLong))
      return true;
   if (!isLimited_ || target == nullptr || depth == 0)
      return false;
   // A member with a parameter that can't be announced, and what refers to that member.
   auto const all = Type::of(*target).snapshot(*target, [](Entity const* e) { return e ? e->fullName().str() : ""; });
   return std::any_of(all.entities.begin(), all.entities.end(), [&](auto const& each) {
      return isBehind(textIn(all.cells, each.first), each.second, depth - 1);
   });
}

void Run::compareEntities(View owner, Entity& truth, View mirror, Entity& copy, std::string const& path) {
   if (!compared_.emplace(&truth, &copy).second)
      return;
   auto const fail = [&](std::string const& where, std::string const& ours, std::string const& theirs) {
      throw Divergence(path + where + " is " + ours + " in " + owner.world->side() + " and " + theirs + " in " +
                       mirror.world->side() + "\n" + owner.world->lastReport() + mirror.world->lastReport());
   };
   if (truth.fwkType() != copy.fwkType()) {
      fail("", truth.fwkType()->name().str(), copy.fwkType()->name().str());
   }
   // Behind few identifiers a root may be refused, and what belongs to it travels without it.
   auto const pathIn = [&](View view) {
      return [this, view](Entity const* e) {
         std::string const text = view.world->pathOf(e, view.port);
         return isShort_ && text != "null" ? e->name().str() : text;
      };
   };
   Snapshot const ours = Type::of(truth).snapshot(truth, pathIn(owner));
   Snapshot const theirs = Type::of(copy).snapshot(copy, pathIn(mirror));
   for (Snapshot const* const of : {&ours, &theirs})
      if (ours.cells != theirs.cells)
         for (auto const& [cell, text] : of->cells)
            if (auto const a = textIn(ours.cells, cell), b = textIn(theirs.cells, cell); a != b) {
               auto const target = ours.entities.find(cell);
               // What is referred to may be the mirror's own.
               if (isBehind(a, target == ours.entities.end() ? nullptr : target->second, 3) ||
                   isBehind(b, nullptr, 0) || isBehind(cell.key, nullptr, 0) || isUnanswered(truth, cell.attribute) ||
                   cell.key == "[" + std::to_string(noEnumerator) + "]")
                  continue;
               fail("." + truth.attributeString(cell.attribute).str() + cell.key, a, b);
            }
   for (auto const& [cell, target] : ours.entities)
      if (auto const at = theirs.entities.find(cell); at != theirs.entities.end())
         compareEntities(owner, *target, mirror, *at->second,
                         path + "." + truth.attributeString(cell.attribute).str() + cell.key);
}

} // namespace Simulation
