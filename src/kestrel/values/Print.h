// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/values/Enumeration.h"

#include <concepts>
#include <ostream>
#include <string_view>
#include <type_traits>

namespace Mox {

/// The one text of each value, which messages, dumps and tools share: numbers in decimal (bytes too), `true` and `false`,
/// floats with the fewest digits that read back as the same float, enumerators by name, records in parentheses.
void print(std::ostream& out, float value);
void print(std::ostream& out, double value);
inline void print(std::ostream& out, bool value) {
   out << (value ? "true" : "false");
}
template <std::unsigned_integral T> void print(std::ostream& out, T value) {
   out << static_cast<unsigned long long>(value);
}
template <std::signed_integral T> void print(std::ostream& out, T value) {
   out << static_cast<long long>(value);
}
template <class T>
   requires(!std::is_arithmetic_v<T>)
void print(std::ostream& out, T const& value) {
   out << value;
}

} // namespace Mox
