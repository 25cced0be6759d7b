// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/attrlog/Exports.h"
#include "kestrel/attrlog/Mounts.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Mox {

/// One end of a link between two processes: exports roots, mounts the peer's, and turns both into bytes.
///
///    end.exportRoot(config);
///    auto status = end.mount<Cl10010StatusDir>("status");
///    end.connected();                                   // a carrier has a fresh byte stream
///    end.bytesArrived(bytes);                           // as they come, cut anywhere
///    auto bytes = end.bytesToSend();  end.bytesSent(n); // as far as the carrier takes them
///    end.peerGone("closed");                            // mirrors keep what they have until the next connected()
///
/// It knows no socket and no clock: `net/` carries its bytes, and tests carry them through scripted pipes. A process with an event
/// loop of its own calls the last four functions itself.
///
/// What is known of the peer's roots is kept in `NboAttrLog::Mounts`, and what the peer is told about this side's roots in
/// `NboAttrLog::Exports`. Both keep what is owed to the peer as state, and it is written when the buffer has room. The end itself
/// has the connection: its hello, its frames, its beginning and its end.
///
/// *Threads*: one. *Re-entrancy*: reactors and the functions that an end is given may call everything, `bytesArrived` included,
/// whose bytes are then applied behind the frame in hand. They may replace each of those functions from within itself, but not
/// destroy the end that is calling them.
class LinkEnd {
public:
   using State = RootState;
   using StateCall = std::function<void(Name const& root, State state)>;

   /// \param name of this end in messages, at most `longestEndName` bytes \throws RangeException for a longer one
   /// \param incarnation of this process; 0 takes the process's own, which is random
   explicit LinkEnd(std::string_view name, U64 incarnation = 0);
   ~LinkEnd();
   LinkEnd(LinkEnd const&) = delete;
   LinkEnd& operator=(LinkEnd const&) = delete;

   // Roots.
   /// Lets the peer mirror `root` and everything below it, read-only. Holds a reference to it.
   /// \throws NameInUseException when a root of that name is exported already, TypeException for a type without an attribute log,
   /// RangeException for null
   void exportRoot(Ptr<Entity> const& root);
   /// Ends the export: the peer is told that the root is gone.
   void exportDel(Ptr<Entity> const& root);
   /// \throws as `exportRoot` does for what can't be exported by anybody
   static void checkExport(Ptr<Entity> const& root);

   /// A mirror of the peer's root `name`. It exists at once, empty, and fills as the peer tells it; writing to it throws
   /// `ReadOnlyException`. \throws NameInUseException when `name` is mounted already, TypeException for a type without an attribute
   /// log
   template <std::derived_from<Entity> T> Ptr<T> mount(Name const& name) {
      auto mirror = make<T>(name);
      mountIs(mirror);
      return mirror;
   }
   /// As `mount`, into an entity that the caller has made: for roots with constructor parameters. An entity that others mirror from
   /// here may be mounted; it passes on what its owner says.
   /// \throws NameInUseException also for an entity that would have two owners: when `mirror` is a mirror already, over whatever
   /// link, is part of one or holds one; when it is exported over this very link; or when it was a member of something that is
   /// exported here and is still told of there
   void mountIs(Ptr<Entity> const& mirror);
   /// Ends the mirror. The entity keeps what it has, and is an ordinary one from then on.
   void unmount(Name const& name);

   /// \param call told of every change of a root's state. What it throws is reported.
   void onState(StateCall call) { mounts_.onState(std::move(call)); }
   /// \throws RangeException for a root that is not mounted
   State state(Name const& root) const { return mounts_.state(root); }
   /// Why the root is refused, of another type, or not exported: a text that is ready to print, empty where all is well.
   /// \throws as `state`
   std::string const& reason(Name const& root) const { return mounts_.reason(root); }
   bool hasMounts() const noexcept { return mounts_.mirrors() != 0; }

   // One mirror over several ends: a process that serves many peers asks each of them for the same root.
   /// Asks the peer for `root`, whose mirror is at another end; `state` tells how the peer answers. Does nothing where the root is
   /// mounted or asked for already. `unmount` withdraws the request, and needs no memory to do so.
   void ask(Name const& root) { mounts_.ask(root); }
   /// \param call told that the peer opens `root`. Where the root shall be this peer's, it moves the mirror to this end. It returns
   /// whether the mirror is here now. Where it is not, or where the call throws, which is reported, this end withdraws its request.
   void onOpening(std::function<bool(Name const& root)> call) { mounts_.onOpening(std::move(call)); }
   /// Hands the mirror, which waits for its owner here, over to `to`. The mirror keeps what it holds, and is bound there in place.
   /// This end continues to ask for the root.
   void mountMove(Name const& root, LinkEnd& to) { mounts_.moveMirror(root, to.mounts_); }
   /// Whether `root` is mounted or asked for here.
   bool hasAsked(Name const& root) const noexcept { return mounts_.has(root); }
   /// Whether the peer has answered for `root` on this connection.
   bool isAnswered(Name const& root) const noexcept { return mounts_.isAnswered(root); }
   /// Whether the peer has opened `root` on this connection, and has not ended it.
   bool isOpen(Name const& root) const noexcept { return mounts_.isOpen(root); }

   // The carrier.
   /// A fresh byte stream begins. What an earlier one had not carried is dropped.
   void connected();
   /// Applies what the peer has sent. Throws nothing: where the bytes break the protocol, `failure` says how, and the carrier must
   /// close the stream.
   void bytesArrived(std::span<std::uint8_t const> bytes) noexcept;
   /// The next bytes to carry. Writes what is owed before, as far as the buffer has room. Valid until anything is written. Without
   /// memory it is reported, and the rest waits for the next call.
   std::span<std::uint8_t const> bytesToSend();
   /// The carrier has taken the first `n` of those bytes.
   void bytesSent(std::size_t n);
   /// The stream has ended. Mirrors keep what they have.
   void peerGone(std::string_view reason);
   /// All that a stream may carry to a peer whose connection is refused: a hello, and why.
   static std::vector<std::uint8_t> refusal(std::string_view name, std::string_view why);

   bool isConnected() const noexcept { return isConnected_; }
   /// Whether the peer has said its hello on this connection. A carrier with a clock gives up on a peer that does not.
   bool isGreeted() const noexcept { return isGreeted_; }
   /// Why the last stream had to end; empty while nothing is wrong.
   std::string const& failure() const noexcept { return failure_; }
   /// Whether the peer has said its hello, has applied everything that was written here and has answered for every root that is
   /// mounted, and neither end owes the other anything that this end knows of.
   bool quiet() const noexcept;
   /// The peer's name as its last hello says it; empty before the first.
   std::string const& peerName() const noexcept { return peerName_; }
   U64 peerIncarnation() const noexcept { return peerIncarnation_; }

   NboAttrLog::Demuxer& demuxer() noexcept { return demuxer_; }
   NboAttrLog::Demuxer const& demuxer() const noexcept { return demuxer_; }
   /// Told of every record that could not be applied or sent, with stream, offset, entity and attribute.
   void onReport(NboAttrLog::Demuxer::Report report) { demuxer_.reportIs(std::move(report)); }

   using Counters = NboAttrLog::Demuxer::Counters;
   Counters const& counters() const noexcept { return demuxer_.counters(); }

   /// Sizes of what this end holds.
   struct Footprint {
      NboAttrLog::Demuxer::Footprint stream;
      std::size_t mounts = 0;     ///< roots that are mounted or asked for here
      std::size_t owedMounts = 0; ///< of those, the ones that the peer has still to be asked for
      std::size_t owedUnmounts =
         0;                     ///< withdrawals that are not written yet; at most as many as there were mounts written
      std::size_t requests = 0; ///< roots that the peer has asked for and not withdrawn, at most `mostRequests`
      std::size_t owedAnswers = 0;  ///< to the peer's mounts; at most the request window of this side's hello
      std::size_t owedRefusals = 0; ///< to the peer's writes; at most the same window
      /// Bytes of control frames in the buffer: at most the size from which on the buffer takes nothing more, one group of frames
      /// beyond it, and one answer to everything that is owed.
      std::size_t controlBytes = 0;

      Footprint& operator+=(Footprint const& other) noexcept;
   };
   Footprint footprint() const;
   /// How many parts of this end have tables that contradict themselves or each other; 0 while all is well.
   std::size_t auditErrors() const;

   /// The random number that stands for this process in its hellos. It stays the same for as long as the process runs.
   static U64 processIncarnation();
   /// Most roots that a peer may have mounted.
   static constexpr std::size_t mostRequests = NboAttrLog::Exports::mostRequests;
   /// Longest name of an end, which its hello says.
   static constexpr std::size_t longestEndName = 255;
   /// Longest name of a root that a peer may ask for.
   static constexpr std::size_t longestName = NboAttrLog::Exports::longestName;

private:
   void endIfAsked();
   void settleControl();
   void settleWaits();
   U64 checkedCount(U64 count, char const* what) const;

   void on(NboAttrLog::Hello const& hello);
   void on(NboAttrLog::Acknowledgement const& ack);
   void on(NboAttrLog::Refused const& refused);
   void on(NboAttrLog::Mount const& mount) { exports_.asked(mount); }
   void on(NboAttrLog::Unmount const& unmount) { exports_.withdrawn(unmount); }
   void on(NboAttrLog::Mounted const& mounted) { mounts_.answered(mounted); }
   void on(NboAttrLog::Retire const& retire) { demuxer_.retired(retire.entity); }
   void on(NboAttrLog::Refresh const& refresh) { demuxer_.refresh(refresh.entity, refresh.attribute, refresh.key); }
   void on(NboAttrLog::Ping const& ping);
   void on(NboAttrLog::Pong const&) {}
   void on(NboAttrLog::ConfirmedAt const&) {}
   void on(NboAttrLog::Waiting const& waiting);

   /// How many records had gone in either direction when an end had nothing to write but what needs an announcement of the other.
   struct Standstill {
      U64 applied = ~0ull;
      U64 written = ~0ull;
      friend bool operator==(Standstill const&, Standstill const&) = default;
   };

   // From the construction on.
   std::string name_;
   U64 incarnation_;
   NboAttrLog::Demuxer demuxer_;
   NboAttrLog::Exports exports_{demuxer_};
   NboAttrLog::Mounts mounts_{demuxer_};

   bool isConnected_ = false; ///< from `connected` until the stream has ended
   bool isGreeted_ = false;   ///< from the peer's hello until the stream has ended
   /// While frames are applied or answers written. Bytes that arrive then are queued, and the stream ends or begins only behind that.
   bool isApplying_ = false;
   bool isSettling_ = false;   ///< while answers are written: they are not written again from within
   bool mustEnd_ = false;      ///< from a `peerGone` while `isApplying_` until the stream has ended
   bool mustConnect_ = false;  ///< from a `connected` while `isApplying_` until the stream has been replaced
   std::uint32_t attempt_ = 0; ///< that the last hello of this side said; each connection has a higher one
   std::string failure_;       ///< from a failure on until the next `connected`
   std::string endReason_;     ///< goes with `mustEnd_`
   std::string peerName_;      ///< from the first hello on, as the last one said it
   U64 peerIncarnation_ = 0;   ///< as `peerName_`; 0 before
   U64 peerApplied_ = 0;       ///< records of this connection that the peer has acknowledged
   Standstill told_;           ///< the last on this connection that this end has told of itself
   Standstill peers_;          ///< the last on this connection that the peer has told of itself
};

namespace NboAttrLog {
/// Adds up counters of several streams.
Demuxer::Counters& operator+=(Demuxer::Counters& sum, Demuxer::Counters const& other) noexcept;
} // namespace NboAttrLog

} // namespace Mox
