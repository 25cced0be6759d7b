#include "attrlog/Demuxer.h"

#include "core/Exceptions.h"
#include "core/Text.h"
#include "mox/MoxType.h"

#include <algorithm>
#include <exception>

namespace Mox {

namespace NboAttrLog {

namespace {

/// How far a slot may lie beyond the ones announced so far: an announcement that was taken back leaves a gap.
constexpr std::uint32_t slotGap = 64;

thread_local Demuxer* firstDemuxer = nullptr;

constinit Ptr<In> const noStream; ///< a record is applied, not answered

/// The identifier that the announcement of a member ends with; null where it is too short for one.
EntityId announcedIn(In const& in) noexcept {
   auto const body = in.body();
   return body.size() < sizeof(U64)
             ? EntityId{}
             : EntityId::ofNumber(loadBigEndian<U64>(body.data() + body.size() - sizeof(U64)));
}

/// "/config/port.refClock (388)", for messages.
std::string nameOf(Entity const& entity, AttributeId id) {
   return std::string(std::string_view(entity.fullName())) + "." +
          std::string(std::string_view(entity.attributeString(id))) + " (" + std::to_string(id) + ")";
}

/// Whoever passes on what `mirror` is told owes `mark` again.
void toldByRelays(Entity const& mirror, Mark const& mark) {
   for (auto* r = mirror.moxReactors().first(); r != nullptr && r->isStreamAdapter(); r = r->moxNextInList())
      if (auto* const sa = dynamic_cast<Demuxer::Sa*>(r->moxRawReactor());
          sa != nullptr && sa->hasFlag(StreamAdapter::relays) && sa->isAnnounced() && !sa->isPaused())
         sa->markAgain(mark);
}

std::string textOf(EntityId id) {
   return "slot " + std::to_string(id.slot()) + " generation " + std::to_string(id.generation());
}

} // namespace

Demuxer::Demuxer(std::string const& name) : out_(make<Out>(name)), in_(make<In>(name)), nextDemuxer_(firstDemuxer) {
   out_->reverseLogIs(in_);
   in_->demuxerIs(this);
   firstDemuxer = this;
}

Demuxer::~Demuxer() {
   cut();
   forgetMirrors(nullptr);
   in_->demuxerIs(nullptr);
   Demuxer** at = &firstDemuxer;
   while (*at != this)
      at = &(*at)->nextDemuxer_;
   *at = nextDemuxer_;
}

void Demuxer::forEach(std::function<void(Demuxer&)> const& visit) {
   for (Demuxer* d = firstDemuxer; d != nullptr;) {
      Demuxer* const next = d->nextDemuxer_;
      visit(*d);
      d = next;
   }
}

void Demuxer::forEachAdapter(std::function<void(Sa&)> const& visit) {
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Ptr<Sa> const sa = own_[i].sa)
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
   isOpen_ = anyAwaited_ = false;
   forgetAnnounced();
   own_.clear();
   freeSlots_.clear();
   retirements_.clear();
   // What was announced again stands in the table; only that entry goes on.
   std::erase_if(waiting_, [](PeerSlot const& slot) { return slot.sa->entityId().isAssigned(); });
   for (PeerSlot& slot : peer_) {
      if (!slot.sa)
         continue;
      slot.sa->flowsInDelAll();
      slot.sa->entityIdIs({});
      slot.sa->isSyncingIs(false);
      slot.sa->isAwaitedIs(false);
      for (auto& untold : slot.sa->untold())
         untold = {untold.mark, false, untold.isTold, true};
      waiting_.push_back(std::move(slot));
   }
   peer_.clear();
   isInHandCurrent_ = false;
   syncing_ = 0;
   // A former member without a parent is never bound again, nor is what lies below it: the owner would announce it as another
   // entity. Waiting for it would keep what refers to it from the peer, which may wait for that in turn.
   auto const gone = waitingTaken([this](PeerSlot const& slot) {
      Entity const* top = slot.entity.get();
      while (top->moxRawParent() != nullptr)
         top = top->moxRawParent();
      Sa const* const sa = adapterOf(*top);
      return sa == nullptr || !(sa->isRoot() || sa->isOrphan());
   });
   retiredMembers_.clear();
   wanted_ = nullptr;
   applied_ = acknowledged_ = acknowledgedAt_ = 0;
   peerHighestSlot_ = highestSlot;
   out_->clear();
   in_->reset();
   releaseAll(gone); // last: a reactor may connect anew
   if (!isOpen_)
      reidentified_.clear();
}

// What this side announces ----------------------------------------------------------------------------------------------

Demuxer::Sa* Demuxer::adapterOf(Entity const& entity) const noexcept {
   // Adapters stand at the head of the list, one per stream: a short walk, and no table to keep.
   for (auto* r = entity.moxReactors().first(); r != nullptr && r->isStreamAdapter(); r = r->moxNextInList())
      if (auto* const sa = static_cast<Sa*>(r->moxRawReactor()); sa->streamDemuxer() == this)
         return sa;
   return nullptr;
}

Ptr<Demuxer::Sa> Demuxer::rootIs(Entity& root) {
   if (Sa* const present = adapterOf(root)) {
      if (!present->isOrphan())
         throwInternalException(std::string(std::string_view(root.fullName())) + " is on this stream already");
      reidentify(root);
   }
   Ptr<Sa> sa = logOperationsOf(root)->adapter(root, {StreamAdapter::readOnlyProxy}, *this);
   sa->isRootIs(true);
   assign(*sa);
   return sa;
}

Ptr<Demuxer::Sa> Demuxer::announcedUnder(EntityId id) const {
   if (!id.isAssigned() || id.slot() >= own_.size() || own_[id.slot()].generation != id.generation())
      return nullptr;
   return own_[id.slot()].sa;
}

void Demuxer::assign(Sa& sa) {
   flushRetirements();
   if (freeSlots_.empty()) {
      std::size_t const slot = std::max<std::size_t>(own_.size(), 1);
      if (slot > peerHighestSlot_)
         throw InternalException("stream \"" + name() + "\" has no identifier left: the peer takes slots up to " +
                                 std::to_string(peerHighestSlot_));
      // Room first, so that giving an identifier back never fails.
      if (own_.capacity() <= slot)
         own_.reserve(std::max(slot + 1, 2 * own_.capacity()));
      freeSlots_.reserve(own_.capacity());
      retirements_.reserve(own_.capacity());
      own_.resize(slot + 1);
      freeSlots_.push_back(static_cast<std::uint32_t>(slot));
   }
   std::uint32_t const slot = freeSlots_.back();
   freeSlots_.pop_back();
   counters_.reusedSlots += own_[slot].generation != 0;
   own_[slot].sa = Ptr<Sa>(&sa);
   sa.entityIdIs(EntityId::assigned(slot, 1, ++own_[slot].generation));
}

bool Demuxer::isUnderAnnounced(Entity const& entity) const noexcept {
   for (Entity const* e = entity.moxRawParent(); e != nullptr; e = e->moxRawParent())
      if (Sa const* const sa = adapterOf(*e); sa != nullptr && !sa->isMirror() && sa->isAnnounced())
         return true;
   return false;
}

void Demuxer::announce(Entity& entity) {
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
      sa->isOrphanIs(true);
      sa->moxOnInit();
   }
   try {
      if (!sa->entityId().isAssigned())
         assign(*sa);
      writeAnnouncement(*sa);
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
   // Each restart has announced one more of the constructor's references.
   std::size_t const mostRestarts = 1 + logOperationsOf(*sa.entity())->parameters;
   for (std::size_t restarts = 0;; ++restarts) {
      try {
         sa.doSerializeOrphan();
         return;
      } catch (RecordTooLong const&) {
         throw;
      } catch (AttrLogRecordException const&) {
         if (restarts == mostRestarts)
            throw;
         ++counters_.restartedAnnouncements;
         announceWanted();
      }
   }
}

void Demuxer::mirrorRootIs(Entity& root) {
   if (adapterOf(root) != nullptr)
      throwInternalException(std::string(std::string_view(root.fullName())) + " is on this stream already");
   TypeOperations const* const operations = logOperationsOf(root);
   if (operations == nullptr)
      throwInternalException(std::string(std::string_view(root.fwkType()->name())) + " has no attribute log");
   Ptr<Sa> const sa = operations->adapter(
      root, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, *this);
   sa->isRootIs(true);
   waiting_.push_back({sa, Ptr<Entity>(&root), 0, false});
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
                " travel as null, because the type has no attribute log");
      }
      return {};
   }
   if (Sa* const sa = adapterOf(*target)) {
      if (sa->isMirror()) {
         if (sa->entityId().isAssigned())
            return sa->entityId();
         sa->isAwaitedIs(true);
         anyAwaited_ = true;
         throw NoEntityIdException(std::string(std::string_view(target->fullName())) +
                                   " has no identifier on this stream until its owner announces it again");
      }
      if (sa->isAnnounced())
         return sa->entityId();
   }
   if (out_->isRecordOpen()) {
      wanted_ = Ptr<Entity>(const_cast<Entity*>(target));
      throw AttrLogRecordException(std::string(std::string_view(target->fullName())) +
                                   " must be announced before the record that refers to it");
   }
   announce(*const_cast<Entity*>(target));
   Sa const* const sa = adapterOf(*target);
   if (sa == nullptr || !sa->isAnnounced())
      throw NoEntityIdException(std::string(std::string_view(target->fullName())) + " could not be announced");
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
   newIdentifiers_ = true;
   if (owesEverything)
      createFlowOut(sa, attr::none);
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

void Demuxer::forgetTree(Entity& top) {
   std::vector<Ptr<Entity>> tree;
   collectTree(top, tree);
   for (Ptr<Entity> const& entity : tree)
      if (Ptr<Sa> const sa{adapterOf(*entity)}; sa && !sa->isMirror())
         sa->detach();
}

void Demuxer::reidentify(Entity& top) {
   std::vector<Ptr<Entity>> tree;
   collectTree(top, tree);
   // With a root goes what was announced below a root and has left it since, and what lies below that: whether the peer saw it,
   // nobody can know.
   if (Sa const* const sa = adapterOf(top); sa != nullptr && sa->isRoot())
      for (OwnSlot const& slot : own_)
         if (slot.sa && !slot.sa->isRoot() && !slot.sa->isOrphan() && !isUnderAnnounced(*slot.sa->entity()))
            collectTree(*slot.sa->entity(), tree);
   for (Ptr<Entity> const& entity : tree)
      if (Ptr<Sa> const sa{adapterOf(*entity)}; sa && !sa->isMirror()) {
         reidentified_.push_back(entity.get());
         sa->detach();
      }
}

void Demuxer::forgetAnnounced() {
   for (std::size_t i = 0; i < own_.size(); ++i)
      if (Ptr<Sa> const sa = own_[i].sa)
         sa->detach();
}

void Demuxer::detached(Sa& sa) noexcept {
   if (Ptr<FlowOut> const flow = sa.flow()) {
      dequeue(*flow);
      flow->ownerIs(nullptr);
      sa.flowIs(nullptr);
   }
   std::erase(parkedAdapters_, &sa);
   sa.parked().clear();
   if (sa.isSyncing())
      syncing(sa, false);
   EntityId const id = sa.entityId();
   if (!id.isAssigned())
      return;
   sa.entityIdIs({});
   if (id.side() == 1) {
      if (id.slot() < own_.size() && own_[id.slot()].sa == &sa) {
         // The table keeps no reference here: `Sa::detach` holds the adapter.
         own_[id.slot()].sa = nullptr;
         if (isOpen_ && sa.hasFlag(StreamAdapter::serializing))
            retirements_.push_back(id.slot());
         else
            freeSlots_.push_back(id.slot());
      }
   } else if (id.slot() < peer_.size() && peer_[id.slot()].sa == &sa) {
      peer_[id.slot()].sa = nullptr;
      isInHandCurrent_ = false;
   }
}

void Demuxer::flushRetirements() {
   while (!retirements_.empty()) {
      std::uint32_t const slot = retirements_.back();
      out_->control(Retire{EntityId::assigned(slot, 1, own_[slot].generation)});
      retirements_.pop_back();
      freeSlots_.push_back(slot);
   }
}

void Demuxer::acknowledge() {
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

void Demuxer::parkedIs(Sa& sa) {
   ++counters_.parked;
   if (std::find(parkedAdapters_.begin(), parkedAdapters_.end(), &sa) == parkedAdapters_.end())
      parkedAdapters_.push_back(&sa);
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
   } catch (std::exception const& e) {
      // Whatever went wrong, the entity's whole state is owed again; the next drain tries.
      report("stream \"" + name() + "\": " + std::string(std::string_view(Entity::fullNameOf(sa->entity()))) +
             " owes everything again: " + e.what());
      if (sa->flow() == &flow)
         enqueue(flow);
      sa->owesAllIs();
      return false;
   }
}

void Demuxer::owedAllPaid() {
   // The bit of the stream goes last: what throws on the way leaves the rest for the next drain.
   if (!anyOwesAll_)
      return;
   for (std::size_t i = 0; i < own_.size(); ++i) {
      Ptr<Sa> const sa = own_[i].sa;
      if (!sa || !sa->owesAll() || sa->isPaused())
         continue;
      if (!sa->hasFlag(StreamAdapter::serializing)) {
         sa->owesAllDel(); // it owes everything with its announcement
         continue;
      }
      Ptr<FlowOut> const before = sa->flow();
      Ptr<FlowOut> const flow = sa->flowOutIs(attr::none);
      if (before) {
         flow->pendingAborts() = std::move(before->pendingAborts());
         before->openCollections(flow->pendingAborts());
         dequeue(*before);
         before->ownerIs(nullptr);
      }
      flow->ownerIs(sa.get());
      sa->flowIs(flow);
      sa->parked().clear();
      enqueue(*flow);
      sa->owesAllDel();
      ++counters_.owedAll;
   }
   for (std::size_t i = 0; i < peer_.size(); ++i)
      if (Ptr<Sa> const sa = peer_[i].sa; sa && sa->owesAll()) {
         out_->control(Refresh{sa->entityId(), 0, {}});
         sa->owesAllDel();
         ++counters_.refreshesAsked;
      }
   anyOwesAll_ = false;
}

void Demuxer::reidentifiedMarked() {
   while (!reidentified_.empty()) {
      std::vector<Entity const*> const targets = std::move(reidentified_);
      reidentified_.clear();
      for (std::size_t i = 0; i < own_.size(); ++i) {
         Ptr<Sa> const sa = own_[i].sa;
         if (!sa || !sa->hasFlag(StreamAdapter::serializing))
            continue;
         TypeOperations const* const operations = logOperationsOf(*sa->entity());
         auto const refers = [&](Entity const* target) { return operations->hasParameter(*sa->entity(), *target); };
         // What no collection announces again: an orphan, and a former member that somebody still refers to.
         bool const isLoose = sa->isOrphan() || (!sa->isRoot() && !isUnderAnnounced(*sa->entity()));
         if (isLoose && std::any_of(targets.begin(), targets.end(), refers))
            reidentify(*sa->entity());
         else
            sa->markReferencesTo(targets);
      }
   }
}

void Demuxer::wake() {
   if (!std::exchange(newIdentifiers_, false))
      return;
   std::vector<Sa*> const adapters = std::move(parkedAdapters_);
   parkedAdapters_.clear();
   parkedAdapters_.reserve(adapters.size());
   for (Sa* const sa : adapters) {
      std::vector<Mark> const marks = std::move(sa->parked());
      sa->parked().clear();
      for (Mark const& mark : marks)
         sa->markAgain(mark);
      if (sa->flow()) {
         sa->flow()->woken();
         enqueue(*sa->flow());
      }
      counters_.woken += marks.size();
   }
}

void Demuxer::refreshesAsk() {
   if (!anyUntold_)
      return;
   for (std::size_t i = 0; i < peer_.size(); ++i) {
      Ptr<Sa> const sa = peer_[i].sa;
      if (!sa || sa->untold().empty())
         continue;
      for (auto& untold : sa->untold()) {
         if (untold.isAsked || untold.isOld)
            continue;
         if (!out_->hasSufficientBuffer())
            return;
         std::vector<std::uint8_t> key;
         try {
            if (untold.mark.hasKey)
               sa->writeKey(untold.mark, key);
         } catch (EnumException const&) {
            key.clear(); // nobody can be asked for such a key: the whole attribute comes, and its sweep takes the entry along
         }
         out_->control(Refresh{sa->entityId(),
                               static_cast<std::int32_t>(untold.mark.attribute),
                               {reinterpret_cast<char const*>(key.data()), key.size()}});
         untold.isAsked = true;
         ++counters_.refreshesAsked;
      }
   }
   anyUntold_ = false;
}

void Demuxer::drain() {
   if (isDraining_ || !isOpen_)
      return;
   struct Scope {
      bool& flag;
      explicit Scope(bool& f) : flag(f) { flag = true; }
      ~Scope() { flag = false; }
   } const scope(isDraining_);
   try {
      owedAllPaid();
      reidentifiedMarked();
      wake();
      refreshesAsk();
      while (head_ != nullptr && out_->hasSufficientBuffer()) {
         if (!step(*head_))
            return;
         // What a step told may have woken others or retired what they refer to.
         reidentifiedMarked();
         wake();
      }
      flushRetirements();
   } catch (std::bad_alloc const&) {
      report("stream \"" + name() + "\": no memory to go on; the next drain tries again");
   }
}

bool Demuxer::owes() const noexcept {
   if (head_ != nullptr || anyOwesAll_ || anyUntold_ || !retirements_.empty() || !reidentified_.empty())
      return true;
   return newIdentifiers_ && !parkedAdapters_.empty();
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
   if (std::size_t const end = peer_.size() + slotGap + counters_.staleRecords; id.slot() >= end)
      fail("expected a slot below " + std::to_string(end));
   if (id.slot() >= peer_.size())
      return;
   PeerSlot const& slot = peer_[id.slot()];
   if (slot.isUsed ? slot.generation != id.generation() : slot.generation >= id.generation())
      fail((slot.isUsed ? "the slot is in use under generation " : "the slot has been used up to generation ") +
           std::to_string(slot.generation));
}

void Demuxer::reserve(EntityId id) {
   checkAnnounced(id);
   if (id.slot() >= peer_.size())
      peer_.resize(id.slot() + 1);
   if (PeerSlot& slot = peer_[id.slot()]; !slot.isUsed)
      slot = {nullptr, nullptr, id.generation(), true};
}

void Demuxer::bind(EntityId id, Entity& entity, bool isOrphan) {
   checkAnnounced(id);
   if (id.slot() >= peer_.size())
      peer_.resize(id.slot() + 1);
   PeerSlot& slot = peer_[id.slot()];
   if (slot.isUsed && slot.entity == &entity && slot.sa)
      return;
   if (slot.isUsed)
      release(takenFrom(slot));
   Ptr<Sa> sa(adapterOf(entity));
   if (sa && sa->entityId().isAssigned()) {
      // Announced twice, or from here meanwhile: the older identifier loses its entity, and who refers to it here says so again.
      reidentified_.push_back(&entity);
      sa->detach();
      sa = nullptr;
   }
   bool const isNew = !sa;
   if (isNew)
      sa = logOperationsOf(entity)->adapter(
         entity, {StreamAdapter::readOnlyCopy | StreamAdapter::weak | StreamAdapter::serializing}, *this);
   sa->isOrphanIs(isOrphan);
   sa->entityIdIs(ofPeer(id));
   peer_[id.slot()] = {sa, Ptr<Entity>(&entity), id.generation(), true};
   syncing(*sa, true);
   newIdentifiers_ = true;
   // Somebody here had made a member of that name, and nobody was told now that it is the owner's.
   if (Entity const* const parent = entity.moxRawParent(); isNew && parent != nullptr)
      if (Sa const* const directory = adapterOf(*parent);
          directory != nullptr && !directory->handlingFlowInFor(entity.parentAttrId()))
         toldByRelays(*parent, Mark(entity.parentAttrId(), entity.moxName()));
}

/// Takes the mirror out of its slot: the identifier stands for nothing from here on. Nobody is told of it yet.
Demuxer::PeerSlot Demuxer::takenFrom(PeerSlot& slot) noexcept {
   PeerSlot gone = std::exchange(slot, {nullptr, nullptr, slot.generation, false});
   isInHandCurrent_ = false; // it may be this
   if (gone.sa) {
      gone.sa->flowsInDelAll();
      syncing(*gone.sa, false);
      gone.sa->entityIdIs({});
   }
   return gone;
}

/// Lets go of a mirror that has been taken out. Runs reactors, which may do anything here.
void Demuxer::release(PeerSlot const& gone) noexcept {
   if (gone.sa) {
      // What a reactor writes in answer is a change of an entity of this process, told as any other, and no refused one.
      gone.sa->flagIs(StreamAdapter::letGo, true);
      try {
         while (!gone.sa->untold().empty() && gone.sa->entity() != nullptr)
            gone.sa->tellUntold(Mark(gone.sa->untold().back().mark));
      } catch (std::exception const& e) {
         report("stream \"" + name() + "\": not told: " + e.what());
      }
      gone.sa->detach();
   }
   // Whoever still refers to it here refers to an entity of this process from now on.
   if (gone.entity && gone.entity->references() > 1)
      reidentified_.push_back(gone.entity.get());
   newIdentifiers_ = true;
}

/// As above, one after the other; what the reactors of one have announced again stays. \return how many were let go
std::size_t Demuxer::releaseAll(std::vector<PeerSlot> const& gone) noexcept {
   std::size_t count = 0;
   for (PeerSlot const& slot : gone)
      if (!slot.sa || !slot.sa->entityId().isAssigned()) {
         release(slot);
         ++count;
      }
   return count;
}

/// Takes the mirrors of an earlier connection out that `isLet` names.
template <class Predicate> std::vector<Demuxer::PeerSlot> Demuxer::waitingTaken(Predicate&& isLet) {
   auto const behind = std::stable_partition(waiting_.begin(), waiting_.end(), std::not_fn(isLet));
   std::vector<PeerSlot> gone(std::make_move_iterator(behind), std::make_move_iterator(waiting_.end()));
   waiting_.erase(behind, waiting_.end());
   return gone;
}

/// With what is no mirror any more goes what lies below it: whoever announces it from now on announces its members too.
void Demuxer::releaseWaitingBelow(Entity const& top) {
   releaseAll(waitingTaken(
      [&](PeerSlot const& slot) { return !slot.sa->entityId().isAssigned() && isAtOrBelow(slot.entity.get(), top); }));
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
   } else if (wireId.slot() < own_.size()) {
      OwnSlot const& slot = own_[wireId.slot()];
      if (slot.sa && slot.generation == wireId.generation() && slot.sa->entity() != nullptr)
         return Ptr<Entity>(slot.sa->entity());
   }
   ++counters_.staleReferences;
   return nullptr;
}

void Demuxer::retired(EntityId wireId) {
   if (wireId.side() != 1)
      throw ProtocolException(in_->where() + ": retires " + textOf(wireId) + ", which is not its own");
   PeerSlot* const slot = peerSlot(wireId);
   if (slot == nullptr)
      return;
   if (Entity const* const parent = slot->entity ? slot->entity->moxRawParent() : nullptr)
      if (Sa const* const sa = adapterOf(*parent); sa != nullptr && sa->isMirror()) {
         // The retirement has overtaken the loss of the member, which is still told: that it has gone, or that its name is
         // another's now. What was told meanwhile has left its parent.
         if (retiredMembers_.size() == retiredMembers_.capacity())
            std::erase_if(retiredMembers_, [](Ptr<Entity> const& member) { return member->moxRawParent() == nullptr; });
         retiredMembers_.push_back(slot->entity);
      }
   Ptr<Entity> const gone = slot->entity;
   release(takenFrom(*slot));
   if (gone)
      releaseWaitingBelow(*gone);
}

bool Demuxer::isOfAnother(Entity const& member, EntityId id) {
   if (std::erase(retiredMembers_, &member) != 0)
      return true;
   Sa const* const sa = adapterOf(member);
   return sa != nullptr && sa->entityId().isAssigned() && sa->entityId() != ofPeer(id);
}

void Demuxer::refresh(EntityId wireId, std::int32_t attribute, std::string_view key) {
   if (wireId.side() != 0 || wireId.slot() >= own_.size() || attribute < 0)
      return;
   OwnSlot const& slot = own_[wireId.slot()];
   Ptr<Sa> const sa = slot.sa;
   if (!sa || slot.generation != wireId.generation() || !sa->isAnnounced())
      return; // gone meanwhile; its retirement says so
   ++counters_.refreshesAnswered;
   Mark mark(static_cast<AttributeId>(attribute));
   if (!key.empty()) {
      in_->readBytes(key);
      try {
         mark = sa->readKey(static_cast<AttributeId>(attribute), *in_);
      } catch (Exception const& e) {
         ++counters_.badValues;
         report(where(*in_, sa.get(), mark.attribute) + ": refresh of a key that can't be: " + e.what());
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
   std::erase_if(waiting_, [](PeerSlot const& slot) { return slot.sa->entityId().isAssigned(); });
   releaseAll(waitingTaken([this](PeerSlot const& slot) { return !isBelowWaitingRoot(slot.entity.get()); }));
}

bool Demuxer::isWaiting() const noexcept {
   return isOpen_ && anyAwaited_ && !owes() && std::any_of(waiting_.begin(), waiting_.end(), [](PeerSlot const& slot) {
             return slot.sa->isAwaited() && !slot.sa->entityId().isAssigned();
          });
}

bool Demuxer::waitsBroken() {
   // With what is awaited goes what lies below it: whoever announces it from now on announces its members too.
   auto const isLet = [&](PeerSlot const& slot) {
      if (slot.sa->entityId().isAssigned() || isBelowWaitingRoot(slot.entity.get()))
         return false;
      for (Entity const* e = slot.entity.get(); e != nullptr; e = e->moxRawParent())
         if (Sa const* const sa = adapterOf(*e);
             sa != nullptr && sa->isMirror() && sa->isAwaited() && !sa->entityId().isAssigned())
            return true;
      return false;
   };
   std::size_t const gone = releaseAll(waitingTaken(isLet));
   counters_.brokenWaits += gone;
   return gone != 0;
}

void Demuxer::isNoMember(Entity& member) {
   Sa const* const sa = adapterOf(member);
   if (sa == nullptr || !sa->isMirror() || sa->entityId().isAssigned())
      return;
   releaseWaitingBelow(member);
}

void Demuxer::forgetMirrors(Entity* top) {
   auto const isLet = [top](PeerSlot const& slot) {
      return slot.entity && (top == nullptr || isAtOrBelow(slot.entity.get(), *top));
   };
   // All are taken out before the first is told: its reactors may mount another, which stays, or cut the connection.
   std::vector<PeerSlot> gone = waitingTaken(isLet);
   gone.reserve(gone.size() + static_cast<std::size_t>(std::count_if(peer_.begin(), peer_.end(), isLet)));
   for (PeerSlot& slot : peer_)
      if (isLet(slot))
         gone.push_back(takenFrom(slot));
   releaseAll(gone);
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
      switch (header.kind) {
      case kind::marker:
         applyMarker(sa, in);
         break;
      case kind::childLog:
         if (!sa.hasMembers(attributeOf(header.attribute))) {
            reserveAnnounced(in);
            ++counters_.unknownAttributes;
            break;
         }
         [[fallthrough]];
      case kind::value:
         if (sa.handleAttrDeserialization(header.attribute, {}, 0, noStream) == 0)
            ++counters_.unknownAttributes;
         break;
      default:
         ++counters_.unknownKinds;
      }
   } catch (...) {
      applicationFailed(sa, in);
      if (header.kind == kind::childLog)
         reserveFailed(announcedIn(in));
   }
}

/// The member announced in hand is none that this side knows, or of one: nobody knows here what its record holds, but that its
/// identifier comes last.
void Demuxer::reserveAnnounced(In const& in) {
   EntityId const id = announcedIn(in);
   if (in.body().size() < sizeof(U64))
      throw AttrLogRecordException(in.where() + ": an announcement of " + std::to_string(in.body().size()) +
                                   " bytes, which has no room for an identifier");
   reserve(id);
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
   PeerSlot const gone{std::move(inHand_.sa), std::move(inHand_.entity)};
   inHand_.sa = nullptr;
   inHand_.entity = nullptr;
}

/// A record for nothing that is mirrored here: a write of the peer's, an orphan's announcement, or one that comes too late.
void Demuxer::otherRecord(In& in) {
   MsgHeader const header = in.header();
   if (header.entity.side() == 0 && header.entity != orphanAnnouncement) {
      // A write to what this side owns. The refusal goes out before any acknowledgement of it.
      ++counters_.refusedWrites;
      out_->control(Refused{applied_ + 1, Reason::readOnly, {}});
      ++applied_;
      report(in.where() + ": write-update from readonly proxy refused");
      return;
   }
   ++applied_;
   if (header.entity == orphanAnnouncement) {
      if (header.attribute == static_cast<std::int32_t>(attr::orphan))
         readOrphan(in);
      else
         ++counters_.unknownAttributes;
      return;
   }
   if (header.entity.slot() > highestSlot)
      throw ProtocolException(in.where() + ": slot " + std::to_string(header.entity.slot()) + ", expected up to " +
                              std::to_string(highestSlot));
   if (peerSlot(header.entity) == nullptr) {
      ++counters_.staleRecords;
      return;
   }
   ++counters_.unknownTypes;
   if (header.kind != kind::childLog)
      return;
   try {
      reserveAnnounced(in);
   } catch (AttrLogRecordException const& e) {
      ++counters_.badValues;
      report(e.what());
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
      report(where(in, &sa, attributeOf(in.header().attribute)) + ": " + what);
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
      sa.owesAllIs(); // the owner is asked to tell the entity again
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
      if (id.isAssigned() && id.slot() < peer_.size() && !peer_[id.slot()].isUsed &&
          peer_[id.slot()].generation == id.generation()) {
         ++counters_.staleRecords; // a root that was unmounted here while its announcement was under way
         return;
      }
      checkAnnounced(id);
      if (PeerSlot* const slot = peerSlot(id)) {
         // A root, bound when it was mounted: its mirror must be of an announced type.
         if (Ptr<Sa> const sa = slot->sa; sa && mismatch_) {
            std::string_view const mirror(sa->entity()->fwkType()->name());
            if (std::find(chain.begin(), chain.end(), mirror) == chain.end())
               mismatch_(*sa);
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
      for (PeerSlot const& slot : waiting_) {
         if (!slot.sa->isOrphan() || slot.sa->entityId().isAssigned() || slot.sa->entity() == nullptr ||
             slot.entity->moxName() != name || slot.entity->fwkType() != type)
            continue;
         in.positionIs(parameters);
         if (operations.parametersMatch(*slot.entity, in, *this)) {
            Ptr<Entity> const entity = slot.entity;
            bind(id, *entity, true);
            return;
         }
      }
      in.positionIs(parameters);
      Ptr<Entity> const entity = operations.create(name, in, *this);
      bind(id, *entity, true);
   } catch (ProtocolException const&) {
      throw;
   } catch (std::exception const& e) {
      ++counters_.badValues;
      report(in.where() + ": orphan announcement: " + e.what());
      reserveFailed(id);
   }
}

Demuxer::Footprint Demuxer::footprint() const {
   Footprint f;
   for (OwnSlot const& slot : own_)
      if (slot.sa) {
         ++f.announced;
         f.parked += slot.sa->parked().size();
         if (auto const& flow = slot.sa->flow()) {
            ++f.flows;
            f.dirtyKeys += flow->dirtyKeys();
         }
      }
   for (PeerSlot const& slot : peer_)
      f.mirrored += slot.isUsed;
   f.waiting = waiting_.size();
   f.retirements = retirements_.size();
   f.bufferBytes = out_->pendingBytes();
   f.slots = own_.size() + peer_.size();
   return f;
}

} // namespace NboAttrLog

NboAttrLog::Demuxer* demuxFor(Ptr<NboAttrLog::In const> const& in) {
   return in ? in->demuxer() : nullptr;
}

} // namespace Mox
