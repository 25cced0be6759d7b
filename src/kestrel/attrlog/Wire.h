// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/In.h"
#include "kestrel/attrlog/Out.h"
#include "kestrel/core/String8.h"
#include "kestrel/values/Values.h"

#include <concepts>
#include <type_traits>

namespace Mox::NboAttrLog {

/// How a value travels. `fixedSize` is the width that a record's header states, 0 for a value of variable size; `write` and
/// `read` are each other's inverse. `number` is there where `write` puts one number and nothing else. `read` builds the value with its own check, so that what is out of range throws before
/// anything is stored. Specialise it for value types of your own.
template <class T> struct Wire;

namespace detail {

template <class T> constexpr std::uint32_t fixedSizeOf() {
   // The contract's fixed-size class: integers of 16 to 64 bits, and nothing else.
   return std::integral<T> && !std::same_as<T, bool> && sizeof(T) > 1 ? sizeof(T) : 0;
}

} // namespace detail

template <WireScalar T> struct Wire<T> {
   static constexpr std::uint32_t fixedSize = detail::fixedSizeOf<T>();
   static T number(T v) noexcept { return v; }
   static void write(Out& out, T v) { out.put(v); }
   static T read(In& in) {
      if constexpr (std::same_as<T, bool>)
         return in.nextbool();
      else if constexpr (std::same_as<T, unsigned char>)
         return in.nextU8();
      else if constexpr (std::same_as<T, unsigned short>)
         return in.nextU16();
      else if constexpr (std::same_as<T, unsigned int>)
         return in.nextU32();
      else if constexpr (std::same_as<T, int>)
         return in.nextS32();
      else if constexpr (std::same_as<T, U64>)
         return in.nextU64();
      else if constexpr (std::same_as<T, S64>)
         return in.nextS64();
      else if constexpr (std::same_as<T, float>)
         return in.nextF32();
      else
         return in.nextSeconds();
   }
};

template <std::derived_from<String8> T> struct Wire<T> {
   static constexpr std::uint32_t fixedSize = 0;
   static void write(Out& out, T const& v) { out.put(std::string_view(v)); }
   static T read(In& in) { return T(in.nextStringView()); }
};

/// Bounded and wrapped values travel as their numbers and are checked when they are built again.
template <class T>
concept WrappedNumber = !std::derived_from<T, String8> && !WireScalar<T> && requires(T const& v) {
   { v.number() } -> WireScalar;
   T(v.number());
};

template <WrappedNumber T> struct Wire<T> {
   using Number = std::remove_cvref_t<decltype(std::declval<T const&>().number())>;
   static constexpr std::uint32_t fixedSize = 0;
   static Number number(T const& v) noexcept { return v.number(); }
   static void write(Out& out, T const& v) { out.put(number(v)); }
   static T read(In& in) { return T(Wire<Number>::read(in)); }
};

/// Enumerations travel as `int`. A number that is no enumerator throws `EnumException` at either end: no mirror could hold it.
template <class T>
   requires std::is_enum_v<T>
struct Wire<T> {
   static constexpr std::uint32_t fixedSize = 0;
   static int number(T v) {
      if (!isEnumerator(v)) [[unlikely]]
         throwEnumException(enumTable<T>.type, static_cast<std::uint32_t>(v), enumTable<T>.rows);
      return static_cast<int>(v);
   }
   static void write(Out& out, T v) { out.put(number(v)); }
   static T read(In& in) { return enumInstance<T>(in.nextU32()); }
};

/// A value that travels as one number: its record is written in one step.
template <class T>
concept OneNumber = requires(T const& v) {
   { Wire<T>::number(v) } -> WireScalar;
};

template <> struct Wire<Kiln::ConditionStat> {
   static constexpr std::uint32_t fixedSize = 0;
   static void write(Out& out, Kiln::ConditionStat const& v) {
      out.put(v.condition);
      out.put(static_cast<unsigned int>(v.count));
      out.put(v.time);
   }
   static Kiln::ConditionStat read(In& in) {
      Kiln::ConditionStat v;
      v.condition = in.nextbool();
      v.count = in.nextU32();
      v.time = in.nextSeconds();
      return v;
   }
};

template <> struct Wire<ClariPhyTypes::Calibration> {
   static constexpr std::uint32_t fixedSize = 0;
   static void write(Out& out, ClariPhyTypes::Calibration const& v) {
      for (unsigned int const word : {v.gain, v.offset, v.phase})
         out.put(word);
   }
   static ClariPhyTypes::Calibration read(In& in) {
      ClariPhyTypes::Calibration v;
      for (unsigned int* const word : {&v.gain, &v.offset, &v.phase})
         *word = in.nextU32();
      return v;
   }
};

} // namespace Mox::NboAttrLog

namespace Mox {

/// The writers of the value types: `out << v` for everything that has a `Wire`.
template <class T>
   requires(!NboAttrLog::Writable<T>) &&
           requires(NboAttrLog::Out& out, T const& v) { NboAttrLog::Wire<T>::write(out, v); }
Ptr<NboAttrLog::Out> const& operator<<(Ptr<NboAttrLog::Out> const& out, T const& v) {
   NboAttrLog::Wire<T>::write(*out, v);
   return out;
}

} // namespace Mox
