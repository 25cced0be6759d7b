// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/ByteOrder.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/core/Identifiers.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace Mox {

/// Homes of names that both ends of a stream share.
struct Connection {
   struct Out {
      /// First and last byte of every record's body.
      enum class TransactToken : std::uint8_t { begin = 1, end = 3 };
   };
};

/// A type's qualified name as it travels: u16 length and the bytes.
struct TypeId {
   std::string_view name;
   friend bool operator==(TypeId, TypeId) noexcept = default;
};

namespace NboAttrLog {

/// The numbers of a value that a stream writes at its natural width. 64-bit integers are `U64` and `S64` alone: one
/// spelling keeps a body's width plain from the type of what is written.
template <class T>
concept WireScalar = std::same_as<T, bool> || std::same_as<T, unsigned char> || std::same_as<T, unsigned short> ||
                     std::same_as<T, unsigned int> || std::same_as<T, int> || std::same_as<T, U64> ||
                     std::same_as<T, S64> || std::same_as<T, float> || std::same_as<T, double>;

/// A record longer than the peer takes; it has been rolled back, and the stream goes on without it.
class RecordTooLong final : public AttrLogRecordException {
public:
   using AttrLogRecordException::AttrLogRecordException;
};

/// The attribute that a header's field names, removal or not. Of every number, the lowest included.
constexpr AttributeId attributeOf(std::int32_t field) noexcept {
   auto const number = static_cast<AttributeId>(field);
   return field < 0 ? 0u - number : number;
}

/// What a transaction marker says about the resend of a collection.
enum class AttrTransactionType : std::uint8_t { begin = 0, abort = 1, end = 2 };

/// Values of a header's `kind`. Others belong to newer peers: such records are skipped and counted.
namespace kind {
inline constexpr std::uint32_t value = 0;
inline constexpr std::uint32_t marker = 1; ///< body: u8 `AttrTransactionType`, u32 count
inline constexpr std::uint32_t childLog = attr::childLog;
} // namespace kind

/// The bits of a frame's length word, and the sizes that the framing fixes.
namespace frame {
inline constexpr std::uint32_t controlBit = 1u << 31;
inline constexpr std::uint32_t writeBit = 1u << 30;     ///< a 64-bit base stands before the header
inline constexpr std::uint32_t extensionBit = 1u << 29; ///< a byte n and n bytes to skip stand before base and header
inline constexpr std::uint32_t lengthMask = extensionBit - 1;

inline constexpr std::size_t lengthSize = 4;
inline constexpr std::size_t baseSize = 8;
inline constexpr std::size_t headerSize = 22;
inline constexpr std::size_t tokensSize = 2;
inline constexpr std::size_t controlHeadSize = 2; ///< kind and flags

/// How deep entities may be nested in what travels, a root or an orphan being 0: who is told walks up to it.
inline constexpr unsigned maximumDepth = 256;
/// Longest hello, and the least maximum that a peer may state. Bytes after the length word.
inline constexpr std::uint32_t maximumHello = 512;
/// Maximum that a stream goes by until it is told another. Bytes after the length word.
inline constexpr std::uint32_t defaultMaximum = 1u << 20;
} // namespace frame

/// What stands before a record's body: whose value it is, and how wide.
struct MsgHeader {
   EntityId entity;            ///< on the wire the low word first, each word big-endian
   std::int32_t attribute = 0; ///< negated for a key that is gone and for a null entry of a reference directory
   std::uint8_t variable = 0;  ///< 0 when the value has the width `fixedSize`, 1 otherwise
   std::uint32_t fixedSize = 0;
   std::uint32_t kind = 0;
   std::uint8_t reserved = 0;

   friend bool operator==(MsgHeader const&, MsgHeader const&) noexcept = default;

   /// The header's only list of fields: writer, reader and dump go through it. Calls `field(name, integer)` in wire
   /// order.
   template <class Self, class Field> [[gnu::always_inline]] static void fields(Self& self, Field&& field) {
      field("entity low", self.entity.low);
      field("entity high", self.entity.high);
      field("attribute", self.attribute);
      field("variable", self.variable);
      field("fixed size", self.fixedSize);
      field("kind", self.kind);
      field("reserved", self.reserved);
   }

   /// \param at room of `frame::headerSize` bytes
   [[gnu::always_inline]] void store(std::uint8_t* at) const noexcept {
      fields(*this, [&at](char const*, auto const& v) {
         storeBigEndian(at, v);
         at += sizeof v;
      });
   }
   /// In place: a copy right behind the narrow stores would wait for every one of them.
   [[gnu::always_inline]] void load(std::uint8_t const* at) noexcept {
      fields(*this, [&at](char const*, auto& v) {
         v = loadBigEndian<std::remove_reference_t<decltype(v)>>(at);
         at += sizeof v;
      });
   }
};

} // namespace NboAttrLog
} // namespace Mox
