#pragma once

#include "attrlog/LinkEnd.h"
#include "net/SocketLoop.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

/// One listening unix-domain socket and a link end for each client that comes.
///
/// ```cpp
/// Mox::UnixServer server("/run/phy/config");
/// server.exportRoot(ours);                                   // every client may mount it
/// auto status = server.mount<Cl10010StatusDir>("status");    // from the first client; empty until it is there
/// server.waitUntil([&] { return status->phyStatus("port-7") != nullptr; }, 5s);
/// ```
///
/// The socket is only for its owner, and a client of another user than this one or root is kept out. It is removed from
/// the file system when the server goes. A client that leaves takes its link end along, unless something is mounted from
/// it: that end waits, mirrors and all, for the next client.
class UnixServer final : public SocketLoop {
public:
   using StateFunction = std::function<void(Name const& root, LinkEnd::State state)>;

   /// \param path at most 107 bytes
   /// \param name of this end in messages
   /// \throws SocketException where the socket can't be had; nothing in the file system has changed then
   explicit UnixServer(std::string path, std::string_view name = "server");
   ~UnixServer() override;

   std::string const& path() const noexcept;

   /// Offers an entity and what is below it to all clients, those to come included.
   /// \throws NameInUseException when a root of that name is exported already
   void exportRoot(Ptr<Entity> const& root);
   void exportDel(Ptr<Entity> const& root);

   /// The mirror of what a client exports by that name: the client that came first, or the next one where none is there.
   template <class T> Ptr<T> mount(Name const& name) { return mountingEnd().template mount<T>(name); }
   void unmount(Name const& name);
   void onState(StateFunction told);
   /// \throws RangeException for a root that is not mounted
   LinkEnd::State state(Name const& root) const;

   /// Told of each record that could not be applied or sent, ready to print.
   void onReport(std::function<void(std::string const&)> told) { reportTold_ = std::move(told); }

   /// Clients connected now.
   std::size_t peerCount() const noexcept;
   /// Whether each connected client has everything, and said so.
   bool quiet() const;
   /// Of all clients together.
   Traffic traffic() const noexcept;

private:
   struct Peer;
   struct Listener;

   void flush() override;
   bool mayHaveMore() const noexcept override;
   LinkEnd& mountingEnd();
   Peer& newPeer();
   void awaitClient();
   void admit();

   std::string name_;
   std::unique_ptr<Listener> listener_;
   std::vector<Ptr<Entity>> exported_;
   std::vector<std::unique_ptr<Peer>> peers_;
   StateFunction stateTold_;
   std::function<void(std::string const&)> reportTold_;
   unsigned accepted_ = 0;
};

} // namespace Mox
