// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/MsgHeader.h"

#include <span>
#include <string>
#include <tuple>
#include <type_traits>

namespace Mox::NboAttrLog {

/// Control frames: what the two ends say about the stream itself, beside the records.
///
/// Each kind is one struct with one list of its fields, from which `frameSize`, `encode`, `decode` and `describe` come:
///
///    struct Acknowledgement {
///       static constexpr ControlKind kind = ControlKind::acknowledgement;
///       U64 count = 0;
///       static void fields(auto& self, auto& field) { field("count", self.count); }
///    };
///
/// A reader ignores what follows the fields that it knows, so a kind grows at its end and nowhere else.
///
/// *Lifetime*: texts are views. In a decoded frame they stand in the reader's bytes and live until its next frame.
enum class ControlKind : std::uint8_t {
   hello = 1,
   acknowledgement,
   refused,
   mount,
   unmount,
   mounted,
   retire,
   refresh,
   ping,
   pong,
   confirmedAt,
   waiting,
};

/// Set in a control frame's flags: a reader that does not know the kind must close the connection.
inline constexpr std::uint8_t mustKnowFlag = 1;

inline constexpr std::uint32_t helloMagic = 0x4b53544c; ///< "KSTL"
inline constexpr std::uint16_t majorVersion = 1;
inline constexpr std::uint16_t minorVersion = 0;
inline constexpr std::uint8_t digestFnv1a = 1;

/// Why a write was not applied, or a mount not granted. Other numbers may come from newer peers.
enum class Reason : std::uint16_t {
   none,
   changedHere,
   readOnly,
   badValue,
   gone,
   unknownAttribute,
   failed,
   limit,
   notExported,
};
/// In words, for messages.
std::string textOf(Reason reason);

/// Requests (mounts and writes) that a writer may have without an answer before it has read the peer's hello, and whatever
/// that says.
inline constexpr std::uint32_t leastWindow = 64;
/// What this side's hello states: a peer that has more of them without an answer is none that can be served.
inline constexpr std::uint32_t requestWindow = 1024;

enum class MountMode : std::uint8_t { readOnly, readWrite };
enum class MountState : std::uint8_t { refused, waiting, open, gone };

/// The first frame of each direction. Its version and limits hold until the connection ends.
struct Hello {
   static constexpr ControlKind kind = ControlKind::hello;
   static constexpr char const* title = "hello";
   std::uint32_t magic = helloMagic;
   std::uint16_t major = majorVersion;
   std::uint16_t minor = minorVersion;
   U64 incarnation = 0;                                ///< random per process: tells "again" from "a new one"
   std::uint32_t attempt = 0;                          ///< of one incarnation the higher replaces the lower
   std::uint32_t maximumFrame = frame::defaultMaximum; ///< longest frame taken, in bytes after the length word
   std::uint32_t highestSlot = 0;                      ///< highest slot of an entity identifier
   std::uint32_t window = 0;                           ///< most requests (mounts, writes) without an answer
   std::uint32_t pingInterval = 0;                     ///< milliseconds
   U64 features = 0;
   std::uint8_t digestKind = digestFnv1a;
   std::string_view name; ///< for messages; at most 255 bytes
   static void fields(auto& self, auto& field) {
      field("magic", self.magic);
      field("major", self.major);
      field("minor", self.minor);
      field("incarnation", self.incarnation);
      field("attempt", self.attempt);
      field("maximum frame", self.maximumFrame);
      field("highest slot", self.highestSlot);
      field("window", self.window);
      field("ping interval", self.pingInterval);
      field("features", self.features);
      field("digest kind", self.digestKind);
      field.shortText("name", self.name);
   }
};

/// The first `count` records that this side was sent have met their fate.
struct Acknowledgement {
   static constexpr ControlKind kind = ControlKind::acknowledgement;
   static constexpr char const* title = "acknowledgement";
   U64 count = 0;
   static void fields(auto& self, auto& field) { field("count", self.count); }
};

/// Record `number` (the first is 1) was a write and has not been applied. Number 0: the connection is refused, `text` says why.
struct Refused {
   static constexpr ControlKind kind = ControlKind::refused;
   static constexpr char const* title = "refused";
   U64 number = 0;
   Reason reason = Reason::none;
   std::string_view text; ///< for people
   static void fields(auto& self, auto& field) {
      field("number", self.number);
      field("reason", self.reason);
      field.zero(2);
      field.text("text", self.text);
   }
};

/// Asks for the root of that name. The asking side chooses the handle.
struct Mount {
   static constexpr ControlKind kind = ControlKind::mount;
   static constexpr char const* title = "mount";
   std::uint32_t handle = 0;
   MountMode mode = MountMode::readOnly;
   std::string_view name;
   static void fields(auto& self, auto& field) {
      field("handle", self.handle);
      field("mode", self.mode);
      field.zero(3);
      field.text("name", self.name);
   }
};

struct Unmount {
   static constexpr ControlKind kind = ControlKind::unmount;
   static constexpr char const* title = "unmount";
   std::uint32_t handle = 0;
   static void fields(auto& self, auto& field) { field("handle", self.handle); }
};

/// How a mount stands; sent again whenever that changes.
struct Mounted {
   static constexpr ControlKind kind = ControlKind::mounted;
   static constexpr char const* title = "mounted";
   std::uint32_t handle = 0;
   MountState state = MountState::refused;
   MountMode mode = MountMode::readOnly; ///< what was granted
   Reason reason = Reason::none;
   EntityId entity; ///< the root's identifier; null until the mount is open
   static void fields(auto& self, auto& field) {
      field("handle", self.handle);
      field("state", self.state);
      field("mode", self.mode);
      field("reason", self.reason);
      field("entity", self.entity);
   }
};

/// The sender names this identifier no more; the slot's next use carries another generation.
struct Retire {
   static constexpr ControlKind kind = ControlKind::retire;
   static constexpr char const* title = "retire";
   EntityId entity;
   static void fields(auto& self, auto& field) { field("entity", self.entity); }
};

/// Asks the owner to tell one attribute, or one key of it, again.
struct Refresh {
   static constexpr ControlKind kind = ControlKind::refresh;
   static constexpr char const* title = "refresh";
   EntityId entity;
   std::int32_t attribute = 0;
   std::string_view key; ///< the key's bytes as in a record; empty for the whole attribute
   static void fields(auto& self, auto& field) {
      field("entity", self.entity);
      field("attribute", self.attribute);
      field.text("key", self.key);
   }
};

/// Answered by a `Pong` of the same token. The newest replaces one that has not gone out yet.
struct Ping {
   static constexpr ControlKind kind = ControlKind::ping;
   static constexpr char const* title = "ping";
   U64 token = 0;
   static void fields(auto& self, auto& field) { field("token", self.token); }
};

struct Pong {
   static constexpr ControlKind kind = ControlKind::pong;
   static constexpr char const* title = "pong";
   U64 token = 0;
   static void fields(auto& self, auto& field) { field("token", self.token); }
};

/// The root's values were seen to hold at that time, whether or not any of them changed.
struct ConfirmedAt {
   static constexpr ControlKind kind = ControlKind::confirmedAt;
   static constexpr char const* title = "confirmed at";
   std::uint32_t handle = 0;
   U64 time = 0; ///< nanoseconds since 1970
   static void fields(auto& self, auto& field) {
      field("handle", self.handle);
      field("time", self.time);
   }
};

/// With `count` records applied, all that the sender still owes waits for entities that the reader has to announce.
struct Waiting {
   static constexpr ControlKind kind = ControlKind::waiting;
   static constexpr char const* title = "waiting";
   U64 count = 0;
   static void fields(auto& self, auto& field) { field("count", self.count); }
};

using ControlFrames = std::tuple<Hello, Acknowledgement, Refused, Mount, Unmount, Mounted, Retire, Refresh, Ping, Pong,
                                 ConfirmedAt, Waiting>;

template <class C>
concept ControlFrame = requires {
   { C::kind } -> std::convertible_to<ControlKind>;
   { C::title } -> std::convertible_to<char const*>;
};

/// Calls `f.template operator()<C>()` for the struct of kind `k`. False when no such kind is known.
template <class F> bool withControlKind(ControlKind k, F&& f) {
   return []<class... C>(ControlKind which, F& g, std::tuple<C...>*) {
      return ((which == C::kind && (g.template operator()<C>(), true)) || ...);
   }(k, f, static_cast<ControlFrames*>(nullptr));
}

namespace detail {

/// The integer in whose width a field travels.
template <class T> constexpr auto wireNumber(T const& v) noexcept {
   if constexpr (std::is_same_v<T, EntityId>)
      return v.number();
   else if constexpr (std::is_enum_v<T>)
      return static_cast<std::underlying_type_t<T>>(v);
   else
      return v;
}
template <class T> using WireNumber = decltype(wireNumber(std::declval<T const&>()));

[[noreturn]] void throwTextTooLong(char const* field, std::size_t size, std::size_t limit);

class FieldSizes {
public:
   template <class T> void operator()(char const*, T const&) { size_ += sizeof(WireNumber<T>); }
   void shortText(char const* name, std::string_view v) { text(name, v.size(), 1, 0xff); }
   void text(char const* name, std::string_view v) { text(name, v.size(), 2, 0xffff); }
   void zero(std::size_t n) { size_ += n; }
   std::size_t size() const noexcept { return size_; }

private:
   void text(char const* name, std::size_t size, std::size_t prefix, std::size_t limit) {
      if (size > limit)
         throwTextTooLong(name, size, limit);
      size_ += prefix + size;
   }
   std::size_t size_ = 0;
};

class FieldWriter {
public:
   explicit FieldWriter(std::uint8_t* at) : at_(at) {}
   template <class T> void operator()(char const*, T const& v) {
      auto const n = wireNumber(v);
      storeBigEndian(at_, n);
      at_ += sizeof n;
   }
   void shortText(char const* name, std::string_view v) {
      (*this)(name, static_cast<std::uint8_t>(v.size()));
      at_ = std::copy(v.begin(), v.end(), at_);
   }
   void text(char const* name, std::string_view v) {
      (*this)(name, static_cast<std::uint16_t>(v.size()));
      at_ = std::copy(v.begin(), v.end(), at_);
   }
   void zero(std::size_t n) { at_ = std::fill_n(at_, n, std::uint8_t{0}); }

private:
   std::uint8_t* at_;
};

/// Reads fields as far as the bytes go; `needed()` above the size given says that they did not reach.
class FieldReader {
public:
   explicit FieldReader(std::span<std::uint8_t const> bytes) : bytes_(bytes) {}
   template <class T> void operator()(char const*, T& v) {
      using Number = WireNumber<T>;
      if (std::uint8_t const* const at = take(sizeof(Number))) {
         auto const n = loadBigEndian<Number>(at);
         if constexpr (std::is_same_v<T, EntityId>)
            v = EntityId::ofNumber(n);
         else
            v = static_cast<T>(n);
      }
   }
   void shortText(char const* name, std::string_view& v) { textOf<std::uint8_t>(name, v); }
   void text(char const* name, std::string_view& v) { textOf<std::uint16_t>(name, v); }
   void zero(std::size_t n) { take(n); }
   std::size_t needed() const noexcept { return needed_; }

private:
   template <class Length> void textOf(char const* name, std::string_view& v) {
      Length length = 0;
      (*this)(name, length);
      if (std::uint8_t const* const at = take(length))
         v = {reinterpret_cast<char const*>(at), length};
   }
   std::uint8_t const* take(std::size_t n) {
      std::size_t const start = needed_;
      needed_ += n;
      return needed_ <= bytes_.size() ? bytes_.data() + start : nullptr;
   }
   std::span<std::uint8_t const> bytes_;
   std::size_t needed_ = 0;
};

} // namespace detail

/// Bytes of the whole frame, length word included.
/// \throws RangeException when a text is longer than its length field can say
template <ControlFrame C> std::size_t frameSize(C const& c) {
   detail::FieldSizes sizes;
   C::fields(c, sizes);
   return frame::lengthSize + frame::controlHeadSize + sizes.size();
}

/// Writes the whole frame.
/// \param size what `frameSize(c)` returned, and the room at `at`
template <ControlFrame C> void encode(C const& c, std::uint8_t* at, std::size_t size) noexcept {
   storeBigEndian(at, frame::controlBit | static_cast<std::uint32_t>(size - frame::lengthSize));
   at[frame::lengthSize] = static_cast<std::uint8_t>(C::kind);
   at[frame::lengthSize + 1] = 0;
   detail::FieldWriter writer(at + frame::lengthSize + frame::controlHeadSize);
   C::fields(c, writer);
}

/// Reads the fields of a frame of C's kind.
/// \param bytes what follows the frame's kind and flags
/// \param where stands before the text of what is thrown: stream and offset
/// \throws ProtocolException when the bytes end before the fields do
template <ControlFrame C> C decode(std::span<std::uint8_t const> bytes, std::string_view where = {});

/// An annotated dump of a stream's bytes, one line per field: offset, bytes, field, value. Ends with a line that says
/// why when the bytes break off or break the framing. Record bodies are told apart as far as the frame alone lets it.
/// \param offset the stream's offset of the first byte, for the first column
std::string describe(std::span<std::uint8_t const> bytes, U64 offset = 0);

/// "hello", or "control frame 77" where the kind is unknown.
std::string titleOf(ControlKind k);

namespace detail {
[[noreturn]] void throwControlTooShort(ControlKind k, std::size_t expected, std::size_t actual, std::string_view where);
}

template <ControlFrame C> C decode(std::span<std::uint8_t const> bytes, std::string_view where) {
   C c;
   detail::FieldReader reader(bytes);
   C::fields(c, reader);
   if (reader.needed() > bytes.size())
      detail::throwControlTooShort(C::kind, reader.needed(), bytes.size(), where);
   return c;
}

} // namespace Mox::NboAttrLog
