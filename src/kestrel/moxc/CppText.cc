// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/CppText.h"

#include <algorithm>
#include <stdexcept>

namespace moxc {

std::string fill(std::string_view pattern, std::initializer_list<std::pair<std::string_view, std::string_view>> slots) {
   std::string result;
   while (!pattern.empty()) {
      auto const open = pattern.find('$');
      result += pattern.substr(0, open);
      if (open == std::string_view::npos)
         break;
      auto const close = pattern.find('$', open + 1);
      std::string_view const name = pattern.substr(open + 1, close - open - 1);
      auto const slot = std::find_if(slots.begin(), slots.end(), [&](auto const& s) { return s.first == name; });
      if (slot == slots.end())
         throw std::logic_error("no slot " + std::string(name));
      result += slot->second;
      pattern.remove_prefix(close + 1);
   }
   return result;
}

std::string wrapped(std::size_t indent, std::string_view text) {
   static constexpr std::size_t deepest = 59; // an alignment further right leaves too little room
   std::string line = std::string(indent, ' ') + std::string(text);
   std::string result;
   // Columns behind the brackets that are open where the line begins.
   std::vector<std::size_t> open;
   while (line.size() > maximumColumns) {
      // The last comma that fits; what follows aligns behind the innermost bracket that is open there.
      std::size_t best = std::string::npos;
      std::vector<std::size_t> bestOpen;
      for (std::size_t i = line.find_first_not_of(' '); i < maximumColumns; ++i) {
         char const c = line[i];
         if (c == '(' || c == '<') {
            open.push_back(i + 1);
         } else if ((c == ')' || (c == '>' && line[i - 1] != '-')) && !open.empty()) {
            open.pop_back();
         } else if (c == ',' && line[i + 1] == ' ' && !open.empty()) {
            best = i + 1;
            bestOpen = open;
         }
      }
      if (best == std::string::npos || bestOpen.back() > deepest) {
         // No comma fits: break behind the bracket of the parameters.
         best = line.find('(') + 1;
         bestOpen = {indent + 3};
         if (best == 0 || best <= bestOpen.back())
            break;
      }
      result += line.substr(0, best) + '\n';
      open = std::move(bestOpen);
      line = std::string(open.back(), ' ') + line.substr(line.find_first_not_of(' ', best));
   }
   return result + line + '\n';
}

std::string inlineFunction(std::size_t indent, std::string_view signature, std::string_view body) {
   std::string const margin(indent, ' ');
   if (body.empty())
      return wrapped(indent, std::string(signature) + " {}");
   std::string line = margin + std::string(signature) + " { " + std::string(body) + " }\n";
   if (line.size() <= maximumColumns + 1)
      return line;
   return wrapped(indent, std::string(signature) + " {") + wrapped(indent + 3, body) + margin + "}\n";
}

std::string derivedClass(std::size_t indent, std::string_view head, std::string_view bases) {
   std::string const line = std::string(head) + " : " + std::string(bases) + " {";
   if (indent + line.size() <= maximumColumns)
      return std::string(indent, ' ') + line + '\n';
   return std::string(indent, ' ') + std::string(head) + '\n' + wrapped(indent + 3, ": " + std::string(bases) + " {");
}

std::string filled(std::string const& margin, std::string_view text) {
   std::string result;
   std::string line = margin;
   while (!text.empty()) {
      if (text[0] == ' ' || text[0] == '\n') {
         text.remove_prefix(1);
         continue;
      }
      auto const word = text.substr(0, text.find_first_of(" \n"));
      if (line.size() + 1 + word.size() > maximumColumns && line != margin) {
         result += line + '\n';
         line = margin;
      }
      if (line != margin)
         line += ' ';
      line += word;
      text.remove_prefix(word.size());
   }
   return result + line + '\n';
}

std::string docComment(std::size_t indent, std::string_view text) {
   return filled(std::string(indent, ' ') + "/// ", text);
}

std::string joinedWith(std::string_view separator, std::vector<std::string> const& parts) {
   std::string result;
   for (std::size_t i = 0; i != parts.size(); ++i) {
      if (i != 0)
         result += separator;
      result += parts[i];
   }
   return result;
}

} // namespace moxc
