// SPDX-License-Identifier: Apache-2.0
#include "kestrel/values/Print.h"

#include "kestrel/core/Exceptions.h"
#include "kestrel/values/FloatValue.h"
#include "kestrel/values/Records.h"

#include <charconv>
#include <cmath>
#include <string>

namespace Mox {

namespace {

template <class F> void printFloat(std::ostream& out, F value) {
   if (std::isnan(value)) { // one text, whatever its sign
      out << "nan";
      return;
   }
   char text[64];
   // Equal values have the same text, so a zero is printed without its sign.
   auto const end = std::to_chars(text, text + sizeof text, value == 0 ? F{} : value).ptr;
   out << std::string_view(text, static_cast<std::size_t>(end - text));
}

} // namespace

void print(std::ostream& out, float value) {
   printFloat(out, value);
}

void print(std::ostream& out, double value) {
   printFloat(out, value);
}

std::ostream& operator<<(std::ostream& out, FloatValue v) {
   print(out, v.value);
   return out;
}

void throwEnumException(std::string_view type, std::uint32_t number, std::span<EnumRow const> known) {
   std::string text = std::to_string(number) + " is no ";
   text.append(type).append(": expected ");
   for (std::size_t i = 0; i < known.size(); ++i) {
      if (i != 0)
         text += i + 1 == known.size() ? " or " : ", ";
      text += std::to_string(known[i].number);
   }
   throw EnumException(text);
}

} // namespace Mox

namespace ClariPhyTypes {

std::ostream& operator<<(std::ostream& out, Calibration const& c) {
   return out << '(' << c.gain << ", " << c.offset << ", " << c.phase << ')';
}

} // namespace ClariPhyTypes

namespace Kiln {

std::ostream& operator<<(std::ostream& out, ConditionStat const& c) {
   out << '(';
   Mox::print(out, c.condition);
   out << ", " << c.count << ", ";
   Mox::print(out, c.time);
   return out << ')';
}

} // namespace Kiln
