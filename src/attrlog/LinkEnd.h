// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "attrlog/Demuxer.h"
#include "core/Callback.h"
#include "core/Ptr.h"
#include "core/String8.h"

#include <concepts>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
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
/// What one end has to say about roots is kept as state and written when the buffer has room: a peer that does not read is owed
/// the newest answer to each of its requests, and nothing that was true in between.
///
/// *Threads*: one. *Re-entrancy*: reactors and the functions that an end is given may call everything, `bytesArrived` included: those
/// bytes wait. They may replace each of those functions from within itself, but not destroy the end that is calling them.
class LinkEnd {
public:
   /// How a mounted root stands.
   enum class State {
      connecting, ///< no stream
      syncing,    ///< asked for, or the owner tells it, for the first time or again
      live,       ///< told whole; changes follow as they happen
      stale,      ///< the stream has ended, or the owner exports it no more: the mirror keeps what it had
      refused,    ///< the owner does not grant it, or can't go on telling it: the mirror keeps what it had
      mismatch, ///< the owner's root is of another type than the mirror, or was made with other constructor parameters
      notExported, ///< the peer exports no root of that name; once it does, the mirror goes on to `syncing`
   };
   using StateCall = std::function<void(Name const& root, State state)>;

   /// \param name of this end in messages, at most `longestEndName` bytes \throws RangeException for a longer one
   /// \param incarnation of this process; 0 takes the process's own, which is random
   explicit LinkEnd(std::string_view name, U64 incarnation = 0);
   ~LinkEnd();
   LinkEnd(LinkEnd const&) = delete;
   LinkEnd& operator=(LinkEnd const&) = delete;

   // Roots.
   /// Lets the peer mirror `root` and everything below it, read-only. Holds a reference.
   /// \throws NameInUseException when a root of that name is exported already, TypeException for a type without an attribute log,
   /// RangeException for null
   void exportRoot(Ptr<Entity> const& root);
   /// Ends it: the peer is told that the root is gone.
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
   /// As `mount`, into an entity of the caller's: for roots with constructor parameters. One that others mirror from here may be
   /// mounted, and passes on what its owner says.
   /// \throws NameInUseException also when `mirror` is a mirror already, over whatever link, is part of one or holds one, is
   /// exported over this very link, or is a former member of what was, still told there: an entity has one owner
   void mountIs(Ptr<Entity> const& mirror);
   /// Ends the mirror; the entity stays as it is, and is an ordinary one from then on.
   void unmount(Name const& name);

   /// What the call throws is reported.
   void onState(StateCall call) { stateCall_ = std::move(call); }
   /// \throws RangeException for a root that is not mounted
   State state(Name const& root) const;
   /// Why the root is refused, of another type, not exported; ready to print, empty where it stands well. \throws as `state`
   std::string const& reason(Name const& root) const;
   bool hasMounts() const noexcept { return mirrorCount() != 0; }

   // One mirror over several ends: who serves many peers asks each of them for the same root.
   /// Asks the peer for `root`, whose mirror is at another end; `state` tells of the answer. Does nothing where that is mounted or
   /// asked for already; `unmount` withdraws it, and needs no memory.
   void ask(Name const& root);
   /// \param call told that the peer opens `root`: moves the mirror to this end, if it shall be this peer's, and returns whether it
   /// is here now. Where it is not, or the call throws, which is reported, this end withdraws its request.
   void onOpening(std::function<bool(Name const& root)> call) { openingCall_ = std::move(call); }
   /// Hands the mirror, which waits for its owner here, over to `to`; what it holds stays, and is bound there in place. This end
   /// asks for the root on.
   void mountMove(Name const& root, LinkEnd& to);
   /// Whether `root` is mounted or asked for here.
   bool hasAsked(Name const& root) const noexcept { return findMount(root) != nullptr; }
   /// Whether the peer has answered for `root` on this connection.
   bool isAnswered(Name const& root) const noexcept;
   /// Whether the peer has opened `root` on this connection, and has not ended it.
   bool isOpen(Name const& root) const noexcept;

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
   /// All that a stream may carry to one whose connection is refused: a hello, and why.
   static std::vector<std::uint8_t> refusal(std::string_view name, std::string_view why);

   bool isConnected() const noexcept { return isConnected_; }
   /// Whether the peer has said its hello on this connection. A carrier with a clock gives up on one that does not.
   bool isGreeted() const noexcept { return isGreeted_; }
   /// Why the last stream had to end; empty while nothing is wrong.
   std::string const& failure() const noexcept { return failure_; }
   /// The peer has said its hello, everything written here has been applied there, each root that is mounted has been answered, and nothing is owed in either
   /// direction that this end knows of.
   bool quiet() const noexcept;
   /// The peer's name, of its hello; empty before.
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
      std::size_t mounts = 0;       ///< roots mounted or asked for here
      std::size_t owedMounts = 0;   ///< of those, not written yet
      std::size_t owedUnmounts = 0; ///< at most the mounts that were written
      std::size_t requests = 0;     ///< the peer's open mounts, at most `mostRequests`
      std::size_t owedAnswers = 0;  ///< to the peer's mounts; with the next one at most `requestWindow`
      std::size_t owedRefusals = 0; ///< to the peer's writes, at most `requestWindow`
      std::size_t controlBytes = 0; ///< in the buffer: the buffer's mark, one group, and one answer to everything owed

      Footprint& operator+=(Footprint const& other) noexcept;
   };
   Footprint footprint() const;
   /// The number of promises about this end's own lists that do not hold; 0 while all is well.
   std::size_t auditErrors() const;

   static U64 processIncarnation();
   /// Most roots that a peer may have mounted.
   static constexpr std::size_t mostRequests = 1024;
   /// Longest name of an end, which its hello says.
   static constexpr std::size_t longestEndName = 255;
   /// Longest name of a root that a peer may wait for.
   static constexpr std::size_t longestName = 1024;

private:
   /// A root of the peer's.
   struct Mount {
      std::uint32_t handle = 0;
      Name name;
      Ptr<Entity> mirror; ///< null where it is at another end
      State state = State::connecting;
      std::string reason;
      bool isAsked = false; ///< on this connection, as is what follows
      bool isAnswered = false;
      bool isOpen = false;
   };
   /// A root that the peer has asked for.
   struct Request {
      std::uint32_t handle;
      Name name;
      Ptr<Entity> root;                                      ///< null while it is not open
      NboAttrLog::Reason refusal = NboAttrLog::Reason::none; ///< the root is exported and not granted
      bool owesGone = false;                                 ///< an open root has ended, untold
      bool owesAnswer = true;
      bool waits = false; ///< the root's parameters have no identifiers yet
   };

   Mount const* findMount(Name const& name) const noexcept;
   Mount* findMount(Name const& name) noexcept;
   Mount* findHandle(std::uint32_t handle) noexcept;
   Mount const& mountOf(Name const& name) const;
   void reserveMount();
   std::size_t mirrorCount() const noexcept;
   void withdraw(Mount const& mount);
   template <class Call, class Text> void told(Call call, Text what) const;
   void stateIs(Mount& mount, State state, std::string_view reason = {});
   void mirrorEnds(std::uint32_t handle, State state, std::string reason);
   void mirrorsMade();
   void mismatched(NboAttrLog::Demuxer::Sa& sa, std::string const& reason);

   void endIfAsked();
   void settleControl();
   void settleMounts();
   void settleAnswers();
   void answer(Request& request);
   void open(Request& request, Entity& root);
   void announcedEnds();
   /// For the stream to call where it can't tell something below `root`, because the peer takes no more identifiers: the peer is
   /// told that the root is refused, and why, and keeps what it has.
   void rootLimited(Entity& root);
   void settleStates();
   void settleWaits();
   U64 checkedCount(U64 count, char const* what) const;
   std::size_t owedAnswers() const noexcept;

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

   std::string name_;
   U64 incarnation_;
   NboAttrLog::Demuxer demuxer_;
   std::unordered_map<Name, Ptr<Entity>> exports_; ///< under their names
   std::vector<Mount> mounts_;
   /// Written and withdrawn: the peer is still to be told. Has room for all mounts, so that withdrawing needs no memory.
   std::vector<std::uint32_t> unmounts_;
   std::vector<Request> requests_;        ///< the peer's mounts
   std::vector<std::uint32_t> overLimit_; ///< mounts of the peer above `mostRequests`: still to be refused
   Callback<void(Name const& root, State state)> stateCall_;
   Callback<bool(Name const&)> openingCall_;
   bool isConnected_ = false;
   bool isGreeted_ = false;
   bool isApplying_ = false;
   bool isSettling_ = false;
   bool mustEnd_ = false;
   bool mustConnect_ = false;
   bool remountEnded_ = false;
   bool owesAnswers_ = false; ///< some request does
   std::uint32_t attempt_ = 0;
   std::uint32_t lastHandle_ = 0;
   std::uint32_t peerWindow_ = NboAttrLog::leastWindow;
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

namespace NboAttrLog {
/// Adds up counters of several streams.
Demuxer::Counters& operator+=(Demuxer::Counters& sum, Demuxer::Counters const& other) noexcept;
} // namespace NboAttrLog

} // namespace Mox
