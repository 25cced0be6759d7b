// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/RbTreeMap.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <utility>

namespace Mox {

/// How the framework puts another value into an entry. Whoever does so counts the change and tells the reactors of the entity that
/// the entry belongs to; an entry itself hands out nothing to write to.
struct MapEntryAccess {
   template <class Entry, class Value> static void valueIs(Entry& entry, Value const& value) { entry.valueIs(value); }
};

/// A key and a value, counted: what a map holds and what an iterator or a caller may hold longer than the map does.
template <class Key, class Value> class MapEntry : public PtrInterface {
public:
   MapEntry(Key key, Value value) : key_(std::move(key)), value_(std::move(value)) {}

   Key const& fwkKey() const noexcept { return key_; }
   Value const& value() const noexcept { return value_; }

private:
   friend struct MapEntryAccess;
   void valueIs(Value const& value) { value_ = value; }

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

/// Entry of a hash map of references to named objects that live elsewhere. Its key is the target's own name (`moxName()`), read
/// whenever it is needed; the target is never null, and only another of the same name takes its place.
template <class Self, class Target> class HashReferenceEntry : public PtrInterface {
public:
   explicit HashReferenceEntry(Ptr<Target> target) : target_(std::move(target)) {}

   Name const& fwkKey() const noexcept { return target_->moxName(); }
   Ptr<Target> const& value() const noexcept { return target_; }
   Ptr<Self> const& moxNext() const noexcept { return next_; }
   void moxNextIs(Ptr<Self> const& next) noexcept { next_ = next; }

private:
   friend struct MapEntryAccess;
   /// Releases the target that was there, which may run reactors.
   void valueIs(Ptr<Target> const& target) { target_ = target; }

   Ptr<Target> target_;
   Ptr<Self> next_; // declared after the target, and therefore released before it
};

} // namespace Mox
