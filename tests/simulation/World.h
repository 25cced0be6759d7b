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

/// One process: its own roots and siblings, the mirrors of the other's, and its end of the link.
class World {
public:
   World(char side, Run& run);
   ~World();

   char side() const noexcept { return side_; }
   Mox::LinkEnd& end() noexcept { return *end_; }
   Mox::NboAttrLog::Demuxer& demuxer() noexcept { return end_->demuxer(); }
   std::vector<Ptr<Entity>> const& roots() const noexcept { return roots_; }
   std::vector<Ptr<Entity>> const& mirrors() const noexcept { return mirrors_; }

   // Life.
   /// The process begins: exports its roots, mounts those of the other world.
   void start(U64 incarnation);
   /// The process ends; of what it owned its entities stay.
   void stop();
   void closeExport(std::size_t which);
   void openExports();
   void unmount(std::size_t which);
   void mountAll();
   void pause(Words& words);
   void resume(Words& words);
   void resumeAll();
   /// \return whether there were any
   bool tellSilentOnes();
   void dropAll();
   void releaseHeld(Words& words);
   void adopt(Words& words);
   void markIs(std::size_t bytes) {
      mark_ = bytes;
      end_->demuxer().out()->markIs(bytes);
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
   /// What a reference is called in both worlds, once all roots are open.
   std::string pathOf(Entity const* entity) const;
   void checkMemory();
   /// What must hold at any time, and costs little to ask.
   void audit();
   void checkHistories();
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
   Entity* oneOf(std::vector<Ptr<Entity>> const& roots, bool withSiblings, Words& words);

   char side_;
   Run& run_;
   std::unique_ptr<Mox::LinkEnd> end_;
   std::size_t mark_ = Mox::NboAttrLog::Out::defaultMark;
   std::vector<Ptr<Entity>> roots_;
   std::vector<bool> isOpen_;
   std::vector<Ptr<Entity>> mirrors_;
   std::vector<bool> isMounted_;
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
