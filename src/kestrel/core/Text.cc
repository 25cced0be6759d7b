// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/Text.h"

namespace Mox {

namespace {

constexpr char lowerDigits[] = "0123456789abcdef";
constexpr char upperDigits[] = "0123456789ABCDEF";

constexpr bool isPlain(unsigned char c) noexcept {
   return c >= 0x20 && c < 0x7f;
}

constexpr int digitValue(char c) noexcept {
   if (c >= '0' && c <= '9')
      return c - '0';
   if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
   if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
   return -1;
}

} // namespace

std::string quoted(std::string_view text) {
   std::string result;
   result.reserve(text.size() + 2);
   result += '"';
   for (char const c : text) {
      auto const byte = static_cast<unsigned char>(c);
      if (c == '"' || c == '\\') {
         result += '\\';
         result += c;
      } else if (c == '\n') {
         result += "\\n";
      } else if (c == '\r') {
         result += "\\r";
      } else if (c == '\t') {
         result += "\\t";
      } else if (isPlain(byte)) {
         result += c;
      } else {
         result += "\\x";
         result += lowerDigits[byte >> 4];
         result += lowerDigits[byte & 15];
      }
   }
   result += '"';
   return result;
}

std::string percentEncoded(std::string_view text) {
   if (text.empty())
      return "%";
   std::string result;
   result.reserve(text.size());
   for (char const c : text) {
      auto const byte = static_cast<unsigned char>(c);
      if (isPlain(byte) && c != '/' && c != '%') {
         result += c;
      } else {
         result += '%';
         result += upperDigits[byte >> 4];
         result += upperDigits[byte & 15];
      }
   }
   return result;
}

std::optional<std::string> percentDecoded(std::string_view step) {
   if (step == "%")
      return std::string();
   if (step.empty())
      return std::nullopt;
   std::string result;
   result.reserve(step.size());
   for (std::size_t i = 0; i < step.size(); ++i) {
      if (step[i] == '/')
         return std::nullopt;
      if (step[i] != '%') {
         result += step[i];
         continue;
      }
      int const high = i + 2 < step.size() ? digitValue(step[i + 1]) : -1;
      int const low = i + 2 < step.size() ? digitValue(step[i + 2]) : -1;
      if (high < 0 || low < 0)
         return std::nullopt;
      result += static_cast<char>(high << 4 | low);
      i += 2;
   }
   return result;
}

} // namespace Mox
