// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string_view>
#include <type_traits>

namespace Mox {

/// A text as template argument.
template <std::size_t size> struct FixedText {
   // NOLINTNEXTLINE(google-explicit-constructor): the conversion from a literal is what it is for
   constexpr FixedText(char const (&literal)[size]) { std::copy_n(literal, size, text); }
   constexpr std::string_view view() const noexcept { return {text, size - 1}; }
   char text[size]{};
};

/// An unsigned number from 0 to `limit`; 0 by default. Any other number raises an exception with the text `outOfRange`.
///
///     class U4 : public Mox::Bounded<std::uint8_t, 0x0f, "U4::value < 0 or > 0x0f not allowed"> {
///        using Bounded::Bounded;
///     };
///     U4 sync = 3;              // checked before it narrows: U4(256) fails, and so does U4(-1)
///     if (sync > 2) …           // compares, orders and calculates as its number
///
/// Write to `value` only what is in range: the constructors check, the member does not.
template <std::unsigned_integral Raw, Raw limit, FixedText outOfRange> class Bounded {
public:
   using Number = Raw;
   static constexpr Number maximum = limit;

   constexpr Bounded() noexcept = default;
   /// \throws RangeException with the type's text when `number` is below 0 or above `maximum`
   template <std::integral I> constexpr Bounded(I number) : value(checked(number)) {}
   template <std::floating_point F> Bounded(F) = delete;

   constexpr Number number() const noexcept { return value; }
   constexpr operator Number() const noexcept { return value; }

   friend std::ostream& operator<<(std::ostream& out, Bounded const& b) {
      return out << static_cast<unsigned long long>(b.value);
   }

   Number value = 0;

private:
   template <std::integral I> static constexpr Number checked(I number) {
      if constexpr (std::is_signed_v<I>)
         if (number < 0)
            throwRangeException(outOfRange.view());
      if (static_cast<unsigned long long>(number) > limit)
         throwRangeException(outOfRange.view());
      return static_cast<Number>(number);
   }
};

template <class T>
concept BoundedValue = requires(T const& v) {
   typename T::Number;
   T::maximum;
   { v.number() } -> std::same_as<typename T::Number>;
};

} // namespace Mox

template <Mox::BoundedValue T> struct std::hash<T> {
   std::size_t operator()(T const& v) const noexcept { return std::hash<typename T::Number>()(v.number()); }
};

// The widths that registers have.

class U1 : public Mox::Bounded<std::uint8_t, 0x01, "U1::value < 0 or > 0x01 not allowed"> {
public:
   using Bounded::Bounded;
};

class U4 : public Mox::Bounded<std::uint8_t, 0x0f, "U4::value < 0 or > 0x0f not allowed"> {
public:
   using Bounded::Bounded;
};

class U6 : public Mox::Bounded<std::uint8_t, 0x3f, "U6::value < 0 or > 0x3f not allowed"> {
public:
   using Bounded::Bounded;
};

class U22 : public Mox::Bounded<std::uint32_t, 0x003fffff, "U22::value < 0 or > 0x003fffff not allowed"> {
public:
   using Bounded::Bounded;
};

namespace Mox {

/// What the introspection of one attribute may do: six flag bits.
class MoxAttrIntrospectionFlags
   : public Bounded<std::uint32_t, 0x3f, "MoxAttrIntrospectionFlags::value > 0x3f not allowed"> {
public:
   using Bounded::Bounded;
};

} // namespace Mox
