// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <concepts>
#include <ostream>
#include <type_traits>

namespace Mox {

template <class T>
concept Arithmetic = std::is_arithmetic_v<T>;

/// A float with a type of its own. Compares by floating-point rules, and with any number as a float: `skew == 0.35` means
/// "the float nearest to 0.35".
class FloatValue {
public:
   constexpr FloatValue() noexcept = default;
   constexpr operator float() const noexcept { return value; }
   constexpr float number() const noexcept { return value; }

   friend std::ostream& operator<<(std::ostream& out, FloatValue v);

   float value = 0.0f;

protected:
   constexpr explicit FloatValue(float v) noexcept : value(v) {}
};

// They take the exact type, so that overload resolution prefers them to a comparison of the float that the value
// converts to.
template <std::derived_from<FloatValue> F, Arithmetic N> constexpr bool operator==(F const& a, N b) noexcept {
   return a.value == static_cast<float>(b);
}
template <std::derived_from<FloatValue> F, Arithmetic N>
constexpr std::partial_ordering operator<=>(F const& a, N b) noexcept {
   return a.value <=> static_cast<float>(b);
}

} // namespace Mox
