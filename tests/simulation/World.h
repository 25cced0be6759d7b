// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Types.h"
#include "attrlog/LinkEnd.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigPtrDir.h"
#include "entities/Cl10010StatusDir.h"
#include "entities/Cl10010StatusPtrDir.h"
#include "siblings/PllStatus.h"
#include "siblings/XcvrStatus.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Simulation {

using Mox::Entity;
using Mox::Ptr;
using Mox::U64;

class Run;

/// One end of a link: what a world exports there, and its mirrors of what the peer exports.
struct Port {
   std::string owners; ///< sides whose roots the peer exports: its own first
   int passesOn = -1;  ///< the port whose mirrors are exported here too, behind the world's own roots
   std::size_t mark = Mox::NboAttrLog::Out::defaultMark;
   std::size_t dirtyKeys = 0; ///< when it was last audited
   U64 restarts = 0;          ///< of collections, by then
   std::unique_ptr<Mox::LinkEnd> end;
   std::vector<Ptr<Entity>> open;    ///< what is exported, by place; null where it is closed
   std::vector<Ptr<Entity>> mirrors; ///< null where none is mounted
};

/// One process: its own roots and siblings, the mirrors of others', and its ends of links.
class World {
public:
   World(char side, Run& run);
   ~World();

   char side() const noexcept { return side_; }
   /// Adds an end of a link to the world of the first of `owners`.
   void addPort(std::string owners, int passesOn);
   std::size_t ports() const noexcept { return ports_.size(); }
   Mox::LinkEnd& end(std::size_t port = 0) noexcept { return *ports_[port].end; }
   Mox::NboAttrLog::Demuxer& demuxer(std::size_t port = 0) noexcept { return ports_[port].end->demuxer(); }
   std::vector<Ptr<Entity>> const& roots() const noexcept { return roots_; }
   std::vector<Ptr<Entity>> const& exports(std::size_t port) const noexcept { return ports_[port].open; }
   std::vector<Ptr<Entity>> const& mirrors(std::size_t port = 0) const noexcept { return ports_[port].mirrors; }

   // Life.
   /// The process begins: exports its roots, mounts those of the others.
   void start(U64 incarnation);
   /// The process ends; of what it owned its entities stay.
   void stop();
   void closeExport(std::size_t which, std::size_t port = 0);
   void openExports();
   void unmount(std::size_t which, std::size_t port = 0);
   void mountAll();
   /// Whether everything is mounted, and what is passed on exported.
   bool isWhole() const;
   void closeOne(Words& words);
   void unmountOne(Words& words);
   void pause(Words& words);
   void resume(Words& words);
   void resumeAll();
   /// \return whether there were any
   bool tellSilentOnes();
   void dropAll();
   void releaseHeld(Words& words);
   void adopt(Words& words);
   void markIs(std::size_t bytes, std::size_t port = 0) {
      ports_[port].mark = bytes;
      demuxer(port).out()->markIs(bytes);
   }

   // Choices.
   Entity* own(Words& words);
   Entity* ownDirectory(Words& words);
   Entity* mirror(Words& words);
   void addReactor(Words& words);
   void dropReactor(Words& words);
   /// Sets a scalar of something that is announced and owes nothing, behind others that do. \return whether memory failed
   bool changeWithoutMemory(Words& words);

   // Checks.
   /// What a reference is called at both ends of a link, once all roots are open.
   std::string pathOf(Entity const* entity, std::size_t port) const;
   void checkMemory();
   /// What must hold at any time, and costs little to ask.
   void audit();
   /// \param isLimited whether a peer takes short records only, or somebody holds what can't be sent
   void checkHistories(bool isLimited);
   /// Entities that still live although nobody should hold them.
   std::size_t survivors() const;
   std::string const& lastReport() const noexcept { return report_; }
   /// \throws Divergence with the side in front and the last report behind
   [[noreturn]] void diverges(std::string const& what);

   // What whoever changes an entity of it calls.
   /// Everything that a reference may point to.
   std::vector<Ptr<Entity>> targets();
   /// A local write to a mirror has been refused.
   void refused(Entity const& entity, Cell const& cell);
   /// Mutators were called, or that many entries deleted by one.
   void wrote(std::size_t n) noexcept { writes_ += n; }
   void created(Entity& entity);
   void removed(Ptr<Entity> const& entity, Words& words);
   /// An entry was made that nobody was told of; `tell` does.
   void madeSilently(std::function<void()> tell) { silent_.push_back(std::move(tell)); }
   void recreated();
   /// A reactor was called; `member` is the one that the notification is about, if any.
   void reacts(int role, U64 word, Entity& entity, Entity* member);
   /// `entity` notified `cell`, which it had told to be `before` (null for never) and now is `now`.
   void told(Entity const& entity, Cell const& cell, std::string const* before, std::string const& now);
   void seen(Entity& entity, bool isMember);

private:
   void openExports(std::size_t port);
   /// The adapter by which `entity` is somebody else's here; null where it isn't.
   Entity::MoxNboAttrLogSa const* mirrorAdapterOf(Entity const& entity) const;
   std::vector<Ptr<Entity>> allMirrors() const;
   void audit(std::size_t port);
   Entity* oneOf(std::vector<Ptr<Entity>> const& roots, bool withSiblings, Words& words);

   char side_;
   Run& run_;
   bool isRunning_ = false;
   std::size_t writes_ = 0; ///< since the last audit, what was told here included: it may be passed on
   std::vector<Port> ports_;
   std::vector<Ptr<Entity>> roots_;
   std::vector<Ptr<Entity>> siblings_;
   std::vector<Ptr<Entity>> held_;
   std::vector<std::function<void()>> silent_;
   std::vector<Ptr<Mox::PtrInterface::NotifieeConst>> reactors_;
   std::vector<Ptr<Mox::PtrInterface::NotifieeConst>> recorders_;
   std::vector<Ptr<Entity::NotifieeConst>> watchers_; ///< one for each entity ever seen, to know whether it went
   std::vector<Ptr<Entity::MoxNboAttrLogSa>> paused_;
   std::set<std::pair<Entity const*, Cell>> refused_;
   std::string report_;
};

} // namespace Simulation
