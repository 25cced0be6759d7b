// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/core/Callback.h"
#include "kestrel/core/Identifiers.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace asio {
class io_context;
}

namespace Mox {

/// The reason of a `lost` event where the other process closed the connection without giving a reason.
inline constexpr std::string_view peerClosed = "the peer closed the connection";

/// Something that happened to a connection.
struct PeerEvent {
   enum class Kind {
      joined,
      lost,    ///< the connection has ended; mirrors stay as they were
      refused, ///< its credentials, or the lack of them, kept it out
   };
   Kind kind;
   unsigned peer;         ///< number of the connection, ascending from 1
   unsigned long process; ///< of the peer, as the kernel told at connect
   unsigned long user;
   std::string reason; ///< ready to print; empty for `joined`
};

/// What this process has done over the connections that are open now.
struct Traffic {
   U64 recordsSent = 0;
   U64 recordsApplied = 0;
   U64 bytesSent = 0;

   Traffic& operator+=(Traffic const& other) noexcept {
      recordsSent += other.recordsSent;
      recordsApplied += other.recordsApplied;
      bytesSent += other.bytesSent;
      return *this;
   }
};

/// The event loop of a server or client: everything happens inside these calls, in the thread that makes them.
///
/// *Re-entrancy*: a reactor or callback that runs inside a poll may change, export and mount, but neither poll nor destroy
/// the loop. *Exceptions*: what a callback throws leaves the poll; the connections stay usable.
class SocketLoop {
public:
   using Milliseconds = std::chrono::milliseconds;
   /// A century; longer times are cut to it. The clock ends before the largest number of milliseconds.
   static constexpr Milliseconds longest = std::chrono::hours(24 * 36525);

   SocketLoop(SocketLoop const&) = delete;
   SocketLoop& operator=(SocketLoop const&) = delete;

   /// Sends what is owed, waits at most `timeout` until something arrives, handles what has arrived, and sends what that
   /// brought about. Returns whether something happened. Without a connection to wait for it returns at once.
   bool pollOnce(Milliseconds timeout);
   /// Polls until `done()` holds or the time is over, and returns whether it holds. Returns early where nothing is left
   /// to wait for.
   bool waitUntil(std::function<bool()> const& done, Milliseconds timeout);

   /// \param told called for every connection that comes, goes, or is kept out
   void onPeer(std::function<void(PeerEvent const&)> told) { told_ = std::move(told); }

   /// How long a peer may take to send its hello. A connection without one is ended after that, as `lost`. Ten seconds
   /// by default; a change holds for later connections.
   void patienceIs(Milliseconds patience) { patience_ = std::min(patience, longest); }

protected:
   SocketLoop();
   virtual ~SocketLoop();

   virtual void flush() = 0;
   /// Whether more may have arrived, or may have to be told, than the wait has reported. Looking costs a call into the
   /// kernel.
   virtual bool mayHaveMore() const noexcept = 0;
   asio::io_context& context() noexcept { return *context_; }
   void tell(PeerEvent const& event) const;
   Milliseconds patience() const noexcept { return patience_; }
   static Traffic trafficOf(LinkEnd const& end) noexcept;

private:
   std::unique_ptr<asio::io_context> context_;
   Callback<void(PeerEvent const&)> told_;
   Milliseconds patience_{10'000};
   bool polling_ = false;
};

} // namespace Mox
