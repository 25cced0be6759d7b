// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Frames.h"
#include "kestrel/attrlog/MsgHeader.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Mox {

/// Tells a value type's constructor from a stream, `T(NboAttrLog::In*, StreamBogon)`, from others. The types that have one are code
/// of programs: the library reads values through `NboAttrLog::Wire` and calls none.
struct StreamBogon {};

namespace NboAttrLog {

class Demuxer;

/// One direction of a stream, the reading end: takes bytes as they arrive, cut anywhere, and shows one whole frame at a
/// time.
///
///    in->consume(bytes, [&](NboAttrLog::In& frame) {
///       if (frame.isControl())
///          frame.dispatchControl(handler);     // handler(Hello const&), handler(Retire const&), …
///       else
///          port->refClockIs(frame.nextU32());
///    });
///
/// A frame is read where it lies in the caller's bytes; only one that breaks off is kept, until the rest comes.
/// Whatever frame was not read to its end is stepped over. The tokens around a body are checked and taken off before
/// the frame is shown, so what the typed readers see is the body's values and nothing else.
///
/// *Exceptions*: ProtocolException from `next` and `consume` is the end of the connection: the bytes aren't a stream of
/// frames. AttrLogRecordException from a typed reader is the end of that record only. Both name stream and offset.
/// *Lifetime*: views and spans into a frame live until the next one.
/// *Re-entrancy*: bytes that arrive while a frame is being handled wait in a queue.
class In : public PtrInterface {
public:
   /// \param name of the stream or its peer, for messages
   /// \param maximumFrame longest frame taken, in bytes after the length word: what this side's hello states
   explicit In(std::string name = {}, std::uint32_t maximumFrame = frame::defaultMaximum)
      : name_(std::move(name)), maximumFrame_(maximumFrame) {}

   std::string const& name() const noexcept { return name_; }
   void nameIs(std::string name) { name_ = std::move(name); }
   std::uint32_t maximumFrame() const noexcept { return maximumFrame_; }

   /// Who resolves this stream's identifiers; it outlives its use here.
   Demuxer* demuxer() const noexcept { return demuxer_; }
   void demuxerIs(Demuxer* demuxer) noexcept { demuxer_ = demuxer; }

   // Bytes and frames ----------------------------------------------------------------------------------------------

   /// Hands bytes over and calls `onFrame(*this)` for each frame that they complete. Called from within `onFrame`, it
   /// only queues the bytes, for the outer call to go on with. An exception from `onFrame` passes through; the frame
   /// counts as taken, and the next call goes on behind it.
   template <class F> void consume(std::span<std::uint8_t const> bytes, F&& onFrame) {
      feed(bytes);
      if (consuming_)
         return;
      consuming_ = true;
      try {
         while (next())
            onFrame(*this);
      } catch (...) {
         consuming_ = false;
         keep();
         throw;
      }
      consuming_ = false;
   }

   /// The two halves of `consume`, for callers with a loop of their own: after `feed`, the bytes must stay where they
   /// are until `next` has returned false, or `keep` was called.
   void feed(std::span<std::uint8_t const> bytes);
   /// Keeps a copy of the bytes, for `next` or the next `feed` to go on with. \throws std::bad_alloc; the stream is broken then
   void queue(std::span<std::uint8_t const> bytes);
   /// Whether bytes were queued that `next` has not come to.
   bool isQueued() const noexcept { return !waiting_.empty(); }
   /// Steps to the next whole frame. False when there is none yet, and for good once the stream has been found broken.
   bool next() { return nextPlain() || nextOfAny(); }
   /// Copies what has not been stepped over; a later `feed` goes on from there. Where memory for bytes of the stream
   /// runs out, here or elsewhere, the stream is broken from then on: it never goes on behind a gap.
   void keep();

   /// A new connection: forgets everything but name, limit and demultiplexer; expects a hello.
   void reset() noexcept;

   /// Frames that aren't control, the one in hand included.
   U64 recordsRead() const noexcept { return recordsRead_; }
   /// Control frames of unknown kind that were skipped.
   U64 unknownControls() const noexcept { return unknownControls_; }
   /// Bytes kept here: those of a frame that broke off, and those that wait in the queue.
   std::size_t keptBytes() const noexcept;
   bool isBroken() const noexcept { return broken_; }

   // The frame in hand ---------------------------------------------------------------------------------------------

   /// Stream offset of the frame's first byte.
   U64 offset() const noexcept { return offset_; }
   bool isControl() const noexcept { return (word_ & frame::controlBit) != 0; }
   /// A record that asks to change the reader's own truth.
   bool isWrite() const noexcept { return (word_ & frame::writeBit) != 0; }
   /// A write's base: digest of the value that it was made over. 0 for other records.
   U64 base() const noexcept { return base_; }
   /// Of a record; all 0 of a control frame. Read where it lies: who asks for one field pays for that one.
   [[gnu::always_inline]] MsgHeader header() const noexcept {
      MsgHeader header;
      header.load(header_);
      return header;
   }
   bool isMarker() const noexcept { return header().kind == kind::marker; }

   ControlKind controlKind() const noexcept { return controlKind_; }
   /// Decodes the control frame in hand. \throws ProtocolException when it is too short for C's fields
   template <ControlFrame C> C control() const {
      try {
         return decode<C>(body_);
      } catch (ProtocolException const& e) {
         throw ProtocolException(where() + ": " + e.what()); // no text is put together for a frame that is well
      }
   }
   /// Decodes the control frame in hand and calls `handler(frame)` with the struct of its kind.
   template <class H> void dispatchControl(H&& handler) const {
      withControlKind(controlKind_, [&]<class C>() { handler(control<C>()); });
   }

   /// The record's body, tokens left out; of a control frame the fields.
   std::span<std::uint8_t const> body() const noexcept { return body_; }
   /// Bytes of the body read so far.
   std::size_t column() const noexcept { return static_cast<std::size_t>(at_ - body_.data()); }
   /// What was read since the column stood there: the bytes that a digest is taken over.
   std::span<std::uint8_t const> bytesSince(std::size_t column) const noexcept { return {body_.data() + column, at_}; }
   /// Bytes left to read, of the open section if there is one.
   std::size_t remaining() const noexcept { return static_cast<std::size_t>(limit_ - at_); }

   // Typed readers -------------------------------------------------------------------------------------------------
   //
   // All throw AttrLogRecordException when the body, or its open section, ends before the value does.

   template <WireScalar T> T nextScalar() {
      std::uint8_t const* const p = take(sizeof(T));
      if constexpr (std::same_as<T, bool>) {
         if (*p > 1) [[unlikely]]
            throwBadBool(*p);
         return *p != 0;
      } else {
         return loadBigEndian<T>(p);
      }
   }
   /// \throws AttrLogRecordException also for a byte other than 0 and 1
   bool nextbool() { return nextScalar<bool>(); }
   std::uint8_t nextU8() { return nextScalar<unsigned char>(); }
   std::uint16_t nextU16() { return nextScalar<unsigned short>(); }
   std::uint32_t nextU32() { return nextScalar<unsigned int>(); }
   U64 nextU64() { return nextScalar<U64>(); }
   int nextint() { return nextScalar<int>(); }
   std::int32_t nextS32() { return nextScalar<int>(); }
   S64 nextS64() { return nextScalar<S64>(); }
   float nextF32() { return nextScalar<float>(); }
   double nextF64() { return nextScalar<double>(); }
   /// Seconds, as a double.
   double nextSeconds() { return nextScalar<double>(); }
   EntityId nextEntityId() { return EntityId::ofNumber(nextU64()); }
   std::string_view nextStringView() {
      std::size_t const size = nextU32();
      return {reinterpret_cast<char const*>(take(size)), size};
   }
   String8 nextString() { return String8(nextStringView()); }
   TypeId nextTypeId() {
      std::size_t const size = nextU16();
      return {{reinterpret_cast<char const*>(take(size)), size}};
   }
   /// Skips, and returns what was skipped.
   std::span<std::uint8_t const> nextBytes(std::size_t n) { return {take(n), n}; }

   /// Steps over the rest of the section before, and enters the next, which bounds the readers until another call.
   /// Sections that come before it and that the caller doesn't ask for are stepped over.
   /// \throws AttrLogRecordException when the body has no section `n` ahead
   void nextSection(unsigned n);

   /// A place in the body to come back to.
   struct Position {
      std::uint8_t const* at;
      std::uint8_t const* limit;
   };
   Position position() const noexcept { return {at_, limit_}; }
   void positionIs(Position p) noexcept {
      at_ = p.at;
      limit_ = p.limit;
   }
   /// Lets the typed readers read `bytes` of the frame in hand, a control frame's key for one.
   void readBytes(std::string_view bytes) noexcept {
      at_ = reinterpret_cast<std::uint8_t const*>(bytes.data());
      limit_ = at_ + bytes.size();
   }

   /// "stream "x", offset 64": the frame in hand, for messages.
   std::string where() const;

private:
   /// A buffer above that is given back when it isn't needed any more.
   static constexpr std::size_t keptCapacity = 64 * 1024;

   std::uint8_t const* take(std::size_t n) {
      if (remaining() < n) [[unlikely]]
         throwShort(n);
      std::uint8_t const* const p = at_;
      at_ += n;
      return p;
   }

   static constexpr std::uint32_t leastRecord = frame::headerSize + frame::tokensSize;

   /// Steps to the next frame where it is what nearly all are: a record without base or extension, all of which lies in the bytes
   /// at hand. False, and nothing has changed, for any other; what is wrong with it is found there.
   bool nextPlain() noexcept {
      if (!carried_.empty() || arrived_.size() < frame::lengthSize + leastRecord)
         return false;
      std::uint8_t const* const start = arrived_.data();
      auto const word = loadBigEndian<std::uint32_t>(start);
      // One comparison: a bit of the frame's makes the word longer than any length, and so does what is missing of a header.
      if (word - leastRecord >= plainLengths_)
         return false;
      std::size_t const size = frame::lengthSize + word;
      if (arrived_.size() < size || !isBetweenTokens(start + frame::lengthSize + frame::headerSize, start + size))
         return false;
      word_ = word;
      base_ = 0;
      offset_ = nextOffset_;
      nextOffset_ += size;
      arrived_ = arrived_.subspan(size);
      recordIs(start + frame::lengthSize, start + size);
      return true;
   }
   bool nextOfAny();
   static bool isBetweenTokens(std::uint8_t const* first, std::uint8_t const* end) noexcept {
      using Token = Connection::Out::TransactToken;
      return *first == static_cast<std::uint8_t>(Token::begin) && end[-1] == static_cast<std::uint8_t>(Token::end);
   }
   /// Shows the record between a header at `at` and `end`, whose tokens have been checked.
   void recordIs(std::uint8_t const* at, std::uint8_t const* end) noexcept {
      header_ = at;
      at_ = at + frame::headerSize + 1;
      limit_ = end - 1;
      body_ = {at_, limit_};
      inSection_ = false;
      ++recordsRead_;
   }
   // Inline, although defined in In.cc alone: a shared library inlines no other function, in case a program replaces it.
   inline bool step(std::uint8_t const*& frame);
   bool stepCarried(std::uint8_t const*& frame);
   inline void checkLength(std::uint32_t word);
   inline bool accept(std::uint8_t const* frame, std::size_t size);
   bool acceptControl(std::uint8_t const* at, std::uint8_t const* end);
   void acceptFirst();
   [[noreturn]] void throwShort(std::size_t wanted) const;
   [[noreturn]] void throwBadBool(std::uint8_t byte) const;
   void insert(std::vector<std::uint8_t>& to, std::size_t at, std::span<std::uint8_t const> bytes);
   void markBroken() noexcept;
   [[noreturn]] void throwBroken(std::string const& text);

   /// No frame is in hand: the bytes of the last are the caller's again.
   void noFrame() noexcept {
      at_ = limit_ = nullptr;
      body_ = {};
      header_ = noHeader.data();
   }

   std::uint8_t const* at_ = nullptr;    ///< next byte of the body
   std::uint8_t const* limit_ = nullptr; ///< end of the readable bytes: the open section's, or the body's
   std::span<std::uint8_t const> body_;
   static constexpr std::array<std::uint8_t, frame::headerSize> noHeader{};
   std::uint8_t const* header_ = noHeader.data(); ///< of the record in hand
   U64 base_ = 0;
   std::uint32_t word_ = 0;
   std::uint32_t plainLengths_ = 0; ///< how many lengths, from `leastRecord` on, a record may have; 0 before the hello
   ControlKind controlKind_{};
   bool inSection_ = false;
   bool helloSeen_ = false;
   bool broken_ = false;
   bool consuming_ = false;
   bool carriedInHand_ = false; ///< the frame in hand lies in `carried_`
   U64 offset_ = 0;
   U64 nextOffset_ = 0;
   U64 recordsRead_ = 0;
   U64 unknownControls_ = 0;

   std::span<std::uint8_t const> arrived_; ///< not stepped over yet: the caller's bytes, or `queue_`'s
   std::vector<std::uint8_t> carried_;     ///< the start of a frame that broke off
   std::vector<std::uint8_t> waiting_;     ///< behind `arrived_`
   std::vector<std::uint8_t> queue_;       ///< what waited before, now being read
   bool reading_ = false;                  ///< between `feed` and the `next` that returns false

   std::string name_;
   std::uint32_t maximumFrame_;
   Demuxer* demuxer_ = nullptr;
};

} // namespace NboAttrLog
} // namespace Mox
