// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/String8.h"

#include <concepts>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace Mox {

/// The hash of a map's key before the map reverses its bits: the number itself for integers, enumerations and bounded
/// values, the string hash for names and texts. A key type of another kind declares its own `baseHash` in its
/// namespace; the attribute log takes keys that convert to an integer and back, or to a name, and no others.
template <class K>
   requires std::is_enum_v<K> || std::convertible_to<K const&, std::uint64_t>
constexpr std::uint32_t baseHash(K const& key) noexcept {
   auto const number = static_cast<std::uint64_t>(key);
   if constexpr (sizeof(K) > sizeof(std::uint32_t))
      return static_cast<std::uint32_t>(number ^ number >> 32);
   else
      return static_cast<std::uint32_t>(number);
}
inline std::uint32_t baseHash(String8 const& key) noexcept {
   return key.hash();
}
inline std::uint32_t baseHash(std::string_view key) noexcept {
   return hashOf(key);
}

/// What a map with keys of type `Key` can be searched for: a key, whatever converts to one, and for names any text,
/// which is not made into a name.
template <class K, class Key>
concept LookupKey = std::same_as<K, Key> || (CountedText<Key> && std::convertible_to<K const&, std::string_view>) ||
                    std::convertible_to<K const&, Key>;

/// `key` in the form in which it is hashed and compared.
template <class Key, LookupKey<Key> K> constexpr decltype(auto) lookupKey(K const& key) {
   if constexpr (std::same_as<K, Key> || (CountedText<Key> && CountedText<K>))
      return (key);
   else if constexpr (CountedText<Key> && std::convertible_to<K const&, std::string_view>)
      return std::string_view(key);
   else
      return Key(key);
}

} // namespace Mox
