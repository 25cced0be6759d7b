// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"

#include <array>
#include <bit>
#include <concepts>
#include <limits>

namespace Mox {

/// `bits` flags in as few words as hold them.
template <unsigned bits, std::unsigned_integral Word = unsigned> class BitSet {
public:
   static constexpr int size = static_cast<int>(bits);

   /// \throws InternalException "pos>=0 && pos<bits" for a position outside; nothing has changed
   constexpr void set(int pos) { word(pos) |= mask(pos); }
   constexpr void reset(int pos) { word(pos) &= static_cast<Word>(~mask(pos)); }
   constexpr bool test(int pos) const { return (const_cast<BitSet*>(this)->word(pos) & mask(pos)) != 0; }
   constexpr void reset() noexcept { words_ = {}; }

   constexpr bool any() const noexcept { return next(0) != size; }
   constexpr bool none() const noexcept { return !any(); }
   constexpr int count() const noexcept {
      int sum = 0;
      for (Word const w : words_)
         sum += std::popcount(w);
      return sum;
   }
   /// Position of the first flag set at `from` or behind; `size` when there is none. `from` is not negative.
   constexpr int next(int from) const noexcept {
      auto at = static_cast<unsigned>(from) / wordBits;
      auto shift = static_cast<unsigned>(from) % wordBits;
      for (; at < words_.size(); ++at, shift = 0)
         if (auto const rest = static_cast<Word>(words_[at] >> shift); rest != 0)
            return static_cast<int>(at * wordBits + shift) + std::countr_zero(rest);
      return size;
   }
   friend constexpr bool operator==(BitSet const&, BitSet const&) noexcept = default;

private:
   static constexpr unsigned wordBits = std::numeric_limits<Word>::digits;

   constexpr Word& word(int pos) {
      if (!(pos >= 0 && pos < size))
         throwInternalException("pos>=0 && pos<bits");
      return words_[static_cast<unsigned>(pos) / wordBits];
   }
   static constexpr Word mask(int pos) noexcept {
      return static_cast<Word>(Word{1} << static_cast<unsigned>(pos) % wordBits);
   }

   std::array<Word, (bits + wordBits - 1) / wordBits> words_{};
};

} // namespace Mox
