// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

namespace moxc {

/// The files of one run, written together or not at all.
class Output {
public:
   /// \throws std::runtime_error  where a file of that name is there already
   void fileIs(std::filesystem::path path, std::string text);

   /// Writes every file to a temporary beside its place, then renames all. A file that already holds the same bytes is
   /// left alone, so that builds stay incremental. After a failure at any point the temporaries are gone and the old
   /// files are unchanged.
   ///
   /// \throws std::runtime_error  names the file and what the system said
   void write() const;

   /// Prints the paths, one a line.
   void list(std::ostream& out) const;

private:
   struct File {
      std::filesystem::path path;
      std::string text;
   };
   std::vector<File> files_;
};

} // namespace moxc
