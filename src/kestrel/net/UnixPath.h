// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace Mox {

/// A folder of this process's own with mode 0700, removed with its contents when the object goes. A locked file in it
/// shows that its process lives.
class PrivateFolder {
public:
   /// Below the folder for temporary files. \throws SocketException
   PrivateFolder();
   ~PrivateFolder();
   PrivateFolder(PrivateFolder const&) = delete;
   PrivateFolder& operator=(PrivateFolder const&) = delete;

   std::string const& path() const noexcept { return path_; }

   /// Removes the private folders of this user whose processes were killed. \return how many
   static std::size_t clearAbandoned() noexcept;

private:
   std::string path_;
   int lock_ = -1;
};

/// A listening unix-domain socket in the file system, only for its owner (mode 0600), from bind to unlink.
///
/// A socket that a dead process left is replaced; a live one, or anything else of that name, is left alone. Two processes
/// that start at once take turns by a lock on the folder, so that one of them finds the other live.
class BoundSocket {
public:
   /// \throws SocketException
   explicit BoundSocket(std::string path);
   /// Removes the name from the file system, if it is still this socket's.
   ~BoundSocket();
   BoundSocket(BoundSocket const&) = delete;
   BoundSocket& operator=(BoundSocket const&) = delete;

   std::string const& path() const noexcept { return path_; }
   /// Another descriptor of the listening socket, close-on-exec, to accept from; the caller closes it. \throws SocketException
   int duplicate() const;

private:
   std::string path_;
   int descriptor_ = -1;
   unsigned long long device_ = 0; ///< with the inode: the file that the name stood for at first
   unsigned long long inode_ = 0;
};

/// Descriptor of a socket connected to `path`, close-on-exec; the caller closes it.
/// \throws SocketException, also where the process that listens belongs to another user and not to root
int connectedSocket(std::string const& path);

/// Whose process is at the other end of a connected unix-domain socket.
struct PeerCredentials {
   unsigned long process;
   unsigned long user;

   /// As the kernel recorded them at connect, or listen. \throws SocketException
   static PeerCredentials of(int descriptor);
   /// Whether that user may use this process's links: the same user, or root.
   bool mayConnect() const noexcept;
};

} // namespace Mox
