// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/Demuxer.h"
#include "kestrel/core/Ptr.h"
#include "kestrel/core/String8.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Mox::NboAttrLog {

/// The roots that one end of a link exports, the requests of the peer for roots, and the answers that are still to be written.
///
/// An answer is kept as what is owed, and becomes a frame when the buffer has room. So a peer that does not read is owed the
/// newest answer to each of its requests, and nothing that was true in between. An answer is written before the announcement of
/// the root that it opens.
class Exports {
public:
   /// Most requests of the peer that are kept. Further ones are refused.
   static constexpr std::size_t mostRequests = 1024;
   /// Longest name of a root that the peer may ask for.
   static constexpr std::size_t longestName = 1024;

   /// \param demuxer of the same end; it outlives this table
   explicit Exports(Demuxer& demuxer) noexcept : demuxer_(demuxer) {}
   Exports(Exports const&) = delete;
   Exports& operator=(Exports const&) = delete;

   // The roots.
   /// Exports `root` and owes the peer an answer if it has asked for a root of that name. The caller has checked that the type has
   /// an attribute log. \throws NameInUseException where a root of that name is exported already
   void add(Ptr<Entity> const& root);
   /// Ends the export of `root`, and owes the peer that if it has been told of the root. Does nothing for what is not exported.
   /// \throws std::bad_alloc; nothing has changed then
   void remove(Ptr<Entity> const& root);
   /// An exported root that is `entity`, lies below it or lies above it; null for none.
   Entity const* rootAround(Entity const& entity) const noexcept;

   // What the peer and the stream say.
   /// \throws ProtocolException where the peer has more requests without an answer than the hello of this side allows
   void asked(Mount const& mount);
   void withdrawn(Unmount const& unmount);
   /// The peer takes too few identifiers for everything below `root`. The stream is in the middle of telling it, so that the
   /// refusal is only noted here.
   void limitReached(Entity const& root) noexcept;
   /// A batch of the peer's frames has been applied. What some constructor parameter refers to may have been announced in it, so
   /// the requests for such roots are to be answered anew.
   void retryDeferred() noexcept;
   /// The connection is over: there are no requests, and no answer is owed.
   void connectionEnded() noexcept;

   /// Writes the answers that are owed, as far as the buffer has room.
   void writeOwed();

   // What is held and owed.
   std::size_t requests() const noexcept { return requests_.size(); }
   std::size_t owedAnswers() const noexcept;

   /// What is wrong with the tables; empty where all is well.
   std::string audit() const;

private:
   /// A root that the peer has asked for on this connection. It lives until the peer withdraws the request, or the connection ends.
   struct Request {
      std::uint32_t handle; ///< chosen by the peer; names the request in frames
      Name name;            ///< of the root
      /// Set while the root is told to the peer: from its opening until its end, its refusal or the end of its export.
      Ptr<Entity> root;
      /// Other than `none` where the root is exported and can't be told; until it is exported anew or no longer.
      Reason refusal = Reason::none;
      bool owesGone = false;  ///< from the end of a root that was open until the peer has been told
      bool owesAnswer = true; ///< from the request, or from a change of what holds, until an answer has been written
      /// The peer has been told that a constructor parameter of the root refers to something without an identifier. It holds until
      /// the root is open or no longer exported.
      bool isDeferred = false;
   };

   void owe(Request& request) noexcept { request.owesAnswer = owesAnswers_ = true; }
   void answer(Request& request);
   void open(Request& request, Entity& root);
   void refuse(Request& request, Reason reason);
   void say(Request const& request, MountState state, Reason reason, EntityId root = {});
   void forgetBehindLastRoot();

   Demuxer& demuxer_;
   std::unordered_map<Name, Ptr<Entity>> roots_; ///< under their names
   std::vector<Request> requests_;               ///< empty without a connection
   /// Handles of requests that are not kept, until each has been refused: those above `mostRequests`, those with a name that is too
   /// long, and those whose name or handle another request has. Empty without a connection.
   std::vector<std::uint32_t> overLimit_;
   bool owesAnswers_ = false; ///< true at least while some request owes an answer or its end
};

} // namespace Mox::NboAttrLog
