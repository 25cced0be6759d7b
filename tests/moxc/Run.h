// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/wait.h>

inline std::string contents(std::filesystem::path const& path) {
   std::ifstream in(path, std::ios::binary);
   return {std::istreambuf_iterator<char>(in), {}};
}

/// A folder for a test, and commands that run in it.
class Moxc : public testing::Test {
protected:
   void SetUp() override {
      std::string name = (std::filesystem::temp_directory_path() / "moxc-test-XXXXXX").string();
      ASSERT_NE(::mkdtemp(name.data()), nullptr);
      folder_ = name;
   }
   void TearDown() override { std::filesystem::remove_all(folder_); }

   struct Result {
      int status;
      std::string errors;
   };
   /// Standard output goes to folder_/stdout.
   Result shell(std::filesystem::path const& where, std::string const& line) const {
      std::filesystem::path const errors = folder_ / "stderr";
      std::string const command = "cd '" + where.string() + "' && " + line + " >'" + (folder_ / "stdout").string() +
                                  "' 2>'" + errors.string() + "'";
      int const status = std::system(command.c_str());
      return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(errors)};
   }
   Result run(std::filesystem::path const& where, std::string const& arguments) const {
      return shell(where, "'" MOXC "' " + arguments);
   }
   std::string out() const { return "--out '" + (folder_ / "out").string() + "' "; }

   std::filesystem::path folder_;
};
