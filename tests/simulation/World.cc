// SPDX-License-Identifier: Apache-2.0
#include "World.h"

#include "Simulation.h"
#include "mox/MoxType.h"
#include "siblings/Accelerator.h"
#include "siblings/EthPhyIntfStatus.h"
#include "siblings/Gpo.h"
#include "siblings/IntCtrl.h"
#include "siblings/LedConfig.h"
#include "siblings/XcvrConfig.h"
#include "support/Allocations.h"

#include <algorithm>
#include <utility>

namespace Simulation {

using namespace Mox;
using namespace Hardware;

namespace {

using Make = Ptr<Entity> (*)(Name const&);
template <class X> Ptr<Entity> made(Name const& name) {
   return make<X>(name);
}

constexpr std::pair<char const*, Make> rootKinds[] = {
   {"config-", made<ClariPhy::Cl10010ConfigDir>},
   {"status-", made<ClariPhy::Cl10010StatusDir>},
   {"configs-", made<ClariPhy::Cl10010ConfigPtrDir>},
   {"states-", made<ClariPhy::Cl10010StatusPtrDir>},
   {"single-", made<ClariPhy::Cl10010Config>},
   {"pll-", made<Dpll::PllStatus>},
   {"xcvr-", made<Xcvr::XcvrStatus>},
};
constexpr std::size_t rootsEach = std::size(rootKinds);
constexpr Make siblingKinds[] = {made<Spi::Accelerator>, made<Interface::EthPhyIntfStatus>,
                                 made<Fru::Gpo>,         made<Fru::IntCtrl>,
                                 made<Led::LedConfig>,   made<Dpll::PllStatus>,
                                 made<Xcvr::XcvrConfig>, made<Xcvr::XcvrStatus>};

Name rootName(std::size_t which, char side) {
   return Name(rootKinds[which].first + std::string(1, side));
}
/// Of the mirror at a place: the peer's own roots are first, then those that it passes on.
Name mirrorName(Port const& port, std::size_t which) {
   return rootName(which % rootsEach, port.owners[which / rootsEach]);
}

/// Takes one element out; null where there is none.
template <class T> T taken(std::vector<T>& from, Words& words) {
   if (from.empty())
      return {};
   auto const at = from.begin() + static_cast<std::ptrdiff_t>(words.below(from.size()));
   T element = *at;
   from.erase(at);
   return element;
}

/// Sees whether an entity lives, and keeps it from nothing.
class Watcher final : public Entity::NotifieeConst {};

/// What is wrong with the inside of one end; empty for nothing.
template <class Demuxer> std::string faultIn(Demuxer const& demuxer) {
   if constexpr (requires { demuxer.auditErrors(); })
      if (demuxer.auditErrors() != 0)
         return demuxer.audit();
   return {};
}

/// Members and theirs.
void addMembers(Entity& root, std::vector<Ptr<Entity>>& to) {
   if (auto const visit = root.fwkType()->operations().visitMembers)
      visit(root, &to, [](void* context, AttributeId, Entity& member) {
         auto& members = *static_cast<std::vector<Ptr<Entity>>*>(context);
         members.push_back(Ptr<Entity>(&member));
         addMembers(member, members);
      });
}

} // namespace

World::World(char side, Run& run) : side_(side), run_(run) {
   for (std::size_t which = 0; which < rootsEach; ++which)
      roots_.push_back(rootKinds[which].second(rootName(which, side)));
   for (char const* const n : {"1-", "2-"})
      for (Make const made : siblingKinds)
         siblings_.push_back(made(Name(n + std::string(1, side))));
   for (auto const* const entities : {&roots_, &siblings_})
      for (Ptr<Entity> const& e : *entities)
         created(*e);
}

World::~World() {
   dropAll();
}

// Life ------------------------------------------------------------------------------------------------------------------

void World::addPort(std::string owners, int passesOn) {
   Port port;
   port.mirrors.resize(rootsEach * owners.size());
   port.owners = std::move(owners);
   port.passesOn = passesOn;
   port.open.resize(passesOn < 0 ? rootsEach : rootsEach + ports_[static_cast<std::size_t>(passesOn)].mirrors.size());
   ports_.push_back(std::move(port));
}

void World::start(U64 incarnation) {
   for (Port& port : ports_) {
      port.end = std::make_unique<LinkEnd>(std::string(1, side_), incarnation);
      port.restarts = 0;
      port.end->onReport([this](std::string const& text) {
         EnoughMemory const here;
         report_ = std::string("   ") + side_ + ": " + text + "\n";
      });
      port.end->demuxer().out()->markIs(port.mark);
   }
   isRunning_ = true;
   openExports();
   mountAll();
}

void World::stop() {
   isRunning_ = false;
   paused_.clear();
   // Moved out first: what ends runs reactors, which look around here.
   std::vector<std::unique_ptr<LinkEnd>> ends;
   std::vector<Ptr<Entity>> gone;
   for (Port& port : ports_) {
      ends.push_back(std::move(port.end));
      for (auto* const entities : {&port.open, &port.mirrors})
         for (Ptr<Entity>& entity : *entities)
            gone.push_back(std::exchange(entity, nullptr));
   }
}

void World::closeExport(std::size_t which, std::size_t port) {
   if (auto const root = std::exchange(ports_[port].open[which], nullptr))
      ports_[port].end->exportDel(root);
}

void World::openExports(std::size_t at) {
   Port& port = ports_[at];
   for (std::size_t which = 0; which < port.open.size(); ++which) {
      Ptr<Entity> const root =
         which < rootsEach ? roots_[which] : ports_[static_cast<std::size_t>(port.passesOn)].mirrors[which - rootsEach];
      if (port.open[which] == root)
         continue;
      closeExport(which, at);
      port.open[which] = root;
      if (root)
         port.end->exportRoot(root);
   }
}

void World::openExports() {
   for (std::size_t port = 0; port < ports_.size(); ++port)
      openExports(port);
}

void World::unmount(std::size_t which, std::size_t port) {
   for (std::size_t on = 0; on < ports_.size(); ++on)
      if (ports_[on].passesOn == static_cast<int>(port))
         closeExport(rootsEach + which, on);
   // Whose reactors may mount another.
   if (auto const mirror = std::exchange(ports_[port].mirrors[which], nullptr))
      ports_[port].end->unmount(mirrorName(ports_[port], which));
}

void World::mountAll() {
   for (std::size_t at = 0; at < ports_.size(); ++at) {
      Port& port = ports_[at];
      for (std::size_t which = 0; which < port.mirrors.size(); ++which)
         if (!port.mirrors[which]) {
            Ptr<Entity> const mirror = rootKinds[which % rootsEach].second(mirrorName(port, which));
            port.mirrors[which] = mirror;
            seen(*mirror, true);
            port.end->mountIs(mirror);
         }
   }
   for (std::size_t on = 0; on < ports_.size(); ++on)
      if (ports_[on].passesOn >= 0)
         openExports(on);
}

bool World::isWhole() const {
   return std::all_of(ports_.begin(), ports_.end(), [](Port const& port) {
      auto const has = [](Ptr<Entity> const& entity) { return static_cast<bool>(entity); };
      return std::all_of(port.mirrors.begin(), port.mirrors.end(), has) &&
             std::all_of(port.open.begin(), port.open.end(), has);
   });
}

void World::closeOne(Words& words) {
   std::size_t const port = words.below(ports_.size());
   closeExport(words.below(ports_[port].open.size()), port);
}

void World::unmountOne(Words& words) {
   std::size_t const port = words.below(ports_.size());
   unmount(words.below(ports_[port].mirrors.size()), port);
}

void World::pause(Words& words) {
   Entity* const entity = own(words);
   if (entity == nullptr)
      return;
   Ptr<Entity::MoxNboAttrLogSa> const sa(demuxer(words.below(ports_.size())).adapterOf(*entity));
   if (!sa || sa->isMirror())
      return;
   sa->hasNotificationActiveIs(false);
   paused_.push_back(sa);
   run_.count("paused adapter");
}

void World::resume(Words& words) {
   if (auto const sa = taken(paused_, words))
      sa->hasNotificationActiveIs(true);
}

void World::resumeAll() {
   Words words(0);
   while (!paused_.empty())
      resume(words);
}

bool World::tellSilentOnes() {
   auto const silent = std::move(silent_);
   silent_.clear();
   for (auto const& tell : silent)
      tell();
   return !silent.empty();
}

void World::dropAll() {
   reactors_.clear();
   silent_.clear();
   stop();
   for (auto* const entities : {&held_, &roots_, &siblings_}) {
      auto const gone = std::exchange(*entities, {});
   }
}

void World::releaseHeld(Words& words) {
   Ptr<Entity> const gone = taken(held_, words); // its end runs reactors, which may hold others
}

void World::adopt(Words& words) {
   // Somebody here keeps an entity of the other world, as a target of references for one.
   Entity* const from = mirror(words);
   if (from == nullptr)
      return;
   Snapshot const all = Type::of(*from).snapshot(*from, identityOf);
   if (all.entities.empty())
      return;
   auto at = all.entities.begin();
   std::advance(at, static_cast<std::ptrdiff_t>(words.below(all.entities.size())));
   held_.push_back(Ptr<Entity>(at->second));
}

// Choices ---------------------------------------------------------------------------------------------------------------

Entity* World::oneOf(std::vector<Ptr<Entity>> const& roots, bool withSiblings, Words& words) {
   std::vector<Ptr<Entity>> all;
   std::vector<std::size_t> firsts; // of the roots that have members
   for (Ptr<Entity> const& root : roots)
      if (root) {
         std::size_t const first = all.size();
         addMembers(*root, all);
         if (all.size() != first)
            firsts.push_back(first);
      }
   // A few members get most of the changes: each would be met too seldom otherwise.
   if (!all.empty() && words.chance(70)) {
      std::size_t const first = firsts[words.below(firsts.size())];
      return all[first + words.below(std::min<std::size_t>(all.size() - first, 5))].get();
   }
   for (Ptr<Entity> const& root : roots)
      if (root)
         all.push_back(root);
   if (withSiblings) {
      all.insert(all.end(), siblings_.begin(), siblings_.end());
      all.insert(all.end(), held_.begin(), held_.end());
   }
   return all.empty() ? nullptr : all[words.below(all.size())].get();
}

Entity* World::own(Words& words) {
   return oneOf(roots_, true, words);
}

Entity* World::ownDirectory(Words& words) {
   return roots_[words.below(words.chance(80) ? 2 : 4)].get();
}

Entity* World::mirror(Words& words) {
   return oneOf(allMirrors(), false, words);
}

void World::addReactor(Words& words) {
   std::size_t const port = words.below(ports_.size());
   Entity* const entity = words.chance(50)   ? own(words)
                          : words.chance(40) ? ports_[port].mirrors[words.below(4)].get()
                                             : mirror(words);
   if (entity == nullptr)
      return;
   int const role = static_cast<int>(words.below(100));
   unsigned const budget = 1 + static_cast<unsigned>(words.below(8));
   reactors_.push_back(Type::of(*entity).react(*entity, role, words.next(), budget, *this));
}

void World::dropReactor(Words& words) {
   if (auto const gone = taken(reactors_, words))
      gone->isRegisteredNotifieeIs(false);
}

bool World::changeWithoutMemory(Words& words) {
   auto& stream = demuxer(words.below(ports_.size()));
   if (!stream.hasBacklog())
      return false;
   std::vector<Ptr<Entity>> fitting;
   stream.forEachAdapter([&](Entity::MoxNboAttrLogSa& sa) {
      if (!sa.isMirror() && sa.isAnnounced() && !sa.flow() && sa.entity() != nullptr &&
          mirrorAdapterOf(*sa.entity()) == nullptr)
         fitting.push_back(Ptr<Entity>(sa.entity()));
   });
   if (fitting.empty())
      return false;
   Entity& entity = *fitting[words.below(fitting.size())];
   return Type::of(entity).changeWithoutMemory(entity, words);
}

// Checks ----------------------------------------------------------------------------------------------------------------

Entity::MoxNboAttrLogSa const* World::mirrorAdapterOf(Entity const& entity) const {
   for (Port const& port : ports_)
      if (port.end)
         if (auto const* const sa = port.end->demuxer().adapterOf(entity); sa != nullptr && sa->isMirror())
            return sa;
   return nullptr;
}

std::vector<Ptr<Entity>> World::allMirrors() const {
   std::vector<Ptr<Entity>> all;
   for (Port const& port : ports_)
      for (Ptr<Entity> const& mirror : port.mirrors)
         if (mirror)
            all.push_back(mirror);
   return all;
}

std::string World::pathOf(Entity const* entity, std::size_t port) const {
   if (entity == nullptr || !entity->moxHasAttrLogInterface())
      return "null";
   Entity const* top = entity;
   while (top->moxRawParent() != nullptr)
      top = top->moxRawParent();
   for (auto const* const roots : {&ports_[port].open, &ports_[port].mirrors})
      if (std::any_of(roots->begin(), roots->end(), [top](Ptr<Entity> const& root) { return root == top; }))
         return entity->uriPath().str();
   // Whoever belongs to no open root travels as one without a parent.
   return "/" + entity->name().str();
}

void World::audit() {
   for (std::size_t port = 0; port < ports_.size(); ++port)
      audit(port);
   writes_ = 0;
}

void World::audit(std::size_t port) {
   auto& stream = demuxer(port);
   auto const& out = *stream.out();
   auto const f = stream.footprint();
   std::size_t const mark = ports_[port].mark;
   // One group: markers, the announcements that a record needs, the record. Control: hello, mounts, a retirement for each slot.
   std::size_t const bound = mark + 2048 + 1024 + 32 * f.slots;
   if (out.highWater() > bound)
      diverges("the buffer held " + std::to_string(out.highWater()) + " bytes, at most " + std::to_string(bound) +
               " are allowed with a mark of " + std::to_string(mark));
   if (f.retirements > f.slots)
      diverges(std::to_string(f.retirements) + " retirements are owed for " + std::to_string(f.slots) + " slots");
   if (f.dirtyKeys != 0)
      stream.forEachAdapter([&](Entity::MoxNboAttrLogSa& sa) {
         if (sa.flow() && sa.entity() != nullptr)
            if (std::size_t const keys = sa.flow()->dirtyKeys(); keys > 64)
               if (std::size_t const most = Type::of(*sa.entity()).mostDirtyKeys(*sa.entity()); keys > most)
                  diverges(sa.entity()->fullName().str() + " has " + std::to_string(keys) + " dirty keys, at most " +
                           std::to_string(most) + " are allowed");
      });
   // A collection is sent again only where more of its names are gone than that would take.
   Port& at = ports_[port];
   U64 const restarts = std::exchange(at.restarts, stream.counters().collectionRestarts);
   std::size_t const keys = std::exchange(at.dirtyKeys, f.dirtyKeys) + writes_;
   if (plays(Expects::fewRestarts) && restarts != at.restarts && keys <= 64)
      diverges("a collection is sent again for " + std::to_string(keys) + " changes");
   if (f.parked > 200)
      stream.forEachAdapter([&](Entity::MoxNboAttrLogSa& sa) {
         if (sa.entity() != nullptr && sa.parkedCount() > 200 + Type::of(*sa.entity()).mostDirtyKeys(*sa.entity()))
            diverges(sa.entity()->fullName().str() + " has " + std::to_string(sa.parkedCount()) + " parked marks");
      });
   if (stream.owes())
      stream.forEachAdapter([&](Entity::MoxNboAttrLogSa& sa) {
         if (std::vector<AttributeId> open; sa.owesAll() && sa.flow()) {
            sa.flow()->openCollections(open);
            if (!open.empty())
               run_.count("collection aborted");
         }
      });
   if (std::string const fault = faultIn(stream); !fault.empty())
      diverges("audit finds " + fault);
}

void World::checkMemory() {
   audit();
   for (Port const& port : ports_)
      if (port.end->demuxer().counters().refusedWrites != 0)
         diverges("a mirror wrote to its owner");
   auto all = allMirrors();
   all.insert(all.end(), roots_.begin(), roots_.end());
   for (Ptr<Entity> const& root : all)
      if (root->auditErrors(8) != 0)
         diverges("audit of " + root->fullName().str() + " finds errors");
}

void World::checkHistories(bool isLimited) {
   // Nobody puts right what is written to a mirror whose root is refused.
   std::vector<Ptr<Entity>> all;
   for (std::size_t port = 0; port < ports(); ++port)
      for (Ptr<Entity> const& mirror : mirrors(port))
         if (end(port).state(mirror->name()) != LinkEnd::State::refused) {
            all.push_back(mirror);
            addMembers(*mirror, all);
         }
   for (Ptr<Entity> const& entity : all) {
      History const* const history = historyOf(*entity);
      if (history == nullptr)
         diverges("nobody was told of " + entity->fullName().str());
      auto const now = Type::of(*entity).snapshot(*entity, identityOf).cells;
      if (now == history->told.cells)
         continue;
      // Where the owner's value can't be sent, what is written here is never answered.
      if (auto const* const sa = Entity::MoxNboAttrLogSa::mirrorAdapterOf(*entity);
          isLimited && sa != nullptr && sa->hasUntold())
         continue;
      for (auto const* const cells : {&now, &history->told.cells})
         for (auto const& [cell, text] : *cells)
            if (std::string const told = textIn(history->told.cells, cell), is = textIn(now, cell); told != is)
               diverges("history of " + entity->fullName().str() + "." + entity->attributeString(cell.attribute).str() +
                        cell.key + ": told " + told + ", is " + is);
   }
}

std::size_t World::survivors() const {
   return static_cast<std::size_t>(std::count_if(watchers_.begin(), watchers_.end(),
                                                 [](auto const& w) { return static_cast<bool>(w->notifier()); }));
}

void World::diverges(std::string const& what) {
   throw Divergence(std::string("side ") + side_ + ": " + what + "\n" + report_);
}

// Changes ---------------------------------------------------------------------------------------------------------------

std::vector<Ptr<Entity>> World::targets() {
   std::vector<Ptr<Entity>> all = siblings_;
   all.insert(all.end(), roots_.begin(), roots_.end());
   all.insert(all.end(), held_.begin(), held_.end());
   for (Ptr<Entity> const& root : roots_)
      addMembers(*root, all);
   for (Ptr<Entity> const& mirror : allMirrors()) {
      all.push_back(mirror);
      addMembers(*mirror, all);
   }
   return all;
}

void World::refused(Entity const& entity, Cell const& cell) {
   refused_.emplace(&entity, cell);
   run_.count("refused writes");
}

void World::created(Entity& entity) {
   auto const watcher = make<Watcher>();
   watcher->isWeakReferenceIs(true);
   watcher->notifierIs(Ptr<PtrInterface const>(&entity));
   watchers_.push_back(watcher);
}

void World::removed(Ptr<Entity> const& entity, Words& words) {
   if (words.chance(20))
      held_.push_back(entity);
}

void World::recreated() {
   if (run_.isStalled())
      run_.count("name re-created while stalled");
}

void World::reacts(int role, U64 word, Entity& entity, Entity* member) {
   if (isRunning_)
      run_.nested(*this, role, word, entity, member);
}

void World::told(Entity const& entity, Cell const& cell, std::string const* before, std::string const& now) {
   wrote(1);
   bool const wasRefused = refused_.erase({&entity, cell}) != 0;
   // What is no mirror any more may be told by its new owner whatever that likes.
   if (auto const* const sa = mirrorAdapterOf(entity); sa == nullptr || sa->hasFlag(StreamAdapter::letGo))
      return;
   if ((before == nullptr ? now != "absent" : *before != now) || now.find("NaN") != std::string::npos)
      return;
   if (wasRefused)
      run_.count("refused write put right");
   else
      run_.wrong("told again: " + entity.fullName().str() + "." + entity.attributeString(cell.attribute).str() +
                 cell.key + " is " + now + ", as it was");
}

void World::seen(Entity& entity, bool isMember) {
   if (!isMember && mirrorAdapterOf(entity) == nullptr)
      return;
   if (historyOf(entity) != nullptr)
      return;
   recorders_.push_back(Type::of(entity).record(entity, *this));
   created(entity);
}

} // namespace Simulation
