// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Demuxer.h"

#include "kestrel/attrlog/EntityTree.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"
#include "kestrel/mox/MoxType.h"
#include "kestrel/mox/Swallowed.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>

namespace Mox {

namespace NboAttrLog {

namespace {

/// Whoever passes on what `mirror` is told owes `mark` again.
void toldByRelays(Entity const& mirror, Mark const& mark) {
   for (auto* r = mirror.moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (Demuxer::Sa* const sa = Demuxer::Sa::ofReactor(*r);
          sa != nullptr && sa->hasFlag(StreamAdapter::relays) && sa->isAnnounced() && !sa->isPaused())
         sa->markAgain(mark);
}

} // namespace

Demuxer::Demuxer(std::string const& name) : out_(make<Out>(name)), in_(make<In>(name)), backlog_(*out_, reports_) {
   out_->reverseLogIs(in_);
   in_->demuxerIs(this);
}

Demuxer::~Demuxer() {
   end();
   in_->demuxerIs(nullptr);
}

void Demuxer::end() noexcept {
   cut();
   releaseWaiting([](Sa const&) { return true; });
}

void Demuxer::forEachAdapter(std::function<void(Sa&)> const& visit) {
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Ptr<Sa> const sa{own_.at(i)})
         visit(*sa);
   for (std::size_t i = 0; i < mirrors_.slots().size(); ++i)
      if (Ptr<Sa> const sa = mirrors_.slots()[i].sa)
         visit(*sa);
}

// Life of a connection --------------------------------------------------------------------------------------------------

void Demuxer::opened() noexcept {
   isOpen_ = true;
   internalFailure_.clear();
}

void Demuxer::cut() noexcept {
   isOpen_ = isLimitReported_ = false;
   forgetAnnounced();
   own_.clear();
   limited_.clear();
   std::vector<Mirror> const gone = mirrors_.takeReplaced();
   mirrors_.disconnect();
   wanted_ = nullptr;
   applied_ = acknowledged_ = acknowledgedAt_ = 0;
   refusals_.clear();
   out_->clear();
   in_->reset();
   // Last: a reactor may connect anew.
   releaseAll(gone);
   // A former member without a parent is never bound again, nor is what lies below it: the owner would announce it as another
   // entity. Waiting for it would keep what refers to it from the peer, which may wait for that in turn.
   releaseWaiting([this](Sa const& waiting) {
      Sa const* const sa = adapterOf(*topOf(waiting.entity()));
      return sa == nullptr || sa->standing() == Standing::member;
   });
   if (!isOpen_)
      backlog_.forgetReidentified();
}

/// Releases the waiting mirrors for which `is(sa)` holds, one by one, so that it takes no memory. Reactors may do anything meanwhile.
template <class Predicate> void Demuxer::releaseWaiting(Predicate is) noexcept {
   for (bool again = true; again;) {
      again = false;
      for (std::size_t i = 0; i < mirrors_.waiting().size();)
         if (Sa& sa = mirrors_.waiting().at(i); is(sa)) {
            release(mirrors_.take(sa));
            again = true;
         } else {
            ++i;
         }
   }
}

Demuxer::Sa* Demuxer::adapterOf(Entity const& entity) const noexcept {
   // Adapters stand at the head of the list, one per stream: a short walk, and no table to keep.
   for (auto* r = entity.moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (Sa* const sa = Sa::ofReactor(*r); sa != nullptr && sa->streamDemuxer() == this)
         return sa;
   return nullptr;
}

void Demuxer::detached(Sa& sa) noexcept {
   backlog_.leave(sa);
   Mirror const gone = mirrors_.leave(sa); // its entity goes last
   if (EntityId const id = sa.entityId(); id.side() == 1 && own_.find(id) == &sa)
      own_.release(id, isOpen_ && sa.isAnnounced());
}

// What the peer announces -----------------------------------------------------------------------------------------------

Demuxer::Sa* Demuxer::mirrorAround(Entity& entity) {
   for (Entity const* e = entity.moxRawParent(); e != nullptr; e = e->moxRawParent())
      if (Sa* const sa = Sa::mirrorAdapterOf(*e))
         return sa;
   std::vector<Ptr<Entity>> tree;
   collectTree(entity, tree);
   for (Ptr<Entity> const& e : tree)
      if (Sa* const sa = Sa::mirrorAdapterOf(*e))
         return sa;
   return nullptr;
}

void Demuxer::mirrorRootIs(Entity& root) {
   if (Ptr<Sa> const present{adapterOf(root)}) {
      if (present->isMirror() || !present->isOrphan())
         throwInternalException(std::string(std::string_view(root.fullName())) + " is on this stream already");
      // It was told as an entity of this process; who refers to it says so again, once its owner has announced it.
      reidentify(root);
   }
   TypeOperations const* const operations = logOperationsOf(root);
   if (operations == nullptr)
      throwInternalException(std::string(std::string_view(root.fwkType()->name())) + " has no attribute log");
   Ptr<Sa> const sa = operations->adapter(
      root, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, *this);
   sa->standingIs(Standing::root);
   try {
      mirrors_.waiting().add({sa, Ptr<Entity>(&root)});
   } catch (std::bad_alloc const&) {
      sa->detach();
      throw;
   }
}

void Demuxer::bindInRecord(EntityId id, Entity& entity, bool isOrphan) {
   if (!mirrors_.prepareBinding(id, entity, *in_))
      return;
   PeerMirrors::Slot const* const slot = mirrors_.find(id);
   Ptr<Sa> sa(adapterOf(entity));
   // Only its mount gives and takes a root's identifier: without it, nothing here would know the root for a mirror any more.
   if ((slot != nullptr && slot->sa && slot->sa->isRoot()) ||
       (sa && sa->isRoot() && (slot != nullptr || sa->entityId().isAssigned())))
      throw ProtocolException(in_->where() + ": announced " + textOf(id) +
                              ": the identifier of a root, or of what is one already");
   if (sa && (sa->entityId().isAssigned() || sa->phase() == Phase::released)) {
      // Announced twice, or from here meanwhile: the older identifier loses its entity, and who refers to it here says so again.
      addReidentified(*sa, entity);
      sa->detach();
      sa = nullptr;
   }
   bool const isNew = !sa;
   if (isNew)
      sa = logOperationsOf(entity)->adapter(
         entity, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, *this);
   mirrors_.bind(id, *sa, entity);
   if (!sa->isRoot())
      sa->standingIs(isOrphan ? Standing::orphan : Standing::member);
   if (sa->isAwaited())
      backlog_.lookAgainAtParked();
   // Somebody here had made a member of that name, and nobody was told now that it is the owner's.
   if (Entity const* const parent = entity.moxRawParent(); isNew && parent != nullptr)
      if (Sa const* const directory = adapterOf(*parent);
          directory != nullptr && !directory->handlingFlowInFor(entity.parentAttrId()))
         toldByRelays(*parent, Mark(entity.parentAttrId(), entity.moxName()));
}

/// Releases a mirror that has been taken out. Runs reactors, which may do anything here.
void Demuxer::release(Mirror const& gone) noexcept {
   if (gone.sa) {
      if (!gone.sa->isDetached())
         gone.sa->release();
      auto const notTold = [&](char const* why) {
         report([&] { return "stream \"" + name() + "\": not told: " + why; });
      };
      while (gone.sa->hasUntold() && gone.sa->entity() != nullptr)
         try {
            gone.sa->tellUntold(Mark(gone.sa->notes()->untold.begin()->first));
         } catch (std::bad_alloc const& e) {
            notTold(e.what());
            break; // its note has come back, and would without end
         } catch (std::exception const& e) {
            notTold(e.what());
         } catch (...) {
            notTold("an exception that is no std::exception");
         }
      gone.sa->detach();
      // Whoever still refers to it here refers to an entity of this process from now on.
      try {
         if (gone.entity)
            addReidentified(*gone.sa, *gone.entity);
      } catch (std::bad_alloc const&) {
         allOweAll();
      }
      if (gone.sa->isAwaited())
         backlog_.lookAgainAtParked();
   }
}

std::size_t Demuxer::releaseAll(std::vector<Mirror> const& gone) noexcept {
   std::size_t count = 0;
   for (Mirror const& mirror : gone)
      if (!mirror.sa || !mirror.sa->entityId().isAssigned()) {
         release(mirror);
         ++count;
      }
   return count;
}

/// Releases what has lost its identifier while an announcement was applied; nothing else takes one away.
void Demuxer::releaseReplaced() {
   if (!mirrors_.hasReplaced())
      return;
   std::vector<Mirror> const gone = mirrors_.takeReplaced();
   releaseAll(gone);
   for (Mirror const& mirror : gone)
      if (mirror.entity)
         releaseBelow(*mirror.entity);
}

/// With what is no mirror any more goes what lies below it: whoever announces it from now on announces its members too. The owner
/// is asked to announce those anew that he has not retired: he may have them elsewhere.
void Demuxer::releaseBelow(Entity& top) {
   if (Sa const* const sa = adapterOf(top); sa != nullptr && sa->isMirror())
      return; // again: a reactor has seen to that
   std::vector<Ptr<Entity>> tree;
   collectTree(top, tree);
   std::vector<Mirror> gone;
   gone.reserve(tree.size());
   for (Ptr<Entity> const& entity : tree) {
      Sa* const sa = adapterOf(*entity);
      if (sa == nullptr || !sa->isMirror() || sa->isRoot())
         continue;
      if (Mirror mirror = mirrors_.takeAndAskAnew(*sa); mirror.sa)
         gone.push_back(std::move(mirror));
   }
   releaseAll(gone);
}

Ptr<Entity> Demuxer::mirrorOf(EntityId wireId) noexcept {
   PeerMirrors::Slot const* const slot = mirrors_.find(wireId);
   return slot == nullptr ? nullptr : slot->entity;
}

Ptr<Entity> Demuxer::entityOf(EntityId wireId) {
   if (wireId == EntityId{})
      return nullptr;
   if (wireId.side() == 1) {
      if (PeerMirrors::Slot const* const slot = mirrors_.find(wireId))
         return slot->entity;
   } else {
      // An own identifier comes as its writer sees it: of the other side.
      if (Sa const* const sa = own_.find(wireId); sa != nullptr && sa->entity() != nullptr)
         return Ptr<Entity>(sa->entity());
   }
   ++counters().staleReferences;
   return nullptr;
}

void Demuxer::retired(EntityId wireId) {
   if (wireId.side() != 1)
      throw ProtocolException(in_->where() + ": retires " + textOf(wireId) + ", which is not its own");
   PeerMirrors::Slot const* const slot = mirrors_.find(wireId);
   if (slot == nullptr) {
      mirrors_.retirementArrived(wireId);
      mirrors_.trim();
      return;
   }
   Ptr<Entity> const entity = slot->entity;
   if (slot->sa && slot->sa->isRoot() && rootRetired_) {
      rootRetired_(*entity);
      mirrors_.retirementArrived(wireId);
      return;
   }
   if (Entity const* const parent = entity ? entity->moxRawParent() : nullptr)
      // The retirement has overtaken the loss of the member, which is still told: that it has gone, or that its name is another's
      // now.
      if (Sa* const sa = adapterOf(*parent); sa != nullptr && sa->isMirror())
         sa->retiredIs(Mark(entity->parentAttrId(), entity->moxName()));
   Mirror const gone = mirrors_.take(wireId);
   mirrors_.trim();
   release(gone);
   if (entity)
      releaseBelow(*entity);
}

/// Whether the root that `entity` belongs to is not open on this connection: then nothing has been said about it.
bool Demuxer::isBelowWaitingRoot(Entity const* entity) const noexcept {
   for (; entity != nullptr; entity = entity->moxRawParent())
      if (Sa const* const sa = adapterOf(*entity); sa != nullptr && sa->isRoot())
         return !sa->entityId().isAssigned();
   return false;
}

void Demuxer::remountEnded() {
   releaseAll(mirrors_.waiting().takenIf([this](Sa const& sa) { return !isBelowWaitingRoot(sa.entity()); }));
}

bool Demuxer::isWaiting() const noexcept {
   return isOpen_ && !owes() && mirrors_.isAwaiting();
}

bool Demuxer::breakDeadlock() {
   // With what is awaited goes what lies below it: whoever announces it from now on announces its members too.
   auto const isLet = [&](Sa const& waiting) {
      if (isBelowWaitingRoot(waiting.entity()))
         return false;
      for (Entity const* e = waiting.entity(); e != nullptr; e = e->moxRawParent())
         if (Sa const* const sa = adapterOf(*e);
             sa != nullptr && sa->isMirror() && sa->isAwaited() && !sa->entityId().isAssigned())
            return true;
      return false;
   };
   std::size_t const gone = releaseAll(mirrors_.waiting().takenIf(isLet));
   counters().brokenWaits += gone;
   return gone != 0;
}

void Demuxer::releaseFormerMember(Entity& member) {
   Sa const* const sa = adapterOf(member);
   if (sa == nullptr || !sa->isMirror() || sa->entityId().isAssigned())
      return;
   releaseBelow(member);
}

std::vector<Mirror> Demuxer::mirrorsTaken(Entity* top) {
   auto const isLet = [top](Entity const* entity) { return top == nullptr || isAtOrBelow(entity, *top); };
   // All are taken out before the first is told: its reactors may mount another, which stays, or cut the connection.
   std::vector<Mirror> gone = mirrors_.waiting().thoseOf([&](Sa const& sa) { return isLet(sa.entity()); });
   gone.reserve(gone.size() + mirrors_.used());
   // From here on nothing fails.
   for (Mirror const& mirror : gone)
      mirrors_.waiting().taken(*mirror.sa);
   mirrors_.takeUnmounted(isLet, gone);
   return gone;
}

void Demuxer::moveMirrors(Entity& root, bool withOrphans, Demuxer& to) {
   std::vector<Mirror> const moving = mirrors_.waiting().thoseOf(
      [&](Sa const& sa) { return (withOrphans && sa.isOrphan()) || isAtOrBelow(sa.entity(), root); });
   // First what may fail, and then what can't: half of a root would be nobody's.
   std::vector<Ptr<Sa>> moved;
   moved.reserve(moving.size());
   try {
      for (Mirror const& mirror : moving) {
         Entity& entity = *mirror.entity;
         if (Ptr<Sa> const own{to.adapterOf(entity)}) {
            // It was told there as an entity of this process; who refers to it says so again, once its owner has announced it.
            to.addReidentified(*own, entity);
            own->detach();
         }
         // Here it is an entity of this process from now on.
         if (isOpen_)
            addReidentified(*mirror.sa, entity);
         moved.push_back(logOperationsOf(entity)->adapter(
            entity, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, to));
         Sa& sa = *moved.back();
         sa.takeOverFrom(*mirror.sa);
         to.mirrors_.waiting().add({moved.back(), mirror.entity});
         sa.untoldReserve(*mirror.sa);
      }
   } catch (...) {
      for (Ptr<Sa> const& sa : moved)
         sa->detach();
      throw;
   }
   for (std::size_t i = 0; i != moving.size(); ++i) {
      moved[i]->untoldTakenOver(*moving[i].sa);
      moving[i].sa->detach();
   }
   backlog_.lookAgainAtParked();
}

Demuxer::Footprint Demuxer::footprint() const {
   Footprint f;
   f.announced = own_.used();
   f.mirrored = mirrors_.used();
   f.waiting = mirrors_.waiting().size();
   f.askedAnew = mirrors_.askedAnew();
   f.reidentified = backlog_.reidentified();
   f.retirements = own_.retirements();
   f.bufferBytes = out_->pendingBytes();
   f.slots = own_.size() + mirrors_.slots().size();
   auto const add = [&](Sa const& sa) {
      if (auto const& flow = sa.flow()) {
         ++f.flows;
         f.dirtyKeys += flow->dirtyKeys();
      }
      if (Notes const* const notes = sa.notes()) {
         f.parked += notes->parked.size();
         f.untold += notes->untold.size();
         f.successors += notes->successors.size();
         f.retired += notes->retired.size();
      }
   };
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Sa const* const sa = own_.at(i))
         add(*sa);
   for (PeerMirrors::Slot const& slot : mirrors_.slots())
      if (slot.sa)
         add(*slot.sa);
   mirrors_.waiting().any([&](Sa const& sa) {
      add(sa);
      return false;
   });
   return f;
}

// Audits ----------------------------------------------------------------------------------------------------------------

std::string Demuxer::audit() const {
   for (std::string found : {internalFailure_, own_.audit(), mirrors_.audit(), backlog_.audit(*this), auditAdapters()})
      if (!found.empty())
         return "stream \"" + name() + "\": " + found;
   return {};
}

/// Every adapter that a table holds is its entity's, stands in the lists in which it belongs, and nobody else does.
std::string Demuxer::auditAdapters() const {
   std::size_t flows = 0;
   std::size_t parked = 0;
   std::size_t asking = 0;
   std::string found;
   auto const look = [&](Sa const& sa, bool isMirror, bool hasIdentifier) {
      if (sa.isMirror() != isMirror || sa.streamDemuxer() != this || sa.entity() == nullptr ||
          adapterOf(*sa.entity()) != &sa)
         found =
            std::string("an adapter in the tables is none of ") + (isMirror ? "the mirrors" : "this side's entities");
      for (std::string const& wrong :
           {Backlog::auditAdapter(sa, hasIdentifier), PeerMirrors::auditAdapter(sa, hasIdentifier)})
         if (!wrong.empty())
            found = wrong;
      flows += sa.flow() && sa.flow()->isQueued();
      if (Notes const* const notes = sa.notes()) {
         parked += notes->parkedAt != Notes::unlisted;
         asking += notes->askingAt != Notes::unlisted;
      }
   };
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Sa const* const sa = own_.at(i))
         look(*sa, false, true);
   for (PeerMirrors::Slot const& slot : mirrors_.slots())
      if (slot.sa)
         look(*slot.sa, true, true);
   mirrors_.waiting().any([&](Sa const& sa) {
      look(sa, true, false);
      return false;
   });
   if (!found.empty())
      return found;
   if (flows != backlog_.queuedFlows())
      return std::to_string(backlog_.queuedFlows()) + " flows are queued, " + std::to_string(flows) +
             " of them by adapters in the tables";
   if (parked != backlog_.parkedAdapters() || asking != mirrors_.askingAdapters())
      return "the lists of adapters with notes do not hold those that have them";
   return {};
}

} // namespace NboAttrLog

NboAttrLog::Demuxer* demuxFor(Ptr<NboAttrLog::In const> const& in) {
   return in ? in->demuxer() : nullptr;
}

} // namespace Mox
