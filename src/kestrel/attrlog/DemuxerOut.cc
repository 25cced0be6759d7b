// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Demuxer.h"

#include "kestrel/attrlog/EntityTree.h"
#include "kestrel/attrlog/Lists.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/mox/MoxType.h"

#include <algorithm>
#include <new>
#include <unordered_set>
#include <utility>

// The half of the demultiplexer that writes: what this side announces, and what it owes.

namespace Mox::NboAttrLog {

Ptr<Demuxer::Sa> Demuxer::rootIs(Entity& root) {
   if (Sa* const present = adapterOf(root)) {
      if (present->isMadeInAdvance()) {
         present->flagIs(StreamAdapter::readOnlyProxy, true);
         present->standingIs(Standing::root);
         return Ptr<Sa>(present);
      }
      if (!present->isOrphan())
         throwInternalException(std::string(std::string_view(root.fullName())) + " is on this stream already");
      reidentify(root);
   }
   Ptr<Sa> sa = logOperationsOf(root)->adapter(root, {StreamAdapter::readOnlyProxy}, *this);
   sa->standingIs(Standing::root);
   assign(*sa);
   return sa;
}

void Demuxer::assign(Sa& sa) {
   writeRetirements();
   own_.assign(sa);
   counters().reusedSlots += sa.entityId().generation() > 1;
}

void Demuxer::limitReached(Sa& sa) {
   ++counters().withoutIdentifier;
   if (!std::exchange(isLimitReported_, true))
      report("stream \"" + name() + "\": the peer takes identifiers up to slot " + std::to_string(own_.highest()) +
             ", and none is left; something in " + std::string(std::string_view(Entity::fullNameOf(sa.entity()))) +
             " can't be told");
   Entity const* const top = topOf(sa.entity());
   Sa* const root = top == nullptr ? nullptr : adapterOf(*top);
   auto const note = [this](Sa& concerned) {
      if (std::find(limited_.begin(), limited_.end(), &concerned) == limited_.end())
         limited_.push_back(Ptr<Sa>(&concerned));
   };
   if (root != nullptr && root->isRoot() && !root->isMirror()) {
      note(*root);
      return;
   }
   // An orphan: any root may refer to it, and nobody has noted which.
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Sa* const other = own_.at(i); other != nullptr && other->isRoot())
         note(*other);
}

/// Gives up the roots of which something can't be told: the peer must not take them for whole.
void Demuxer::tellLimits() {
   for (Ptr<Sa> const& root : std::exchange(limited_, {}))
      if (limitReached_ && root->entity() != nullptr && root->entityId().isAssigned())
         limitReached_(*Ptr<Entity>(root->entity()));
}

bool Demuxer::isUnderAnnounced(Entity const& entity) const noexcept {
   for (Entity const* e = entity.moxRawParent(); e != nullptr; e = e->moxRawParent())
      if (Sa const* const sa = adapterOf(*e); sa != nullptr && !sa->isMirror() && sa->isAnnounced())
         return true;
   return false;
}

void Demuxer::announce(Entity& entity) {
   if (depthOf(entity) > frame::maximumDepth) // before the way up, which is as deep
      throw RecordTooLong(std::string(std::string_view(entity.moxName())) + " lies below more than " +
                          std::to_string(frame::maximumDepth) + " others, and can't be announced");
   Entity* const parent = entity.moxRawParent();
   // A mirror's collection is its owner's affair: what somebody here has put into it is none of its members to others.
   Sa const* const mirror = parent == nullptr ? nullptr : Sa::mirrorAdapterOf(*parent);
   if (parent == nullptr || !isUnderAnnounced(entity) || (mirror != nullptr && !mirror->isOwners(entity))) {
      announceOrphan(entity);
      return;
   }
   Sa* parentSa = adapterOf(*parent);
   if (parentSa == nullptr || !parentSa->isAnnounced()) {
      announce(*parent);
      parentSa = adapterOf(*parent);
   }
   if (parentSa != nullptr)
      parentSa->announceMember(entity.parentAttrId(), entity);
}

void Demuxer::announceOrphan(Entity& entity) {
   Ptr<Sa> sa(adapterOf(entity));
   if (!sa) {
      sa = logOperationsOf(entity)->adapter(entity, {StreamAdapter::readOnlyProxy | StreamAdapter::weak}, *this);
      sa->moxOnInit();
   }
   if (!sa->isRoot())
      sa->standingIs(Standing::orphan);
   try {
      if (!sa->entityId().isAssigned())
         assign(*sa);
      writeAnnouncement(*sa);
   } catch (RecordTooLong const& e) {
      sa->detach();
      throw RecordTooLong(std::string(std::string_view(entity.fullName())) + " can't be announced: " + e.what());
   } catch (...) {
      sa->detach();
      throw;
   }
   announced(*sa, true);
}

void Demuxer::announceRoot(Sa& sa) {
   writeAnnouncement(sa);
   announced(sa, true);
}

void Demuxer::writeAnnouncement(Sa& sa) {
   if (!writeAnnouncement(*sa.entity(), [&] { sa.doSerializeOrphan(); }))
      throw AttrLogRecordException("what it was made with could not be announced before it");
}

EntityId Demuxer::entityIdFor(Entity const* target) {
   if (target == nullptr)
      return {};
   TypeOperations const* const operations = logOperationsOf(*target);
   if (operations == nullptr || operations->create == nullptr) {
      ++counters().withoutLog;
      MoxType const* const type = target->fwkType().get();
      if (std::find(reportedTypes_.begin(), reportedTypes_.end(), type) == reportedTypes_.end()) {
         reportedTypes_.push_back(type);
         report("stream \"" + name() + "\": references to " + std::string(std::string_view(type->name())) +
                " travel as null, because the type " +
                (operations == nullptr ? "has no attribute log" : "is abstract: no peer could make one"));
      }
      return {};
   }
   if (Sa* const sa = adapterOf(*target)) {
      if (sa->isMirror()) {
         if (sa->entityId().isAssigned()) {
            sa->isReferredIs(true);
            return sa->entityId();
         }
         mirrors_.await(*sa);
         throw NoEntityIdException(std::string(std::string_view(target->fullName())) +
                                   " has no identifier on this stream until its owner announces it again");
      }
      if (sa->isAnnounced()) {
         sa->isReferredIs(true);
         return sa->entityId();
      }
   }
   if (out_->isRecordOpen()) {
      wanted_ = Ptr<Entity>(const_cast<Entity*>(target));
      throw AttrLogRecordException(std::string(std::string_view(target->fullName())) +
                                   " must be announced before the record that refers to it");
   }
   announce(*const_cast<Entity*>(target));
   Sa* const sa = adapterOf(*target);
   if (sa == nullptr || !sa->isAnnounced())
      throw NoEntityIdException(std::string(std::string_view(target->fullName())) + " could not be announced");
   sa->isReferredIs(true);
   return sa->entityId();
}

void Demuxer::announceWanted() {
   if (Ptr<Entity> const wanted = std::move(wanted_)) {
      wanted_ = nullptr;
      entityIdFor(wanted.get());
   }
}

void Demuxer::announced(Sa& sa, bool owesEverything) {
   sa.commitAnnouncement();
   if (!owesEverything)
      return;
   try {
      createFlowOut(sa, attr::none);
   } catch (std::bad_alloc const&) {
      sa.owesAllIs(); // what has been announced is owed, whatever fails
   }
}

std::vector<Ptr<Entity>> Demuxer::unannounced(Entity& top) {
   std::vector<Ptr<Entity>> tree;
   collectTree(top, tree);
   // With a root goes what was announced below a root and has left it since, and what lies below that: whether the peer saw it,
   // nobody can know.
   if (Sa const* const sa = adapterOf(top); sa != nullptr && sa->isRoot())
      for (std::size_t i = 0; i < own_.size(); ++i)
         if (Sa const* const loose = own_.at(i);
             loose != nullptr && loose->standing() == Standing::member && !isUnderAnnounced(*loose->entity()))
            collectTree(*loose->entity(), tree);
   auto const own = [this](Entity const& entity) {
      Sa* const sa = adapterOf(entity);
      return Ptr<Sa>(sa == nullptr || sa->isMirror() ? nullptr : sa);
   };
   // First what may fail.
   for (Ptr<Entity> const& entity : tree)
      if (auto const sa = own(*entity))
         addReidentified(*sa, *entity);
   for (Ptr<Entity> const& entity : tree)
      if (auto const sa = own(*entity))
         sa->detach();
   return tree;
}

/// `entity` loses the identifier that `sa` has given it: who refers to it says so again.
void Demuxer::addReidentified(Sa const& sa, Entity const& entity) {
   if (sa.isReferred())
      backlog_.addReidentified(entity);
}

void Demuxer::forgetAnnounced() {
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Ptr<Sa> const sa{own_.at(i)})
         sa->detach();
}

void Demuxer::writeRetirements() {
   while (own_.owesRetirements() && out_->hasSufficientBuffer()) {
      out_->control(Retire{own_.nextRetirement()});
      own_.retirementWritten();
   }
}

void Demuxer::acknowledge() {
   writeFront(
      refusals_, [] { return true; },
      [&](U64 number) {
         out_->control(Refused{number, Reason::readOnly, {}});
      });
   out_->control(Acknowledgement{applied_});
   acknowledged_ = applied_;
   acknowledgedAt_ = out_->bytesSent() + out_->pendingBytes();
}

void Demuxer::settleIdentifiers() {
   try {
      while (backlog_.hasReidentified()) {
         std::unordered_set<Entity const*> const targets = backlog_.takeReidentified();
         for (std::size_t i = 0; i < own_.size(); ++i) {
            Ptr<Sa> const sa{own_.at(i)};
            if (!sa || !sa->isAnnounced())
               continue;
            // What no collection announces again: an orphan, and a former member that somebody still refers to.
            bool const isLoose =
               sa->isOrphan() || (sa->standing() == Standing::member && !isUnderAnnounced(*sa->entity()));
            if (isLoose && logOperationsOf(*sa->entity())->hasParameter(*sa->entity(), targets))
               reidentify(*sa->entity());
            else
               sa->markReferencesTo(targets);
         }
      }
   } catch (std::bad_alloc const&) {
      allOweAll();
      throw;
   }
}

/// Which references are to be told again is not known: everything is.
void Demuxer::allOweAll() noexcept {
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Sa* const sa = own_.at(i))
         sa->owesAllIs();
}

void Demuxer::drain() {
   if (isDraining_ || !isOpen_)
      return;
   drainNow();
   reports_.tellHeldBack(name());
}

void Demuxer::drainNow() {
   struct Scope {
      Demuxer& demuxer;
      explicit Scope(Demuxer& d) : demuxer(d) {
         demuxer.isDraining_ = true;
         demuxer.reports_.holdBack();
      }
      ~Scope() {
         demuxer.isDraining_ = false;
         demuxer.reports_.endHoldingBack();
      }
   } const scope(*this);
   try {
      backlog_.payOwesAll();
      settleIdentifiers();
      backlog_.wakeParked();
      mirrors_.writeRefreshes(*out_, counters());
      while (FlowOut* const flow = backlog_.next()) {
         if (!out_->hasSufficientBuffer())
            break;
         Ptr<Sa> const sa(flow->owner());
         Backlog::Turn const turn = backlog_.takeTurn(*flow, *sa);
         if (turn == Backlog::Turn::noIdentifierLeft)
            limitReached(*sa);
         if (turn != Backlog::Turn::done)
            break;
         // What was told may have given an identifier that others wait for, or have retired one that they refer to.
         settleIdentifiers();
         backlog_.wakeParked();
      }
      writeRetirements();
      tellLimits();
   } catch (std::bad_alloc const&) {
      report([&] { return "stream \"" + name() + "\": no memory to go on; the next drain tries again"; });
   }
}

} // namespace Mox::NboAttrLog
