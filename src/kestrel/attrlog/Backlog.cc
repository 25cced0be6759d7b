// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Backlog.h"

#include "kestrel/attrlog/Frames.h"
#include "kestrel/attrlog/OwnSlots.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

namespace Mox::NboAttrLog {

void Backlog::enqueue(FlowOut& flow) noexcept {
   if (flows_.enqueue(flow))
      flow.referenceInc();
}

void Backlog::dequeue(FlowOut& flow) noexcept {
   if (flows_.dequeue(flow))
      flow.referenceDec();
}

FlowOut& Backlog::neededFlow(Sa& sa, AttributeId startAttribute) {
   if (!sa.flow()) {
      Ptr<FlowOut> const flow = sa.flowOutIs(startAttribute);
      flow->ownerIs(&sa);
      sa.flowIs(flow);
   }
   enqueue(*sa.flow()); // a flow that rests, because all it owes is parked, is not in the queue
   return *sa.flow();
}

void Backlog::leave(Sa& sa) noexcept {
   if (Ptr<FlowOut> const flow = sa.flow()) {
      dequeue(*flow);
      flow->ownerIs(nullptr);
      sa.flowIs(nullptr);
   }
   owing_.dequeue(sa);
   parked_.remove(sa);
   sa.parkedDelAll(attr::none);
}

void Backlog::payOwesAll() {
   while (Sa* const first = owing_.first()) {
      Ptr<Sa> const sa(first);
      bool const isBoundMirror = sa->isMirror() && sa->entityId().isAssigned();
      if (isBoundMirror && !out_.hasSufficientBuffer())
         return;
      // An exception leaves it in the queue, for the next drain.
      if (sa->isPaused()) {
         // It owes everything again when it is resumed.
      } else if (isBoundMirror) {
         out_.control(Refresh{sa->entityId(), 0, {}});
         ++reports_.counters.refreshesAsked;
         sa->owesAllDel();
      } else if (sa->isMirror() || !sa->isAnnounced()) {
         sa->owesAllDel(); // its next announcement tells everything
      } else {
         tellWhole(*sa);
      }
      owing_.dequeue(*sa);
   }
}

/// Replaces what `sa` owes by a flow that tells its whole entity.
void Backlog::tellWhole(Sa& sa) {
   Ptr<FlowOut> const before = sa.flow();
   Ptr<FlowOut> const flow = sa.flowOutIs(attr::none);
   if (before) {
      flow->pendingAborts() = before->pendingAborts();
      before->openCollections(flow->pendingAborts());
      dequeue(*before);
      before->ownerIs(nullptr);
   }
   flow->ownerIs(&sa);
   sa.flowIs(flow);
   sa.parkedDelAll(attr::none);
   parked_.remove(sa);
   sa.notesTrim();
   enqueue(*flow);
   sa.owesAllDel();
   ++reports_.counters.owedAll;
}

std::unordered_set<Entity const*> Backlog::takeReidentified() noexcept {
   return std::exchange(reidentified_, {});
}

void Backlog::wakeParked() {
   if (parked_.empty())
      mayWake_ = false;
   if (!mayWake_)
      return;
   // All leave the list before the first is woken: marks that have to wait again put their adapter back into it.
   std::vector<Sa*> const adapters = parked_.all();
   mayWake_ = false; // not sooner: without memory for the list above the next drain tries again
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
         reports_.counters.woken += marks.size();
         sa.notesTrim();
      } catch (...) {
         std::for_each(at, adapters.end(), [](Sa* sa) { sa->owesAllIs(); });
         throw;
      }
}

Backlog::Turn Backlog::takeTurn(FlowOut& flow, Sa& sa) {
   Ptr<FlowOut> const held(&flow);
   dequeue(flow);
   if (sa.isPaused())
      return Turn::done; // resumed, it owes everything
   try {
      if (write(flow, sa))
         enqueue(flow);
      return Turn::done;
   } catch (NoIdentifierLeft const&) {
      // The end of a collection must not follow, which would delete there what could not be told: the root is given up first.
      if (sa.flow() == &flow)
         enqueue(flow);
      return Turn::noIdentifierLeft;
   } catch (std::exception const& e) {
      // Whatever went wrong, the entity's whole state is owed again; the next drain tries.
      reports_.tell([&] {
         return "stream \"" + out_.name() + "\": " + std::string(std::string_view(Entity::fullNameOf(sa.entity()))) +
                " owes everything again: " + e.what();
      });
      if (sa.flow() == &flow)
         enqueue(flow);
      sa.owesAllIs();
      return Turn::failed;
   }
}

/// Writes what `flow` owes as far as the buffer has room. \return whether it is to have another turn
bool Backlog::write(FlowOut& flow, Sa& sa) {
   if (flow.telling() == FlowOut::Telling::all) {
      for (AttributeId const id : flow.pendingAborts())
         sa.sendTransactionMarker(id, AttrTransactionType::abort, 0);
      reports_.counters.abortedResends += flow.pendingAborts().size();
      flow.pendingAborts().clear();
      sa.sendSyncMode(SyncMode::resend);
      flow.tellingIs(FlowOut::Telling::allBegun);
   }
   AttributeId const next = sa.handleAttrFlowOut(flow.cursor());
   if (sa.flow() != &flow)
      return false; // the entity or its adapter went while it was told
   flow.cursorIs(next);
   if ((flow.moxDataBits() & FlowOut::suspended) != 0) {
      sa.parkedIs(flow, flow.suspendedAt());
      return true;
   }
   if (next != attr::none)
      return true;
   if (flow.telling() == FlowOut::Telling::allBegun && flow.collectionsHaveSynced()) {
      sa.sendSyncMode(SyncMode::live);
      flow.tellingIs(FlowOut::Telling::changes);
   }
   if (!flow.hasDirtyAttributes()) {
      dequeue(flow); // a mark that was made and has been written meanwhile may have put it back
      sa.flowIs(nullptr);
      flow.ownerIs(nullptr);
      return false;
   }
   if (!flow.hasWork()) {
      dequeue(flow); // it rests until what it waits for has an identifier, or something else changes
      return false;
   }
   return true;
}

/// A flow is in the queue exactly if its turn would do something; and every flow there is some adapter's.
std::string Backlog::audit(Demuxer const& stream) const {
   FlowOut const* before = nullptr;
   for (FlowOut const* flow = flows_.first(); flow != nullptr; before = flow, flow = flows_.next(*flow)) {
      if (!flow->isQueued() || flows_.previous(*flow) != before)
         return "the queue of flows is not linked as it should";
      if (flow->owner() == nullptr || flow->owner()->flow() != flow || flow->owner()->streamDemuxer() != &stream)
         return "a flow in the queue is no adapter's";
   }
   if (flows_.last() != before)
      return "the queue of flows does not end with its last";
   std::size_t queued = 0;
   for (Sa const* sa = owing_.first(); sa != nullptr; sa = owing_.next(*sa), ++queued)
      if (!owing_.isQueued(*sa) || !sa->owesAll() || sa->streamDemuxer() != &stream)
         return "an adapter in the queue of those that owe everything owes nothing";
   if (queued != owing_.size())
      return "the queue of those that owe everything is not as long as it says";
   return {};
}

std::string Backlog::auditAdapter(Sa const& sa, bool hasIdentifier) {
   auto const whose = [&] { return Entity::fullNameOf(sa.entity()).str(); };
   if (sa.owesAll() && !sa.isPaused() && hasIdentifier && !IntrusiveQueue<Sa>::isQueued(sa))
      return whose() + " owes everything and nobody knows";
   Notes const* const notes = sa.notes();
   if (notes != nullptr && !notes->parked.empty() && notes->parkedAt == Notes::unlisted && !sa.owesAll())
      return whose() + " has parked marks that nobody will wake";
   if (!sa.flow())
      return {};
   FlowOut const& flow = *sa.flow();
   if (flow.owner() != &sa)
      return "the flow of " + whose() + " belongs to another adapter";
   if (flow.isQueued() || sa.isPaused() || sa.owesAll())
      return {}; // resumed or paid, it gets another flow
   bool const isUnopened = flow.telling() == FlowOut::Telling::all;
   if (flow.hasWork() || isUnopened)
      return "the flow of " + whose() + " has work and is not in the queue";
   if (notes != nullptr)
      for (Mark const& mark : notes->parked)
         if (flow.isMarked(mark))
            return "the flow of " + whose() + " rests with attribute " + std::to_string(mark.attribute) +
                   " both parked and marked";
   return {};
}

} // namespace Mox::NboAttrLog
