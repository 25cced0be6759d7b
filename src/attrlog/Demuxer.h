// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "attrlog/AdapterLists.h"
#include "attrlog/In.h"
#include "attrlog/Out.h"
#include "attrlog/OwnSlots.h"
#include "attrlog/StateAdapter.h"
#include "attrlog/WaitingMirrors.h"
#include "core/Callback.h"
#include "mox/Swallowed.h"

#include <concepts>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
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
   template <std::invocable Write> bool isWritten(Entity const& entity, Write write) {
      std::size_t const mostRestarts = 1 + logOperationsOf(entity)->parameters;
      for (std::size_t restarts = 0;; ++restarts) {
         try {
            write();
            return true;
         } catch (RecordTooLong const&) {
            throw;
         } catch (AttrLogRecordException const&) {
            if (restarts == mostRestarts) {
               ++counters_.unfinishedAnnouncements;
               return false;
            }
            ++counters_.restartedAnnouncements;
            announceWanted();
         }
      }
   }
   /// The announcement of `sa` has been committed: from here on it writes.
   void announced(Sa& sa, bool owesEverything);
   /// Takes the adapters of `top` and of everything below it out of the stream; their identifiers are retired, and references to
   /// what they stood for are told again under whatever identifier it gets next.
   void reidentify(Entity& top) { static_cast<void>(unannounced(top)); }
   /// As `reidentify`. What was taken out is the caller's to let go of, which may run reactors.
   /// \throws std::bad_alloc; nothing has changed then
   [[nodiscard]] std::vector<Ptr<Entity>> unannounced(Entity& top);
   /// Ends everything that this side has announced.
   void forgetAnnounced();

   // The backlog.
   /// The flow of `sa`; makes one that starts at `startAttribute` where there is none, and queues it.
   FlowOut& createFlowOut(Sa& sa, AttributeId startAttribute = attr::owesNothing);
   /// Whether a change must queue behind others.
   bool hasBacklog() const noexcept { return head_ != nullptr; }
   /// Whether a change becomes a record at once.
   bool takesNow() const noexcept { return isOpen_ && head_ == nullptr && out_->hasSufficientBuffer(); }
   /// Writes what is owed as far as the buffer has room.
   void drain();
   /// Whether anything at all is owed, by a flow, by a mark or by a bit.
   bool owes() const noexcept;
   void owesAllNoticed(Sa& sa) noexcept { owing_.enqueue(sa); }
   /// The owner of `sa`'s entity is to be asked for something. \throws std::bad_alloc
   void untoldNoticed(Sa& sa) { asking_.add(sa); }
   /// Marks again what refers to entities whose identifier has changed. `drain` does so too; a carrier that is not asked for bytes
   /// does it behind each batch that has arrived, so that what is noted does not grow.
   void identifiersSettled();
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
   static constexpr EntityId ofPeer(EntityId id) noexcept { return {id.low ^ 2u, id.high}; }
   /// Applies the record in hand. The entity that it is for, and its adapter, are held until a record for another one comes, or
   /// `recordsEnd`: most changes come in runs. \throws ProtocolException only
   void record(In& in);
   /// No record follows: lets go of what the last one was for. A frame that is no record comes behind it.
   void recordsEnd() noexcept {
      if (inHand_.sa)
         letGo();
   }
   /// Binds the peer's identifier to an entity of this process. What the identifier stood for is let go last: that runs reactors,
   /// which may do anything here. \throws ProtocolException where a root would lose its identifier by that
   void bind(EntityId id, Entity& entity) {
      bindInRecord(id, entity);
      releasePending();
   }
   /// The same while a record is applied, behind which the rest is let go.
   void bindInRecord(EntityId id, Entity& entity, bool isOrphan = false);
   /// \throws ProtocolException for an identifier that the peer may not announce (slot, generation)
   void checkAnnounced(EntityId id) const;
   /// Keeps the slot of what the peer announced and this side can't make, until it is retired.
   /// \throws ProtocolException as `checkAnnounced`
   void reserve(EntityId id);
   /// How many parents `entity` has, as far as `frame::maximumDepth + 1`.
   static unsigned depthOf(Entity const& entity) noexcept;
   /// Has the peer asked to announce what `id` stands for under another identifier, and to tell again what refers to it.
   /// \throws ProtocolException as `checkAnnounced`
   void askedAnewIs(EntityId id);
   /// The identifier, as the peer wrote it, of an entity that it or this side announced; null for 0 and for what is gone.
   Ptr<Entity> entityOf(EntityId wireId);
   /// The entity that `wireId` of the peer is bound to; null for none.
   Ptr<Entity> mirrorOf(EntityId wireId) noexcept;
   void retired(EntityId wireId);
   /// Whether `member` stands under another identifier on this connection than `id`, which its name has now.
   bool isOfAnother(Entity const& member, EntityId id) const noexcept;
   void refresh(EntityId wireId, std::int32_t attribute, std::string_view key);
   /// Every entity that the peer has announced has been told whole.
   bool isSynced() const noexcept { return syncing_ == 0; }
   void syncing(Sa& sa, bool isSyncing);
   /// The peer has answered every mount and told every entity whole: what it has not announced again is gone.
   void remountEnded();
   /// The peer's collection holds `member` no more. A mirror of an earlier connection waits for nothing then: who refers to it
   /// would wait for the end of the remount, which may wait for that very reference.
   void isNoMember(Entity& member);
   /// Nothing is owed but what waits for mirrors of an earlier connection that the peer has not announced again.
   bool isWaiting() const noexcept;
   /// The peer waits for this side in turn: no such mirror will be announced before what waits for it has been told. Lets them go,
   /// so that they are announced from here. \return whether there were any
   bool waitsBroken();
   /// Ends the mirrors below `top`; with null all of them. \throws std::bad_alloc; nothing has changed then
   void forgetMirrors(Entity* top) { releaseAll(mirrorsTaken(top)); }
   /// The same in two steps: nobody is told before the second.
   [[nodiscard]] std::vector<Mirror> mirrorsTaken(Entity* top);
   /// Lets go of mirrors one after the other, which runs reactors; what those of one have announced again stays. \return how many
   /// were let go
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
   void parkedIs(Sa& sa) {
      parked_.add(sa);
      ++counters_.parked;
   }
   /// What parked marks wait for may be there: the next drain looks at them again.
   void parkedMayGoOn() noexcept { newIdentifiers_ = true; }

   /// What happened on this stream since it was made.
   struct Counters {
      U64 staleRecords = 0;    ///< for an identifier that has been retired
      U64 staleReferences = 0; ///< to an identifier that has been retired
      U64 unknownEnums = 0;    ///< records dropped for an enumerator that this side lacks
      U64 badValues = 0;       ///< records dropped for another value that this side can't hold
      U64 unknownAttributes = 0;
      U64 unknownTypes = 0; ///< orphans of a type that this side lacks
      U64 unknownKinds = 0;
      U64 refusedWrites = 0;         ///< of the peer, to what this side owns
      U64 tooLong = 0;               ///< records never sent, because the peer takes none of that length
      U64 withoutIdentifier = 0;     ///< records never sent, because the peer takes no further identifier
      U64 unsentEnums = 0;           ///< values and keys never sent, because they are no enumerators of their type
      U64 withoutLog = 0;            ///< references sent as null, because the target's type has no log
      U64 applicationExceptions = 0; ///< that left a mutator while a record was applied
      U64 restartedAnnouncements = 0;
      U64 unfinishedAnnouncements = 0; ///< given up after 1 + references restarts
      U64 parked = 0;
      U64 woken = 0;
      U64 sweptEntries = 0;
      U64 owedAll = 0;
      U64 collectionRestarts = 0;
      U64 pausedCollections = 0;
      U64 grownWhilePaused = 0;
      U64 reusedSlots = 0;
      U64 refreshesAsked = 0;
      U64 refreshesAnswered = 0;
      U64 renamedMembers = 0; ///< a name announced under another identifier within the connection
      U64 belowCursor = 0;    ///< marks set behind a flow's position, which a further round sends
      U64 abortedResends = 0; ///< resends of a collection that began anew before their end
      U64 brokenWaits = 0;    ///< mirrors let go because both ends waited for each other
   };
   Counters& counters() noexcept { return counters_; }
   Counters const& counters() const noexcept { return counters_; }

   /// Sizes of what this end holds: the terms of the memory formula.
   struct Footprint {
      std::size_t announced = 0; ///< identifiers of this side in use
      std::size_t mirrored = 0;  ///< of the peer
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

   /// Told what went wrong with one record, with stream, offset, entity and attribute: the connection goes on.
   using Report = std::function<void(std::string const&)>;
   void reportIs(Report report) { report_ = std::move(report); }
   /// What the function throws goes where reactors' exceptions go (mox/Swallowed.h): no record and no stream is at fault. During a
   /// drain it is kept until the end of that, the first 64 in words.
   void report(std::string const& text) const noexcept;
   /// The same for a text that is made here: without memory for it nothing is told, and nothing fails.
   template <std::invocable Make> void report(Make make) const noexcept {
      try {
         report(make());
      } catch (...) {
         Mox::detail::exceptionSwallowed(nullptr, attr::none);
      }
   }
   /// Counts and reports that attribute `id` of an entity here holds what is no enumerator, and so is not sent.
   void unsent(Sa const& sa, AttributeId id, EnumException const& e);
   /// Told when a root is announced that its mirror can't be, with the reason: it is of another type, or was made with other
   /// constructor parameters.
   void mismatchIs(std::function<void(Sa&, std::string const& reason)> mismatch) { mismatch_ = std::move(mismatch); }
   /// Records of this connection whose fate is decided.
   U64 applied() const noexcept { return applied_; }
   void peerHighestSlotIs(std::uint32_t slot) noexcept { peerHighestSlot_ = slot; }
   static constexpr std::uint32_t highestSlot = 0x00ffffff;

   /// Calls `visit` for every adapter on this stream, this side's first.
   void forEachAdapter(std::function<void(Sa&)> const& visit);

private:
   struct PeerSlot : Mirror {
      std::uint32_t generation = 0;
      bool isUsed = false;
      bool isOwedRetirement = false; ///< let go here, which the peer has still to learn and answer
      bool isAskedAnew = false;      ///< its owner is still to be asked for another identifier
   };

   // The inline ones are defined in Demuxer.cc, where they are on the road of every record.
   inline PeerSlot* peerSlot(EntityId wireId) noexcept;
   PeerSlot& neededSlot(EntityId id);
   bool hasGoneHere(EntityId id) const noexcept;
   void announce(Entity& entity);
   void announceOrphan(Entity& entity);
   void writeAnnouncement(Sa& sa);
   bool isBelowWaitingRoot(Entity const* entity) const noexcept;
   bool isUnderAnnounced(Entity const& entity) const noexcept;
   std::string mismatchOf(Entity const& mirror, std::vector<std::string_view> const& chain, In& in);
   void readOrphan(In& in);
   void reserveAnnounced(In const& in);
   void reserveFailed(EntityId id) noexcept;
   bool taken(In& in) noexcept;
   void letGo() noexcept;
   void otherRecord(In& in);
   [[gnu::always_inline]] inline void applyRecord(Sa& sa, In& in);
   void applyAnnouncement(Sa& sa, In& in);
   void applyMarker(Sa& sa, In& in);
   void applicationFailed(Sa& sa, In& in);
   void retirementsWrite();
   void owedAllPaid();
   void reidentified(Sa const& sa, Entity const& entity);
   void allOweAll() noexcept;
   void syncModeSend(Sa& sa, SyncMode mode);
   void wake();
   void refreshesAsk();
   void limitsTell();
   void drainNow();
   void reportsTell() noexcept;
   bool step(FlowOut& flow);
   void enqueue(FlowOut& flow) noexcept;
   void dequeue(FlowOut& flow) noexcept;
   Mirror takenFrom(PeerSlot& slot) noexcept;
   void release(Mirror const& gone) noexcept;
   template <class Predicate> void releaseWaiting(Predicate is) noexcept;
   void releasePending();
   void releaseBelow(Entity& top);
   void peerSlotsTrim() noexcept;
   void staleCounted() noexcept {
      ++counters_.staleRecords;
      ++stale_;
   }
   std::string auditFlows() const;
   std::string auditMirrors() const;
   std::string auditLists() const;
   std::string where(In const& in, Sa const* sa, AttributeId id) const;

   Ptr<Out> out_;
   Ptr<In> in_;
   std::string peerName_;
   bool isOpen_ = false;
   bool isDraining_ = false;
   bool anyAwaited_ = false; ///< something was referred to, on this connection, before its owner has announced it again
   bool newIdentifiers_ = false;
   bool applicationStarted_ = false;
   bool isInHandCurrent_ = false; ///< `inHandId_` still stands for `inHand_`
   bool isLimitReported_ = false; ///< on this connection

   OwnSlots own_;
   std::vector<PeerSlot> peer_; ///< by slot; may end before the highest slot that the peer has used
   std::size_t peerEnd_ = 0;    ///< behind the highest slot that the peer has announced on this connection
   std::size_t mirrored_ = 0;   ///< slots in use
   std::size_t askedAnew_ = 0;  ///< slots with `isAskedAnew`
   std::uint32_t peerHighestSlot_ = highestSlot;
   Mirror inHand_; ///< what the last record was for
   EntityId inHandId_;
   WaitingMirrors waiting_;
   std::vector<Mirror> letGo_; ///< lost their identifier to another while a record was applied; let go behind it
   std::size_t syncing_ = 0;

   FlowOut* head_ = nullptr;
   FlowOut* tail_ = nullptr;
   AdapterQueue owing_;                             ///< owe everything and have been heard of since
   NotedAdapters<&Notes::parkedAt> parked_;         ///< have marks that wait for an identifier
   NotedAdapters<&Notes::askingAt> asking_;         ///< have something to ask the owner for
   std::unordered_set<Entity const*> reidentified_; ///< never looked at, only compared: they may be gone
   std::vector<Ptr<Sa>> limited_;                   ///< roots that can't be told any more
   Ptr<Entity> wanted_;

   DeserializingEidAnchor* anchor_ = nullptr;
   U64 applied_ = 0;
   U64 acknowledged_ = 0;
   U64 acknowledgedAt_ = 0;
   U64 stale_ = 0;             ///< stale records of this connection
   std::vector<U64> refusals_; ///< numbers of writes, ascending, since the last acknowledgement
   Counters counters_;
   Callback<void(std::string const&)> report_;
   static constexpr std::size_t mostReports = 64;
   mutable std::vector<std::string> reports_; ///< of the drain that runs
   mutable std::size_t unreported_ = 0;       ///< that came behind those
   std::function<void(Sa&, std::string const&)> mismatch_;
   std::function<void(Entity&)> limitReached_;
   std::function<void(Entity&)> rootRetired_;
   std::vector<MoxType const*> reportedTypes_;
};

} // namespace NboAttrLog

/// The demultiplexer that reads `in`; null where it has none.
NboAttrLog::Demuxer* demuxFor(Ptr<NboAttrLog::In const> const& in);

} // namespace Mox
