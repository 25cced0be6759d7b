// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/MapIterator.h"
#include "kestrel/containers/MapKeys.h"
#include "kestrel/containers/RbTree.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Ptr.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>

namespace Mox {

/// What an entry of an ordered map carries: `RbTreeLinks<Entry>& moxTreeLinks()`. It can't be copied or moved.
template <class Entry> class RbTreeLinks : private RbTreeNode {
public:
   RbTreeLinks() noexcept = default;
   RbTreeLinks(RbTreeLinks const&) = delete;
   RbTreeLinks& operator=(RbTreeLinks const&) = delete;

   bool isLinked() const noexcept { return entry_ != nullptr; }

private:
   template <class, class, class> friend class RbTreeMap;

   /// Null while in no map. The entry is stored because only its own class knows where in it the links lie.
   Entry* entry_ = nullptr;
};

/// Map of counted entries in ascending order of key: numbers as signed or unsigned as they are, names by bytes. An entry carries
/// its links and has `fwkKey() const`, and `value() const` unless the entry is its own value.
///
/// *References*: the map holds one per entry. An entry that leaves keeps its key and value.
/// *Cost*: logarithmic; no allocation.
/// *Exceptions*: removals don't throw; an insertion throws only for a null entry or one that is in a map.
template <class Entry, class Key, class Value = Entry> class RbTreeMap {
public:
   using KeyType = Key;
   using EntryType = Entry;
   using ValueType = Value;
   using Iterator = MapIterator<RbTreeMap, Entry>;
   using IteratorConst = MapIterator<RbTreeMap const, Entry const>;
   static constexpr bool entriesAreValues = std::is_same_v<Entry, Value>;

   RbTreeMap() noexcept = default;
   RbTreeMap(RbTreeMap const&) = delete;
   RbTreeMap& operator=(RbTreeMap const&) = delete;
   ~RbTreeMap() { clear(); }

   std::size_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }
   /// Changes with every insertion, replacement and removal.
   std::uint32_t version() const noexcept { return version_; }

   template <LookupKey<Key> K = Key> Entry const* find(K const& key) const {
      auto const& k = lookupKey<Key>(key);
      return seek(k).found;
   }
   template <LookupKey<Key> K = Key> Entry* find(K const& key) { return mutableEntry(std::as_const(*this).find(key)); }
   template <LookupKey<Key> K = Key> bool contains(K const& key) const { return find(key) != nullptr; }

   Entry const* first() const noexcept { return entryOf(tree_.first()); }
   Entry* first() noexcept { return entryOf(tree_.first()); }
   /// The entry behind `entry`, which this map holds; null at the end.
   Entry const* next(Entry const& entry) const noexcept { return entryOf(RbTree::next(&links(*mutableEntry(&entry)))); }
   Entry* next(Entry const& entry) noexcept { return mutableEntry(std::as_const(*this).next(entry)); }
   /// First entry whose key is not less than `key`, or is greater. The key itself need not be there.
   template <LookupKey<Key> K = Key> Entry const* lowerBound(K const& key) const {
      return bound(lookupKey<Key>(key), false);
   }
   template <LookupKey<Key> K = Key> Entry* lowerBound(K const& key) {
      return mutableEntry(std::as_const(*this).lowerBound(key));
   }
   template <LookupKey<Key> K = Key> Entry const* upperBound(K const& key) const {
      return bound(lookupKey<Key>(key), true);
   }
   template <LookupKey<Key> K = Key> Entry* upperBound(K const& key) {
      return mutableEntry(std::as_const(*this).upperBound(key));
   }

   /// Adds `entry`, or puts it in the place of the entry with an equal key.
   /// \return the entry that left, or null
   /// \throws InternalException when `entry` is null or in a map already
   Ptr<Entry> insert(Ptr<Entry> const& entry) {
      if (!entry)
         throwInternalException("a null entry is put into an ordered map");
      Place const place = seek(entry->fwkKey());
      if (place.found == entry.get())
         return nullptr;
      auto& entryLinks = links(*entry);
      if (entryLinks.isLinked())
         throwInternalException("an ordered map entry is put into a map while it is in one");
      Ptr<Entry> replaced;
      if (place.found != nullptr) {
         replaced = Ptr<Entry>::adopt(place.found);
         tree_.replace(&links(*replaced), &entryLinks);
         links(*replaced).entry_ = nullptr;
      } else {
         tree_.link(&entryLinks, place.parent, place.side);
         ++size_;
      }
      entryLinks.entry_ = entry.get();
      entry->referenceInc();
      ++version_;
      return replaced;
   }

   /// Takes `entry` out. \return it, or null when this map doesn't hold it
   Ptr<Entry> remove(Entry& entry) {
      return links(entry).isLinked() && find(entry.fwkKey()) == &entry ? unlink(entry) : nullptr;
   }
   /// Takes the entry with that key out. \return it, or null
   template <LookupKey<Key> K = Key> Ptr<Entry> deleteMember(K const& key) {
      Entry* const entry = find(key);
      return entry != nullptr ? unlink(*entry) : nullptr;
   }

   /// Releases every entry, in ascending order. Code that runs when an entry goes finds the map empty.
   void clear() noexcept {
      if (size_ == 0)
         return;
      RbTreeNode* rest = tree_.release();
      size_ = 0;
      ++version_;
      while (rest != nullptr) {
         auto* const first = static_cast<RbTreeLinks<Entry>*>(RbTree::dismantleFirst(rest));
         std::exchange(first->entry_, nullptr)->referenceDec();
      }
   }

   MapRangeIterator<RbTreeMap, Entry> begin() noexcept { return MapRangeIterator<RbTreeMap, Entry>(*this); }
   MapRangeIterator<RbTreeMap const, Entry const> begin() const noexcept {
      return MapRangeIterator<RbTreeMap const, Entry const>(*this);
   }
   std::default_sentinel_t end() const noexcept { return {}; }

   /// Number of faults in the map's own structure: links, balance, order, count.
   unsigned auditErrors() const {
      unsigned errors = tree_.auditErrors();
      std::size_t counted = 0;
      Entry const* before = nullptr;
      for (Entry const* e = first(); e != nullptr; before = e, e = next(*e), ++counted)
         errors += before != nullptr && !(before->fwkKey() < e->fwkKey());
      return errors + (counted != size_);
   }

private:
   /// The entry with a key, or where it belongs.
   struct Place {
      Entry* found;
      RbTreeNode* parent;
      unsigned side;
   };

   static Entry* mutableEntry(Entry const* entry) noexcept { return const_cast<Entry*>(entry); }
   static RbTreeLinks<Entry>& links(Entry& entry) noexcept { return entry.moxTreeLinks(); }
   static Entry* entryOf(RbTreeNode* node) noexcept {
      return node == nullptr ? nullptr : static_cast<RbTreeLinks<Entry>*>(node)->entry_;
   }

   template <class K> Place seek(K const& key) const noexcept {
      Place place{nullptr, nullptr, 0};
      for (RbTreeNode* node = tree_.root(); node != nullptr; node = node->child[place.side]) {
         auto const order = key <=> entryOf(node)->fwkKey();
         if (order == 0) {
            place.found = entryOf(node);
            return place;
         }
         place.parent = node;
         place.side = order > 0 ? 1 : 0;
      }
      return place;
   }
   template <class K> Entry const* bound(K const& key, bool behind) const noexcept {
      Entry const* result = nullptr;
      for (RbTreeNode* node = tree_.root(); node != nullptr;) {
         auto const order = key <=> entryOf(node)->fwkKey();
         bool const isBefore = order > 0 || (behind && order == 0);
         if (!isBefore)
            result = entryOf(node);
         node = node->child[isBefore ? 1 : 0];
      }
      return result;
   }
   Ptr<Entry> unlink(Entry& entry) {
      tree_.unlink(&links(entry));
      links(entry).entry_ = nullptr;
      --size_;
      ++version_;
      return Ptr<Entry>::adopt(&entry);
   }

   RbTree tree_;
   std::size_t size_ = 0;
   std::uint32_t version_ = 0;
};

} // namespace Mox
