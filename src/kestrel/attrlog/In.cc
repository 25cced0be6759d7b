// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/In.h"

#include "kestrel/core/Text.h"

#include <algorithm>
#include <utility>

namespace Mox::NboAttrLog {

std::string In::where() const {
   return "stream " + quoted(name_) + ", offset " + std::to_string(offset_);
}

void In::throwShort(std::size_t wanted) const {
   throw AttrLogRecordException("expected " + std::to_string(wanted) + " bytes at byte " + std::to_string(column()) +
                                " of the body, " + std::to_string(remaining()) + " are left");
}

void In::throwBadBool(std::uint8_t byte) const {
   throw AttrLogRecordException("expected a truth value of 0 or 1, got " + std::to_string(byte));
}

void In::throwBroken(std::string const& text) {
   markBroken();
   throw ProtocolException(where() + ": " + text);
}

void In::markBroken() noexcept {
   broken_ = true;
   arrived_ = {};
   reading_ = false;
}

void In::insert(std::vector<std::uint8_t>& to, std::size_t at, std::span<std::uint8_t const> bytes) {
   try {
      to.insert(to.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin(), bytes.end());
   } catch (...) {
      markBroken();
      throw;
   }
}

void In::feed(std::span<std::uint8_t const> bytes) {
   if (broken_)
      return;
   if (reading_) {
      queue(bytes);
      return;
   }
   reading_ = true;
   if (waiting_.empty()) {
      arrived_ = bytes;
      return;
   }
   insert(waiting_, waiting_.size(), bytes);
   queue_.swap(waiting_);
   waiting_.clear();
   arrived_ = queue_;
}

void In::queue(std::span<std::uint8_t const> bytes) {
   if (!broken_)
      insert(waiting_, waiting_.size(), bytes);
}

void In::keep() {
   if (!arrived_.empty()) {
      // The rest may lie in `queue_`, never in `waiting_`.
      insert(waiting_, 0, arrived_);
      arrived_ = {};
   }
   reading_ = false;
   noFrame();
}

std::size_t In::keptBytes() const noexcept {
   bool const queued = !arrived_.empty() && arrived_.data() + arrived_.size() == queue_.data() + queue_.size();
   return (carriedInHand_ ? 0 : carried_.size()) + waiting_.size() + (queued ? arrived_.size() : 0);
}

void In::reset() noexcept {
   noFrame();
   base_ = 0;
   word_ = plainLengths_ = 0;
   helloSeen_ = broken_ = reading_ = carriedInHand_ = false;
   offset_ = nextOffset_ = recordsRead_ = unknownControls_ = 0;
   arrived_ = {};
   carried_ = {};
   waiting_ = {};
   queue_ = {};
}

bool In::nextOfAny() {
   if (broken_)
      return false;
   for (;;) {
      if (carriedInHand_) {
         carriedInHand_ = false;
         carried_.clear();
         if (carried_.capacity() > keptCapacity)
            carried_.shrink_to_fit();
      }
      offset_ = nextOffset_;
      std::uint8_t const* frame;
      if (carried_.empty() ? step(frame) : stepCarried(frame)) {
         std::size_t const size = frame::lengthSize + (word_ & frame::lengthMask);
         nextOffset_ += size;
         if (accept(frame, size))
            return true;
      } else if (waiting_.empty()) {
         reading_ = false;
         noFrame();
         if (queue_.capacity() > keptCapacity)
            queue_ = {};
         return false;
      } else {
         queue_.swap(waiting_);
         waiting_.clear();
         arrived_ = queue_;
      }
   }
}

/// The next frame where it lies. False when it breaks off; what there is of it is then kept.
bool In::step(std::uint8_t const*& frame) {
   if (arrived_.size() >= frame::lengthSize) {
      word_ = loadBigEndian<std::uint32_t>(arrived_.data());
      checkLength(word_);
      std::size_t const size = frame::lengthSize + (word_ & frame::lengthMask);
      if (arrived_.size() >= size) {
         frame = arrived_.data();
         arrived_ = arrived_.subspan(size);
         return true;
      }
   }
   insert(carried_, carried_.size(), arrived_);
   arrived_ = {};
   return false;
}

/// The frame that broke off, put together with what has arrived since. Room is taken as bytes come, not as the length
/// word announces them.
bool In::stepCarried(std::uint8_t const*& frame) {
   auto const fillTo = [this](std::size_t size) {
      std::size_t const n = std::min(size - std::min(size, carried_.size()), arrived_.size());
      insert(carried_, carried_.size(), arrived_.first(n));
      arrived_ = arrived_.subspan(n);
      return carried_.size() >= size;
   };
   if (!fillTo(frame::lengthSize))
      return false;
   word_ = loadBigEndian<std::uint32_t>(carried_.data());
   checkLength(word_);
   if (!fillTo(frame::lengthSize + (word_ & frame::lengthMask)))
      return false;
   carriedInHand_ = true;
   frame = carried_.data();
   return true;
}

void In::checkLength(std::uint32_t word) {
   std::uint32_t const length = word & frame::lengthMask;
   bool const control = (word & frame::controlBit) != 0;
   std::uint32_t const most = helloSeen_ ? maximumFrame_ : frame::maximumHello;
   if (!helloSeen_ && !control)
      throwBroken("expected a hello as the first frame, got a record or foreign bytes");
   if (length > most)
      throwBroken("a frame of " + std::to_string(length) + " bytes, at most " + std::to_string(most) + " are taken");
   if (control && (word & frame::writeBit) != 0)
      throwBroken("a control frame with the mark of a write");
   std::size_t const least =
      ((word & frame::extensionBit) != 0 ? 1 : 0) +
      (control ? frame::controlHeadSize : leastRecord + ((word & frame::writeBit) != 0 ? frame::baseSize : 0));
   if (length < least)
      throwBroken("a frame of " + std::to_string(length) + " bytes, expected at least " + std::to_string(least));
}

/// Takes the frame apart. False when there is nothing in it for the caller.
bool In::accept(std::uint8_t const* frame, std::size_t size) {
   std::uint8_t const* at = frame + frame::lengthSize;
   std::uint8_t const* const end = frame + size;
   if ((word_ & frame::extensionBit) != 0) {
      std::size_t const skip = *at;
      std::size_t const rest = isControl() ? frame::controlHeadSize : leastRecord + (isWrite() ? frame::baseSize : 0);
      if (static_cast<std::size_t>(end - at) < 1 + skip + rest)
         throwBroken("an extension of " + std::to_string(skip) + " bytes leaves no room for the frame");
      at += 1 + skip;
   }
   if (isControl())
      return acceptControl(at, end);
   base_ = 0;
   if (isWrite()) {
      base_ = loadBigEndian<U64>(at);
      at += frame::baseSize;
   }
   if (std::uint8_t const* const first = at + frame::headerSize; !isBetweenTokens(first, end)) {
      header_ = at;
      throwBroken("attribute " + std::to_string(header().attribute) + " of entity " +
                  std::to_string(header().entity.number()) + ": expected the body between tokens 1 and 3, got " +
                  std::to_string(*first) + " and " + std::to_string(end[-1]));
   }
   recordIs(at, end);
   return true;
}

bool In::acceptControl(std::uint8_t const* at, std::uint8_t const* end) {
   header_ = noHeader.data(); // that of an earlier frame, whose bytes may be gone
   controlKind_ = static_cast<ControlKind>(at[0]);
   bool const mustKnow = (at[1] & mustKnowFlag) != 0;
   body_ = {at + frame::controlHeadSize, end};
   at_ = body_.data();
   limit_ = at_ + body_.size();
   if (!helloSeen_)
      acceptFirst();
   else if (controlKind_ == ControlKind::hello)
      throwBroken("a second hello");
   if (withControlKind(controlKind_, []<class>() {}))
      return true;
   if (mustKnow)
      throwBroken(titleOf(controlKind_) + " is unknown here, and its sender insists on it");
   ++unknownControls_;
   return false;
}

void In::acceptFirst() {
   if (controlKind_ != ControlKind::hello)
      throwBroken("expected a hello as the first frame, got " + titleOf(controlKind_));
   Hello hello;
   try {
      hello = control<Hello>();
   } catch (ProtocolException const&) {
      markBroken();
      throw;
   }
   if (hello.magic != helloMagic)
      throwBroken("expected a hello with the magic number " + std::to_string(helloMagic) + ", got " +
                  std::to_string(hello.magic));
   if (hello.major != majorVersion)
      throwBroken("the peer speaks version " + std::to_string(hello.major) + "." + std::to_string(hello.minor) +
                  ", expected " + std::to_string(majorVersion) + ".x");
   if (hello.maximumFrame < frame::maximumHello)
      throwBroken("the peer takes frames of at most " + std::to_string(hello.maximumFrame) + " bytes, expected " +
                  std::to_string(frame::maximumHello) + " or more");
   helloSeen_ = true;
   plainLengths_ = std::max(std::min(maximumFrame_, frame::lengthMask) + 1, leastRecord) - leastRecord;
}

void In::nextSection(unsigned n) {
   if (inSection_)
      at_ = limit_;
   inSection_ = true;
   limit_ = body_.data() + body_.size();
   for (;;) {
      if (remaining() == 0)
         throw AttrLogRecordException("expected section " + std::to_string(n) + ", the body has no more");
      unsigned const got = nextU8();
      std::size_t const size = nextU32();
      if (got == n) {
         std::uint8_t const* const start = take(size);
         limit_ = at_;
         at_ = start;
         return;
      }
      take(size);
   }
}

} // namespace Mox::NboAttrLog
