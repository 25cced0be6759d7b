// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/attrlog/EntityTree.h"
#include "kestrel/attrlog/LevelSa.h"
#include "kestrel/attrlog/Wire.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/notify/Mutators.h"

#include <algorithm>

// From a change of one level's attributes to its record, or to the mark that stands for it.

namespace Mox::NboAttrLog {

namespace detail {

/// Header of a record with the value of attribute `A`.
template <class A> MsgHeader headerOf(EntityId id, bool isRemoval = false) {
   MsgHeader header;
   header.entity = id;
   header.attribute = isRemoval ? -static_cast<std::int32_t>(A::id) : static_cast<std::int32_t>(A::id);
   if constexpr (wireClass<A> == WireClass::value)
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

template <class X> void writeParameters(Entity const& entity, Out& out, Demuxer& demuxer) {
   X::MoxParameters::forEach(
      [&](auto p) { out.put(demuxer.entityIdFor(p.cell(static_cast<X const&>(entity)).get())); });
}

template <class X> void announceParameters(Entity const& entity, Demuxer& demuxer) {
   X::MoxParameters::forEach([&](auto p) { demuxer.entityIdFor(p.cell(static_cast<X const&>(entity)).get()); });
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
         flow.oweAgain(a);
   if (flow.cursor() > A::id)
      ++this->demuxer_->counters().belowCursor;
}

/// \param isAsked whether the peer may know the key, or wait for an answer about it, whatever has been noted
template <class X> template <class A> void LevelSa<X>::markKey(A a, typename A::Key const& key, bool isAsked) {
   Flow& flow = neededFlow();
   auto& cell = A::cell(object());
   auto* const present = cell.find(key);
   auto* const before = flow.keys(a) == nullptr ? nullptr : flow.keys(a)->map.find(key);
   [[maybe_unused]] bool const isSuccessor = this->successorTaken(Mark(A::id, key));
   // Parking a key drops the notes whether the peer knows it and whether it has asked for it: either may be so.
   isAsked = isAsked || (this->parkedCount() != 0 && this->notes_->parked.contains(Mark(A::id, key)));
   if (present == nullptr && before != nullptr && !before->isKnown && !isAsked) {
      flow.dirtyKeyDel(a, key);
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
   dirty.isKnown = dirty.isKnown || isAsked;
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
   if constexpr (wireClass<A> == WireClass::reference) {
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
      if constexpr (wireClass<A> == WireClass::reference) {
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
      flow->stopResting(a);
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
   } else if constexpr (wireClass<A> == WireClass::target) {
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
   if (depthOf(*child) > frame::maximumDepth)
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

   bool const isWritten = demuxer.writeAnnouncement(*child, [&] {
      if (!sa->entityId().isAssigned())
         demuxer.assign(*sa);
      demuxer.beforeRecord();
      Out& out = *demuxer.out();
      Record record(out, detail::headerOf<A>(this->entityId_));
      out.put(std::string_view(child->moxName()));
      detail::writeParameters<typename A::Entry>(*child, out, demuxer);
      out.put(sa->entityId());
      record.close();
   });
   if (!isWritten) {
      demuxer.report("announcement of " + std::string(std::string_view(child->fullName())) +
                     " given up: what it was made with could not be announced before it");
      return nullptr;
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

} // namespace Mox::NboAttrLog
