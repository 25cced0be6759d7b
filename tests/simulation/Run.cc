// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

namespace Simulation {

using namespace Mox;

Run::Kind const Run::kinds[] = {
   {330, "carry",
    [](Run& r, World&, Words& words) {
       for (std::size_t n = 1 + words.below(4); n != 0; --n)
          r.carry(words);
    }},
   {300, "change", [](Run&, World& w, Words& words) { change(w.own(words), words, w); }},
   {110, "change directory",
    [](Run&, World& w, Words& words) { change(w.roots()[words.below(words.chance(80) ? 2 : 4)], words, w); }},
   {25, "contest", [](Run& r, World&, Words& words) { r.contestOne(words); }},
   {1, "crowd", [](Run&, World& w, Words& words) { crowd(*w.roots()[words.chance(70) ? 0 : 1], words, w); }},
   {10, "ask for bytes",
    [](Run&, World& w, Words& words) {
       LinkEnd& end = *w.onePort(words).end;
       for (std::size_t n = 1 + words.below(20); n != 0; --n)
          end.bytesToSend();
    }},
   {50, "change mirror", [](Run&, World& w, Words& words) { change(w.mirror(words), words, w); }},
   {30, "fail allocation",
    [](Run& r, World& w, Words& words) {
       auto const silent = r.deeper(2); // what reactors do, the pipes above all, has the memory that it needs
       if (w.failMemory(words))
          r.count("allocation failure");
    },
    true},
   {20, "release", [](Run&, World& w, Words& words) { w.releaseHeld(words); }},
   {15, "adopt", [](Run&, World& w, Words& words) { w.adopt(words); }},
   {45, "add reactor", [](Run&, World& w, Words& words) { w.addReactor(words); }},
   {20, "drop reactor", [](Run&, World& w, Words& words) { w.dropReactor(words); }},
   {8, "pause adapter", [](Run&, World& w, Words& words) { w.pause(words); }, true},
   {8, "resume adapter", [](Run&, World& w, Words& words) { w.resume(words); }, true},
   {3, "close export",
    [](Run& r, World& w, Words& words) {
       Port& port = w.onePort(words);
       port.closeExport(words.below(port.open.size()));
       r.count("export closed");
    },
    true},
   {5, "open exports", [](Run&, World& w, Words&) { w.openExports(); }},
   {3, "remount", [](Run&, World& w, Words& words) { w.unmountSome(words); }, true},
   {16, "stall",
    [](Run& r, World&, Words& words) {
       r.onePipe(words).stall(r.now_ + 10 + words.below(80));
       r.count("stall");
    }},
   {6, "bytes without memory", [](Run& r, World&, Words& words) { r.bytesWithoutMemory(words); }, true},
   {10, "cut", [](Run& r, World&, Words& words) { r.cut(r.linkOf(words), words); }, true},
   {20, "connect", [](Run& r, World&, Words& words) { r.connect(r.linkOf(words)); }},
   {3, "restart", [](Run& r, World& w, Words& words) { r.restart(w, words); }, true},
   {4, "settle and compare", [](Run& r, World&, Words&) { r.settleAndCompare("on the way"); }},
};

std::vector<Step> Run::stepsOf(U64 seed) {
   Words words(seed);
   unsigned all = 0;
   for (Kind const& kind : kinds)
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
         while (at >= kinds[step.kind].weight)
            at -= kinds[step.kind++].weight;
      } while (isCalm && kinds[step.kind].heals);
      step.word = words.next();
      step.isCalm = isCalm;
   }
   return steps;
}

Run::Run(U64 seed, Counts& met) : Surroundings(met) {
   Words words(seed ^ 0x5eed);
   std::size_t const shape = words.below(6);
   bool const isFan = shape == 0, isChain = shape == 1;
   for (char const side : {'a', 'b', 'c'})
      if (side != 'c' || isFan || isChain)
         worlds_.emplace_back(side, *this);
   link(worlds_[0], nullptr, worlds_[1], "a");
   if (isFan) {
      count("two mirrors of one root");
      link(worlds_[0], nullptr, worlds_[2], "a");
   }
   if (isChain) {
      count("chain");
      link(worlds_[1], &worlds_[1].port(), worlds_[2], "ba");
   }
   for (World& world : worlds_)
      world.start(++incarnations_);
   forEachPort([&](Port& port) {
      if (words.chance(60))
         port.markIs(200 + words.below(1800));
   });
   for (Link& link : links_) {
      if (words.chance(10))
         link.longestFrame = 300;
      if (words.chance(5))
         link.highestSlot = 30 + static_cast<std::uint32_t>(words.below(100));
      if (words.chance(70))
         connect(link);
   }
}

void Run::link(World& one, Port* passesOn, World& other, std::string const& owners) {
   links_.push_back({{&one.addPort(std::string(1, other.side()), passesOn), &other.addPort(owners, nullptr)}});
}

void Run::play(std::vector<Step> const& steps) {
   for (Step const& step : steps) {
      ++now_;
      Words words(step.word);
      World& world = worlds_[words.below(worlds_.size())];
      count("steps");
      isCalm_ = step.isCalm;
      kinds[step.kind].happens(*this, world, words);
      throwIfWrong();
      for (World& each : worlds_) // what is wrong for a moment only is found too
         each.audit();
   }
}

void Run::throwIfWrong() {
   if (!wrong.empty())
      throw Divergence(wrong);
   forEachPort([](Port& port) {
      if (auto const& failure = port.end->failure(); !failure.empty() && failure != std::bad_alloc().what())
         port.world.diverges(failure);
   });
}

void Run::nested(World& world, int role, U64 word, Entity& entity, Entity* member) {
   if (depth_ >= 2)
      return;
   auto const scope = deeper();
   count("steps");
   Words words(word);
   if (role < 35) {
      change(world.own(words), words, world);
   } else if (role < 60) {
      change(Ptr<Entity>(member != nullptr ? member : &entity), words, world);
   } else if (role < 80) {
      count("throwing reactor");
      throw ReactorFailure("a reactor that throws");
   } else if (role < 90) {
      words.chance(50) ? world.addReactor(words) : world.dropReactor(words);
   } else if (role < 96) {
      carry(words);
   } else if (role < 98 && !isEnding_ && !isCalm_) {
      world.unmountSome(words);
   } else if (role >= 98 && !isCalm_) {
      cut(linkOf(words), words);
   }
}

// Links -----------------------------------------------------------------------------------------------------------------

bool Run::carry(Link& link, std::size_t from, Words& words, bool isWhole) {
   if (!link.isUp || link.pipes[from].isStalled(now_))
      return false;
   bool const moved = link.pipes[from].carry(link.end(from), link.end(1 - from), words, isWhole);
   // Nobody's hello says less than the library can: what a peer with limits would have said is set behind it.
   for (Port const* const port : link.ports)
      if (!port->end->peerName().empty()) {
         if (link.longestFrame != 0)
            port->stream().out()->peerMaximumFrameIs(link.longestFrame);
         if (link.highestSlot != 0)
            port->stream().peerHighestSlotIs(link.highestSlot);
      }
   return moved;
}

/// One allocation fails while bytes are made, or applied.
void Run::bytesWithoutMemory(Words& words) {
   Link& link = linkOf(words);
   std::size_t const from = words.below(2);
   if (!link.isUp)
      return;
   auto const silent = deeper(2);
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

void Run::contestOne(Words& words) {
   Link& link = linkOf(words);
   std::size_t const side = words.below(2);
   Port& owner = *link.ports[side];
   Port& mirror = *link.ports[1 - side];
   std::size_t const which = words.below(2);
   Ptr<Entity> truth = owner.world.roots()[which];
   Ptr<Entity> copy = mirror.mirrors[which];
   if (!copy)
      return;
   if (words.chance(30)) {
      // A member of both, and its members. One of that name that has not been announced yet is another.
      auto const isSame = [&](Entity const& own, Entity const& other) {
         auto const* const announced = owner.stream().adapterOf(own);
         auto const* const bound = mirror.stream().adapterOf(other);
         return announced != nullptr && bound != nullptr && bound->isMirror() &&
                NboAttrLog::Demuxer::ofPeer(announced->entityId()) == bound->entityId();
      };
      auto const theirs = snapshotOf(*copy, identityOf).entities;
      for (auto const& [cell, member] : snapshotOf(*truth, identityOf).entities)
         if (auto const at = theirs.find(cell); at != theirs.end() && isSame(*member, *at->second)) {
            truth = Ptr<Entity>(member);
            copy = Ptr<Entity>(at->second);
            break;
         }
   }
   contest(*truth, *copy, words, owner.world, mirror.world, [&] { carry(words); });
}

void Run::connect(Link& link) {
   if (link.isUp)
      return;
   count("reconnect");
   for (Port* const port : link.ports)
      port->end->connected(); // one that learns only now of the cut runs reactors, whose bytes have no stream yet
   link.isUp = true;
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
   for (Port const* const port : link.ports)
      port->stream().forEachAdapter([&](Sa& sa) { isInside |= sa.isMirror() && sa.hasFlowIn(); });
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
      if (&link.ports[0]->world == &world || &link.ports[1]->world == &world)
         cut(link, words);
   collect(world);
   world.stop();
   world.start(++incarnations_);
}

void Run::collect(World& world) {
   for (Situation const& situation : situations)
      if (situation.counter != nullptr)
         for (Port const& port : world.ports())
            counts[situation.what] += port.end->counters().*situation.counter;
}

// Comparison ------------------------------------------------------------------------------------------------------------

namespace {

using Footprint = NboAttrLog::Demuxer::Footprint;

std::size_t owed(Footprint const& f) {
   return f.flows + f.dirtyKeys + f.parked + f.retirements + f.waiting + f.askedAnew;
}
std::string sizesOf(Footprint const& f) {
   std::string text;
   for (auto const& [n, what] :
        {std::pair(f.announced, "announced"), std::pair(f.mirrored, "mirrored"), std::pair(f.flows, "flows"),
         std::pair(f.dirtyKeys, "dirty keys"), std::pair(f.parked, "parked"), std::pair(f.retirements, "retirements"),
         std::pair(f.waiting, "waiting"), std::pair(f.askedAnew, "asked anew"), std::pair(f.untold, "unanswered")})
      text += " " + std::to_string(n) + " " + what;
   return text;
}

/// What is not passed on because somebody has written it here, and the owner's value, which can't be sent, answers nothing.
bool isUnanswered(Entity const& entity, AttributeId id) {
   auto const* const mirror = Sa::mirrorAdapterOf(entity);
   if (mirror == nullptr || !mirror->hasUntold() || mirror->streamDemuxer() == nullptr)
      return false;
   auto const& untold = mirror->notes()->untold;
   return std::any_of(untold.begin(), untold.end(), [id](auto const& each) { return each.first.attribute == id; });
}
std::size_t unanswered(NboAttrLog::Demuxer& stream) {
   std::size_t count = 0;
   stream.forEachAdapter([&](Sa& sa) {
      auto const* const mirror = Sa::mirrorAdapterOf(*sa.entity());
      if (!sa.isMirror() && mirror != nullptr && sa.notes() != nullptr)
         for (NboAttrLog::Mark const& mark : sa.notes()->parked)
            count += mirror->isUntold(mark);
   });
   return count;
}

} // namespace

void Run::settle(char const* when) {
   Words words(1);
   for (Link& link : links_)
      for (Pipe& pipe : link.pipes)
         pipe.stall(0);
   // A reactor may cut the connection while it settles; its budget ends.
   for (unsigned round = 0; round < 20000; ++round) {
      ++now_;
      for (Link& link : links_)
         connect(link);
      bool moved = false, isQuiet = true;
      for (Link& link : links_)
         for (std::size_t side = 0; side < 2; ++side)
            moved |= carry(link, side, words, true);
      throwIfWrong();
      for (Link const& link : links_)
         for (std::size_t side = 0; side < 2; ++side)
            isQuiet = isQuiet && link.isUp && link.pipes[side].empty() && link.end(side).quiet();
      if (moved || !isQuiet)
         continue;
      // Reactors may have made further entries that nobody was told of.
      bool told = false;
      for (World& world : worlds_)
         told |= world.tellSilentOnes();
      if (!told)
         return;
   }
   std::string text = std::string("does not become quiet ") + when;
   forEachPort([&](Port& port) {
      text += std::string("\n   ") + port.world.side() + " to " + port.owners[0] + sizesOf(port.stream().footprint()) +
              "\n" + port.world.lastReport();
   });
   throw Divergence(text);
}

void Run::settleAndCompare(char const* when) {
   // What is told while it settles runs reactors, which may unmount.
   do {
      for (World& world : worlds_)
         world.makeWhole();
      settle(when);
   } while (!std::all_of(worlds_.begin(), worlds_.end(), [](World const& world) { return world.isWhole(); }));
   for (World& world : worlds_)
      world.checkMemory();
   bool const isLimited =
      std::any_of(links_.begin(), links_.end(), [](Link const& link) { return link.longestFrame != 0; });
   // Behind few identifiers a root may be given up: what refers to it then, on whatever link, can't be told.
   isGivenUp_ = false;
   forEachPort([&](Port& port) {
      for (Ptr<Entity> const& mirror : port.mirrors)
         isGivenUp_ |= port.isRefused(*mirror);
   });
   forEachPort([&](Port& port) {
      bool isAnswered = !isLimited;
      auto f = port.stream().footprint();
      if (isLimited)
         f.parked -= unanswered(port.stream());
      for (Ptr<Entity> const& mirror : port.mirrors) {
         auto const state = port.end->state(mirror->name());
         if (state == LinkEnd::State::refused) {
            --f.waiting; // to be opened again some day
            isAnswered = false;
         } else if (state != LinkEnd::State::live && !isGivenUp_) {
            port.world.diverges(mirror->name().str() + " is " + Mox::textOf(state));
         }
      }
      if (isGivenUp_)
         f.parked = f.flows = f.waiting = 0;
      if (owed(f) != 0 || (f.untold != 0 && isAnswered && !isGivenUp_))
         port.world.diverges("is quiet and still has" + sizesOf(f));
   });
   compared_.clear();
   for (Link const& link : links_)
      for (std::size_t side = 0; side < 2; ++side)
         compare(link, side);
   for (World& world : worlds_)
      world.checkHistories(isLimited || isGivenUp_);
}

void Run::finish() {
   isCalm_ = false;
   settleAndCompare("after the last change");
   for (World& world : worlds_)
      collect(world);

   isEnding_ = true;
   forEachPort([](Port& port) {
      for (std::size_t which = 0; which < port.open.size(); ++which)
         port.closeExport(which);
   });
   settle("after the exports were closed");
   forEachPort([](Port& port) {
      for (std::size_t which = 0; which < port.mirrors.size(); ++which)
         port.world.unmount(port, which);
   });
   settle("after the roots were closed");
   forEachPort([](Port& port) {
      if (auto const f = port.stream().footprint(); f.announced + f.mirrored + owed(f) != 0)
         port.world.diverges("after all roots were closed there are left" + sizesOf(f));
   });
   for (Link& link : links_)
      link.isUp = false;
   for (World& world : worlds_)
      world.dropAll();
   for (World& world : worlds_)
      if (world.survivors() != 0)
         world.diverges(std::to_string(world.survivors()) + " entities live although nobody holds them");
}

/// What the port at `side` exports, and the mirrors of it.
void Run::compare(Link const& link, std::size_t side) {
   owner_ = link.ports[side];
   mirror_ = link.ports[1 - side];
   isLimited_ = link.longestFrame != 0;
   isShort_ = link.highestSlot != 0;
   // Where the mirror's own roots are refused, what its owner makes with references to them can't be told.
   if (isShort_ && std::any_of(owner_->mirrors.begin(), owner_->mirrors.end(),
                               [this](Ptr<Entity> const& root) { return owner_->isRefused(*root); }))
      return;
   for (std::size_t which = 0; which < owner_->open.size(); ++which) {
      Entity& root = *owner_->open[which];
      // Nobody answers what is written to a mirror whose root is refused: so it is not passed on.
      if (which >= rootsEach && owner_->passesOn->isRefused(root))
         continue;
      // Behind few identifiers a root may be refused: its mirror keeps what it had.
      if (!mirror_->isRefused(root))
         compareEntities(root, *mirror_->mirrors[which], root.fullName().str());
      else if (!isShort_)
         mirror_->world.diverges(root.name().str() + " is refused");
   }
}

/// Whether the mirror may lack what `text` stands for, in the owner: it can't be sent.
bool Run::isBehind(std::string const& text, Entity* target, unsigned depth) const {
   if (isLimited_ && text.size() >= tooLong)
      return true;
   if (!isLimited_ || target == nullptr || depth == 0)
      return false;
   // A member with a parameter that can't be announced, and what refers to that member.
   auto const all = snapshotOf(*target, [](Entity const* e) { return e ? e->fullName().str() : ""; });
   return std::any_of(all.entities.begin(), all.entities.end(), [&](auto const& each) {
      return isBehind(textIn(all.cells, each.first), each.second, depth - 1);
   });
}

/// Whether the owner holds `target` back under that attribute, or its own value, because what that depends on belongs to a root that
/// has been given up, on whatever link.
bool Run::isHeldBack(Entity const& truth, AttributeId attribute, Entity const* target) const {
   Sa const* const sa = isGivenUp_ && target != nullptr ? owner_->stream().adapterOf(truth) : nullptr;
   if (sa == nullptr || sa->notes() == nullptr)
      return false;
   auto const& parked = sa->notes()->parked;
   return parked.contains(NboAttrLog::Mark(attribute, target->moxName())) ||
          parked.contains(NboAttrLog::Mark(attribute));
}

/// A member of a mirror that its owner can't send, and that somebody here has made: it is none of the owner's, and not passed on.
bool Run::isStranger(Entity const& truth, Entity const* member) const {
   auto const* const mirror = Sa::mirrorAdapterOf(truth);
   return mirror != nullptr && member != nullptr && member->moxRawParent() == &truth && !mirror->isOwners(*member) &&
          std::any_of(links_.begin(), links_.end(), [this](Link const& link) {
             return link.longestFrame != 0 &&
                    std::find(link.ports.begin(), link.ports.end(), owner_->passesOn) != link.ports.end();
          });
}

void Run::compareEntities(Entity& truth, Entity& copy, std::string const& path) {
   if (!compared_.emplace(&truth, &copy).second)
      return;
   auto const expect = [&](std::string const& where, std::string const& ours, std::string const& theirs) {
      if (ours != theirs)
         throw Divergence(path + where + " is " + ours + " in " + owner_->world.side() + " and " + theirs + " in " +
                          mirror_->world.side() + "\n" + owner_->world.lastReport() + mirror_->world.lastReport());
   };
   expect("", truth.fwkType()->name().str(), copy.fwkType()->name().str());
   // What a reference is called at both ends.
   auto const pathIn = [this](Port const* port) {
      return [this, port](Entity const* e) -> std::string {
         if (e == nullptr || !e->moxHasAttrLogInterface())
            return "null";
         // What belongs to a root that has been given up travels without it.
         if (isGivenUp_)
            return e->name().str();
         Entity const* top = e;
         while (top->moxRawParent() != nullptr)
            top = top->moxRawParent();
         for (auto const* const roots : {&port->open, &port->mirrors})
            if (std::any_of(roots->begin(), roots->end(), [top](auto const& root) { return root == top; }))
               return e->uriPath().str();
         // Whoever belongs to no open root travels as one without a parent.
         return "/" + e->name().str();
      };
   };
   Snapshot const ours = snapshotOf(truth, pathIn(owner_));
   Snapshot const theirs = snapshotOf(copy, pathIn(mirror_));
   for (auto const* const cells : {&ours.cells, &theirs.cells})
      if (ours.cells != theirs.cells)
         for (auto const& [cell, text] : *cells) {
            auto const a = textIn(ours.cells, cell), b = textIn(theirs.cells, cell);
            auto const at = ours.entities.find(cell);
            Entity* const target = at == ours.entities.end() ? nullptr : at->second;
            // What is referred to may be the mirror's own.
            if (a != b && !isBehind(a, target, 3) && !isStranger(truth, target) && !isBehind(b, nullptr, 0) &&
                !isBehind(cell.key, nullptr, 0) && !isUnanswered(truth, cell.attribute) &&
                !isHeldBack(truth, cell.attribute, target))
               expect("." + truth.attributeString(cell.attribute).str() + cell.key, a, b);
         }
   for (auto const& [cell, target] : ours.entities)
      if (auto const at = theirs.entities.find(cell);
          at != theirs.entities.end() && !isBehind(textIn(ours.cells, cell), target, 3))
         compareEntities(*target, *at->second, path + "." + truth.attributeString(cell.attribute).str() + cell.key);
}

} // namespace Simulation
