// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/net/SocketLoop.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace Mox {

class Carrier;

/// The client's end of a link over a unix-domain socket.
///
/// ```cpp
/// Mox::UnixClient client("driver");
/// client.exportRoot(status);
/// auto config = client.mount<Cl10010ConfigDir>("config");    // exists at once, empty
/// client.connect("/run/phy/config");
/// while (client.pollOnce(100ms) || client.isConnected()) { … }
/// ```
///
/// Exports, mounts and mirrors outlive a lost connection; `connect` may be called again.
class UnixClient final : public SocketLoop {
public:
   /// \param name of this end in messages, at most 255 bytes \throws RangeException for a longer one
   explicit UnixClient(std::string_view name = "client");
   ~UnixClient() override;

   /// \throws SocketException where nobody listens, or somebody of another user who is not root does
   void connect(std::string const& path);
   bool isConnected() const noexcept;
   /// Ends the connection; the peer is told by the end of the stream.
   void disconnect();

   void exportRoot(Ptr<Entity> const& root) { end_.exportRoot(root); }
   void exportDel(Ptr<Entity> const& root) { end_.exportDel(root); }
   template <class T> Ptr<T> mount(Name const& name) { return end_.template mount<T>(name); }
   void unmount(Name const& name) { end_.unmount(name); }
   void onState(std::function<void(Name const& root, LinkEnd::State state)> told) { end_.onState(std::move(told)); }
   LinkEnd::State state(Name const& root) const { return end_.state(root); }
   /// Why the root is not in order: refused, of another type, not exported, or stale. Empty where it is in order.
   std::string const& reason(Name const& root) const { return end_.reason(root); }
   /// Told of each record that could not be applied or sent, ready to print.
   void onReport(std::function<void(std::string const&)> told) { end_.onReport(std::move(told)); }
   /// Whether the server has everything, and said so; also true where nobody is connected.
   bool quiet() const { return !isConnected() || end_.quiet(); }
   Traffic traffic() const noexcept { return trafficOf(end_); }
   /// What happened since this client was made: records dropped, values that this side can't hold, and the like.
   LinkEnd::Counters counters() const noexcept { return end_.counters(); }
   /// Sizes of what this client holds for its link.
   LinkEnd::Footprint footprint() const { return end_.footprint(); }
   /// The number of invariants of the link's own lists that do not hold; 0 while all is well.
   std::size_t auditErrors() const { return end_.auditErrors(); }

private:
   void flush() override;
   bool mayHaveMore() const noexcept override;

   LinkEnd end_;
   std::shared_ptr<Carrier> carrier_;
   unsigned connections_ = 0;
};

} // namespace Mox
