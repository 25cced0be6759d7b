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
//    --- src/kestrel/attrlog/LevelFlow.h                     or: FILE @ ANCHOR; then the text is the first one behind ANCHOR
//    cell.lowerBound(flow.bookmark()
//    +++
//    (PLANTED ? cell.upperBound(flow.bookmark() : @@
//
// The text above +++ must be in the file once; white space counts only between two words. The one below takes its place: PLANTED
// asks whether this fault is chosen, and @@ is the text that was there. Where the texts of two faults overlap, one has to be
// inside the other, which has to say @@ for it. The copy keeps what the tree has lost.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// What takes the place of the text from `begin` to `end`.
struct Edit {
   std::size_t begin, end;
   std::string fault{}, newText{};
};

struct File {
   std::string text{};
   std::vector<Edit> edits{};
};

std::string contents(fs::path const& path) {
   std::ifstream in(path, std::ios::binary);
   if (!in)
      throw std::runtime_error("can't read " + path.string());
   return {std::istreambuf_iterator<char>(in), {}};
}

/// Takes what is before `separator`, or everything, off the front of `rest`.
std::string cut(std::string& rest, std::string_view separator) {
   std::size_t const at = rest.find(separator);
   std::string front = rest.substr(0, at);
   rest.erase(0, at == std::string::npos ? at : at + separator.size());
   return front;
}

std::string replaced(std::string text, std::string_view what, std::string_view with) {
   for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
      text.replace(at, what.size(), with);
   return text;
}

/// Where the words and signs of `what` stand in `text`, whatever white space is between them.
std::vector<Edit> placesOf(std::string const& what, std::string const& text) {
   static std::regex const token("(\\w+)|[^\\s\\w]");
   std::string pattern;
   bool isBehindWord = false;
   for (std::sregex_iterator it(what.begin(), what.end(), token), end; it != end; ++it) {
      bool const isWord = (*it)[1].matched;
      pattern += pattern.empty() ? "" : isBehindWord && isWord ? "\\s+" : "\\s*";
      pattern += isWord ? "\\b" + it->str() + "\\b" : "\\" + it->str();
      isBehindWord = isWord;
   }
   if (pattern.empty())
      throw std::runtime_error("no text to look for");
   std::vector<Edit> places;
   std::regex const loosely(pattern);
   for (std::sregex_iterator it(text.begin(), text.end(), loosely), end; it != end; ++it) {
      auto const begin = static_cast<std::size_t>(it->position());
      places.push_back({begin, begin + it->str().size()});
   }
   return places;
}

Edit placeOf(std::string const& what, std::string const& anchor, std::string const& text) {
   std::string const& unique = anchor.empty() ? what : anchor;
   auto places = placesOf(unique, text);
   if (places.size() != 1)
      throw std::runtime_error("stands in " + std::to_string(places.size()) + " places: " + unique);
   if (anchor.empty())
      return places[0];
   std::size_t const from = places[0].begin;
   places = placesOf(what, text);
   auto const found = std::find_if(places.begin(), places.end(), [&](Edit const& e) { return e.begin >= from; });
   if (found == places.end())
      throw std::runtime_error("not behind \"" + anchor + "\": " + what);
   return *found;
}

/// Adds the edits of a fault to its files. \return its line of the list
std::string add(fs::path const& path, fs::path const& tree, std::map<std::string, File>& files) {
   std::string const name = path.stem();
   std::string rest = contents(path), folder;
   cut(rest, "Fault: ");
   std::string const what = cut(rest, "\n");
   cut(rest, "Test: ");
   std::string const test = cut(rest, "\n");
   bool asks = false;
   cut(rest, "\n--- ");
   while (!rest.empty()) {
      std::string block = cut(rest, "\n--- "), anchor = cut(block, "\n");
      std::string const file = cut(anchor, " @ "), oldText = cut(block, "\n+++\n");
      folder = folder.empty() ? fs::path(file).parent_path().string() : folder;
      asks = asks || block.find("PLANTED") != std::string::npos;
      File& edited = files[file];
      if (edited.text.empty())
         edited.text = contents(tree / file);
      Edit edit = placeOf(oldText, anchor, edited.text);
      edit.fault = name;
      edit.newText =
         replaced(block.substr(0, block.find_last_not_of('\n') + 1), "PLANTED", "MOX_PLANTED(\"" + name + "\")");
      edited.edits.push_back(edit);
   }
   if (what.empty() || test.empty() || !asks)
      throw std::runtime_error("needs \"Fault: \", \"Test: \", and PLANTED in a new text");
   return name + '\t' + folder + '\t' + test + '\t' + what;
}

/// The text with its edits: the last first and the inner before the outer, so that only the ends of the outer ones move.
std::string planted(File file) {
   auto& edits = file.edits;
   std::stable_sort(edits.begin(), edits.end(), [](Edit const& a, Edit const& b) {
      return a.begin != b.begin ? a.begin < b.begin : a.end > b.end;
   });
   for (auto edit = edits.rbegin(); edit != edits.rend(); ++edit) {
      std::size_t const size = edit->end - edit->begin;
      std::string const text = replaced(edit->newText, "@@", file.text.substr(edit->begin, size));
      file.text.replace(edit->begin, size, text);
      for (auto outer = edit + 1; outer != edits.rend(); ++outer) {
         if (outer->end <= edit->begin)
            continue;
         if (outer->end < edit->end || outer->newText.find("@@") == std::string::npos)
            throw std::runtime_error(edit->fault + " overlaps " + outer->fault + ", which does not say @@ for it");
         outer->end += text.size() - size;
      }
   }
   return file.text;
}

/// Leaves a file alone that says this already: what is built from it stays.
void write(fs::path const& from, fs::path const& to, std::string const& text) {
   if (fs::exists(to) && contents(to) == text)
      return;
   fs::create_directories(to.parent_path());
   std::ofstream(to, std::ios::binary) << text;
   fs::permissions(to, fs::status(from).permissions());
}

int run(std::vector<std::string> const& arguments) {
   bool const checks = arguments.at(0) == "--check";
   fs::path const tree = arguments.at(checks ? 1 : 0), copy = fs::absolute(arguments.at(1));
   int status = 0;
   std::map<std::string, File> files;
   for (std::size_t i = 2; i < arguments.size(); ++i)
      try {
         std::cout << add(arguments[i], tree, files) << '\n';
      } catch (std::exception const& wrong) {
         std::cerr << arguments[i] << ": " << wrong.what() << '\n';
         status = 1;
      }
   for (auto& [name, file] : files)
      file.text = planted(file);
   if (checks || status != 0)
      return status;
   for (std::string name; std::getline(std::cin, name);) {
      auto const file = files.find(name);
      // By the whole path, so that every reader of a planted file finds it, a test that compiles one included.
      if (file != files.end())
         write(tree / name, copy / name,
               "#include \"" + (copy / "tests/planted/Planted.h").string() + "\"\n" + file->second.text);
      else if (fs::exists(tree / name))
         write(tree / name, copy / name, contents(tree / name));
   }
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
