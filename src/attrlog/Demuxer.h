#pragma once

#include "attrlog/In.h"
#include "attrlog/Out.h"
#include "attrlog/StateAdapter.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

namespace NboAttrLog {

/// One end of a stream between two processes: the identifiers of both sides, the adapters under them, the backlog and its
/// scheduler. Bytes come in and go out through `In` and `Out`; who carries them is none of its business.
///
/// Two tables, one per side, indexed by slot: no record costs a hash look-up. What this side has announced is forgotten at a cut;
/// what the peer has announced keeps its adapters, without identifiers, until it is announced again or the remount ends.
///
/// *Threads*: one. *Re-entrancy*: a reactor may do anything to entities while a record is applied; a drain inside a drain does
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

   // Life of a connection.
   /// A fresh stream: nothing has been announced on it.
   void opened() noexcept;
   /// The stream has ended. Forgets what this side announced, keeps the mirrors.
   void cut() noexcept;
   bool isOpen() const noexcept { return isOpen_; }

   // What this side announces.
   /// Makes or returns the adapter that announces `root`; nothing is written.
   Ptr<Sa> rootIs(Entity& root);
   /// Announces a root that `rootIs` returned, which owes everything from then on.
   void announceRoot(Sa& sa);
   /// Makes `root` a mirror that waits to be announced; writing to it is refused from here on.
   void mirrorRootIs(Entity& root);
   /// The adapter of `entity` on this stream, or null.
   Sa* adapterOf(Entity const& entity) const noexcept;
   /// The adapter that this side has announced under `id`, or null.
   Ptr<Sa> announcedUnder(EntityId id) const;
   /// Gives an identifier of this side; retirements that are due go out before.
   void assign(Sa& sa);
   /// The identifier under which a reference to `target` travels now. Announces it first where this side must: as a member of
   /// what is exported, else as an orphan.
   /// \throws NoEntityIdException where the peer must announce it first
   /// \throws AttrLogRecordException inside an open record, when an announcement is needed: write that first, then start again
   EntityId entityIdFor(Entity const* target);
   /// The target that the last `AttrLogRecordException` of `entityIdFor` wanted announced.
   void announceWanted();
   /// The announcement of `sa` has been committed: from here on it writes.
   void announced(Sa& sa, bool owesEverything);
   /// Takes `sa` and the adapters of everything below its entity out of the stream; their identifiers are retired.
   void forgetTree(Entity& top);
   /// As `forgetTree`, and references to what it held are told again under whatever identifier it gets next.
   void reidentify(Entity& top);
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
   void owesAllNoticed() noexcept { anyOwesAll_ = true; }
   void untoldNoticed() noexcept { anyUntold_ = true; }
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
   /// Binds the peer's identifier to an entity of this process.
   void bind(EntityId id, Entity& entity, bool isOrphan = false);
   /// \throws ProtocolException for an identifier that the peer may not announce (slot, generation)
   void checkAnnounced(EntityId id) const;
   /// The identifier, as the peer wrote it, of an entity that it or this side announced; null for 0 and for what is gone.
   Ptr<Entity> entityOf(EntityId wireId);
   /// The entity that `wireId` of the peer is bound to; null for none.
   Ptr<Entity> mirrorOf(EntityId wireId) noexcept;
   void retired(EntityId wireId);
   /// Whether `member` was announced on this connection under another identifier than `id`, which its name has now.
   bool isOfAnother(Entity const& member, EntityId id);
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
   /// Ends the mirrors below `top`; with null all of them.
   void forgetMirrors(Entity* top);
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
   void parkedIs(Sa& sa);

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
      std::size_t parked = 0;
      std::size_t retirements = 0;
      std::size_t bufferBytes = 0;
      std::size_t slots = 0; ///< entries of the two tables, in use or not
   };
   Footprint footprint() const;

   /// Told what went wrong with one record, with stream, offset, entity and attribute: the connection goes on.
   using Report = std::function<void(std::string const&)>;
   void reportIs(Report report) { report_ = std::move(report); }
   void report(std::string const& text) const {
      if (report_)
         report_(text);
   }
   /// Told when the announced type of a root is not its mirror's.
   void mismatchIs(std::function<void(Sa&)> mismatch) { mismatch_ = std::move(mismatch); }
   /// Records of this connection whose fate is decided.
   U64 applied() const noexcept { return applied_; }
   void peerHighestSlotIs(std::uint32_t slot) noexcept { peerHighestSlot_ = slot; }
   static constexpr std::uint32_t highestSlot = 0x00ffffff;

   /// Every demultiplexer of this thread, for what must reach an entity's adapters on all streams.
   static void forEach(std::function<void(Demuxer&)> const& visit);

   /// Calls `visit` for every adapter on this stream, this side's first.
   void forEachAdapter(std::function<void(Sa&)> const& visit);

private:
   struct OwnSlot {
      Ptr<Sa> sa;
      std::uint32_t generation = 0;
      bool owesRetirement = false;
   };
   struct PeerSlot {
      Ptr<Sa> sa;
      Ptr<Entity> entity; ///< held until the peer retires the identifier, so that references in order always resolve
      std::uint32_t generation = 0;
      bool isUsed = false;
   };

   // The inline ones are defined in Demuxer.cc, where they are on the road of every record.
   inline PeerSlot* peerSlot(EntityId wireId) noexcept;
   void announce(Entity& entity);
   void announceOrphan(Entity& entity);
   void writeAnnouncement(Sa& sa);
   bool isBelowWaitingRoot(Entity const* entity) const noexcept;
   bool isUnderAnnounced(Entity const& entity) const noexcept;
   void readOrphan(In& in);
   bool taken(In& in) noexcept;
   void letGo() noexcept;
   void otherRecord(In& in);
   [[gnu::always_inline]] inline void applyRecord(Sa& sa, In& in);
   void applyMarker(Sa& sa, In& in);
   void applicationFailed(Sa& sa, In& in);
   void flushRetirements();
   void owedAllPaid();
   void reidentifiedMarked();
   void syncModeSend(Sa& sa, SyncMode mode);
   void wake();
   void refreshesAsk();
   bool step(FlowOut& flow);
   void enqueue(FlowOut& flow) noexcept;
   void dequeue(FlowOut& flow) noexcept;
   PeerSlot takenFrom(PeerSlot& slot) noexcept;
   void release(PeerSlot const& gone) noexcept;
   std::size_t releaseAll(std::vector<PeerSlot> const& gone) noexcept;
   template <class Predicate> std::vector<PeerSlot> waitingTaken(Predicate&& isLet);
   void releaseWaitingBelow(Entity const& top);
   std::string where(In const& in, Sa const* sa, AttributeId id) const;

   Ptr<Out> out_;
   Ptr<In> in_;
   bool isOpen_ = false;
   bool isDraining_ = false;
   bool anyOwesAll_ = false;
   bool anyUntold_ = false;
   bool anyAwaited_ = false; ///< something was referred to, on this connection, before its owner has announced it again
   bool newIdentifiers_ = false;
   bool applicationStarted_ = false;
   bool isInHandCurrent_ = false; ///< `inHandId_` still stands for `inHand_`

   std::vector<OwnSlot> own_;
   std::vector<std::uint32_t> freeSlots_;
   std::vector<std::uint32_t> retirements_; ///< slots that owe one; room for every slot is kept
   std::vector<PeerSlot> peer_;
   std::uint32_t peerHighestSlot_ = highestSlot;
   PeerSlot inHand_; ///< what the last record was for
   EntityId inHandId_;
   std::vector<PeerSlot> waiting_; ///< of an earlier connection
   std::size_t syncing_ = 0;

   FlowOut* head_ = nullptr;
   FlowOut* tail_ = nullptr;
   std::vector<Sa*> parkedAdapters_;
   std::vector<Entity const*> reidentified_;
   std::vector<Ptr<Entity>> retiredMembers_; ///< mirrors whose identifier went before they left their parent
   Ptr<Entity> wanted_;

   DeserializingEidAnchor* anchor_ = nullptr;
   U64 applied_ = 0;
   U64 acknowledged_ = 0;
   U64 acknowledgedAt_ = 0;
   std::vector<U64> refusals_; ///< numbers of writes, ascending, since the last acknowledgement
   Counters counters_;
   Report report_;
   std::function<void(Sa&)> mismatch_;
   std::vector<MoxType const*> reportedTypes_;
   Demuxer* nextDemuxer_ = nullptr;
};

} // namespace NboAttrLog

/// The demultiplexer that reads `in`; null where it has none.
NboAttrLog::Demuxer* demuxFor(Ptr<NboAttrLog::In const> const& in);

} // namespace Mox
