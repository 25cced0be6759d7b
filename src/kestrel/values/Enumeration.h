// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Mox {

struct EnumRow {
   std::int32_t number;
   std::string_view name;
};

/// Qualified name and enumerators of one enumeration.
template <std::size_t count> struct EnumTable {
   std::string_view type;
   std::array<EnumRow, count> rows;
};

template <class E, std::size_t count>
constexpr EnumTable<count> enumeration(std::string_view type,
                                       std::pair<E, std::string_view> const (&enumerators)[count]) {
   EnumTable<count> table{type, {}};
   for (std::size_t i = 0; i < count; ++i)
      table.rows[i] = {static_cast<std::int32_t>(enumerators[i].first), enumerators[i].second};
   return table;
}

/// An enumeration that the library knows by its enumerators. It is declared by a function `moxEnum`, which
/// argument-dependent look-up finds. A function like `FanInstance` is a convenience for callers; the library and its
/// log call `enumInstance`:
///
///     enum class Fan : std::int32_t { off = 0, on = 1 };
///     constexpr auto moxEnum(Fan) { return Mox::enumeration<Fan>("Rack::Fan", {{Fan::off, "off"}, {Fan::on, "on"}}); }
///     constexpr Fan FanInstance(std::uint32_t number) { return Mox::enumInstance<Fan>(number); }
///     using Mox::EnumText::operator<<;
template <class E>
concept Enumeration = std::is_enum_v<E> && requires { moxEnum(E{}); };

template <Enumeration E> inline constexpr auto enumTable = moxEnum(E{});

/// \throws EnumException naming the type, the number and the numbers known
[[noreturn]] void throwEnumException(std::string_view type, std::uint32_t number, std::span<EnumRow const> known);

/// The enumerator of that number. \throws EnumException when there is none
template <Enumeration E> constexpr E enumInstance(std::uint32_t number) {
   for (EnumRow const& row : enumTable<E>.rows)
      if (row.number == static_cast<std::int32_t>(number))
         return static_cast<E>(row.number);
   throwEnumException(enumTable<E>.type, number, enumTable<E>.rows);
}

namespace detail {

/// How many enumerators there are where their numbers are 0, 1, 2 and so on; else 0.
template <Enumeration E> constexpr std::uint64_t denseCount() noexcept {
   auto const& rows = enumTable<E>.rows;
   for (std::size_t number = 0; number < rows.size(); ++number) {
      bool isThere = false;
      for (EnumRow const& row : rows)
         isThere = isThere || row.number == static_cast<std::int64_t>(number);
      if (!isThere)
         return 0;
   }
   return rows.size();
}

} // namespace detail

/// Whether `e` is an enumerator. It need not be: a cast gives it any number. One comparison where the numbers are 0, 1,
/// 2 and so on.
template <Enumeration E> constexpr bool isEnumerator(E e) noexcept {
   if constexpr (constexpr std::uint64_t count = detail::denseCount<E>(); count != 0) {
      return static_cast<std::uint64_t>(e) < count; // without its sign, a negative number is larger than any count
   } else {
      using Number = std::underlying_type_t<E>;
      for (EnumRow const& row : enumTable<E>.rows)
         if (static_cast<Number>(row.number) == static_cast<Number>(e))
            return true;
      return false;
   }
}

/// The enumerator's name; empty for a value that is no enumerator.
template <Enumeration E> constexpr std::string_view enumName(E e) noexcept {
   for (EnumRow const& row : enumTable<E>.rows)
      if (row.number == static_cast<std::int32_t>(e))
         return row.name;
   return {};
}

template <Enumeration E> constexpr std::optional<E> enumOfName(std::string_view name) noexcept {
   for (EnumRow const& row : enumTable<E>.rows)
      if (row.name == name)
         return static_cast<E>(row.number);
   return std::nullopt;
}

/// A namespace of its own, so that namespaces of enumerations can import the operator alone.
namespace EnumText {

/// Prints the enumerator's name, or the number of a value that is no enumerator.
template <Enumeration E> std::ostream& operator<<(std::ostream& out, E e) {
   std::string_view const name = enumName(e);
   return name.empty() ? out << static_cast<std::int32_t>(e) : out << name;
}

} // namespace EnumText

} // namespace Mox
