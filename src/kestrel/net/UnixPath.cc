// SPDX-License-Identifier: Apache-2.0
#include "kestrel/net/UnixPath.h"

#include "kestrel/net/SocketException.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Mox {

namespace {

[[noreturn]] void fail(std::string const& path, std::string const& what) {
   throw SocketException("socket '" + path + "': " + what);
}

std::string errorText(int error) {
   return std::generic_category().message(error);
}

class Descriptor {
public:
   explicit Descriptor(int fd) noexcept : fd_(fd) {}
   ~Descriptor() {
      if (fd_ >= 0)
         ::close(fd_);
   }
   Descriptor(Descriptor const&) = delete;
   Descriptor& operator=(Descriptor const&) = delete;
   int get() const noexcept { return fd_; }
   int release() noexcept { return std::exchange(fd_, -1); }

private:
   int fd_;
};

sockaddr_un addressOf(std::string const& path) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   constexpr std::size_t longest = sizeof address.sun_path - 1;
   if (path.empty() || path.size() > longest)
      fail(path, "expected a path of 1 to " + std::to_string(longest) + " bytes, got " + std::to_string(path.size()));
   if (path.find('\0') != std::string::npos)
      fail(path, "expected a path without zero bytes");
   std::memcpy(address.sun_path, path.data(), path.size());
   return address;
}

Descriptor newSocket(std::string const& path) {
   int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0)
      fail(path, "could not create a socket: " + errorText(errno));
   return Descriptor(fd);
}

/// 0 or the error number.
int connectTo(int fd, sockaddr_un const& address) {
   int result;
   do
      result = ::connect(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address);
   while (result != 0 && errno == EINTR);
   return result == 0 ? 0 : errno;
}

std::string folderOf(std::string const& path) {
   std::string const folder = std::filesystem::path(path).parent_path().string();
   return folder.empty() ? "." : folder;
}

/// Removes the name if it belongs to a socket that nobody listens on.
void removeStale(std::string const& path, sockaddr_un const& address) {
   struct stat found {};
   if (::lstat(path.c_str(), &found) != 0) {
      if (errno == ENOENT)
         return;
      fail(path, "could not look at it: " + errorText(errno));
   }
   if (S_ISDIR(found.st_mode))
      fail(path, "expected a free name or an old socket, got a folder");
   if (!S_ISSOCK(found.st_mode))
      fail(path, "expected a free name or an old socket, got a file");
   Descriptor const probe = newSocket(path);
   // Connecting to a live server whose queue is full would block.
   ::fcntl(probe.get(), F_SETFL, O_NONBLOCK);
   int const error = connectTo(probe.get(), address);
   if (error == 0 || error == EAGAIN || error == EINPROGRESS)
      fail(path, "expected a free name or an old socket, got one that a live process listens on");
   if (error == EACCES || error == EPERM)
      fail(path, "expected a free name or an old socket, got one of another user");
   if (error != ECONNREFUSED)
      fail(path, "could not tell whether it is in use: " + errorText(error));
   if (::unlink(path.c_str()) != 0 && errno != ENOENT)
      fail(path, "could not remove the old socket: " + errorText(errno));
}

} // namespace

namespace {

constexpr char const* folderPrefix = "kestrel-";
constexpr char const* lockName = "/.alive";

} // namespace

PrivateFolder::PrivateFolder() {
   std::error_code error;
   std::string const pattern = (std::filesystem::temp_directory_path(error) / folderPrefix).string() + "XXXXXX";
   if (error)
      throw SocketException("expected a folder for temporary files, in TMPDIR or /tmp, got: " + error.message());
   // Another process that clears up abandoned folders may get the lock first and remove this folder. Then a new one is
   // made.
   for (struct stat made{}; made.st_nlink == 0;) {
      path_ = pattern;
      if (::mkdtemp(path_.data()) == nullptr)
         throw SocketException("could not create a private folder '" + path_ + "': " + errorText(errno));
      Descriptor file(::open((path_ + lockName).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
      if (file.get() < 0 || ::flock(file.get(), LOCK_EX) != 0 || ::fstat(file.get(), &made) != 0)
         throw SocketException("could not lock the private folder '" + path_ + "': " + errorText(errno));
      if (made.st_nlink != 0)
         lock_ = file.release();
   }
}

PrivateFolder::~PrivateFolder() {
   std::error_code ignored;
   std::filesystem::remove_all(path_, ignored);
   ::close(lock_);
}

std::size_t PrivateFolder::clearAbandoned() noexcept {
   std::size_t count = 0;
   try {
      for (auto const& entry : std::filesystem::directory_iterator(std::filesystem::temp_directory_path())) {
         std::string const path = entry.path().string();
         struct stat found {};
         if (!entry.path().filename().string().starts_with(folderPrefix) || ::lstat(path.c_str(), &found) != 0 ||
             !S_ISDIR(found.st_mode) || found.st_uid != ::geteuid() || (found.st_mode & 0777) != 0700)
            continue;
         Descriptor const file(::open((path + lockName).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
         if (file.get() < 0 || ::flock(file.get(), LOCK_EX | LOCK_NB) != 0)
            continue; // none of ours, or one whose process lives
         std::error_code ignored;
         std::filesystem::remove_all(path, ignored);
         ++count;
      }
   } catch (std::exception const&) {
      // A folder that can't be read or removed is no reason to fail: the next call finds it again.
   }
   return count;
}

BoundSocket::BoundSocket(std::string path) : path_(std::move(path)) {
   sockaddr_un const address = addressOf(path_);
   std::string const folder = folderOf(path_);
   Descriptor const lock(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
   if (lock.get() < 0)
      fail(path_, "expected a folder, '" + folder + "', got: " + errorText(errno));
   while (::flock(lock.get(), LOCK_EX) != 0)
      if (errno != EINTR)
         fail(path_, "its folder '" + folder + "' can't be locked: " + errorText(errno));
   removeStale(path_, address);

   Descriptor socket = newSocket(path_);
   // The name takes the mode of the socket, so that there is no moment in which others could connect, and the process's
   // umask stays as it is.
   if (::fchmod(socket.get(), S_IRUSR | S_IWUSR) != 0)
      fail(path_, "could not make it private: " + errorText(errno));
   if (::bind(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
      fail(path_, "expected to create it in '" + folder + "', got: " + errorText(errno));
   struct stat made {};
   if (::lstat(path_.c_str(), &made) == 0) {
      device_ = made.st_dev;
      inode_ = made.st_ino;
   }
   if (::listen(socket.get(), SOMAXCONN) != 0) {
      int const error = errno;
      ::unlink(path_.c_str());
      fail(path_, "could not listen: " + errorText(error));
   }
   descriptor_ = socket.release();
}

BoundSocket::~BoundSocket() {
   // The name goes while the socket still listens: nobody can have replaced it as stale, and its inode number is not
   // given to another file.
   struct stat found {};
   if (::lstat(path_.c_str(), &found) == 0 && found.st_dev == device_ && found.st_ino == inode_)
      ::unlink(path_.c_str());
   ::close(descriptor_);
}

int BoundSocket::duplicate() const {
   int const copy = ::fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
   if (copy < 0)
      fail(path_, "its descriptor can't be copied: " + errorText(errno));
   return copy;
}

int connectedSocket(std::string const& path) {
   sockaddr_un const address = addressOf(path);
   Descriptor socket = newSocket(path);
   if (int const error = connectTo(socket.get(), address); error != 0)
      fail(path, error == ENOENT         ? "expected a listening process, got no such socket"
                 : error == ECONNREFUSED ? "expected a listening process, got a socket that nobody listens on"
                                         : "could not connect: " + errorText(error));
   PeerCredentials const peer = PeerCredentials::of(socket.get());
   if (!peer.mayConnect())
      fail(path, "expected a process of user " + std::to_string(::geteuid()) + " or root, got one of user " +
                    std::to_string(peer.user));
   return socket.release();
}

PeerCredentials PeerCredentials::of(int descriptor) {
   ucred credentials{};
   socklen_t length = sizeof credentials;
   if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
      throw SocketException("the peer's credentials can't be read: " + errorText(errno));
   return {static_cast<unsigned long>(credentials.pid), credentials.uid};
}

bool PeerCredentials::mayConnect() const noexcept {
   return user == 0 || user == ::geteuid();
}

} // namespace Mox
