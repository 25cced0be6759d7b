// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Mox {

class LinkEnd;

/// Moves the bytes of one link end through one connected socket; internal to this folder.
///
/// *Lifetime*: pending operations hold the carrier, not the link end: whoever destroys the end closes the carrier first.
class Carrier : public std::enable_shared_from_this<Carrier> {
public:
   using Socket = asio::local::stream_protocol::socket;
   /// Called from the event loop, once, after the link end was told that its peer has gone.
   using Lost = std::function<void(std::string reason)>;

   Carrier(Socket socket, LinkEnd& end);

   void onLost(Lost lost) { lost_ = std::move(lost); }

   /// \param patience how long the peer may take to say its hello; after that the connection is ended
   void start(std::chrono::milliseconds patience);
   /// Writes what the link end has to send, as much as the socket takes. Tries again what has failed for lack of
   /// memory.
   void flush();
   /// Ends the connection and tells the link end, if that has not happened yet. Needs no memory.
   void close(std::string_view reason);
   /// Ends the connection and tells nobody: the link end is going.
   void abandon();
   bool isOpen() const noexcept { return end_ != nullptr; }
   /// Whether the last reading filled the buffer, so that more may have come, or the owner is still to be told of the
   /// end.
   bool mayHaveMore() const noexcept { return !isOpen() || lastReading_ == readSize; }

private:
   void awaitHello(std::chrono::milliseconds patience);
   void awaitBytes();
   void awaitRoom();
   void awaitEnd();
   void arrived(std::size_t size);
   void write();
   void closeAtFailure();
   void closeIfLate();
   template <class Text> void closeFor(Text text);

   static constexpr std::size_t readSize = 65536;

   Socket socket_;
   asio::steady_timer hello_;  ///< pending until the hello has come
   asio::steady_timer ending_; ///< pending until the connection ends: cancelling it tells the owner without memory
   std::chrono::milliseconds patience_{};
   LinkEnd* end_; ///< null once closed
   Lost lost_;
   std::string reason_; ///< of the end, while somebody is to be told
   bool owesLost_ = false;
   bool awaitsBytes_ = false;
   bool awaitsHello_ = false;
   bool isLate_ = false; ///< no hello came in time: the bytes that have come by now are still read
   bool awaitsRoom_ = false;
   bool flushing_ = false;
   std::size_t lastReading_ = 0;
   std::array<std::uint8_t, readSize> bytes_;
};

} // namespace Mox
