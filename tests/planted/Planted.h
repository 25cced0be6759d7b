// SPDX-License-Identifier: Apache-2.0
#pragma once

// Stands at the head of every file of the copy in which a fault is planted: which fault this process has, by the variable
// MOX_PLANTED. A fault asks for its name; the programs that a test starts inherit the variable.

extern "C" char* getenv(char const* name) noexcept; // its header has macros that the file may not expect

#pragma GCC diagnostic ignored "-Wtautological-compare" // of a function that is no constexpr one, it is asked in vain

namespace Planted {

inline char const* const chosen = getenv("MOX_PLANTED"); ///< null for none

} // namespace Planted

/// No function of its own, and false where the compiler computes, so that it can stand anywhere.
#define MOX_PLANTED(name)                                                                                              \
   (!__builtin_is_constant_evaluated() && ::Planted::chosen != nullptr &&                                              \
    __builtin_strcmp(::Planted::chosen, name) == 0)
