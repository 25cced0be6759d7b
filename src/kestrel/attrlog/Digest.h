// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Identifiers.h"

#include <cstdint>
#include <span>

namespace Mox::NboAttrLog {

/// What a digest says of a value that is not there.
inline constexpr U64 absentDigest = 0;

/// FNV-1a, 64 bits, over a value's bytes as they travel; never `absentDigest`. One of its kind in a hello's
/// `digestKind`.
///
/// It tells apart what was told from what is; it guards against nobody who wants two values to look alike.
constexpr U64 digest(std::span<std::uint8_t const> bytes) noexcept {
   U64 h = 0xcbf29ce484222325ull;
   for (std::uint8_t const b : bytes)
      h = (h ^ b) * 0x100000001b3ull;
   return h == absentDigest ? 1 : h;
}

} // namespace Mox::NboAttrLog
