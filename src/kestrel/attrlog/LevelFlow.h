// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/attrlog/LevelSa.h"

#include <algorithm>

// What one level owes one stream, and its turn in a drain.

namespace Mox::NboAttrLog {

namespace detail {

template <class Container> std::size_t buckets(Container const& cell) {
   if constexpr (requires { cell.buckets(); })
      return cell.buckets();
   else
      return 0;
}

} // namespace detail

template <class X> LevelFlow<X>::LevelFlow(AttributeId startAttribute) : Base(startAttribute) {
   X::MoxAttributes::forEach([&](auto a) { dirtyBitIs(a, startAttribute <= a.id); });
}

template <class X> bool LevelFlow<X>::hasDirtyAttributes() const {
   for (unsigned w = 0; w < words; ++w)
      if (pending(w) != 0)
         return true;
   return Base::hasDirtyAttributes();
}

template <class X> bool LevelFlow<X>::collectionsHaveSynced() const {
   for (unsigned w = 0; w < words; ++w)
      if ((owed_[w] & collections()[w]) != 0)
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
   progressIs(a, Progress::owed);
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
   bitIs(beside_, A::bit, true);
   return *entry;
}

template <class X> template <class A> void LevelFlow<X>::dirtyKeyDel(A a, typename A::Key const& key) {
   if (auto* const k = keys(a)) {
      if (auto const deleted = k->map.deleteMember(key)) {
         k->gone -= deleted->isGone;
         k->woken -= deleted->isWoken;
      }
      bitIs(beside_, A::bit, !k->map.empty());
   }
}

template <class X> template <class A> void LevelFlow<X>::dirtyKeysDelAll(A) {
   std::get<std::unique_ptr<DirtyKeys<A>>>(keys_).reset();
   bitIs(beside_, A::bit, false);
}

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
      } else if (wireClass<A> == WireClass::value && isPlain) {
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
   if ((flow.moxDataBits() & FlowOut::noCollectionResend) == 0 && flow.progress(a) == Progress::owed) {
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
      flow.progressIs(a, Progress::resting);
      return;
   }
   if (auto const* const keys = flow.keys(a); keys != nullptr && keys->woken != 0)
      return;
   this->sendTransactionMarker(A::id, AttrTransactionType::end, 0);
   flow.progressIs(a, Progress::told);
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
   flow.progressIs(a, Progress::walked);
   return true;
}

template <class X> template <class A> bool LevelSa<X>::sendDirtyKeys(A a, Flow& flow) {
   if (flow.progress(a) == Progress::owed) {
      flow.progressIs(a, Progress::told);
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
         // Whether the peer knew the name, nobody has noted; and it may wait for an answer, also when the name is gone before it
         // is told.
         markKey(a, key, true);
         if (auto* const keys = flowOut()->keys(a))
            if (auto* const dirty = keys->map.find(key))
               keys->woken += !std::exchange(dirty->isWoken, true);
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
      if constexpr (wireClass<A> == WireClass::reference) {
         if (auto const& target = A::cell(object()); target && isTarget(target.get()))
            mark(a);
      } else if constexpr (wireClass<A> == WireClass::target) {
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

} // namespace Mox::NboAttrLog
