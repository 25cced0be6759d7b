// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Paired.h"

#include "kestrel/attrlog/LinkEnd.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// Two processes, the sockets between them, and a link end on a socket without an event loop.

namespace bench {

[[noreturn]] inline void fail(char const* what) {
   std::perror(what);
   std::_Exit(1);
}

inline void sendWhole(int socket, void const* bytes, std::size_t size) {
   auto at = static_cast<char const*>(bytes);
   while (size != 0) {
      ssize_t const n = ::send(socket, at, size, MSG_NOSIGNAL);
      if (n < 0 && errno != EINTR)
         fail("send");
      at += std::max<ssize_t>(n, 0);
      size -= static_cast<std::size_t>(std::max<ssize_t>(n, 0));
   }
}

/// What has come, at most `size`; 0 where nothing has and `flags` say not to wait.
inline std::size_t receiveSome(int socket, void* bytes, std::size_t size, int flags = 0) {
   for (;;) {
      ssize_t const n = ::recv(socket, bytes, size, flags);
      if (n > 0)
         return static_cast<std::size_t>(n);
      if (n == 0)
         std::_Exit(1); // the other process has said why
      if (errno == EAGAIN)
         return 0;
      if (errno != EINTR)
         fail("recv");
   }
}

template <class T> T receive(int socket) {
   T value;
   for (std::size_t have = 0; have < sizeof value;)
      have += receiveSome(socket, reinterpret_cast<char*>(&value) + have, sizeof value - have);
   return value;
}

/// A process forked from this one: does what it is told, one thing at a time, and answers with a number and with the
/// processor time that it took. Beside the socket for orders it has one for links and one for bare bytes.
class Peer {
public:
   struct Order {
      char what;
      std::uint64_t count;
   };
   struct Answer {
      std::uint64_t number;
      double seconds;
   };
   struct Sockets {
      int link;
      int bare;
   };

   /// `serve(sockets)` makes, in the other process, the function that is called with each order.
   explicit Peer(auto&& serve) {
      std::array<int, 2> orders, link, bare;
      for (auto* pair : {&orders, &link, &bare})
         if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair->data()) != 0)
            fail("socketpair");
      process_ = ::fork();
      if (process_ < 0)
         fail("fork");
      std::size_t const mine = process_ == 0 ? 1 : 0;
      for (auto* pair : {&orders, &link, &bare})
         ::close((*pair)[1 - mine]);
      orders_ = orders[mine];
      sockets_ = {link[mine], bare[mine]};
      if (process_ != 0)
         return;
      {
         auto obey = serve(sockets_);
         for (Order order = receive<Order>(orders_); order.what != 0; order = receive<Order>(orders_)) {
            double const start = threadSeconds();
            std::uint64_t const number = obey(order);
            Answer const answer{number, threadSeconds() - start};
            sendWhole(orders_, &answer, sizeof answer);
         }
      }
      std::_Exit(0);
   }
   ~Peer() {
      tell(0, 0);
      ::waitpid(process_, nullptr, 0);
      for (int socket : {orders_, sockets_.link, sockets_.bare})
         ::close(socket);
   }
   Peer(Peer const&) = delete;
   Peer& operator=(Peer const&) = delete;

   void tell(char what, std::uint64_t count) {
      Order const order{what, count};
      sendWhole(orders_, &order, sizeof order);
   }
   bool hasAnswered() const {
      char first;
      return ::recv(orders_, &first, 1, MSG_DONTWAIT | MSG_PEEK) == 1;
   }
   Answer answer() { return receive<Answer>(orders_); }
   Sockets sockets() const noexcept { return sockets_; }

private:
   pid_t process_;
   int orders_;
   Sockets sockets_;
};

/// A link end on a blocking socket, driven by its three calls.
class Pump {
public:
   Pump(Mox::LinkEnd& end, int socket) : end_(end), socket_(socket) {}

   void send() {
      for (auto bytes = end_.bytesToSend(); !bytes.empty(); bytes = end_.bytesToSend()) {
         ssize_t const n = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
         if (n < 0 && errno != EINTR)
            fail("send");
         end_.bytesSent(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
         sent_ += static_cast<std::uint64_t>(std::max<ssize_t>(n, 0));
         // Two ends that write and never read would block each other.
         if (++writes_ % 16 == 0)
            take(MSG_DONTWAIT);
      }
   }
   /// One reading. \param flags MSG_DONTWAIT takes what is there
   bool take(int flags = 0) {
      std::size_t const n = receiveSome(socket_, arrived_.data(), arrived_.size(), flags);
      if (n == 0)
         return false;
      end_.bytesArrived(std::span(arrived_.data(), n));
      if (!end_.failure().empty()) {
         std::fprintf(stderr, "%s\n", end_.failure().c_str());
         std::_Exit(1);
      }
      return true;
   }
   /// Carries both ways until `done()`.
   void until(auto&& done) {
      for (send(); !done(); send())
         take();
   }
   std::uint64_t sent() const noexcept { return sent_; }

private:
   Mox::LinkEnd& end_;
   int socket_;
   std::uint64_t sent_ = 0;
   std::uint64_t writes_ = 0;
   std::array<std::uint8_t, 64 * 1024> arrived_;
};

} // namespace bench
