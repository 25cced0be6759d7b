// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/IntrusiveQueue.h"
#include "kestrel/attrlog/Mark.h"
#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/mox/Entity.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Mox::NboAttrLog {

/// Where a backlog stands and what one entity owes one stream. The levels of the entity's type add their dirty bits and keys
/// (`LevelFlow`). Exists only while something is owed.
class FlowOut : public PtrInterface {
public:
   /// The flow can't go on at its current attribute before some entity has an identifier.
   static constexpr std::uint8_t suspended = 0x10;
   /// Keyed collections need no full resend.
   static constexpr std::uint8_t noCollectionResend = 0x04;

   explicit FlowOut(AttributeId startAttribute) noexcept
      : telling_(startAttribute == attr::none ? Telling::all : Telling::changes) {}

   AttributeId attrId() const noexcept { return attrId_; }
   void attrIdIs(AttributeId id) noexcept { attrId_ = id; }
   std::uint8_t moxDataBits() const noexcept { return dataBits_; }
   void moxDataBitsIs(std::uint8_t bits) noexcept { dataBits_ = bits; }

   /// The key at which a paused resend goes on; its `attribute` is 0 where none is held.
   Mark const& bookmark() const noexcept { return bookmark_; }
   bool holdsBookmark(AttributeId id) const noexcept { return bookmark_.attribute == id; }
   /// \throws InternalException "!rsc->bookmark()" when one is held: a resend takes its bookmark before it stores the next
   void moxFlowOutBookmarkEnq(Mark mark);
   void bookmarkDel() noexcept { bookmark_ = {}; }

   /// Resends that an earlier flow of this entity left open: the peer is told before anything else goes out.
   std::vector<AttributeId>& pendingAborts() noexcept { return pendingAborts_; }

   /// What could not be written because its target has no identifier yet; meaningful while `suspended` is set.
   Mark const& suspendedAt() const noexcept { return suspendedAt_; }
   void suspendedAtIs(Mark mark) noexcept { suspendedAt_ = std::move(mark); }

   /// Whether anything is still owed. The only question that may end a flow.
   virtual bool hasDirtyAttributes() const { return false; }
   /// Whether every collection has been sent whole.
   virtual bool collectionsHaveSynced() const { return true; }
   /// Whether a turn has anything to write. Without, what is owed waits for an identifier.
   virtual bool hasWork() const { return false; }
   /// A parked key is back among the marks: what waited for it is looked at again.
   virtual void woken() {}
   /// Whether the attribute or key is marked: its next turn writes it.
   virtual bool isMarked(Mark const&) const { return false; }
   /// Appends the collections whose begin the peer has been sent and whose end it has not.
   virtual void openCollections(std::vector<AttributeId>&) const {}
   /// Keys marked, over all collections: what the flow's memory grows with.
   virtual std::size_t dirtyKeys() const { return 0; }

   // The scheduler's own.
   AttributeId cursor() const noexcept { return cursor_; }
   void cursorIs(AttributeId id) noexcept { cursor_ = id; }
   enum class Telling : std::uint8_t {
      changes,  ///< what has changed
      all,      ///< the whole entity; the peer is still to be told that it begins
      allBegun, ///< the whole entity; behind its last record the peer is told that it was the last
   };
   Telling telling() const noexcept { return telling_; }
   void tellingIs(Telling telling) noexcept { telling_ = telling; }
   bool isQueued() const noexcept { return queueLinks_.isQueued; }
   QueueLinks<FlowOut>& queueLinks() noexcept { return queueLinks_; }
   QueueLinks<FlowOut> const& queueLinks() const noexcept { return queueLinks_; }
   Entity::MoxNboAttrLogSa* owner() const noexcept { return owner_; }
   void ownerIs(Entity::MoxNboAttrLogSa* owner) noexcept { owner_ = owner; }
   /// Buckets of the paused collection when it was paused, for the counters; 0 where it has none.
   std::size_t pausedBuckets = 0;

private:
   Entity::MoxNboAttrLogSa* owner_ = nullptr;
   QueueLinks<FlowOut> queueLinks_;
   Mark bookmark_;
   Mark suspendedAt_;
   std::vector<AttributeId> pendingAborts_;
   AttributeId attrId_ = attr::none;
   AttributeId cursor_ = attr::none;
   std::uint8_t dataBits_ = 0;
   Telling telling_;
};

} // namespace Mox::NboAttrLog
