// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/StateAdapter.h"
#include "kestrel/core/Exceptions.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Mox::NboAttrLog {

/// The peer takes no further identifier on this connection. What needed one stays untold.
class NoIdentifierLeft final : public Exception {
public:
   using Exception::Exception;
};

/// The identifiers that this side gives out on one connection, and the adapters under them.
///
/// Slots are dense and index an array. The lowest free one is given out first, so that the table can shrink when most of it has come
/// free. A slot is free again once its retirement has been written, and is then used under the next generation.
///
/// *Cost*: all but `assign`, which grows, take no memory and can't fail; each slot has room kept in every list.
class OwnSlots {
public:
   using Sa = Entity::MoxNboAttrLogSa;
   /// The highest slot that an identifier can name.
   static constexpr std::uint32_t highestSlot = 0x00ffffff;

   /// The highest slot that the peer takes on this connection.
   void highestIs(std::uint32_t slot) noexcept { highest_ = slot; }
   std::uint32_t highest() const noexcept { return highest_; }
   /// Gives `sa` an identifier and holds it. \throws NoIdentifierLeft, std::bad_alloc; nothing has changed then
   void assign(Sa& sa);
   /// The adapter under `id`, or null.
   Sa* find(EntityId id) const noexcept;
   /// `id` stands for nothing any more. \param isKnown whether the peer has been told of it and is owed its retirement
   void release(EntityId id, bool isKnown) noexcept;

   bool owesRetirements() const noexcept { return !retirements_.empty(); }
   std::size_t retirements() const noexcept { return retirements_.size(); }
   /// One identifier whose retirement is owed.
   EntityId nextRetirement() const noexcept;
   /// That retirement has been written.
   void retirementWritten() noexcept;

   /// The connection is over. No adapter has an identifier any more.
   void clear() noexcept;

   /// Slots in the table, in use or not, and the adapter in one; null for a free one.
   std::size_t size() const noexcept { return slots_.size(); }
   Sa* at(std::size_t slot) const noexcept { return slots_[slot].sa.get(); }
   std::size_t used() const noexcept { return used_; }

   /// What is wrong with the table; empty where all is well.
   std::string audit() const;

private:
   struct Slot {
      Ptr<Sa> sa;
      std::uint32_t generation = 0;
      bool owesRetirement = false;
   };

   EntityId idOf(std::uint32_t slot) const noexcept { return EntityId::assigned(slot, 1, slots_[slot].generation); }
   void freed(std::uint32_t slot) noexcept;
   void shrink() noexcept;

   std::vector<Slot> slots_;
   std::vector<std::uint32_t> free_; ///< a heap, the lowest first; may hold numbers behind the table's end
   std::vector<std::uint32_t> retirements_;
   std::size_t used_ = 0;
   std::uint32_t highest_ = highestSlot;
   std::uint32_t generationFloor_ = 0; ///< the highest that slots had which have been dropped from the table
};

} // namespace Mox::NboAttrLog
