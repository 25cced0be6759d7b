// SPDX-License-Identifier: Apache-2.0
#include "net/Carrier.h"

#include "attrlog/LinkEnd.h"
#include "net/SocketLoop.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/post.hpp>

#include <span>
#include <utility>

namespace Mox {

Carrier::Carrier(Socket socket, LinkEnd& end) : socket_(std::move(socket)), hello_(socket_.get_executor()), end_(&end) {
   socket_.non_blocking(true);
}

void Carrier::start(std::chrono::milliseconds patience) {
   try {
      end_->connected();
      awaitHello(patience);
      awaitBytes();
      flush();
   } catch (...) {
      lost_ = nullptr; // it never joined
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

void Carrier::awaitBytes() {
   socket_.async_read_some(
      asio::buffer(arrived_), [self = shared_from_this()](asio::error_code const& error, std::size_t size) {
         if (!self->isOpen())
            return;
         if (error) {
            // A peer that dies with bytes unread resets the connection; that is no other news.
            bool const hasGone = error == asio::error::eof || error == asio::error::connection_reset;
            self->close(hasGone ? std::string(peerClosed) : "reading failed: " + error.message());
            return;
         }
         self->lastReading_ = size;
         self->end_->bytesArrived(std::span(self->arrived_.data(), size));
         if (self->awaitsHello_ && self->isOpen()) {
            self->awaitsHello_ = !self->end_->isGreeted();
            if (!self->awaitsHello_)
               self->hello_.cancel();
         }
         self->closeAtFailure();
         self->closeIfLate();
         // The answer first: whoever waits for it shall not wait for this side to look whether more has come.
         if (self->isOpen())
            self->flush();
         if (self->isOpen())
            self->awaitBytes();
      });
}

void Carrier::flush() {
   // Asking for bytes drains flows, and what that runs may come back here through a poll of its own.
   if (!isOpen() || awaitsRoom_ || flushing_)
      return;
   flushing_ = true;
   asio::error_code error;
   while (isOpen() && !error) {
      std::span<std::uint8_t const> const bytes = end_->bytesToSend();
      if (bytes.empty())
         break;
      // Written at once rather than by an asynchronous operation: the span lasts only until the next change.
      std::size_t const written = socket_.write_some(asio::buffer(bytes.data(), bytes.size()), error);
      if (!error)
         end_->bytesSent(written);
   }
   flushing_ = false;
   if (error == asio::error::would_block || error == asio::error::try_again)
      awaitRoom();
   else if (error)
      // Bytes of the peer, its reason for leaving among them, may still wait to be read: the reader finds the end.
      awaitsRoom_ = true;
   else
      closeAtFailure();
}

void Carrier::awaitRoom() {
   awaitsRoom_ = true;
   socket_.async_wait(Socket::wait_write, [self = shared_from_this()](asio::error_code const& error) {
      if (error || !self->isOpen())
         return;
      self->awaitsRoom_ = false;
      self->flush();
   });
}

void Carrier::closeAtFailure() {
   if (isOpen() && !end_->failure().empty())
      close(std::string(end_->failure()));
}

void Carrier::closeIfLate() {
   if (isOpen() && awaitsHello_ && isLate_)
      close("expected a hello within " + std::to_string(patience_.count()) + " ms, got none");
}

void Carrier::close(std::string_view reason) {
   if (!isOpen())
      return;
   hello_.cancel();
   LinkEnd& end = *std::exchange(end_, nullptr);
   asio::error_code ignored;
   socket_.close(ignored);
   // The owner drops link end and carrier when it is told: not before the calls that led here have returned.
   asio::post(socket_.get_executor(), [self = shared_from_this(), text = std::string(reason)] {
      if (self->lost_)
         self->lost_(text);
   });
   end.peerGone(reason);
}

void Carrier::abandon() {
   end_ = nullptr;
   hello_.cancel();
   asio::error_code ignored;
   socket_.close(ignored);
}

} // namespace Mox
