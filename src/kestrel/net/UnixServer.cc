// SPDX-License-Identifier: Apache-2.0
#include "kestrel/net/UnixServer.h"

#include "kestrel/core/Text.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/mox/Swallowed.h"
#include "kestrel/net/Carrier.h"
#include "kestrel/net/UnixPath.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <new>
#include <utility>

#include <fcntl.h>

namespace Mox {

struct UnixServer::Peer {
   explicit Peer(std::string_view name) : end(name) {}
   ~Peer() {
      if (carrier)
         carrier->abandon();
   }
   void ends(PeerEvent::Kind kind, std::string reason) noexcept {
      event.kind = kind;
      event.reason = std::move(reason);
      hasGone = true;
   }
   Peer(Peer const&) = delete;
   Peer& operator=(Peer const&) = delete;

   bool isOpen() const noexcept { return carrier && carrier->isOpen(); }

   LinkEnd end;
   std::shared_ptr<Carrier> carrier;
   PeerEvent event;      ///< the latest that is told of this client
   bool hasGone = false; ///< the connection has ended, and the server still has to call `lost`
};

struct UnixServer::Listener {
   Listener(asio::io_context& context, std::string path)
      : bound(std::move(path)), acceptor(context, asio::local::stream_protocol(), bound.duplicate()), pause(context) {}

   BoundSocket bound;
   asio::local::stream_protocol::acceptor acceptor;
   asio::steady_timer pause;
   bool isAwaited = false; ///< an accept or the pause is pending; if neither found memory, the next poll tries again
};

UnixServer::UnixServer(std::string path, std::string_view name)
   : name_(name), listener_(std::make_unique<Listener>(context(), std::move(path))), store_(name) {
   awaitClient();
}

UnixServer::~UnixServer() {
   // While everything is still here: reactors are told what is owed to them, and may call this server.
   for (auto const& peer : peers_)
      if (peer->carrier)
         peer->carrier->abandon();
   for (std::size_t i = 0; i < peers_.size(); ++i)
      peers_[i]->end.demuxer().end();
   store_.demuxer().end();
}

std::string const& UnixServer::path() const noexcept {
   return listener_->bound.path();
}

void UnixServer::exportRoot(Ptr<Entity> const& root) {
   LinkEnd::checkExport(root);
   if (!exported_.try_emplace(root->moxName(), root).second)
      throw NameInUseException("a root named " + quoted(root->moxName()) + " is exported already");
   std::size_t told = 0;
   try {
      for (; told < peers_.size(); ++told)
         peers_[told]->end.exportRoot(root);
   } catch (...) {
      while (told-- != 0)
         peers_[told]->end.exportDel(root);
      exported_.erase(root->moxName());
      throw;
   }
}

void UnixServer::exportDel(Ptr<Entity> const& root) {
   // The server's own table comes last: where a client's end finds no memory, the root is still exported here, and the
   // next call goes on.
   for (std::size_t i = 0; i < peers_.size(); ++i)
      peers_[i]->end.exportDel(root);
   if (auto const at = root ? exported_.find(root->moxName()) : exported_.end();
       at != exported_.end() && at->second == root)
      exported_.erase(at);
}

// Mounts ----------------------------------------------------------------------------------------------------------------

UnixServer::Mount* UnixServer::find(Name const& root) noexcept {
   auto const at = std::find_if(mounts_.begin(), mounts_.end(), [&](Mount const& m) { return m.name == root; });
   return at == mounts_.end() ? nullptr : &*at;
}

void UnixServer::mountIs(Ptr<Entity> const& mirror) {
   if (mirror && find(mirror->moxName()) != nullptr)
      throw NameInUseException("a root named " + quoted(mirror->moxName()) + " is mounted already");
   mounts_.reserve(mounts_.size() + 1);
   store_.mountIs(mirror);
   mounts_.push_back({mirror->moxName(), &store_});
   Mount& mount = mounts_.back();
   try {
      askAll(mount);
      mount.told = standing(mount.name).state; // the caller of a mount asks for the state itself
   } catch (std::bad_alloc const&) {
      isUnsettled_ = true;
   }
}

void UnixServer::unmount(Name const& name) {
   Mount* const at = find(name);
   if (at == nullptr)
      return;
   Mount mount = std::move(*at);
   mounts_.erase(mounts_.begin() + (at - mounts_.data()));
   try {
      mount.seat->unmount(mount.name);
   } catch (...) {
      mounts_.push_back(std::move(mount)); // undone; the room for it is still there
      throw;
   }
   // The other clients were only asked, and taking that back needs no memory. A function that was told of the end may
   // have mounted the root anew: then the new mount keeps its requests.
   for (std::size_t i = 0; i < peers_.size() && find(mount.name) == nullptr; ++i)
      peers_[i]->end.unmount(mount.name);
   if (find(mount.name) == nullptr)
      store_.unmount(mount.name);
}

void UnixServer::onState(StateFunction told) {
   stateTold_ = std::move(told);
}

UnixServer::Standing UnixServer::standing(Name const& root) const {
   using State = LinkEnd::State;
   Mount const* const mount = const_cast<UnixServer*>(this)->find(root);
   if (mount == nullptr)
      throw RangeException("no root named " + quoted(root) + " is mounted");
   if (mount->seat->isOpen(root))
      return {mount->seat->state(root), mount->seat->reason(root)};
   Standing worst{mount->wasAsked ? State::stale : State::connecting, mount->loss};
   bool isAnswered = false;
   for (auto const& peer : peers_) {
      if (!peer->isOpen() || !peer->end.hasAsked(root))
         continue;
      State const state = peer->end.state(root);
      if (state == State::syncing)
         return {state, {}};
      // The reason that says most is kept: a refusal before an export that has ended, and that before a root that was
      // never exported.
      auto const rank = [](State s) { return s == State::refused ? 2 : s == State::stale ? 1 : 0; };
      if (!isAnswered || rank(state) > rank(worst.state))
         worst = {state, peer->end.reason(root)};
      isAnswered = true;
   }
   return worst;
}

LinkEnd::State UnixServer::state(Name const& root) const {
   return standing(root).state;
}

std::string UnixServer::reason(Name const& root) const {
   return standing(root).reason;
}

void UnixServer::askAll(Mount& mount) {
   if (mount.seat->isOpen(mount.name))
      return;
   for (auto const& peer : peers_)
      if (peer->isOpen()) {
         peer->end.ask(mount.name);
         mount.wasAsked = true;
      }
}

/// Moves the mirror of `mount` to `store_`, because no client is to be preferred as its next owner.
void UnixServer::store(Mount& mount) {
   if (mount.seat == &store_)
      return;
   mount.seat->mountMove(mount.name, store_);
   mount.seat = &store_;
}

/// The peer of `end` opens `root`. \return whether it owns it from now on
bool UnixServer::opens(LinkEnd& end, Name const& root) {
   Mount* const mount = find(root);
   if (mount == nullptr)
      return false;
   if (mount->seat != &end) {
      if (mount->seat->isOpen(root))
         return false;
      mount->seat->mountMove(root, end);
      mount->seat = &end;
   }
   for (auto const& peer : peers_)
      if (&peer->end != &end)
         peer->end.unmount(root);
   return true;
}

/// Calls `judge`; where that finds no memory, the next poll does it again.
void UnixServer::judged(Name const& root) {
   try {
      judge(root);
   } catch (std::bad_alloc const&) {
      isUnsettled_ = true;
   }
}

/// A client has answered for `root`, or has gone. Asks the other clients where that one owns the root no longer, and
/// tells what has changed.
void UnixServer::judge(Name const& root) {
   using State = LinkEnd::State;
   if (find(root) == nullptr)
      return;
   tell(root, standing(root).state); // before others are asked, so that the loss of the owner is told as well
   Mount* const mount = find(root);
   if (mount == nullptr)
      return;
   LinkEnd const& seat = *mount->seat;
   if (!seat.isConnected() || seat.isOpen(root))
      return;
   State const state = seat.state(root);
   if (state != State::notExported && state != State::refused && state != State::stale)
      return;
   mount->loss = seat.reason(root);
   store(*mount);
   askAll(*mount);
   tell(root, standing(root).state);
}

void UnixServer::report(std::string const& text) const noexcept {
   try {
      if (reportTold_)
         reportTold_(text);
   } catch (...) {
      detail::exceptionSwallowed(nullptr, attr::none);
   }
}

void UnixServer::tell(Name const& root, LinkEnd::State state) {
   if (std::exchange(find(root)->told, state) == state || !stateTold_)
      return;
   try {
      stateTold_(root, state);
   } catch (std::exception const& e) {
      report("root " + quoted(root) + ", told that it is " + textOf(state) + ": " + e.what());
   } catch (...) {
      report("root " + quoted(root) + ", told that it is " + textOf(state) +
             ": an exception that is no std::exception");
   }
}

/// Removes a client whose connection has ended; the others are asked for the roots that it owned. Where there is no
/// memory for that, the next poll tries again.
void UnixServer::lost(Peer& peer) {
   try {
      for (Mount& mount : mounts_)
         if (mount.seat == &peer.end) {
            mount.loss = peer.event.reason;
            store(mount);
         }
   } catch (std::bad_alloc const&) {
      return;
   }
   PeerEvent const event = std::move(peer.event);
   gone_ += peer.end.counters();
   std::erase_if(peers_, [&](auto const& p) { return p.get() == &peer; });
   isUnsettled_ = true;
   settle();
   tell(event);
}

/// Asks all clients that are still to be asked, and tells of each root whose state is not the one that was told last.
void UnixServer::settle() {
   if (!std::exchange(isUnsettled_, false))
      return;
   try {
      std::vector<Name> names; // copied: functions that are told may mount and unmount
      names.reserve(mounts_.size());
      for (Mount& mount : mounts_) {
         askAll(mount);
         names.push_back(mount.name);
      }
      for (Name const& name : names)
         judged(name);
   } catch (std::bad_alloc const&) {
      isUnsettled_ = true;
   }
}

// Clients ---------------------------------------------------------------------------------------------------------------

std::size_t UnixServer::peerCount() const noexcept {
   return static_cast<std::size_t>(
      std::count_if(peers_.begin(), peers_.end(), [](auto const& peer) { return peer->isOpen(); }));
}

bool UnixServer::quiet() const {
   return std::all_of(peers_.begin(), peers_.end(), [this](auto const& peer) {
      return !peer->isOpen() || (peer->end.quiet() && std::all_of(mounts_.begin(), mounts_.end(), [&](Mount const& m) {
                                    return m.seat->isOpen(m.name) || peer->end.hasAsked(m.name);
                                 }));
   });
}

LinkEnd::Counters UnixServer::counters() const noexcept {
   LinkEnd::Counters sum = gone_;
   sum += store_.counters();
   for (auto const& peer : peers_)
      sum += peer->end.counters();
   return sum;
}

LinkEnd::Footprint UnixServer::footprint() const {
   LinkEnd::Footprint sum = store_.footprint();
   for (auto const& peer : peers_)
      sum += peer->end.footprint();
   return sum;
}

std::size_t UnixServer::auditErrors() const {
   std::size_t errors = store_.auditErrors();
   for (auto const& peer : peers_)
      errors += peer->end.auditErrors();
   return errors;
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
   if (!listener_->isAwaited)
      awaitClient();
   for (std::size_t i = 0; i < peers_.size();) {
      Peer const& peer = *peers_[i];
      if (peer.hasGone)
         lost(*peers_[i]);
      i += i < peers_.size() && peers_[i].get() == &peer;
   }
   settle();
   // By index: what a drain runs may mount, which can add a peer.
   for (std::size_t i = 0; i < peers_.size(); ++i)
      if (peers_[i]->isOpen())
         peers_[i]->carrier->flush();
}

/// Prepares the end of a client that is about to join: it is asked for every root that nobody owns, and gets the
/// mirrors that are in `store_`.
void UnixServer::prepare(Peer& peer) {
   LinkEnd& end = peer.end;
   end.onReport([this](std::string const& text) { report(text); });
   for (auto const& [name, root] : exported_)
      end.exportRoot(root);
   for (Mount& mount : mounts_) {
      if (mount.seat->isOpen(mount.name))
         continue;
      mount.wasAsked = true;
      if (mount.seat == &store_) {
         // What refers to the mirror is then held back until this client has answered. Otherwise the mirror would be
         // announced as an entity of this process.
         store_.mountMove(mount.name, end);
         mount.seat = &end;
      } else {
         end.ask(mount.name);
      }
   }
   end.onState([this](Name const& root, LinkEnd::State) { judged(root); });
   end.onOpening([this, &end](Name const& root) { return opens(end, root); });
}

void UnixServer::awaitClient() {
   listener_->acceptor.async_wait(asio::socket_base::wait_read, [this](asio::error_code const& error) {
      listener_->isAwaited = false;
      if (!error)
         admit();
   });
   listener_->isAwaited = true;
}

void UnixServer::admit() {
   asio::error_code error;
   Carrier::Socket socket(context());
   listener_->acceptor.accept(socket, error);
   if (error) {
      // No descriptor is free, or the client has left already. A moment later accepting may succeed.
      listener_->pause.expires_after(Milliseconds(50));
      listener_->pause.async_wait([this](asio::error_code const& stopped) {
         listener_->isAwaited = false;
         if (!stopped)
            awaitClient();
      });
      listener_->isAwaited = true;
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
      // It is told why, as far as the socket takes it at once.
      auto const words = LinkEnd::refusal(name_, event.reason);
      socket.non_blocking(true, error);
      socket.write_some(asio::buffer(words), error);
      tell(event);
      return;
   }

   peers_.push_back(std::make_unique<Peer>(name_));
   Peer& peer = *peers_.back();
   peer.event = event;
   try {
      prepare(peer);
      auto carrier = std::make_shared<Carrier>(std::move(socket), peer.end);
      carrier->onLost([this, &peer](std::string reason) {
         peer.ends(PeerEvent::Kind::lost, std::move(reason));
         lost(peer);
      });
      peer.carrier = carrier;
      carrier->start(patience());
   } catch (std::exception const& e) {
      std::string reason = "no memory";
      try {
         reason = std::string("the connection could not be begun: ") + e.what();
      } catch (std::bad_alloc const&) {
      }
      peer.ends(PeerEvent::Kind::refused, std::move(reason));
      lost(peer);
      return;
   }
   tell(event);
}

} // namespace Mox
