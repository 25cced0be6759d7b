// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace moxc {

/// Helpers that lay out generated C++: 3-space indent, 120 columns.

inline constexpr std::size_t maximumColumns = 120;

/// `pattern` with each slot `$name$` replaced. An unknown slot is a fault of the emitter and throws std::logic_error.
std::string fill(std::string_view pattern, std::initializer_list<std::pair<std::string_view, std::string_view>> slots);

/// One statement or declaration, broken behind commas where it is too long.
std::string wrapped(std::size_t indent, std::string_view text);

/// `signature { body }` in one line where it fits, else in three. An empty body gives `{}`.
std::string inlineFunction(std::size_t indent, std::string_view signature, std::string_view body);

/// `head : bases {`, broken before the colon where it is too long.
std::string derivedClass(std::size_t indent, std::string_view head, std::string_view bases);

/// The words of `text` in as few lines as they fit in, each behind `margin`.
std::string filled(std::string const& margin, std::string_view text);

/// `///` comment of `text`, filled to the line length.
std::string docComment(std::size_t indent, std::string_view text);

std::string joinedWith(std::string_view separator, std::vector<std::string> const& parts);

} // namespace moxc
