// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Attributes.h"
#include "Types.h"
#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/mox/MoxType.h"
#include "support/Allocations.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Simulation {

using Mox::LinkEnd;
using Mox::Name;
using Sa = Entity::MoxNboAttrLogSa;

/// Two worlds don't agree, or one of them is not as it must be.
class Divergence : public std::runtime_error {
   using runtime_error::runtime_error;
};

/// How often each situation was met, faults among them.
using Counts = std::map<std::string, U64>;

/// What the worlds of one run share.
struct Surroundings {
   explicit Surroundings(Counts& c) : counts(c) {}
   virtual ~Surroundings() = default;
   /// A reactor does something of its own.
   virtual void nested(World& world, int role, U64 word, Entity& entity, Entity* member) = 0;
   virtual bool isStalled() const = 0;
   void count(std::string const& what) { ++counts[what]; }

   Counts& counts;
   std::string wrong; ///< the first thing, where throwing is of no use: inside a reactor
};

using Make = Ptr<Entity> (*)(Name const&);
template <class X> Ptr<Entity> made(Name const& name) {
   return Mox::make<X>(name);
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

/// One end of a link: what a world exports there, and its mirrors of what the peer exports.
struct Port {
   World& world;
   std::string owners;       ///< sides whose roots the peer exports: its own first
   Port* passesOn = nullptr; ///< whose mirrors are exported here too, behind the world's own roots
   std::unique_ptr<LinkEnd> end{};
   Entities open{};    ///< what is exported, by place; null where it is closed
   Entities mirrors{}; ///< null where none is mounted
   std::size_t mark = Mox::NboAttrLog::Out::defaultMark;
   std::size_t dirtyKeys = 0; ///< when it was last audited
   U64 restarts = 0;          ///< of collections, by then
   U64 refreshes = 0;         ///< answered by then

   Mox::NboAttrLog::Demuxer& stream() const { return end->demuxer(); }
   void markIs(std::size_t bytes) {
      mark = bytes;
      stream().out()->markIs(bytes);
   }
   /// Of the mirror at a place: the peer's own roots are first, then those that it passes on.
   Name mirrorName(std::size_t which) const {
      return Name(rootKinds[which % rootsEach].first + std::string(1, owners[which / rootsEach]));
   }
   void closeExport(std::size_t which) {
      if (auto const root = std::exchange(open[which], nullptr))
         end->exportDel(root);
   }
   bool isRefused(Entity const& mirror) const { return end->state(mirror.name()) == LinkEnd::State::refused; }
};

/// Takes one element out; null where there is none.
template <class T> T taken(std::vector<T>& from, Words& words) {
   if (from.empty())
      return {};
   auto const at = from.begin() + static_cast<std::ptrdiff_t>(words.below(from.size()));
   T element = *at;
   from.erase(at);
   return element;
}

/// Members and theirs.
inline void addMembers(Entity& root, Entities& to) {
   if (auto const visit = root.fwkType()->operations().visitMembers)
      visit(root, &to, [](void* context, Mox::AttributeId, Entity& member) {
         auto& members = *static_cast<Entities*>(context);
         members.push_back(Ptr<Entity>(&member));
         addMembers(member, members);
      });
}

/// One process: its own roots and siblings, the mirrors of others', and its ends of links.
class World {
public:
   World(char side, Surroundings& surroundings) : side_(side), surroundings_(surroundings) {
      for (auto const& [name, make] : rootKinds)
         roots_.push_back(make(Name(name + std::string(1, side))));
      for (char const* const n : {"1-", "2-"})
         for (Make const make : siblingKinds)
            siblings_.push_back(make(Name(n + std::string(1, side))));
      for (auto const* const entities : {&roots_, &siblings_})
         for (Ptr<Entity> const& e : *entities)
            created(*e);
   }
   ~World() { dropAll(); }
   World(World const&) = delete;
   World& operator=(World const&) = delete;

   char side() const noexcept { return side_; }
   std::deque<Port>& ports() noexcept { return ports_; }
   Port& port(std::size_t which = 0) noexcept { return ports_[which]; }
   Port& onePort(Words& words) { return ports_[words.below(ports_.size())]; }
   Entities const& roots() const noexcept { return roots_; }
   std::string const& lastReport() const noexcept { return report_; }

   // Life.
   /// Adds an end of a link to the world of the first of `owners`.
   Port& addPort(std::string const& owners, Port* passesOn) {
      Port& port = ports_.emplace_back(Port{*this, owners, passesOn});
      port.mirrors.resize(rootsEach * owners.size());
      port.open.resize(rootsEach + (passesOn == nullptr ? 0 : passesOn->mirrors.size()));
      return port;
   }
   /// The process begins: exports its roots, mounts those of the others.
   void start(U64 incarnation) {
      for (Port& port : ports_) {
         port.end = std::make_unique<LinkEnd>(std::string(1, side_), incarnation);
         port.restarts = port.refreshes = 0;
         port.end->onReport([this](std::string const& text) {
            EnoughMemory const here;
            report_ = std::string("   ") + side_ + ": " + text + "\n";
         });
         port.stream().out()->markIs(port.mark);
      }
      isRunning_ = true;
      openExports();
      mountAll();
   }
   /// The process ends; of what it owned its entities stay.
   void stop() {
      isRunning_ = false;
      paused_.clear();
      // Moved out first: what ends runs reactors, which look around here.
      std::vector<std::unique_ptr<LinkEnd>> ends;
      Entities gone;
      for (Port& port : ports_) {
         ends.push_back(std::move(port.end));
         for (auto* const entities : {&port.open, &port.mirrors})
            for (Ptr<Entity>& entity : *entities)
               gone.push_back(std::exchange(entity, nullptr));
      }
   }
   void openExports() {
      for (Port& port : ports_)
         openExports(port);
   }
   void unmount(Port& port, std::size_t which) {
      for (Port& on : ports_)
         if (on.passesOn == &port)
            on.closeExport(rootsEach + which);
      // Whose reactors may mount another.
      if (auto const mirror = std::exchange(port.mirrors[which], nullptr))
         port.end->unmount(port.mirrorName(which));
   }
   void mountAll() {
      for (Port& port : ports_)
         for (std::size_t which = 0; which < port.mirrors.size(); ++which)
            if (!port.mirrors[which]) {
               Ptr<Entity> const mirror = rootKinds[which % rootsEach].second(port.mirrorName(which));
               port.mirrors[which] = mirror;
               seen(*mirror, true);
               port.end->mountIs(mirror);
            }
      for (Port& port : ports_)
         if (port.passesOn != nullptr)
            openExports(port);
   }
   /// Whether everything is mounted, and what is passed on exported.
   bool isWhole() const {
      return std::all_of(ports_.begin(), ports_.end(), [](Port const& port) {
         auto const has = [](Ptr<Entity> const& entity) { return static_cast<bool>(entity); };
         return std::all_of(port.mirrors.begin(), port.mirrors.end(), has) &&
                std::all_of(port.open.begin(), port.open.end(), has);
      });
   }
   void unmountSome(Words& words) {
      surroundings_.count("remount");
      Port& port = onePort(words);
      unmount(port, words.below(port.mirrors.size()));
      if (words.chance(60))
         mountAll();
   }
   void pause(Words& words) {
      if (Ptr<Entity> const entity = own(words))
         if (Ptr<Sa> const sa(onePort(words).stream().adapterOf(*entity)); sa && !sa->isMirror()) {
            sa->hasNotificationActiveIs(false);
            paused_.push_back(sa);
            surroundings_.count("paused adapter");
         }
   }
   void resume(Words& words) {
      if (auto const sa = taken(paused_, words))
         sa->hasNotificationActiveIs(true);
   }
   /// Resumes, exports and mounts everything.
   void makeWhole() {
      for (Words words(0); !paused_.empty();)
         resume(words);
      openExports();
      mountAll();
   }
   /// \return whether there were any
   bool tellSilentOnes() {
      auto const silent = std::exchange(silent_, {});
      for (auto const& tell : silent)
         tell();
      return !silent.empty();
   }
   void dropAll() {
      reactors_.clear();
      silent_.clear();
      stop();
      for (auto* const entities : {&held_, &roots_, &siblings_}) {
         auto const gone = std::exchange(*entities, {});
      }
   }
   void releaseHeld(Words& words) {
      Ptr<Entity> const gone = taken(held_, words); // its end runs reactors, which may hold others
   }
   /// Somebody here keeps an entity of the other world, as a target of references for one.
   void adopt(Words& words) {
      Ptr<Entity> const from = mirror(words);
      if (!from)
         return;
      auto const all = snapshotOf(*from, identityOf).entities;
      for (auto const& each : all)
         if (words.below(all.size()) == 0)
            held_.push_back(Ptr<Entity>(each.second));
   }

   // Choices.
   Ptr<Entity> own(Words& words) const { return oneOf(roots_, true, words); }
   Ptr<Entity> mirror(Words& words) const { return oneOf(allMirrors(), false, words); }
   void addReactor(Words& words) {
      Port const& port = onePort(words);
      Ptr<Entity> const entity = words.chance(50)   ? own(words)
                                 : words.chance(40) ? port.mirrors[words.below(4)]
                                                    : mirror(words);
      if (!entity)
         return;
      int const role = static_cast<int>(words.below(100));
      unsigned const budget = 1 + static_cast<unsigned>(words.below(8));
      reactors_.push_back(react(*entity, role, words.next(), budget, *this));
   }
   void dropReactor(Words& words) {
      if (auto const gone = taken(reactors_, words))
         gone->isRegisteredNotifieeIs(false);
   }
   /// Sets a scalar of something that is announced and owes nothing, behind others that do. \return whether memory failed
   bool failMemory(Words& words) {
      auto& stream = onePort(words).stream();
      Entities fitting;
      if (stream.hasBacklog())
         stream.forEachAdapter([&](Sa& sa) {
            if (!sa.isMirror() && sa.isAnnounced() && !sa.flow() && sa.entity() != nullptr &&
                Sa::mirrorAdapterOf(*sa.entity()) == nullptr)
               fitting.push_back(Ptr<Entity>(sa.entity()));
         });
      return !fitting.empty() && changeWithoutMemory(*fitting[words.below(fitting.size())], words);
   }

   // Checks.
   /// What must hold at any time, and costs little to ask.
   void audit() {
      for (Port& port : ports_)
         audit(port);
      writes_ = 0;
   }
   void checkMemory() {
      audit();
      for (Port const& port : ports_)
         if (port.stream().counters().refusedWrites != 0)
            diverges("a mirror wrote to its owner");
      auto all = allMirrors();
      all.insert(all.end(), roots_.begin(), roots_.end());
      for (Ptr<Entity> const& root : all)
         if (root->auditErrors(8) != 0)
            diverges("audit of " + root->fullName().str() + " finds errors");
   }
   /// \param isLimited whether a peer takes short records only, or somebody holds what can't be sent
   void checkHistories(bool isLimited) const {
      Entities all;
      for (Port const& port : ports_)
         for (Ptr<Entity> const& mirror : port.mirrors)
            if (!port.isRefused(*mirror)) { // else nobody puts right what is written to it
               all.push_back(mirror);
               addMembers(*mirror, all);
            }
      for (Ptr<Entity> const& entity : all) {
         History const* const history = historyOf(*entity);
         // Where the owner's value can't be sent, what is written here is never answered, and what is made here stays.
         auto const* const sa = Sa::mirrorAdapterOf(*entity);
         if (history == nullptr && isLimited && sa == nullptr)
            continue;
         if (history == nullptr)
            diverges("nobody was told of " + entity->fullName().str());
         auto const now = snapshotOf(*entity, identityOf).cells;
         if (now == history->told.cells || (isLimited && sa != nullptr && sa->hasUntold()))
            continue;
         for (auto const* const cells : {&now, &history->told.cells})
            for (auto const& [cell, text] : *cells)
               if (std::string const told = textIn(history->told.cells, cell), is = textIn(now, cell); told != is)
                  diverges("history of " + textOf(*entity, cell) + ": told " + told + ", is " + is);
      }
   }
   /// Entities that still live although nobody should hold them.
   std::size_t survivors() const {
      return static_cast<std::size_t>(std::count_if(watchers_.begin(), watchers_.end(),
                                                    [](auto const& w) { return static_cast<bool>(w->notifier()); }));
   }
   /// \throws Divergence with the side in front and the last report behind
   [[noreturn]] void diverges(std::string const& what) const {
      throw Divergence(std::string("side ") + side_ + ": " + what + "\n" + report_);
   }
   static std::string textOf(Entity const& entity, Cell const& cell) {
      return entity.fullName().str() + "." + entity.attributeString(cell.attribute).str() + cell.key;
   }

   // What whoever changes an entity of it calls.
   /// Everything that a reference may point to.
   Entities targets() const {
      Entities all = siblings_;
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
   /// A local write to a mirror has been refused.
   void refused(Entity const& entity, Cell const& cell) {
      refused_.emplace(&entity, cell);
      surroundings_.count("refused writes");
   }
   /// Mutators were called, or that many entries deleted by one.
   void wrote(std::size_t n) noexcept { writes_ += n; }
   void created(Entity& entity) {
      auto const watcher = Mox::make<Watcher>();
      watcher->isWeakReferenceIs(true);
      watcher->notifierIs(Ptr<Mox::PtrInterface const>(&entity));
      watchers_.push_back(watcher);
   }
   void removed(Ptr<Entity> const& entity, Words& words) {
      if (words.chance(20))
         held_.push_back(entity);
   }
   /// An entry was made that nobody was told of; `tell` does.
   void madeSilently(std::function<void()> tell) { silent_.push_back(std::move(tell)); }
   void recreated() {
      if (surroundings_.isStalled())
         surroundings_.count("name re-created while stalled");
   }
   /// A reactor was called; `member` is the one that the notification is about, if any.
   void reacts(int role, U64 word, Entity& entity, Entity* member) {
      if (isRunning_)
         surroundings_.nested(*this, role, word, entity, member);
   }
   /// `entity` notified `cell`, which it had told to be `before` (null for never) and now is `now`. `isOwed` where the mirror still
   /// owes word of a refused write: a reactor wrote in the pass that has come here, and the owner's answer is told behind it.
   void told(Entity const& entity, Cell const& cell, std::string const* before, std::string const& now, bool isOwed) {
      wrote(1);
      auto const refused = refused_.find({&entity, cell});
      bool const wasRefused = refused != refused_.end();
      if (wasRefused && !isOwed)
         refused_.erase(refused);
      // What is no mirror any more may be told by its new owner whatever that likes.
      if (auto const* const sa = Sa::mirrorAdapterOf(entity); sa == nullptr || sa->hasFlag(Sa::letGo))
         return;
      if ((before == nullptr ? now != "absent" : *before != now) || now.find("NaN") != std::string::npos)
         return;
      if (wasRefused)
         surroundings_.count("refused write put right");
      else if (surroundings_.wrong.empty())
         surroundings_.wrong = "told again: " + textOf(entity, cell) + " is " + now + ", as it was";
   }
   void seen(Entity& entity, bool isMember) {
      if ((!isMember && Sa::mirrorAdapterOf(entity) == nullptr) || historyOf(entity) != nullptr)
         return;
      recorders_.push_back(record(entity, *this));
      created(entity);
   }

private:
   /// Sees whether an entity lives, and keeps it from nothing.
   class Watcher final : public Entity::NotifieeConst {};

   void openExports(Port& port) {
      for (std::size_t which = 0; which < port.open.size(); ++which) {
         Ptr<Entity> const root = which < rootsEach ? roots_[which] : port.passesOn->mirrors[which - rootsEach];
         if (port.open[which] == root)
            continue;
         port.closeExport(which);
         port.open[which] = root;
         if (root)
            port.end->exportRoot(root);
      }
   }
   Entities allMirrors() const {
      Entities all;
      for (Port const& port : ports_)
         for (Ptr<Entity> const& mirror : port.mirrors)
            if (mirror)
               all.push_back(mirror);
      return all;
   }
   Ptr<Entity> oneOf(Entities const& roots, bool withSiblings, Words& words) const {
      Entities all;
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
         return all[first + words.below(std::min<std::size_t>(all.size() - first, 5))];
      }
      std::copy_if(roots.begin(), roots.end(), std::back_inserter(all), [](auto const& root) { return !!root; });
      if (withSiblings) {
         all.insert(all.end(), siblings_.begin(), siblings_.end());
         all.insert(all.end(), held_.begin(), held_.end());
      }
      return all.empty() ? nullptr : all[words.below(all.size())];
   }
   void audit(Port& port) {
      auto& stream = port.stream();
      auto const f = stream.footprint();
      // One group: markers, the announcements that a record needs, the record. Control: hello, mounts, a retirement for each slot.
      if (std::size_t const most = stream.out()->highWater(); most > port.mark + 2048 + 1024 + 32 * f.slots)
         diverges("the buffer has held " + std::to_string(most) + " bytes");
      if (f.retirements > f.slots)
         diverges(std::to_string(f.retirements) + " are to be retired");
      // A collection is sent again only where more of its names are gone than that would take: deleted, or asked for in vain.
      U64 const restarts = std::exchange(port.restarts, stream.counters().collectionRestarts);
      U64 const asked = std::exchange(port.refreshes, stream.counters().refreshesAnswered);
      std::size_t const keys = std::exchange(port.dirtyKeys, f.dirtyKeys) + writes_ + (port.refreshes - asked);
      if (restarts != port.restarts && keys <= 64)
         diverges("a collection is sent again for " + std::to_string(keys) + " changes");
      if (std::string const fault = stream.audit(); !fault.empty())
         diverges("audit finds " + fault);
   }

   char side_;
   Surroundings& surroundings_;
   bool isRunning_ = false;
   std::size_t writes_ = 0; ///< since the last audit, what was told here included: it may be passed on
   std::deque<Port> ports_;
   Entities roots_, siblings_, held_;
   std::vector<std::function<void()>> silent_;
   std::vector<Reactor> reactors_, recorders_;
   std::vector<Ptr<Entity::NotifieeConst>> watchers_; ///< one for each entity ever seen, to know whether it went
   std::vector<Ptr<Sa>> paused_;
   std::set<std::pair<Entity const*, Cell>> refused_;
   std::string report_;
};

} // namespace Simulation
