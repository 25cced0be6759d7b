// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

// Stands at the head of every file of the copy in which a fault is planted: which fault this process has, by the variable
// MOX_PLANTED. A fault asks for its name; the programs that a test starts inherit the variable.

extern "C" char* getenv(char const* name) noexcept; // its header has macros that the file may not expect

#pragma GCC diagnostic ignored "-Wtautological-compare" // of a function that is no constexpr one, it is asked in vain

namespace Planted {

constexpr std::uint64_t number(char const* name) {
   std::uint64_t n = 0xcbf29ce484222325u;
   for (; *name != '\0'; ++name)
      n = (n ^ static_cast<unsigned char>(*name)) * 0x100000001b3u;
   return n;
}
consteval std::uint64_t numberOf(char const* name) {
   return number(name);
}

inline std::uint64_t const chosen = [] {
   char const* const name = getenv("MOX_PLANTED");
   return name == nullptr ? 0 : number(name);
}();

} // namespace Planted

/// No function of its own, and false where the compiler computes, so that it can stand anywhere.
#define MOX_PLANTED(name) (!__builtin_is_constant_evaluated() && ::Planted::chosen == ::Planted::numberOf(name))
