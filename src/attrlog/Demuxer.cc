// SPDX-License-Identifier: Apache-2.0
#include "attrlog/Demuxer.h"

#include "core/Exceptions.h"
#include "core/Text.h"
#include "mox/MoxType.h"
#include "mox/Swallowed.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <new>

namespace Mox {

namespace NboAttrLog {

namespace {

/// How far a slot may lie beyond the ones announced so far: an announcement that was taken back leaves a gap.
constexpr std::uint32_t slotGap = 64;

constinit Ptr<In> const noStream; ///< a record is applied, not answered

/// The identifier that the announcement of a member ends with; null where it is too short for one.
EntityId announcedIn(In const& in) noexcept {
   auto const body = in.body();
   return body.size() < sizeof(U64) ? EntityId{}
                                    : EntityId::ofNumber(loadBigEndian<U64>(body.data() + body.size() - sizeof(U64)));
}

/// "/config/port.refClock (388)", for messages.
std::string nameOf(Entity const& entity, AttributeId id) {
   return std::string(std::string_view(entity.fullName())) + "." +
          std::string(std::string_view(entity.attributeString(id))) + " (" + std::to_string(id) + ")";
}

/// Whoever passes on what `mirror` is told owes `mark` again.
void toldByRelays(Entity const& mirror, Mark const& mark) {
   for (auto* r = mirror.moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (Demuxer::Sa* const sa = Demuxer::Sa::ofReactor(*r);
          sa != nullptr && sa->hasFlag(StreamAdapter::relays) && sa->isAnnounced() && !sa->isPaused())
         sa->markAgain(mark);
}

std::string textOf(EntityId id) {
   return "slot " + std::to_string(id.slot()) + " generation " + std::to_string(id.generation());
}

} // namespace

Demuxer::Demuxer(std::string const& name) : out_(make<Out>(name)), in_(make<In>(name)) {
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
   for (std::size_t i = 0; i < peer_.size(); ++i)
      if (Ptr<Sa> const sa = peer_[i].sa)
         visit(*sa);
}

// Life of a connection --------------------------------------------------------------------------------------------------

void Demuxer::opened() noexcept {
   isOpen_ = true;
}

void Demuxer::cut() noexcept {
   isOpen_ = anyAwaited_ = isLimitReported_ = false;
   forgetAnnounced();
   own_.clear();
   limited_.clear();
   std::vector<Mirror> const gone = std::exchange(letGo_, {});
   for (PeerSlot& slot : std::exchange(peer_, {})) {
      if (!slot.sa)
         continue;
      Sa& sa = *slot.sa;
      sa.flowsInDelAll();
      sa.entityIdIs({});
      sa.isSyncingIs(false);
      sa.isAwaitedIs(false);
      sa.isReferredIs(false);
      asking_.remove(sa);
      sa.untoldCut();
      waiting_.add(std::move(slot)); // there is room since it was bound
   }
   peerEnd_ = mirrored_ = askedAnew_ = 0;
   isInHandCurrent_ = false;
   syncing_ = 0;
   wanted_ = nullptr;
   applied_ = acknowledged_ = acknowledgedAt_ = stale_ = 0;
   refusals_.clear();
   peerHighestSlot_ = highestSlot;
   out_->clear();
   in_->reset();
   // Last: a reactor may connect anew.
   releaseAll(gone);
   // A former member without a parent is never bound again, nor is what lies below it: the owner would announce it as another
   // entity. Waiting for it would keep what refers to it from the peer, which may wait for that in turn.
   releaseWaiting([this](Sa const& waiting) {
      Entity const* top = waiting.entity();
      while (top->moxRawParent() != nullptr)
         top = top->moxRawParent();
      Sa const* const sa = adapterOf(*top);
      return sa == nullptr || !(sa->isRoot() || sa->isOrphan());
   });
   if (!isOpen_)
      reidentified_.clear();
}

/// Lets go of the waiting mirrors for which `is(sa)` holds, one by one, so that it takes no memory. Reactors may do anything meanwhile.
template <class Predicate> void Demuxer::releaseWaiting(Predicate is) noexcept {
   for (bool again = true; again;) {
      again = false;
      for (std::size_t i = 0; i < waiting_.size();)
         if (Sa& sa = waiting_.at(i); is(sa)) {
            release(waiting_.taken(sa));
            again = true;
         } else {
            ++i;
         }
   }
}

// What this side announces ----------------------------------------------------------------------------------------------

Demuxer::Sa* Demuxer::adapterOf(Entity const& entity) const noexcept {
   // Adapters stand at the head of the list, one per stream: a short walk, and no table to keep.
   for (auto* r = entity.moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (Sa* const sa = Sa::ofReactor(*r); sa != nullptr && sa->streamDemuxer() == this)
         return sa;
   return nullptr;
}

Ptr<Demuxer::Sa> Demuxer::rootIs(Entity& root) {
   if (Sa* const present = adapterOf(root)) {
      if (present->isMadeInAdvance()) {
         present->flagIs(StreamAdapter::readOnlyProxy, true);
         present->isRootIs(true);
         return Ptr<Sa>(present);
      }
      if (!present->isOrphan())
         throwInternalException(std::string(std::string_view(root.fullName())) + " is on this stream already");
      reidentify(root);
   }
   Ptr<Sa> sa = logOperationsOf(root)->adapter(root, {StreamAdapter::readOnlyProxy}, *this);
   sa->isRootIs(true);
   assign(*sa);
   return sa;
}

void Demuxer::assign(Sa& sa) {
   retirementsWrite();
   own_.assign(sa, peerHighestSlot_);
   counters_.reusedSlots += sa.entityId().generation() > 1;
}

void Demuxer::limitReached(Sa& sa) {
   ++counters_.withoutIdentifier;
   if (!std::exchange(isLimitReported_, true))
      report("stream \"" + name() + "\": the peer takes identifiers up to slot " + std::to_string(peerHighestSlot_) +
             ", and none is left; something in " + std::string(std::string_view(Entity::fullNameOf(sa.entity()))) +
             " can't be told");
   Entity const* top = sa.entity();
   while (top != nullptr && top->moxRawParent() != nullptr)
      top = top->moxRawParent();
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
void Demuxer::limitsTell() {
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

unsigned Demuxer::depthOf(Entity const& entity) noexcept {
   unsigned depth = 0;
   for (Entity const* e = entity.moxRawParent(); e != nullptr && depth <= frame::maximumDepth; e = e->moxRawParent())
      ++depth;
   return depth;
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
      sa->isOrphanIs(true);
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
   if (!isWritten(*sa.entity(), [&] { sa.doSerializeOrphan(); }))
      throw AttrLogRecordException("what it was made with could not be announced before it");
}

void Demuxer::report(std::string const& text) const noexcept {
   try {
      if (!report_)
         return;
      if (!isDraining_)
         report_(text);
      else if (reports_.size() < mostReports)
         reports_.push_back(text);
      else
         ++unreported_;
   } catch (...) {
      Mox::detail::exceptionSwallowed(nullptr, attr::none);
   }
}

/// Says what has been kept back: who is told may end what the drain was in the middle of telling.
void Demuxer::reportsTell() noexcept {
   if (reports_.empty())
      return;
   for (std::string const& text : std::exchange(reports_, {}))
      report(text);
   if (std::size_t const more = std::exchange(unreported_, 0); more != 0)
      report("stream \"" + name() + "\": " + std::to_string(more) + " more of what could not be told");
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
   sa->isRootIs(true);
   try {
      waiting_.add({sa, Ptr<Entity>(&root)});
   } catch (std::bad_alloc const&) {
      sa->detach();
      throw;
   }
}

EntityId Demuxer::entityIdFor(Entity const* target) {
   if (target == nullptr)
      return {};
   TypeOperations const* const operations = logOperationsOf(*target);
   if (operations == nullptr || operations->create == nullptr) {
      ++counters_.withoutLog;
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
         sa->isAwaitedIs(true);
         anyAwaited_ = true;
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
   sa.flagIs(StreamAdapter::serializing, true);
   if (!owesEverything)
      return;
   try {
      createFlowOut(sa, attr::none);
   } catch (std::bad_alloc const&) {
      sa.owesAllIs(); // what has been announced is owed, whatever fails
   }
}

namespace {

void collectTree(Entity& top, std::vector<Ptr<Entity>>& tree) {
   tree.push_back(Ptr<Entity>(&top));
   for (Ptr<MoxType const> type = top.fwkType(); type; type = type->base())
      if (auto const visit = type->operations().visitMembers)
         visit(top, &tree, [](void* context, AttributeId, Entity& member) {
            collectTree(member, *static_cast<std::vector<Ptr<Entity>>*>(context));
         });
}

bool isAtOrBelow(Entity const* entity, Entity const& top) noexcept {
   for (; entity != nullptr; entity = entity->moxRawParent())
      if (entity == &top)
         return true;
   return false;
}

} // namespace

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

std::vector<Ptr<Entity>> Demuxer::unannounced(Entity& top) {
   std::vector<Ptr<Entity>> tree;
   collectTree(top, tree);
   // With a root goes what was announced below a root and has left it since, and what lies below that: whether the peer saw it,
   // nobody can know.
   if (Sa const* const sa = adapterOf(top); sa != nullptr && sa->isRoot())
      for (std::size_t i = 0; i < own_.size(); ++i)
         if (Sa const* const loose = own_.at(i);
             loose != nullptr && !loose->isRoot() && !loose->isOrphan() && !isUnderAnnounced(*loose->entity()))
            collectTree(*loose->entity(), tree);
   auto const own = [this](Entity const& entity) {
      Sa* const sa = adapterOf(entity);
      return Ptr<Sa>(sa == nullptr || sa->isMirror() ? nullptr : sa);
   };
   // First what may fail.
   for (Ptr<Entity> const& entity : tree)
      if (auto const sa = own(*entity))
         reidentified(*sa, *entity);
   for (Ptr<Entity> const& entity : tree)
      if (auto const sa = own(*entity))
         sa->detach();
   return tree;
}

/// `entity` loses the identifier that `sa` has given it: who refers to it says so again.
void Demuxer::reidentified(Sa const& sa, Entity const& entity) {
   if (sa.isReferred())
      reidentified_.insert(&entity);
}

void Demuxer::forgetAnnounced() {
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Ptr<Sa> const sa{own_.at(i)})
         sa->detach();
}

void Demuxer::detached(Sa& sa) noexcept {
   if (Ptr<FlowOut> const flow = sa.flow()) {
      dequeue(*flow);
      flow->ownerIs(nullptr);
      sa.flowIs(nullptr);
   }
   owing_.dequeue(sa);
   parked_.remove(sa);
   asking_.remove(sa);
   sa.parkedDelAll(attr::none);
   if (sa.isSyncing())
      syncing(sa, false);
   if (WaitingMirrors::isWaiting(sa)) {
      Mirror const gone = waiting_.taken(sa); // its entity goes last
      return;
   }
   EntityId const id = sa.entityId();
   if (!id.isAssigned())
      return;
   if (id.side() == 1) {
      if (own_.find(id) == &sa)
         own_.release(id, isOpen_ && sa.hasFlag(StreamAdapter::serializing));
   } else if (id.slot() < peer_.size() && peer_[id.slot()].sa == &sa) {
      peer_[id.slot()].sa = nullptr;
      isInHandCurrent_ = false;
   }
   sa.entityIdIs({});
}

void Demuxer::retirementsWrite() {
   while (own_.owesRetirements() && out_->hasSufficientBuffer()) {
      out_->control(Retire{own_.nextRetirement()});
      own_.retirementWritten();
   }
}

void Demuxer::acknowledge() {
   for (U64 const number : refusals_)
      out_->control(Refused{number, Reason::readOnly, {}});
   refusals_.clear();
   out_->control(Acknowledgement{applied_});
   acknowledged_ = applied_;
   acknowledgedAt_ = out_->bytesSent() + out_->pendingBytes();
}

// The backlog -----------------------------------------------------------------------------------------------------------

void Demuxer::enqueue(FlowOut& flow) noexcept {
   if (flow.isQueued_)
      return;
   flow.isQueued_ = true;
   flow.referenceInc(); // the queue's
   flow.before_ = tail_;
   flow.behind_ = nullptr;
   (tail_ == nullptr ? head_ : tail_->behind_) = &flow;
   tail_ = &flow;
}

void Demuxer::dequeue(FlowOut& flow) noexcept {
   if (!flow.isQueued_)
      return;
   flow.isQueued_ = false;
   (flow.before_ == nullptr ? head_ : flow.before_->behind_) = flow.behind_;
   (flow.behind_ == nullptr ? tail_ : flow.behind_->before_) = flow.before_;
   flow.before_ = flow.behind_ = nullptr;
   flow.referenceDec();
}

FlowOut& Demuxer::createFlowOut(Sa& sa, AttributeId startAttribute) {
   if (!sa.flow()) {
      Ptr<FlowOut> const flow = sa.flowOutIs(startAttribute);
      flow->ownerIs(&sa);
      sa.flowIs(flow);
   }
   enqueue(*sa.flow()); // one that waits for an identifier stands outside
   return *sa.flow();
}

void Demuxer::syncModeSend(Sa& sa, SyncMode mode) {
   beforeRecord();
   MsgHeader header;
   header.entity = sa.entityId();
   header.attribute = static_cast<std::int32_t>(attr::syncMode);
   header.fixedSize = 4;
   Record record(*out_, header);
   out_->put(static_cast<unsigned int>(mode));
   record.close();
}

bool Demuxer::step(FlowOut& flow) {
   Ptr<FlowOut> const held(&flow);
   Ptr<Sa> const sa(flow.owner());
   dequeue(flow);
   if (sa->isPaused())
      return true; // resumed, it owes everything
   AttributeId next = attr::none;
   try {
      if (flow.isResend() && !flow.hasOpened()) {
         for (AttributeId const id : flow.pendingAborts())
            sa->sendTransactionMarker(id, AttrTransactionType::abort, 0);
         counters_.abortedResends += flow.pendingAborts().size();
         flow.pendingAborts().clear();
         syncModeSend(*sa, SyncMode::resend);
         flow.hasOpenedIs(true);
      }
      next = sa->handleAttrFlowOut(flow.cursor());
      if (sa->flow() != &flow)
         return true; // the entity went, or its adapter, while it was told
      if ((flow.moxDataBits() & FlowOut::suspended) != 0) {
         flow.cursorIs(next);
         sa->parkedIs(flow, flow.suspendedAt());
         enqueue(flow);
         return true;
      }
      flow.cursorIs(next);
      if (next == attr::none) {
         if (flow.isResend() && flow.collectionsHaveSynced()) {
            syncModeSend(*sa, SyncMode::live);
            flow.isResendIs(false);
         }
         if (!flow.hasDirtyAttributes()) {
            dequeue(flow); // a mark on the way, which has gone out by now, may have put it back
            sa->flowIs(nullptr);
            flow.ownerIs(nullptr);
            return true;
         }
         if (!flow.hasWork()) {
            dequeue(flow); // until what it waits for has an identifier, or something else changes
            return true;
         }
      }
      enqueue(flow);
      return true;
   } catch (NoIdentifierLeft const&) {
      // No end may follow that would delete there what could not be told: the root is given up first.
      if (sa->flow() == &flow)
         enqueue(flow);
      limitReached(*sa);
      return false;
   } catch (std::exception const& e) {
      // Whatever went wrong, the entity's whole state is owed again; the next drain tries.
      report([&] {
         return "stream \"" + name() + "\": " + std::string(std::string_view(Entity::fullNameOf(sa->entity()))) +
                " owes everything again: " + e.what();
      });
      if (sa->flow() == &flow)
         enqueue(flow);
      sa->owesAllIs();
      return false;
   }
}

void Demuxer::owedAllPaid() {
   while (Sa* const first = owing_.first()) {
      Ptr<Sa> const sa(first);
      if (sa->isMirror() && sa->entityId().isAssigned() && !out_->hasSufficientBuffer())
         return;
      // What throws leaves it in the queue, for the next drain.
      if (sa->isPaused()) {
         // resumed, it comes back
      } else if (sa->isMirror()) {
         if (sa->entityId().isAssigned()) { // without, its next announcement tells all
            out_->control(Refresh{sa->entityId(), 0, {}});
            ++counters_.refreshesAsked;
         }
         sa->owesAllDel();
      } else if (!sa->hasFlag(StreamAdapter::serializing)) {
         sa->owesAllDel(); // it owes everything with its announcement
      } else {
         Ptr<FlowOut> const before = sa->flow();
         Ptr<FlowOut> const flow = sa->flowOutIs(attr::none);
         if (before) {
            flow->pendingAborts() = before->pendingAborts();
            before->openCollections(flow->pendingAborts());
            dequeue(*before);
            before->ownerIs(nullptr);
         }
         flow->ownerIs(sa.get());
         sa->flowIs(flow);
         sa->parkedDelAll(attr::none);
         parked_.remove(*sa);
         sa->notesTrim();
         enqueue(*flow);
         sa->owesAllDel();
         ++counters_.owedAll;
      }
      owing_.dequeue(*sa);
   }
}

void Demuxer::identifiersSettled() {
   try {
      while (!reidentified_.empty()) {
         std::unordered_set<Entity const*> const targets = std::exchange(reidentified_, {});
         for (std::size_t i = 0; i < own_.size(); ++i) {
            Ptr<Sa> const sa{own_.at(i)};
            if (!sa || !sa->hasFlag(StreamAdapter::serializing))
               continue;
            // What no collection announces again: an orphan, and a former member that somebody still refers to.
            bool const isLoose = sa->isOrphan() || (!sa->isRoot() && !isUnderAnnounced(*sa->entity()));
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

void Demuxer::wake() {
   if (parked_.empty())
      newIdentifiers_ = false;
   if (!newIdentifiers_)
      return;
   // Taken off the list first: marks that wait again put their adapter back.
   std::vector<Sa*> const adapters = parked_.all();
   newIdentifiers_ = false; // not sooner: without memory for the list the next drain tries again
   for (Sa* const sa : adapters)
      parked_.remove(*sa);
   for (auto at = adapters.begin(); at != adapters.end(); ++at)
      try {
         Sa& sa = **at;
         MarkSet const marks = std::exchange(sa.notes()->parked, {});
         for (Mark const& mark : marks)
            sa.markAgain(mark);
         if (sa.flow()) {
            sa.flow()->woken();
            enqueue(*sa.flow());
         }
         counters_.woken += marks.size();
         sa.notesTrim();
      } catch (...) {
         std::for_each(at, adapters.end(), [](Sa* sa) { sa->owesAllIs(); });
         throw;
      }
}

void Demuxer::refreshesAsk() {
   for (std::size_t i = 0; askedAnew_ != 0 && i < peer_.size() && out_->hasSufficientBuffer(); ++i)
      if (peer_[i].isAskedAnew) {
         EntityId const id = EntityId::assigned(static_cast<std::uint32_t>(i), 1, peer_[i].generation);
         out_->control(Refresh{ofPeer(id), static_cast<std::int32_t>(attr::orphan), {}});
         peer_[i].isAskedAnew = false;
         --askedAnew_;
         ++counters_.refreshesAsked;
      }
   while (!asking_.empty() && out_->hasSufficientBuffer()) {
      Sa& sa = *asking_.last();
      MarkSet& unasked = sa.notes()->unasked;
      while (!unasked.empty()) {
         if (!out_->hasSufficientBuffer())
            return;
         Mark const& mark = *unasked.begin();
         std::vector<std::uint8_t> key;
         auto const ask = [&] {
            out_->control(Refresh{sa.entityId(),
                                  static_cast<std::int32_t>(mark.attribute),
                                  {reinterpret_cast<char const*>(key.data()), key.size()}});
         };
         try {
            if (mark.hasKey)
               sa.writeKey(mark, key);
            ask();
         } catch (Exception const&) {
            // A key that is no enumerator, or too long for the frame or for the peer: nobody can be asked for it. The whole
            // attribute comes, and its sweep takes the entry along.
            key.clear();
            ask();
         }
         unasked.erase(unasked.begin());
         ++counters_.refreshesAsked;
      }
      asking_.remove(sa);
      sa.notesTrim();
   }
}

void Demuxer::drain() {
   if (isDraining_ || !isOpen_)
      return;
   drainNow();
   reportsTell();
}

void Demuxer::drainNow() {
   struct Scope {
      bool& flag;
      explicit Scope(bool& f) : flag(f) { flag = true; }
      ~Scope() { flag = false; }
   } const scope(isDraining_);
   try {
      owedAllPaid();
      identifiersSettled();
      wake();
      refreshesAsk();
      while (head_ != nullptr && out_->hasSufficientBuffer()) {
         if (!step(*head_))
            break;
         // What a step told may have woken others or retired what they refer to.
         identifiersSettled();
         wake();
      }
      retirementsWrite();
      limitsTell();
   } catch (std::bad_alloc const&) {
      report([&] { return "stream \"" + name() + "\": no memory to go on; the next drain tries again"; });
   }
}

bool Demuxer::owes() const noexcept {
   if (head_ != nullptr || !owing_.empty() || !asking_.empty() || askedAnew_ != 0 || own_.owesRetirements() ||
       !reidentified_.empty())
      return true;
   return newIdentifiers_ && !parked_.empty();
}

// What the peer announces -----------------------------------------------------------------------------------------------

Demuxer::PeerSlot* Demuxer::peerSlot(EntityId wireId) noexcept {
   if (!wireId.isAssigned() || wireId.slot() >= peer_.size())
      return nullptr;
   PeerSlot& slot = peer_[wireId.slot()];
   return slot.isUsed && slot.generation == wireId.generation() ? &slot : nullptr;
}

void Demuxer::checkAnnounced(EntityId id) const {
   auto const fail = [&](std::string const& why) {
      throw ProtocolException(in_->where() + ": announced " + textOf(id) + ": " + why);
   };
   if (!id.isAssigned() || id.side() != 1)
      fail("not an identifier of the announcing side");
   if (id.slot() > highestSlot)
      fail("expected slots up to " + std::to_string(highestSlot));
   // Each record for what was unmounted here meanwhile may have announced one that this side never saw.
   if (std::size_t const end = peerEnd_ + slotGap + stale_; id.slot() >= end)
      fail("expected a slot below " + std::to_string(end));
   if (id.slot() >= peer_.size())
      return;
   PeerSlot const& slot = peer_[id.slot()];
   if (slot.isUsed ? slot.generation != id.generation() : slot.generation >= id.generation())
      fail((slot.isUsed ? "the slot is in use under generation " : "the slot has been used up to generation ") +
           std::to_string(slot.generation));
}

/// Whether what the peer announces under `id` was unmounted here while its announcement was under way.
bool Demuxer::hasGoneHere(EntityId id) const noexcept {
   return id.isAssigned() && id.slot() < peer_.size() && !peer_[id.slot()].isUsed &&
          peer_[id.slot()].generation == id.generation();
}

void Demuxer::reserve(EntityId id) {
   checkAnnounced(id);
   PeerSlot& slot = neededSlot(id);
   if (slot.isUsed)
      return;
   slot.generation = id.generation();
   slot.isUsed = true;
   slot.isOwedRetirement = false;
   ++mirrored_;
}

/// The slot of an identifier that the peer announces and that has been checked.
Demuxer::PeerSlot& Demuxer::neededSlot(EntityId id) {
   if (id.slot() >= peer_.size())
      peer_.resize(id.slot() + 1);
   peerEnd_ = std::max<std::size_t>(peerEnd_, id.slot() + 1);
   return peer_[id.slot()];
}

void Demuxer::bindInRecord(EntityId id, Entity& entity, bool isOrphan) {
   checkAnnounced(id);
   PeerSlot& slot = neededSlot(id);
   if (slot.isUsed && slot.entity == &entity && slot.sa)
      return;
   letGo_.reserve(letGo_.size() + 1);
   waiting_.roomIs(waiting_.size() + mirrored_ + 1);
   Ptr<Sa> sa(adapterOf(entity));
   // Only its mount gives and takes a root's identifier: without it, nothing here would know the root for a mirror any more.
   if ((slot.sa && slot.sa->isRoot()) || (sa && sa->isRoot() && (slot.isUsed || sa->entityId().isAssigned())))
      throw ProtocolException(in_->where() + ": announced " + textOf(id) +
                              ": the identifier of a root, or of what is one already");
   if (sa && sa->entityId().isAssigned()) {
      // Announced twice, or from here meanwhile: the older identifier loses its entity, and who refers to it here says so again.
      reidentified(*sa, entity);
      sa->detach();
      sa = nullptr;
   }
   bool const isNew = !sa;
   if (isNew)
      sa = logOperationsOf(entity)->adapter(
         entity, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, *this);
   if (slot.isUsed)
      letGo_.push_back(takenFrom(slot));
   if (WaitingMirrors::isWaiting(*sa))
      waiting_.taken(*sa);
   sa->isOrphanIs(isOrphan);
   sa->entityIdIs(ofPeer(id));
   sa->wasBoundIs(true);
   slot.sa = sa;
   slot.entity = Ptr<Entity>(&entity);
   slot.generation = id.generation();
   slot.isUsed = true;
   slot.isOwedRetirement = false;
   ++mirrored_;
   syncing(*sa, true);
   newIdentifiers_ |= sa->isAwaited();
   // Somebody here had made a member of that name, and nobody was told now that it is the owner's.
   if (Entity const* const parent = entity.moxRawParent(); isNew && parent != nullptr)
      if (Sa const* const directory = adapterOf(*parent);
          directory != nullptr && !directory->handlingFlowInFor(entity.parentAttrId()))
         toldByRelays(*parent, Mark(entity.parentAttrId(), entity.moxName()));
}

/// Takes the mirror out of its slot: the identifier stands for nothing from here on. Nobody is told of it yet.
Mirror Demuxer::takenFrom(PeerSlot& slot) noexcept {
   Mirror gone{std::move(slot.sa), std::move(slot.entity)};
   slot.sa = nullptr;
   slot.entity = nullptr;
   slot.isUsed = false;
   askedAnew_ -= std::exchange(slot.isAskedAnew, false);
   --mirrored_;
   isInHandCurrent_ = false; // it may be this
   if (gone.sa) {
      gone.sa->flowsInDelAll();
      syncing(*gone.sa, false);
      asking_.remove(*gone.sa);
      gone.sa->entityIdIs({});
   }
   return gone;
}

/// Lets go of a mirror that has been taken out. Runs reactors, which may do anything here.
void Demuxer::release(Mirror const& gone) noexcept {
   if (gone.sa) {
      // What a reactor writes in answer is a change of an entity of this process, told as any other, and no refused one.
      gone.sa->flagIs(StreamAdapter::letGo, true);
      try {
         while (gone.sa->hasUntold() && gone.sa->entity() != nullptr)
            gone.sa->tellUntold(Mark(gone.sa->notes()->untold.begin()->first));
      } catch (std::exception const& e) {
         report([&] { return "stream \"" + name() + "\": not told: " + e.what(); });
      } catch (...) {
         report([&] { return "stream \"" + name() + "\": not told: an exception that is no std::exception"; });
      }
      gone.sa->detach();
      // Whoever still refers to it here refers to an entity of this process from now on.
      try {
         if (gone.entity)
            reidentified(*gone.sa, *gone.entity);
      } catch (std::bad_alloc const&) {
         allOweAll();
      }
      newIdentifiers_ |= gone.sa->isAwaited();
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

/// Lets go of what has lost its identifier while an announcement was applied; nothing else takes one away.
void Demuxer::releasePending() {
   if (letGo_.empty())
      return;
   std::vector<Mirror> const gone = std::exchange(letGo_, {});
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
      if (WaitingMirrors::isWaiting(*sa)) {
         gone.push_back(waiting_.taken(*sa));
      } else if (PeerSlot* const slot = peerSlot(ofPeer(sa->entityId()))) {
         gone.push_back(takenFrom(*slot));
         slot->isUsed = slot->isAskedAnew = true;
         ++mirrored_;
         ++askedAnew_;
      }
   }
   releaseAll(gone);
}

Ptr<Entity> Demuxer::mirrorOf(EntityId wireId) noexcept {
   PeerSlot const* const slot = peerSlot(wireId);
   return slot == nullptr ? nullptr : slot->entity;
}

Ptr<Entity> Demuxer::entityOf(EntityId wireId) {
   if (wireId == EntityId{})
      return nullptr;
   if (wireId.side() == 1) {
      if (PeerSlot const* const slot = peerSlot(wireId))
         return slot->entity;
   } else {
      // An own identifier comes as its writer sees it: of the other side.
      if (Sa const* const sa = own_.find(wireId); sa != nullptr && sa->entity() != nullptr)
         return Ptr<Entity>(sa->entity());
   }
   ++counters_.staleReferences;
   return nullptr;
}

void Demuxer::retired(EntityId wireId) {
   if (wireId.side() != 1)
      throw ProtocolException(in_->where() + ": retires " + textOf(wireId) + ", which is not its own");
   PeerSlot* const slot = peerSlot(wireId);
   if (slot == nullptr) {
      if (wireId.isAssigned() && wireId.slot() < peer_.size() && peer_[wireId.slot()].generation == wireId.generation())
         peer_[wireId.slot()].isOwedRetirement = false;
      peerSlotsTrim();
      return;
   }
   Ptr<Entity> const entity = slot->entity;
   if (slot->sa && slot->sa->isRoot() && rootRetired_) {
      rootRetired_(*entity);
      if (wireId.slot() < peer_.size() && peer_[wireId.slot()].generation == wireId.generation())
         peer_[wireId.slot()].isOwedRetirement = false;
      return;
   }
   if (Entity const* const parent = entity ? entity->moxRawParent() : nullptr)
      // The retirement has overtaken the loss of the member, which is still told: that it has gone, or that its name is another's
      // now.
      if (Sa* const sa = adapterOf(*parent); sa != nullptr && sa->isMirror())
         sa->retiredIs(Mark(entity->parentAttrId(), entity->moxName()));
   Mirror const gone = takenFrom(*slot);
   peerSlotsTrim();
   release(gone);
   if (entity)
      releaseBelow(*entity);
}

/// Drops the end of the table, where many slots stand for nothing; of a short one every generation stays known. One that went here
/// and not there is no such slot: what is under way may still name it.
void Demuxer::peerSlotsTrim() noexcept {
   constexpr std::size_t few = 64;
   waiting_.trim(waiting_.size() + mirrored_);
   std::size_t end = peer_.size();
   while (end > few && !peer_[end - 1].isUsed && !peer_[end - 1].isOwedRetirement)
      --end;
   // A look that finds few is a short one, and one that finds many drops them: looking each time stays cheap.
   if (peer_.size() - end < few)
      return;
   peer_.resize(end);
   if (peer_.size() >= peer_.capacity() / 4)
      return;
   try {
      std::vector<PeerSlot> fewer;
      fewer.reserve(2 * peer_.size());
      std::move(peer_.begin(), peer_.end(), std::back_inserter(fewer));
      peer_ = std::move(fewer);
   } catch (std::bad_alloc const&) { // it stays as it is
   }
}

bool Demuxer::isOfAnother(Entity const& member, EntityId id) const noexcept {
   Sa const* const sa = adapterOf(member);
   return sa != nullptr && sa->entityId().isAssigned() && sa->entityId() != ofPeer(id);
}

void Demuxer::refresh(EntityId wireId, std::int32_t attribute, std::string_view key) {
   if (wireId.side() != 0 || attribute < 0)
      return;
   Ptr<Sa> const sa(own_.find(wireId));
   if (!sa || !sa->isAnnounced())
      return; // gone meanwhile; its retirement says so
   ++counters_.refreshesAnswered;
   if (attribute == static_cast<std::int32_t>(attr::orphan)) {
      // Under another identifier, with all that refers to it: as the member that it is, or as one without a parent.
      Ptr<Entity> const entity(sa->entity());
      Entity* const parent = entity->moxRawParent();
      Ptr<Sa> const parentSa(parent == nullptr ? nullptr : adapterOf(*parent));
      if (parentSa && !parentSa->isMirror() && parentSa->isAnnounced() && !sa->isOrphan() && !sa->isRoot())
         parentSa->refreshAsked(Mark(entity->parentAttrId(), entity->moxName()));
      else if (!sa->isRoot())
         reidentify(*entity);
      return;
   }
   Mark mark(static_cast<AttributeId>(attribute));
   if (!key.empty()) {
      in_->readBytes(key);
      try {
         mark = sa->readKey(static_cast<AttributeId>(attribute), *in_);
      } catch (Exception const& e) {
         ++counters_.badValues;
         report(
            [&] { return where(*in_, sa.get(), mark.attribute) + ": refresh of a key that can't be: " + e.what(); });
         return;
      }
   }
   sa->refreshAsked(mark);
}

void Demuxer::syncing(Sa& sa, bool isSyncing) {
   if (sa.isSyncing() == isSyncing)
      return;
   sa.isSyncingIs(isSyncing);
   if (isSyncing)
      ++syncing_;
   else
      --syncing_;
}

/// Whether the root that `entity` belongs to is not open on this connection: then nothing has been said about it.
bool Demuxer::isBelowWaitingRoot(Entity const* entity) const noexcept {
   for (; entity != nullptr; entity = entity->moxRawParent())
      if (Sa const* const sa = adapterOf(*entity); sa != nullptr && sa->isRoot())
         return !sa->entityId().isAssigned();
   return false;
}

void Demuxer::remountEnded() {
   releaseAll(waiting_.takenIf([this](Sa const& sa) { return !isBelowWaitingRoot(sa.entity()); }));
}

bool Demuxer::isWaiting() const noexcept {
   return isOpen_ && anyAwaited_ && !owes() && waiting_.any([](Sa const& sa) { return sa.isAwaited(); });
}

bool Demuxer::waitsBroken() {
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
   std::size_t const gone = releaseAll(waiting_.takenIf(isLet));
   counters_.brokenWaits += gone;
   return gone != 0;
}

void Demuxer::isNoMember(Entity& member) {
   Sa const* const sa = adapterOf(member);
   if (sa == nullptr || !sa->isMirror() || sa->entityId().isAssigned())
      return;
   releaseBelow(member);
}

std::vector<Mirror> Demuxer::mirrorsTaken(Entity* top) {
   auto const isLet = [top](Entity const* entity) { return top == nullptr || isAtOrBelow(entity, *top); };
   // All are taken out before the first is told: its reactors may mount another, which stays, or cut the connection.
   std::vector<Mirror> gone = waiting_.thoseOf([&](Sa const& sa) { return isLet(sa.entity()); });
   gone.reserve(gone.size() + mirrored_);
   // From here on nothing fails.
   for (Mirror const& mirror : gone)
      waiting_.taken(*mirror.sa);
   for (PeerSlot& slot : peer_)
      if (slot.entity && isLet(slot.entity.get())) {
         slot.isOwedRetirement = true;
         gone.push_back(takenFrom(slot));
      }
   return gone;
}

void Demuxer::moveMirrors(Entity& root, bool withOrphans, Demuxer& to) {
   std::vector<Mirror> const moving =
      waiting_.thoseOf([&](Sa const& sa) { return (withOrphans && sa.isOrphan()) || isAtOrBelow(sa.entity(), root); });
   // First what may fail, and then what can't: half of a root would be nobody's.
   std::vector<Ptr<Sa>> moved;
   moved.reserve(moving.size());
   try {
      for (Mirror const& mirror : moving) {
         Entity& entity = *mirror.entity;
         if (Ptr<Sa> const own{to.adapterOf(entity)}) {
            // It was told there as an entity of this process; who refers to it says so again, once its owner has announced it.
            to.reidentified(*own, entity);
            own->detach();
         }
         // Here it is an entity of this process from now on.
         if (isOpen_)
            reidentified(*mirror.sa, entity);
         moved.push_back(logOperationsOf(entity)->adapter(
            entity, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, to));
         Sa& sa = *moved.back();
         sa.isRootIs(mirror.sa->isRoot());
         sa.isOrphanIs(mirror.sa->isOrphan());
         sa.wasBoundIs(mirror.sa->wasBound());
         sa.untoldReserve(*mirror.sa);
         to.waiting_.add({moved.back(), mirror.entity});
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
   newIdentifiers_ = true;
}

// Records that come in --------------------------------------------------------------------------------------------------

std::string Demuxer::where(In const& in, Sa const* sa, AttributeId id) const {
   std::string text = in.where();
   if (sa == nullptr || sa->entity() == nullptr)
      return text;
   return text + ", " + nameOf(*sa->entity(), id);
}

void Demuxer::unsent(Sa const& sa, AttributeId id, EnumException const& e) {
   ++counters_.unsentEnums;
   report("stream \"" + name() + "\", " + nameOf(*sa.entity(), id) + " is not sent: " + e.what());
}

void Demuxer::applyRecord(Sa& sa, In& in) {
   MsgHeader const header = in.header();
   applicationStarted_ = false;
   try {
      if (header.kind == kind::value) [[likely]] {
         if (sa.handleAttrDeserialization(header.attribute, {}, 0, noStream) == 0)
            ++counters_.unknownAttributes;
      } else if (header.kind == kind::marker) {
         applyMarker(sa, in);
      } else {
         ++counters_.unknownKinds;
      }
   } catch (std::bad_alloc const&) {
      applicationFailed(sa, in);
      sa.owesAllIs(); // the owner is asked to tell the entity again
   } catch (...) {
      applicationFailed(sa, in);
   }
}

void Demuxer::applyAnnouncement(Sa& sa, In& in) {
   MsgHeader const header = in.header();
   applicationStarted_ = false;
   try {
      if (!sa.hasMembers(attributeOf(header.attribute))) {
         reserveAnnounced(in);
         ++counters_.unknownAttributes;
      } else if (sa.handleAttrDeserialization(header.attribute, {}, 0, noStream) == 0) {
         ++counters_.unknownAttributes;
      }
   } catch (std::bad_alloc const&) {
      applicationFailed(sa, in);
      // A full telling of the parent would not do: it leaves out the references to the member, which read null here.
      askedAnewIs(announcedIn(in));
   } catch (...) {
      applicationFailed(sa, in);
      reserveFailed(announcedIn(in));
   }
   releasePending();
}

/// The record in hand announces a member of a collection that this side does not know. All that can be read of it is its identifier,
/// which every announcement ends with.
void Demuxer::reserveAnnounced(In const& in) {
   EntityId const id = announcedIn(in);
   if (in.body().size() < sizeof(U64))
      throw AttrLogRecordException("an announcement of " + std::to_string(in.body().size()) +
                                   " bytes, which has no room for an identifier");
   reserve(id);
}

/// What `id` was announced for does not stand here as its owner thinks: he is asked to announce it under another identifier, and to tell
/// again what refers to it. Without memory even to note that, the connection ends: the next one tells everything.
void Demuxer::askedAnewIs(EntityId id) {
   if (hasGoneHere(id)) {
      staleCounted();
      return;
   }
   reserve(id);
   if (!std::exchange(peer_[id.slot()].isAskedAnew, true))
      ++askedAnew_;
}

/// The announcement in hand could not be applied. Its identifier, where it can be one, is in use all the same.
void Demuxer::reserveFailed(EntityId id) noexcept {
   try {
      reserve(id);
   } catch (std::exception const&) { // a broken announcement: it has been reported
   }
}

void Demuxer::record(In& in) {
   if ((!isInHandCurrent_ || in.header().entity != inHandId_) && !taken(in)) [[unlikely]] {
      otherRecord(in);
      return;
   }
   // Its fate is decided: what reactors write in answer lies behind the acknowledgement.
   ++applied_;
   if (in.header().kind == kind::childLog) [[unlikely]]
      applyAnnouncement(*inHand_.sa, in);
   else
      applyRecord(*inHand_.sa, in);
}

/// Takes in hand what the record is for. \return false where nothing here is mirrored under its identifier
bool Demuxer::taken(In& in) noexcept {
   // First: what goes may run reactors that change the table.
   recordsEnd();
   EntityId const id = in.header().entity;
   PeerSlot const* const slot = id.side() == 1 ? peerSlot(id) : nullptr;
   if (slot == nullptr || !slot->sa)
      return false;
   // Both held: a record may announce another entity under this very identifier.
   inHand_ = *slot;
   inHandId_ = id;
   isInHandCurrent_ = true;
   return true;
}

void Demuxer::letGo() noexcept {
   isInHandCurrent_ = false;
   // Moved out first: what goes may run reactors that come back here.
   Mirror const gone{std::move(inHand_.sa), std::move(inHand_.entity)};
   inHand_.sa = nullptr;
   inHand_.entity = nullptr;
}

/// A record for nothing that is mirrored here: a write of the peer's, an orphan's announcement, or one that comes too late.
void Demuxer::otherRecord(In& in) {
   MsgHeader const header = in.header();
   if (header.entity.side() == 0 && header.entity != orphanAnnouncement) {
      // A write to what this side owns. The refusal goes out right before the acknowledgement that covers it, and neither does
      // before the peer has read the last acknowledgement.
      ++counters_.refusedWrites;
      if (refusals_.size() == requestWindow)
         throw ProtocolException(in.where() + ": expected at most " + std::to_string(requestWindow) +
                                 " writes without an answer");
      refusals_.push_back(applied_ + 1);
      ++applied_;
      report(in.where() + ": write-update from readonly proxy refused");
      return;
   }
   ++applied_;
   if (header.entity == orphanAnnouncement) {
      if (header.attribute == static_cast<std::int32_t>(attr::orphan)) {
         readOrphan(in);
         releasePending();
      } else {
         ++counters_.unknownAttributes;
      }
      return;
   }
   if (header.entity.slot() > highestSlot)
      throw ProtocolException(in.where() + ": slot " + std::to_string(header.entity.slot()) + ", expected up to " +
                              std::to_string(highestSlot));
   if (peerSlot(header.entity) == nullptr) {
      staleCounted();
      return;
   }
   ++counters_.unknownTypes;
   if (header.kind != kind::childLog)
      return;
   try {
      reserveAnnounced(in);
   } catch (AttrLogRecordException const& e) {
      ++counters_.badValues;
      report([&] { return in.where() + ": " + e.what(); });
   }
}

void Demuxer::applyMarker(Sa& sa, In& in) {
   std::uint8_t const type = in.nextU8();
   std::uint32_t const count = in.nextU32();
   if (type > static_cast<std::uint8_t>(AttrTransactionType::end))
      throwRangeException("marker type " + std::to_string(type) + ": expected 0 to 2");
   sa.handleAttrTransaction(static_cast<AttributeId>(in.header().attribute), static_cast<AttrTransactionType>(type),
                            count);
}

/// Reports and counts the exception in flight, which ended the record in hand. \throws it again where it ends the connection
void Demuxer::applicationFailed(Sa& sa, In& in) {
   auto const tell = [&](char const* what) {
      report([&] { return where(in, &sa, attributeOf(in.header().attribute)) + ": " + what; });
   };
   try {
      throw;
   } catch (ProtocolException const&) {
      throw;
   } catch (EnumException const& e) {
      ++(applicationStarted_ ? counters_.applicationExceptions : counters_.unknownEnums);
      tell(e.what());
   } catch (std::bad_alloc const& e) {
      ++counters_.applicationExceptions;
      tell(e.what());
   } catch (std::exception const& e) {
      // A value that this side can't hold leaves the last good one. What a reactor throws is the application's affair: the
      // record counts as applied.
      ++(applicationStarted_ ? counters_.applicationExceptions : counters_.badValues);
      tell(e.what());
   } catch (...) {
      ++counters_.applicationExceptions;
      tell("an exception that is no std::exception");
   }
}

/// Why `mirror` can't be what is announced as an entity of the types in `chain`, with the constructor parameters that come next in
/// `in`; empty where it can.
std::string Demuxer::mismatchOf(Entity const& mirror, std::vector<std::string_view> const& chain, In& in) {
   std::string_view const type(mirror.fwkType()->name());
   if (std::find(chain.begin(), chain.end(), type) == chain.end())
      return "expected an entity of type " + std::string(type) + ", the owner's is of type " +
             std::string(chain.empty() ? "(none)" : chain.front());
   TypeOperations const& operations = *logOperationsOf(mirror);
   if (operations.parametersMatch == nullptr || operations.parameters == 0)
      return {};
   try {
      if (operations.parametersMatch(mirror, in, *this))
         return {};
   } catch (AttrLogEntityException const&) { // one of them is of another type
   }
   return "the mirror was made with other constructor parameters than its owner's " + std::string(type);
}

void Demuxer::readOrphan(In& in) {
   EntityId id;
   try {
      Ptr<MoxType const> type;
      std::vector<std::string_view> chain;
      in.nextSection(1);
      while (in.remaining() != 0) {
         chain.push_back(in.nextTypeId().name);
         if (!type)
            if (Ptr<MoxType const> const known = MoxType::find(chain.back());
                known && known->operations().log != nullptr && known->operations().log->create != nullptr)
               type = known;
      }
      in.nextSection(3);
      Name const name(in.nextStringView());
      In::Position const parameters = in.position();
      in.nextSection(4);
      id = in.nextEntityId();
      if (hasGoneHere(id)) {
         staleCounted();
         return;
      }
      checkAnnounced(id);
      if (PeerSlot* const slot = peerSlot(id)) {
         // A root, bound when it was mounted.
         if (Ptr<Sa> const sa = slot->sa; sa && mismatch_) {
            in.positionIs(parameters);
            if (std::string const reason = mismatchOf(*sa->entity(), chain, in); !reason.empty())
               mismatch_(*sa, reason);
         }
         return;
      }
      if (!type) {
         ++counters_.unknownTypes;
         report(in.where() + ": entity of unknown type " + std::string(chain.empty() ? "(none)" : chain.front()));
         reserve(id);
         return;
      }
      TypeOperations const& operations = *type->operations().log;
      // The same orphan of an earlier connection is bound in place, so that references to it stay as they are.
      Sa* const waiting = waiting_.orphan(name, [&](Sa const& sa) {
         if (sa.entity()->fwkType() != type)
            return false;
         in.positionIs(parameters);
         return operations.parametersMatch(*sa.entity(), in, *this);
      });
      if (waiting != nullptr) {
         bindInRecord(id, *Ptr<Entity>(waiting->entity()), true);
         return;
      }
      in.positionIs(parameters);
      Ptr<Entity> const entity = operations.create(name, in, *this);
      bindInRecord(id, *entity, true);
   } catch (ProtocolException const&) {
      throw;
   } catch (std::bad_alloc const& e) {
      ++counters_.applicationExceptions;
      report([&] { return in.where() + ": orphan announcement: " + e.what(); });
      askedAnewIs(announcedIn(in));
   } catch (std::exception const& e) {
      ++counters_.badValues;
      report([&] { return in.where() + ": orphan announcement: " + e.what(); });
      reserveFailed(id);
   }
}

Demuxer::Footprint Demuxer::footprint() const {
   Footprint f;
   f.announced = own_.used();
   f.mirrored = mirrored_;
   f.waiting = waiting_.size();
   f.reidentified = reidentified_.size();
   f.retirements = own_.retirements();
   f.bufferBytes = out_->pendingBytes();
   f.slots = own_.size() + peer_.size();
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
   for (PeerSlot const& slot : peer_)
      if (slot.sa)
         add(*slot.sa);
   return f;
}

// Audits ----------------------------------------------------------------------------------------------------------------

std::string Demuxer::audit() const {
   for (std::string found : {own_.audit(), waiting_.audit(), auditFlows(), auditMirrors(), auditLists()})
      if (!found.empty())
         return "stream \"" + name() + "\": " + found;
   return {};
}

/// A flow stands in the queue exactly if its turn would do something; and every flow there is some adapter's.
std::string Demuxer::auditFlows() const {
   std::size_t queued = 0;
   FlowOut const* before = nullptr;
   for (FlowOut const* flow = head_; flow != nullptr; before = flow, flow = flow->behind_, ++queued) {
      if (!flow->isQueued_ || flow->before_ != before)
         return "the queue of flows is not linked as it should";
      if (flow->owner() == nullptr || flow->owner()->flow() != flow || flow->owner()->streamDemuxer() != this)
         return "a flow in the queue is no adapter's";
   }
   if (tail_ != before)
      return "the queue of flows does not end with its last";
   std::size_t owned = 0;
   for (std::size_t i = 0; i < own_.size(); ++i) {
      Sa const* const sa = own_.at(i);
      if (sa == nullptr || !sa->flow())
         continue;
      FlowOut const& flow = *sa->flow();
      std::string const whose = "the flow of " + std::string(std::string_view(Entity::fullNameOf(sa->entity())));
      if (flow.owner() != sa)
         return whose + " belongs to another adapter";
      owned += flow.isQueued();
      if (sa->isPaused() || sa->owesAll())
         continue; // resumed or paid, it gets another
      bool const isUnopened = flow.isResend() && !flow.hasOpened();
      if (!flow.isQueued() && (flow.hasWork() || isUnopened))
         return whose + " has work and stands outside the queue";
      if (!flow.isQueued())
         if (Notes const* const notes = sa->notes())
            for (Mark const& mark : notes->parked)
               if (flow.isMarked(mark))
                  return whose + " rests with attribute " + std::to_string(mark.attribute) + " both parked and marked";
   }
   if (owned != queued)
      return std::to_string(queued) + " flows are queued, " + std::to_string(owned) +
             " of them by adapters with an identifier";
   return {};
}

/// Slots and adapters stand one to one, and every entity knows the adapter that the table has for it.
std::string Demuxer::auditMirrors() const {
   std::size_t used = 0;
   std::size_t syncing = 0;
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Sa const* const sa = own_.at(i)) {
         if (sa->isMirror() || sa->streamDemuxer() != this || sa->entity() == nullptr || adapterOf(*sa->entity()) != sa)
            return "slot " + std::to_string(i) + " of this side holds an adapter that is none of this side's entities";
         syncing += sa->isSyncing();
      }
   for (std::size_t i = 0; i < peer_.size(); ++i) {
      PeerSlot const& slot = peer_[i];
      std::string const which = "slot " + std::to_string(i) + " of the peer";
      used += slot.isUsed;
      if (!slot.isUsed && (slot.sa || slot.entity))
         return which + " is free and holds something";
      if (slot.sa) {
         if (slot.sa->entityId() != ofPeer(EntityId::assigned(static_cast<std::uint32_t>(i), 1, slot.generation)))
            return which + " holds an adapter with another identifier";
         if (!slot.sa->isMirror() || slot.sa->entity() != slot.entity.get() || adapterOf(*slot.entity) != slot.sa)
            return which + " holds an adapter that is not its entity's";
         syncing += slot.sa->isSyncing();
      }
   }
   if (used != mirrored_)
      return "the peer has " + std::to_string(used) + " slots in use, " + std::to_string(mirrored_) + " are counted";
   if (peer_.size() > peerEnd_)
      return "the table of the peer's slots is longer than what it has announced";
   if (syncing != syncing_)
      return std::to_string(syncing) + " entities are being told, " + std::to_string(syncing_) + " are counted";
   return {};
}

/// Every list holds what belongs there, each once, and nothing else does.
std::string Demuxer::auditLists() const {
   if (!letGo_.empty())
      return "a mirror that was to be let go behind its record is still there";
   std::size_t queued = 0;
   for (Sa const* sa = owing_.first(); sa != nullptr; sa = AdapterQueue::next(*sa), ++queued)
      if (!AdapterQueue::isQueued(*sa) || !sa->owesAll() || sa->streamDemuxer() != this)
         return "an adapter in the queue of those that owe everything owes nothing";
   if (queued != owing_.size())
      return "the queue of those that owe everything is not as long as it says";
   std::size_t parked = 0;
   std::size_t asking = 0;
   std::string found;
   auto const look = [&](Sa const& sa, bool hasIdentifier) {
      auto const whose = [&] { return Entity::fullNameOf(sa.entity()).str(); };
      if (sa.owesAll() && !sa.isPaused() && hasIdentifier && !AdapterQueue::isQueued(sa))
         found = whose() + " owes everything and nobody knows";
      Notes const* const notes = sa.notes();
      if (notes == nullptr)
         return;
      parked += notes->parkedAt != Notes::unlisted;
      asking += notes->askingAt != Notes::unlisted;
      if (!notes->parked.empty() && notes->parkedAt == Notes::unlisted && !sa.owesAll())
         found = whose() + " has parked marks that nobody will wake";
      if (!notes->unasked.empty() && notes->askingAt == Notes::unlisted && hasIdentifier && !sa.owesAll())
         found = whose() + " has marks that the owner will never be asked for";
      for (Mark const& mark : notes->unasked)
         if (!notes->untold.contains(mark))
            found = whose() + " asks for a mark that it is not owed";
   };
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Sa const* const sa = own_.at(i))
         look(*sa, true);
   for (PeerSlot const& slot : peer_)
      if (slot.sa)
         look(*slot.sa, true);
   waiting_.any([&](Sa const& sa) {
      look(sa, false);
      return false;
   });
   if (found.empty() && (parked != parked_.size() || asking != asking_.size()))
      found = "the lists of adapters with notes do not hold those that have them";
   return found;
}

} // namespace NboAttrLog

NboAttrLog::Demuxer* demuxFor(Ptr<NboAttrLog::In const> const& in) {
   return in ? in->demuxer() : nullptr;
}

} // namespace Mox
