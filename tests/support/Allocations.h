// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <new>

/// Calls of `operator new` in this program so far, arrays included.
std::size_t allocations() noexcept;
/// Bytes that are allocated now.
std::size_t liveBytes() noexcept;

/// While it lives, every allocation of this program fails, or only one: the next, or the one behind that many others.
class NoMemory {
public:
   explicit NoMemory(bool failsOnce = false, std::size_t skipped = 0) noexcept;
   ~NoMemory();
   NoMemory(NoMemory const&) = delete;
   NoMemory& operator=(NoMemory const&) = delete;
   /// The next one has failed.
   static bool hasFailed() noexcept;
};

/// Calls `call` while one allocation fails, behind `skipped` others. \return whether it came to that
template <class Call> bool failingOnce(std::size_t skipped, Call const& call) {
   NoMemory const once(true, skipped);
   try {
      call();
   } catch (std::bad_alloc const&) {
   }
   return NoMemory::hasFailed();
}

/// While it lives, allocations succeed as if no `NoMemory` were about, and don't count for it.
class EnoughMemory {
public:
   EnoughMemory() noexcept;
   ~EnoughMemory();
   EnoughMemory(EnoughMemory const&) = delete;
   EnoughMemory& operator=(EnoughMemory const&) = delete;

private:
   int before_;
};
