// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace moxc {

/// Whether `name` is a C++ keyword or an alternative spelling of an operator.
bool isCppKeyword(std::string_view name);
/// Whether a header of the standard library, or the GNU dialect, defines a macro of that name.
bool isMacro(std::string_view name);
bool isIdentifier(std::string_view name);
/// Whether `text` is a number of C++ and nothing else, a sign before it allowed.
bool isNumberLiteral(std::string_view text);
struct Integer {
   bool isNegative;
   std::uint64_t magnitude;
};
/// The number that a literal stands for. Nothing for a fraction, and for a number that fits into no integer of 64 bits.
std::optional<Integer> integerOf(std::string_view literal);
/// Splits at `::`; empty when a part is no identifier.
std::vector<std::string_view> qualifiedParts(std::string_view name);

// Names that the generated classes have already. docs/schema.md says them in words.

/// Names that every entity class has from the framework, which an attribute would hide.
bool isEntityOperation(std::string_view name);
/// `on…` functions that every reactor has from the framework.
bool isReactorOperation(std::string_view name);
/// Classes nested in every entity class, its reactors or its adapter.
bool isNestedName(std::string_view name);
/// What the framework uses an identifier for on every entity, or nothing.
std::optional<std::string_view> reservedIdentifier(long long id);

} // namespace moxc
