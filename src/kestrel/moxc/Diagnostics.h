// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace moxc {

/// A place in a schema. Lines and columns count from 1; line 0 means the file as a whole.
struct Position {
   std::string_view file; ///< as given on the command line; owned by the file list of the run
   unsigned line = 0;
   unsigned column = 0;
};

/// A thing as written, with the place where it was written.
template <class T> struct Located {
   T value{};
   Position at{};
};

/// Everything that is wrong with the schemas of one run, gathered so that one run reports many faults.
class Diagnostics {
public:
   void error(Position const& at, std::string text);
   /// A second place that belongs to the latest error, such as the earlier of two definitions.
   void note(Position const& at, std::string text);
   std::size_t errorCount() const noexcept { return errors_.size(); }
   /// Prints in the order of the files and, within a file, of the lines.
   void print(std::ostream& out, std::vector<std::string> const& fileOrder) const;

private:
   struct Error {
      Position at;
      std::string text;
      std::vector<Located<std::string>> notes;
   };
   std::vector<Error> errors_;
};

/// `text` in double quotes, with control characters escaped.
std::string inQuotes(std::string_view text);

/// "a", "b" and "c"
std::string listed(std::vector<std::string_view> const& words);

/// A tail `; did you mean "x"?` for the candidate nearest to a misspelt `word`, or nothing when none is near.
std::string suggestion(std::string_view word, std::vector<std::string_view> const& candidates);

} // namespace moxc
