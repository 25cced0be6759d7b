// SPDX-License-Identifier: Apache-2.0
#include "kestrel/net/UnixPath.h"
#include "kestrel/net/SocketException.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Mox;
namespace fs = std::filesystem;

template <class Call> std::string messageOf(Call call) {
   return thrownBy<SocketException>(call);
}

TEST(UnixPath, SocketIsItsOwnersAndGoesWithIt) {
   PrivateFolder const folder;
   std::string const path = folder.path() + "/s";
   auto const modeOf = [](std::string const& name) {
      struct stat found {};
      return ::stat(name.c_str(), &found) == 0 ? found.st_mode & 0777u : 0u;
   };
   EXPECT_EQ(modeOf(folder.path()), 0700u);
   pid_t const child = ::fork();
   if (child == 0) {
      ::umask(0);
      new BoundSocket(path);
      ::_exit(0); // as a crash would: the name stays and nobody listens
   }
   ::waitpid(child, nullptr, 0);
   EXPECT_EQ(modeOf(path), 0600u);
   EXPECT_EQ(messageOf([&] { connectedSocket(path); }),
             "socket '" + path + "': expected a listening process, got a socket that nobody listens on");

   std::optional<BoundSocket> first(path);
   fs::remove(path); // somebody cleans up too eagerly, and another process takes the name
   std::optional<BoundSocket> second(path);
   first.reset();
   EXPECT_TRUE(fs::exists(path)) << "the name is the second's";
   second.reset();
   EXPECT_FALSE(fs::exists(path));

   std::string const longest = folder.path() + '/' + std::string(106 - folder.path().size(), 'x');
   BoundSocket const fits(longest);
   EXPECT_EQ(messageOf([&] { BoundSocket{longest + 'x'}; }),
             "socket '" + longest + "x': expected a path of 1 to 107 bytes, got 108");
}

TEST(UnixPath, PrivateFolderGoesWithItsOwnerAndThatOfAKilledOneIsClearedAndNoOther) {
   auto folder = std::make_optional<PrivateFolder>();
   std::string const path = folder->path(), abandoned = path + "x";
   fs::copy(path, abandoned,
            fs::copy_options::recursive); // what a killed process leaves: nobody has locked the file in it
   std::string const other = (fs::temp_directory_path() / "kestrel-other").string();
   fs::create_directory(other);
   fs::permissions(other, fs::perms(0700));
   EXPECT_GE(PrivateFolder::clearAbandoned(), 1u);
   EXPECT_FALSE(fs::exists(abandoned));
   EXPECT_TRUE(fs::exists(path));
   EXPECT_TRUE(fs::remove(other));
   fs::create_directories(path + "/below");
   folder.reset();
   EXPECT_FALSE(fs::exists(path));
}

TEST(UnixPath, RootTakesNoStrangersProcessForItsServer) {
   if (::geteuid() != 0)
      GTEST_SKIP() << "only root can become another user";
   PrivateFolder const folder;
   fs::permissions(folder.path(), fs::perms(0777));
   std::string const theirs = folder.path() + "/theirs";
   ASSERT_EQ(::seteuid(65534), 0);
   BoundSocket const stranger(theirs);
   ASSERT_EQ(::seteuid(0), 0);
   EXPECT_EQ(messageOf([&] { connectedSocket(theirs); }),
             "socket '" + theirs + "': expected a process of user 0 or root, got one of user 65534");
}

} // namespace
