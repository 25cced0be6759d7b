#pragma once

namespace Simulation {

/// While it lives, the next allocation of this program fails, that one only.
class FailedAllocation {
public:
   FailedAllocation() noexcept;
   ~FailedAllocation();
   FailedAllocation(FailedAllocation const&) = delete;
   FailedAllocation& operator=(FailedAllocation const&) = delete;
   static bool hasHappened() noexcept;
};

} // namespace Simulation
