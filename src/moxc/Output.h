#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

namespace moxc {

/// The files of one run, written together or not at all.
class Output {
public:
   void fileIs(std::filesystem::path path, std::string text) { files_.push_back({std::move(path), std::move(text)}); }

   /// Writes every file to a temporary beside its place, then renames all. A file that already holds the same bytes is
   /// left alone, so that builds stay incremental. After a failure the temporaries are gone and the old files stand.
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
