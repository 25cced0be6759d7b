// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Mox {

namespace detail {

template <std::size_t size> struct BitsOfSize;
template <> struct BitsOfSize<1> {
   using Type = std::uint8_t;
};
template <> struct BitsOfSize<2> {
   using Type = std::uint16_t;
};
template <> struct BitsOfSize<4> {
   using Type = std::uint32_t;
};
template <> struct BitsOfSize<8> {
   using Type = std::uint64_t;
};

template <std::unsigned_integral Bits> constexpr Bits reversedBytes(Bits bits) noexcept {
   if constexpr (sizeof(Bits) == 8)
      return __builtin_bswap64(bits);
   else if constexpr (sizeof(Bits) == 4)
      return __builtin_bswap32(bits);
   else if constexpr (sizeof(Bits) == 2)
      return __builtin_bswap16(bits);
   else
      return bits;
}

template <std::unsigned_integral Bits> constexpr Bits bigEndian(Bits bits) noexcept {
   if constexpr (std::endian::native == std::endian::big)
      return bits;
   else
      return reversedBytes(bits);
}

} // namespace detail

/// What has a fixed pattern of 8, 16, 32 or 64 bits on the wire: integers, bool, enumerations, float and double.
template <class T>
concept Storable = std::integral<T> || std::is_enum_v<T> || std::same_as<T, float> || std::same_as<T, double>;

/// Writes the bit pattern of `value` to `to[0 .. sizeof(T) - 1]`, most significant byte first. `to` need not be
/// aligned.
template <Storable T> constexpr void storeBigEndian(std::uint8_t* to, T value) noexcept {
   using Bits = typename detail::BitsOfSize<sizeof(T)>::Type;
   auto const bytes = std::bit_cast<std::array<std::uint8_t, sizeof(T)>>(detail::bigEndian(std::bit_cast<Bits>(value)));
   std::copy_n(bytes.begin(), sizeof(T), to);
}

/// Reads what `storeBigEndian` wrote. A bool is true for every byte but zero; an enumeration is not checked.
template <Storable T> constexpr T loadBigEndian(std::uint8_t const* from) noexcept {
   using Bits = typename detail::BitsOfSize<sizeof(T)>::Type;
   std::array<std::uint8_t, sizeof(T)> bytes{};
   std::copy_n(from, sizeof(T), bytes.begin());
   Bits const bits = detail::bigEndian(std::bit_cast<Bits>(bytes));
   if constexpr (std::same_as<T, bool>)
      return bits != 0;
   else
      return std::bit_cast<T>(bits);
}

} // namespace Mox
