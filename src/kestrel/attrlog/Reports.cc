// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/Reports.h"

#include <utility>

namespace Mox::NboAttrLog {

void Reports::tell(std::string const& text) const noexcept {
   try {
      if (!call_)
         return;
      if (!isHoldingBack_)
         call_(text);
      else if (heldBack_.size() < mostHeldBack)
         heldBack_.push_back(text);
      else
         ++moreHeldBack_;
   } catch (...) {
      Mox::detail::exceptionSwallowed(nullptr, attr::none);
   }
}

void Reports::tellHeldBack(std::string const& stream) noexcept {
   if (heldBack_.empty())
      return;
   for (std::string const& text : std::exchange(heldBack_, {}))
      tell(text);
   if (std::size_t const more = std::exchange(moreHeldBack_, 0); more != 0)
      tell("stream \"" + stream + "\": " + std::to_string(more) + " more of what could not be told");
}

} // namespace Mox::NboAttrLog
