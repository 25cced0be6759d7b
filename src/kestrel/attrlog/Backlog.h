// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/FlowOut.h"
#include "kestrel/attrlog/IntrusiveQueue.h"
#include "kestrel/attrlog/NotedAdapters.h"
#include "kestrel/attrlog/Out.h"
#include "kestrel/attrlog/Reports.h"
#include "kestrel/attrlog/StateAdapter.h"

#include <cstddef>
#include <string>
#include <unordered_set>

namespace Mox::NboAttrLog {

/// What one stream owes its peer, and whose turn it is: the flows that have work, in turn; the adapters that owe their whole entity;
/// those with marks that are parked until some entity has an identifier; and the entities whose identifier has changed, so that
/// references to them are owed again.
///
/// It writes what is owed, one flow's turn at a time, and knows nothing of identifiers: who gives and takes those drains it.
///
/// *Cost*: joining and leaving cost the same however much is owed.
class Backlog {
public:
   using Sa = Entity::MoxNboAttrLogSa;

   Backlog(Out& out, Reports& reports) noexcept : out_(out), reports_(reports) {}
   Backlog(Backlog const&) = delete;
   Backlog& operator=(Backlog const&) = delete;

   /// Whether no flow has work: a change may become a record at once.
   bool empty() const noexcept { return flows_.empty(); }
   /// Whether a drain would find anything to do.
   bool isOwing() const noexcept {
      return !flows_.empty() || !owing_.empty() || !reidentified_.empty() || (mayWake_ && !parked_.empty());
   }

   /// The flow of `sa`, queued; makes one that starts at `startAttribute` where there is none. \throws std::bad_alloc
   FlowOut& neededFlow(Sa& sa, AttributeId startAttribute);
   /// `sa` owes its whole entity.
   void addOwing(Sa& sa) noexcept { owing_.enqueue(sa); }
   /// `sa` is about to have a parked mark. \throws std::bad_alloc; nothing has changed then
   void addParked(Sa& sa) {
      parked_.add(sa);
      ++reports_.counters.parked;
   }
   /// What parked marks wait for may be there: the next drain looks at them again.
   void lookAgainAtParked() noexcept { mayWake_ = true; }
   /// References to `entity` are owed again. It is only compared with, never looked at: it may be gone by then.
   /// \throws std::bad_alloc; nothing has changed then
   void addReidentified(Entity const& entity) { reidentified_.insert(&entity); }
   /// `sa` leaves the stream, and with it what it owes.
   void leave(Sa& sa) noexcept;

   // The steps of a drain, in this order.
   /// Gives each adapter that owes its whole entity a flow that tells it, and asks the owners of such mirrors, as far as the buffer
   /// has room. \throws std::bad_alloc; what is left stays owed
   void payOwesAll();
   /// Hands out the entities whose references are owed again.
   std::unordered_set<Entity const*> takeReidentified() noexcept;
   bool hasReidentified() const noexcept { return !reidentified_.empty(); }
   void forgetReidentified() noexcept { reidentified_.clear(); }
   /// Puts parked marks back into their flows, if what they wait for may be there. \throws std::bad_alloc; the marks are owed all the same
   void wakeParked();
   enum class Turn {
      done,
      failed,           ///< its entity is owed whole: the next drain tries again
      noIdentifierLeft, ///< the peer takes no more: what its entity has to tell can't be told
   };
   /// The next flow; null where none has work.
   FlowOut* next() const noexcept { return flows_.first(); }
   /// One turn of `flow`, which runs until the buffer is full or nothing is left to write. \param sa its owner, held by the caller
   Turn takeTurn(FlowOut& flow, Sa& sa);

   std::size_t queuedFlows() const noexcept { return flows_.size(); }
   std::size_t reidentified() const noexcept { return reidentified_.size(); }
   std::size_t parkedAdapters() const noexcept { return parked_.size(); }
   /// What is wrong with the queues of a stream at rest; empty where all is well.
   std::string audit(Demuxer const& stream) const;
   /// What is wrong with how `sa`, an adapter of this stream, stands in the queues. \param hasIdentifier whether it has one
   static std::string auditAdapter(Sa const& sa, bool hasIdentifier);

private:
   void enqueue(FlowOut& flow) noexcept;
   void dequeue(FlowOut& flow) noexcept;
   bool write(FlowOut& flow, Sa& sa);
   void tellWhole(Sa& sa);

   Out& out_;
   Reports& reports_;
   IntrusiveQueue<FlowOut> flows_; ///< each with a reference of the queue's
   IntrusiveQueue<Sa> owing_;
   NotedAdapters<&Notes::parkedAt> parked_;
   bool mayWake_ = false; ///< an identifier has come since parked marks were last looked at
   std::unordered_set<Entity const*> reidentified_;
};

} // namespace Mox::NboAttrLog
