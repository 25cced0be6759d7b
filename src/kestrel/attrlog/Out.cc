// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Out.h"

#include "kestrel/core/Text.h"

#include <algorithm>
#include <bit>
#include <new>

namespace Mox::NboAttrLog {

std::string Out::openRecordText() const {
   bool const isWrite = (loadBigEndian<std::uint32_t>(record_) & frame::writeBit) != 0;
   MsgHeader h;
   h.load(record_ + frame::lengthSize + (isWrite ? frame::baseSize : 0));
   return "attribute " + std::to_string(h.attribute) + " of entity " + std::to_string(h.entity.number());
}

void Out::throwRecordOpen() const {
   throw AttrLogRecordException("stream " + quoted(name_) + ": a record begins while that of " + openRecordText() +
                                " is still open");
}

void Out::throwTooLong(std::size_t size) {
   std::string const text = "stream " + quoted(name_) + ": the record of " + openRecordText() + " takes " +
                            std::to_string(size) + " bytes, the peer takes at most " + std::to_string(peerMaximum_);
   rollback();
   throw RecordTooLong(text);
}

void Out::throwTextTooLong(std::size_t size, std::size_t most) const {
   throw AttrLogRecordException("stream " + quoted(name_) + ": a text of " + std::to_string(size) +
                                " bytes, where at most " + std::to_string(most) + " can travel");
}

void Out::moveTo(std::unique_ptr<std::uint8_t[]> other, std::size_t capacity) noexcept {
   std::size_t const used = pendingBytes();
   if (used != 0)
      std::memcpy(other.get(), head_, used);
   if (record_ != nullptr)
      record_ = other.get() + (record_ - head_);
   buffer_ = std::move(other);
   head_ = buffer_.get();
   tail_ = head_ + used;
   end_ = head_ + capacity;
   limit_ = record_ != nullptr ? end_ : tail_;
}

void Out::makeRoom(std::size_t n) {
   std::size_t const used = pendingBytes();
   // Moving down pays only when it frees as much as it moves; otherwise a long backlog would be moved again and again.
   if (used + n <= capacity() && used <= capacity() / 2) {
      if (record_ != nullptr)
         record_ = buffer_.get() + (record_ - head_);
      std::memmove(buffer_.get(), head_, used);
      head_ = buffer_.get();
      tail_ = head_ + used;
      limit_ = record_ != nullptr ? end_ : tail_;
      return;
   }
   std::size_t const bigger = std::max(smallestCapacity, std::bit_ceil(std::max(used + n, capacity() + 1)));
   moveTo(std::make_unique_for_overwrite<std::uint8_t[]>(bigger), bigger);
}

void Out::makeBodyRoom(std::size_t n) {
   if (record_ == nullptr)
      throw AttrLogRecordException("stream " + quoted(name_) + ": a value of " + std::to_string(n) +
                                   " bytes is written while no record is open");
   makeRoom(n);
}

void Out::shrink() noexcept {
   highWater_ = highWater();
   need_ = std::max(peak_, need_ - need_ / 8);
   peak_ = 0;
   std::size_t const enough = std::max(smallestCapacity, std::bit_ceil(2 * need_));
   if (capacity() <= 2 * enough)
      return;
   if (auto* const smaller = new (std::nothrow) std::uint8_t[enough])
      moveTo(std::unique_ptr<std::uint8_t[]>(smaller), enough);
}

void Out::rollback() noexcept {
   if (record_ == nullptr)
      return;
   tail_ = record_;
   section_ = 0;
   settle();
}

void Out::currentPayloadSectionIs(unsigned n) {
   std::uint8_t* const at = room(1 + 4);
   if (section_ != 0)
      endSection(at);
   *at = static_cast<std::uint8_t>(n);
   section_ = static_cast<std::size_t>(at + 1 - record_);
}

void Out::endSection(std::uint8_t const* end) noexcept {
   storeBigEndian(record_ + section_, static_cast<std::uint32_t>(end - (record_ + section_ + 4)));
   section_ = 0;
}

void Out::transactionMarker(EntityId entity, AttributeId attribute, AttrTransactionType type, std::uint32_t count) {
   Record record(
      *this,
      {.entity = entity, .attribute = static_cast<std::int32_t>(attribute), .variable = 1, .kind = kind::marker});
   put(static_cast<unsigned char>(type));
   put(count);
   record.close();
}

std::uint8_t* Out::controlRoom(ControlKind kind, std::size_t size) {
   if (size - frame::lengthSize > peerMaximum_)
      throw RecordTooLong("stream " + quoted(name_) + ": " + titleOf(kind) + " takes " +
                          std::to_string(size - frame::lengthSize) + " bytes, the peer takes at most " +
                          std::to_string(peerMaximum_));
   if (static_cast<std::size_t>(end_ - tail_) < size)
      makeRoom(size);
   std::uint8_t* const at = record_ != nullptr ? record_ : tail_;
   if (record_ != nullptr) {
      std::memmove(record_ + size, record_, static_cast<std::size_t>(tail_ - record_));
      record_ += size;
   }
   tail_ += size;
   if (record_ == nullptr)
      settle();
   return at;
}

bool Out::hasPending() const noexcept {
   return overtakingHead_ != overtakingTail_ || head_ != writtenEnd() || (bytesSent_ != 0 && (ping_ || pong_));
}

std::size_t Out::pendingControlBytes() const noexcept {
   std::size_t bytes = 0;
   for (std::uint8_t const* at = head_ + frameRest_; at != writtenEnd();) {
      auto const word = loadBigEndian<std::uint32_t>(at);
      std::size_t const size = frame::lengthSize + (word & frame::lengthMask);
      bytes += (word & frame::controlBit) != 0 ? size : 0;
      at += size;
   }
   return bytes;
}

std::span<std::uint8_t const> Out::pending() noexcept {
   // The first frame of a connection is the hello, which nothing overtakes.
   bool const atBoundary = frameRest_ == 0 && bytesSent_ != 0;
   if (atBoundary && overtakingHead_ == overtakingTail_ && (ping_ || pong_)) {
      overtakingHead_ = overtakingTail_ = 0;
      auto const append = [this](auto const& c) {
         encode(c, overtaking_.data() + overtakingTail_, tokenFrameSize);
         overtakingTail_ += tokenFrameSize;
      };
      if (ping_)
         append(Ping{*ping_});
      if (pong_)
         append(Pong{*pong_});
      ping_.reset();
      pong_.reset();
   }
   std::span<std::uint8_t const> bytes;
   offeredOvertaking_ = overtakingHead_ != overtakingTail_;
   if (offeredOvertaking_)
      bytes = {overtaking_.data() + overtakingHead_, overtakingTail_ - overtakingHead_};
   else if ((ping_ || pong_) && frameRest_ != 0)
      bytes = {head_, frameRest_};
   else
      bytes = {head_, writtenEnd()};
   offered_ = bytes.size();
   return bytes;
}

void Out::sent(std::size_t n) {
   if (n > offered_)
      throwInternalException("more bytes are said to be sent than were pending");
   peak_ = std::max(peak_, pendingBytes());
   offered_ -= n;
   bytesSent_ += n;
   if (offeredOvertaking_) {
      overtakingHead_ += n;
   } else if (offered_ == 0 && head_ + n == writtenEnd()) {
      head_ += n;
      frameRest_ = 0;
   } else {
      while (n != 0) {
         if (frameRest_ == 0)
            frameRest_ = frame::lengthSize + (loadBigEndian<std::uint32_t>(head_) & frame::lengthMask);
         std::size_t const step = std::min(n, frameRest_);
         head_ += step;
         frameRest_ -= step;
         n -= step;
      }
   }
   if (head_ == tail_ && record_ == nullptr) {
      head_ = tail_ = limit_ = buffer_.get();
      shrink();
   }
}

void Out::clear() noexcept {
   rollback();
   peak_ = std::max(peak_, pendingBytes());
   head_ = tail_ = limit_ = buffer_.get();
   recordsWritten_ = 0;
   bytesSent_ = 0;
   frameRest_ = 0;
   ping_.reset();
   pong_.reset();
   overtakingHead_ = overtakingTail_ = 0;
   offered_ = 0;
   shrink();
}

} // namespace Mox::NboAttrLog
