// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/MapIterator.h"
#include "kestrel/core/Exceptions.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

namespace Mox {

/// A bounded number: what indexes a fixed array. Building one from a number checks it, and throws in the key type's own words.
template <class K>
concept ArrayKey = requires(K const& key) {
   { key.number() } -> std::unsigned_integral;
   { K::maximum } -> std::convertible_to<decltype(key.number())>;
   K(key.number());
};

/// The elements of a fixed array from a position on. The position changes only when the iterator is advanced, whatever
/// happens to the elements. Making an iterator populates the array.
template <class Array> class ArrayIterator {
public:
   using difference_type = std::ptrdiff_t;
   using value_type = MapItem<typename Array::KeyType, typename Array::ValueType const&>;

   ArrayIterator() noexcept = default;
   explicit ArrayIterator(Array& array) noexcept : array_(&array) { array.populate(); }
   /// Starts at the element of `key`.
   ArrayIterator(Array& array, typename Array::KeyType const& key) : array_(&array), position_(Array::indexOf(key)) {
      array.populate();
   }

   /// Number of the current element.
   std::size_t position() const noexcept { return position_; }
   explicit operator bool() const noexcept { return array_ != nullptr && position_ < array_->size(); }
   /// \throws RangeException with the key type's text when the position is behind the last element
   typename Array::KeyType key() const { return typename Array::KeyType(position_); }
   typename Array::ValueType const& value() const { return (*array_)[key()]; }
   void advance() noexcept { ++position_; }

   value_type operator*() const { return {key(), value()}; }
   ArrayIterator& operator++() noexcept {
      ++position_;
      return *this;
   }
   void operator++(int) noexcept { ++position_; }
   friend bool operator==(ArrayIterator const& i, std::default_sentinel_t) noexcept { return !i; }

private:
   Array* array_ = nullptr;
   std::size_t position_ = 0;
};

/// `capacity` values inline, one for each key from 0 on. Every element exists from the start, at its type's default, and is never
/// absent: deleting one stores the default.
///
///     DynArray<float, Xcvr::CfpxHostLaneId, 4> amplitude;
///     amplitude.store(2, 1.5F);
///     for (auto [lane, value] : amplitude) …        // all four
///
/// `size` says whether anything ever happened to the array: 0 at first, `capacity` since the first store, reset or iterator.
/// *Cost*: an index; no allocation.
template <class Value, ArrayKey Key, unsigned capacity, unsigned = 0> class DynArray {
   static_assert(static_cast<unsigned>(Key::maximum) + 1 == capacity, "a fixed array has one element for each key");

public:
   using KeyType = Key;
   using ValueType = Value;
   using Iterator = ArrayIterator<DynArray>;
   using IteratorConst = ArrayIterator<DynArray const>;

   DynArray() = default;
   DynArray(DynArray const&) = delete;
   DynArray& operator=(DynArray const&) = delete;

   /// \throws RangeException with the key type's text for a key whose number was set past its range
   static std::size_t indexOf(Key const& key) {
      std::size_t const index = key.number();
      return index < capacity ? index : Key(index).number();
   }
   /// \throws RangeException as `indexOf`; so do the other operations with a key, before anything has changed
   Value const& operator[](Key const& key) const { return values_[indexOf(key)]; }

   void store(Key const& key, Value const& value) {
      std::size_t const index = indexOf(key);
      populate();
      ++version_;
      values_[index] = value;
   }
   void reset(Key const& key) { store(key, Value{}); }

   /// 0 or `capacity`.
   unsigned size() const noexcept { return size_; }
   /// Changes with every store.
   std::uint32_t version() const noexcept { return version_; }
   /// Const, because it changes no value: a const iterator may call it.
   void populate() const noexcept { size_ = capacity; }

   Iterator begin() noexcept { return Iterator(*this); }
   IteratorConst begin() const noexcept { return IteratorConst(*this); }
   std::default_sentinel_t end() const noexcept { return {}; }

   /// Calls `visit(key, value)` for each element in order, and leaves the array as it is.
   template <class Visitor> void forEach(Visitor&& visit) const {
      for (unsigned i = 0; i < capacity; ++i)
         visit(Key(i), values_[i]);
   }

   unsigned auditErrors() const noexcept { return size_ != 0 && size_ != capacity ? 1 : 0; }

private:
   std::array<Value, capacity> values_{};
   mutable std::uint32_t size_ = 0;
   std::uint32_t version_ = 0;
};

} // namespace Mox
