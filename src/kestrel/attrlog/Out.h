// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Frames.h"
#include "kestrel/attrlog/In.h"
#include "kestrel/attrlog/MsgHeader.h"
#include "kestrel/core/Ptr.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace Mox::NboAttrLog {

/// One direction of a stream, the writing end: turns records and control frames into bytes and keeps them until someone
/// carries them off. No byte moves by itself; a mutator that ends in a record here never waits for a peer.
///
///    NboAttrLog::Record record(*out, {.entity = id, .attribute = 388, .fixedSize = 4});
///    out << refClock;
///    record.close();
///    …
///    for (auto bytes = out->pending(); !bytes.empty(); bytes = out->pending())
///       out->sent(socket.write(bytes));
///
/// What is written goes into one buffer, once. The buffer has a mark, past which `hasSufficientBuffer` says no; a
/// record is never declined, so what bounds the buffer is the writer who asks. Control frames aren't declined either,
/// and keep their place among the records; only a ping and a pong overtake, at the next boundary between frames.
///
/// *Threads*: one at a time. *Cost*: a record of a scalar is a few stores; a long-lived stream allocates nothing once
/// the buffer has found its size, and gives memory back after a burst.
class Out : public PtrInterface {
public:
   static constexpr std::size_t defaultMark = 64 * 1024;

   /// \param name of the stream or its peer, for messages
   explicit Out(std::string name = {}) : name_(std::move(name)) {}

   std::string const& name() const noexcept { return name_; }
   void nameIs(std::string name) { name_ = std::move(name); }

   /// The reading end of the same connection; null where nothing comes back.
   Ptr<In> const& reverseLog() const noexcept { return reverse_; }
   void reverseLogIs(Ptr<In> reverse) noexcept { reverse_ = std::move(reverse); }

   /// The longest frame that the peer takes, in bytes after the length word: from its hello.
   std::uint32_t peerMaximumFrame() const noexcept { return peerMaximum_; }
   void peerMaximumFrameIs(std::uint32_t n) noexcept { peerMaximum_ = std::min(n, frame::lengthMask); }

   // Records -------------------------------------------------------------------------------------------------------

   /// Opens a record, whose body follows: token `begin`, values, token `end`. Prefer `Record`, which does not leave it
   /// open.
   /// \throws AttrLogRecordException while another record is open, which stays as it is
   void nextHeaderIs(MsgHeader const& header) { header.store(beginRecord(0, frame::headerSize)); }
   /// Opens a record that is a write to the peer's truth.
   /// \param base digest of the value that this write was made over
   void nextHeaderIs(MsgHeader const& header, U64 base) {
      std::uint8_t* const at = beginRecord(frame::writeBit, frame::baseSize + frame::headerSize);
      storeBigEndian(at, base);
      header.store(at + frame::baseSize);
   }

   /// Writes a whole record whose body is one number; where there is room and all is well, in one step.
   /// \param fixedSize as its header states it; 0 for none
   /// \throws AttrLogRecordException, RecordTooLong as `nextHeaderIs` and the token `end` do
   template <WireScalar T> void numberRecord(EntityId entity, AttributeId attribute, std::uint32_t fixedSize, T v);

   /// Ends the section before and opens section `n` of the record: one byte n and a 32-bit length that the end of the
   /// section fills in, so that a reader steps over what it does not know.
   void currentPayloadSectionIs(unsigned n);

   /// Drops the open record; nothing happens when none is open.
   void rollback() noexcept;
   bool isRecordOpen() const noexcept { return record_ != nullptr; }

   /// Says where the resend of a collection stands: a counted record of its own.
   void transactionMarker(EntityId entity, AttributeId attribute, AttrTransactionType type, std::uint32_t count = 0);

   /// Records closed since `clear()`. The number of the last one, as the peer counts.
   U64 recordsWritten() const noexcept { return recordsWritten_; }

   /// Body bytes of the open record so far, token and sections included: a position for `bytesSince`.
   std::size_t column() const noexcept { return record_ != nullptr ? static_cast<std::size_t>(tail_ - record_) : 0; }
   /// What was written into the open record since it stood at `column`. Valid until something more is written.
   std::span<std::uint8_t const> bytesSince(std::size_t column) const noexcept { return {record_ + column, tail_}; }

   // Values of a body: what `<<` calls -----------------------------------------------------------------------------
   //
   // All throw AttrLogRecordException when no record is open.

   template <WireScalar T> void put(T v) {
      std::uint8_t* const at = room(sizeof(T));
      storeBigEndian(at, v);
   }
   /// Token `end` closes the record.
   /// \throws RecordTooLong when the peer doesn't take a record of that length; it has been rolled back
   void put(Connection::Out::TransactToken token) {
      *room(1) = static_cast<std::uint8_t>(token);
      if (token == Connection::Out::TransactToken::end)
         endRecord();
   }
   /// A string: u32 length and the bytes.
   void put(std::string_view text) {
      checkTextLength(text.size(), frame::lengthMask);
      std::uint8_t* const at = room(4 + text.size());
      storeBigEndian(at, static_cast<std::uint32_t>(text.size()));
      if (!text.empty())
         std::memcpy(at + 4, text.data(), text.size());
   }
   /// An identifier as a value is a plain 64-bit number, high word first; only headers have the low word first.
   void put(EntityId entity) { put(entity.number()); }
   void put(TypeId type) {
      checkTextLength(type.name.size(), 0xffff);
      put(static_cast<unsigned short>(type.name.size()));
      if (!type.name.empty())
         std::memcpy(room(type.name.size()), type.name.data(), type.name.size());
   }
   /// Bytes that already are as they travel.
   void putBytes(std::span<std::uint8_t const> bytes) {
      if (!bytes.empty())
         std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
   }

   // Control -------------------------------------------------------------------------------------------------------

   /// Takes its place behind what was written before; while a record is open, right before that record.
   /// \throws RecordTooLong above the peer's maximum, RangeException for a text longer than its length field can say
   template <ControlFrame C> void control(C const& c) {
      std::size_t const size = frameSize(c);
      encode(c, controlRoom(C::kind, size), size);
   }
   /// Overtakes what waits, at the next boundary between frames; one that still waits is replaced.
   void control(Ping const& ping) noexcept { ping_ = ping.token; }
   void control(Pong const& pong) noexcept { pong_ = pong.token; }

   // The way out ---------------------------------------------------------------------------------------------------

   /// The next bytes to carry off; not always all of them, so ask again after `sent` until it is empty. An open record
   /// is not among them. Valid until something is written.
   std::span<std::uint8_t const> pending() noexcept;
   /// The first `n` of the bytes that `pending()` returned last have been carried off.
   void sent(std::size_t n);

   /// Bytes in the buffer, the open record included, overtaking frames left out.
   std::size_t pendingBytes() const noexcept { return static_cast<std::size_t>(tail_ - head_); }
   bool hasPending() const noexcept;
   /// Those of control frames among them, without the frame that is being carried off. *Cost*: a walk over the frames.
   std::size_t pendingControlBytes() const noexcept;

   /// Whether a change should be written now rather than marked: less is pending than the mark. One comparison.
   bool hasSufficientBuffer() const noexcept { return pendingBytes() < mark_; }
   std::size_t mark() const noexcept { return mark_; }
   void markIs(std::size_t bytes) noexcept { mark_ = bytes; }

   /// Most bytes that were ever pending.
   std::size_t highWater() const noexcept { return std::max({highWater_, peak_, pendingBytes()}); }
   /// Bytes that the buffer takes up now.
   std::size_t capacity() const noexcept { return static_cast<std::size_t>(end_ - buffer_.get()); }
   /// Bytes carried off since `clear()`.
   U64 bytesSent() const noexcept { return bytesSent_; }

   /// A cut: drops everything unsent, the open record included, and counts from 0 again. The next frame is a hello.
   void clear() noexcept;

private:
   static constexpr std::size_t smallestCapacity = 4096;
   static constexpr std::size_t tokenFrameSize = frame::lengthSize + frame::controlHeadSize + 8;

   std::uint8_t* beginRecord(std::uint32_t bits, std::size_t size) {
      if (record_ != nullptr) [[unlikely]]
         throwRecordOpen();
      std::size_t const all = frame::lengthSize + size;
      // Room for the first token too: once a record is open, a guard stands, and nothing between may throw.
      if (static_cast<std::size_t>(end_ - tail_) <= all) [[unlikely]]
         makeRoom(all + 1);
      record_ = tail_;
      limit_ = end_;
      storeBigEndian(tail_, bits);
      tail_ += all;
      return record_ + frame::lengthSize;
   }
   std::uint8_t* room(std::size_t n) {
      if (static_cast<std::size_t>(limit_ - tail_) < n) [[unlikely]]
         makeBodyRoom(n);
      std::uint8_t* const at = tail_;
      tail_ += n;
      return at;
   }
   void endRecord() {
      std::size_t const size = static_cast<std::size_t>(tail_ - record_) - frame::lengthSize;
      if (size > peerMaximum_) [[unlikely]]
         throwTooLong(size);
      storeBigEndian(record_, loadBigEndian<std::uint32_t>(record_) | static_cast<std::uint32_t>(size));
      if (section_ != 0) [[unlikely]]
         endSection(tail_ - 1); // the token is no part of it
      ++recordsWritten_;
      settle();
   }
   void settle() noexcept {
      record_ = nullptr;
      limit_ = tail_;
   }
   void checkTextLength(std::size_t size, std::size_t most) const {
      if (size > most) [[unlikely]]
         throwTextTooLong(size, most);
   }

   std::uint8_t* writtenEnd() const noexcept { return record_ != nullptr ? record_ : tail_; }
   void makeRoom(std::size_t n);
   void makeBodyRoom(std::size_t n);
   void moveTo(std::unique_ptr<std::uint8_t[]> bigger, std::size_t capacity) noexcept;
   void shrink() noexcept;
   void endSection(std::uint8_t const* end) noexcept;
   std::uint8_t* controlRoom(ControlKind kind, std::size_t size);
   std::string openRecordText() const;
   [[noreturn]] void throwRecordOpen() const;
   [[noreturn]] void throwTooLong(std::size_t size);
   [[noreturn]] void throwTextTooLong(std::size_t size, std::size_t most) const;

   std::unique_ptr<std::uint8_t[]> buffer_;
   std::uint8_t* head_ = nullptr;  ///< first unsent byte
   std::uint8_t* tail_ = nullptr;  ///< end of what is written
   std::uint8_t* limit_ = nullptr; ///< end of the room for a body: `tail_` while no record is open, so one check does
   std::uint8_t* end_ = nullptr;
   std::uint8_t* record_ = nullptr; ///< first byte of the open record
   std::size_t mark_ = defaultMark;
   U64 recordsWritten_ = 0;
   std::uint32_t peerMaximum_ = frame::defaultMaximum;
   std::size_t section_ = 0; ///< where the open section's length stands, from `record_`; 0 for no section
   std::size_t peak_ = 0;    ///< most bytes pending since the buffer was last empty, as of the last `sent`
   std::size_t highWater_ = 0;
   std::size_t need_ = 0;      ///< what bursts of late have needed; forgotten slowly
   std::size_t frameRest_ = 0; ///< bytes left of the frame that `head_` stands inside of; 0 at a boundary
   U64 bytesSent_ = 0;

   std::optional<U64> ping_;
   std::optional<U64> pong_;
   std::array<std::uint8_t, 2 * tokenFrameSize> overtaking_{};
   std::size_t overtakingHead_ = 0;
   std::size_t overtakingTail_ = 0;
   std::size_t offered_ = 0; ///< size of what `pending()` returned last
   bool offeredOvertaking_ = false;

   std::string name_;
   Ptr<In> reverse_;
};

/// One record in the making: the header and token `begin` on construction, token `end` on `close()`. Left by an
/// exception before that, it takes the record back, and the stream stands as it stood before.
class Record {
public:
   Record(Out& out, MsgHeader const& header) : out_(&out) {
      out.nextHeaderIs(header);
      out.put(Connection::Out::TransactToken::begin);
   }
   Record(Out& out, MsgHeader const& header, U64 base) : out_(&out) {
      out.nextHeaderIs(header, base);
      out.put(Connection::Out::TransactToken::begin);
   }
   ~Record() {
      if (out_ != nullptr)
         out_->rollback();
   }
   Record(Record const&) = delete;
   Record& operator=(Record const&) = delete;

   /// \throws RecordTooLong; the record has been taken back
   void close() {
      out_->put(Connection::Out::TransactToken::end);
      out_ = nullptr;
   }

private:
   Out* out_;
};

// One copy per number type: the handlers of all attributes call it.
template <WireScalar T>
[[gnu::noinline]] void Out::numberRecord(EntityId entity, AttributeId attribute, std::uint32_t fixedSize, T v) {
   constexpr std::size_t length = frame::headerSize + frame::tokensSize + sizeof(T);
   constexpr std::size_t size = frame::lengthSize + length;
   using Token = Connection::Out::TransactToken;
   MsgHeader const header{.entity = entity,
                          .attribute = static_cast<std::int32_t>(attribute),
                          .variable = static_cast<std::uint8_t>(fixedSize == 0 ? 1 : 0),
                          .fixedSize = fixedSize};
   if (record_ != nullptr || length > peerMaximum_ || static_cast<std::size_t>(end_ - tail_) < size) [[unlikely]] {
      Record record(*this, header);
      put(v);
      record.close();
      return;
   }
   std::uint8_t* at = tail_;
   storeBigEndian(at, static_cast<std::uint32_t>(length));
   header.store(at += frame::lengthSize);
   *(at += frame::headerSize) = static_cast<std::uint8_t>(Token::begin);
   storeBigEndian(at += 1, v);
   *(at += sizeof(T)) = static_cast<std::uint8_t>(Token::end);
   limit_ = tail_ = at + 1;
   ++recordsWritten_;
}

/// What a stream writes by itself. Types of other floors bring an `operator<<` of their own beside them.
template <class T>
concept Writable = requires(Out& out, T const& v) { out.put(v); };

} // namespace Mox::NboAttrLog

namespace Mox {

template <NboAttrLog::Writable T> Ptr<NboAttrLog::Out> const& operator<<(Ptr<NboAttrLog::Out> const& out, T const& v) {
   out->put(v);
   return out;
}
template <NboAttrLog::Writable T> NboAttrLog::Out& operator<<(NboAttrLog::Out& out, T const& v) {
   out.put(v);
   return out;
}

} // namespace Mox
