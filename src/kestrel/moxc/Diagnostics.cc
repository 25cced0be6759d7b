// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Diagnostics.h"

#include <algorithm>
#include <numeric>
#include <ostream>
#include <tuple>

namespace moxc {

namespace {

void printLine(std::ostream& out, Position const& at, std::string_view severity, std::string_view text) {
   out << at.file << ':';
   if (at.line != 0)
      out << at.line << ':' << at.column << ':';
   out << ' ' << severity << ": " << text << '\n';
}

std::size_t editDistance(std::string_view a, std::string_view b) {
   std::vector<std::size_t> row(b.size() + 1);
   std::iota(row.begin(), row.end(), std::size_t{0});
   for (std::size_t i = 0; i != a.size(); ++i) {
      std::size_t diagonal = row[0];
      row[0] = i + 1;
      for (std::size_t j = 0; j != b.size(); ++j) {
         std::size_t const substituted = diagonal + (a[i] == b[j] ? 0u : 1u);
         diagonal = row[j + 1];
         row[j + 1] = std::min({row[j] + 1, diagonal + 1, substituted});
      }
   }
   return row.back();
}

std::string_view lastName(std::string_view qualified) {
   auto const colons = qualified.rfind("::");
   return colons == std::string_view::npos ? qualified : qualified.substr(colons + 2);
}

std::string lowered(std::string_view text) {
   std::string result(text);
   for (char& c : result)
      c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
   return result;
}

} // namespace

void Diagnostics::error(Position const& at, std::string text) {
   errors_.push_back({at, std::move(text), {}});
}

void Diagnostics::note(Position const& at, std::string text) {
   errors_.back().notes.push_back({std::move(text), at});
}

void Diagnostics::print(std::ostream& out, std::vector<std::string> const& fileOrder) const {
   auto const rank = [&](Error const& error) {
      auto const file = std::find(fileOrder.begin(), fileOrder.end(), error.at.file);
      return std::tuple(file - fileOrder.begin(), error.at.line, error.at.column);
   };
   std::vector<Error const*> sorted;
   for (Error const& error : errors_)
      sorted.push_back(&error);
   std::stable_sort(sorted.begin(), sorted.end(), [&](Error const* a, Error const* b) { return rank(*a) < rank(*b); });
   for (Error const* error : sorted) {
      printLine(out, error->at, "error", error->text);
      for (auto const& note : error->notes)
         printLine(out, note.at, "note", note.value);
   }
}

std::string inQuotes(std::string_view text) {
   static constexpr char digits[] = "0123456789abcdef";
   std::string result = "\"";
   for (char const c : text) {
      auto const byte = static_cast<unsigned char>(c);
      if (c == '"' || c == '\\') {
         result += '\\';
         result += c;
      } else if (byte < 0x20 || byte == 0x7f) {
         result += "\\x";
         result += digits[byte >> 4];
         result += digits[byte & 15u];
      } else {
         result += c;
      }
   }
   return result + '"';
}

std::string listed(std::vector<std::string_view> const& words) {
   std::string result;
   for (std::size_t i = 0; i != words.size(); ++i) {
      if (i != 0)
         result += i + 1 == words.size() ? " and " : ", ";
      result += inQuotes(words[i]);
   }
   return result;
}

std::string suggestion(std::string_view word, std::vector<std::string_view> const& candidates) {
   std::string_view best;
   std::size_t bestDistance = std::max<std::size_t>(1, (word.size() + 1) / 3) + 1;
   std::string const wanted = lowered(word);
   for (std::string_view const candidate : candidates) {
      // A name without its namespace is the commonest slip, so the last part alone may match as well.
      std::size_t const distance =
         std::min(editDistance(wanted, lowered(candidate)), editDistance(wanted, lowered(lastName(candidate))));
      if (distance < bestDistance) {
         bestDistance = distance;
         best = candidate;
      }
   }
   return best.empty() ? std::string() : "; did you mean " + inQuotes(best) + "?";
}

} // namespace moxc
