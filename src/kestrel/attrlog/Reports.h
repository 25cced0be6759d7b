// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Callback.h"
#include "kestrel/core/Identifiers.h"
#include "kestrel/mox/Swallowed.h"

#include <concepts>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Mox::NboAttrLog {

/// What happened on a stream since it was made.
struct StreamCounters {
   U64 staleRecords = 0;    ///< for an identifier that has been retired
   U64 staleReferences = 0; ///< to an identifier that has been retired
   U64 unknownEnums = 0;    ///< records dropped for an enumerator that this side lacks
   U64 badValues = 0;       ///< records dropped for another value that this side can't hold
   U64 unknownAttributes = 0;
   U64 unknownTypes = 0; ///< orphans of a type that this side lacks
   U64 unknownKinds = 0;
   U64 refusedWrites = 0;         ///< of the peer, to what this side owns
   U64 tooLong = 0;               ///< records never sent, because the peer takes none of that length
   U64 withoutIdentifier = 0;     ///< records never sent, because the peer takes no further identifier
   U64 unsentEnums = 0;           ///< values and keys never sent, because they are no enumerators of their type
   U64 withoutLog = 0;            ///< references sent as null, because the target's type has no log
   U64 applicationExceptions = 0; ///< that left a mutator while a record was applied
   U64 restartedAnnouncements = 0;
   U64 unfinishedAnnouncements = 0; ///< given up after 1 + references restarts
   U64 parked = 0;
   U64 woken = 0;
   U64 sweptEntries = 0;
   U64 owedAll = 0;
   U64 collectionRestarts = 0;
   U64 pausedCollections = 0;
   U64 grownWhilePaused = 0;
   U64 reusedSlots = 0;
   U64 refreshesAsked = 0;
   U64 refreshesAnswered = 0;
   U64 renamedMembers = 0; ///< a name announced under another identifier within the connection
   U64 belowCursor = 0;    ///< marks set behind a flow's position, which a further round sends
   U64 abortedResends = 0; ///< resends of a collection that began anew before their end
   U64 brokenWaits = 0;    ///< mirrors released because both ends waited for each other
};

/// Counts what happens on one stream, and tells a function of the application what went wrong with a record.
class Reports {
public:
   /// Told what went wrong with one record, with stream, offset, entity and attribute: the connection goes on.
   using Call = std::function<void(std::string const&)>;
   void callIs(Call call) { call_ = std::move(call); }

   /// What the function throws goes where reactors' exceptions go (mox/Swallowed.h): no record and no stream is at fault.
   void tell(std::string const& text) const noexcept;
   /// The same for a text that is made here: without memory for it nothing is told, and nothing fails.
   template <std::invocable Make> void tell(Make make) const noexcept {
      try {
         tell(make());
      } catch (...) {
         Mox::detail::exceptionSwallowed(nullptr, attr::none);
      }
   }
   /// From here to `tellHeldBack` nothing is told: the function may end what is being told about. The first `mostHeldBack` texts are
   /// kept in words, of the others the number.
   void holdBack() noexcept { isHoldingBack_ = true; }
   void endHoldingBack() noexcept { isHoldingBack_ = false; }
   /// Tells what was held back. \param stream the stream's name, for the last text
   void tellHeldBack(std::string const& stream) noexcept;

   StreamCounters counters;

private:
   static constexpr std::size_t mostHeldBack = 64;

   Callback<void(std::string const&)> call_;
   bool isHoldingBack_ = false;
   mutable std::vector<std::string> heldBack_;
   mutable std::size_t moreHeldBack_ = 0; ///< that came behind those
};

} // namespace Mox::NboAttrLog
