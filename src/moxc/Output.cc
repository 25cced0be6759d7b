#include "moxc/Output.h"

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

/// Files that disappear again unless they get their final names.
class Staged {
public:
   Staged() = default;
   Staged(Staged const&) = delete;
   Staged& operator=(Staged const&) = delete;
   ~Staged() {
      std::error_code ignored;
      for (auto const& [temporary, final] : files_)
         fs::remove(temporary, ignored);
   }

   void add(fs::path const& path, std::string const& text) {
      std::error_code failure;
      if (path.has_parent_path())
         fs::create_directories(path.parent_path(), failure);
      if (failure)
         throw std::runtime_error(path.string() + ": error: cannot create the folder: " + failure.message());
      // Found here, before the first file gets its new contents.
      if (fs::is_directory(path, failure))
         throw std::runtime_error(path.string() + ": error: cannot write: a folder is in its place");
      // Two runs may write beside each other.
      fs::path const temporary = path.string() + ".new-" + std::to_string(::getpid());
      files_.emplace_back(temporary, path);
      std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
      if (!out || !(out << text) || !out.flush())
         throw std::runtime_error(path.string() + ": error: cannot write: " + std::strerror(errno));
   }

   void rename() {
      for (auto const& [temporary, final] : files_) {
         std::error_code failure;
         fs::rename(temporary, final, failure);
         if (failure)
            throw std::runtime_error(final.string() + ": error: cannot write: " + failure.message());
      }
      files_.clear();
   }

private:
   std::vector<std::pair<fs::path, fs::path>> files_;
};

} // namespace

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
