// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"
#include "kestrel/core/String8.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

namespace Mox::NboAttrLog {

/// What a map's key must be in a type with a log.
template <class Key> inline constexpr bool isNameKey = std::is_convertible_v<Key const&, Name>;
template <class Key>
inline constexpr bool isNumberKey = !std::is_floating_point_v<Key> && requires(Key const& key, std::int64_t number) {
   static_cast<std::int64_t>(key);
   static_cast<Key>(number);
};

/// A position in an entity's attributes: the attribute, and for a keyed one the key. One small value, whatever the key's type:
/// replacing or dropping it needs nobody who knows the type. Whether there is a key is said, never guessed from the key: 0 and the
/// empty name are keys.
struct Mark {
   AttributeId attribute = attr::none;
   bool hasKey = false;
   std::int64_t number = 0;
   Name name;

   Mark() = default;
   explicit Mark(AttributeId a) : attribute(a) {}
   template <class Key> Mark(AttributeId a, Key const& key) : attribute(a), hasKey(true) {
      static_assert(
         isNameKey<Key> || isNumberKey<Key>,
         "the key of a map in a type with an attribute log converts to an integer and back, or to a Mox::Name");
      if constexpr (isNameKey<Key>)
         name = key;
      else if constexpr (isNumberKey<Key>)
         number = static_cast<std::int64_t>(key);
   }
   template <class Key> Key as() const {
      if constexpr (isNameKey<Key>)
         return name;
      else if constexpr (isNumberKey<Key>)
         return Key(static_cast<Key>(number));
   }
   friend bool operator==(Mark const& a, Mark const& b) {
      return a.attribute == b.attribute && a.hasKey == b.hasKey && a.number == b.number && a.name == b.name;
   }
};

struct MarkHash {
   std::size_t operator()(Mark const& m) const noexcept {
      // Names bring a hash of their own; numbers are small and differ in their low bits.
      std::uint64_t const h = m.attribute * 0x9e3779b97f4a7c15u + static_cast<std::uint64_t>(m.number);
      return static_cast<std::size_t>((h ^ h >> 32) + (m.hasKey ? m.name.hash() : 0u));
   }
};

/// Marks, each once, however often it is put in: what waits for something grows with what there is, never with how often it changes.
using MarkSet = std::unordered_set<Mark, MarkHash>;
template <class T> using MarkMap = std::unordered_map<Mark, T, MarkHash>;

} // namespace Mox::NboAttrLog
