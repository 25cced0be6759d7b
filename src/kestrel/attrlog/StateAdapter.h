// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/AdapterLife.h"
#include "kestrel/attrlog/FlowOut.h"
#include "kestrel/attrlog/IntrusiveQueue.h"
#include "kestrel/attrlog/MsgHeader.h"
#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/mox/Reactor.h"

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Mox {

class MoxType;
class StreamAdapter;

namespace NboAttrLog {
class Demuxer;
class In;
class Out;

/// What a received record says beside its value; passed on unchanged to the framework's level.
struct DeserializationOptions {
   std::uint32_t bits = 0;
};

/// What the log does with a type that it does not know: make an entity from a record, and an adapter for an entity.
struct TypeOperations {
   Ptr<Entity::MoxNboAttrLogSa> (*adapter)(Entity&, Mox_BitSet flags, Demuxer&) = nullptr;
   /// Whether an adapter is of the type.
   bool (*isAdapter)(Entity::MoxNboAttrLogSa const&) = nullptr;
   /// Makes an entity from its name and the constructor parameters that `in` holds; null for a type that no peer may make.
   Ptr<Entity> (*create)(Name const& name, In& in, Demuxer&) = nullptr;
   /// Whether `entity` was made with the parameters that `in` holds.
   bool (*parametersMatch)(Entity const& entity, In& in, Demuxer&) = nullptr;
   /// Writes the constructor parameters behind the name, in order.
   void (*writeParameters)(Entity const& entity, Out& out, Demuxer&) = nullptr;
   /// Announces what the constructor parameters refer to. \throws NoEntityIdException where the peer must announce it
   void (*announceParameters)(Entity const& entity, Demuxer&) = nullptr;
   /// Whether a constructor parameter refers to one of `targets`.
   bool (*hasParameter)(Entity const& entity, std::unordered_set<Entity const*> const& targets) = nullptr;
   std::size_t parameters = 0;
};

/// What was written here although the owner is another process: asked for again, and told once when it comes.
struct Untold {
   bool isTold = false; ///< the reactors know what is here: the answer tells them a difference or nothing
   bool isOld = false;  ///< written before this connection told the entity: the resend answers it
};

/// What an adapter has to remember beside its backlog. Few adapters have anything, and only those have notes.
struct Notes {
   static constexpr std::uint32_t unlisted = ~std::uint32_t{0};

   MarkSet parked; ///< wait for an identifier; one per reference or key
   MarkMap<Untold> untold;
   MarkSet unasked;    ///< those of `untold` that the owner is still to be asked for
   MarkSet successors; ///< created raw in the place of an announced member; one per member
   MarkSet retired;    ///< members whose identifier the owner has retired before it told that they are gone
   // Positions in the demultiplexer's lists.
   std::uint32_t parkedAt = unlisted;
   std::uint32_t askingAt = unlisted;

   bool empty() const noexcept {
      return parked.empty() && untold.empty() && unasked.empty() && successors.empty() && retired.empty() &&
             parkedAt == unlisted && askingAt == unlisted;
   }
   std::size_t size() const noexcept {
      return parked.size() + untold.size() + unasked.size() + successors.size() + retired.size();
   }
};

/// The log operations of an entity's type, its base's where it has none of its own; null without a log.
TypeOperations const* logOperationsOf(Entity const& entity);

} // namespace NboAttrLog

using NboAttrLog::AttrTransactionType;

/// Resend state of one entity as its peer announces it (record 135).
enum class SyncMode : unsigned { none = 0, live = 1, resend = 2 };

/// Base of the objects that stand between one entity and one stream.
class StreamAdapter : public PtrInterface {
public:
   // State flags: the bits that the library tests. Those that it never sets itself come with the flags that an adapter is made with,
   // and say so. `flagIs` alone changes a bit of an adapter that has been made.
   static constexpr std::uint32_t readOnlyCopy = 0x4;  ///< bit 2: the entity is a mirror that only its owner writes
   static constexpr std::uint32_t readOnlyProxy = 0x8; ///< bit 3: the peer may not write
   static constexpr std::uint32_t applying = 0x10;     ///< bit 4: this adapter's own application runs innermost
   static constexpr std::uint32_t letGo = 0x20; ///< bit 5: the mirror is about to be an entity of this process alone
   static constexpr std::uint32_t suppressed =
      letGo | 0x100;                              ///< bits 5 and 8 (never set here): nothing is written or marked
   static constexpr std::uint32_t weak = 0x40;    ///< bit 6: the entity is not kept alive
   static constexpr std::uint32_t inert = 0x2000; ///< bit 13, never set here: the adapter takes no notice of anything
   static constexpr std::uint32_t flowOutMode =
      0x100000; ///< bit 20, never set here: write only into free buffer, else through a flow
   /// bit 21: the entity is a mirror on another stream, whose owner's values alone are passed on
   static constexpr std::uint32_t relays = 0x200000;
   static constexpr std::uint32_t draining = 0x400000; ///< bit 22: a scheduled flow-out is being handled
   static constexpr std::uint32_t noReannounce =
      0x2000000; ///< bit 25, never set here: an announced member is not announced again
   static constexpr std::uint32_t serializing = 0x4000000; ///< bit 26: clear until the announcement has been committed
   static constexpr std::uint32_t alwaysDefer =
      0x8000000; ///< bit 27, never set here: with bit 20 every change goes through a flow
   /// Bits that an adapter keeps when it is handed new flags.
   static constexpr std::uint32_t ownBits = 0x5700000;
   /// Bits that say whose the entity is and what its adapter is in the middle of: no caller changes them.
   static constexpr std::uint32_t lifeBits = readOnlyCopy | readOnlyProxy | applying | letGo | weak;
   /// Bits that a child does not inherit from its parent's adapter.
   static constexpr std::uint32_t notInherited = 0x5700400;

   NboAttrLog::Demuxer* streamDemuxer() const noexcept { return demuxer_; }
   /// Null once the adapter is detached.
   Ptr<NboAttrLog::Out> nboAttrLogOut() const;
   /// Assigned while the adapter is identified, announced or bound.
   EntityId entityId() const noexcept { return entityId_; }
   std::uint32_t stateFlags() const noexcept { return flags_; }
   bool hasFlag(std::uint32_t f) const noexcept { return (flags_ & f) != 0; }
   void flagIs(std::uint32_t f, bool on) noexcept { flags_ = on ? flags_ | f : flags_ & ~f; }
   Mox_BitSet notificationFlags() const noexcept { return {flags_ & Mox_BitSet::notificationBitMask}; }
   /// Replaces the flags outside `ownBits`.
   void notificationFlagsIs(Mox_BitSet flags) noexcept { flags_ = (flags_ & ownBits) | (flags.bits & ~ownBits); }
   SyncMode syncMode() const noexcept { return syncMode_; }

   /// True for the adapter of a mirror: its identifier, if any, is the peer's.
   bool isMirror() const noexcept { return hasFlag(readOnlyCopy); }

protected:
   StreamAdapter(Mox_BitSet flags, NboAttrLog::Demuxer* demuxer) noexcept
      : PtrInterface(stateAdapterKind), demuxer_(demuxer), flags_(flags.bits) {}

   NboAttrLog::Demuxer* demuxer_;
   std::uint32_t flags_;
   EntityId entityId_;
   SyncMode syncMode_ = SyncMode::none;
};

/// State adapter: mirrors one entity over one stream. Writes what changes, or marks it in a flow while the stream has no room;
/// applies what the peer sends.
///
/// *Lifetime*: made when the entity is announced, or bound to an announcement. Adapters of roots keep their entity, those of
/// members and orphans do not: they detach when it goes.
class Entity::MoxNboAttrLogSa : public StreamAdapter {
public:
   ~MoxNboAttrLogSa() override;

   /// Pauses the adapter: it writes nothing and marks nothing. Resumed, it owes its whole entity.
   void hasNotificationActiveIs(bool active) override;
   bool isPaused() const noexcept { return isPaused_; }
   /// Takes over `notifier` as the entity; null detaches the reactor.
   virtual void notifierIs(Ptr<PtrInterface const> const& notifier);
   /// Drains the backlog from attribute `start`. \return where to go on, or 0 when it has come to the end
   virtual AttributeId handleAttrFlowOut(AttributeId start);
   virtual void freeResyncState(Ptr<NboAttrLog::FlowOut> const& flow);
   virtual void moxInstantiateSerialize();
   virtual Ptr<Entity const> moxNotifierEntity() const;
   virtual Ptr<Entity> moxNotifierEntity();
   /// Announces the entity as one without a parent.
   virtual void doSerializeOrphan();
   /// Applies one record whose header has been read. `aid` is negative for a removal. With a non-null `in` the value is skipped and
   /// the entity's current one written instead. \return 1 where the identifier is known, else 0
   virtual int handleAttrDeserialization(std::int32_t aid, NboAttrLog::DeserializationOptions options, unsigned count,
                                         Ptr<NboAttrLog::In> const& in);
   virtual int handleAttrTransaction(AttributeId aid, AttrTransactionType type, unsigned count);
   virtual Ptr<NboAttrLog::FlowOut> flowOutIs(AttributeId startAttribute) = 0;
   /// Runs the change handler of `id`; `key` points to the key of a keyed attribute.
   virtual void doNotification(AttributeId id, void* key);
   virtual void syncModeIs(SyncMode mode);
   virtual void moxDoZombieReactors(bool zombie);
   virtual void doRemountSelf(Ptr<NboAttrLog::Out> const& out);
   // Behind the contract's slots: what the scheduler asks of a level.
   /// Marks again what a suspended flow could not write, or what a peer asks to be told again.
   virtual void markAgain(NboAttrLog::Mark const& mark);
   /// The peer asks to be told again; a member gets a new identifier, and is owed whole.
   virtual void refreshAsked(NboAttrLog::Mark const& mark);
   /// Takes the mark out of the flow, for the time until its target has an identifier.
   virtual void unmark(NboAttrLog::Mark const& mark);
   /// What `mark` refers to has no identifier yet: moves it from `flow` to what waits for one, and lets the flow go on.
   void parkedIs(NboAttrLog::FlowOut& flow, NboAttrLog::Mark mark);
   /// Marks every reference whose target is in `targets`; `onMember` is told the members whose constructor parameters are.
   virtual void markReferencesTo(std::unordered_set<Entity const*> const& targets);
   /// Whether `id` is a collection whose members are announced.
   virtual bool hasMembers(AttributeId id) const;
   /// Announces `member` of the collection `id` now, as the group that a reference needs.
   virtual void announceMember(AttributeId id, Entity& member);
   /// The open resend of `id` has ended without its end marker: takes its marks along.
   virtual void marksDel(AttributeId id);
   /// The announced member `mark` has left the collection: silently, where another one has its name now.
   virtual void memberLeft(NboAttrLog::Mark const& mark);
   /// Tells the reactors what `mark`, which was written here and never told, is now: nobody will put it right any more.
   virtual void tellUntold(NboAttrLog::Mark const& mark);
   /// The body of a `refresh` for `mark`'s key.
   virtual void writeKey(NboAttrLog::Mark const& mark, std::vector<std::uint8_t>& bytes) const;
   virtual NboAttrLog::Mark readKey(AttributeId id, NboAttrLog::In& in) const;

   virtual void onZeroReferences();
   virtual void onNotificationException(AttributeId id);
   /// The announced entity may have left its collection.
   void onParent() noexcept;

   Entity* entity() const noexcept { return entity_; }
   Ptr<NboAttrLog::FlowOut> const& flow() const noexcept { return flow_; }
   void flowIs(Ptr<NboAttrLog::FlowOut> flow) noexcept { flow_ = std::move(flow); }

   /// Only this adapter's own application or sweep of `id`, and only while it is the innermost thing running.
   bool handlingFlowInFor(AttributeId id) const noexcept { return hasFlag(applying) && applyingId_ == id; }
   /// Ends this adapter's own application of `id`, if that is what is being told: the commonest answer of a mirror's adapter.
   bool applyingTaken(AttributeId id) noexcept {
      if ((flags_ & (applying | inert)) != applying || applyingId_ != id)
         return false;
      applyingConsumed();
      return true;
   }
   /// Whether a read-only copy may be written here all the same.
   virtual bool convertedToWritable(bool) { return false; }
   bool readOnlyRemoteOk(AttributeId) const noexcept { return !hasFlag(readOnlyProxy); }
   /// Whether nothing of this adapter's own stands between a change and its record: it is an exporter's, has been announced, and
   /// owes nothing. What is true of nearly all changes, in one comparison.
   bool isPlainExporter() const noexcept {
      return (flags_ & (decisive | draining | alwaysDefer)) == serializing && !isPaused_ && !flow_ &&
             demuxer_ != nullptr;
   }
   /// The same of a value that is owed and of its turn in a drain.
   bool isPlainDrainer() const noexcept {
      return (flags_ & (decisive | draining)) == (serializing | draining) && !isPaused_ && demuxer_ != nullptr;
   }
   /// Whether a record may be written at once: during a drain, or with room and nothing owed by the stream.
   bool prepareImmediateTransmission(AttributeId id, bool isTight);
   [[noreturn]] void doThrowReadOnly(AttributeId id) const;
   /// Framework hook between an adapter's making and its announcement: prepares, tells nothing.
   void moxOnInit() {}
   void sendTransactionMarker(AttributeId id, AttrTransactionType type, unsigned count);
   /// Writes the record that says how far the telling of this entity has come.
   void sendSyncMode(SyncMode mode);

   // The life of the adapter, and its transitions (AdapterLife.h). Those that can't fail report an impossible one, and the
   // connection ends.
   NboAttrLog::Phase phase() const noexcept { return life_.phase(); }
   NboAttrLog::Standing standing() const noexcept { return life_.standing(); }
   bool isOrphan() const noexcept { return standing() == NboAttrLog::Standing::orphan; }
   bool isRoot() const noexcept { return standing() == NboAttrLog::Standing::root; }
   /// \throws InternalException for a root, which stays one
   void standingIs(NboAttrLog::Standing standing) { life_.standingIs(standing); }
   /// Made by `moxNboAttrLogSaIs` before anything has announced the entity: the announcement, whichever comes, takes it over.
   bool isMadeInAdvance() const noexcept {
      return !isMirror() && standing() == NboAttrLog::Standing::member && !isAnnounced();
   }
   /// Whether the peer knows the entity under the adapter's identifier, whoever of both has announced it.
   bool isAnnounced() const noexcept {
      return phase() == NboAttrLog::Phase::announced || phase() == NboAttrLog::Phase::bound;
   }
   bool isDetached() const noexcept { return phase() == NboAttrLog::Phase::detached; }
   /// It has a slot of this side's. One that was made with the flag `serializing` has been announced by who made it.
   /// \throws InternalException; nothing has changed then
   void identify(EntityId id);
   /// \throws InternalException; nothing has changed then
   void commitAnnouncement();
   void wait() noexcept;
   void bindTo(EntityId id) noexcept;
   void takeOut() noexcept;
   /// From here on, what a reactor writes is a change of an entity of this process, told as any other, and no refused one.
   void release() noexcept;
   /// Takes the adapter off its entity and out of its stream. Nothing of it is called any more.
   void detach() noexcept;

   bool isSyncing() const noexcept { return isSyncing_; }
   void isSyncingIs(bool syncing) noexcept { isSyncing_ = syncing; }

   /// The adapter owes its whole entity. Sets one bit: can't fail.
   void owesAllIs() noexcept;
   bool owesAll() const noexcept { return owesAll_; }
   void owesAllDel() noexcept { owesAll_ = false; }
   /// The peer has announced this mirror, on this connection or an earlier one.
   bool wasBound() const noexcept { return wasBound_; }
   /// The mirror has been handed over by `other`, an adapter of another stream.
   void takeOverFrom(MoxNboAttrLogSa const& other) {
      standingIs(other.standing());
      wasBound_ = other.wasBound_;
   }
   /// Something on this stream refers to the entity, or has: a new identifier concerns others.
   bool isReferred() const noexcept { return isReferred_; }
   void isReferredIs(bool referred) noexcept { isReferred_ = referred; }

   /// Null where there is nothing to remember.
   NboAttrLog::Notes* notes() const noexcept { return notes_.get(); }
   /// Frees notes that say nothing any more.
   void notesTrim() noexcept {
      if (notes_ && notes_->empty())
         notes_ = nullptr;
   }

   // Marks that wait for an identifier.
   std::size_t parkedCount() const noexcept { return notes_ ? notes_->parked.size() : 0; }
   /// Whether a key of the attribute waits.
   bool isParked(AttributeId id) const noexcept;
   /// The mark has been written, or waits no more. \return whether it waited
   bool parkedDel(NboAttrLog::Mark const& mark) noexcept { return notes_ && notes_->parked.erase(mark) != 0; }
   /// No key of the attribute waits any more; of any with `attr::none`.
   void parkedDelAll(AttributeId id) noexcept;

   // What was written here and not told.
   bool hasUntold() const noexcept { return notes_ && !notes_->untold.empty(); }
   /// Whether `mark` stands here as somebody wrote it, without its owner.
   bool isUntold(NboAttrLog::Mark const& mark) const { return notes_ && notes_->untold.contains(mark); }
   /// The connection has ended: the next resend answers what this one has not.
   void untoldCut() noexcept;
   /// The mirror waits for its owner with this adapter from now on, and no more with `other`.
   void untoldTakenOver(MoxNboAttrLogSa& other) noexcept;
   /// What that needs. \throws std::bad_alloc
   void untoldReserve(MoxNboAttrLogSa const& other) {
      if (other.hasUntold())
         neededNotes();
   }

   /// The owner has retired the identifier of the member `mark` while it still stands here.
   void retiredIs(NboAttrLog::Mark mark) { neededNotes().retired.insert(std::move(mark)); }
   /// Whether that was said of `mark`; forgets it.
   bool retiredTaken(NboAttrLog::Mark const& mark) noexcept { return notes_ && notes_->retired.erase(mark) != 0; }

   /// The adapter that `reactor` carries notifications to; null for a reactor of anything else, whatever it says of itself.
   static MoxNboAttrLogSa* ofReactor(PtrInterface::NotifieeConst const& reactor) noexcept {
      return static_cast<MoxNboAttrLogSa*>(reactor.moxRawStateAdapter());
   }

   /// The adapter by which `entity` is a mirror, on whatever stream; null where it is none.
   static MoxNboAttrLogSa* mirrorAdapterOf(Entity const& entity) noexcept;
   /// Whether a member of this mirror came from its owner, and not from somebody here.
   bool isOwners(Entity const& member) const noexcept;

   /// Whether the peer has a resend of a collection of this entity open.
   bool hasFlowIn() const noexcept { return !flowsIn_.empty(); }
   /// The peer has opened a resend of `id`.
   void flowInIs(AttributeId id);
   /// Ends the flow-in of `id`, its marks apart. \return whether there was one
   bool flowInTaken(AttributeId id) noexcept;
   /// Ends every flow-in, with its marks.
   void flowsInDelAll() noexcept;

   /// The adapter, by its identifier, under which this member was announced.
   void memberOfIs(EntityId parent) noexcept { memberOf_ = parent; }

   /// Something here can't be told before the peer announces this mirror again.
   bool isAwaited() const noexcept { return isAwaited_; }
   void isAwaitedIs(bool awaited) noexcept { isAwaited_ = awaited; }

   // Where this adapter stands in the stream's lists. Only those change it.
   /// In the queue of the adapters that owe everything.
   NboAttrLog::QueueLinks<MoxNboAttrLogSa>& queueLinks() noexcept { return queueLinks_; }
   NboAttrLog::QueueLinks<MoxNboAttrLogSa> const& queueLinks() const noexcept { return queueLinks_; }
   /// Among the mirrors that wait to be announced again; `Notes::unlisted` for one that does not wait.
   std::uint32_t waitingAt() const noexcept { return waitingAt_; }
   void waitingAtIs(std::uint32_t place) noexcept { waitingAt_ = place; }

   /// The reactor's raw way back to its adapter; cleared when the adapter goes.
   class ReactorLink {
   public:
      explicit ReactorLink(MoxNboAttrLogSa* sa) noexcept : sa_(sa) {}
      MoxNboAttrLogSa* moxReactorAdapter() const noexcept { return sa_; }
      void moxReactorAdapterIs(MoxNboAttrLogSa* sa) noexcept { sa_ = sa; }

   protected:
      ~ReactorLink() = default;
      MoxNboAttrLogSa* sa_;
   };
   /// Hands over the reactor, which is attached and registered as the adapter's flags say.
   template <class Reactor> void reactorIs(Ptr<Reactor> const& reactor) {
      link_ = reactor.get();
      adapter_ = reactor;
      attachReactor();
   }

protected:
   MoxNboAttrLogSa(Mox_BitSet flags, Ptr<Entity> const& entity, NboAttrLog::Demuxer* demuxer);

   static constexpr std::uint32_t decisive = inert | suppressed | readOnlyCopy | applying | serializing | relays;

   /// From here to the end of an `Applying` a mutator of the entity runs for the peer: what it tells this adapter of `id` is not
   /// echoed.
   void applyingBegins(AttributeId id) noexcept {
      flagIs(applying, true);
      applyingId_ = id;
   }
   /// Puts back, when it ends, what was being applied when it began: a record may be applied within another's reactors.
   class Applying {
   public:
      explicit Applying(MoxNboAttrLogSa& sa) noexcept
         : sa_(sa), outerFlag_(sa.hasFlag(applying)), outerId_(sa.applyingId_) {}
      ~Applying() {
         sa_.flagIs(applying, outerFlag_);
         sa_.applyingId_ = outerId_;
      }
      Applying(Applying const&) = delete;
      Applying& operator=(Applying const&) = delete;
      /// The mutator told nobody: what it was given was equal.
      bool wasSilent() const noexcept { return sa_.hasFlag(applying); }

   private:
      MoxNboAttrLogSa& sa_;
      bool outerFlag_;
      AttributeId outerId_;
   };

   void attachReactor();
   void enterUnasked(NboAttrLog::Phase phase) noexcept;
   /// \throws InternalException for an update that the peer may not send, or while another is being applied
   void checkPeerMayWrite() const {
      if (hasFlag(applying | readOnlyProxy)) [[unlikely]]
         throwPeerMayNotWrite();
   }
   [[noreturn]] void throwPeerMayNotWrite() const;
   /// A record of `id` that the peer does not take has been given up: counts and reports it.
   void tooLong(AttributeId id, std::exception const& e) const;
   void applyingConsumed() noexcept { flagIs(applying, false); }
   /// Has the owner asked what `mark` is there; `isTold` where the reactors know what it is here. Never throws; without memory
   /// the whole entity is asked for.
   void askOwner(NboAttrLog::Mark mark, bool isTold = false) noexcept;
   /// As `askOwner`, for what is untold and may have been answered with all others.
   void askOwnerAgain(NboAttrLog::Mark const& mark) noexcept;
   NboAttrLog::Notes& neededNotes() {
      if (!notes_)
         notes_ = std::make_unique<NboAttrLog::Notes>();
      return *notes_;
   }
   /// Whether `mark` names a member that nobody was told of, in the place of an announced one; forgets it.
   bool successorTaken(NboAttrLog::Mark const& mark) noexcept { return notes_ && notes_->successors.erase(mark) != 0; }
   /// The note of what was written here and not told, while what may be its owner's answer is applied.
   class Answer {
   public:
      explicit Answer(MoxNboAttrLogSa& sa) noexcept : sa_(sa) {}
      /// Takes the note of `mark`, if there is one. To be called behind the making of an `Applying`.
      void markIs(NboAttrLog::Mark const& mark) noexcept;
      /// Whether the reactors are owed word.
      bool isOwed() const noexcept { return note_ && !note_.mapped().isTold; }
      /// There was no memory to apply it: where nobody has been told, the note goes back. The owner will be asked again.
      void failed() noexcept;

   private:
      MoxNboAttrLogSa& sa_;
      NboAttrLog::MarkMap<NboAttrLog::Untold>::node_type note_;
   };
   /// What `mark` is here has been told; what its owner will answer is still to come.
   void untoldToldIs(NboAttrLog::Mark const& mark) noexcept {
      if (notes_)
         if (auto const at = notes_->untold.find(mark); at != notes_->untold.end())
            at->second.isTold = true;
   }

   // A chain: the entity is a mirror on another stream, and this adapter passes on what its owner says.
   /// The mirror's adapter, while what is written here is refused there; null where it is not.
   MoxNboAttrLogSa const* upstream() const noexcept;
   /// Whether a change of `id` that is being told is none of the owner's: the mirror's adapter, which refuses it, is told later.
   bool isRefusedBehind(AttributeId id) const noexcept;
   /// Whether what `mark` is here was written here and refused, and its owner has not answered. It is parked until he has.
   bool isWithheld(NboAttrLog::Mark const& mark);
   /// Parks everything of the collection `id` that was written here and refused.
   void withholdAll(AttributeId id);
   /// Whether `member` of the collection `id` came from nobody but this process.
   bool isStranger(AttributeId id, Entity const& member) const noexcept;
   void park(NboAttrLog::Mark const& mark);
   /// Says to the other adapters of `entity` whether it is a mirror now.
   static void relaysSettle(Entity const& entity) noexcept;
   /// What the others have withheld has been answered.
   void relaysWake() const noexcept;

   Entity* entity_;   ///< null once the adapter is detached
   Ptr<Entity> kept_; ///< the same for an adapter that keeps its entity alive
   NboAttrLog::AdapterLife life_;
   bool isSyncing_ = false;  ///< bound, from the announcement or a begin on until the peer has told the entity whole
   bool owesAll_ = false;    ///< until the drain that has queued it, or asked for it, instead
   bool isPaused_ = false;   ///< notifications are off
   bool isAwaited_ = false;  ///< waiting, and a reference to it could not be told; until the next cut
   bool isReferred_ = false; ///< a reference to it was written on this connection
   bool wasBound_ = false;   ///< from its first announcement on, for good
   bool hasLeftOut_ = false; ///< a member was left out, which is to be told once the entity is a mirror no more
   AttributeId applyingId_ = attr::none; ///< meaningful while the flag `applying` is set
   EntityId memberOf_;                   ///< the parent's, at the last announcement as a member
   ReactorLink* link_ = nullptr;         ///< null once the adapter is detached
   Ptr<PtrInterface::NotifieeConst> adapter_;
   Ptr<NboAttrLog::FlowOut> flow_;
   std::unique_ptr<NboAttrLog::Notes> notes_;
   std::vector<AttributeId> flowsIn_;

private:
   NboAttrLog::QueueLinks<MoxNboAttrLogSa> queueLinks_;
   std::uint32_t waitingAt_ = NboAttrLog::Notes::unlisted;
};

} // namespace Mox
