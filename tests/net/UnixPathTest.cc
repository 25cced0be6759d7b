#include "net/UnixPath.h"
#include "net/SocketException.h"
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

constexpr unsigned nobody = 65534;

template <class Call> std::string messageOf(Call call) {
   return thrownBy<SocketException>(call);
}

/// Runs `action` in a process of its own as another user; what it returns comes back.
template <class Action> std::string asNobody(Action action) {
   int ends[2];
   EXPECT_EQ(::pipe(ends), 0);
   pid_t const child = ::fork();
   if (child == 0) {
      std::string const text =
         ::setgid(nobody) == 0 && ::setuid(nobody) == 0 ? action() : std::string("could not change the user");
      ::_exit(::write(ends[1], text.data(), text.size()) < 0);
   }
   ::close(ends[1]);
   std::string text;
   char buffer[512];
   for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;)
      text.append(buffer, static_cast<std::size_t>(n));
   ::close(ends[0]);
   ::waitpid(child, nullptr, 0);
   return text;
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

   EXPECT_EQ(messageOf([&] { connectedSocket(folder.path() + "/none"); }),
             "socket '" + folder.path() + "/none': expected a listening process, got no such socket");
   EXPECT_EQ(messageOf([&] { BoundSocket s(""); }), "socket '': expected a path of 1 to 107 bytes, got 0");

   std::optional<BoundSocket> first(path);
   int const connection = connectedSocket(path);
   PeerCredentials const self = PeerCredentials::of(connection);
   ::close(connection);
   EXPECT_EQ(self.process, static_cast<unsigned long>(::getpid()));
   EXPECT_EQ(self.user, ::geteuid());
   fs::remove(path); // somebody cleans up too eagerly, and another process takes the name
   std::optional<BoundSocket> second(path);
   first.reset();
   EXPECT_TRUE(fs::exists(path)) << "the name is the second's";
   second.reset();
   EXPECT_FALSE(fs::exists(path));
}

TEST(UnixPath, OtherUsersAreKeptOut) {
   if (::geteuid() != 0)
      GTEST_SKIP() << "only root can become another user";
   PrivateFolder const folder;
   std::string const path = folder.path() + "/s";
   BoundSocket const server(path);
   auto const connectAsNobody = [&] { return asNobody([&] { return messageOf([&] { connectedSocket(path); }); }); };
   std::string const denied = "socket '" + path + "': could not connect: Permission denied";
   EXPECT_EQ(connectAsNobody(), denied) << "the folder is private";
   fs::permissions(folder.path(), fs::perms(0755));
   EXPECT_EQ(connectAsNobody(), denied) << "so is the socket";

   // And root does not take a stranger's process for its server.
   fs::permissions(folder.path(), fs::perms(0777));
   std::string const theirs = folder.path() + "/theirs";
   ASSERT_EQ(::seteuid(nobody), 0);
   BoundSocket const stranger(theirs);
   ASSERT_EQ(::seteuid(0), 0);
   EXPECT_EQ(messageOf([&] { connectedSocket(theirs); }),
             "socket '" + theirs + "': expected a process of user 0 or root, got one of user 65534");
}

} // namespace
