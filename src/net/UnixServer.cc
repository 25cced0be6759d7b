#include "net/UnixServer.h"

#include "core/Text.h"
#include "mox/Entity.h"
#include "net/Carrier.h"
#include "net/UnixPath.h"

#include <asio/error.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <utility>

#include <fcntl.h>

namespace Mox {

struct UnixServer::Peer {
   explicit Peer(std::string_view name) : end(name) {}
   ~Peer() {
      if (carrier)
         carrier->abandon();
   }
   Peer(Peer const&) = delete;
   Peer& operator=(Peer const&) = delete;

   bool isOpen() const noexcept { return carrier && carrier->isOpen(); }

   LinkEnd end;
   std::shared_ptr<Carrier> carrier;
};

struct UnixServer::Listener {
   Listener(asio::io_context& context, std::string path)
      : bound(std::move(path)), acceptor(context, asio::local::stream_protocol(), bound.duplicate()), pause(context) {}

   BoundSocket bound;
   asio::local::stream_protocol::acceptor acceptor;
   asio::steady_timer pause;
};

UnixServer::UnixServer(std::string path, std::string_view name)
   : name_(name), listener_(std::make_unique<Listener>(context(), std::move(path))) {
   awaitClient();
}

UnixServer::~UnixServer() = default;

std::string const& UnixServer::path() const noexcept {
   return listener_->bound.path();
}

void UnixServer::exportRoot(Ptr<Entity> const& root) {
   for (auto const& exported : exported_)
      if (exported->moxName() == root->moxName())
         throw NameInUseException("a root named " + quoted(root->moxName()) + " is exported already");
   exported_.push_back(root);
   for (std::size_t i = 0; i < peers_.size(); ++i)
      peers_[i]->end.exportRoot(root);
}

void UnixServer::exportDel(Ptr<Entity> const& root) {
   std::erase(exported_, root);
   for (std::size_t i = 0; i < peers_.size(); ++i)
      peers_[i]->end.exportDel(root);
}

void UnixServer::unmount(Name const& name) {
   for (auto const& peer : peers_)
      if (peer->end.hasMounts())
         return peer->end.unmount(name);
}

void UnixServer::onState(StateFunction told) {
   stateTold_ = std::move(told);
}

LinkEnd::State UnixServer::state(Name const& root) const {
   for (auto const& peer : peers_)
      if (peer->end.hasMounts())
         return peer->end.state(root);
   throw RangeException("no root named " + quoted(root) + " is mounted");
}

std::size_t UnixServer::peerCount() const noexcept {
   return static_cast<std::size_t>(
      std::count_if(peers_.begin(), peers_.end(), [](auto const& peer) { return peer->isOpen(); }));
}

bool UnixServer::quiet() const {
   return std::all_of(peers_.begin(), peers_.end(),
                      [](auto const& peer) { return !peer->isOpen() || peer->end.quiet(); });
}

Traffic UnixServer::traffic() const noexcept {
   Traffic sum;
   for (auto const& peer : peers_)
      sum += trafficOf(peer->end);
   return sum;
}

bool UnixServer::mayHaveMore() const noexcept {
   return peers_.size() != 1 || !peers_.front()->carrier || peers_.front()->carrier->mayHaveMore();
}

void UnixServer::flush() {
   // By index: what a drain runs may mount, which can add a peer.
   for (std::size_t i = 0; i < peers_.size(); ++i)
      if (peers_[i]->isOpen())
         peers_[i]->carrier->flush();
}

UnixServer::Peer& UnixServer::newPeer() {
   auto peer = std::make_unique<Peer>(name_);
   peer->end.onState([this](Name const& root, LinkEnd::State state) {
      if (stateTold_)
         stateTold_(root, state);
   });
   peer->end.onReport([this](std::string const& text) {
      if (reportTold_)
         reportTold_(text);
   });
   for (auto const& root : exported_)
      peer->end.exportRoot(root);
   peers_.push_back(std::move(peer));
   return *peers_.back();
}

LinkEnd& UnixServer::mountingEnd() {
   auto at = std::find_if(peers_.begin(), peers_.end(), [](auto const& peer) { return peer->end.hasMounts(); });
   if (at == peers_.end())
      at = std::find_if(peers_.begin(), peers_.end(), [](auto const& peer) { return peer->isOpen(); });
   Peer& peer = at == peers_.end() ? newPeer() : **at;
   return peer.end;
}

void UnixServer::awaitClient() {
   listener_->acceptor.async_wait(asio::socket_base::wait_read, [this](asio::error_code const& error) {
      if (!error)
         admit();
   });
}

void UnixServer::admit() {
   asio::error_code error;
   Carrier::Socket socket(context());
   listener_->acceptor.accept(socket, error);
   if (error) {
      // Out of descriptors, or the client has left already: a moment later it may go.
      listener_->pause.expires_after(Milliseconds(50));
      listener_->pause.async_wait([this](asio::error_code const& stopped) {
         if (!stopped)
            awaitClient();
      });
      return;
   }
   awaitClient();
   ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);

   PeerEvent event{PeerEvent::Kind::joined, ++accepted_, 0, 0, {}};
   try {
      PeerCredentials const credentials = PeerCredentials::of(socket.native_handle());
      event.process = credentials.process;
      event.user = credentials.user;
      if (!credentials.mayConnect())
         event.reason = "process " + std::to_string(event.process) + " of user " + std::to_string(event.user) +
                        " refused: expected this user or root";
   } catch (Exception const& e) {
      event.reason = e.what();
   }
   if (!event.reason.empty()) {
      event.kind = PeerEvent::Kind::refused;
      tell(event);
      return;
   }

   auto const waiting = std::find_if(peers_.begin(), peers_.end(), [](auto const& peer) { return !peer->isOpen(); });
   Peer& peer = waiting == peers_.end() ? newPeer() : **waiting;
   auto carrier = std::make_shared<Carrier>(std::move(socket), peer.end);
   carrier->onLost([this, event, which = carrier.get()](std::string const& reason) mutable {
      std::erase_if(peers_, [which](auto const& p) { return p->carrier.get() == which && !p->end.hasMounts(); });
      event.kind = PeerEvent::Kind::lost;
      event.reason = reason;
      tell(event);
   });
   peer.carrier = carrier;
   carrier->start();
   tell(event);
}

} // namespace Mox
