// SPDX-License-Identifier: Apache-2.0
// plant: puts faults into a copy of the tree, all of them beside each other, so that a variable chooses one at run time.
//
//    plant --check TREE FAULT...     whether each is complete and its texts are there, once
//    plant TREE COPY FAULT...        copies the files that standard input names, with all faults in them; writes what differs
//
// Both list the faults on standard output, with tabs between: name, folder, test, what is wrong. A fault is a file NAME.fault:
//
//    Fault: a paused resend goes on behind its bookmark
//    Test: simulation                                        or: FOLDER [REGEX], a folder of tests and what `ctest -R` takes of it
//
//    --- src/attrlog/LevelSaImpl.h                           or: FILE @ ANCHOR; then the text is the first one behind ANCHOR
//    cell.lowerBound(flow.bookmark()
//    +++
//    (PLANTED ? cell.upperBound(flow.bookmark() : @@
//
// The text above +++ must be in the file once; white space counts only between two words. The one below takes its place: PLANTED
// asks whether this fault is chosen, and @@ is the text that was there. Where the texts of two faults overlap, one has to be
// inside the other, which has to say @@ for it.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Edit {
   std::string fault, file, anchor, oldText, newText;
   std::size_t begin = 0, end = 0;
};

struct Fault {
   std::string name, what, test;
   std::vector<Edit> edits;
};

struct Wrong : std::runtime_error {
   using std::runtime_error::runtime_error;
};

std::string contents(fs::path const& path) {
   std::ifstream in(path, std::ios::binary);
   std::ostringstream out;
   out << in.rdbuf();
   if (!in)
      throw Wrong("can't read " + path.string());
   return std::move(out).str();
}

bool isSpace(char c) {
   return std::isspace(static_cast<unsigned char>(c)) != 0;
}
bool isWord(char c) {
   return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

std::string trimmed(std::string_view text) {
   while (!text.empty() && isSpace(text.front()))
      text.remove_prefix(1);
   while (!text.empty() && isSpace(text.back()))
      text.remove_suffix(1);
   return std::string(text);
}

std::string replaced(std::string text, std::string_view what, std::string_view with) {
   for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
      text.replace(at, what.size(), with);
   return text;
}

/// A text without the white space that does not part two words, and where each of its characters came from.
struct Tokens {
   explicit Tokens(std::string_view from) {
      for (std::size_t i = 0; i < from.size(); ++i) {
         if (!isSpace(from[i])) {
            add(from[i], i);
            continue;
         }
         std::size_t const begin = i;
         while (i + 1 < from.size() && isSpace(from[i + 1]))
            ++i;
         if (begin > 0 && i + 1 < from.size() && isWord(from[begin - 1]) && isWord(from[i + 1]))
            add(' ', begin);
      }
   }
   void add(char c, std::size_t i) {
      text += c;
      at.push_back(i);
   }
   /// Where `what` stands from `from` on, as whole words; npos for nowhere.
   std::size_t find(std::string const& what, std::size_t from) const {
      for (; (from = text.find(what, from)) != std::string::npos; ++from) {
         std::size_t const end = from + what.size();
         if (!(from > 0 && isWord(text[from - 1]) && isWord(what.front())) &&
             !(end < text.size() && isWord(text[end]) && isWord(what.back())))
            return from;
      }
      return from;
   }

   std::string text;
   std::vector<std::size_t> at;
};

std::size_t foundOnce(Tokens const& tokens, std::string const& what, Edit const& edit) {
   std::size_t const at = tokens.find(what, 0);
   if (at == std::string::npos)
      throw Wrong(edit.fault + ": not in " + edit.file + ": " + what);
   if (tokens.find(what, at + 1) != std::string::npos)
      throw Wrong(edit.fault + ": more than once in " + edit.file + ": " + what);
   return at;
}

void locate(Tokens const& tokens, Edit& edit) {
   std::string const what = Tokens(edit.oldText).text;
   std::size_t at = 0;
   if (edit.anchor.empty()) {
      at = foundOnce(tokens, what, edit);
   } else {
      at = tokens.find(what, foundOnce(tokens, Tokens(edit.anchor).text, edit));
      if (at == std::string::npos)
         throw Wrong(edit.fault + ": not behind \"" + edit.anchor + "\" in " + edit.file + ": " + what);
   }
   edit.begin = tokens.at[at];
   edit.end = tokens.at[at + what.size() - 1] + 1;
}

Fault readFault(fs::path const& path) {
   Fault fault{path.stem(), {}, {}, {}};
   bool isNew = false;
   std::istringstream in(contents(path));
   for (std::string line; std::getline(in, line);) {
      if (line.starts_with("--- ")) {
         std::size_t const at = line.find(" @ ");
         fault.edits.push_back({fault.name,
                                trimmed(line.substr(4, at == std::string::npos ? at : at - 4)),
                                at == std::string::npos ? "" : trimmed(line.substr(at + 3)),
                                {},
                                {}});
         isNew = false;
      } else if (!fault.edits.empty()) {
         if (line == "+++")
            isNew = true;
         else
            (isNew ? fault.edits.back().newText : fault.edits.back().oldText) += line + '\n';
      } else if (line.starts_with("Fault: ")) {
         fault.what = line.substr(7);
      } else if (line.starts_with("Test: ")) {
         fault.test = line.substr(6);
      } else if (!line.empty()) {
         throw Wrong(fault.name + ": what is this line? " + line);
      }
   }
   bool asks = false;
   for (Edit& edit : fault.edits) {
      edit.oldText = trimmed(edit.oldText);
      edit.newText = trimmed(edit.newText);
      asks = asks || edit.newText.find("PLANTED") != std::string::npos;
      if (edit.oldText.empty())
         throw Wrong(fault.name + ": no text to look for in " + edit.file);
      edit.newText = replaced(edit.newText, "PLANTED", "MOX_PLANTED(\"" + fault.name + "\")");
   }
   if (fault.what.empty() || fault.test.empty() || !asks)
      throw Wrong(fault.name + ": needs \"Fault: \", \"Test: \", and PLANTED in a new text");
   return fault;
}

/// The text from `begin` to `end` with the edits in it, which are in order, the outer before the inner.
std::string planted(std::string const& text, std::size_t begin, std::size_t end, Edit const* first, Edit const* last) {
   std::string result;
   while (first != last) {
      Edit const& edit = *first++;
      Edit const* inner = first;
      while (first != last && first->begin < edit.end) {
         if (first->end > edit.end)
            throw Wrong(first->fault + " and " + edit.fault + " overlap in " + edit.file);
         ++first;
      }
      if (inner != first && edit.newText.find("@@") == std::string::npos)
         throw Wrong(inner->fault + " is inside " + edit.fault + ", which does not say @@ for it");
      result.append(text, begin, edit.begin - begin);
      result += replaced(edit.newText, "@@", planted(text, edit.begin, edit.end, inner, first));
      begin = edit.end;
   }
   return result.append(text, begin, end - begin);
}

void write(fs::path const& from, fs::path const& to, std::string const& text) {
   if (fs::exists(to) && contents(to) == text)
      return;
   fs::create_directories(to.parent_path());
   std::ofstream(to, std::ios::binary | std::ios::trunc) << text;
   fs::permissions(to, fs::status(from).permissions());
}

int run(std::vector<std::string> const& arguments) {
   if (arguments.size() < 2)
      throw Wrong("usage: plant --check TREE FAULT..., or plant TREE COPY FAULT...");
   bool const checks = arguments[0] == "--check";
   fs::path const tree = arguments[checks ? 1 : 0];
   int bad = 0;
   auto const tells = [&](Wrong const& wrong) {
      std::cerr << wrong.what() << '\n';
      ++bad;
   };

   std::map<std::string, std::vector<Edit>> files;
   std::map<std::string, Tokens> tokens;
   for (std::size_t i = 2; i < arguments.size(); ++i)
      try {
         Fault fault = readFault(arguments[i]);
         for (Edit& edit : fault.edits) {
            auto found = tokens.find(edit.file);
            if (found == tokens.end())
               found = tokens.emplace(edit.file, Tokens(contents(tree / edit.file))).first;
            locate(found->second, edit);
            files[edit.file].push_back(edit);
         }
         std::cout << fault.name << '\t' << fs::path(fault.edits.front().file).parent_path().string() << '\t'
                   << fault.test << '\t' << fault.what << '\n';
      } catch (Wrong const& wrong) {
         tells(wrong);
      }
   std::map<std::string, std::string> texts;
   for (auto& [file, edits] : files)
      try {
         std::stable_sort(edits.begin(), edits.end(), [](Edit const& a, Edit const& b) {
            return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
         });
         std::string const text = contents(tree / file);
         texts[file] = planted(text, 0, text.size(), edits.data(), edits.data() + edits.size());
      } catch (Wrong const& wrong) {
         tells(wrong);
      }
   if (checks || bad != 0)
      return bad == 0 ? 0 : 1;

   fs::path const copy = arguments[1];
   std::map<fs::path, bool> wanted;
   for (std::string file; std::getline(std::cin, file);) {
      if (!fs::exists(tree / file))
         continue;
      auto const found = texts.find(file);
      // By the whole path, so that every reader of a planted file finds it, a test that compiles one included.
      write(tree / file, copy / file,
            found == texts.end()
               ? contents(tree / file)
               : "#include \"" + fs::absolute(copy / "tests/planted/Planted.h").string() + "\"\n" + found->second);
      wanted[file] = true;
   }
   std::vector<fs::path> old;
   for (auto const& entry : fs::recursive_directory_iterator(copy))
      if (entry.is_regular_file() && !wanted.contains(fs::relative(entry.path(), copy)))
         old.push_back(entry.path());
   for (fs::path const& path : old)
      fs::remove(path);
   return 0;
}

} // namespace

int main(int argc, char** argv) {
   try {
      return run({argv + 1, argv + argc});
   } catch (std::exception const& e) {
      std::cerr << "plant: " << e.what() << '\n';
      return 2;
   }
}
