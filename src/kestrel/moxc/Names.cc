// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Names.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string>
#include <system_error>
#include <utility>

namespace moxc {

namespace {

// Each table is sorted, for the binary search.

constexpr std::array keywords = std::to_array<std::string_view>(
   {"alignas",     "alignof",  "and",        "and_eq",    "asm",       "auto",         "bitand",
    "bitor",       "bool",     "break",      "case",      "catch",     "char",         "char16_t",
    "char32_t",    "char8_t",  "class",      "co_await",  "co_return", "co_yield",     "compl",
    "concept",     "const",    "const_cast", "consteval", "constexpr", "constinit",    "continue",
    "decltype",    "default",  "delete",     "do",        "double",    "dynamic_cast", "else",
    "enum",        "explicit", "export",     "extern",    "false",     "float",        "for",
    "friend",      "goto",     "if",         "inline",    "int",       "long",         "mutable",
    "namespace",   "new",      "noexcept",   "not",       "not_eq",    "nullptr",      "operator",
    "or",          "or_eq",    "private",    "protected", "public",    "register",     "reinterpret_cast",
    "requires",    "return",   "short",      "signed",    "sizeof",    "static",       "static_assert",
    "static_cast", "struct",   "switch",     "template",  "this",      "thread_local", "throw",
    "true",        "try",      "typedef",    "typeid",    "typename",  "union",        "unsigned",
    "using",       "virtual",  "void",       "volatile",  "wchar_t",   "while",        "xor",
    "xor_eq"});

// Macros of the standard headers, of <endian.h>, which they include, and of the GNU dialect. They replace a name in every scope; two
// of <endian.h> may become the same.
constexpr std::array macros = std::to_array<std::string_view>(
   {"alloca",   "assert",  "be16toh", "be32toh", "be64toh", "errno",   "htobe16", "htobe32",
    "htobe64",  "htole16", "htole32", "htole64", "le16toh", "le32toh", "le64toh", "linux",
    "offsetof", "setjmp",  "stderr",  "stdin",   "stdout",  "unix"});

// Members of Mox::Entity and its base. Private ones are among them, because an attribute of that name would hide them
// from code that calls them by name. tests/moxc/NamesTest.cc asks the headers whether one is missing here.
constexpr std::array entityOperations = std::to_array<std::string_view>({"activeFlag",
                                                                         "attributeString",
                                                                         "auditErrors",
                                                                         "changeCount",
                                                                         "countMask",
                                                                         "dyingFlag",
                                                                         "entityKind",
                                                                         "flag",
                                                                         "flagIs",
                                                                         "fullName",
                                                                         "fullNameOf",
                                                                         "fwkKey",
                                                                         "fwkKeyHash",
                                                                         "fwkType",
                                                                         "handleParent",
                                                                         "hasNotificationActiveIs",
                                                                         "idleWeakDel",
                                                                         "idleWeakIs",
                                                                         "kind",
                                                                         "kindMask",
                                                                         "lastReference",
                                                                         "markedForDeletionFlag",
                                                                         "name",
                                                                         "parent",
                                                                         "parentAttr",
                                                                         "parentAttrId",
                                                                         "parentAttrIdIs",
                                                                         "parentIs",
                                                                         "plainReferenceDec",
                                                                         "plainReferenceInc",
                                                                         "reactorDel",
                                                                         "reactorIs",
                                                                         "reactorKind",
                                                                         "referenceDec",
                                                                         "referenceInc",
                                                                         "references",
                                                                         "registeredWhenPausedFlag",
                                                                         "sharedReferenceDec",
                                                                         "sharedReferenceInc",
                                                                         "stateAdapterKind",
                                                                         "touchCount",
                                                                         "uriPath",
                                                                         "zeroReferencesIs"});

constexpr std::array reactorOperations =
   std::to_array<std::string_view>({"onAttribute", "onCollectionNotification", "onNotification",
                                    "onNotificationException", "onParent", "onVersion", "onZeroReferences"});

// Classes that an entity class, its reactors or its adapter have from the framework or from the compiler.
constexpr std::array nestedNames = std::to_array<std::string_view>(
   {"Attr", "GenericIf_", "MoxAttributes", "MoxBase", "MoxDerived", "MoxForwarder", "MoxInterface", "MoxNboAttrLogSa",
    "MoxNboAttrLogSaAdapter_", "MoxNotifier", "MoxParameters", "Notifiee", "NotifieeConst", "_Type"});

constexpr std::array reservedIdentifiers =
   std::to_array<std::pair<long long, std::string_view>>({{0, "no attribute"},
                                                          {5, "the notification when the last reference goes"},
                                                          {130, "the entity's name"},
                                                          {131, "the entity's parent"},
                                                          {135, "the record that opens and closes a resend"},
                                                          {136, "the announcement of an entity without a parent"},
                                                          {144, "a wrapped attribute"},
                                                          {151, "the announcement of a member"},
                                                          {154, "moxHasAttrLogInterface"}});

static_assert(std::is_sorted(keywords.begin(), keywords.end()));
static_assert(std::is_sorted(macros.begin(), macros.end()));
static_assert(std::is_sorted(entityOperations.begin(), entityOperations.end()));
static_assert(std::is_sorted(reactorOperations.begin(), reactorOperations.end()));
static_assert(std::is_sorted(nestedNames.begin(), nestedNames.end()));

constexpr bool isLetter(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

} // namespace

bool isCppKeyword(std::string_view name) {
   return std::binary_search(keywords.begin(), keywords.end(), name);
}

bool isMacro(std::string_view name) {
   return std::binary_search(macros.begin(), macros.end(), name);
}

bool isIdentifier(std::string_view name) {
   if (name.empty() || !(isLetter(name[0]) || name[0] == '_'))
      return false;
   return std::all_of(name.begin(), name.end(),
                      [](char c) { return isLetter(c) || (c >= '0' && c <= '9') || c == '_'; });
}

bool isNumberLiteral(std::string_view text) {
   if (text.starts_with('-'))
      text.remove_prefix(1);
   auto const isDigit = [](char c) { return c >= '0' && c <= '9'; };
   auto const isPart = [&](char c) {
      return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '\'';
   };
   return !text.empty() && isDigit(text.front()) && std::all_of(text.begin(), text.end(), isPart);
}

std::optional<Integer> integerOf(std::string_view literal) {
   Integer integer{literal.starts_with('-'), 0};
   if (integer.isNegative)
      literal.remove_prefix(1);
   std::string digits;
   for (char const c : literal)
      if (c != '\'')
         digits += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
   while (digits.ends_with('u') || digits.ends_with('l'))
      digits.pop_back();
   int base = 10;
   if (digits.size() > 1 && digits.front() == '0') {
      base = digits[1] == 'x' ? 16 : digits[1] == 'b' ? 2 : 8;
      digits.erase(0, base == 8 ? 1 : 2);
   }
   char const* const end = digits.data() + digits.size();
   auto const read = std::from_chars(digits.data(), end, integer.magnitude, base);
   return read.ec == std::errc() && read.ptr == end ? std::optional(integer) : std::nullopt;
}

std::vector<std::string_view> qualifiedParts(std::string_view name) {
   std::vector<std::string_view> parts;
   for (;;) {
      auto const colons = name.find("::");
      std::string_view const part = name.substr(0, colons);
      if (!isIdentifier(part) || isCppKeyword(part))
         return {};
      parts.push_back(part);
      if (colons == std::string_view::npos)
         return parts;
      name.remove_prefix(colons + 2);
   }
}

bool isEntityOperation(std::string_view name) {
   // The prefix is the framework's: its own hooks, and the helper classes that are generated beside an attribute.
   return name.starts_with("mox") || std::binary_search(entityOperations.begin(), entityOperations.end(), name);
}

bool isReactorOperation(std::string_view name) {
   return std::binary_search(reactorOperations.begin(), reactorOperations.end(), name);
}

bool isNestedName(std::string_view name) {
   return std::binary_search(nestedNames.begin(), nestedNames.end(), name);
}

std::optional<std::string_view> reservedIdentifier(long long id) {
   for (auto const& [reserved, use] : reservedIdentifiers)
      if (reserved == id)
         return use;
   return {};
}

} // namespace moxc
