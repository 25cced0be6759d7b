// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/values/Bounded.h"

#include <cstdint>
#include <iosfwd>

namespace ClariPhyTypes {

/// Calibration of one host channel, in the chip's own units.
struct Calibration {
   std::uint32_t gain = 0;
   std::uint32_t offset = 0;
   std::uint32_t phase = 0;
   friend constexpr bool operator==(Calibration const&, Calibration const&) noexcept = default;
};

std::ostream& operator<<(std::ostream& out, Calibration const& c);

} // namespace ClariPhyTypes

namespace Kiln {

/// A condition that comes and goes: what it is now, how often it has changed, and when it last did.
struct ConditionStat {
   bool condition = false;
   std::uint32_t count = 0;
   double time = 0.0; ///< seconds since the epoch; 0 before the first change
   /// Times compare as floating-point numbers: a record whose time is NaN equals no record.
   friend constexpr bool operator==(ConditionStat const&, ConditionStat const&) noexcept = default;
};

std::ostream& operator<<(std::ostream& out, ConditionStat const& c);

} // namespace Kiln

namespace Plex {

/// Identifier of an interface; 0 is none.
class IntfId : public Mox::Bounded<std::uint32_t, 0xffffffff, "IntfId::value < 0 or > 0xffffffff not allowed"> {
public:
   using Bounded::Bounded;
   constexpr explicit operator bool() const noexcept { return value != 0; }
};

} // namespace Plex
