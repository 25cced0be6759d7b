// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/WaitingMirrors.h"

#include <new>
#include <utility>

namespace Mox::NboAttrLog {

void WaitingMirrors::add(Mirror mirror) {
   Sa& sa = *mirror.sa;
   mirrors_.push_back(std::move(mirror));
   if (sa.isOrphan())
      try {
         orphans_.emplace(sa.entity()->moxName(), &sa);
      } catch (std::bad_alloc const&) {
         isIndexWhole_ = false;
      }
   sa.waitingAtIs(static_cast<std::uint32_t>(mirrors_.size() - 1));
   sa.wait();
}

Mirror WaitingMirrors::taken(Sa& sa) noexcept {
   std::uint32_t const place = sa.waitingAt();
   sa.waitingAtIs(Notes::unlisted);
   sa.takeOut();
   Mirror mirror = std::move(mirrors_[place]);
   if (place + 1 != mirrors_.size()) {
      mirrors_[place] = std::move(mirrors_.back());
      mirrors_[place].sa->waitingAtIs(place);
   }
   mirrors_.pop_back();
   if (sa.isOrphan()) {
      for (auto at = orphans_.find(mirror.entity->moxName()); at != orphans_.end(); ++at)
         if (at->second == &sa) {
            orphans_.erase(at);
            break;
         }
   }
   if (mirrors_.empty()) {
      orphans_ = {}; // memory comes back after a burst
      isIndexWhole_ = true;
   }
   return mirror;
}

std::string WaitingMirrors::audit() const {
   std::size_t orphans = 0;
   for (std::size_t i = 0; i < mirrors_.size(); ++i) {
      Mirror const& mirror = mirrors_[i];
      if (!mirror.sa || !mirror.entity || mirror.sa->entity() != mirror.entity.get())
         return "a waiting mirror has no entity, or another than its adapter";
      std::string const which = "waiting mirror " + mirror.entity->fullName().str();
      if (mirror.sa->waitingAt() != i)
         return which + " does not know its place";
      if (mirror.sa->phase() != Phase::waiting || mirror.sa->entityId().isAssigned())
         return which + " is " + textOf(mirror.sa->phase()) + ", or has an identifier";
      orphans += mirror.sa->isOrphan();
   }
   if (isIndexWhole_ && orphans != orphans_.size())
      return "of " + std::to_string(orphans) + " waiting orphans " + std::to_string(orphans_.size()) +
             " can be found by name";
   return {};
}

} // namespace Mox::NboAttrLog
