// SPDX-License-Identifier: Apache-2.0
#include "kestrel/moxc/Output.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <unistd.h>

namespace moxc {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> contents(fs::path const& path) {
   std::error_code ignored;
   std::ifstream in(path, std::ios::binary);
   if (!in || fs::is_directory(path, ignored))
      return {};
   return std::string(std::istreambuf_iterator<char>(in), {});
}

std::runtime_error cannotWrite(fs::path const& path, std::string const& why) {
   return std::runtime_error(path.string() + ": error: cannot write: " + why);
}

/// Files that disappear again unless all of them get their final names.
class Staged {
public:
   Staged() = default;
   Staged(Staged const&) = delete;
   Staged& operator=(Staged const&) = delete;
   ~Staged() {
      std::error_code ignored;
      for (auto file = files_.rbegin(); file != files_.rend(); ++file) {
         fs::remove(file->temporary, ignored);
         if (file->isRenamed)
            file->hadOne ? fs::rename(file->old, file->final, ignored) : void(fs::remove(file->final, ignored));
         fs::remove(file->old, ignored);
      }
   }

   void add(fs::path const& path, std::string const& text) {
      std::error_code failure;
      if (path.has_parent_path())
         fs::create_directories(path.parent_path(), failure);
      if (failure)
         throw std::runtime_error(path.string() + ": error: cannot create the folder: " + failure.message());
      // Found here, before the first file gets its new contents.
      if (fs::is_directory(path, failure))
         throw cannotWrite(path, "a folder is in its place");
      // Two runs may write beside each other.
      std::string const run = std::to_string(::getpid());
      files_.push_back({path.string() + ".new-" + run, path.string() + ".old-" + run, path});
      std::ofstream out(files_.back().temporary, std::ios::binary | std::ios::trunc);
      if (!out || !(out << text) || !out.flush())
         throw cannotWrite(path, std::strerror(errno));
   }

   void rename() {
      for (File& file : files_) {
         std::error_code failure;
         file.hadOne = fs::exists(file.final, failure);
         if (file.hadOne) {
            fs::copy_file(file.final, file.old, failure);
            if (!failure)
               fs::last_write_time(file.old, fs::last_write_time(file.final), failure);
         }
         if (!failure)
            fs::rename(file.temporary, file.final, failure);
         if (failure)
            throw cannotWrite(file.final, failure.message());
         file.isRenamed = true;
      }
      for (File& file : files_)
         file.isRenamed = false;
   }

private:
   struct File {
      fs::path temporary;
      fs::path old; ///< what stood in its place, until all have their names
      fs::path final;
      bool hadOne = false;
      bool isRenamed = false;
   };
   std::vector<File> files_;
};

} // namespace

void Output::fileIs(fs::path path, std::string text) {
   for (File const& file : files_)
      if (file.path == path)
         throw std::runtime_error(path.string() + ": error: two files would have this name");
   files_.push_back({std::move(path), std::move(text)});
}

void Output::write() const {
   Staged staged;
   for (File const& file : files_)
      if (contents(file.path) != file.text)
         staged.add(file.path, file.text);
   staged.rename();
}

void Output::list(std::ostream& out) const {
   for (File const& file : files_)
      out << file.path.generic_string() << '\n';
}

} // namespace moxc
