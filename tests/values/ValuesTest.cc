// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/Exceptions.h"
#include "kestrel/values/Bounded.h"
#include "kestrel/values/Coherent.h"
#include "kestrel/values/PhyEnums.h"
#include "kestrel/values/Print.h"
#include "kestrel/values/Records.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

namespace Rack {

enum class Fan : std::int32_t { unknown = -1, off = 0, on = 5 };
constexpr auto moxEnum(Fan) {
   return Mox::enumeration<Fan>("Rack::Fan", {{Fan::unknown, "unknown"}, {Fan::off, "off"}, {Fan::on, "on"}});
}

} // namespace Rack

namespace {

using Mox::RangeException;

template <class T> std::string printed(T const& value) {
   std::ostringstream out;
   Mox::print(out, value);
   return out.str();
}

template <class T> void expectBounds(unsigned long long maximum, std::string const& text) {
   SCOPED_TRACE(text);
   EXPECT_EQ(T(maximum).value, maximum);
   EXPECT_EQ(thrownBy<RangeException>([&] { T{maximum + 1}; }), text);
   EXPECT_EQ(thrownBy<RangeException>([&] { T{std::numeric_limits<long long>::min()}; }), text);
   // What would be in range once it has narrowed to the number's own width.
   if constexpr (sizeof(typename T::Number) < sizeof(unsigned long long)) {
      EXPECT_EQ(thrownBy<RangeException>([&] { T{1ull << std::numeric_limits<typename T::Number>::digits}; }), text);
   }
   EXPECT_EQ(printed(T(maximum)), std::to_string(maximum));
   static_assert(std::is_trivially_copyable_v<T> && sizeof(T) == sizeof(typename T::Number));
   static_assert(std::totally_ordered<T> && std::three_way_comparable<T>);
}

TEST(BoundedValues, RejectWhatIsOutOfRangeWithTheTextOfTheType) {
   expectBounds<U1>(1, "U1::value < 0 or > 0x01 not allowed");
   expectBounds<U22>(4194303, "U22::value < 0 or > 0x003fffff not allowed");
   expectBounds<ClariPhyTypes::HostLane>(9, "HostLane::value < 0 or > 9 not allowed");
   expectBounds<ClariPhyTypes::LdpcHistogramCounter>(0xffffffffffff,
                                                     "LdpcHistogramCounter::value < 0 or > 0xffffffffffff not allowed");
   expectBounds<Mox::MoxAttrIntrospectionFlags>(0x3f, "MoxAttrIntrospectionFlags::value > 0x3f not allowed");
   expectBounds<Plex::IntfId>(0xffffffff, "IntfId::value < 0 or > 0xffffffff not allowed");
   static_assert(U4(7) > U4(6) && U4(7) == 7 && 6 < U4(7) && !Plex::IntfId() && Plex::IntfId(7));
}

TEST(RollOff, TakesTheClosedIntervalAndNothingElse) {
   using Phy::Coherent::RollOff;
   for (double const good : {0.0, -0.0, 1e-300, 0.2, 1.0})
      EXPECT_EQ(RollOff(good).value, static_cast<float>(good));
   EXPECT_TRUE(RollOff(0.2) == 0.2) << "the float next to it";
   // Some would be 1 and 0 as floats.
   for (double const bad : {1.0 + 1e-12, -1e-300, std::nan(""), -std::nan(""), HUGE_VAL})
      EXPECT_EQ(thrownBy<RangeException>([&] { RollOff{bad}; }),
                "RollOff::value < RollOff::min or > RollOff::max not allowed")
         << bad;
}

TEST(Enumerations, KnowTheirNumbersAndNames) {
   EXPECT_EQ(Xcvr::CfpxHostChannelInstance(15), Xcvr::CfpxHostChannel::channel15);
   EXPECT_EQ(thrownBy<Mox::EnumException>([] { Xcvr::CfpxHostChannelInstance(16); }),
             "16 is no Xcvr::CfpxHostChannel: expected 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14 or 15");
   EXPECT_EQ(Mox::enumInstance<Rack::Fan>(0xffffffff), Rack::Fan::unknown);
   EXPECT_EQ(thrownBy<Mox::EnumException>([] { Mox::enumInstance<Rack::Fan>(3); }),
             "3 is no Rack::Fan: expected -1, 0 or 5");
   EXPECT_EQ(Mox::enumOfName<Hardware::Phy::Speed>("100 Gbit/s"), Hardware::Phy::Speed::gbps100);
}

TEST(Print, GivesEveryValueItsOneText) {
   EXPECT_EQ(printed(std::uint8_t{65}), "65");
   EXPECT_EQ(printed(0.1f), "0.1");
   EXPECT_EQ(printed(1.0 / 3), "0.3333333333333333");
   EXPECT_EQ(printed(-std::nan("")), "nan");
   EXPECT_EQ(printed(Phy::Coherent::RollOff(0.2)), "0.2");
   EXPECT_EQ(printed(Xcvr::CfpxHostChannel::channel3), "channel3");
   EXPECT_EQ(printed(Hardware::Phy::Loopback{99}), "99");
   EXPECT_EQ(printed(Kiln::ConditionStat{true, 3, 12.5}), "(true, 3, 12.5)");
   EXPECT_EQ(printed(ClariPhyTypes::Calibration{1, 2, 0xffffffff}), "(1, 2, 4294967295)");
}

} // namespace
