// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Frames.h"

#include "kestrel/core/Text.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace Mox::NboAttrLog {

std::string titleOf(ControlKind k) {
   std::string title;
   if (!withControlKind(k, [&]<class C>() { title = C::title; }))
      title = "control frame " + std::to_string(static_cast<unsigned>(k));
   return title;
}

std::string textOf(Reason reason) {
   switch (reason) {
   case Reason::none:
      return "no reason given";
   case Reason::changedHere:
      return "changed there meanwhile";
   case Reason::readOnly:
      return "read-only";
   case Reason::badValue:
      return "bad value";
   case Reason::gone:
      return "gone";
   case Reason::unknownAttribute:
      return "unknown attribute";
   case Reason::failed:
      return "failed";
   case Reason::limit:
      return "a limit is reached";
   case Reason::notExported:
      return "not exported there";
   }
   return "reason " + std::to_string(static_cast<unsigned>(reason));
}

namespace detail {

void throwTextTooLong(char const* field, std::size_t size, std::size_t limit) {
   throw RangeException("field \"" + std::string(field) + "\" of a control frame: a text of " + std::to_string(size) +
                        " bytes, at most " + std::to_string(limit) + " can travel");
}

void throwControlTooShort(ControlKind k, std::size_t expected, std::size_t actual, std::string_view where) {
   throw ProtocolException(std::string(where) + (where.empty() ? "" : ": ") + titleOf(k) + ": expected at least " +
                           std::to_string(expected) + " bytes of fields, got " + std::to_string(actual));
}

} // namespace detail

namespace {

using Bytes = std::span<std::uint8_t const>;

/// Walks bytes and prints a line for each stretch that it takes.
class Dump {
public:
   Dump(Bytes bytes, U64 offset) : bytes_(bytes), offset_(offset) {}

   std::string text() {
      while (at_ < bytes_.size()) {
         limit_ = bytes_.size();
         if (char const* const why = frame()) {
            limit_ = bytes_.size();
            line(left(), why, "", 1);
         }
      }
      return std::move(out_);
   }

   // A visitor of control fields, which stops printing where the bytes do.
   template <class T> void operator()(char const* name, T const&) {
      using Number = detail::WireNumber<T>;
      number<Number>(name);
   }
   void shortText(char const* name, std::string_view) { string<std::uint8_t>(name); }
   void text(char const* name, std::string_view) { string<std::uint16_t>(name); }
   void zero(std::size_t n) {
      if (left() >= n)
         line(n, "zero", "");
   }

private:
   static constexpr std::size_t bytesPerLine = 8;

   std::size_t left() const noexcept { return limit_ - at_; }

   /// Prints `n` bytes, which may take several lines; field and value stand on the first.
   void line(std::size_t n, std::string_view field, std::string_view value, std::size_t least = 0) {
      std::size_t const lines = std::max(least, (n + bytesPerLine - 1) / bytesPerLine);
      for (std::size_t i = 0; i != lines; ++i) {
         char text[24];
         std::snprintf(text, sizeof text, "%6llu ", offset_ + at_);
         std::string row = text;
         for (std::size_t j = 0; j != bytesPerLine && i * bytesPerLine + j < n; ++j, ++at_) {
            std::snprintf(text, sizeof text, " %02x", bytes_[at_]);
            row += text;
         }
         if (i == 0) {
            row.resize(std::size_t{8} + 3 * bytesPerLine + 2, ' ');
            row += field;
            if (!value.empty())
               row.append(field.size() < 15 ? 15 - field.size() : 0, ' ').append(" ").append(value);
         }
         out_ += row + '\n';
      }
   }

   template <class Number> Number peek() const noexcept { return loadBigEndian<Number>(bytes_.data() + at_); }

   template <class Number> bool number(char const* name) {
      if (left() < sizeof(Number))
         return false;
      line(sizeof(Number), name, std::to_string(peek<Number>()));
      return true;
   }
   template <class Length> bool string(char const* name) {
      if (left() < sizeof(Length) || left() - sizeof(Length) < peek<Length>())
         return false;
      std::size_t const size = peek<Length>();
      std::string_view const value(reinterpret_cast<char const*>(bytes_.data() + at_ + sizeof(Length)), size);
      line(sizeof(Length) + size, name, quoted(value));
      return true;
   }
   void rest(char const* name) { line(left(), name, ""); }

   /// One frame. Otherwise why the rest is none.
   char const* frame() {
      if (left() < frame::lengthSize)
         return "(the length word breaks off)";
      auto const word = peek<std::uint32_t>();
      std::size_t const size = word & frame::lengthMask;
      std::string what = (word & frame::controlBit) != 0 ? "control, " : (word & frame::writeBit) != 0 ? "write, " : "";
      if ((word & frame::extensionBit) != 0)
         what += "extension, ";
      line(frame::lengthSize, "length", what + std::to_string(size));
      if (left() < size)
         return "(the frame breaks off)";
      limit_ = at_ + size;
      if ((word & frame::extensionBit) != 0) {
         if (left() == 0 || left() - 1 < peek<std::uint8_t>())
            return "(no room for the extension)";
         line(std::size_t{1} + peek<std::uint8_t>(), "extension", "");
      }
      if ((word & frame::controlBit) != 0 ? !control() : !record((word & frame::writeBit) != 0))
         return "(the frame is too short)";
      rest("more");
      return nullptr;
   }

   bool control() {
      if (left() < frame::controlHeadSize)
         return false;
      auto const kind = static_cast<ControlKind>(bytes_[at_]);
      line(1, "kind", std::to_string(bytes_[at_]) + ' ' + titleOf(kind));
      number<std::uint8_t>("flags");
      withControlKind(kind, [this]<class C>() {
         C c;
         C::fields(c, *this);
      });
      return true;
   }

   bool record(bool isWrite) {
      if (left() < frame::headerSize + frame::tokensSize + (isWrite ? frame::baseSize : 0))
         return false;
      if (isWrite)
         number<U64>("base");
      MsgHeader header;
      header.load(bytes_.data() + at_);
      MsgHeader::fields(header, [this](char const* name, auto const& v) { line(sizeof v, name, std::to_string(v)); });
      line(1, "token", bytes_[at_] == 1 ? "begin" : "(expected 1)");
      --limit_;
      body(header);
      rest("body");
      ++limit_;
      line(1, "token", bytes_[at_] == 3 ? "end" : "(expected 3)");
      return true;
   }

   void body(MsgHeader const& header) {
      if (header.kind == kind::marker) {
         static_cast<void>(number<std::uint8_t>("type") && number<std::uint32_t>("count"));
      } else if (header.kind == kind::childLog) {
         if (!string<std::uint32_t>("name"))
            return;
         while (left() > 8 && number<U64>("reference")) {
         }
         number<U64>("member");
      } else if (header.entity == orphanAnnouncement) {
         sections();
      } else if (header.variable == 0 && left() == header.fixedSize) {
         if (header.fixedSize == 2)
            number<std::uint16_t>("value");
         else if (header.fixedSize == 4)
            number<std::uint32_t>("value");
         else if (header.fixedSize == 8)
            number<U64>("value");
      }
   }

   void sections() {
      std::size_t const bodyLimit = limit_;
      while (bodyLimit - at_ >= 5) {
         limit_ = bodyLimit;
         unsigned const section = bytes_[at_];
         auto const size = loadBigEndian<std::uint32_t>(bytes_.data() + at_ + 1);
         line(5, "section", std::to_string(section) + ", " + std::to_string(size));
         if (left() < size)
            break;
         limit_ = at_ + size;
         if (section == 1)
            while (string<std::uint16_t>("type")) {
            }
         else if (section == 3)
            string<std::uint32_t>("name");
         else if (section == 4)
            number<U64>("entity");
         rest("more");
      }
      limit_ = bodyLimit;
   }

   Bytes bytes_;
   U64 offset_;
   std::size_t at_ = 0;
   std::size_t limit_ = 0;
   std::string out_;
};

} // namespace

std::string describe(Bytes bytes, U64 offset) {
   return Dump(bytes, offset).text();
}

} // namespace Mox::NboAttrLog
