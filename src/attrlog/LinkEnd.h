#pragma once

#include "attrlog/Demuxer.h"
#include "core/Ptr.h"
#include "core/String8.h"

#include <concepts>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Mox {

/// One end of a link between two processes: exports roots, mounts the peer's, and turns both into bytes.
///
///    end.exportRoot(config);
///    auto status = end.mount<Cl10010StatusDir>("status");
///    end.connected();                                   // a carrier has a fresh byte stream
///    end.bytesArrived(bytes);                           // as they come, cut anywhere
///    auto bytes = end.bytesToSend();  end.bytesSent(n); // as far as the carrier takes them
///    end.peerGone("closed");                            // mirrors stay as they are until the next connected()
///
/// It knows no socket and no clock: `net/` carries its bytes, tests carry them through scripted pipes. A process with an event
/// loop of its own calls the three in the middle.
///
/// *Threads*: one. *Re-entrancy*: reactors may call everything, `bytesArrived` included: those bytes wait.
class LinkEnd {
public:
   /// How a mounted root stands.
   enum class State {
      connecting, ///< no stream
      syncing,    ///< the owner tells it, for the first time or again
      live,       ///< told whole; changes follow as they happen
      stale,      ///< the stream has ended, or the owner exports it no more: the mirror keeps what it had
      refused,    ///< the owner does not grant it
      mismatch,   ///< the owner's root is of another type than the mirror
   };
   using StateCall = std::function<void(Name const& root, State state)>;

   /// \param incarnation of this process; 0 takes the process's own, which is random
   explicit LinkEnd(std::string_view name, U64 incarnation = 0);
   ~LinkEnd();
   LinkEnd(LinkEnd const&) = delete;
   LinkEnd& operator=(LinkEnd const&) = delete;

   // Roots.
   /// Lets the peer mirror `root` and everything below it, read-only. Holds a reference.
   /// \throws NameInUseException when a root of that name is exported already
   void exportRoot(Ptr<Entity> const& root);
   /// Ends it: the peer is told that the root is gone.
   void exportDel(Ptr<Entity> const& root);

   /// A mirror of the peer's root `name`. It exists at once, empty, and fills as the peer tells it; writing to it throws
   /// `ReadOnlyException`. \throws NameInUseException when `name` is mounted already
   template <std::derived_from<Entity> T> Ptr<T> mount(Name const& name) {
      auto mirror = make<T>(name);
      mountIs(mirror);
      return mirror;
   }
   /// As `mount`, into an entity of the caller's: for roots with constructor parameters. One that others mirror from here may be
   /// mounted, and passes on what its owner says.
   /// \throws NameInUseException also when `mirror` is a mirror already, over whatever link, is part of one or holds one, or is
   /// exported over this very link: an entity has one owner
   void mountIs(Ptr<Entity> const& mirror);
   /// Ends the mirror; the entity stays as it is, and is an ordinary one from then on.
   void unmount(Name const& name);

   /// What the call throws is reported.
   void onState(StateCall call) { stateCall_ = std::move(call); }
   /// \throws RangeException for a root that is not mounted
   State state(Name const& root) const;
   bool hasMounts() const noexcept { return !mounts_.empty(); }

   // The carrier.
   /// A fresh byte stream begins. What an earlier one had not carried is dropped.
   void connected();
   /// Applies what the peer has sent. Throws nothing: after bytes that are none of the protocol `failure` says why, and the
   /// carrier must close the stream.
   void bytesArrived(std::span<std::uint8_t const> bytes) noexcept;
   /// The next bytes to carry; drains the backlog as far as the buffer has room. Valid until anything is written.
   std::span<std::uint8_t const> bytesToSend();
   void bytesSent(std::size_t n);
   /// The stream has ended. Mirrors keep their state.
   void peerGone(std::string_view reason);

   bool isConnected() const noexcept { return isConnected_; }
   /// Why the last stream had to end; empty while nothing is wrong.
   std::string const& failure() const noexcept { return failure_; }
   /// Everything written here has been applied there, and nothing is owed in either direction that this end knows of.
   bool quiet() const noexcept;
   /// The peer's name, of its hello; empty before.
   std::string const& peerName() const noexcept { return peerName_; }
   U64 peerIncarnation() const noexcept { return peerIncarnation_; }

   NboAttrLog::Demuxer& demuxer() noexcept { return demuxer_; }
   NboAttrLog::Demuxer const& demuxer() const noexcept { return demuxer_; }
   /// Told of every record that could not be applied or sent, with stream, offset, entity and attribute.
   void onReport(NboAttrLog::Demuxer::Report report) { demuxer_.reportIs(std::move(report)); }

   static U64 processIncarnation();

private:
   struct Mount {
      std::uint32_t handle;
      Ptr<Entity> mirror;
      State state;
      bool isAnswered = false; ///< on this connection
      bool isOpen = false;
   };
   struct Request {
      std::uint32_t handle;
      Name name;
      Ptr<Entity> root; ///< null while nothing of that name is exported
      bool isRefused = false;
   };

   void answer(Request& request);
   void stateIs(Mount& mount, State state);
   void settleStates();
   void settleWaits();
   U64 checkedCount(U64 count, char const* what) const;
   void end(State state);

   void on(NboAttrLog::Hello const& hello);
   void on(NboAttrLog::Acknowledgement const& ack);
   void on(NboAttrLog::Refused const& refused);
   void on(NboAttrLog::Mount const& mount);
   void on(NboAttrLog::Unmount const& unmount);
   void on(NboAttrLog::Mounted const& mounted);
   void on(NboAttrLog::Retire const& retire);
   void on(NboAttrLog::Refresh const& refresh);
   void on(NboAttrLog::Ping const& ping);
   void on(NboAttrLog::Pong const&) {}
   void on(NboAttrLog::ConfirmedAt const&) {}
   void on(NboAttrLog::Waiting const& waiting);

   static constexpr std::size_t mostRequests = 1024;

   std::string name_;
   U64 incarnation_;
   NboAttrLog::Demuxer demuxer_;
   std::vector<Ptr<Entity>> exports_;
   std::vector<Mount> mounts_;
   std::vector<Request> requests_; ///< the peer's mounts
   StateCall stateCall_;
   bool isConnected_ = false;
   bool isApplying_ = false;
   bool mustEnd_ = false;
   bool remountEnded_ = false;
   std::uint32_t attempt_ = 0;
   std::uint32_t lastHandle_ = 0;
   std::string failure_;
   std::string endReason_;
   std::string peerName_;
   U64 peerIncarnation_ = 0;
   U64 peerApplied_ = 0;

   /// Records in either direction when an end had nothing to write but what waits for the other.
   struct Standstill {
      U64 applied = ~0ull;
      U64 written = ~0ull;
      friend bool operator==(Standstill const&, Standstill const&) = default;
   };
   Standstill told_; ///< the last that this end told of itself
   Standstill peers_;
};

char const* textOf(LinkEnd::State state) noexcept;

} // namespace Mox
