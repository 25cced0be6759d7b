// SPDX-License-Identifier: Apache-2.0
#include "kestrel/net/Carrier.h"

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/net/SocketLoop.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>

#include <new>
#include <span>
#include <utility>

namespace Mox {

Carrier::Carrier(Socket socket, LinkEnd& end)
   : socket_(std::move(socket)), hello_(socket_.get_executor()), ending_(socket_.get_executor()), end_(&end) {
   socket_.non_blocking(true);
}

void Carrier::start(std::chrono::milliseconds patience) {
   try {
      end_->connected();
      awaitEnd();
      awaitHello(patience);
      flush();
   } catch (...) {
      LinkEnd* const end = end_;
      abandon();
      if (end != nullptr)
         end->peerGone("the connection could not be begun");
      throw;
   }
}

void Carrier::awaitHello(std::chrono::milliseconds patience) {
   awaitsHello_ = true;
   patience_ = patience;
   hello_.expires_after(patience);
   hello_.async_wait([self = shared_from_this()](asio::error_code const& error) {
      if (error || !self->isOpen() || !self->awaitsHello_)
         return;
      self->isLate_ = true;
      // What has come in time, while this process was busy, is still to be read.
      asio::error_code ignored;
      if (self->socket_.available(ignored) == 0)
         self->closeIfLate();
   });
}

void Carrier::awaitEnd() {
   ending_.expires_at(asio::steady_timer::time_point::max());
   ending_.async_wait([self = shared_from_this()](asio::error_code const&) {
      if (std::exchange(self->owesLost_, false) && self->lost_)
         self->lost_(std::move(self->reason_));
   });
}

void Carrier::awaitBytes() {
   if (awaitsBytes_)
      return;
   socket_.async_read_some(asio::buffer(bytes_),
                           [self = shared_from_this()](asio::error_code const& error, std::size_t size) {
                              if (!self->isOpen())
                                 return;
                              // A peer that dies with unread bytes resets the connection, which is told like any other
                              // close.
                              if (error == asio::error::eof || error == asio::error::connection_reset)
                                 self->close(peerClosed);
                              else if (error)
                                 self->closeFor([&] { return "reading failed: " + error.message(); });
                              else
                                 self->arrived(size);
                           });
   awaitsBytes_ = true;
}

void Carrier::arrived(std::size_t size) {
   lastReading_ = size;
   end_->bytesArrived(std::span(bytes_.data(), size));
   // Only now: a function that was told of the bytes may have called `flush`, which must not begin a second reading.
   awaitsBytes_ = false;
   if (awaitsHello_ && isOpen()) {
      awaitsHello_ = !end_->isGreeted();
      if (!awaitsHello_)
         hello_.cancel();
   }
   closeAtFailure();
   closeIfLate();
   // The answer is written before the next reading begins, so that the peer does not wait while this side looks for
   // more.
   write();
   if (isOpen())
      awaitBytes();
}

void Carrier::flush() {
   if (isOpen())
      awaitBytes();
   write();
}

void Carrier::write() {
   // `bytesToSend` drains flows. That runs reactors, and one of them may come back here by a poll of its own.
   if (!isOpen() || awaitsRoom_ || flushing_)
      return;
   flushing_ = true;
   asio::error_code error;
   try {
      while (isOpen() && !error) {
         std::span<std::uint8_t const> const bytes = end_->bytesToSend();
         if (bytes.empty())
            break;
         // Written at once rather than by an asynchronous operation: the span lasts only until the next change.
         std::size_t const written = socket_.write_some(asio::buffer(bytes.data(), bytes.size()), error);
         if (!error)
            end_->bytesSent(written);
      }
   } catch (...) {
      flushing_ = false;
      throw;
   }
   flushing_ = false;
   if (error == asio::error::would_block || error == asio::error::try_again)
      awaitRoom();
   else if (error)
      // Nothing more is written, but the connection stays: bytes of the peer may still be unread, its reason for
      // leaving among them. Reading then finds the end.
      awaitsRoom_ = true;
   else
      closeAtFailure();
}

void Carrier::awaitRoom() {
   socket_.async_wait(Socket::wait_write, [self = shared_from_this()](asio::error_code const& error) {
      if (error || !self->isOpen())
         return;
      self->awaitsRoom_ = false;
      self->flush();
   });
   awaitsRoom_ = true;
}

void Carrier::closeAtFailure() {
   if (isOpen() && !end_->failure().empty())
      close(end_->failure());
}

void Carrier::closeIfLate() {
   if (isOpen() && awaitsHello_ && isLate_)
      closeFor([this] { return "expected a hello within " + std::to_string(patience_.count()) + " ms, got none"; });
}

/// Closes for the reason that `text()` returns; where that finds no memory, the reason is "no memory".
template <class Text> void Carrier::closeFor(Text text) {
   try {
      std::string const reason = text();
      return close(reason);
   } catch (std::bad_alloc const&) {
   }
   close("no memory");
}

void Carrier::close(std::string_view reason) {
   if (!isOpen())
      return;
   LinkEnd& end = *std::exchange(end_, nullptr);
   try {
      reason_ = reason;
   } catch (std::bad_alloc const&) {
      reason_ = "no memory"; // short enough to need none
   }
   hello_.cancel();
   asio::error_code ignored;
   socket_.close(ignored);
   // The owner destroys link end and carrier when it is told of the end. So it is told when the calls that led here
   // have returned.
   owesLost_ = true;
   ending_.cancel();
   end.peerGone(reason);
}

void Carrier::abandon() {
   end_ = nullptr;
   owesLost_ = false;
   hello_.cancel();
   ending_.cancel();
   asio::error_code ignored;
   socket_.close(ignored);
}

} // namespace Mox
