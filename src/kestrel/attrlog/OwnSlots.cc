// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/OwnSlots.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <new>
#include <utility>

namespace Mox::NboAttrLog {

void OwnSlots::assign(Sa& sa) {
   // Numbers behind the end of the table are left over from a longer one. The lowest stands first: behind it are no others then.
   if (!free_.empty() && free_.front() >= slots_.size())
      free_.clear();
   if (free_.empty()) {
      std::size_t const slot = std::max<std::size_t>(slots_.size(), 1);
      if (slot > highest_)
         throw NoIdentifierLeft("no identifier is left: the peer takes slots up to " + std::to_string(highest_));
      // Room first, so that giving an identifier back never fails.
      if (slots_.capacity() <= slot)
         slots_.reserve(std::max(slot + 1, 2 * slots_.capacity()));
      free_.reserve(slots_.capacity());
      retirements_.reserve(slots_.capacity());
      slots_.resize(slot + 1, {nullptr, generationFloor_, false});
      free_.push_back(static_cast<std::uint32_t>(slot));
   }
   std::pop_heap(free_.begin(), free_.end(), std::greater<>());
   std::uint32_t const slot = free_.back();
   free_.pop_back();
   slots_[slot].sa = Ptr<Sa>(&sa);
   ++slots_[slot].generation;
   ++used_;
   try {
      sa.identify(idOf(slot));
   } catch (...) {
      release(idOf(slot), false);
      throw;
   }
}

OwnSlots::Sa* OwnSlots::find(EntityId id) const noexcept {
   if (!id.isAssigned() || id.slot() >= slots_.size() || slots_[id.slot()].generation != id.generation())
      return nullptr;
   return slots_[id.slot()].sa.get();
}

void OwnSlots::release(EntityId id, bool isKnown) noexcept {
   Slot& slot = slots_[id.slot()];
   slot.sa = nullptr; // whoever releases holds the adapter
   --used_;
   slot.owesRetirement = isKnown;
   if (isKnown)
      retirements_.push_back(id.slot());
   else
      freed(id.slot());
}

EntityId OwnSlots::nextRetirement() const noexcept {
   return idOf(retirements_.back());
}

void OwnSlots::retirementWritten() noexcept {
   std::uint32_t const slot = retirements_.back();
   retirements_.pop_back();
   slots_[slot].owesRetirement = false;
   freed(slot);
}

void OwnSlots::freed(std::uint32_t slot) noexcept {
   free_.push_back(slot);
   std::push_heap(free_.begin(), free_.end(), std::greater<>());
   // The table ends with a slot in use. One that comes back later starts above every generation that it may have had.
   while (slots_.size() > 1 && !slots_.back().sa && !slots_.back().owesRetirement) {
      generationFloor_ = std::max(generationFloor_, slots_.back().generation);
      slots_.pop_back();
   }
   if (slots_.capacity() > 64 && slots_.size() < slots_.capacity() / 4)
      shrink();
}

/// Gives the memory of a burst back, where there is memory to do so.
void OwnSlots::shrink() noexcept {
   try {
      std::vector<Slot> slots;
      std::vector<std::uint32_t> free;
      std::vector<std::uint32_t> retirements;
      slots.reserve(2 * slots_.size());
      free.reserve(slots.capacity());
      retirements.reserve(slots.capacity());
      // From here on nothing fails: there is room for all.
      std::move(slots_.begin(), slots_.end(), std::back_inserter(slots));
      std::copy_if(free_.begin(), free_.end(), std::back_inserter(free),
                   [&](std::uint32_t s) { return s < slots.size(); });
      std::make_heap(free.begin(), free.end(), std::greater<>());
      std::copy(retirements_.begin(), retirements_.end(), std::back_inserter(retirements));
      slots_ = std::move(slots);
      free_ = std::move(free);
      retirements_ = std::move(retirements);
   } catch (std::bad_alloc const&) { // it stays as it is
   }
}

void OwnSlots::clear() noexcept {
   slots_ = {};
   free_ = {};
   retirements_ = {};
   used_ = 0;
   generationFloor_ = 0;
   highest_ = highestSlot;
}

std::string OwnSlots::audit() const {
   std::vector<unsigned> uses(slots_.size());
   for (std::uint32_t const slot : free_)
      if (slot < uses.size())
         ++uses[slot];
   for (std::uint32_t const slot : retirements_) {
      if (slot >= uses.size())
         return "a retirement lies outside the table of this side's slots";
      ++uses[slot];
   }
   std::size_t used = 0;
   for (std::size_t i = 1; i < slots_.size(); ++i) {
      std::string const which = "slot " + std::to_string(i) + " of this side";
      if (Sa const* const sa = slots_[i].sa.get()) {
         ++uses[i];
         ++used;
         if (sa->entityId() != idOf(static_cast<std::uint32_t>(i)))
            return which + " holds an adapter with another identifier";
         if (sa->phase() != Phase::identified && sa->phase() != Phase::announced)
            return which + " holds an adapter that is " + textOf(sa->phase());
      }
      if (uses[i] != 1)
         return which + " is in use, free, or owes a retirement " + std::to_string(uses[i]) + " times over";
   }
   if (used != used_)
      return "this side counts " + std::to_string(used_) + " slots in use, there are " + std::to_string(used);
   if (free_.capacity() < slots_.size() || retirements_.capacity() < slots_.size())
      return "a list of this side's slots has no room for all of them";
   return {};
}

} // namespace Mox::NboAttrLog
