// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/net/SocketLoop.h"

#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Mox {

/// One listening unix-domain socket and a link end for each client that comes.
///
/// ```cpp
/// Mox::UnixServer server("/run/phy/config");
/// server.exportRoot(ours);                                   // every client may mount it
/// auto status = server.mount<Cl10010StatusDir>("status");    // from the client that exports it; empty until it is there
/// server.waitUntil([&] { return status->phyStatus("port-7") != nullptr; }, 5s);
/// ```
///
/// The socket is only for its owner, and a client of another user than this one or root is kept out, and told why. It is
/// removed from the file system when the server goes.
///
/// A mount belongs to a client that opens it: every client is asked for a root that no other one has opened, and the
/// first to export it owns the mirror. When the owner goes, the mirror stays as it is and the others are asked at once.
/// The next owner, which may be the same client come back, goes on with the very same entities.
class UnixServer final : public SocketLoop {
public:
   using StateFunction = std::function<void(Name const& root, LinkEnd::State state)>;

   /// \param path at most 107 bytes
   /// \param name of this end in messages, at most 255 bytes
   /// \throws RangeException for a longer name, SocketException where the socket can't be had; nothing in the file system has changed then
   explicit UnixServer(std::string path, std::string_view name = "server");
   ~UnixServer() override;

   std::string const& path() const noexcept;

   /// Offers an entity and what is below it to all clients, those to come included.
   /// \throws NameInUseException when a root of that name is exported already, TypeException for a type without an attribute log,
   /// RangeException for null
   void exportRoot(Ptr<Entity> const& root);
   void exportDel(Ptr<Entity> const& root);

   /// The mirror of what a client exports by that name. \throws as `LinkEnd::mount`
   template <std::derived_from<Entity> T> Ptr<T> mount(Name const& name) {
      auto mirror = make<T>(name);
      mountIs(mirror);
      return mirror;
   }
   /// As `mount`, into an entity of the caller's: for roots with constructor parameters. \throws as `LinkEnd::mountIs`
   void mountIs(Ptr<Entity> const& mirror);
   void unmount(Name const& name);
   void onState(StateFunction told);
   /// The state over all clients: the owner's where there is one; else `syncing` while a client has not answered, and
   /// `notExported` once none of them exports it. \throws RangeException for a root that is not mounted
   LinkEnd::State state(Name const& root) const;
   /// Why the root is not in order: refused, of another type, not exported, or stale. Empty where it is in order.
   /// \throws as `state`
   std::string reason(Name const& root) const;

   /// Told of each record that could not be applied or sent, ready to print.
   void onReport(std::function<void(std::string const&)> told) { reportTold_ = std::move(told); }

   /// Clients connected now.
   std::size_t peerCount() const noexcept;
   /// Whether each connected client has everything, and said so, and has answered for each root that no other client owns.
   bool quiet() const;
   /// Of all clients together.
   Traffic traffic() const noexcept;
   /// What happened since this server was made, over all clients, those that have gone included.
   LinkEnd::Counters counters() const noexcept;
   /// Sizes of what this server holds for its clients, added up.
   LinkEnd::Footprint footprint() const;
   /// The number of invariants of the links' own lists that do not hold; 0 while all is well.
   std::size_t auditErrors() const;

private:
   struct Peer;
   struct Listener;
   /// A root of some client's.
   struct Mount {
      Name name;
      LinkEnd* seat; ///< the end where its mirror is: `store_`, or a client's
      bool wasAsked = false;
      std::string loss = {}; ///< why the last owner went
      LinkEnd::State told = LinkEnd::State::connecting;
   };
   struct Standing {
      LinkEnd::State state;
      std::string reason;
   };

   void flush() override;
   bool mayHaveMore() const noexcept override;
   void prepare(Peer& peer);
   void awaitClient();
   void admit();
   void lost(Peer& peer);
   void settle();
   Mount* find(Name const& root) noexcept;
   Standing standing(Name const& root) const;
   void store(Mount& mount);
   void judge(Name const& root);
   void judged(Name const& root);
   using SocketLoop::tell;
   void tell(Name const& root, LinkEnd::State state);
   void report(std::string const& text) const noexcept;
   void askAll(Mount& mount);
   bool opens(LinkEnd& end, Name const& root);

   std::string name_;
   std::unique_ptr<Listener> listener_;
   std::unordered_map<Name, Ptr<Entity>> exported_; ///< under their names
   std::vector<Mount> mounts_;
   LinkEnd store_; ///< never connected; holds the mirrors for which no client is there to be asked
   std::vector<std::unique_ptr<Peer>> peers_;
   LinkEnd::Counters gone_; ///< of clients that have left
   Callback<void(Name const& root, LinkEnd::State state)> stateTold_;
   Callback<void(std::string const&)> reportTold_;
   unsigned accepted_ = 0;
   bool isUnsettled_ = false; ///< a client is still to be asked, or somebody to be told how a root stands
};

} // namespace Mox
