// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/entities/Cl10010ConfigReactor.h"

#include <cstddef>
#include <cstdint>
#include <memory>

// Reactors and observers, compiled apart from their callers, so that the compiler can't see through the calls.

namespace bench {

/// A reactor that counts, and the same work behind one plain virtual function.
Mox::Ptr<Hardware::ClariPhy::Cl10010Config::NotifieeConst> makeReactor();

class Observer {
public:
   virtual ~Observer() = default;
   virtual void onRefClock() = 0;
   virtual void onValue(std::uint32_t value) = 0;
};
std::unique_ptr<Observer> makeObserver();

} // namespace bench
