#pragma once

#include <cstddef>
#include <new>

/// Calls of `operator new` in this program so far, arrays included.
std::size_t allocations() noexcept;

/// While it lives, every allocation of this program fails.
class NoMemory {
public:
   NoMemory() noexcept;
   ~NoMemory();
   NoMemory(NoMemory const&) = delete;
   NoMemory& operator=(NoMemory const&) = delete;
};

/// While it lives, the next allocation of this program fails, that one only.
class FailedAllocation {
public:
   FailedAllocation() noexcept;
   ~FailedAllocation();
   FailedAllocation(FailedAllocation const&) = delete;
   FailedAllocation& operator=(FailedAllocation const&) = delete;
   static bool hasHappened() noexcept;
};

/// Whether `call` throws `std::bad_alloc` when there is no memory.
template <class Call> bool needsMemory(Call call) {
   NoMemory const none;
   try {
      call();
   } catch (std::bad_alloc const&) {
      return true;
   }
   return false;
}
