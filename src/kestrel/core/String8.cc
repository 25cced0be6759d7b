// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/String8.h"

#include "kestrel/core/ByteOrder.h"
#include "kestrel/core/Exceptions.h"

#include <bit>
#include <cstring>
#include <new>
#include <ostream>
#include <random>

namespace Mox {

namespace {

struct HashKey {
   std::uint64_t low;
   std::uint64_t high;
};

struct ChosenKey {
   std::atomic<bool> isChosen{false};
   std::atomic<bool> isUsed{false};
   std::atomic<std::uint64_t> number{0};
};
constinit ChosenKey chosenKey;

HashKey firstKey() {
   std::uint64_t number = chosenKey.number;
   if (!chosenKey.isChosen) {
      std::random_device random;
      number = std::uint64_t{random()} << 32 | random();
      chosenKey.number = number;
   }
   chosenKey.isUsed = true;
   return {number, ~number * 0x9e3779b97f4a7c15u};
}

HashKey const& hashKey() {
   static HashKey const key = firstKey();
   return key;
}

/// Four words that every byte is stirred into: additions, rotations and exclusive ors, one round per eight bytes.
struct Stirred {
   std::uint64_t a, b, c, d;

   void round() noexcept {
      a += b;
      c += d;
      b = std::rotl(b, 13) ^ a;
      d = std::rotl(d, 16) ^ c;
      a = std::rotl(a, 32);
      c += b;
      a += d;
      b = std::rotl(b, 17) ^ c;
      d = std::rotl(d, 21) ^ a;
      c = std::rotl(c, 32);
   }
   void add(std::uint64_t word) noexcept {
      d ^= word;
      round();
      a ^= word;
   }
};

} // namespace

void nameHashKeyIs(U64 key) {
   if (chosenKey.isUsed && chosenKey.number != key)
      throwInternalException("the key of name hashes is set after the first name was hashed");
   chosenKey.number = key;
   chosenKey.isChosen = true;
}

std::uint32_t hashOf(std::string_view text) noexcept {
   HashKey const& key = hashKey();
   Stirred state{key.low ^ 0x736f6d6570736575u, key.high ^ 0x646f72616e646f6du, key.low ^ 0x6c7967656e657261u,
                 key.high ^ 0x7465646279746573u};
   char const* p = text.data();
   std::size_t left = text.size();
   for (; left >= 8; p += 8, left -= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      state.add(word);
   }
   // The length goes in with the last bytes, so that texts that differ only in trailing zero bytes differ.
   std::uint64_t last = 0;
   if (left != 0)
      std::memcpy(&last, p, left);
   state.add(last ^ static_cast<std::uint64_t>(text.size()) << 56);
   state.c ^= 0xff;
   state.round();
   state.round();
   state.round();
   std::uint64_t const hash = state.a ^ state.b ^ state.c ^ state.d;
   return static_cast<std::uint32_t>(hash ^ hash >> 32);
}

String8::StringN(std::string_view text) {
   if (text.empty())
      return;
   rep_ = ::new (::operator new(sizeof(Rep) + text.size() + 1)) Rep{{1}, {0}, text.size()};
   std::memcpy(bytes(rep_), text.data(), text.size());
   bytes(rep_)[text.size()] = '\0';
}

void String8::drop() const noexcept {
   std::uint32_t left;
   if (VFPtrInterface::threadSafePointers()) {
      left = rep_->count.fetch_sub(1, std::memory_order_acq_rel) - 1;
   } else {
      left = rep_->count.load(std::memory_order_relaxed) - 1;
      rep_->count.store(left, std::memory_order_relaxed);
   }
   if (left == 0) {
      std::destroy_at(rep_);
      ::operator delete(rep_);
   }
}

std::uint32_t String8::hash() const noexcept {
   if (rep_ == nullptr)
      return hashOf({});
   std::uint32_t hash = rep_->hash.load(std::memory_order_relaxed);
   if (hash == 0) {
      hash = hashOf(*this);
      rep_->hash.store(hash, std::memory_order_relaxed);
   }
   return hash;
}

std::ostream& operator<<(std::ostream& out, String8 const& text) {
   return out << std::string_view(text);
}

} // namespace Mox
