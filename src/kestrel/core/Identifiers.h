// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace Mox {

/// Unsigned and signed 64-bit attribute types. One spelling everywhere, so that overloads for the stream are unambiguous
/// where `std::uint64_t` is `unsigned long`.
using U64 = unsigned long long;
using S64 = long long;

/// Number of an attribute within its type. A type at level L of its chain numbers its own attributes L * 128 + 2 upward.
using AttributeId = std::uint32_t;

/// First identifier of the attributes of a type at `level` of its class chain.
constexpr AttributeId firstAttributeId(unsigned level) noexcept {
   return level * 128u + 2u;
}

/// Identifiers of the framework's own levels.
namespace attr {
inline constexpr AttributeId zeroReferences = 5; ///< the notification when the last reference goes
inline constexpr AttributeId name = 130;         ///< `Entity::name`
inline constexpr AttributeId parent = 131;       ///< `Entity::parent`
inline constexpr AttributeId syncMode = 135;     ///< record: a peer opens or closes the resend of an entity
inline constexpr AttributeId orphan = 136;       ///< record: an entity announced without a parent
inline constexpr AttributeId wrapped = 144;      ///< record: an attribute wrapped with a payload length
inline constexpr AttributeId childLog = 151;     ///< header kind of a member's announcement
inline constexpr AttributeId hasAttrLogInterface = 154;
inline constexpr AttributeId none = 0;
inline constexpr AttributeId owesNothing = 0x7fffffff; ///< start of a flow that owes no attribute
} // namespace attr

/// Identity of an entity on one stream: low word `slot << 2 | side << 1 | 1`, high word the slot's generation.
/// The lowest bit is set in every assigned identifier; 0 is null and 1 stands in the header of an orphan's announcement.
struct EntityId {
   std::uint32_t low = 0;
   std::uint32_t high = 0;

   static constexpr EntityId assigned(std::uint32_t slot, unsigned side, std::uint32_t generation) noexcept {
      return {slot << 2 | (side & 1u) << 1 | 1u, generation};
   }
   static constexpr EntityId ofNumber(U64 n) noexcept {
      return {static_cast<std::uint32_t>(n), static_cast<std::uint32_t>(n >> 32)};
   }
   constexpr U64 number() const noexcept { return U64{high} << 32 | low; }
   constexpr bool isAssigned() const noexcept { return (low & 1u) != 0 && slot() != 0; }
   constexpr std::uint32_t slot() const noexcept { return low >> 2; }
   constexpr unsigned side() const noexcept { return low >> 1 & 1u; }
   constexpr std::uint32_t generation() const noexcept { return high; }
   friend constexpr bool operator==(EntityId const&, EntityId const&) noexcept = default;
};

/// Stands in the header of an orphan's announcement, in the place of an entity's identifier.
inline constexpr EntityId orphanAnnouncement{1, 0};

} // namespace Mox
