// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Wire.h"
#include "kestrel/values/Enumeration.h"

#include <ostream>

namespace Skew {

/// With a gap: 2 is none.
enum class Mode : std::int32_t { off = 0, on = 1, both = 3 };
constexpr auto moxEnum(Mode) {
   return Mox::enumeration<Mode>("Skew::Mode", {{Mode::off, "off"}, {Mode::on, "on"}, {Mode::both, "both"}});
}
constexpr Mode ModeInstance(std::uint32_t number) {
   return Mox::enumInstance<Mode>(number);
}
using Mox::EnumText::operator<<;

struct Reading {
   Mode mode = Mode::off;
   std::uint32_t value = 0;
   friend bool operator==(Reading const&, Reading const&) = default;
};
inline std::ostream& operator<<(std::ostream& out, Reading const& r) {
   return out << r.mode << ' ' << r.value;
}

} // namespace Skew

template <> struct Mox::NboAttrLog::Wire<Skew::Reading> {
   static constexpr std::uint32_t fixedSize = 0;
   static void write(Out& out, Skew::Reading const& v) {
      out.put(static_cast<unsigned int>(v.value));
      Wire<Skew::Mode>::write(out, v.mode);
   }
   static Skew::Reading read(In& in) {
      auto const value = in.nextU32();
      return {Wire<Skew::Mode>::read(in), value};
   }
};
