// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/MapKeys.h"
#include "kestrel/core/Ptr.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Mox {

/// A position in a map that survives every change of the map: the current entry's key is the bookmark, and the iterator
/// keeps the entry alive.
///
/// Any entry may be deleted or inserted between two steps, the current one included. The next step goes to the first
/// entry after the current key: an entry inserted further on is visited, one inserted before the position is not, and
/// none is visited twice.
/// *Cost*: one reference; a step searches only when the map has changed since the last one.
template <class Map, class Entry> class MapIterator {
public:
   MapIterator() noexcept = default;
   explicit MapIterator(Map& map) noexcept : map_(&map), version_(map.version()), entry_(map.first()) {}
   /// Starts at the first entry that is not before `key`.
   template <class K>
   MapIterator(Map& map, K const& key) : map_(&map), version_(map.version()), entry_(map.lowerBound(key)) {}

   explicit operator bool() const noexcept { return static_cast<bool>(entry_); }
   /// The current entry, which the map may no longer hold; null at the end.
   Ptr<Entry> const& entry() const noexcept { return entry_; }
   decltype(auto) key() const noexcept { return entry_->fwkKey(); }
   /// The entry's value; where the entries are their own values, the entry.
   decltype(auto) value() const noexcept {
      if constexpr (Map::entriesAreValues)
         return (*entry_);
      else
         return entry_->value();
   }
   /// Whether there is a current entry whose key is not the default one. Key 0 and the empty name are legal, so this does
   /// not tell whether there is a position.
   bool hasBookmark() const noexcept { return entry_ && !(key() == typename Map::KeyType{}); }

   void advance() {
      if (!entry_)
         return;
      if (version_ == map_->version()) {
         entry_ = Ptr<Entry>(map_->next(*entry_));
      } else {
         entry_ = Ptr<Entry>(map_->upperBound(key()));
         version_ = map_->version();
      }
   }

private:
   Map* map_ = nullptr;
   std::uint32_t version_ = 0;
   Ptr<Entry> entry_;
};

/// What a range over a map with separate values yields: `for (auto [channel, record] : map)`. Valid until the next step.
template <class KeyRef, class ValueRef> struct MapItem {
   KeyRef key;
   ValueRef value;
};

/// The same position for range-for: yields the entry where it is its own value, and key and value otherwise.
template <class Map, class Entry> class MapRangeIterator {
   using Position = MapIterator<Map, Entry>;
   using Item =
      MapItem<decltype(std::declval<Position const&>().key()), decltype(std::declval<Position const&>().value())>;

public:
   using difference_type = std::ptrdiff_t;
   using value_type = std::conditional_t<Map::entriesAreValues, std::remove_const_t<Entry>, Item>;
   using reference = std::conditional_t<Map::entriesAreValues, Entry&, Item>;

   MapRangeIterator() noexcept = default;
   explicit MapRangeIterator(Map& map) noexcept : position_(map) {}

   reference operator*() const noexcept {
      if constexpr (Map::entriesAreValues)
         return *position_.entry();
      else
         return {position_.key(), position_.value()};
   }
   MapRangeIterator& operator++() {
      position_.advance();
      return *this;
   }
   void operator++(int) { position_.advance(); }
   friend bool operator==(MapRangeIterator const& i, std::default_sentinel_t) noexcept { return !i.position_; }

private:
   Position position_;
};

} // namespace Mox
