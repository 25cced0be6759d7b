// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Mox {

/// `text` between double quotes, as messages show names: quotes and backslashes escaped, everything that is no printable
/// ASCII as `\n`, `\r`, `\t` or `\xHH`. No byte of a peer reaches a terminal as it is.
std::string quoted(std::string_view text);

/// `text` as one step of a path: `/`, `%`, control characters and everything beyond ASCII become `%HH`. The empty text
/// becomes "%", so that no step of a path is empty.
std::string percentEncoded(std::string_view text);

/// The text that `step` stands for. Digits of either case, escapes that need not be and characters that should be escaped are taken;
/// nothing where `step` is empty, has a `/`, or has a `%` without two digits behind it and is not "%" alone.
std::optional<std::string> percentDecoded(std::string_view step);

} // namespace Mox
