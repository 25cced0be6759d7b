// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/PeerMirrors.h"

#include "kestrel/attrlog/Frames.h"
#include "kestrel/attrlog/Lists.h"
#include "kestrel/core/Exceptions.h"

#include <algorithm>

namespace Mox::NboAttrLog {

namespace {

/// How far a slot may lie beyond the ones announced so far: an announcement that was taken back leaves a gap.
constexpr std::uint32_t slotGap = 64;

} // namespace

std::string textOf(EntityId id) {
   return "slot " + std::to_string(id.slot()) + " generation " + std::to_string(id.generation());
}

void PeerMirrors::check(EntityId id, In const& in) const {
   auto const fail = [&](std::string const& why) {
      throw ProtocolException(in.where() + ": announced " + textOf(id) + ": " + why);
   };
   if (!id.isAssigned() || id.side() != 1)
      fail("not an identifier of the announcing side");
   if (id.slot() > OwnSlots::highestSlot)
      fail("expected slots up to " + std::to_string(OwnSlots::highestSlot));
   if (std::size_t const end = end_ + slotGap + late_; id.slot() >= end)
      fail("expected a slot below " + std::to_string(end));
   if (id.slot() >= slots_.size())
      return;
   Slot const& slot = slots_[id.slot()];
   if (slot.isUsed ? slot.generation != id.generation() : slot.generation >= id.generation())
      fail((slot.isUsed ? "the slot is in use under generation " : "the slot has been used up to generation ") +
           std::to_string(slot.generation));
}

bool PeerMirrors::hasGone(EntityId id) const noexcept {
   return id.isAssigned() && id.slot() < slots_.size() && !slots_[id.slot()].isUsed &&
          slots_[id.slot()].generation == id.generation();
}

/// The slot of an identifier that has been checked.
PeerMirrors::Slot& PeerMirrors::neededSlot(EntityId id) {
   if (id.slot() >= slots_.size())
      slots_.resize(id.slot() + 1);
   end_ = std::max<std::size_t>(end_, id.slot() + 1);
   return slots_[id.slot()];
}

void PeerMirrors::reserve(EntityId id, In const& in) {
   check(id, in);
   Slot& slot = neededSlot(id);
   if (slot.isUsed)
      return;
   slot.generation = id.generation();
   slot.isUsed = true;
   slot.isOwedRetirement = false;
   ++used_;
}

void PeerMirrors::askAnew(EntityId id, In const& in) {
   reserve(id, in);
   if (!std::exchange(slots_[id.slot()].isAskedAnew, true))
      ++askedAnew_;
}

bool PeerMirrors::prepareBinding(EntityId id, Entity const& entity, In const& in) {
   check(id, in);
   Slot const& slot = neededSlot(id);
   if (slot.isUsed && slot.entity == &entity && slot.sa)
      return false;
   replaced_.reserve(replaced_.size() + 1);
   waiting_.roomIs(waiting_.size() + used_ + 1);
   return true;
}

void PeerMirrors::bind(EntityId id, Sa& sa, Entity& entity) noexcept {
   Slot& slot = slots_[id.slot()];
   // Records that came while nothing here stood for the identifier were dropped: the owner is asked to announce it anew. So he is where
   // that question has not been written yet, which must not go with the slot.
   bool const isAskedAnew = slot.isUsed && (!slot.sa || slot.isAskedAnew);
   if (slot.isUsed)
      replaced_.push_back(taken(slot));
   Ptr<Sa> const held(&sa);
   if (WaitingMirrors::isWaiting(sa))
      waiting_.taken(sa);
   sa.bindTo(ofPeer(id));
   slot.sa = held;
   slot.entity = Ptr<Entity>(&entity);
   slot.generation = id.generation();
   slot.isUsed = true;
   slot.isOwedRetirement = false;
   slot.isAskedAnew = isAskedAnew;
   askedAnew_ += isAskedAnew;
   ++used_;
   syncingIs(sa, true);
}

/// Takes the mirror out of its slot, which is free from here on.
Mirror PeerMirrors::taken(Slot& slot) noexcept {
   Mirror gone{std::move(slot.sa), std::move(slot.entity)};
   slot.sa = nullptr;
   slot.entity = nullptr;
   slot.isUsed = false;
   askedAnew_ -= std::exchange(slot.isAskedAnew, false);
   --used_;
   isInHandCurrent_ = false; // it may be this
   if (gone.sa) {
      syncingIs(*gone.sa, false);
      asking_.remove(*gone.sa);
      gone.sa->takeOut();
   }
   return gone;
}

Mirror PeerMirrors::take(EntityId id) noexcept {
   Slot* const slot = slotOf(id);
   return slot == nullptr ? Mirror{} : taken(*slot);
}

Mirror PeerMirrors::take(Sa& sa) noexcept {
   return WaitingMirrors::isWaiting(sa) ? waiting_.taken(sa) : take(ofPeer(sa.entityId()));
}

Mirror PeerMirrors::takeAndAskAnew(Sa& sa) noexcept {
   Slot* const slot = slotOf(ofPeer(sa.entityId()));
   if (slot == nullptr)
      return take(sa);
   Mirror gone = taken(*slot);
   slot->isUsed = slot->isAskedAnew = true;
   ++used_;
   ++askedAnew_;
   return gone;
}

void PeerMirrors::retirementArrived(EntityId id) noexcept {
   if (id.isAssigned() && id.slot() < slots_.size() && slots_[id.slot()].generation == id.generation())
      slots_[id.slot()].isOwedRetirement = false;
}

/// Drops the end of the table, where many slots stand for nothing; of a short table every generation stays known. A slot whose
/// retirement is still to come stands for something: what is under way may still name it.
void PeerMirrors::trim() noexcept {
   constexpr std::size_t few = 64;
   waiting_.trim(waiting_.size() + used_);
   std::size_t end = slots_.size();
   while (end > few && !slots_[end - 1].isUsed && !slots_[end - 1].isOwedRetirement)
      --end;
   // A search that finds few unused slots was short, and one that finds many drops them: searching each time stays cheap.
   if (slots_.size() - end < few)
      return;
   slots_.resize(end);
   shrink(slots_, end);
}

Mirror PeerMirrors::leave(Sa& sa) noexcept {
   asking_.remove(sa);
   syncingIs(sa, false);
   if (WaitingMirrors::isWaiting(sa))
      return waiting_.taken(sa);
   if (Slot* const slot = slotOf(ofPeer(sa.entityId())); slot != nullptr && slot->sa == &sa) {
      slot->sa = nullptr; // the identifier stays in use, and stands for an entity that nothing is applied to
      isInHandCurrent_ = false;
   }
   return {};
}

void PeerMirrors::disconnect() noexcept {
   for (Slot& slot : std::exchange(slots_, {})) {
      if (!slot.sa)
         continue;
      Sa& sa = *slot.sa;
      asking_.remove(sa);
      waiting_.add(std::move(slot)); // there has been room since it was bound
   }
   end_ = used_ = askedAnew_ = syncing_ = 0;
   late_ = 0;
   isAnyAwaited_ = isInHandCurrent_ = false;
}

void PeerMirrors::syncingIs(Sa& sa, bool isSyncing) noexcept {
   if (sa.isSyncing() == isSyncing)
      return;
   sa.isSyncingIs(isSyncing);
   if (isSyncing)
      ++syncing_;
   else
      --syncing_;
}

bool PeerMirrors::takeUp(EntityId id) noexcept {
   Slot const* const slot = id.side() == 1 ? find(id) : nullptr;
   if (slot == nullptr || !slot->sa)
      return false;
   inHand_ = *slot;
   inHandId_ = id;
   isInHandCurrent_ = true;
   return true;
}

Mirror PeerMirrors::putDown() noexcept {
   isInHandCurrent_ = false;
   Mirror gone{std::move(inHand_.sa), std::move(inHand_.entity)};
   inHand_.sa = nullptr;
   inHand_.entity = nullptr;
   return gone;
}

void PeerMirrors::writeRefreshes(Out& out, StreamCounters& counters) {
   for (std::size_t i = 0; askedAnew_ != 0 && i < slots_.size() && out.hasSufficientBuffer(); ++i)
      if (slots_[i].isAskedAnew) {
         EntityId const id = EntityId::assigned(static_cast<std::uint32_t>(i), 1, slots_[i].generation);
         out.control(Refresh{ofPeer(id), static_cast<std::int32_t>(attr::orphan), {}});
         slots_[i].isAskedAnew = false;
         --askedAnew_;
         ++counters.refreshesAsked;
      }
   while (!asking_.empty() && out.hasSufficientBuffer()) {
      Sa& sa = *asking_.last();
      MarkSet& unasked = sa.notes()->unasked;
      while (!unasked.empty()) {
         if (!out.hasSufficientBuffer())
            return;
         writeRefresh(out, sa, *unasked.begin());
         unasked.erase(unasked.begin());
         ++counters.refreshesAsked;
      }
      asking_.remove(sa);
      sa.notesTrim();
   }
}

/// Asks the owner of `sa`'s entity to tell `mark` again.
void PeerMirrors::writeRefresh(Out& out, Sa& sa, Mark const& mark) const {
   std::vector<std::uint8_t> key;
   auto const write = [&] {
      out.control(Refresh{sa.entityId(),
                          static_cast<std::int32_t>(mark.attribute),
                          {reinterpret_cast<char const*>(key.data()), key.size()}});
   };
   try {
      if (mark.hasKey)
         sa.writeKey(mark, key);
      write();
   } catch (Exception const&) {
      // The key is no enumerator, or too long for the frame or for the peer: nobody can be asked for it alone. The whole attribute
      // is told again instead, and the sweep at its end takes the entry along.
      key.clear();
      write();
   }
}

std::string PeerMirrors::audit() const {
   std::size_t used = 0;
   std::size_t syncing = 0;
   std::size_t askedAnew = 0;
   for (std::size_t i = 0; i < slots_.size(); ++i) {
      Slot const& slot = slots_[i];
      std::string const which = "slot " + std::to_string(i) + " of the peer";
      used += slot.isUsed;
      askedAnew += slot.isAskedAnew;
      if (!slot.isUsed && (slot.sa || slot.entity))
         return which + " is free and holds something";
      if (!slot.sa)
         continue;
      if (slot.sa->entityId() != ofPeer(EntityId::assigned(static_cast<std::uint32_t>(i), 1, slot.generation)))
         return which + " holds an adapter with another identifier";
      if (slot.sa->phase() != Phase::bound)
         return which + " holds an adapter that is " + textOf(slot.sa->phase());
      if (!slot.sa->isMirror() || slot.sa->entity() != slot.entity.get())
         return which + " holds an adapter that is not its entity's";
      syncing += slot.sa->isSyncing();
   }
   if (used != used_)
      return "the peer has " + std::to_string(used) + " slots in use, " + std::to_string(used_) + " are counted";
   if (askedAnew != askedAnew_)
      return std::to_string(askedAnew) + " slots are to be asked for anew, " + std::to_string(askedAnew_) +
             " are counted";
   if (slots_.size() > end_)
      return "the table of the peer's slots is longer than what it has announced";
   if (syncing != syncing_)
      return std::to_string(syncing) + " entities are being told, " + std::to_string(syncing_) + " are counted";
   if (!replaced_.empty())
      return "a mirror that was to be released behind its record is still there";
   return waiting_.audit();
}

std::string PeerMirrors::auditAdapter(Sa const& sa, bool hasIdentifier) {
   Notes const* const notes = sa.notes();
   if (notes == nullptr)
      return {};
   auto const whose = [&] { return Entity::fullNameOf(sa.entity()).str(); };
   if (!notes->unasked.empty() && notes->askingAt == Notes::unlisted && hasIdentifier && !sa.owesAll())
      return whose() + " has marks that the owner will never be asked for";
   for (Mark const& mark : notes->unasked)
      if (!notes->untold.contains(mark))
         return whose() + " asks for a mark that it is not owed";
   return {};
}

} // namespace Mox::NboAttrLog
