// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/StateAdapter.h"

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Text.h"
#include "kestrel/mox/MoxType.h"

#include <algorithm>

namespace Mox {

namespace NboAttrLog {

void FlowOut::moxFlowOutBookmarkEnq(Mark mark) {
   if (bookmark_.attribute != attr::none)
      throwInternalException("!rsc->bookmark()");
   bookmark_ = std::move(mark);
}

TypeOperations const* logOperationsOf(Entity const& entity) {
   return entity.moxHasAttrLogInterface() ? entity.fwkType()->operations().log : nullptr;
}

} // namespace NboAttrLog

Ptr<NboAttrLog::Out> StreamAdapter::nboAttrLogOut() const {
   return demuxer_ == nullptr ? Ptr<NboAttrLog::Out>() : demuxer_->out();
}

using Sa = Entity::MoxNboAttrLogSa;

Sa::MoxNboAttrLogSa(Mox_BitSet flags, Ptr<Entity> const& entity, NboAttrLog::Demuxer* demuxer)
   : StreamAdapter(flags, demuxer), entity_(entity.get()), kept_(hasFlag(weak) ? nullptr : entity) {}

Sa::~MoxNboAttrLogSa() {
   detach();
}

void Sa::attachReactor() {
   adapter_->isWeakReferenceIs(hasFlag(weak));
   adapter_->notifierIs(Ptr<PtrInterface const>(entity_));
   adapter_->isRegisteredNotifieeIs(true);
   relaysSettle(*entity_);
}

namespace {

/// Calls `visit` for the adapters of `entity`, in the order in which they are told, until it returns true.
template <class Visit> void findAdapter(Entity const& entity, Visit&& visit) {
   for (auto* r = entity.moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (Sa* const sa = Sa::ofReactor(*r); sa != nullptr && visit(*sa))
         return;
}

} // namespace

Sa* Sa::mirrorAdapterOf(Entity const& entity) noexcept {
   Sa* mirror = nullptr;
   findAdapter(entity, [&](Sa& sa) {
      mirror = sa.isMirror() ? &sa : nullptr;
      return mirror != nullptr;
   });
   return mirror;
}

bool Sa::isOwners(Entity const& member) const noexcept {
   Sa const* const sa = demuxer_ == nullptr ? nullptr : demuxer_->adapterOf(member);
   return sa != nullptr && sa->isMirror();
}

Sa const* Sa::upstream() const noexcept {
   Sa const* const mirror = mirrorAdapterOf(*entity_);
   bool const refuses =
      mirror != nullptr && !mirror->hasFlag(inert | suppressed) && !mirror->isPaused_ && mirror->demuxer_ != nullptr;
   return refuses ? mirror : nullptr;
}

bool Sa::isRefusedBehind(AttributeId id) const noexcept {
   Sa const* const mirror = upstream();
   if (mirror == nullptr || mirror->handlingFlowInFor(id))
      return false;
   bool isBehind = false;
   findAdapter(*entity_, [&](Sa& sa) {
      isBehind = isBehind || &sa == this;
      return &sa == mirror;
   });
   return isBehind;
}

void Sa::park(NboAttrLog::Mark const& mark) {
   neededNotes();
   demuxer_->parkedIs(*this);
   notes_->parked.insert(mark);
}

bool Sa::isWithheld(NboAttrLog::Mark const& mark) {
   Sa const* const mirror = upstream();
   if (mirror == nullptr || !mirror->isUntold(mark))
      return false;
   park(mark);
   return true;
}

void Sa::withholdAll(AttributeId id) {
   Sa const* const mirror = upstream();
   if (mirror == nullptr || !mirror->hasUntold())
      return;
   for (auto const& [mark, untold] : mirror->notes()->untold)
      if (mark.attribute == id)
         park(mark);
}

bool Sa::isStranger(AttributeId id, Entity const& member) const noexcept {
   Sa const* const mirror = upstream();
   // While it is being made for its owner, its own adapter comes last.
   // Before its owner has said anything at all, what is there is nobody else's either.
   return mirror != nullptr && mirror->wasBound_ && !mirror->handlingFlowInFor(id) && !mirror->isOwners(member);
}

void Sa::relaysSettle(Entity const& entity) noexcept {
   bool const isMirrored = mirrorAdapterOf(entity) != nullptr;
   findAdapter(entity, [&](Sa& sa) {
      if (!sa.isMirror() && sa.hasFlag(relays) != isMirrored) {
         sa.flagIs(relays, isMirrored);
         // What was withheld for the mirror's sake may go on where it is none any more. Not where it becomes one: an adapter that is
         // made for an attempt, and goes with it, would wake that attempt again for ever.
         if (!isMirrored && sa.demuxer_ != nullptr) {
            sa.demuxer_->lookAgainAtParked();
            if (std::exchange(sa.hasLeftOut_, false))
               sa.owesAllIs();
         }
      }
      return false;
   });
}

void Sa::relaysWake() const noexcept {
   findAdapter(*entity_, [](Sa& sa) {
      if (sa.hasFlag(relays) && sa.demuxer_ != nullptr)
         sa.demuxer_->lookAgainAtParked();
      return false;
   });
}

void Sa::detach() noexcept {
   Ptr<Sa> const self(references() > 0 ? this : nullptr); // the stream may hold the last reference
   if (auto const reactor = std::move(adapter_)) {
      adapter_ = nullptr;
      link_->moxReactorAdapterIs(nullptr);
      link_ = nullptr;
      reactor->isRegisteredNotifieeIs(false);
      reactor->notifierIs(nullptr);
      if (isMirror())
         relaysSettle(*entity_);
   }
   if (demuxer_ != nullptr) {
      demuxer_->detached(*this);
      demuxer_ = nullptr;
      entityId_ = {};
   }
   notes_ = nullptr;
   entity_ = nullptr;
   if (!isDetached())
      enterUnasked(NboAttrLog::Phase::detached);
   // Last: it may be the entity's end.
   Ptr<Entity> const kept = std::exchange(kept_, nullptr);
}

void Sa::identify(EntityId id) {
   life_.enter(NboAttrLog::Phase::identified, isMirror());
   entityId_ = id;
   if (hasFlag(serializing))
      commitAnnouncement();
}

void Sa::commitAnnouncement() {
   life_.enter(NboAttrLog::Phase::announced, isMirror());
   flagIs(serializing, true);
}

void Sa::wait() noexcept {
   enterUnasked(NboAttrLog::Phase::waiting);
   entityId_ = {};
   flowsInDelAll();
   isSyncing_ = isAwaited_ = isReferred_ = false;
   untoldCut();
}

void Sa::bindTo(EntityId id) noexcept {
   enterUnasked(NboAttrLog::Phase::bound);
   entityId_ = id;
   wasBound_ = true;
}

void Sa::takeOut() noexcept {
   enterUnasked(NboAttrLog::Phase::taken);
   entityId_ = {};
   flowsInDelAll();
}

void Sa::release() noexcept {
   enterUnasked(NboAttrLog::Phase::released);
   flagIs(letGo, true);
}

void Sa::enterUnasked(NboAttrLog::Phase phase) noexcept {
   NboAttrLog::Phase const before = this->phase();
   if (life_.enterUnasked(phase, isMirror()) || demuxer_ == nullptr)
      return;
   demuxer_->failInternally([&] {
      return Entity::fullNameOf(entity_).str() + ": its adapter is " + textOf(before) + " and can't become " +
             textOf(phase);
   });
}

void Sa::hasNotificationActiveIs(bool active) {
   // The reactor keeps its place: by it the stream finds the adapter, and the adapter learns that its entity goes.
   if (!adapter_ || isPaused_ != active)
      return;
   isPaused_ = !active;
   // What changed meanwhile reached nobody: the whole entity is owed.
   if (active)
      owesAllIs();
}

void Sa::notifierIs(Ptr<PtrInterface const> const& notifier) {
   if (adapter_)
      adapter_->notifierIs(notifier);
}

Ptr<Entity const> Sa::moxNotifierEntity() const {
   return Ptr<Entity const>(entity_);
}

Ptr<Entity> Sa::moxNotifierEntity() {
   return Ptr<Entity>(entity_);
}

AttributeId Sa::handleAttrFlowOut(AttributeId) {
   return attr::none;
}

void Sa::freeResyncState(Ptr<NboAttrLog::FlowOut> const& flow) {
   if (flow && flow->attrId() != attr::none && flow->holdsBookmark(flow->attrId()))
      flow->bookmarkDel();
}

void Sa::moxInstantiateSerialize() {}

int Sa::handleAttrDeserialization(std::int32_t aid, NboAttrLog::DeserializationOptions, unsigned,
                                  Ptr<NboAttrLog::In> const& in) {
   if (aid != static_cast<std::int32_t>(attr::syncMode) || (demuxer_ == nullptr && !in))
      return 0;
   NboAttrLog::In& input = in ? *in : *demuxer_->in();
   std::uint32_t const mode = input.nextU32();
   if (mode > static_cast<std::uint32_t>(SyncMode::resend))
      throwRangeException("sync mode " + std::to_string(mode) + ": expected 0 to 2");
   // To every stream on which the identifier stands for the entity.
   for (auto* r = entity_->moxReactors().first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (Sa* const sa = ofReactor(*r); sa != nullptr && sa->entityId() == entityId_)
         sa->syncModeIs(static_cast<SyncMode>(mode));
   return 1;
}

int Sa::handleAttrTransaction(AttributeId, AttrTransactionType, unsigned) {
   return 0;
}

void Sa::doNotification(AttributeId, void*) {}

void Sa::syncModeIs(SyncMode mode) {
   syncMode_ = mode;
   if (isMirror() && demuxer_ != nullptr)
      demuxer_->syncing(*this, mode == SyncMode::resend);
}

void Sa::moxDoZombieReactors(bool zombie) {
   if (zombie == moxMarkedForDeletion())
      return;
   if (adapter_)
      adapter_->moxMarkedForDeletionIs(zombie);
   moxMarkedForDeletionIs(zombie);
}

void Sa::doRemountSelf(Ptr<NboAttrLog::Out> const&) {
   owesAllIs();
}

void Sa::markAgain(NboAttrLog::Mark const& mark) {
   if (mark.attribute == attr::none)
      owesAllIs();
}

void Sa::refreshAsked(NboAttrLog::Mark const& mark) {
   markAgain(mark);
}

void Sa::unmark(NboAttrLog::Mark const&) {}
void Sa::markReferencesTo(std::unordered_set<Entity const*> const&) {}
bool Sa::hasMembers(AttributeId) const {
   return false;
}

void Sa::announceMember(AttributeId, Entity&) {}
void Sa::marksDel(AttributeId) {}
void Sa::tellUntold(NboAttrLog::Mark const&) {}
void Sa::writeKey(NboAttrLog::Mark const&, std::vector<std::uint8_t>&) const {}

NboAttrLog::Mark Sa::readKey(AttributeId id, NboAttrLog::In&) const {
   return NboAttrLog::Mark(id);
}

void Sa::flowInIs(AttributeId id) {
   if (std::find(flowsIn_.begin(), flowsIn_.end(), id) == flowsIn_.end())
      flowsIn_.push_back(id);
}

bool Sa::flowInTaken(AttributeId id) noexcept {
   return std::erase(flowsIn_, id) != 0;
}

void Sa::flowsInDelAll() noexcept {
   for (AttributeId const id : std::exchange(flowsIn_, {}))
      if (entity_ != nullptr)
         marksDel(id);
}

void Sa::memberLeft(NboAttrLog::Mark const&) {}

void Sa::onParent() noexcept {
   if (demuxer_ == nullptr || isMirror() || isOrphan() || !isAnnounced() || entity_->moxRawParent() != nullptr)
      return;
   Ptr<Sa> const parent = demuxer_->announcedUnder(memberOf_);
   if (!parent)
      return;
   try {
      parent->memberLeft(NboAttrLog::Mark(entity_->parentAttrId(), entity_->moxName()));
   } catch (std::exception const&) {
      parent->owesAllIs();
   }
}

void Sa::onZeroReferences() {
   detach();
}

void Sa::onNotificationException(AttributeId) {
   try {
      throw;
   } catch (ReadOnlyException const&) {
      throw;
   } catch (...) {
      owesAllIs();
   }
}

void Sa::owesAllIs() noexcept {
   owesAll_ = true;
   if (demuxer_ != nullptr)
      demuxer_->owesAllNoticed(*this);
}

bool Sa::prepareImmediateTransmission(AttributeId, bool isTight) {
   if (hasFlag(draining))
      return true;
   if (hasFlag(alwaysDefer) && hasFlag(flowOutMode))
      return false;
   return !isTight && !demuxer_->hasBacklog() && demuxer_->isOpen();
}

void Sa::doThrowReadOnly(AttributeId id) const {
   throw ReadOnlyException(std::string(std::string_view(entity_->fullName())) + "." +
                           std::string(std::string_view(entity_->attributeString(id))) + " is read-only here: " +
                           (demuxer_->peerName().empty() ? "its owner is another process"
                                                         : "its owner is \"" + demuxer_->peerName() + "\""));
}

void Sa::throwPeerMayNotWrite() const {
   if (hasFlag(applying))
      throwInternalException("entity reactor is already active");
   throwInternalException("write-update from readonly proxy: " + std::string(std::string_view(entity_->fullName())) +
                          " peerName: " + (demuxer_->peerName().empty() ? demuxer_->name() : demuxer_->peerName()));
}

void Sa::tooLong(AttributeId id, std::exception const& e) const {
   ++demuxer_->counters().tooLong;
   demuxer_->report(std::string(std::string_view(entity_->fullName())) + "." +
                    std::string(std::string_view(entity_->attributeString(id))) + " is not told: " + e.what());
}

void Sa::sendTransactionMarker(AttributeId id, AttrTransactionType type, unsigned count) {
   if (demuxer_ == nullptr)
      return;
   demuxer_->beforeRecord();
   demuxer_->out()->transactionMarker(entityId_, id, type, count);
}

void Sa::sendSyncMode(SyncMode mode) {
   demuxer_->beforeRecord();
   NboAttrLog::MsgHeader header;
   header.entity = entityId_;
   header.attribute = static_cast<std::int32_t>(attr::syncMode);
   header.fixedSize = 4;
   NboAttrLog::Out& out = *demuxer_->out();
   NboAttrLog::Record record(out, header);
   out.put(static_cast<unsigned int>(mode));
   record.close();
}

void Sa::parkedIs(NboAttrLog::FlowOut& flow, NboAttrLog::Mark mark) {
   using NboAttrLog::FlowOut;
   flow.moxDataBitsIs(static_cast<std::uint8_t>(flow.moxDataBits() & ~FlowOut::suspended));
   park(mark); // first: without memory for it, it stays marked
   unmark(mark);
}

bool Sa::isParked(AttributeId id) const noexcept {
   return notes_ && std::any_of(notes_->parked.begin(), notes_->parked.end(),
                                [id](NboAttrLog::Mark const& m) { return m.attribute == id; });
}

void Sa::parkedDelAll(AttributeId id) noexcept {
   if (!notes_)
      return;
   if (id == attr::none)
      notes_->parked.clear();
   else
      std::erase_if(notes_->parked, [id](NboAttrLog::Mark const& m) { return m.attribute == id; });
}

void Sa::askOwner(NboAttrLog::Mark mark, bool isTold) noexcept {
   try {
      NboAttrLog::Notes& notes = neededNotes();
      bool const isBound = entityId_.isAssigned();
      auto const [at, isNew] = notes.untold.try_emplace(mark, NboAttrLog::Untold{isTold, !isBound});
      bool isOpen = isNew;
      if (!isNew) {
         at->second.isTold = at->second.isTold && isTold;
         isOpen = at->second.isOld && isBound; // written again while the resend goes on, which may be past it
         if (isOpen)
            at->second.isOld = false;
      }
      if (isOpen && isBound) {
         demuxer_->untoldNoticed(
            *this); // first: what is in no list would stay unasked, although the whole entity is asked for
         notes.unasked.insert(std::move(mark));
      }
   } catch (std::bad_alloc const&) {
      owesAllIs();
   }
}

void Sa::askOwnerAgain(NboAttrLog::Mark const& mark) noexcept {
   try {
      notes_->untold.find(mark)->second.isOld = false;
      demuxer_->untoldNoticed(*this); // first, as above
      notes_->unasked.insert(mark);
   } catch (std::bad_alloc const&) {
      owesAllIs();
   }
}

void Sa::Answer::markIs(NboAttrLog::Mark const& mark) noexcept {
   auto const at = sa_.notes_->untold.find(mark);
   if (at == sa_.notes_->untold.end())
      return;
   note_ = sa_.notes_->untold.extract(at);
   sa_.notes_->unasked.erase(mark);
   sa_.relaysWake();
}

void Sa::Answer::failed() noexcept {
   if (!note_ || !sa_.hasFlag(applying) || sa_.demuxer_ == nullptr)
      return;
   try {
      sa_.neededNotes().untold.insert(std::move(note_)); // what a reactor has written there meanwhile stands instead
   } catch (std::bad_alloc const&) {
      sa_.owesAllIs();
   }
}

void Sa::untoldCut() noexcept {
   if (!notes_)
      return;
   notes_->unasked.clear();
   for (auto& [mark, untold] : notes_->untold)
      untold.isOld = true;
   notesTrim();
}

void Sa::untoldTakenOver(MoxNboAttrLogSa& other) noexcept {
   if (!other.hasUntold())
      return;
   notes_->untold.swap(other.notes_->untold);
   untoldCut();
}

void Sa::doSerializeOrphan() {
   if (demuxer_ == nullptr)
      throwInternalException("an adapter that has been taken off has no stream to announce its entity on");
   NboAttrLog::Out& out = *demuxer_->out();
   demuxer_->beforeRecord();
   NboAttrLog::MsgHeader header;
   header.entity = orphanAnnouncement;
   header.attribute = static_cast<std::int32_t>(attr::orphan);
   header.variable = 1;
   NboAttrLog::Record record(out, header);
   out.currentPayloadSectionIs(1);
   for (Ptr<MoxType const> type = entity_->fwkType(); type && type->level() > Entity::moxLevel; type = type->base())
      out.put(TypeId{std::string_view(type->name())});
   out.currentPayloadSectionIs(3);
   out.put(std::string_view(entity_->moxName()));
   if (auto const write = NboAttrLog::logOperationsOf(*entity_)->writeParameters)
      write(*entity_, out, *demuxer_);
   out.currentPayloadSectionIs(4);
   out.put(entityId_);
   record.close();
}

// What an entity answers about its adapters: the same for every type.

Ptr<Entity::MoxNboAttrLogSa> Entity::moxNboAttrLogSa(Ptr<NboAttrLog::Out const> const& out) {
   for (auto* r = reactors_.first(); r != nullptr && r->moxIsAtHead(); r = r->moxNextInList())
      if (auto* const sa = MoxNboAttrLogSa::ofReactor(*r))
         if (out ? sa->nboAttrLogOut() == out : sa->entityId().isAssigned() && sa->streamDemuxer()->isOpen())
            return Ptr<MoxNboAttrLogSa>(sa);
   return nullptr;
}

Ptr<Entity::MoxNboAttrLogSa const> Entity::moxNboAttrLogSa(Ptr<NboAttrLog::Out const> const& out) const {
   return const_cast<Entity*>(this)->moxNboAttrLogSa(out);
}

Ptr<Entity::MoxNboAttrLogSa> Entity::moxNboAttrLogSaForMsgChannel(Ptr<MoxNboAttrLogSa> const&) const {
   return nullptr; // no stream of this framework carries message channels
}

Ptr<Entity::MoxNboAttrLogSa> Entity::moxNboAttrLogSaIs(Mox_BitSet flags, unsigned, Ptr<NboAttrLog::Out> const& out,
                                                       PtrInterface*) {
   ValidPtr<NboAttrLog::Out> const valid(out);
   auto const* const operations = NboAttrLog::logOperationsOf(*this);
   if (operations == nullptr)
      throwInternalException(std::string(std::string_view(fwkType()->name())) +
                             " has no attribute log: " + valid->name());
   NboAttrLog::Demuxer* const demuxer = demuxFor(Ptr<NboAttrLog::In const>(valid->reverseLog()));
   if (demuxer == nullptr)
      throwInternalException("an adapter needs a stream with a demultiplexer: " + valid->name());
   if (Ptr<MoxNboAttrLogSa> present = moxNboAttrLogSa(Ptr<NboAttrLog::Out const>(out))) {
      if (operations->isAdapter(*present)) {
         if (present->notificationFlags() != Mox_BitSet{flags.bits & Mox_BitSet::notificationBitMask})
            present->notificationFlagsIs(
               {(flags.bits & ~MoxNboAttrLogSa::lifeBits) | (present->stateFlags() & MoxNboAttrLogSa::lifeBits)});
         return present;
      }
      moxNboAttrLogSaDel(Ptr<NboAttrLog::Out const>(out));
   }
   auto sa = operations->adapter(*this, flags, *demuxer);
   demuxer->assign(*sa); // the stream holds its adapters
   sa->hasNotificationActiveIs(true);
   return sa;
}

Ptr<Entity::MoxNboAttrLogSa> Entity::moxNboAttrLogSaDel(Ptr<NboAttrLog::Out const> const& out) {
   if (!out || demuxFor(Ptr<NboAttrLog::In const>(out->reverseLog())) == nullptr)
      return nullptr;
   Ptr<MoxNboAttrLogSa> sa = moxNboAttrLogSa(out);
   if (sa)
      sa->detach();
   return sa;
}

} // namespace Mox
