// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/MapIterator.h"
#include "kestrel/containers/MapKeys.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Ptr.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace Mox {

/// Bit 0 becomes bit 31, and so on.
constexpr std::uint32_t bitReversed(std::uint32_t v) noexcept {
   v = (v >> 1 & 0x55555555u) | (v & 0x55555555u) << 1;
   v = (v >> 2 & 0x33333333u) | (v & 0x33333333u) << 2;
   v = (v >> 4 & 0x0f0f0f0fu) | (v & 0x0f0f0f0fu) << 4;
   return __builtin_bswap32(v);
}

/// What a hash map does to its entries and keys: one shared object for each kind of entry.
template <class Entry, class Key> class HashMapVTable {
public:
   /// Created on first use and never freed, because maps may outlive every static object.
   static HashMapVTable const& instance() {
      static auto const* const table = new HashMapVTable;
      return *table;
   }

   /// The base hash with its bits reversed. The top bits of the result choose the bucket, and so the low bits of a
   /// number do.
   std::uint32_t hash(Entry const& entry) const noexcept {
      if constexpr (requires { entry.fwkKeyHash(); })
         return bitReversed(entry.fwkKeyHash());
      else
         return hashOfKey(entry.fwkKey());
   }
   template <class K> static std::uint32_t hashOfKey(K const& key) noexcept { return bitReversed(baseHash(key)); }
   template <class K> bool keyEquals(K const& key, Entry const& entry) const noexcept { return entry.fwkKey() == key; }
   /// Whether `b`'s key is less than `a`'s; without `b`, whether `key` is less than `a`'s; without either, true.
   template <class K> bool keyLessThan(K const& key, Entry const* a, Entry const* b) const noexcept {
      if (a == nullptr)
         return true;
      return b == nullptr ? key < a->fwkKey() : b->fwkKey() < a->fwkKey();
   }
   /// Replaces the entry's chain link. Every link of every entry is set here and nowhere else.
   void setNext(Entry& entry, Ptr<Entry> const& next) const { entry.moxNextIs(next); }

private:
   HashMapVTable() = default;
};

/// Unordered map of counted entries that carry their chain link: `fwkKey() const`, `Ptr<Entry> const& moxNext() const`,
/// `moxNextIs(Ptr<Entry> const&)`, and `value() const` unless the entry is its own value. An entry that keeps its key's hash
/// (`baseHash`) offers it as `fwkKeyHash() const`.
///
/// The order of iteration is that of (reversed hash, key), whatever the number of buckets. Chains are sorted by the
/// whole hash, so a bucket is split by cutting its chain once, and an iterator's position means the same before and
/// after.
///
/// *References*: the map holds one per entry, the bucket to the first of its chain and each entry to the next. An entry that
/// leaves keeps its key and value and loses its link.
/// *Cost*: constant expected time. The buckets double when there are as many entries, and halve when seven of eight are empty.
/// *Exceptions*: an insertion that fails to allocate has changed nothing; removals don't throw.
template <class Entry, class Key, class Value = Entry> class HashMap {
public:
   using KeyType = Key;
   using EntryType = Entry;
   using ValueType = Value;
   using VTable = HashMapVTable<Entry, Key>;
   using Iterator = MapIterator<HashMap, Entry>;
   using IteratorConst = MapIterator<HashMap const, Entry const>;
   static constexpr bool entriesAreValues = std::is_same_v<Entry, Value>;

   /// Starts with 2^`logBuckets` buckets, allocated with the first entry.
   explicit HashMap(unsigned logBuckets = 4)
      : initialBits_(logBuckets), bits_(logBuckets), vtable_(&VTable::instance()) {
      if (logBuckets == 0 || logBuckets > maximumBits)
         throwInternalException("a hash map starts with 2^1 to 2^28 buckets");
   }
   HashMap(HashMap const&) = delete;
   HashMap& operator=(HashMap const&) = delete;
   ~HashMap() { clear(); }

   std::size_t size() const noexcept { return size_; }
   bool empty() const noexcept { return size_ == 0; }
   /// Changes with every insertion, replacement and removal.
   std::uint32_t version() const noexcept { return version_; }
   /// 0 before the first entry.
   std::size_t buckets() const noexcept { return heads_ ? std::size_t{1} << bits_ : 0; }

   template <LookupKey<Key> K = Key> Entry const* find(K const& key) const {
      auto const& k = lookupKey<Key>(key);
      return matching(k, VTable::hashOfKey(k)).at;
   }
   template <LookupKey<Key> K = Key> Entry* find(K const& key) { return mutableEntry(std::as_const(*this).find(key)); }
   template <LookupKey<Key> K = Key> bool contains(K const& key) const { return find(key) != nullptr; }

   Entry const* first() const noexcept { return firstFrom(0); }
   Entry* first() noexcept { return mutableEntry(std::as_const(*this).first()); }
   /// The entry behind `entry`, which this map holds; null at the end.
   Entry const* next(Entry const& entry) const noexcept {
      Entry const* const inChain = entry.moxNext().get();
      return inChain != nullptr ? inChain : firstFrom(bucketOf(vtable_->hash(entry)) + 1);
   }
   Entry* next(Entry const& entry) noexcept { return mutableEntry(std::as_const(*this).next(entry)); }
   /// First entry, in the order of iteration, that is not before `key`, or that is behind it. The key itself need not be there.
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
   /// The framework's name of `upperBound`: the successor by key, whether or not an entry has it.
   template <LookupKey<Key> K = Key> Entry const* findNextG(K const& key) const { return upperBound(key); }

   /// Adds `entry`, or puts it in the place of the entry with an equal key.
   /// \return the entry that left, or null
   /// \throws InternalException when `entry` is null or has a chain link. An entry belongs to one map, because a second
   /// one would change its link; but the last entry of a chain has no link, and putting it into a second map goes
   /// unnoticed.
   Ptr<Entry> add(Ptr<Entry> const& entry) {
      if (!entry)
         throwInternalException("a null entry is put into a hash map");
      if (entry->moxNext())
         throwInternalException("a hash map entry is put into a map while it is in one");
      std::uint32_t const hash = vtable_->hash(*entry);
      Place place = seek(entry->fwkKey(), hash);
      if (place.at != nullptr && vtable_->keyEquals(entry->fwkKey(), *place.at)) {
         if (place.at == entry.get())
            return nullptr;
         Ptr<Entry> replaced(place.at);
         vtable_->setNext(*entry, replaced->moxNext());
         link(place, entry);
         vtable_->setNext(*replaced, nullptr);
         ++version_;
         return replaced;
      }
      if (size_ >= buckets() && grow())
         place = seek(entry->fwkKey(), hash);
      vtable_->setNext(*entry, Ptr<Entry>(place.at));
      link(place, entry);
      ++size_;
      ++version_;
      return nullptr;
   }
   Ptr<Entry> insert(Ptr<Entry> const& entry) { return add(entry); }

   /// Takes `entry` out. \return it, or null when this map doesn't hold it
   Ptr<Entry> remove(Entry& entry) {
      Place const place = matching(entry.fwkKey(), vtable_->hash(entry));
      return place.at == &entry ? unlink(place) : nullptr;
   }
   /// Takes the entry with that key out. \return it, or null
   template <LookupKey<Key> K = Key> Ptr<Entry> deleteMember(K const& key) {
      auto const& k = lookupKey<Key>(key);
      Place const place = matching(k, VTable::hashOfKey(k));
      return place.at != nullptr ? unlink(place) : nullptr;
   }

   /// Releases every entry, in the order of iteration, and the buckets. Code that runs when an entry goes finds the map
   /// empty.
   void clear() noexcept {
      if (!heads_)
         return;
      auto const heads = std::move(heads_);
      std::size_t const count = std::size_t{1} << std::exchange(bits_, initialBits_);
      size_ = 0;
      ++version_;
      for (std::size_t i = 0; i < count; ++i) {
         // One at a time: a chain that is dropped at its head would be destroyed recursively.
         for (Ptr<Entry> entry = std::move(heads[i]); entry;) {
            Ptr<Entry> behind(entry->moxNext());
            vtable_->setNext(*entry, nullptr);
            entry = std::move(behind);
         }
      }
   }

   MapRangeIterator<HashMap, Entry> begin() noexcept { return MapRangeIterator<HashMap, Entry>(*this); }
   MapRangeIterator<HashMap const, Entry const> begin() const noexcept {
      return MapRangeIterator<HashMap const, Entry const>(*this);
   }
   std::default_sentinel_t end() const noexcept { return {}; }

   /// Number of faults in the map's own structure: entries in a wrong bucket or out of order, a wrong count.
   unsigned auditErrors() const {
      unsigned errors = 0;
      std::size_t counted = 0;
      for (std::size_t i = 0; i < buckets(); ++i) {
         Entry const* before = nullptr;
         for (Entry const* e = heads_[i].get(); e != nullptr; before = e, e = e->moxNext().get(), ++counted) {
            errors += bucketOf(vtable_->hash(*e)) != i;
            errors += before != nullptr && !precedes(*before, e->fwkKey(), vtable_->hash(*e));
         }
      }
      return errors + (counted != size_);
   }

private:
   static constexpr unsigned maximumBits = 28;

   /// A point in a chain: `at` stands there or is null, `before` links to it unless it is the chain's first.
   struct Place {
      std::size_t bucket;
      Entry* before;
      Entry* at;
   };

   static Entry* mutableEntry(Entry const* entry) noexcept { return const_cast<Entry*>(entry); }
   std::size_t bucketOf(std::uint32_t hash) const noexcept { return hash >> (32 - bits_); }

   template <class K> bool precedes(Entry const& entry, K const& key, std::uint32_t hash) const noexcept {
      std::uint32_t const entryHash = vtable_->hash(entry);
      if (entryHash != hash)
         return entryHash < hash;
      return !vtable_->keyEquals(key, entry) && !vtable_->keyLessThan(key, &entry, nullptr);
   }
   /// Where an entry with that key stands or belongs.
   template <class K> Place seek(K const& key, std::uint32_t hash) const noexcept {
      Place place{bucketOf(hash), nullptr, nullptr};
      if (!heads_)
         return place;
      place.at = heads_[place.bucket].get();
      while (place.at != nullptr && precedes(*place.at, key, hash)) {
         place.before = place.at;
         place.at = place.at->moxNext().get();
      }
      return place;
   }
   /// As `seek`, with a null `at` unless that entry has the key.
   template <class K> Place matching(K const& key, std::uint32_t hash) const noexcept {
      Place place = seek(key, hash);
      if (place.at != nullptr && !vtable_->keyEquals(key, *place.at))
         place.at = nullptr;
      return place;
   }
   template <class K> Entry const* bound(K const& key, bool behind) const noexcept {
      Place const place = seek(key, VTable::hashOfKey(key));
      if (place.at == nullptr)
         return firstFrom(place.bucket + 1);
      return behind && vtable_->keyEquals(key, *place.at) ? next(*place.at) : place.at;
   }
   Entry const* firstFrom(std::size_t bucket) const noexcept {
      for (std::size_t const count = buckets(); bucket < count; ++bucket)
         if (heads_[bucket]) {
            for (std::size_t ahead = bucket + 1; ahead < std::min(bucket + 3, count); ++ahead)
               prefetch(heads_[ahead].get());
            return heads_[bucket].get();
         }
      return nullptr;
   }
   /// Neighbours in the order of iteration lie anywhere in memory: a walk prefetches the entries to come while it works
   /// on this one.
   static void prefetch(Entry const* entry) noexcept {
      if (entry == nullptr)
         return;
      __builtin_prefetch(entry);
      __builtin_prefetch(&entry->moxNext());
   }

   void link(Place const& place, Ptr<Entry> const& entry) {
      if (place.before == nullptr)
         heads_[place.bucket] = entry;
      else
         vtable_->setNext(*place.before, entry);
   }
   Ptr<Entry> unlink(Place const& place) {
      Ptr<Entry> removed(place.at);
      link(place, removed->moxNext());
      vtable_->setNext(*removed, nullptr);
      --size_;
      ++version_;
      if (bits_ > initialBits_ && size_ < buckets() / 8)
         shrink();
      return removed;
   }

   /// \return whether the number of buckets has changed
   bool grow() {
      if (!heads_) {
         heads_ = std::make_unique<Ptr<Entry>[]>(std::size_t{1} << bits_);
         return true;
      }
      if (bits_ == maximumBits)
         return false;
      std::size_t const count = buckets();
      auto heads = std::make_unique<Ptr<Entry>[]>(count * 2);
      std::uint32_t const upperHalf = std::uint32_t{1} << (31 - bits_);
      for (std::size_t i = 0; i < count; ++i) {
         Entry* lastLower = nullptr;
         for (Entry* e = heads_[i].get(); e != nullptr && (vtable_->hash(*e) & upperHalf) == 0; e = e->moxNext().get())
            lastLower = e;
         if (lastLower == nullptr) {
            heads[2 * i + 1] = std::move(heads_[i]);
            continue;
         }
         heads[2 * i] = std::move(heads_[i]);
         if (lastLower->moxNext()) {
            heads[2 * i + 1] = lastLower->moxNext();
            vtable_->setNext(*lastLower, nullptr);
         }
      }
      heads_ = std::move(heads);
      ++bits_;
      return true;
   }
   /// Halves the buckets to save memory. Where there is no memory for the smaller array, the map stays as it is.
   void shrink() noexcept {
      std::size_t const count = buckets() / 2;
      std::unique_ptr<Ptr<Entry>[]> heads(new (std::nothrow) Ptr<Entry>[count]);
      if (!heads)
         return;
      for (std::size_t i = 0; i < count; ++i) {
         Ptr<Entry>& lower = heads_[2 * i];
         Ptr<Entry>& upper = heads_[2 * i + 1];
         if (lower && upper) {
            Entry* last = lower.get();
            while (last->moxNext())
               last = last->moxNext().get();
            vtable_->setNext(*last, upper);
         }
         heads[i] = std::move(lower ? lower : upper);
      }
      heads_ = std::move(heads);
      --bits_;
   }

   std::unique_ptr<Ptr<Entry>[]> heads_;
   std::size_t size_ = 0;
   unsigned initialBits_;
   unsigned bits_;
   std::uint32_t version_ = 0;
   VTable const* vtable_;
};

} // namespace Mox
