// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Frames.h"
#include "Peer.h"
#include "kestrel/attrlog/Digest.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

namespace Mox::NboAttrLog {
namespace {

constexpr EntityId port = EntityId::assigned(5, 0, 7); // slot 5 in its seventh life: a number above 2^32

MsgHeader scalar(std::int32_t attribute, std::uint32_t size, EntityId entity = port) {
   return {.entity = entity, .attribute = attribute, .fixedSize = size};
}
MsgHeader sized(std::int32_t attribute, std::uint32_t kindOf = kind::value, EntityId entity = port) {
   return {.entity = entity, .attribute = attribute, .variable = 1, .kind = kindOf};
}

Ptr<Out> greeted() {
   auto out = make<Out>("peer");
   out->control(Hello{.incarnation = 1, .name = "peer"});
   return out;
}

Bytes operator+(Bytes a, Bytes const& b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

/// A frame made by hand: the bits, and what follows the length word.
Bytes rawFrame(std::uint32_t bits, Bytes const& rest) {
   Bytes f(4);
   storeBigEndian(f.data(), bits | static_cast<std::uint32_t>(rest.size()));
   return f + rest;
}

/// Offset and line of each frame.
Lines read(In& in, std::span<std::uint8_t const> bytes) {
   Lines frames;
   in.consume(bytes, [&](In& f) { frames.push_back(std::to_string(f.offset()) + ' ' + lineOf(f)); });
   return frames;
}

#define EXPECT_HAS(text, part) EXPECT_NE((text).find(part), std::string::npos) << (text)

TEST(FrameReading, WhatALaterPeerAddsIsSteppedOverWhereverTheStreamBreaks) {
   auto out = greeted();
   recordOf(*out, scalar(388, 4), 9u);
   Bytes stream = bytesOf(*out);
   Bytes const record(stream.end() - 28, stream.end()); // without its length word
   stream = stream + rawFrame(frame::controlBit, {77, 0, 1, 2, 3}) +
            rawFrame(frame::extensionBit, Bytes{2, 0xee, 0xee} + record) +
            rawFrame(frame::extensionBit | frame::controlBit, {1, 0xee, 9, 0, 0, 0, 0, 0, 0, 0, 0, 5}) +
            rawFrame(frame::writeBit, Bytes{0, 0, 0, 0, 0, 0, 0, 9} + record);
   for (std::size_t const piece : {stream.size(), std::size_t{1}, std::size_t{50}}) {
      auto in = make<In>("peer");
      Lines frames;
      for (std::size_t at = 0; at < stream.size(); at += piece)
         for (std::string& line : read(*in, std::span(stream).subspan(at, std::min(piece, stream.size() - at))))
            frames.push_back(std::move(line));
      EXPECT_EQ(frames,
                (Lines{"0 hello", "56 #5 388: 00000009", "97 #5 388: 00000009", "132 ping", "148 #5 388: 00000009"}));
      EXPECT_EQ(in->unknownControls(), 1u);
      EXPECT_EQ(in->recordsRead(), 3u);
      EXPECT_EQ(in->base(), 9u);
      EXPECT_EQ(in->keptBytes(), 0u);
   }
}

TEST(FrameReading, WhatBreaksTheFramingEndsTheStreamWithAReason) {
   Bytes const hello = bytesOf(*greeted());
   Bytes record(22);
   record.insert(record.end(), {1, 3});
   Bytes longer = record;
   longer.insert(longer.end() - 1, 1001 - record.size(), 0);
   Bytes longest(39);
   longest.push_back(3);
   auto const withByte = [](Bytes b, std::size_t at, std::uint8_t byte) {
      b[at] = byte;
      return b;
   };
   struct {
      char const* what;
      Bytes bytes;
      char const* reason;
   } const cases[] = {
      {"one above the maximum", hello + Bytes{0, 0, 0x03, 0xe9}, "1001 bytes, at most 1000 are taken"},
      {"one above the maximum, whole", hello + rawFrame(0, longer), "1001 bytes, at most 1000 are taken"},
      {"record without a token", hello + Bytes{0, 0, 0, 23}, "23 bytes, expected at least 24"},
      {"write without a base", hello + Bytes{0x40, 0, 0, 24}, "24 bytes, expected at least 32"},
      {"extension without its length", hello + Bytes{0x20, 0, 0, 24}, "24 bytes, expected at least 25"},
      {"extension over the frame's end", hello + rawFrame(frame::extensionBit, Bytes{2, 0} + record), "no room"},
      // One byte more than what lies between its length and the least that a write takes.
      {"extension in place of a base", hello + rawFrame(frame::writeBit | frame::extensionBit, Bytes{9} + longest),
       "an extension of 9 bytes leaves no room"},
      {"control without flags", hello + Bytes{0x80, 0, 0, 1}, "1 bytes, expected at least 2"},
      {"wrong last token", hello + rawFrame(0, withByte(record, 23, 0)), "got 1 and 0"},
      {"second hello", hello + hello, "a second hello"},
      {"unknown, insisted upon", hello + rawFrame(frame::controlBit, {77, 3}), "control frame 77 is unknown here"},
      {"record before the hello", rawFrame(0, record), "expected a hello as the first frame"},
      {"hello above 512 bytes", Bytes{0x80, 0, 0x02, 0x01}, "513 bytes, at most 512"},
      {"hello cut short", rawFrame(frame::controlBit, {1, 0, 'K', 'S', 'T', 'L'}), "hello: expected at least"},
      {"other magic", withByte(hello, 6, 'X'), "magic"},
      {"other major version", withByte(hello, 11, 2), "version 2.0, expected 1.x"},
      {"a peer that takes no hello", withByte(hello, 27, 0), "expected 512 or more"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      auto in = make<In>("port \"7\"", 1000u);
      describe(c.bytes); // steps over them
      std::string const text = thrownBy<ProtocolException>([&] { read(*in, c.bytes); });
      EXPECT_HAS(text, c.reason);
      EXPECT_HAS(text, "stream \"port \\\"7\\\"\", offset ");
      EXPECT_TRUE(in->isBroken());
      EXPECT_TRUE(read(*in, hello).empty()) << "a broken stream goes on";
      in->reset();
      EXPECT_THROW(read(*in, rawFrame(0, record)), ProtocolException)
         << "the first frame of the next one is a hello, too";
      in->reset();
      EXPECT_EQ(read(*in, hello).size(), 1u);
   }
   // A length that may yet come true takes no memory before its bytes do.
   auto in = make<In>("peer", frame::lengthMask);
   read(*in, hello + Bytes{0x1f, 0xff, 0xff, 0xff, 1, 2, 3});
   EXPECT_EQ(in->keptBytes(), 7u);
   EXPECT_FALSE(in->isBroken());
}

TEST(FrameReading, WhatIsHandedInMeanwhileComesBehindTheRestAlsoBehindAnException) {
   auto out = greeted();
   for (unsigned const n : {1u, 2u, 3u})
      recordOf(*out, scalar(388, 4), n);
   Bytes const stream = bytesOf(*out);
   auto const last = std::span(stream).last(32);
   auto in = make<In>("peer");
   Lines frames;
   auto const take = [&](In& f) {
      frames.push_back(lineOf(f));
      if (frames.size() != 2)
         return;
      f.queue(last);
      throw RangeException("no");
   };
   EXPECT_THROW(in->consume(std::span(stream).first(stream.size() - 32), take), RangeException);
   in->consume({}, take);
   EXPECT_EQ(frames, (Lines{"hello", "#5 388: 00000001", "#5 388: 00000002", "#5 388: 00000003"}));
   EXPECT_EQ(in->remaining(), 0u) << "the bytes are the caller's again";
}

TEST(Writing, WhatFailsLeavesNoTrace) {
   auto out = greeted();
   out->peerMaximumFrameIs(600);
   recordOf(*out, scalar(1, 4), 10u);
   std::size_t const before = out->pendingBytes();
   std::string const text(600, 'x');
   std::string_view const some = text;
   std::pair<std::function<void()>, char const*> const cases[] = {
      {[&] { recordOf(*out, sized(388), Section{1}, some); },
       "the record of attribute 388 of entity 30064771093 takes 633 bytes, the peer takes at most 600"},
      {[&] { out << 1u; }, "written while no record is open"},
      {[&] { out->control(Mount{.name = some}); }, "mount takes 612 bytes, the peer takes at most 600"},
   };
   for (auto const& [act, reason] : cases) {
      EXPECT_HAS(thrownBy<Exception>(act), reason);
      EXPECT_EQ(out->pendingBytes(), before);
      EXPECT_EQ(out->recordsWritten(), 1u);
   }
   // What the framework says meanwhile stays, in front of the record, whether that is closed or taken back.
   for (bool const closes : {true, false}) {
      Record record(*out, scalar(2, 4));
      out << 20u;
      out->control(Acknowledgement{7});
      EXPECT_EQ(hex(out->bytesSince(out->column() - 4)), "00000014");
      if (closes)
         record.close();
   }
   auto in = make<In>();
   EXPECT_EQ(read(*in, bytesOf(*out)), (Lines{"0 hello", "56 #5 1: 0000000a", "88 acknowledgement 7",
                                              "102 #5 2: 00000014", "134 acknowledgement 7"}));
   EXPECT_EQ(out->recordsWritten(), 2u);
   recordOf(*out, sized(388), Section{1}, some.substr(33));
   EXPECT_EQ(bytesOf(*out).size(), 604u) << "just what the peer takes";
}

TEST(Writing, ACutLeavesNothingOfTheConnectionBefore) {
   auto out = greeted();
   recordOf(*out, scalar(388, 4), 1u);
   out->pending();
   out->sent(60); // the record has begun
   out->control(Ping{1});
   out->clear();
   auto in = make<In>();
   // Byte by byte: only a boundary between frames lets what overtakes in.
   auto const carried = [&] {
      Bytes stream;
      for (auto bytes = out->pending(); !bytes.empty(); bytes = out->pending()) {
         stream.push_back(bytes.front());
         out->sent(1);
      }
      return read(*in, stream);
   };
   out->control(Hello{.incarnation = 1, .name = "peer"});
   recordOf(*out, scalar(388, 4), 2u);
   out->control(Pong{3});
   EXPECT_EQ(carried(), (Lines{"0 hello", "56 pong", "70 #5 388: 00000002"}));
   EXPECT_EQ(out->recordsWritten(), 1u);
   out->control(Pong{5});
   out->control(Ping{4});
   EXPECT_EQ(carried(), (Lines{"102 ping", "116 pong"}));
}

TEST(Writing, ABurstIsGivenBack) {
   auto out = greeted();
   auto const write = [&](unsigned records) {
      for (unsigned n = 0; n != records; ++n)
         recordOf(*out, scalar(388, 4), n);
   };
   std::size_t const before = out->capacity();
   write(40000);
   EXPECT_EQ(out->highWater(), out->pendingBytes());
   for (int calm = 0; calm != 60; ++calm) {
      bytesOf(*out);
      write(6);
   }
   EXPECT_LE(out->capacity(), 4 * before);
   EXPECT_GE(out->highWater(), 40000u * 32) << "forgotten";
}

/// What each example of the wire's page says in bytes is dumped as it stands there, and written again as it is read.
TEST(Document, ExamplesAreWhatTheWritersWrite) {
   std::ifstream file(WIRE_FORMAT_DOCUMENT);
   std::vector<std::pair<std::string, Bytes>> examples;
   bool isExample = false;
   for (std::string line; std::getline(file, line);) {
      if (line.starts_with("     0  "))
         examples.emplace_back();
      isExample = line.starts_with("     0  ") || (isExample && line != "```");
      if (!isExample)
         continue;
      examples.back().first += line + '\n';
      for (std::size_t at = 8; at < std::min<std::size_t>(32, line.size()) && std::isxdigit(line[at]); at += 3)
         examples.back().second.push_back(static_cast<std::uint8_t>(std::stoi(line.substr(at, 2), nullptr, 16)));
   }
   EXPECT_EQ(examples.size(), 9u);
   for (auto const& [text, bytes] : examples) {
      EXPECT_EQ(describe(bytes), text);
      auto in = make<In>();
      auto out = make<Out>();
      if (bytes[4] != static_cast<std::uint8_t>(ControlKind::hello))
         read(*in, bytesOf(*greeted()));
      in->consume(bytes, [&](In& f) {
         if (f.isControl()) {
            f.dispatchControl([&](auto const& control) { out->control(control); });
            return;
         }
         Record record = f.isWrite() ? Record(*out, f.header(), f.base()) : Record(*out, f.header());
         for (std::uint8_t const byte : f.body())
            *out << byte;
         record.close();
      });
      EXPECT_EQ(hex(bytesOf(*out)), hex(bytes)) << text;
   }
}

} // namespace
} // namespace Mox::NboAttrLog
