// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"
#include "kestrel/core/Ptr.h"

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

namespace Mox {

/// The framework's string hash: 32 bits, every one of which depends on every byte of `text` and on the process's key, so
/// that a peer that chooses names can't choose the buckets they fall into.
std::uint32_t hashOf(std::string_view text) noexcept;

/// Sets the key of `hashOf`, so that whatever depends on the order of hashes is the same in each run. Without a call
/// the key is random.
/// \throws InternalException when a string has already been hashed under another key, which cached hashes and
/// maps keep
void nameHashKeyIs(U64 key);

template <class Character> class StringN;

/// Counted, immutable 8-bit string. Copies share the bytes and the hash, so a name is hashed once, however many maps it keys.
///
/// *Threads*: copies may live in several threads while `VFPtrInterface::enableThreadSafePointers` is on.
/// *Cost*: one allocation per text, none for the empty one or for a copy.
template <> class StringN<unsigned char> {
public:
   constexpr StringN() noexcept = default;
   StringN(std::string_view text);
   StringN(char const* text) : StringN(std::string_view(text)) {}
   StringN(std::string const& text) : StringN(std::string_view(text)) {}
   StringN(std::nullptr_t) = delete;
   StringN(StringN const& other) noexcept : rep_(other.rep_) {
      if (rep_ != nullptr)
         hold();
   }
   StringN(StringN&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
   /// Only a named string can be assigned to: an assignment to what a function returns would be lost.
   StringN& operator=(StringN other) & noexcept {
      std::swap(rep_, other.rep_);
      return *this;
   }
   ~StringN() {
      if (rep_ != nullptr)
         drop();
   }

   bool empty() const noexcept { return rep_ == nullptr; }
   std::size_t size() const noexcept { return rep_ == nullptr ? 0 : rep_->size; }
   /// The bytes, followed by a zero byte.
   char const* data() const noexcept { return rep_ == nullptr ? "" : bytes(rep_); }
   char const* c_str() const noexcept { return data(); }
   operator std::string_view() const noexcept { return {data(), size()}; }
   std::string str() const { return std::string(data(), size()); }

   /// `hashOf` the text, computed at the first request.
   std::uint32_t hash() const noexcept;
   /// Whether both are copies of one string; equal texts need not be.
   bool sharesWith(StringN const& other) const noexcept { return rep_ == other.rep_; }

private:
   /// Stands in front of the bytes. A hash of 0 means "not computed"; the one text in 2^32 that has it is hashed each time.
   struct Rep {
      std::atomic<std::uint32_t> count;
      std::atomic<std::uint32_t> hash;
      std::size_t size;
   };
   static char* bytes(Rep* rep) noexcept { return reinterpret_cast<char*>(rep + 1); }

   void hold() const noexcept {
      if (VFPtrInterface::threadSafePointers())
         rep_->count.fetch_add(1, std::memory_order_relaxed);
      else
         rep_->count.store(rep_->count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
   }
   void drop() const noexcept;

   Rep* rep_ = nullptr;
};

using String8 = StringN<unsigned char>;

/// The text that names an entity or keys a collection.
class Name : public String8 {
public:
   constexpr Name() noexcept = default;
   Name(Name const&) noexcept = default;
   Name(Name&&) noexcept = default;
   Name& operator=(Name const&) & noexcept = default;
   Name& operator=(Name&&) & noexcept = default;
   ~Name() = default;
   Name(String8 text) noexcept : String8(std::move(text)) {}
   Name(std::string_view text) : String8(text) {}
   Name(char const* text) : String8(text) {}
   Name(std::string const& text) : String8(text) {}
   Name(std::nullptr_t) = delete;
};

template <class T>
concept CountedText = std::derived_from<T, String8>;

/// Equality and order by bytes. Either side may be any text.
template <CountedText A, class B>
   requires std::convertible_to<B const&, std::string_view>
bool operator==(A const& a, B const& b) noexcept {
   if constexpr (CountedText<B>)
      if (a.sharesWith(b))
         return true;
   return std::string_view(a) == std::string_view(b);
}
template <CountedText A, class B>
   requires std::convertible_to<B const&, std::string_view>
std::strong_ordering operator<=>(A const& a, B const& b) noexcept {
   return std::string_view(a) <=> std::string_view(b);
}

std::ostream& operator<<(std::ostream& out, String8 const& text);

} // namespace Mox

template <Mox::CountedText T> struct std::hash<T> {
   std::size_t operator()(T const& text) const noexcept { return text.hash(); }
};
