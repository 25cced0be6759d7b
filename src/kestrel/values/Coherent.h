// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"
#include "kestrel/values/Bounded.h"
#include "kestrel/values/Enumeration.h"
#include "kestrel/values/FloatValue.h"

#include <cstdint>

namespace Xcvr {

/// Lane on the line side: key of arrays of four.
class CfpxHostLaneId : public Mox::Bounded<std::uint8_t, 3, "CfpxHostLaneId::value < 0 or > 3 not allowed"> {
public:
   using Bounded::Bounded;
};

/// Channel between host and module: key of the tables of a configuration, ordered by number.
enum class CfpxHostChannel : std::int32_t {
   channel0,
   channel1,
   channel2,
   channel3,
   channel4,
   channel5,
   channel6,
   channel7,
   channel8,
   channel9,
   channel10,
   channel11,
   channel12,
   channel13,
   channel14,
   channel15,
};
constexpr auto moxEnum(CfpxHostChannel) {
   using enum CfpxHostChannel;
   return Mox::enumeration<CfpxHostChannel>("Xcvr::CfpxHostChannel", {{channel0, "channel0"},
                                                                      {channel1, "channel1"},
                                                                      {channel2, "channel2"},
                                                                      {channel3, "channel3"},
                                                                      {channel4, "channel4"},
                                                                      {channel5, "channel5"},
                                                                      {channel6, "channel6"},
                                                                      {channel7, "channel7"},
                                                                      {channel8, "channel8"},
                                                                      {channel9, "channel9"},
                                                                      {channel10, "channel10"},
                                                                      {channel11, "channel11"},
                                                                      {channel12, "channel12"},
                                                                      {channel13, "channel13"},
                                                                      {channel14, "channel14"},
                                                                      {channel15, "channel15"}});
}
/// \throws EnumException for a number above 15
constexpr CfpxHostChannel CfpxHostChannelInstance(std::uint32_t number) {
   return Mox::enumInstance<CfpxHostChannel>(number);
}

using Mox::EnumText::operator<<;

/// Skew between polarisations, in the driver's unit. Any float.
class CfpxSkew : public Mox::FloatValue {
public:
   constexpr CfpxSkew() noexcept = default;
   template <Mox::Arithmetic N> constexpr CfpxSkew(N number) noexcept : FloatValue(static_cast<float>(number)) {}
};

/// Output voltage of a transimpedance amplifier, in the driver's unit.
class CfpxTiaOutputVoltage
   : public Mox::Bounded<std::uint32_t, 0xffffffff, "CfpxTiaOutputVoltage::value < 0 or > 0xffffffff not allowed"> {
public:
   using Bounded::Bounded;
};

} // namespace Xcvr

namespace ClariPhyTypes {

/// Lane on the host side: key of arrays of ten.
class HostLane : public Mox::Bounded<std::uint8_t, 9, "HostLane::value < 0 or > 9 not allowed"> {
public:
   using Bounded::Bounded;
};

/// Number of iterations that the decoder took: key of a histogram.
class LdpcHistogramIterNum
   : public Mox::Bounded<std::uint8_t, 31, "LdpcHistogramIterNum::value < 0 or > 31 not allowed"> {
public:
   using Bounded::Bounded;
};

/// Codewords that took a number of iterations: a counter of 48 bits.
class LdpcHistogramCounter : public Mox::Bounded<unsigned long long, 0xffffffffffff,
                                                 "LdpcHistogramCounter::value < 0 or > 0xffffffffffff not allowed"> {
public:
   using Bounded::Bounded;
};

} // namespace ClariPhyTypes

namespace Phy::Coherent {

/// Roll-off factor of the line signal, from 0 to 1; NaN is out of range.
class RollOff : public Mox::FloatValue {
public:
   static constexpr float min = 0.0f;
   static constexpr float max = 1.0f;

   constexpr RollOff() noexcept = default;
   /// \throws RangeException when `number`, before it narrows to a float, is below `min`, above `max` or NaN
   template <Mox::Arithmetic N> constexpr RollOff(N number) : FloatValue(static_cast<float>(checked(number))) {}

private:
   template <class N> static constexpr N checked(N number) {
      // Both comparisons are false for a NaN.
      if (!(number >= N{0}) || !(N{1} >= number))
         Mox::throwRangeException("RollOff::value < RollOff::min or > RollOff::max not allowed");
      return number;
   }
};

} // namespace Phy::Coherent
