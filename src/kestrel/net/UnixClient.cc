// SPDX-License-Identifier: Apache-2.0
#include "kestrel/net/UnixClient.h"

#include "kestrel/net/Carrier.h"
#include "kestrel/net/UnixPath.h"

#include <utility>

#include <unistd.h>

namespace Mox {

UnixClient::UnixClient(std::string_view name) : end_(name) {}

UnixClient::~UnixClient() {
   if (carrier_)
      carrier_->abandon();
   end_.demuxer().end(); // while everything is still here: reactors that are told may call this client
}

void UnixClient::connect(std::string const& path) {
   if (isConnected())
      throwInternalException("connect to '" + path + "': the client is connected already");
   Carrier::Socket socket(context()); // first: what may throw below must not lose the descriptor
   int const descriptor = connectedSocket(path);
   try {
      socket.assign(asio::local::stream_protocol(), descriptor);
   } catch (...) {
      ::close(descriptor);
      throw;
   }
   PeerCredentials const peer = PeerCredentials::of(descriptor);
   PeerEvent event{PeerEvent::Kind::joined, ++connections_, peer.process, peer.user, {}};
   auto carrier = std::make_shared<Carrier>(std::move(socket), end_);
   carrier->onLost([this, event](std::string reason) mutable {
      event.kind = PeerEvent::Kind::lost;
      event.reason = std::move(reason);
      tell(event);
   });
   carrier_ = std::move(carrier);
   carrier_->start(patience());
   tell(event);
}

bool UnixClient::isConnected() const noexcept {
   return carrier_ && carrier_->isOpen();
}

void UnixClient::disconnect() {
   if (isConnected())
      carrier_->close("closed by this side");
}

bool UnixClient::mayHaveMore() const noexcept {
   return !carrier_ || carrier_->mayHaveMore();
}

void UnixClient::flush() {
   if (isConnected())
      carrier_->flush();
}

} // namespace Mox
