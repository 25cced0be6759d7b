// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/LinkEnd.h"
#include "kestrel/notify/Dump.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

/// The first thing that is wrong with what `demuxer` holds; empty where all is well.
template <class Demuxer> std::string auditOf(Demuxer const& demuxer) {
   if constexpr (requires { demuxer.audit(); })
      return demuxer.audit();
   else
      return {};
}

/// Hands at most `most` bytes over. \return how many
inline std::size_t carry(Mox::LinkEnd& from, Mox::LinkEnd& to, std::size_t most = ~std::size_t{0}) {
   auto const bytes = from.bytesToSend();
   // A copy: what arrives may make the sender write.
   std::vector<std::uint8_t> const copy(bytes.begin(), bytes.begin() + static_cast<long>(std::min(bytes.size(), most)));
   from.bytesSent(copy.size());
   to.bytesArrived(copy);
   return copy.size();
}

/// Carries until neither has anything to say; what comes to no end fails. \param audits how many rounds are looked into
inline void settleEnds(Mox::LinkEnd& left, Mox::LinkEnd& right, int audits = 100) {
   for (int round = 0; round < 5000; ++round) {
      bool const isQuiet = carry(left, right) + carry(right, left) == 0;
      if (round < audits) {
         EXPECT_EQ(auditOf(left.demuxer()), "") << left.demuxer().name();
         EXPECT_EQ(auditOf(right.demuxer()), "") << right.demuxer().name();
      }
      if (isQuiet)
         return;
   }
   ADD_FAILURE() << "the two ends don't stop talking";
}

inline void expectEqual(Mox::Entity const& ours, Mox::Entity const& theirs) {
   for (auto const& d : diff(ours, theirs))
      ADD_FAILURE() << d.path << ": " << d.left << " | " << d.right;
   EXPECT_EQ(theirs.auditErrors(4), 0u);
}
