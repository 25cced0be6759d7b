// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Mox {

/// `text` between double quotes, as messages show names. Quotes and backslashes are escaped, and everything but
/// printable ASCII becomes `\n`, `\r`, `\t` or `\xHH`, so that no raw byte of a peer reaches a terminal.
std::string quoted(std::string_view text);

/// `text` as one step of a path: `/`, `%`, control characters and everything beyond ASCII become `%HH`. The empty text
/// becomes "%", so that no step of a path is empty.
std::string percentEncoded(std::string_view text);

/// The text that `step` stands for. Digits of either case, needless escapes, and characters that should have been
/// escaped are accepted. Nothing where `step` is empty, has a `/`, or has a `%` without two digits after it and is not
/// "%" alone.
std::optional<std::string> percentDecoded(std::string_view step);

} // namespace Mox
