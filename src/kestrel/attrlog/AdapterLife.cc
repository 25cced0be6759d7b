// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/AdapterLife.h"

#include "kestrel/core/Exceptions.h"

namespace Mox::NboAttrLog {

namespace {

constexpr unsigned bit(Phase phase) {
   return 1u << static_cast<unsigned>(phase);
}

/// The phases that an adapter may enter `to` from: a row of the table.
constexpr unsigned before(Phase to) {
   switch (to) {
   case Phase::made:
      return 0;
   case Phase::identified:
      return bit(Phase::made);
   case Phase::announced: // an announced member is announced again where its name has changed hands
      return bit(Phase::identified) | bit(Phase::announced);
   case Phase::waiting:
      return bit(Phase::made) | bit(Phase::bound);
   case Phase::bound:
      return bit(Phase::made) | bit(Phase::taken);
   case Phase::taken:
      return bit(Phase::waiting) | bit(Phase::bound);
   case Phase::released:
      return bit(Phase::taken);
   case Phase::detached:
      return ~bit(Phase::detached);
   }
   return 0;
}

constexpr unsigned ofExports = bit(Phase::made) | bit(Phase::identified) | bit(Phase::announced) | bit(Phase::detached);
constexpr unsigned ofMirrors = ~(bit(Phase::identified) | bit(Phase::announced));

} // namespace

char const* textOf(Phase phase) noexcept {
   switch (phase) {
   case Phase::made:
      return "made";
   case Phase::identified:
      return "identified";
   case Phase::announced:
      return "announced";
   case Phase::waiting:
      return "waiting";
   case Phase::bound:
      return "bound";
   case Phase::taken:
      return "taken";
   case Phase::released:
      return "released";
   case Phase::detached:
      return "detached";
   }
   return "?";
}

void AdapterLife::standingIs(Standing standing) {
   if (standing_ == Standing::root && standing != Standing::root)
      throwInternalException("a root can't become a member or an orphan");
   standing_ = standing;
}

bool AdapterLife::canEnter(Phase phase, bool isMirror) const noexcept {
   return (before(phase) & bit(phase_)) != 0 && ((isMirror ? ofMirrors : ofExports) & bit(phase)) != 0;
}

void AdapterLife::enter(Phase phase, bool isMirror) {
   if (!canEnter(phase, isMirror))
      throwInternalException(std::string("an adapter of ") + (isMirror ? "a mirror" : "an exported entity") +
                             " that is " + textOf(phase_) + " can't become " + textOf(phase));
   phase_ = phase;
}

} // namespace Mox::NboAttrLog
