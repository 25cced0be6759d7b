// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/Exceptions.h"

namespace Mox {

namespace {
thread_local Expect const* innermost = nullptr;
}

void throwRangeException(std::string_view text) {
   throw RangeException(std::string(text));
}

void throwNameInUseException(std::string_view text) {
   throw NameInUseException(std::string(text));
}

void throwInternalException(std::string_view text) {
   throw InternalException(std::string(text));
}

void Expect::enter() noexcept {
   outer_ = innermost;
   innermost = this;
}

void Expect::leave() noexcept {
   innermost = outer_;
}

bool Expect::isExpected(unsigned id) noexcept {
   for (Expect const* scope = innermost; scope != nullptr; scope = scope->outer_)
      if (scope->id_ == id)
         return true;
   return false;
}

} // namespace Mox
