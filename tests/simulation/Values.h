// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Words.h"
#include "kestrel/core/String8.h"
#include "kestrel/values/Bounded.h"
#include "kestrel/values/Enumeration.h"
#include "kestrel/values/FloatValue.h"
#include "kestrel/values/Records.h"

#include <cmath>
#include <concepts>
#include <cstdio>
#include <iterator>
#include <limits>
#include <string>
#include <type_traits>

namespace Simulation {

/// Texts from that length on lie above the frame of a peer with a limit.
constexpr std::size_t tooLong = 150;

/// A value of any attribute's type. The ranges are small, so that equal values and returns to the default are frequent.
template <class V> V makeValue(Words& words) {
   if constexpr (std::same_as<V, bool>) {
      return words.chance(50);
   } else if constexpr (Mox::Enumeration<V>) {
      auto const& rows = Mox::enumTable<V>.rows;
      return static_cast<V>(rows[words.below(rows.size())].number);
   } else if constexpr (std::floating_point<V>) {
      V const values[] = {0,
                          static_cast<V>(-0.0),
                          std::numeric_limits<V>::quiet_NaN(),
                          1.5,
                          -2.25,
                          std::numeric_limits<V>::infinity(),
                          std::numeric_limits<V>::denorm_min(),
                          static_cast<V>(words.below(1000)) / 8};
      return values[words.below(std::size(values))];
   } else if constexpr (std::integral<V>) {
      V const values[] = {0, 1, std::numeric_limits<V>::max(), std::numeric_limits<V>::min(),
                          static_cast<V>(words.next())};
      return values[words.below(std::size(values))];
   } else if constexpr (std::derived_from<V, Mox::FloatValue>) {
      if constexpr (requires { V::max; })
         return V(static_cast<float>(words.below(5)) / 4);
      else
         return V(makeValue<float>(words));
   } else if constexpr (Mox::BoundedValue<V>) {
      return V(words.chance(20) ? V::maximum : static_cast<typename V::Number>(words.below(2)));
   } else if constexpr (std::same_as<V, ClariPhyTypes::Calibration>) {
      return {makeValue<std::uint32_t>(words), static_cast<std::uint32_t>(words.below(2)), 0};
   } else if constexpr (std::same_as<V, Kiln::ConditionStat>) {
      return {words.chance(50), static_cast<std::uint32_t>(words.below(3)), makeValue<double>(words)};
   } else {
      static_assert(std::same_as<V, Mox::String8>, "a value type that no workload makes");
      std::size_t const size = words.chance(5) ? 400 : words.below(4);
      return Mox::String8(std::string(size, static_cast<char>('p' + words.below(3))));
   }
}

/// The text of a value. Equal values have equal texts: the zeros of both signs, and all NaNs.
template <class V> std::string textOf(V const& v) {
   if constexpr (std::convertible_to<V const&, std::string_view>) {
      return "\"" + std::string(std::string_view(v)) + "\"";
   } else if constexpr (std::is_enum_v<V>) {
      return std::to_string(static_cast<long long>(v));
   } else if constexpr (std::floating_point<V>) {
      if (std::isnan(v))
         return "NaN";
      char text[40];
      std::snprintf(text, sizeof text, "%.17g", v == 0 ? 0.0 : static_cast<double>(v));
      return text;
   } else if constexpr (std::integral<V>) {
      return std::to_string(v);
   } else if constexpr (std::derived_from<V, Mox::FloatValue>) {
      return textOf(v.value);
   } else if constexpr (Mox::BoundedValue<V>) {
      return std::to_string(v.number());
   } else if constexpr (std::same_as<V, ClariPhyTypes::Calibration>) {
      return textOf(v.gain) + "/" + textOf(v.offset) + "/" + textOf(v.phase);
   } else {
      static_assert(std::same_as<V, Kiln::ConditionStat>, "a value type without a text");
      return textOf(v.condition) + "/" + textOf(v.count) + "/" + textOf(v.time);
   }
}

} // namespace Simulation
