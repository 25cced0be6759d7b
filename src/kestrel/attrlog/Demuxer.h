// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Backlog.h"
#include "kestrel/attrlog/In.h"
#include "kestrel/attrlog/Out.h"
#include "kestrel/attrlog/OwnSlots.h"
#include "kestrel/attrlog/PeerMirrors.h"
#include "kestrel/attrlog/Reports.h"
#include "kestrel/attrlog/StateAdapter.h"

#include <concepts>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Mox {

namespace NboAttrLog {

/// One end of a stream between two processes: the identifiers of both sides, the adapters under them, the backlog and its
/// scheduler. Bytes come in and go out through `In` and `Out`; who carries them is none of its business.
///
/// Two tables, one per side, indexed by slot: no record costs a hash look-up. What this side has announced is forgotten at a cut;
/// what the peer has announced keeps its adapters, without identifiers, until it is announced again or the remount ends.
///
/// *Threads*: one at a time, no matter which. *Re-entrancy*: a reactor may do anything to entities while a record is applied; a drain inside a drain does
/// nothing.
class Demuxer {
public:
   using Sa = Entity::MoxNboAttrLogSa;

   explicit Demuxer(std::string const& name);
   ~Demuxer();
   Demuxer(Demuxer const&) = delete;
   Demuxer& operator=(Demuxer const&) = delete;

   Ptr<Out> const& out() const noexcept { return out_; }
   Ptr<In> const& in() const noexcept { return in_; }
   std::string const& name() const noexcept { return out_->name(); }
   /// The peer as its last hello called it; empty before the first.
   std::string const& peerName() const noexcept { return peerName_; }
   void peerNameIs(std::string_view name) { peerName_ = name; }

   // Life of a connection.
   /// A fresh stream: nothing has been announced on it.
   void opened() noexcept;
   /// The stream has ended. Forgets what this side announced, keeps the mirrors.
   void cut() noexcept;
   /// Cuts, and ends all mirrors, which tells their reactors what is owed to them.
   void end() noexcept;
   bool isOpen() const noexcept { return isOpen_; }

   // What this side announces.
   /// Makes or returns the adapter that announces `root`; nothing is written.
   Ptr<Sa> rootIs(Entity& root);
   /// Announces a root that `rootIs` returned, which owes everything from then on.
   void announceRoot(Sa& sa);
   /// Makes `root` a mirror that waits to be announced; writing to it is refused from here on.
   void mirrorRootIs(Entity& root);
   /// The adapter of a mirror that `entity` is, is part of or holds, on whatever stream; null for none.
   static Sa* mirrorAround(Entity& entity);
   /// The adapter of `entity` on this stream, or null.
   Sa* adapterOf(Entity const& entity) const noexcept;
   /// The adapter that this side has announced under `id`, or null.
   Ptr<Sa> announcedUnder(EntityId id) const { return Ptr<Sa>(own_.find(id)); }
   /// Gives an identifier of this side; retirements that are due go out before, as far as the buffer has room.
   /// \throws NoIdentifierLeft where the peer takes no more
   void assign(Sa& sa);
   /// Something that `sa` has to tell needs an identifier, and none is left: counts it and, once per connection, reports it. The
   /// root that it belongs to can't be told any more.
   void limitReached(Sa& sa);
   /// Told of a mounted root whose owner has retired its identifier, instead of letting its mirrors go: the mount goes on.
   void rootRetiredIs(std::function<void(Entity& root)> told) { rootRetired_ = std::move(told); }
   /// Told of each such root, once, at the end of the drain that met it.
   void limitReachedIs(std::function<void(Entity& root)> told) { limitReached_ = std::move(told); }
   /// The identifier under which a reference to `target` travels now. Announces it first where this side must: as a member of
   /// what is exported, else as an orphan.
   /// \throws NoEntityIdException where the peer must announce it first
   /// \throws AttrLogRecordException inside an open record, when an announcement is needed: write that first, then start again
   EntityId entityIdFor(Entity const* target);
   /// The target that the last `AttrLogRecordException` of `entityIdFor` wanted announced.
   void announceWanted();
   /// Writes the announcement of `entity`. A constructor parameter's target must be announced first, and no record can be written
   /// inside another: each time that `write` meets one, that is announced, and `write` begins anew.
   /// \return false where that came to no end
   template <std::invocable Write> bool writeAnnouncement(Entity const& entity, Write write) {
      std::size_t const mostRestarts = 1 + logOperationsOf(entity)->parameters;
      for (std::size_t restarts = 0;; ++restarts) {
         try {
            write();
            return true;
         } catch (RecordTooLong const&) {
            throw;
         } catch (AttrLogRecordException const&) {
            if (restarts == mostRestarts) {
               ++counters().unfinishedAnnouncements;
               return false;
            }
            ++counters().restartedAnnouncements;
            announceWanted();
         }
      }
   }
   /// The announcement of `sa` has been committed: from here on it writes.
   void announced(Sa& sa, bool owesEverything);
   /// Takes the adapters of `top` and of everything below it out of the stream; their identifiers are retired, and references to
   /// what they stood for are told again under whatever identifier it gets next.
   void reidentify(Entity& top) { static_cast<void>(unannounced(top)); }
   /// As `reidentify`. The caller holds what was taken out, and releases it, which may run reactors.
   /// \throws std::bad_alloc; nothing has changed then
   [[nodiscard]] std::vector<Ptr<Entity>> unannounced(Entity& top);
   /// Ends everything that this side has announced.
   void forgetAnnounced();

   // The backlog.
   /// The flow of `sa`; makes one that starts at `startAttribute` where there is none, and queues it.
   FlowOut& createFlowOut(Sa& sa, AttributeId startAttribute = attr::owesNothing) {
      return backlog_.neededFlow(sa, startAttribute);
   }
   /// Whether a change must queue behind others.
   bool hasBacklog() const noexcept { return !backlog_.empty(); }
   /// Whether a change becomes a record at once.
   bool takesNow() const noexcept { return isOpen_ && backlog_.empty() && out_->hasSufficientBuffer(); }
   /// Writes what is owed as far as the buffer has room.
   void drain();
   /// Whether anything at all is owed, by a flow, by a mark or by a bit.
   bool owes() const noexcept { return backlog_.isOwing() || mirrors_.isAsking() || own_.owesRetirements(); }
   void owesAllNoticed(Sa& sa) noexcept { backlog_.addOwing(sa); }
   /// The owner of `sa`'s entity is to be asked for something. \throws std::bad_alloc
   void untoldNoticed(Sa& sa) { mirrors_.askFor(sa); }
   /// Marks again what refers to entities whose identifier has changed. `drain` does so too; a carrier that is not asked for bytes
   /// does it behind each batch that has arrived, so that what is noted does not grow.
   void settleIdentifiers();
   /// Called by a record that is about to be written: what was applied is acknowledged before.
   void beforeRecord() {
      if (applied_ != acknowledged_)
         acknowledge();
   }
   bool continueFlowOut() const noexcept { return out_->hasSufficientBuffer(); }
   void acknowledge();
   /// As `acknowledge`, unless an earlier one still waits in the buffer: a stalled peer is owed one.
   void acknowledgeIfSent() {
      if (applied_ != acknowledged_ && out_->bytesSent() >= acknowledgedAt_)
         acknowledge();
   }
   bool owesAcknowledgement() const noexcept { return applied_ != acknowledged_; }
   /// Writes of the peer that were refused and have not been answered: at most `requestWindow`.
   std::size_t owedRefusals() const noexcept { return refusals_.size(); }

   // What the peer announces.
   /// An identifier as the peer writes it and as this side keeps it: each calls itself side 1.
   static constexpr EntityId ofPeer(EntityId id) noexcept { return PeerMirrors::ofPeer(id); }
   /// Applies the record in hand. The entity that it is for, and its adapter, are held until a record for another one comes, or
   /// `recordsEnd`: most changes come in runs. \throws ProtocolException only
   void record(In& in);
   /// No record follows: puts down what the last one was for. A frame that is no record comes behind it.
   void recordsEnd() noexcept {
      if (mirrors_.hasInHand())
         putDown();
   }
   /// Binds the peer's identifier to an entity of this process. What the identifier stood for is released last: that runs reactors,
   /// which may do anything here. \throws ProtocolException where a root would lose its identifier by that
   void bind(EntityId id, Entity& entity) {
      bindInRecord(id, entity);
      releaseReplaced();
   }
   /// The same while a record is applied, behind which the rest is released.
   void bindInRecord(EntityId id, Entity& entity, bool isOrphan = false);
   /// \throws ProtocolException for an identifier that the peer may not announce (slot, generation)
   void checkAnnounced(EntityId id) const { mirrors_.check(id, *in_); }
   /// Keeps the slot of what the peer announced and this side can't make, until it is retired.
   /// \throws ProtocolException as `checkAnnounced`
   void reserve(EntityId id) { mirrors_.reserve(id, *in_); }
   /// Has the peer asked to announce what `id` stands for under another identifier, and to tell again what refers to it.
   /// \throws ProtocolException as `checkAnnounced`
   void askAnew(EntityId id);
   /// The identifier, as the peer wrote it, of an entity that it or this side announced; null for 0 and for what is gone.
   Ptr<Entity> entityOf(EntityId wireId);
   /// The entity that `wireId` of the peer is bound to; null for none.
   Ptr<Entity> mirrorOf(EntityId wireId) noexcept;
   void retired(EntityId wireId);
   /// Whether `member` stands under another identifier on this connection than `id`, which its name has now.
   bool isOfAnother(Entity const& member, EntityId id) const noexcept;
   void refresh(EntityId wireId, std::int32_t attribute, std::string_view key);
   /// Every entity that the peer has announced has been told whole.
   bool isSynced() const noexcept { return mirrors_.isSynced(); }
   void syncing(Sa& sa, bool isSyncing) { mirrors_.syncingIs(sa, isSyncing); }
   /// The peer has answered every mount and told every entity whole: what it has not announced again is gone.
   void remountEnded();
   /// The peer's collection holds `member` no more. A mirror of an earlier connection waits for nothing then: who refers to it
   /// would wait for the end of the remount, which may wait for that very reference.
   void releaseFormerMember(Entity& member);
   /// Nothing is owed but what waits for mirrors of an earlier connection that the peer has not announced again.
   bool isWaiting() const noexcept;
   /// The peer waits for this side in turn: no such mirror will be announced before what waits for it has been told. Lets them go,
   /// so that they are announced from here. \return whether there were any
   bool breakDeadlock();
   /// Ends the mirrors below `top`; with null all of them. \throws std::bad_alloc; nothing has changed then
   void forgetMirrors(Entity* top) { releaseAll(mirrorsTaken(top)); }
   /// The same in two steps: nobody is told before the second.
   [[nodiscard]] std::vector<Mirror> mirrorsTaken(Entity* top);
   /// Releases mirrors one after the other, which runs reactors; what those of one have announced again stays. \return how many
   /// were released
   std::size_t releaseAll(std::vector<Mirror> const& gone) noexcept;
   /// Hands the mirrors at and below `root` that wait for their owner over to another stream, where they wait in the same way; with
   /// `withOrphans` the orphans that wait here as well.
   void moveMirrors(Entity& root, bool withOrphans, Demuxer& to);

   /// While a member is made for an announcement: the identifier that it is bound to, before any reactor of it runs. A reactor may
   /// have other members told meanwhile, which it is not for.
   class DeserializingEidAnchor {
   public:
      DeserializingEidAnchor(Demuxer& demuxer, EntityId id, Sa const& parent, Name const& name) noexcept
         : demuxer_(demuxer), outer_(demuxer.anchor_), id_(id), parent_(parent), name_(name) {
         demuxer.anchor_ = this;
      }
      ~DeserializingEidAnchor() { demuxer_.anchor_ = outer_; }
      DeserializingEidAnchor(DeserializingEidAnchor const&) = delete;
      DeserializingEidAnchor& operator=(DeserializingEidAnchor const&) = delete;
      EntityId id() const noexcept { return id_; }
      bool isFor(Sa const& parent, Name const& name) const noexcept { return &parent_ == &parent && name_ == name; }

   private:
      Demuxer& demuxer_;
      DeserializingEidAnchor* outer_;
      EntityId id_;
      Sa const& parent_;
      Name const& name_;
   };
   DeserializingEidAnchor const* anchor() const noexcept { return anchor_; }

   // Called by adapters.
   void detached(Sa& sa) noexcept;
   void applicationStarts() noexcept { applicationStarted_ = true; }
   void parkedIs(Sa& sa) { backlog_.addParked(sa); }
   /// What parked marks wait for may be there: the next drain looks at them again.
   void lookAgainAtParked() noexcept { backlog_.lookAgainAtParked(); }

   using Counters = StreamCounters;
   Counters& counters() noexcept { return reports_.counters; }
   Counters const& counters() const noexcept { return reports_.counters; }

   /// Sizes of what this end holds: the terms of the memory formula.
   struct Footprint {
      std::size_t announced = 0; ///< identifiers of this side in use
      std::size_t mirrored = 0;  ///< of the peer
      std::size_t askedAnew = 0; ///< of those, the ones that the peer has still to be asked to replace
      std::size_t waiting = 0;   ///< mirrors of an earlier connection, not yet announced again
      std::size_t flows = 0;
      std::size_t dirtyKeys = 0;
      std::size_t parked = 0;       ///< marks that wait for an identifier: at most one per reference and member
      std::size_t untold = 0;       ///< local writes that were refused and are not yet answered
      std::size_t successors = 0;   ///< members created raw in the place of an announced one
      std::size_t retired = 0;      ///< members that still stand here although their identifier has been retired
      std::size_t reidentified = 0; ///< entities whose references have to be told again
      std::size_t retirements = 0;  ///< at most the slots of this side
      std::size_t bufferBytes = 0;
      std::size_t slots = 0; ///< entries of the two tables, in use or not
   };
   /// *Cost*: a walk over all adapters.
   Footprint footprint() const;
   /// What is wrong with the structure of this end; empty where all is well. Not to be asked while a record is applied or a backlog
   /// drained. *Cost*: a walk over all adapters.
   std::string audit() const;
   unsigned auditErrors() const { return audit().empty() ? 0 : 1; }

   /// Told what went wrong with one record, with stream, offset, entity and attribute: the connection goes on. What it throws goes
   /// where reactors' exceptions go. During a drain it is kept until the end of that, the first 64 in words.
   using Report = Reports::Call;
   void reportIs(Report report) { reports_.callIs(std::move(report)); }
   /// Tells `text`, or what a function returns, to it. Never throws.
   template <class Text> void report(Text&& text) const noexcept { reports_.tell(std::forward<Text>(text)); }
   /// A fault of this library has been found where nothing can be thrown: reports it, and what it says is kept until the next
   /// connection, so that this one ends. \param make returns the text
   template <std::invocable Make> void failInternally(Make make) noexcept {
      try {
         if (internalFailure_.empty())
            internalFailure_ = "internal: " + make();
         report(internalFailure_);
      } catch (...) {
         Mox::detail::exceptionSwallowed(nullptr, attr::none);
      }
   }
   /// What is wrong with this end itself; empty while nothing is.
   std::string const& internalFailure() const noexcept { return internalFailure_; }
   /// Counts and reports that attribute `id` of an entity here holds what is no enumerator, and so is not sent.
   void unsent(Sa const& sa, AttributeId id, EnumException const& e);
   /// Told when a root is announced that its mirror can't be, with the reason: it is of another type, or was made with other
   /// constructor parameters.
   void mismatchIs(std::function<void(Sa&, std::string const& reason)> mismatch) { mismatch_ = std::move(mismatch); }
   /// Records of this connection whose fate is decided.
   U64 applied() const noexcept { return applied_; }
   void peerHighestSlotIs(std::uint32_t slot) noexcept { own_.highestIs(slot); }
   static constexpr std::uint32_t highestSlot = OwnSlots::highestSlot;

   /// Calls `visit` for every adapter on this stream, this side's first.
   void forEachAdapter(std::function<void(Sa&)> const& visit);

private:
   void announce(Entity& entity);
   void announceOrphan(Entity& entity);
   void writeAnnouncement(Sa& sa);
   bool isBelowWaitingRoot(Entity const* entity) const noexcept;
   bool isUnderAnnounced(Entity const& entity) const noexcept;
   void addReidentified(Sa const& sa, Entity const& entity);
   void writeRetirements();
   void allOweAll() noexcept;
   void tellLimits();
   void drainNow();

   void putDown() noexcept;
   bool takeUp(In& in) noexcept;
   void otherRecord(In& in);
   [[gnu::always_inline]] inline void applyRecord(Sa& sa, In& in);
   void applyAnnouncement(Sa& sa, In& in);
   void applyMarker(Sa& sa, In& in);
   void applicationFailed(Sa& sa, In& in);
   std::string mismatchOf(Entity const& mirror, std::vector<std::string_view> const& chain, In& in);
   void readOrphan(In& in);
   void reserveAnnounced(In const& in);
   void reserveFailed(EntityId id) noexcept;
   void countStale() noexcept {
      ++counters().staleRecords;
      mirrors_.countLate();
   }
   std::string where(In const& in, Sa const* sa, AttributeId id) const;

   void release(Mirror const& gone) noexcept;
   template <class Predicate> void releaseWaiting(Predicate is) noexcept;
   void releaseReplaced();
   void releaseBelow(Entity& top);
   std::string auditAdapters() const;

   Ptr<Out> out_;
   Ptr<In> in_;
   std::string peerName_;
   std::string internalFailure_;
   bool isOpen_ = false;
   bool isDraining_ = false;
   bool applicationStarted_ = false; ///< a mutator runs for the record in hand, or has run
   bool isLimitReported_ = false;    ///< on this connection

   Reports reports_;
   OwnSlots own_;
   PeerMirrors mirrors_;
   Backlog backlog_;
   std::vector<Ptr<Sa>> limited_; ///< roots that can't be told any more, until the end of the drain that met them
   Ptr<Entity> wanted_;           ///< what the last announcement that was taken back needs announced before it

   DeserializingEidAnchor* anchor_ = nullptr;
   U64 applied_ = 0; ///< records of this connection whose fate is decided
   U64 acknowledged_ = 0;
   U64 acknowledgedAt_ = 0;    ///< the stream's byte behind the last acknowledgement
   std::vector<U64> refusals_; ///< numbers of refused writes, ascending, since the last acknowledgement
   std::function<void(Sa&, std::string const&)> mismatch_;
   std::function<void(Entity&)> limitReached_;
   std::function<void(Entity&)> rootRetired_;
   std::vector<MoxType const*> reportedTypes_; ///< without a log, and reported for it
};

} // namespace NboAttrLog

/// The demultiplexer that reads `in`; null where it has none.
NboAttrLog::Demuxer* demuxFor(Ptr<NboAttrLog::In const> const& in);

} // namespace Mox
