#include "attrlog/Frames.h"
#include "attrlog/Digest.h"
#include "attrlog/In.h"
#include "attrlog/Out.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <sstream>

namespace Mox::NboAttrLog {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Token = Connection::Out::TransactToken;

constexpr EntityId port = EntityId::assigned(5, 0, 7); // slot 5 in its seventh life: a number above 2^32

MsgHeader scalar(std::int32_t attribute, std::uint32_t size, EntityId entity = port) {
   return {.entity = entity, .attribute = attribute, .fixedSize = size};
}
MsgHeader sized(std::int32_t attribute, std::uint32_t kindOf = kind::value, EntityId entity = port) {
   return {.entity = entity, .attribute = attribute, .variable = 1, .kind = kindOf};
}

Bytes drain(Out& out) {
   Bytes all;
   for (auto bytes = out.pending(); !bytes.empty(); bytes = out.pending()) {
      all.insert(all.end(), bytes.begin(), bytes.end());
      out.sent(bytes.size());
   }
   return all;
}

Ptr<Out> greeted() {
   auto out = make<Out>("peer");
   out->control(Hello{.incarnation = 1, .name = "peer"});
   return out;
}

void u32Record(Out& out, std::int32_t attribute, std::uint32_t value) {
   Record record(out, scalar(attribute, 4));
   out << value;
   record.close();
}

Bytes operator+(Bytes a, Bytes const& b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

/// A control or record frame made by hand: the bits, and what follows the length word.
Bytes rawFrame(std::uint32_t bits, Bytes const& rest) {
   Bytes f(4);
   storeBigEndian(f.data(), bits | static_cast<std::uint32_t>(rest.size()));
   return f + rest;
}

/// What a reader saw of one frame.
std::string seen(In& in) {
   std::ostringstream text;
   text << in.offset() << ": ";
   if (in.isControl()) {
      text << titleOf(in.controlKind()) << " of " << in.body().size();
   } else {
      text << "record " << in.recordsRead() << ", attribute " << in.header().attribute << " of "
           << in.header().entity.number() << ", base " << in.base() << ", digest " << digest(in.body());
   }
   return text.str();
}

std::vector<std::string> read(In& in, std::span<std::uint8_t const> bytes) {
   std::vector<std::string> frames;
   in.consume(bytes, [&](In& frame) { frames.push_back(seen(frame)); });
   return frames;
}

/// A little of everything that a reader meets.
Bytes sampleStream() {
   auto out = greeted();
   u32Record(*out, 388, 1);
   out->transactionMarker(port, 389, AttrTransactionType::begin);
   {
      Record record(*out, sized(393), 0x1122334455667788);
      out << 3 << std::string_view("some key");
      record.close();
   }
   out->control(Acknowledgement{3});
   {
      Record record(*out, sized(500));
      out << std::string(700, 'x');
      record.close();
   }
   Bytes const record = [] {
      auto other = make<Out>();
      u32Record(*other, 388, 9);
      Bytes b = drain(*other);
      return Bytes(b.begin() + 4, b.end());
   }();
   Bytes const unknownControl = rawFrame(frame::controlBit, {77, 0, 1, 2, 3});
   Bytes const extended = rawFrame(frame::extensionBit, Bytes{2, 0xee, 0xee} + record);
   out->control(Retire{port});
   Bytes const extendedPing =
      rawFrame(frame::extensionBit | frame::controlBit, {1, 0xee, 9, 0, 0, 0, 0, 0, 0, 0, 0, 5});
   return drain(*out) + unknownControl + extended + extendedPing;
}

template <class E> std::string thrown(std::function<void()> const& f) {
   try {
      f();
   } catch (E const& e) {
      return e.what();
   }
   return "(nothing was thrown)";
}

#define EXPECT_HAS(text, part) EXPECT_NE((text).find(part), std::string::npos) << (text)

TEST(FrameReading, EverySplitShowsTheSameFrames) {
   Bytes const stream = sampleStream();
   std::vector<std::string> whole;
   {
      auto in = make<In>("peer");
      whole = read(*in, stream);
      ASSERT_EQ(whole.size(), 9u);
      EXPECT_EQ(in->unknownControls(), 1u);
      EXPECT_EQ(in->recordsRead(), 5u);
      EXPECT_EQ(in->keptBytes(), 0u);
   }
   std::mt19937 random(1);
   for (unsigned round = 0; round != 300; ++round) {
      SCOPED_TRACE(round);
      std::size_t const most = round == 0 ? 1 : 1 + random() % 200;
      bool const nested = round % 3 == 1;  // bytes come in while a frame is being handled
      bool const thrower = round % 3 == 2; // the handler throws now and then, and the reader goes on
      auto in = make<In>("peer");
      std::vector<std::string> frames;
      std::size_t at = 0;
      auto const some = [&] {
         std::size_t const n = std::min<std::size_t>(1 + random() % most, stream.size() - at);
         auto const piece = std::span(stream).subspan(at, n);
         at += n;
         return Bytes(piece.begin(), piece.end());
      };
      std::function<void(In&)> const handle = [&](In& frame) {
         frames.push_back(seen(frame));
         if (nested && random() % 2 == 0)
            frame.consume(some(), handle);
         if (thrower && random() % 2 == 0)
            throw RangeException("no");
      };
      while (at != stream.size() || in->keptBytes() != 0) {
         Bytes const piece = some();
         try {
            in->consume(piece, handle);
         } catch (RangeException const&) {
         }
      }
      ASSERT_EQ(frames, whole);
   }
}

TEST(FrameReading, WhatBreaksTheFramingEndsTheStreamWithAReason) {
   Bytes const hello = drain(*greeted());
   Bytes record(22);
   record.insert(record.end(), {1, 3});
   auto const helloWith = [&](std::size_t at, std::uint8_t byte) {
      Bytes b = hello;
      b[at] = byte;
      return b;
   };
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
      {"unknown, insisted upon", hello + rawFrame(frame::controlBit, {77, 1}), "control frame 77 is unknown here"},
      {"record before the hello", rawFrame(0, record), "expected a hello as the first frame"},
      {"foreign bytes", Bytes{'G', 'E', 'T', ' '}, "expected a hello as the first frame"},
      {"other control before the hello", rawFrame(frame::controlBit, {9, 0, 0, 0, 0, 0, 0, 0, 0, 0}), "got ping"},
      {"hello above 512 bytes", Bytes{0x80, 0, 0x02, 0x01}, "513 bytes, at most 512"},
      {"hello cut short", rawFrame(frame::controlBit, {1, 0, 'K', 'S', 'T', 'L'}), "hello: expected at least"},
      {"other magic", helloWith(6, 'X'), "magic"},
      {"other major version", helloWith(11, 2), "version 2.0, expected 1.x"},
      {"a peer that takes no hello", helloWith(27, 0), "expected 512 or more"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      auto in = make<In>("port \"7\"", 1000u);
      std::string const text = thrown<ProtocolException>([&] { read(*in, c.bytes); });
      EXPECT_HAS(text, c.reason);
      EXPECT_HAS(text, "stream \"port \\\"7\\\"\", offset ");
      EXPECT_TRUE(in->isBroken());
      EXPECT_TRUE(read(*in, hello).empty()) << "a broken stream goes on";
      in->reset();
      EXPECT_EQ(read(*in, hello).size(), 1u);
   }
}

TEST(FrameReading, AnAnnouncedLengthTakesNoMemory) {
   Bytes const start = drain(*greeted()) + Bytes{0x1f, 0xff, 0xff, 0xff, 1, 2, 3};
   auto in = make<In>("peer", frame::lengthMask);
   read(*in, start);
   EXPECT_EQ(in->keptBytes(), 7u);
   EXPECT_FALSE(in->isBroken());
}

TEST(FrameReading, AFaultyBodyEndsOnlyItsRecord) {
   struct {
      char const* what;
      std::function<void(Out&)> body;
      std::function<void(In&)> reader;
      char const* reason;
   } const cases[] = {
      {"too short", [](Out& o) { o << 1u; }, [](In& i) { i.nextU16(), i.nextU32(); },
       "expected 4 bytes at byte 2 of the body, 2 are left"},
      {"truth value", [](Out& o) { o.put(static_cast<unsigned char>(2)); }, [](In& i) { i.nextbool(); },
       "expected a truth value of 0 or 1, got 2"},
      {"string over the end", [](Out& o) { o << 0xffffffffu; }, [](In& i) { i.nextString(); },
       "expected 4294967295 bytes"},
      {"type name over the end", [](Out& o) { o.put(static_cast<unsigned short>(9)); }, [](In& i) { i.nextTypeId(); },
       "expected 9 bytes"},
      {"section left out", [](Out& o) { o.currentPayloadSectionIs(1), o.currentPayloadSectionIs(4); },
       [](In& i) { i.nextSection(3); }, "expected section 3, the body has no more"},
      {"over the section's end",
       [](Out& o) { o.currentPayloadSectionIs(1), o << 7u, o.currentPayloadSectionIs(2), o << 8u; },
       [](In& i) { i.nextSection(1), i.nextU64(); }, "expected 8 bytes"},
      {"section over the body's end", [](Out& o) { o << true << 99u; }, [](In& i) { i.nextSection(1); },
       "expected 99 bytes"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      auto out = greeted();
      Record record(*out, sized(-389));
      c.body(*out);
      record.close();
      u32Record(*out, 388, 5);
      auto in = make<In>("peer");
      std::uint32_t last = 0;
      in->consume(drain(*out), [&](In& f) {
         if (f.header().attribute == -389) {
            std::string const text = thrown<AttrLogRecordException>([&] { c.reader(f); });
            EXPECT_HAS(text, c.reason);
            EXPECT_HAS(text, "stream \"peer\", offset 56, attribute -389 of entity 30064771093: ");
         } else if (!f.isControl()) {
            last = f.nextU32();
         }
      });
      EXPECT_EQ(last, 5u);
   }
}

TEST(FrameReading, MutatedBytesEndInAnExceptionOrAFrame) {
   Bytes const stream = sampleStream();
   std::mt19937 random(7);
   for (unsigned round = 0; round != 3000; ++round) {
      Bytes bytes = stream;
      for (unsigned n = 1 + random() % 4; n != 0; --n) {
         unsigned const values[] = {0, 0xff, static_cast<unsigned>(random() & 0xff)};
         bytes[random() % bytes.size()] = static_cast<std::uint8_t>(values[random() % 3]);
      }
      auto in = make<In>("peer", 4096u);
      try {
         in->consume(bytes, [](In& f) {
            try {
               if (f.isControl())
                  f.dispatchControl([](auto const&) {});
               else
                  f.nextSection(1), f.nextStringView(), f.nextSection(3), f.nextTypeId();
            } catch (AttrLogRecordException const&) {
            }
         });
      } catch (ProtocolException const&) {
      }
      // The dump shows every byte once, whatever the bytes are.
      std::istringstream lines(describe(bytes));
      std::size_t shown = 0;
      for (std::string line; std::getline(lines, line);)
         for (std::size_t at = 8; at + 1 < line.size() && at < 8 + 3 * 8 && std::isxdigit(line[at]); at += 3)
            ++shown;
      ASSERT_EQ(shown, bytes.size()) << describe(bytes);
   }
}

TEST(Values, EveryWidthComesBackAndHeadersHaveTheLowWordFirst) {
   auto out = make<Out>("peer");
   auto const values = [](auto&& each) {
      each(true, &In::nextbool), each(false, &In::nextbool);
      each(static_cast<unsigned char>(0xfe), &In::nextU8);
      each(static_cast<unsigned short>(0xfedc), &In::nextU16);
      each(0xfedcba98u, &In::nextU32);
      each(std::numeric_limits<int>::min(), &In::nextint), each(-2, &In::nextS32);
      each(0xfedcba9876543210ull, &In::nextU64), each(std::numeric_limits<long long>::min(), &In::nextS64);
      each(-0.0f, &In::nextF32), each(0.1f, &In::nextF32), each(1e-310, &In::nextSeconds);
      each(port, &In::nextEntityId);
      each(std::string_view(), &In::nextStringView), each(std::string_view("a\0b", 3), &In::nextStringView);
      each(String8("text"), &In::nextString), each(TypeId{"A::B"}, &In::nextTypeId);
   };
   out->control(Hello{});
   Record record(*out, sized(1));
   values([&](auto const& v, auto) { out << v; });
   record.close();
   Bytes const bytes = drain(*out);
   auto in = make<In>();
   in->consume(bytes, [&](In& f) {
      if (f.isControl())
         return;
      values([&](auto const& v, auto reader) { EXPECT_EQ(v, (f.*reader)()) << "at byte " << f.column(); });
      EXPECT_EQ(f.remaining(), 0u);
      EXPECT_EQ(f.header(), sized(1));
   });
   auto const has = [&](Bytes const& part) {
      return std::search(bytes.begin(), bytes.end(), part.begin(), part.end()) != bytes.end();
   };
   EXPECT_TRUE(has({0, 0, 0, 0x15, 0, 0, 0, 7, 0, 0, 0, 1, 1})) << "header: low word first, then attribute";
   EXPECT_TRUE(has({0, 0, 0, 7, 0, 0, 0, 0x15})) << "reference: high word first";
   // A record of one number has the same bytes, whether it is written in one step or in several.
   auto const whole = make<Out>("peer");
   auto const stepwise = make<Out>("peer");
   values([&](auto const& v, auto) {
      if constexpr (WireScalar<std::remove_cvref_t<decltype(v)>>)
         for (std::uint32_t const size : {0u, 4u}) {
            whole->numberRecord(port, 388, size, v);
            Record each(*stepwise, size == 0 ? sized(388) : scalar(388, size));
            *stepwise << v;
            each.close();
         }
   });
   EXPECT_EQ(whole->recordsWritten(), stepwise->recordsWritten());
   EXPECT_EQ(drain(*whole), drain(*stepwise));
   EXPECT_EQ(digest({}), 0xcbf29ce484222325u);
   EXPECT_EQ(digest(Bytes{'f', 'o', 'o', 'b', 'a', 'r'}), 0x85944171f73967e8u);
}

TEST(Values, SectionsAreFoundByNumberAndBoundTheirReaders) {
   auto out = greeted();
   Record record(*out, sized(136, kind::value, orphanAnnouncement));
   out->currentPayloadSectionIs(1);
   out << TypeId{"New"} << TypeId{"Old"};
   out->currentPayloadSectionIs(2);
   out << std::string_view("from a newer peer");
   out->currentPayloadSectionIs(3);
   out << std::string_view("port-7") << 42u;
   out->currentPayloadSectionIs(4);
   out << port;
   record.close();
   auto in = make<In>();
   std::string chain;
   in->consume(drain(*out), [&](In& f) {
      if (f.isControl())
         return;
      f.nextSection(1);
      while (f.remaining() != 0)
         chain.append(f.nextTypeId().name).append(" ");
      f.nextSection(3);
      EXPECT_EQ(f.nextStringView(), "port-7");
      f.nextSection(4); // the number that this reader did not know is stepped over
      EXPECT_EQ(f.nextEntityId(), port);
   });
   EXPECT_EQ(chain, "New Old ");
}

std::string hex(std::span<std::uint8_t const> bytes) {
   std::string text;
   for (std::uint8_t const b : bytes) {
      constexpr char digits[] = "0123456789abcdef";
      text += {digits[b >> 4], digits[b & 15]};
   }
   return text;
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
      for (std::size_t size = 0; size != body.size() - 3; ++size) {
         std::string const text = thrown<ProtocolException>([&] { decode<C>(body.first(size), "here"); });
         EXPECT_HAS(text, std::string("here: ") + C::title + ": expected at least ");
         EXPECT_HAS(text, ", got " + std::to_string(size));
      }
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

TEST(Control, WhatCannotTravelLeavesTheStreamAsItWas) {
   auto out = greeted();
   out->peerMaximumFrameIs(600);
   u32Record(*out, 388, 1);
   std::size_t const before = out->pendingBytes();
   std::string const text(70000, 'n');
   EXPECT_HAS(thrown<RangeException>([&] { out->control(Mount{.name = text}); }), "at most 65535");
   EXPECT_HAS(thrown<RangeException>([&] { out->control(Hello{.name = std::string_view(text).substr(0, 256)}); }),
              "at most 255");
   EXPECT_HAS(thrown<RecordTooLong>([&] { out->control(Mount{.name = std::string_view(text).substr(0, 600)}); }),
              "mount takes 612 bytes, the peer takes at most 600");
   EXPECT_EQ(out->pendingBytes(), before);
}

TEST(Control, PingAndPongOvertakeAtTheNextFrameBoundary) {
   auto out = make<Out>("peer");
   std::string order;
   auto in = make<In>();
   auto const carry = [&](std::size_t most) {
      auto const bytes = out->pending();
      std::size_t const n = std::min(most, bytes.size());
      Bytes const copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
      out->sent(n);
      in->consume(copy, [&](In& f) {
         if (!f.isControl())
            order += std::to_string(f.nextU32()) + ' ';
         else if (f.controlKind() == ControlKind::ping)
            order += "ping" + std::to_string(f.control<Ping>().token) + ' ';
         else
            order += f.controlKind() == ControlKind::pong ? "pong " : "hello ";
      });
   };
   out->control(Ping{1}); // there is no boundary before the hello
   EXPECT_FALSE(out->hasPending());
   out->control(Hello{});
   for (unsigned n = 1; n != 5; ++n)
      u32Record(*out, 388, n);
   carry(frameSize(Hello{}) + 40); // the hello, 1, and eight bytes of 2
   out->control(Ping{2});          // ping 1 has not gone out and is replaced
   out->control(Pong{3});
   carry(3);
   carry(1000);
   static_cast<void>(out->pending()); // ping and pong are on offer: a newer one waits
   out->control(Ping{4});
   carry(10);
   u32Record(*out, 388, 5);
   while (out->hasPending())
      carry(7);
   EXPECT_EQ(order, "hello 1 2 ping2 pong ping4 3 4 5 ");
}

TEST(Writing, ARecordThatFailsLeavesNoTrace) {
   auto out = greeted();
   out->peerMaximumFrameIs(600);
   u32Record(*out, 1, 10);
   std::size_t const before = out->pendingBytes();
   struct {
      char const* what;
      std::function<void()> act;
      char const* reason;
   } const cases[] = {
      {"body throws",
       [&] {
          Record record(*out, scalar(388, 4));
          out << std::string(5000, 'x');
          throw AttrLogRecordException("half way");
       },
       "half way"},
      {"record in a record",
       [&] {
          Record record(*out, scalar(388, 4));
          u32Record(*out, 389, 1);
       },
       "a record begins while that of attribute 388 of entity 30064771093 is still open"},
      {"number in a record",
       [&] {
          Record record(*out, scalar(388, 4));
          out->numberRecord(port, 389, 4, 1u);
       },
       "a record begins while that of attribute 388 of entity 30064771093 is still open"},
      {"number too long for the peer",
       [&] {
          out->peerMaximumFrameIs(27);
          struct Restore {
             Out& out;
             ~Restore() { out.peerMaximumFrameIs(600); }
          } const restore{*out};
          out->numberRecord(port, 388, 4, 1u);
       },
       "the record of attribute 388 of entity 30064771093 takes 28 bytes, the peer takes at most 27"},
      {"too long for the peer",
       [&] {
          Record record(*out, sized(388), 77);
          out->currentPayloadSectionIs(1);
          out << std::string(600, 'x');
          record.close();
       },
       "the record of attribute 388 of entity 30064771093 takes 641 bytes, the peer takes at most 600"},
      {"type name too long",
       [&] {
          std::string const name(70000, 'T');
          Record record(*out, sized(388));
          out << TypeId{name};
       },
       "a text of 70000 bytes, where at most 65535 can travel"},
      {"value without a record", [&] { out << 1u; }, "written while no record is open"},
      {"token without a record", [&] { out << Token::end; }, "written while no record is open"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      EXPECT_HAS(thrown<AttrLogRecordException>(c.act), c.reason);
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
   auto const frames = read(*in, drain(*out));
   ASSERT_EQ(frames.size(), 5u);
   EXPECT_HAS(frames[1], "record 1, attribute 1 ");
   EXPECT_HAS(frames[2], "acknowledgement");
   EXPECT_HAS(frames[3], "record 2, attribute 2 ");
   EXPECT_HAS(frames[4], "acknowledgement");
   EXPECT_EQ(out->recordsWritten(), 2u);
}

TEST(Writing, AnySequenceOfSendsCarriesTheSameBytes) {
   std::mt19937 random(3);
   auto out = greeted();
   Bytes carried;
   Bytes expected = drain(*greeted());
   for (unsigned n = 0; n != 20000; ++n) {
      std::string const text(random() % 40 == 0 ? random() % 9000 : random() % 30, static_cast<char>('a' + n % 26));
      auto one = make<Out>();
      for (Out* const o : {out.get(), one.get()}) {
         Record record(*o, sized(1));
         *o << text;
         record.close();
      }
      expected = std::move(expected) + drain(*one);
      if (random() % 8 == 0)
         Record(*out, sized(2)); // dropped at once
      auto const bytes = out->pending();
      std::size_t const size = random() % 3 == 0 ? bytes.size() : random() % (bytes.size() + 1);
      carried.insert(carried.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
      out->sent(size);
   }
   ASSERT_EQ(carried + drain(*out), expected);
   EXPECT_EQ(out->bytesSent(), expected.size());
   EXPECT_THROW(out->sent(1), InternalException);
}

TEST(Writing, ASteadyStreamAllocatesNothingAndABurstIsGivenBack) {
   auto out = greeted();
   auto in = make<In>("peer");
   U64 sum = 0;
   auto const round = [&](unsigned records) {
      for (unsigned n = 0; n != records; ++n) {
         u32Record(*out, 388, n);
         Record record(*out, sized(389));
         out << 3 << std::string_view("a text that is longer than what fits into a string object");
         record.close();
         out->control(Acknowledgement{n});
      }
      out->control(Ping{1});
      std::size_t piece = 0;
      while (out->hasPending()) {
         auto bytes = out->pending();
         bytes = bytes.first(std::min(bytes.size(), 100 + piece++ % 50)); // frames break off
         in->consume(bytes, [&](In& f) {
            if (!f.isControl() && f.header().attribute == 389)
               sum += static_cast<U64>(f.nextint()) + f.nextStringView().size();
         });
         out->sent(bytes.size());
      }
   };
   for (unsigned n = 0; n != 10; ++n)
      round(100);
   std::size_t const before = allocations();
   for (unsigned n = 0; n != 50; ++n)
      round(n % 5 == 0 ? 100 : 3);
   EXPECT_EQ(allocations(), before);
   EXPECT_EQ(sum, (10 * 100 + 10 * 100 + 40 * 3) * (3 + 57u)) << "every record has been read";

   std::size_t const calm = out->capacity();
   EXPECT_TRUE(out->hasSufficientBuffer());
   unsigned written = 0;
   for (; out->hasSufficientBuffer(); ++written)
      u32Record(*out, 388, 1);
   EXPECT_EQ(written, Out::defaultMark / 32);
   for (; written != 40000; ++written)
      u32Record(*out, 388, 1);
   EXPECT_EQ(out->highWater(), 40000u * 32);
   for (unsigned n = 0; n != 60; ++n)
      round(3);
   EXPECT_LE(out->capacity(), calm);

   u32Record(*out, 388, 1);
   static_cast<void>(out->pending());
   out->sent(7);
   out->clear(); // a cut in the middle of a frame
   EXPECT_FALSE(out->hasPending());
   EXPECT_EQ(out->recordsWritten(), 0u);
   out->control(Hello{});
   EXPECT_EQ(drain(*out).size(), frameSize(Hello{}));
}

TEST(Document, ExamplesAreWhatTheWritersWrite) {
   struct Example {
      char const* title;
      std::function<void(Out&)> write;
   };
   EntityId const directory = EntityId::assigned(1, 0, 1);
   EntityId const member = EntityId::assigned(2, 0, 1);
   std::vector<Example> const examples = {
      {"A 32-bit scalar", [&](Out& o) { u32Record(o, 388, 1); }},
      {"A key that is gone",
       [&](Out& o) {
          Record record(o, sized(-389, kind::value, member));
          o << 3;
          record.close();
       }},
      {"A marker", [&](Out& o) { o.transactionMarker(member, 389, AttrTransactionType::end); }},
      {"A write",
       [&](Out& o) {
          Record record(o, scalar(416, 2, member), digest(Bytes{0, 0}));
          o << static_cast<unsigned short>(258);
          record.close();
       }},
      {"A member",
       [&](Out& o) {
          Record record(o, sized(258, kind::childLog, directory));
          o << std::string_view("port-7") << member;
          record.close();
       }},
      {"An orphan",
       [&](Out& o) {
          Record record(o, sized(136, kind::value, orphanAnnouncement));
          o.currentPayloadSectionIs(1);
          o << TypeId{"Hardware::ClariPhy::Cl10010Config"} << TypeId{"Hardware::Phy::PhyConfig"};
          o.currentPayloadSectionIs(3);
          o << std::string_view("port-7");
          o.currentPayloadSectionIs(4);
          o << member;
          record.close();
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
      std::string const part = std::string("### ") + e.title + "\n\n```\n" + describe(drain(*out)) + "```\n";
      EXPECT_NE(document.find(part), std::string::npos) << "docs/wire-format.md should read:\n" << part;
   }
}

} // namespace
} // namespace Mox::NboAttrLog
