// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/In.h"
#include "kestrel/attrlog/NotedAdapters.h"
#include "kestrel/attrlog/Out.h"
#include "kestrel/attrlog/OwnSlots.h"
#include "kestrel/attrlog/Reports.h"
#include "kestrel/attrlog/StateAdapter.h"
#include "kestrel/attrlog/WaitingMirrors.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Mox::NboAttrLog {

/// "slot 7 generation 2", for messages.
std::string textOf(EntityId id);

/// The identifiers that the peer gives out on one connection, and the entities of this process that mirror what stands under them;
/// beside those the mirrors of an earlier connection, which wait to be announced again.
///
/// Nothing here runs a reactor: what has to be released is handed out, and whoever takes it releases it when all is done. What was
/// replaced while a record was applied is kept until `takeReplaced`.
class PeerMirrors {
public:
   using Sa = Entity::MoxNboAttrLogSa;

   /// What the peer uses one of its slots for.
   struct Slot : Mirror {
      std::uint32_t generation = 0;
      bool isUsed = false;           ///< the peer has announced the generation and not retired it
      bool isOwedRetirement = false; ///< released here by an unmount; the peer's retirement is still to come
      bool isAskedAnew = false;      ///< its owner is still to be asked to announce it under another identifier
   };

   PeerMirrors() = default;
   PeerMirrors(PeerMirrors const&) = delete;
   PeerMirrors& operator=(PeerMirrors const&) = delete;

   /// An identifier as the peer writes it and as this side keeps it: each side calls itself side 1.
   static constexpr EntityId ofPeer(EntityId id) noexcept { return {id.low ^ 2u, id.high}; }

   // Identifiers. All of them as the peer writes them.
   /// The slot of `id`, while the peer uses it; else null.
   Slot const* find(EntityId id) const noexcept {
      if (!id.isAssigned() || id.slot() >= slots_.size())
         return nullptr;
      Slot const& slot = slots_[id.slot()];
      return slot.isUsed && slot.generation == id.generation() ? &slot : nullptr;
   }
   /// \throws ProtocolException for an identifier that the peer may not announce now; `in` says where it was read
   void check(EntityId id, In const& in) const;
   /// Whether what the peer announces under `id` was unmounted here while its announcement was under way.
   bool hasGone(EntityId id) const noexcept;
   /// A record has come for something that was unmounted here meanwhile. It may have announced slots that this side never saw.
   void countLate() noexcept { ++late_; }
   /// Keeps the slot of what this side can't make, until the peer retires it. \throws ProtocolException as `check`, std::bad_alloc
   void reserve(EntityId id, In const& in);
   /// Has the peer asked to announce what `id` stands for under another identifier, and to tell again what refers to it.
   /// \throws as `reserve`
   void askAnew(EntityId id, In const& in);

   // Mirrors.
   /// Makes room for binding `id`, so that `bind` can't fail. \return false where `entity` is bound to it already
   /// \throws ProtocolException as `check`, std::bad_alloc
   bool prepareBinding(EntityId id, Entity const& entity, In const& in);
   /// From here on `id` stands for `entity`. Takes the adapter out of the waiting ones; what `id` stood for is kept with the replaced.
   void bind(EntityId id, Sa& sa, Entity& entity) noexcept;
   /// Takes a bound or waiting mirror out: no identifier stands for it from here on.
   Mirror take(Sa& sa) noexcept;
   /// The same of what `id` stands for.
   Mirror take(EntityId id) noexcept;
   /// Takes out a mirror whose owner has not retired its identifier. The identifier stays in use, and its owner is asked to announce
   /// what it stands for anew.
   Mirror takeAndAskAnew(Sa& sa) noexcept;
   /// Takes out the bound mirrors for which `isTaken(entity)` holds, behind `gone`, which has room for all; the peer still has to
   /// learn of it and to retire their identifiers.
   template <class Predicate> void takeUnmounted(Predicate isTaken, std::vector<Mirror>& gone) noexcept {
      for (Slot& slot : slots_)
         if (slot.entity && isTaken(slot.entity.get())) {
            slot.isOwedRetirement = true;
            gone.push_back(taken(slot));
         }
   }
   /// The peer has retired an identifier that this side has released already.
   void retirementArrived(EntityId id) noexcept;
   /// Gives memory back after a burst.
   void trim() noexcept;
   /// What has lost its identifier to another while a record was applied.
   std::vector<Mirror> takeReplaced() noexcept { return std::exchange(replaced_, {}); }
   bool hasReplaced() const noexcept { return !replaced_.empty(); }
   /// The adapter leaves the stream: it is taken off whatever stands here. \return what has to be released last
   Mirror leave(Sa& sa) noexcept;
   /// The connection is over. Every mirror waits from here on; what stands for nothing is forgotten.
   void disconnect() noexcept;

   WaitingMirrors& waiting() noexcept { return waiting_; }
   WaitingMirrors const& waiting() const noexcept { return waiting_; }
   /// Something here can't be told before the peer announces the waiting mirror `sa` again.
   void await(Sa& sa) noexcept {
      sa.isAwaitedIs(true);
      isAnyAwaited_ = true;
   }
   /// Whether a waiting mirror is awaited.
   bool isAwaiting() const noexcept {
      return isAnyAwaited_ && waiting_.any([](Sa const& sa) { return sa.isAwaited(); });
   }

   /// Whether the peer is in the middle of telling `sa`'s entity.
   void syncingIs(Sa& sa, bool isSyncing) noexcept;
   /// Whether the peer has told every entity that it has announced whole.
   bool isSynced() const noexcept { return syncing_ == 0; }

   // The mirror of the last record. It and its entity are held: most records come in runs for one entity.
   bool isInHand(EntityId id) const noexcept { return isInHandCurrent_ && inHandId_ == id; }
   bool hasInHand() const noexcept { return static_cast<bool>(inHand_.sa); }
   Sa& inHand() const noexcept { return *inHand_.sa; }
   /// Takes up the mirror under `id`; nothing is in hand. \return false where there is none
   bool takeUp(EntityId id) noexcept;
   /// Hands out what was in hand; releasing it may run reactors.
   Mirror putDown() noexcept;

   // What the owners are to be asked for.
   /// The notes of `sa` have something that its owner is still to be asked for. \throws std::bad_alloc; nothing has changed then
   void askFor(Sa& sa) { asking_.add(sa); }
   bool isAsking() const noexcept { return !asking_.empty() || askedAnew_ != 0; }
   /// Asks, as far as the buffer has room. \throws std::bad_alloc; what has not been asked is asked the next time
   void writeRefreshes(Out& out, StreamCounters& counters);

   std::size_t used() const noexcept { return used_; }
   std::size_t askedAnew() const noexcept { return askedAnew_; }
   std::size_t askingAdapters() const noexcept { return asking_.size(); }
   std::vector<Slot> const& slots() const noexcept { return slots_; }
   /// What is wrong with the tables; empty where all is well.
   std::string audit() const;
   /// What is wrong with how `sa`, an adapter of this stream, is asked for. \param hasIdentifier whether it has one
   static std::string auditAdapter(Sa const& sa, bool hasIdentifier);

private:
   Slot* slotOf(EntityId id) noexcept { return const_cast<Slot*>(std::as_const(*this).find(id)); }
   Slot& neededSlot(EntityId id);
   Mirror taken(Slot& slot) noexcept;
   void writeRefresh(Out& out, Sa& sa, Mark const& mark) const;

   std::vector<Slot> slots_; ///< by number; may end before the highest that the peer has used
   std::size_t end_ = 0;     ///< behind the highest slot that the peer has announced on this connection
   std::size_t used_ = 0;
   std::size_t askedAnew_ = 0;    ///< slots with `isAskedAnew`
   std::size_t syncing_ = 0;      ///< adapters that are syncing
   U64 late_ = 0;                 ///< late records of this connection
   bool isAnyAwaited_ = false;    ///< on this connection a reference to a waiting mirror could not be told
   bool isInHandCurrent_ = false; ///< `inHandId_` still stands for `inHand_`
   EntityId inHandId_;
   Mirror inHand_;
   WaitingMirrors waiting_;
   std::vector<Mirror> replaced_;
   NotedAdapters<&Notes::askingAt> asking_;
};

} // namespace Mox::NboAttrLog
