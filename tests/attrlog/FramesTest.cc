// SPDX-License-Identifier: Apache-2.0
#include "attrlog/Frames.h"
#include "Peer.h"
#include "attrlog/Digest.h"
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

/// Offset, base and line of each frame. A handler that `throws` does so at every one, and the reader goes on behind it.
Lines read(In& in, std::span<std::uint8_t const> bytes, bool throws = false) {
   Lines frames;
   for (bool isWhole = false; !isWhole; bytes = {})
      try {
         in.consume(bytes, [&](In& f) {
            std::string const line = lineOf(f);
            frames.push_back(std::to_string(f.offset()) + ' ' + (line.empty() ? titleOf(f.controlKind()) : line));
            if (throws)
               throw RangeException("no");
         });
         isWhole = true;
      } catch (RangeException const&) {
      }
   return frames;
}

/// A dump shows every byte once, whatever the bytes are.
void expectDumped(Bytes const& bytes) {
   std::istringstream lines(describe(bytes));
   std::size_t shown = 0;
   for (std::string line; std::getline(lines, line);)
      for (std::size_t at = 8; at + 1 < line.size() && at < 8 + 3 * 8 && std::isxdigit(line[at]); at += 3)
         ++shown;
   EXPECT_EQ(shown, bytes.size()) << describe(bytes);
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
   expectDumped(stream);
   for (std::size_t const piece : {stream.size(), std::size_t{1}, std::size_t{50}})
      for (bool const throws : {false, true}) {
         auto in = make<In>("peer");
         Lines frames;
         for (std::size_t at = 0; at < stream.size(); at += piece)
            for (std::string& line :
                 read(*in, std::span(stream).subspan(at, std::min(piece, stream.size() - at)), throws))
               frames.push_back(std::move(line));
         EXPECT_EQ(frames, (Lines{"0 hello", "56 #5 388: 00000009", "97 #5 388: 00000009", "132 ping",
                                  "148 #5 388: 00000009"}));
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
   auto const withByte = [](Bytes b, std::size_t at, std::uint8_t byte) {
      b[at] = byte;
      return b;
   };
   struct {
      char const* what;
      Bytes bytes;
      char const* reason;
   } const cases[] = {
      {"length above the maximum", hello + Bytes{0x1f, 0xff, 0xff, 0xff}, "536870911 bytes, at most 1000 are taken"},
      {"one above the maximum", hello + Bytes{0, 0, 0x03, 0xe9}, "1001 bytes, at most 1000 are taken"},
      {"one above the maximum, whole", hello + rawFrame(0, longer), "1001 bytes, at most 1000 are taken"},
      {"record of nothing", hello + Bytes{0, 0, 0, 0}, "0 bytes, expected at least 24"},
      {"record without a token", hello + Bytes{0, 0, 0, 23}, "23 bytes, expected at least 24"},
      {"write without a base", hello + Bytes{0x40, 0, 0, 24}, "24 bytes, expected at least 32"},
      {"extension without its length", hello + Bytes{0x20, 0, 0, 24}, "24 bytes, expected at least 25"},
      {"extension over the frame's end", hello + rawFrame(frame::extensionBit, Bytes{2, 0} + record), "no room"},
      {"control without flags", hello + Bytes{0x80, 0, 0, 1}, "1 bytes, expected at least 2"},
      {"control that is a write", hello + Bytes{0xc0, 0, 0, 10}, "mark of a write"},
      {"wrong first token", hello + rawFrame(0, withByte(record, 22, 2)), "got 2 and 3"},
      {"wrong last token", hello + rawFrame(0, withByte(record, 23, 0)), "got 1 and 0"},
      {"second hello", hello + hello, "a second hello"},
      {"unknown, insisted upon", hello + rawFrame(frame::controlBit, {77, 3}), "control frame 77 is unknown here"},
      {"record before the hello", rawFrame(0, record), "expected a hello as the first frame"},
      {"foreign bytes", Bytes{'G', 'E', 'T', ' '}, "expected a hello as the first frame"},
      {"other control before the hello", rawFrame(frame::controlBit, {9, 0, 0, 0, 0, 0, 0, 0, 0, 0}), "got ping"},
      {"hello above 512 bytes", Bytes{0x80, 0, 0x02, 0x01}, "513 bytes, at most 512"},
      {"hello cut short", rawFrame(frame::controlBit, {1, 0, 'K', 'S', 'T', 'L'}), "hello: expected at least"},
      {"other magic", withByte(hello, 6, 'X'), "magic"},
      {"other major version", withByte(hello, 11, 2), "version 2.0, expected 1.x"},
      {"a peer that takes no hello", withByte(hello, 27, 0), "expected 512 or more"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      auto in = make<In>("port \"7\"", 1000u);
      expectDumped(c.bytes);
      std::string const text = thrownBy<ProtocolException>([&] { read(*in, c.bytes); });
      EXPECT_HAS(text, c.reason);
      EXPECT_HAS(text, "stream \"port \\\"7\\\"\", offset ");
      EXPECT_TRUE(in->isBroken());
      EXPECT_TRUE(read(*in, hello).empty()) << "a broken stream goes on";
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
   EXPECT_EQ(frames, (Lines{"", "#5 388: 00000001", "#5 388: 00000002", "#5 388: 00000003"}));
}

TEST(FrameReading, ASectionEndsWhereItSaysHoweverMuchOfItWasRead) {
   auto out = greeted();
   recordOf(*out, sized(388), Section{1}, 1u, 11u, Section{2}, 2u, Section{3}, 3u);
   auto in = make<In>("peer");
   in->consume(bytesOf(*out), [](In& f) {
      if (f.isControl())
         return;
      for (unsigned const section : {1u, 3u}) {
         f.nextSection(section);
         EXPECT_EQ(f.nextU32(), section);
      }
      EXPECT_THROW(f.nextU32(), AttrLogRecordException);
   });
   EXPECT_EQ(in->recordsRead(), 1u);
}

TEST(Control, EachKindHasItsBytesAndComesBackFromThem) {
   auto const check = [](auto const& frame, std::string const& fields) {
      using C = std::remove_cvref_t<decltype(frame)>;
      SCOPED_TRACE(C::title);
      auto const encoded = [](C const& c) {
         Bytes bytes(frameSize(c));
         encode(c, bytes.data(), bytes.size());
         return bytes;
      };
      Bytes bytes = encoded(frame);
      EXPECT_EQ(hex(bytes).substr(12), fields);
      EXPECT_EQ(loadBigEndian<std::uint32_t>(bytes.data()), frame::controlBit | (bytes.size() - 4));
      EXPECT_EQ(bytes[4], static_cast<unsigned>(C::kind));
      EXPECT_EQ(titleOf(C::kind), C::title);
      bytes.insert(bytes.end(), {1, 2, 3}); // what a newer peer adds
      auto const body = std::span<std::uint8_t const>(bytes).subspan(6);
      // No field has its default value here, so one that is lost shows in what is written again.
      EXPECT_EQ(hex(encoded(decode<C>(body))).substr(12), fields);
      for (std::size_t size = 0; size != body.size() - 3; ++size)
         EXPECT_HAS(thrownBy<ProtocolException>([&] { decode<C>(body.first(size), "here"); }),
                    std::string("here: ") + C::title + ": expected at least ");
   };
   check(Hello{.minor = 2,
               .incarnation = 3,
               .attempt = 4,
               .maximumFrame = 0x1000,
               .highestSlot = 6,
               .window = 7,
               .pingInterval = 8,
               .features = 9,
               .digestKind = 10,
               .name = "me"},
         "4b53544c000100020000000000000003000000040000100000000006000000070000000800000000000000090a026d65");
   check(Acknowledgement{1ull << 40 | 2}, "0000010000000002");
   check(Refused{3, Reason::badValue, "no"}, "00000000000000030003000000026e6f");
   check(Mount{4, MountMode::readWrite, "config"}, "00000004010000000006636f6e666967");
   check(Unmount{5}, "00000005");
   check(Mounted{6, MountState::open, MountMode::readWrite, Reason::limit, port}, "00000006020100070000000700000015");
   check(Retire{port}, "0000000700000015");
   check(Refresh{port, -389, std::string_view("\0\0\0\3", 4)}, "0000000700000015fffffe7b000400000003");
   check(Ping{7}, "0000000000000007");
   check(Pong{8}, "0000000000000008");
   check(ConfirmedAt{9, 10}, "00000009000000000000000a");
   check(Waiting{11}, "000000000000000b");
   EXPECT_EQ(std::tuple_size_v<ControlFrames>, 12u) << "a kind without its row above";
}

TEST(Writing, WhatFailsLeavesNoTrace) {
   auto out = greeted();
   out->peerMaximumFrameIs(600);
   recordOf(*out, scalar(1, 4), 10u);
   std::size_t const before = out->pendingBytes();
   std::string const text(600, 'x');
   std::string_view const some = text;
   struct {
      std::function<void()> act;
      char const* reason;
   } const cases[] = {
      {[&] {
          Record record(*out, scalar(388, 4));
          out << std::string(5000, 'x');
          throw AttrLogRecordException("half way");
       },
       "half way"},
      {[&] {
          Record record(*out, scalar(388, 4));
          recordOf(*out, scalar(389, 4), 1u);
       },
       "a record begins while that of attribute 388 of entity 30064771093 is still open"},
      {[&] { recordOf(*out, sized(388), Section{1}, some); },
       "the record of attribute 388 of entity 30064771093 takes 633 bytes, the peer takes at most 600"},
      {[&] { out << 1u; }, "written while no record is open"},
      {[&] { out->control(Mount{.name = some}); }, "mount takes 612 bytes, the peer takes at most 600"},
      {[&] { out->sent(1); }, "more bytes are said to be sent than were pending"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.reason);
      EXPECT_HAS(thrownBy<Exception>(c.act), c.reason);
      EXPECT_FALSE(out->isRecordOpen());
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
   EXPECT_EQ(read(*in, bytesOf(*out)), (Lines{"0 hello", "56 #5 1: 0000000a", "88 acknowledgement",
                                              "102 #5 2: 00000014", "134 acknowledgement"}));
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
   auto const calm = [&](unsigned records) {
      for (unsigned n = 0; n != 60 * records; ++n) {
         recordOf(*out, scalar(388, 4), n);
         if (n % records == 0)
            bytesOf(*out);
      }
      return out->capacity();
   };
   std::size_t const before = calm(200);
   bytesOf(*out);
   for (unsigned n = 0; n != 40000; ++n)
      recordOf(*out, scalar(388, 4), 1u);
   EXPECT_EQ(out->highWater(), 40000u * 32);
   EXPECT_LE(calm(6), before);
   EXPECT_GE(out->highWater(), 40000u * 32) << "forgotten";
}

TEST(Document, ExamplesAreWhatTheWritersWrite) {
   struct Example {
      char const* title;
      std::function<void(Out&)> write;
   };
   EntityId const directory = EntityId::assigned(1, 0, 1);
   EntityId const member = EntityId::assigned(2, 0, 1);
   std::vector<Example> const examples = {
      {"A 32-bit scalar", [&](Out& o) { recordOf(o, scalar(388, 4), 1u); }},
      {"A key that is gone", [&](Out& o) { recordOf(o, sized(-389, kind::value, member), 3); }},
      {"A marker", [&](Out& o) { o.transactionMarker(member, 389, AttrTransactionType::end); }},
      {"A write",
       [&](Out& o) {
          Record record(o, scalar(416, 2, member), digest(Bytes{0, 0}));
          o << static_cast<unsigned short>(258);
          record.close();
       }},
      {"A member",
       [&](Out& o) { recordOf(o, sized(258, kind::childLog, directory), std::string_view("port-7"), member); }},
      {"An orphan",
       [&](Out& o) {
          recordOf(o, sized(136, kind::value, orphanAnnouncement), Section{1},
                   TypeId{"Hardware::ClariPhy::Cl10010Config"}, TypeId{"Hardware::Phy::PhyConfig"}, Section{3},
                   std::string_view("port-7"), Section{4}, member);
       }},
      {"A hello",
       [&](Out& o) {
          o.control(Hello{.incarnation = 0x0123456789abcdef,
                          .attempt = 1,
                          .highestSlot = 65535,
                          .window = 64,
                          .pingInterval = 5000,
                          .name = "driver"});
       }},
      {"An acknowledgement", [&](Out& o) { o.control(Acknowledgement{12}); }},
      {"A mount that is open",
       [&](Out& o) {
          o.control(Mounted{1, MountState::open, MountMode::readOnly, Reason::none, directory});
       }},
   };
   std::ifstream file(WIRE_FORMAT_DOCUMENT);
   std::string const document{std::istreambuf_iterator<char>(file), {}};
   ASSERT_FALSE(document.empty()) << WIRE_FORMAT_DOCUMENT;
   for (auto const& e : examples) {
      auto out = make<Out>();
      e.write(*out);
      std::string const part = std::string("### ") + e.title + "\n\n```\n" + describe(bytesOf(*out)) + "```\n";
      EXPECT_NE(document.find(part), std::string::npos) << "docs/wire-format.md should read:\n" << part;
   }
}

} // namespace
} // namespace Mox::NboAttrLog
