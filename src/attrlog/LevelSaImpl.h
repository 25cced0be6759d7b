// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "attrlog/Demuxer.h"
#include "attrlog/LevelSa.h"
#include "attrlog/Wire.h"
#include "core/Exceptions.h"
#include "notify/Mutators.h"

#include <algorithm>
#include <exception>
#include <optional>

namespace Mox::NboAttrLog {

// LevelFlow -------------------------------------------------------------------------------------------------------------

template <class X> LevelFlow<X>::LevelFlow(AttributeId startAttribute) : Base(startAttribute) {
   X::MoxAttributes::forEach(
      [&](auto a) { dirtyBitIs(a, a.hasEntries ? startAttribute > a.id : startAttribute <= a.id); });
}

template <class X> bool LevelFlow<X>::hasDirtyAttributes() const {
   for (unsigned w = 0; w < words; ++w)
      if (pending(w) != 0)
         return true;
   return Base::hasDirtyAttributes();
}

template <class X> bool LevelFlow<X>::collectionsHaveSynced() const {
   for (unsigned w = 0; w < words; ++w)
      if (((bits_[w] ^ collections()[w]) & collections()[w]) != 0)
         return false;
   return Base::collectionsHaveSynced();
}

template <class X> bool LevelFlow<X>::hasWork() const {
   for (unsigned w = 0; w < words; ++w)
      if (workable(w) != 0)
         return true;
   return Base::hasWork();
}

template <class X> void LevelFlow<X>::openCollections(std::vector<AttributeId>& ids) const {
   X::MoxAttributes::forEach([&](auto a) {
      if constexpr (a.isKeyed)
         if (isWalked(a) || this->holdsBookmark(a.id))
            ids.push_back(a.id);
   });
   Base::openCollections(ids);
}

template <class X> template <class A> void LevelFlow<X>::restarted(A a) {
   dirtyKeysDelAll(a);
   hasSyncedIs(a, false);
   isWalkedIs(a, false);
   if (this->holdsBookmark(A::id))
      this->bookmarkDel();
   this->owner()->parkedDelAll(A::id);
}

template <class X> std::size_t LevelFlow<X>::dirtyKeys() const {
   std::size_t count = Base::dirtyKeys();
   X::MoxAttributes::forEach([&](auto a) {
      if constexpr (a.hasEntries)
         if (auto const* const k = keys(a))
            count += k->map.size();
   });
   return count;
}

template <class X> bool LevelFlow<X>::isMarked(Mark const& m) const {
   bool isOne = false;
   bool const known = visitAttribute<X>(m.attribute, [&](auto a) {
      using A = decltype(a);
      if constexpr (!A::hasEntries) {
         isOne = dirtyBit(a);
      } else if (auto const* const k = keys(a)) {
         auto const* const dirty = k->map.find(m.template as<typename A::Key>());
         isOne = dirty != nullptr && dirty->value();
      }
   });
   return known ? isOne : Base::isMarked(m);
}

template <class X> [[gnu::always_inline]] inline AttributeId LevelFlow<X>::nextPending(AttributeId id) const noexcept {
   unsigned w = (id - first) / 32;
   std::uint32_t left = w < words ? workable(w) & ~0u << (id - first) % 32 : 0;
   while (left == 0 && ++w < words)
      left = workable(w);
   return left != 0 ? first + w * 32 + static_cast<unsigned>(std::countr_zero(left)) : lastAttribute<X> + 1;
}

template <class X> template <class A> DirtyKey<A>& LevelFlow<X>::dirtyKeyIs(A, typename A::Key const& key, bool dirty) {
   auto& k = std::get<std::unique_ptr<DirtyKeys<A>>>(keys_);
   if (!k)
      k = std::make_unique<DirtyKeys<A>>();
   if (auto* const present = k->map.find(key)) {
      MapEntryAccess::valueIs(*present, dirty);
      return *present;
   }
   auto const entry = make<DirtyKey<A>>(key, dirty);
   k->map.insert(entry);
   bitIs(haveKeys_, A::bit, true);
   return *entry;
}

template <class X> template <class A> void LevelFlow<X>::dirtyKeyDel(A a, typename A::Key const& key) {
   if (auto* const k = keys(a)) {
      if (auto const deleted = k->map.deleteMember(key)) {
         k->gone -= deleted->isGone;
         k->woken -= deleted->isWoken;
      }
      bitIs(haveKeys_, A::bit, !k->map.empty());
   }
}

template <class X> template <class A> void LevelFlow<X>::dirtyKeysDelAll(A) {
   std::get<std::unique_ptr<DirtyKeys<A>>>(keys_).reset();
   bitIs(haveKeys_, A::bit, false);
}

// LevelSa: what goes out ------------------------------------------------------------------------------------------------

namespace detail {

/// Header of a record with the value of attribute `A`.
template <class A> MsgHeader headerOf(EntityId id, bool isRemoval = false) {
   MsgHeader header;
   header.entity = id;
   header.attribute = isRemoval ? -static_cast<std::int32_t>(A::id) : static_cast<std::int32_t>(A::id);
   if constexpr (!A::isKeyed && A::kind != Kind::reference)
      header.fixedSize = Wire<typename A::Value>::fixedSize;
   header.variable = header.fixedSize == 0 ? 1 : 0;
   if constexpr (A::ownsMembers)
      header.kind = isRemoval ? kind::value : kind::childLog;
   return header;
}

template <class Value> Value const& valueIn(Value const& cell) {
   return cell;
}
template <class Array, class Key> auto const& valueIn(Array const& cell, Key const& key) {
   return cell[key];
}

template <class Container> std::size_t buckets(Container const& cell) {
   if constexpr (requires { cell.buckets(); })
      return cell.buckets();
   else
      return 0;
}

template <class X> void writeParameters(Entity const& entity, Out& out, Demuxer& demuxer) {
   X::MoxParameters::forEach(
      [&](auto p) { out.put(demuxer.entityIdFor(p.cell(static_cast<X const&>(entity)).get())); });
}

template <class X> void announceParameters(Entity const& entity, Demuxer& demuxer) {
   X::MoxParameters::forEach([&](auto p) { demuxer.entityIdFor(p.cell(static_cast<X const&>(entity)).get()); });
}

/// The target that a reference in the record in hand names. \throws AttrLogEntityException when it is no `Target`
template <class Target> Ptr<Target> readReference(In& in, Demuxer& demuxer) {
   Ptr<Entity> const entity = demuxer.entityOf(in.nextEntityId());
   auto* const target = dynamic_cast<Target*>(entity.get());
   if (entity && target == nullptr)
      throw AttrLogEntityException("Entity is the wrong type: " + std::string(std::string_view(entity->fullName())));
   return Ptr<Target>(target);
}

template <class... Ps> auto readParameters(TypeList<Ps...>, In& in, Demuxer& demuxer) {
   // Braces: the parameters stand in the record in order.
   return std::tuple<typename Ps::Value...>{readReference<typename Ps::Target>(in, demuxer)...};
}

} // namespace detail

template <class X> void LevelSa<X>::suspendedIs(Flow& flow, Mark mark) {
   flow.suspendedAtIs(std::move(mark));
   flow.moxDataBitsIs(flow.moxDataBits() | FlowOut::suspended);
}

template <class X> typename LevelSa<X>::Flow& LevelSa<X>::neededFlow() {
   return static_cast<Flow&>(this->demuxer_->createFlowOut(*this));
}

template <class X> template <class A, class... Key> void LevelSa<X>::mark(A a, Key const&... key) {
   Flow& flow = neededFlow();
   flow.dirtyBitIs(a, true);
   if constexpr (A::isKeyed)
      if (flow.holdsBookmark(A::id) && (... || (key.number() < flow.bookmark().number)))
         flow.isOwedAgainIs(a);
   if (flow.cursor() > A::id)
      ++this->demuxer_->counters().belowCursor;
}

template <class X> template <class A> void LevelSa<X>::markKey(A a, typename A::Key const& key) {
   Flow& flow = neededFlow();
   auto& cell = A::cell(object());
   auto* const present = cell.find(key);
   auto* const before = flow.keys(a) == nullptr ? nullptr : flow.keys(a)->map.find(key);
   [[maybe_unused]] bool const isSuccessor = this->successorTaken(Mark(A::id, key));
   if (present == nullptr && before != nullptr && !before->isKnown) {
      flow.dirtyKeyDel(a, key);
      unparked(a, key);
      return;
   }
   DirtyKey<A>& dirty = flow.dirtyKeyIs(a, key, true);
   if (before == nullptr)
      if constexpr (A::ownsMembers) {
         // Present and never announced: the peer can't know the name. Absent: it was there before, so the peer can.
         auto* const child = present == nullptr ? nullptr : this->demuxer_->adapterOf(*present);
         // Present without having been announced, in the place of one that was: it can.
         dirty.isKnown = present == nullptr || (child != nullptr && child->isAnnounced()) || isSuccessor;
      }
   auto& keys = *flow.keys(a);
   if (bool const isGone = present == nullptr; isGone != dirty.isGone) {
      isGone ? ++keys.gone : --keys.gone;
      dirty.isGone = isGone;
   }
   // More keys to say "gone" of than there are: the whole collection says it shorter, and its sweep deletes the rest.
   if (keys.gone > std::max<std::size_t>(64, cell.size())) {
      flow.restarted(a);
      ++this->demuxer_->counters().collectionRestarts;
   }
   if (flow.cursor() > A::id)
      ++this->demuxer_->counters().belowCursor;
}

template <class X> template <class A, class... Key> void LevelSa<X>::changed(A a, Key const&... key) {
   if constexpr (!A::isKeyed)
      if (this->isPlainExporter() && this->demuxer_->takesNow()) [[likely]] {
         writeNow(a);
         return;
      }
   changedOtherwise(a, key...);
}

/// As `changed`, where something stands between the change and its record.
template <class X> template <class A, class... Key> void LevelSa<X>::changedOtherwise(A a, Key const&... key) {
   if (this->hasFlag(StreamAdapter::inert))
      return;
   if (this->handlingFlowInFor(A::id)) {
      struct End {
         LevelSa& self;
         ~End() { self.applyingConsumed(); } // also where there is no memory to bind it: it has been told
      } const end{*this};
      // The new member gets its adapter before any other reactor can write to it.
      if constexpr (A::ownsMembers)
         if (auto const* const anchor = this->demuxer_->anchor(); anchor != nullptr && anchor->isFor(*this, key...))
            if (auto* const member = A::cell(object()).find(key...))
               this->demuxer_->bindInRecord(anchor->id(), *member);
      return;
   }
   if (this->hasFlag(StreamAdapter::suppressed) || !this->hasFlag(StreamAdapter::serializing) || this->isPaused() ||
       this->demuxer_ == nullptr)
      return;
   if (this->hasFlag(StreamAdapter::readOnlyCopy) && !this->convertedToWritable(false)) {
      if constexpr (A::hasEntries)
         if (auto* const entry = A::cell(object()).find(key...))
            entry->moxMarkedForDeletionIs(false);
      this->askOwner(Mark(A::id, key...));
      this->doThrowReadOnly(A::id);
   }
   bool const isRelay = this->hasFlag(StreamAdapter::relays);
   if (isRelay && !this->hasFlag(StreamAdapter::draining) && this->isRefusedBehind(A::id))
      return;
   if constexpr (A::hasEntries) {
      serialize(a, key...);
   } else if (this->prepareImmediateTransmission(A::id, !this->demuxer_->out()->hasSufficientBuffer())) {
      // One element pays nothing of what an array owes: it is sent whole.
      if constexpr (!A::isKeyed)
         if (Flow* const flow = flowOut())
            flow->dirtyBitIs(a, false);
      if (!isRelay || !this->isWithheld(Mark(A::id, key...)))
         writeNow(a, key...);
   } else {
      mark(a, key...);
   }
}

/// \return false where the entry waits for an identifier
template <class X> template <class A> bool LevelSa<X>::serialize(A a, typename A::Key const& key) {
   if (!this->prepareImmediateTransmission(A::id, !this->demuxer_->out()->hasSufficientBuffer())) {
      markKey(a, key);
      return true;
   }
   if (Flow* const flow = flowOut())
      flow->dirtyKeyDel(a, key);
   this->successorTaken(Mark(A::id, key));
   return writeKeyNow(a, key);
}

template <class X> template <class A, class... Key> void LevelSa<X>::writeNow(A a, Key const&... key) {
   Demuxer& demuxer = *this->demuxer_;
   auto const& value = detail::valueIn(A::cell(object()), key...);
   EntityId target;
   if constexpr (A::kind == Kind::reference) {
      Expect const scope(NoEntityIdException::kind);
      try {
         target = demuxer.entityIdFor(value.get());
      } catch (NoEntityIdException const&) {
         mark(a);
         suspendedIs(*flowOut(), Mark(A::id));
         return;
      } catch (NoIdentifierLeft const&) {
         if (this->hasFlag(StreamAdapter::draining))
            throw;
         demuxer.limitReached(*this);
         return;
      } catch (RecordTooLong const& e) {
         this->tooLong(A::id, e);
         return;
      }
      this->parkedDel(Mark(A::id));
   }
   demuxer.beforeRecord();
   Out& out = *demuxer.out();
   try {
      if constexpr (A::kind == Kind::reference) {
         Record record(out, detail::headerOf<A>(this->entityId_));
         (Wire<Key>::write(out, key), ...);
         out.put(target);
         record.close();
      } else if constexpr (sizeof...(Key) == 0 && OneNumber<typename A::Value>) {
         using W = Wire<typename A::Value>;
         out.numberRecord(this->entityId_, A::id, W::fixedSize, W::number(value));
      } else {
         Record record(out, detail::headerOf<A>(this->entityId_));
         (Wire<Key>::write(out, key), ...);
         Wire<typename A::Value>::write(out, value);
         record.close();
      }
   } catch (RecordTooLong const& e) {
      this->tooLong(A::id, e);
   } catch (EnumException const& e) {
      demuxer.unsent(*this, A::id, e);
   }
}

template <class X> template <class A> bool LevelSa<X>::writeKeyNow(A a, typename A::Key const& key) {
   auto* entry = A::cell(object()).find(key);
   if (this->hasFlag(StreamAdapter::relays)) [[unlikely]] {
      if (this->isWithheld(Mark(A::id, key)))
         return true;
      if constexpr (A::ownsMembers)
         if (entry != nullptr && this->isStranger(A::id, *entry)) {
            entry = nullptr;
            this->hasLeftOut_ = true;
         }
   }
   try {
      if (entry == nullptr)
         writeRemoval(a, key);
      else
         writeEntry(a, key, *entry);
   } catch (NoEntityIdException const&) {
      Flow& flow = neededFlow();
      flow.dirtyKeyIs(a, key, true);
      suspendedIs(flow, Mark(A::id, key));
      return false;
   } catch (NoIdentifierLeft const&) {
      if (this->hasFlag(StreamAdapter::draining))
         throw;
      this->demuxer_->limitReached(*this);
   } catch (RecordTooLong const& e) {
      this->tooLong(A::id, e);
   } catch (EnumException const& e) {
      this->demuxer_->unsent(*this, A::id, e);
   }
   unparked(a, key);
   return true;
}

/// The key waits for nothing any more, nor does the end of its collection wait for the key.
template <class X> template <class A> void LevelSa<X>::unparked(A a, typename A::Key const& key) {
   if (this->parkedCount() == 0 || !this->parkedDel(Mark(A::id, key))) [[likely]]
      return;
   if (Flow* const flow = flowOut()) {
      flow->isStillIs(a, false);
      this->demuxer_->createFlowOut(*this);
   }
}

template <class X>
template <class A>
void LevelSa<X>::writeEntry(A a, typename A::Key const& key, typename A::Entry& entry) {
   if constexpr (A::ownsMembers) {
      Expect const scope(NoEntityIdException::kind);
      if (!childAdapterIs(a, {this->stateFlags() & ~StreamAdapter::notInherited}, Ptr<typename A::Entry>(&entry)))
         throw NoEntityIdException(std::string(std::string_view(entry.fullName())) + " could not be announced");
   } else if constexpr (A::kind == Kind::hashReferences) {
      Expect const scope(NoEntityIdException::kind);
      EntityId const target = this->demuxer_->entityIdFor(entry.value().get());
      if (!target.isAssigned()) {
         writeRemoval(a, key); // a type without a log: where it would be null, there is no entry
         return;
      }
      this->demuxer_->beforeRecord();
      Out& out = *this->demuxer_->out();
      Record record(out, detail::headerOf<A>(this->entityId_));
      out.put(target);
      record.close();
   } else {
      this->demuxer_->beforeRecord();
      Out& out = *this->demuxer_->out();
      Record record(out, detail::headerOf<A>(this->entityId_));
      Wire<typename A::Key>::write(out, key);
      Wire<typename A::Value>::write(out, entry.value());
      record.close();
   }
}

template <class X> template <class A> void LevelSa<X>::writeRemoval(A, typename A::Key const& key) {
   this->demuxer_->beforeRecord();
   Out& out = *this->demuxer_->out();
   Record record(out, detail::headerOf<A>(this->entityId_, true));
   Wire<typename A::Key>::write(out, key);
   record.close();
}

template <class X>
template <class A>
Ptr<Entity::MoxNboAttrLogSa> LevelSa<X>::childAdapterIs(A, Mox_BitSet flags, Ptr<typename A::Entry> const& child) {
   Demuxer& demuxer = *this->demuxer_;
   if (Demuxer::depthOf(*child) > frame::maximumDepth)
      throw RecordTooLong("\"" + std::string(std::string_view(child->moxName())) + "\" lies below more than " +
                          std::to_string(frame::maximumDepth) + " others");
   Ptr<Entity::MoxNboAttrLogSa> sa(demuxer.adapterOf(*child));
   if (sa && sa->isOrphan()) {
      // It was announced before it had a parent here. The peer can't move that object into a collection: a new one takes its
      // place, and references to it are told again.
      sa = nullptr;
      demuxer.reidentify(*child);
   }
   bool const isNew = !sa;
   bool const isFirst = isNew || sa->isMadeInAdvance();
   if (isNew) {
      sa = LevelSa<typename A::Entry>::typeOperations()->adapter(
         *child, {StreamAdapter::readOnlyProxy | StreamAdapter::weak}, demuxer);
      sa->moxOnInit();
   } else {
      sa->notificationFlagsIs({flags.bits | StreamAdapter::weak});
      if (sa->hasFlag(StreamAdapter::noReannounce))
         return sa;
   }
   // An adapter whose announcement has not been committed is none.
   struct Discard {
      Entity::MoxNboAttrLogSa* sa;
      ~Discard() {
         if (sa != nullptr)
            sa->detach();
      }
   } discard{isNew ? sa.get() : nullptr};

   constexpr std::size_t mostRestarts = 1 + A::Entry::MoxParameters::size;
   for (std::size_t restarts = 0;; ++restarts) {
      try {
         if (!sa->entityId().isAssigned())
            demuxer.assign(*sa);
         demuxer.beforeRecord();
         Out& out = *demuxer.out();
         Record record(out, detail::headerOf<A>(this->entityId_));
         out.put(std::string_view(child->moxName()));
         detail::writeParameters<typename A::Entry>(*child, out, demuxer);
         out.put(sa->entityId());
         record.close();
         break;
      } catch (RecordTooLong const&) {
         throw;
      } catch (AttrLogRecordException const&) {
         // A parameter's target must be announced first, and no record can be written inside another.
         if (restarts == mostRestarts) {
            ++demuxer.counters().unfinishedAnnouncements;
            demuxer.report("announcement of " + std::string(std::string_view(child->fullName())) + " given up after " +
                           std::to_string(restarts) + " restarts");
            return nullptr;
         }
         ++demuxer.counters().restartedAnnouncements;
         demuxer.announceWanted();
      }
   }
   discard.sa = nullptr;
   sa->memberOfIs(this->entityId_);
   demuxer.announced(*sa, isFirst);
   return sa;
}

template <class X> Ptr<Entity::MoxNboAttrLogSa> LevelSa<X>::childAdapterDel(Ptr<Entity> const& child) {
   if (!child)
      return nullptr;
   Ptr<Entity::MoxNboAttrLogSa> sa(this->demuxer_->adapterOf(*child));
   if (sa)
      sa->doRemountSelf(this->nboAttrLogOut());
   return sa;
}

template <class X> bool LevelSa<X>::hasMembers(AttributeId id) const {
   bool has = false;
   return visitAttribute<X>(id, [&](auto a) { has = a.ownsMembers; }) ? has : Base::hasMembers(id);
}

template <class X> void LevelSa<X>::announceMember(AttributeId id, Entity& member) {
   bool const known = visitAttribute<X>(id, [&](auto a) {
      using A = decltype(a);
      if constexpr (A::ownsMembers) {
         auto& entry = static_cast<typename A::Entry&>(member);
         childAdapterIs(a, {this->stateFlags() & ~StreamAdapter::notInherited}, Ptr<typename A::Entry>(&entry));
         if (Flow* const flow = flowOut())
            flow->dirtyKeyDel(a, entry.moxName());
      }
   });
   if (!known)
      Base::announceMember(id, member);
}

// LevelSa: the drain ----------------------------------------------------------------------------------------------------

/// One attribute's turn in a drain. Most of a backlog are values that nothing stands in the way of: what their handler would do
/// is done here, without the way there.
template <class X> struct LevelSa<X>::Turn {
   LevelSa* self;
   Flow* flow;
   bool isPlain; ///< no handler needs to be asked; false behind one that was, or a collection
   bool isComplete = true;
   bool isCollection = false;

   Turn(LevelSa& s, Flow& f, bool plain) : self(&s), flow(&f), isPlain(plain) {}

   template <class A> void operator()(A a) {
      if constexpr (A::isKeyed) {
         isPlain = false;
         isCollection = true;
         if constexpr (A::hasEntries)
            isComplete = self->serializeCollection(a, *flow);
         else
            isComplete = self->serializeArray(a, *flow);
      } else if (A::kind != Kind::reference && isPlain) {
         flow->dirtyBitIs(a, false);
         self->writeNow(a);
      } else {
         isPlain = false;
         self->fire(a);
      }
   }
};

template <class X> AttributeId LevelSa<X>::handleAttrFlowOut(AttributeId start) {
   struct Draining {
      explicit Draining(StreamAdapter& a) : sa(a), before(a.hasFlag(StreamAdapter::draining)) {
         sa.flagIs(StreamAdapter::draining, true);
      }
      ~Draining() { sa.flagIs(StreamAdapter::draining, before); }
      StreamAdapter& sa;
      bool before;
   } const scope(*this);

   Ptr<Flow> const flow(flowOut());
   if (!flow)
      return attr::none;
   flow->moxDataBitsIs(static_cast<std::uint8_t>(flow->moxDataBits() & ~FlowOut::suspended));
   if (start < firstAttribute<X>) {
      if (AttributeId const next = Base::handleAttrFlowOut(start))
         return next;
      if (this->flow_ != flow)
         return attr::none;
      if (!this->demuxer_->continueFlowOut())
         return firstAttribute<X>;
      start = firstAttribute<X>;
   }
   Turn turn{*this, *flow, this->isPlainDrainer()};
   for (AttributeId id = flow->nextPending(start); id <= lastAttribute<X>; id = flow->nextPending(id + 1)) {
      flow->attrIdIs(id);
      visitAttribute<X>(id, turn);
      if (turn.isPlain) [[likely]] {
         if (this->demuxer_->continueFlowOut())
            continue;
         return id + 1;
      }
      if (this->flow_ != flow)
         return attr::none;
      if ((flow->moxDataBits() & FlowOut::suspended) != 0 || !turn.isComplete)
         return id;
      if (!this->demuxer_->continueFlowOut())
         return !turn.isCollection || flow->hasDirtyAttributes() ? id + 1 : attr::none;
      turn = {*this, *flow, this->isPlainDrainer()};
   }
   return attr::none;
}

template <class X> template <class A> bool LevelSa<X>::serializeCollection(A a, Flow& flow) {
   if ((flow.moxDataBits() & FlowOut::noCollectionResend) == 0 && !flow.hasSynced(a) && !flow.isWalked(a)) {
      if (!resendCollection(a, flow))
         return false;
      endCollection(a, flow);
   }
   if (!sendDirtyKeys(a, flow))
      return false;
   if (flow.isWalked(a) && this->flow_.get() == &flow)
      endCollection(a, flow);
   return true;
}

/// The end marker of a collection that has been walked, unless a member is parked, or was and is not told yet: the sweep would delete
/// it.
template <class X> template <class A> void LevelSa<X>::endCollection(A a, Flow& flow) {
   if (this->hasFlag(StreamAdapter::relays))
      this->withholdAll(A::id);
   if (this->isParked(A::id)) {
      flow.isStillIs(a, true);
      return;
   }
   if (auto const* const keys = flow.keys(a); keys != nullptr && keys->woken != 0)
      return;
   this->sendTransactionMarker(A::id, AttrTransactionType::end, 0);
   flow.isWalkedIs(a, false);
   flow.hasSyncedIs(a, true);
}

template <class X> template <class A> bool LevelSa<X>::serializeArray(A a, Flow& flow) {
   using Key = typename A::Key;
   std::int64_t index = 0;
   if (flow.holdsBookmark(A::id)) {
      index = flow.bookmark().number;
      flow.bookmarkDel();
   } else {
      this->sendTransactionMarker(A::id, AttrTransactionType::begin, 0);
   }
   for (;; ++index) {
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), Key(index));
      if (this->flow_.get() != &flow)
         return true;
      if (index == Key::maximum)
         break;
      if (!this->demuxer_->continueFlowOut()) {
         flow.moxFlowOutBookmarkEnq(Mark(A::id, Key(index + 1)));
         ++this->demuxer_->counters().pausedCollections;
         return false;
      }
   }
   this->sendTransactionMarker(A::id, AttrTransactionType::end, 0);
   flow.elementsSent(a);
   return true;
}

template <class X> template <class A> bool LevelSa<X>::resendCollection(A a, Flow& flow) {
   Demuxer& demuxer = *this->demuxer_;
   auto& cell = A::cell(object());
   typename A::Entry* entry;
   if (flow.holdsBookmark(A::id)) {
      if (flow.pausedBuckets != 0 && flow.pausedBuckets != detail::buckets(cell))
         ++demuxer.counters().grownWhilePaused;
      entry = cell.lowerBound(flow.bookmark().template as<typename A::Key>());
      flow.bookmarkDel();
   } else {
      this->sendTransactionMarker(A::id, AttrTransactionType::begin, 0);
      entry = cell.first();
   }
   while (entry != nullptr) {
      Ptr<typename A::Entry> const current(entry);
      typename A::Key const key = entry->fwkKey();
      if (writeKeyNow(a, key))
         flow.dirtyKeyDel(a, key);
      else
         this->parkedIs(flow, Mark(A::id, key)); // what it waits for may wait for a member behind it
      if (this->flow_.get() != &flow)
         return false; // the adapter has gone meanwhile
      entry = cell.next(*current);
      if (entry != nullptr && !demuxer.continueFlowOut()) {
         flow.moxFlowOutBookmarkEnq(Mark(A::id, entry->fwkKey()));
         ++demuxer.counters().pausedCollections;
         flow.pausedBuckets = detail::buckets(cell);
         return false;
      }
   }
   flow.isWalkedIs(a, true);
   return true;
}

template <class X> template <class A> bool LevelSa<X>::sendDirtyKeys(A a, Flow& flow) {
   if (!flow.hasSynced(a) && !flow.isWalked(a)) {
      flow.hasSyncedIs(a, true);
      this->sendTransactionMarker(A::id, AttrTransactionType::end, 0);
   }
   while (auto* const keys = flow.keys(a)) {
      // On from the last one that was written: whoever begins at the front each time looks through all that has been emptied.
      auto* dirty = keys->last ? keys->map.lowerBound(*keys->last) : keys->map.first();
      if (dirty == nullptr && keys->last)
         dirty = keys->map.first();
      if (dirty == nullptr)
         break;
      if (!this->demuxer_->continueFlowOut())
         return false;
      typename A::Key const key = dirty->fwkKey();
      keys->last = key;
      if (!writeKeyNow(a, key))
         return false;
      if (this->flow_.get() != &flow)
         return true;
      flow.dirtyKeyDel(a, key);
   }
   return true;
}

template <class X> void LevelSa<X>::markAgain(Mark const& m) {
   bool const known = visitAttribute<X>(m.attribute, [&](auto a) {
      using A = decltype(a);
      if constexpr (!A::isKeyed) {
         mark(a);
      } else if constexpr (!A::hasEntries) {
         m.hasKey ? mark(a, m.template as<typename A::Key>()) : mark(a, typename A::Key());
      } else if (m.hasKey) {
         auto const key = m.template as<typename A::Key>();
         markKey(a, key);
         // Whether the peer knew the name, nobody has noted; and it may wait for an answer, also when the name is gone before it
         // is told.
         if (auto* const keys = flowOut()->keys(a))
            if (auto* const dirty = keys->map.find(key)) {
               dirty->isKnown = true;
               keys->woken += !std::exchange(dirty->isWoken, true);
            }
      } else {
         neededFlow().restarted(a);
      }
   });
   if (!known)
      Base::markAgain(m);
}

template <class X> void LevelSa<X>::refreshAsked(Mark const& m) {
   this->markAgain(m);
   visitAttribute<X>(m.attribute, [&](auto a) {
      using A = decltype(a);
      if constexpr (A::ownsMembers) {
         if (!m.hasKey)
            return;
         if (auto* const member = A::cell(object()).find(m.name))
            this->demuxer_->reidentify(*member);
      }
   });
}

template <class X> Ptr<FlowOut> LevelSa<X>::flowOutIs(AttributeId startAttribute) {
   return make<typename X::MoxNboAttrLogSa::FlowOut>(startAttribute);
}

template <class X> void LevelSa<X>::unmark(Mark const& m) {
   Flow* const flow = flowOut();
   if (flow == nullptr)
      return;
   bool const known = visitAttribute<X>(m.attribute, [&](auto a) {
      using A = decltype(a);
      if constexpr (!A::hasEntries)
         flow->dirtyBitIs(a, false);
      else
         flow->dirtyKeyDel(a, m.template as<typename A::Key>());
   });
   if (!known)
      Base::unmark(m);
}

template <class X> void LevelSa<X>::markReferencesTo(std::unordered_set<Entity const*> const& targets) {
   auto const isTarget = [&](Entity const* e) { return targets.contains(e); };
   X::MoxAttributes::forEach([&](auto a) {
      using A = decltype(a);
      if constexpr (A::kind == Kind::reference) {
         if (auto const& target = A::cell(object()); target && isTarget(target.get()))
            mark(a);
      } else if constexpr (A::kind == Kind::hashReferences) {
         for (auto const [name, target] : std::as_const(A::cell(object())))
            if (isTarget(target.get()))
               markKey(a, name);
      } else if constexpr (A::ownsMembers) {
         if constexpr (A::Entry::MoxParameters::size != 0) {
            for (auto* m = A::cell(object()).first(); m != nullptr; m = A::cell(object()).next(*m)) {
               bool refers = false;
               A::Entry::MoxParameters::forEach([&](auto p) { refers |= isTarget(p.cell(*m).get()); });
               if (refers) {
                  markKey(a, m->moxName()); // first: while it has an identifier, the peer is seen to know the name
                  this->demuxer_->reidentify(*m);
               }
            }
         }
      }
   });
   Base::markReferencesTo(targets);
}

// LevelSa: what comes in ------------------------------------------------------------------------------------------------

template <class X> void LevelSa<X>::doNotification(AttributeId id, void* key) {
   bool const known = visitAttribute<X>(id, [&](auto a) {
      using A = decltype(a);
      auto& self = static_cast<typename X::MoxNboAttrLogSa&>(*this);
      if constexpr (A::isKeyed)
         A::fire(self, *static_cast<typename A::Key const*>(key));
      else
         A::fire(self);
   });
   if (!known)
      Base::doNotification(id, key);
}

/// One record on its way to the attribute that it names.
///
/// Whoever sends many attributes in turn makes the receiver run through the code of each: what stands here once per attribute is
/// only what the commonest record needs, a value for a mirror that owes its reactors no word. The rest stands apart.
template <class X> struct LevelSa<X>::Reading {
   static constexpr unsigned removal = 1;
   static constexpr unsigned local = 2;
   static constexpr unsigned owing = 4; ///< the reactors may be owed word of something written here
   static constexpr unsigned unknown = 8;

   LevelSa& self;
   In& in;
   unsigned how;

   template <class A> void operator()(A a) {
      if constexpr (!A::isKeyed && A::kind != Kind::reference)
         if (how == 0) [[likely]] {
            auto const value = Wire<typename A::Value>::read(in);
            self.applyingBegins(A::id);
            self.demuxer_->applicationStarts();
            A::put(self.object(), value);
            return;
         }
      if (A::hasEntries || (how & removal) == 0) // only entries can be removed
         self.read(a, (how & removal) != 0, in, (how & local) != 0);
      else
         how |= unknown;
   }
};

template <class X>
int LevelSa<X>::handleAttrDeserialization(std::int32_t aid, DeserializationOptions options, unsigned count,
                                          Ptr<In> const& in) {
   AttributeId const id = attributeOf(aid);
   if (id < firstAttribute<X> || id > lastAttribute<X>)
      return Base::handleAttrDeserialization(aid, options, count, in);
   unsigned const removal = aid < 0 ? Reading::removal : 0;
   if (in) [[unlikely]] {
      Reading reading{*this, *in, removal | Reading::local};
      return visitAttribute<X>(id, reading) && (reading.how & Reading::unknown) == 0 ? 1 : 0;
   }
   if (this->demuxer_ == nullptr) [[unlikely]]
      return 0;
   this->checkPeerMayWrite();
   struct End {
      LevelSa& self;
      ~End() { self.applyingConsumed(); }
   } const end{*this};
   Reading reading{*this, *this->demuxer_->in(), removal | (this->hasUntold() ? Reading::owing : 0)};
   return visitAttribute<X>(id, reading) && (reading.how & Reading::unknown) == 0 ? 1 : 0;
}

template <class X> template <class A, class Put, class... Key> void LevelSa<X>::apply(A a, Put put, Key const&... key) {
   applyAs(a, true, put, key...);
}

/// Runs `put` for the peer, and tells the reactors once where they were owed it and `put` found nothing to change.
/// \param isAnswer whether the record may answer what was written here
template <class X>
template <class A, class Put, class... Key>
void LevelSa<X>::applyAs(A, bool isAnswer, Put put, Key const&... key) {
   if (this->demuxer_ == nullptr)
      return; // a reactor has unmounted the mirror between two changes of one record: it stays as it is
   typename Entity::MoxNboAttrLogSa::Applying const scope(*this);
   typename Entity::MoxNboAttrLogSa::Answer answer(*this);
   if (isAnswer && this->hasUntold())
      answer.markIs(Mark(A::id, key...));
   this->applyingBegins(A::id);
   this->demuxer_->applicationStarts();
   try {
      put();
   } catch (std::bad_alloc const&) {
      answer.failed();
      throw;
   }
   if (!isAnswer && !scope.wasSilent())
      this->untoldToldIs(Mark(
         A::id, key...)); // the reactors know by now what is here, and the answer tells them no more than a difference
   if (!answer.isOwed() || !scope.wasSilent())
      return;
   if constexpr (A::isKeyed)
      keyNotify<A>(object(), key...);
   else
      announce<A>(object());
}

template <class X> template <class A> void LevelSa<X>::read(A a, bool isRemoval, In& in, bool isLocal) {
   if constexpr (!A::isKeyed)
      readValue(a, in, isLocal);
   else if constexpr (A::ownsMembers)
      isRemoval ? readEntry(a, true, in, isLocal) : readMember(a, in, isLocal);
   else if constexpr (A::kind == Kind::hashReferences)
      isRemoval ? readEntry(a, true, in, isLocal) : readTarget(a, in, isLocal);
   else if constexpr (!A::hasEntries)
      readElement(a, in, isLocal);
   else
      readEntry(a, isRemoval, in, isLocal);
}

template <class X> template <class A> void LevelSa<X>::readValue(A a, In& in, bool isLocal) {
   auto const value = [&] {
      if constexpr (A::kind == Kind::reference)
         return detail::readReference<typename A::Target>(in, *this->demuxer_);
      else
         return Wire<typename A::Value>::read(in);
   }();
   if (isLocal)
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this));
   else
      apply(a, [&] { A::put(object(), value); });
}

template <class X> template <class A> void LevelSa<X>::readElement(A a, In& in, bool isLocal) {
   auto const key = Wire<typename A::Key>::read(in);
   auto const value = Wire<typename A::Value>::read(in);
   if (isLocal)
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), key);
   else
      apply(
         a, [&] { A::put(object(), key, value); }, key);
}

template <class X> template <class A> void LevelSa<X>::readTarget(A a, In& in, bool isLocal) {
   auto const target = detail::readReference<typename A::Target>(in, *this->demuxer_);
   if (!target)
      return; // retired meanwhile, and counted as that: its owner tells the entry again
   Name const name = target->moxName();
   if (isLocal) {
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), name);
      return;
   }
   apply(
      a,
      [&, &entity = object()] {
         A::put(entity, target);
         if (auto* const entry = A::cell(entity).find(name))
            entry->moxMarkedForDeletionIs(false);
      },
      name);
}

template <class X> template <class A> void LevelSa<X>::readEntry(A a, bool isRemoval, In& in, bool isLocal) {
   auto const key = Wire<typename A::Key>::read(in);
   if constexpr (!A::ownsMembers && A::kind != Kind::hashReferences) {
      if (!isRemoval) {
         auto const value = Wire<typename A::Value>::read(in);
         if (isLocal) {
            A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), key);
            return;
         }
         apply(
            a,
            [&, &entity = object()] {
               A::put(entity, key, value); // whose reactors may unmount the mirror: no `object()` behind it
               if (auto* const entry = A::cell(entity).find(key))
                  entry->moxMarkedForDeletionIs(false);
            },
            key);
         return;
      }
   }
   if (isLocal)
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), key);
   else
      dropHere(a, key);
}

template <class X> template <class A> void LevelSa<X>::dropHere(A a, typename A::Key const& key) {
   if constexpr (A::ownsMembers) {
      if (this->demuxer_ == nullptr)
         return;
      Ptr<Entity> const member(A::cell(object()).find(key));
      Demuxer& demuxer = *this->demuxer_;
      this->retiredTaken(Mark(A::id, key));
      apply(
         a, [&] { A::drop(object(), key); }, key);
      if (member)
         demuxer.isNoMember(*member);
   } else {
      apply(
         a, [&] { A::drop(object(), key); }, key);
   }
}

template <class X> template <class A> void LevelSa<X>::readMember(A a, In& in, bool isLocal) {
   Demuxer& demuxer = *this->demuxer_;
   Name const name(in.nextStringView());
   auto const parameters = detail::readParameters(typename A::Entry::MoxParameters{}, in, demuxer);
   EntityId const id = in.nextEntityId();
   if (isLocal) {
      A::fire(static_cast<typename X::MoxNboAttrLogSa&>(*this), name);
      return;
   }
   // Whoever applies an announcement lets go of what it replaces; whoever applies a value does not.
   if (in.header().kind != kind::childLog)
      throw AttrLogRecordException("a member announced by a record of kind " + std::to_string(in.header().kind) +
                                   ", expected " + std::to_string(kind::childLog));
   demuxer.checkAnnounced(id);
   if (Demuxer::depthOf(object()) >= frame::maximumDepth)
      throw ProtocolException(in.where() + ": a member below " + std::to_string(frame::maximumDepth) +
                              " others; deeper ones are not taken");
   auto& cell = A::cell(object());
   bool const wasRetired = this->retiredTaken(Mark(A::id, name));
   if (auto* const present = cell.find(name))
      if (wasRetired || demuxer.isOfAnother(*present, id)) {
         // The name was announced under another identifier on this connection: this is another entity.
         ++demuxer.counters().renamedMembers;
         dropHere(a, name);
      }
   Ptr<Entity> const before = demuxer.mirrorOf(id);
   typename Demuxer::DeserializingEidAnchor const anchor(demuxer, id, *this, name);
   // Under an identifier that is known already nothing is answered: the owner was asked for another.
   auto const instantiate = [&] {
      applyAs(
         a, !before, [&] { std::apply([&](auto const&... p) { A::put(object(), name, p...); }, parameters); }, name);
   };
   {
      Expect const scope(NameInUseException::kind);
      try {
         instantiate();
      } catch (NameInUseException const&) {
         dropHere(a, name);
         try {
            instantiate();
         } catch (NameInUseException const&) {
            // A reactor has put one of its own in the place meanwhile: the owner is asked to announce the name again. It may have
            // left the collection there by now, and be referred to: until the identifier is retired, it stands for one beside.
            if (this->demuxer_ == nullptr)
               throw;
            this->askOwner(Mark(A::id, name));
            if (!before)
               demuxer.bindInRecord(
                  id, *std::apply([&](auto const&... p) { return make<typename A::Entry>(name, p...); }, parameters));
            throw;
         }
      }
   }
   if (auto* const member = cell.find(name); member != nullptr && this->demuxer_ != nullptr) {
      member->moxMarkedForDeletionIs(false);
      // Somebody here has put another in the place of what was announced under this identifier, which others have been told to
      // refer to. The owner, who knows of one only, is asked to announce it anew.
      bool const isReplaced = before && before != member;
      if (isReplaced)
         this->askOwner(Mark(A::id, name), true);
      demuxer.bindInRecord(id, *member);
      // Also where no member has the name any more: others may refer to what the identifier stands for.
      if (isReplaced)
         demuxer.askedAnewIs(id);
   }
}

template <class X> int LevelSa<X>::handleAttrTransaction(AttributeId aid, AttrTransactionType type, unsigned count) {
   if (this->demuxer_ == nullptr)
      return 0;
   visitAttribute<X>(aid, [&](auto a) {
      if constexpr (a.isKeyed) {
         switch (type) {
         case AttrTransactionType::begin:
            if (this->hasFlag(StreamAdapter::inert))
               break;
            this->flowInIs(aid);
            if constexpr (a.hasEntries)
               marksIs(a, true);
            break;
         default:
            if (!this->flowInTaken(aid)) // first: the sweep may throw
               break;
            if constexpr (a.hasEntries) {
               if (type == AttrTransactionType::end)
                  sweep(a); // takes the marks along
               else
                  marksIs(a, false);
            }
         }
      }
   });
   return Base::handleAttrTransaction(aid, type, count);
}

template <class X> void LevelSa<X>::marksDel(AttributeId id) {
   if (!visitAttribute<X>(id, [&](auto a) {
          if constexpr (a.hasEntries)
             marksIs(a, false);
       }))
      Base::marksDel(id);
}

template <class X> void LevelSa<X>::tellUntold(Mark const& m) {
   if (!visitAttribute<X>(m.attribute, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::isKeyed)
             apply(
                a, [] {}, m.template as<typename A::Key>());
          else
             apply(a, [] {});
       }))
      Base::tellUntold(m);
}

template <class X> void LevelSa<X>::memberLeft(Mark const& m) {
   if (!visitAttribute<X>(m.attribute, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::ownsMembers)
             // Of a mirror that is passed on, the peer may not be told that it went: its owner has not said so.
             if (this->hasFlag(StreamAdapter::relays) || A::cell(object()).find(m.name) != nullptr)
                this->neededNotes().successors.insert(m);
       }))
      Base::memberLeft(m);
}

template <class X> template <class A> void LevelSa<X>::marksIs(A, bool marked) {
   auto& cell = A::cell(object());
   for (auto* entry = cell.first(); entry != nullptr; entry = cell.next(*entry))
      entry->moxMarkedForDeletionIs(marked);
}

template <class X> template <class A> void LevelSa<X>::sweep(A a) {
   std::exception_ptr first;
   auto& cell = A::cell(object());
   bool again = true;
   // Without a stream a reactor has unmounted the mirror: what is left of it stays.
   while (again && this->demuxer_ != nullptr) {
      again = false;
      for (typename A::Container::Iterator it(cell); it && this->demuxer_ != nullptr; it.advance()) {
         if (!it.entry()->moxMarkedForDeletion())
            continue;
         // Unmarked first: an entry that a failing deletion leaves behind is not met twice.
         it.entry()->moxMarkedForDeletionIs(false);
         typename A::Key const key = it.entry()->fwkKey();
         ++this->demuxer_->counters().sweptEntries;
         auto const version = cell.version();
         try {
            dropHere(a, key);
         } catch (...) {
            if (!first)
               first = std::current_exception();
         }
         again = again || cell.version() != version + 1;
      }
   }
   // Keys deleted here, and absent at the owner by now: the reactors were never told, and an answer to come will find them told.
   if (this->hasUntold()) {
      std::vector<Mark> marks;
      for (auto const& [mark, untold] : this->notes_->untold)
         if (mark.attribute == A::id && (untold.isOld || !this->notes_->unasked.contains(mark)))
            marks.push_back(mark);
      for (Mark const& m : marks) {
         typename A::Key const key = m.template as<typename A::Key>();
         if (this->demuxer_ != nullptr && this->isUntold(m) && cell.find(key) == nullptr)
            dropHere(a, key);
      }
   }
   if (first)
      std::rethrow_exception(first);
}

template <class X> void LevelSa<X>::writeKey(Mark const& m, std::vector<std::uint8_t>& bytes) const {
   if (!visitAttribute<X>(m.attribute, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::isKeyed) {
             // Through a stream of its own: a key has one encoding.
             auto const out = make<Out>();
             Record record(*out, {});
             auto const start = out->column();
             Wire<typename A::Key>::write(*out, m.template as<typename A::Key>());
             auto const written = out->bytesSince(start);
             bytes.assign(written.begin(), written.end());
          }
       }))
      Base::writeKey(m, bytes);
}

template <class X> Mark LevelSa<X>::readKey(AttributeId id, In& in) const {
   Mark mark(id);
   if (!visitAttribute<X>(id, [&](auto a) {
          using A = decltype(a);
          if constexpr (A::isKeyed)
             mark = Mark(id, Wire<typename A::Key>::read(in));
       }))
      return Base::readKey(id, in);
   return mark;
}

// Types -----------------------------------------------------------------------------------------------------------------

namespace detail {

template <class X> Ptr<Entity::MoxNboAttrLogSa> makeAdapter(Entity& entity, Mox_BitSet flags, Demuxer& demuxer) {
   using Sa = typename X::MoxNboAttrLogSa;
   auto const sa = make<Sa>(flags, Ptr<X>(static_cast<X*>(&entity)), &demuxer);
   sa->reactorIs(make<typename Sa::MoxNboAttrLogSaAdapter_>(sa.get()));
   return sa;
}

template <class X> bool isAdapter(Entity::MoxNboAttrLogSa const& sa) {
   return dynamic_cast<typename X::MoxNboAttrLogSa const*>(&sa) != nullptr;
}

template <class X> Ptr<Entity> createFrom(Name const& name, In& in, Demuxer& demuxer) {
   return std::apply([&](auto const&... p) { return Ptr<Entity>(make<X>(name, p...)); },
                     readParameters(typename X::MoxParameters{}, in, demuxer));
}

template <class... Ps, class Values, class X>
bool parametersEqual(TypeList<Ps...>, [[maybe_unused]] X const& entity, Values const& values) {
   return std::apply([&](auto const&... v) { return ((Ps::cell(entity) == v) && ...); }, values);
}

template <class X> bool parametersMatch(Entity const& entity, In& in, Demuxer& demuxer) {
   return parametersEqual(typename X::MoxParameters{}, static_cast<X const&>(entity),
                          readParameters(typename X::MoxParameters{}, in, demuxer));
}

template <class X>
bool hasParameter(Entity const& entity, [[maybe_unused]] std::unordered_set<Entity const*> const& targets) {
   bool has = false;
   X::MoxParameters::forEach([&](auto p) { has |= targets.contains(p.cell(static_cast<X const&>(entity)).get()); });
   return has;
}

template <class X> constexpr TypeOperations operationsOf() {
   TypeOperations operations;
   operations.adapter = &makeAdapter<X>;
   operations.isAdapter = &isAdapter<X>;
   operations.parameters = X::MoxParameters::size;
   if constexpr (!X::moxIsAbstract) {
      operations.create = &createFrom<X>;
      operations.parametersMatch = &parametersMatch<X>;
      operations.writeParameters = &writeParameters<X>;
      operations.announceParameters = &announceParameters<X>;
      operations.hasParameter = &hasParameter<X>;
   }
   return operations;
}

} // namespace detail

template <class X> TypeOperations const* LevelSa<X>::typeOperations() noexcept {
   static constexpr TypeOperations operations = detail::operationsOf<X>();
   return &operations;
}

} // namespace Mox::NboAttrLog
