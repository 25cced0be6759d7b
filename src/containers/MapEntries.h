#pragma once

#include "containers/RbTreeMap.h"
#include "core/Ptr.h"

#include <utility>

namespace Mox {

/// A key and a value, counted: what a map holds and what an iterator or a caller may hold longer than the map does.
template <class Key, class Value> class MapEntry : public PtrInterface {
public:
   MapEntry(Key key, Value value) : key_(std::move(key)), value_(std::move(value)) {}

   Key const& fwkKey() const noexcept { return key_; }
   Value const& value() const noexcept { return value_; }
   void valueIs(Value const& value) { value_ = value; }

private:
   Key const key_;
   Value value_;
};

/// Entry of an ordered map. `Self` is the entry's own class.
template <class Self, class Key, class Value> class RbTreeMapEntry : public MapEntry<Key, Value> {
public:
   using MapEntry<Key, Value>::MapEntry;
   RbTreeLinks<Self>& moxTreeLinks() noexcept { return links_; }
   RbTreeLinks<Self> const& moxTreeLinks() const noexcept { return links_; }

private:
   RbTreeLinks<Self> links_;
};

/// Entry of a hash map.
template <class Self, class Key, class Value> class HashMapEntry : public MapEntry<Key, Value> {
public:
   using MapEntry<Key, Value>::MapEntry;
   Ptr<Self> const& moxNext() const noexcept { return next_; }
   void moxNextIs(Ptr<Self> const& next) noexcept { next_ = next; }

private:
   Ptr<Self> next_;
};

} // namespace Mox
