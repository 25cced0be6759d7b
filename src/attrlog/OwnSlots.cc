#include "attrlog/OwnSlots.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <new>
#include <utility>

namespace Mox::NboAttrLog {

void OwnSlots::assign(Sa& sa, std::uint32_t highest) {
   if (free_.empty()) {
      std::size_t const slot = std::max<std::size_t>(slots_.size(), 1);
      if (slot > highest)
         throw NoIdentifierLeft("no identifier is left: the peer takes slots up to " + std::to_string(highest));
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
   sa.entityIdIs(idOf(slot));
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
   // Looked at once for every half of the table that came free: the look costs as much as the table is long.
   if (++freedSinceTrim_ >= std::max<std::size_t>(64, slots_.size() / 2))
      trim();
}

/// Drops the free end of the table where it is the greater part. A slot that comes back later starts above every generation that it
/// may have had.
void OwnSlots::trim() noexcept {
   freedSinceTrim_ = 0;
   std::size_t end = slots_.size();
   std::uint32_t floor = generationFloor_;
   for (; end > 1 && !slots_[end - 1].sa && !slots_[end - 1].owesRetirement; --end)
      floor = std::max(floor, slots_[end - 1].generation);
   if (end > slots_.size() / 2)
      return;
   try {
      std::vector<Slot> slots;
      std::vector<std::uint32_t> free;
      std::vector<std::uint32_t> retirements;
      slots.reserve(end);
      free.reserve(slots.capacity());
      retirements.reserve(slots.capacity());
      // From here on nothing fails: there is room for all.
      std::move(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(end), std::back_inserter(slots));
      std::copy_if(free_.begin(), free_.end(), std::back_inserter(free), [end](std::uint32_t s) { return s < end; });
      std::make_heap(free.begin(), free.end(), std::greater<>());
      std::copy(retirements_.begin(), retirements_.end(), std::back_inserter(retirements));
      slots_ = std::move(slots);
      free_ = std::move(free);
      retirements_ = std::move(retirements);
      generationFloor_ = floor;
   } catch (std::bad_alloc const&) { // it stays as it is
   }
}

void OwnSlots::clear() noexcept {
   slots_ = {};
   free_ = {};
   retirements_ = {};
   used_ = freedSinceTrim_ = 0;
   generationFloor_ = 0;
}

std::string OwnSlots::audit() const {
   std::vector<unsigned> uses(slots_.size());
   auto const count = [&](std::vector<std::uint32_t> const& slots) {
      for (std::uint32_t const slot : slots)
         if (slot < uses.size())
            ++uses[slot];
         else
            return false;
      return true;
   };
   if (!count(free_) || !count(retirements_))
      return "a free slot or a retirement lies outside the table of this side";
   std::size_t used = 0;
   for (std::size_t i = 1; i < slots_.size(); ++i) {
      std::string const which = "slot " + std::to_string(i) + " of this side";
      if (Sa const* const sa = slots_[i].sa.get()) {
         ++uses[i];
         ++used;
         if (sa->entityId() != idOf(static_cast<std::uint32_t>(i)))
            return which + " holds an adapter with another identifier";
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
