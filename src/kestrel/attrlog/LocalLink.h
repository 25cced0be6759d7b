// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/attrlog/LinkEnd.h"

#include <string_view>

namespace Mox {

/// Two ends joined in memory: what a socket would carry, carried by `settle`.
///
///    Mox::LocalLink link;
///    link.left().exportRoot(ours);
///    auto theirs = link.right().mount<Cl10010ConfigDir>("config");
///    link.settle();
class LocalLink {
public:
   LocalLink() : left_("left"), right_("right") { reconnect(); }

   LinkEnd& left() noexcept { return left_; }
   LinkEnd& right() noexcept { return right_; }

   /// Carries bytes both ways until neither end has anything to say.
   void settle() {
      while (carry(left_, right_) || carry(right_, left_)) {
      }
   }
   void cut() {
      left_.peerGone("cut");
      right_.peerGone("cut");
   }
   void reconnect() {
      left_.connected();
      right_.connected();
   }

private:
   static bool carry(LinkEnd& from, LinkEnd& to) {
      auto const bytes = from.bytesToSend();
      if (bytes.empty())
         return false;
      // A copy: what arrives may make the sender write.
      std::vector<std::uint8_t> const copy(bytes.begin(), bytes.end());
      from.bytesSent(copy.size());
      to.bytesArrived(copy);
      return true;
   }

   LinkEnd left_;
   LinkEnd right_;
};

} // namespace Mox
