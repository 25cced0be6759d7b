// SPDX-License-Identifier: Apache-2.0
// A file of its own, so that no compiler sees through the replaced operators and pairs them with the library's.
#include "support/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {
std::atomic<std::size_t> calls{0};
std::atomic<std::size_t> live{0};
enum class Memory { enough, failsOnce, hasFailed, none };
std::atomic<Memory> memory{Memory::enough};
std::atomic<std::size_t> left{0}; ///< allocations that still succeed before the one that fails

bool fails() noexcept {
   if (memory == Memory::failsOnce && left != 0) {
      --left;
      return false;
   }
   Memory once = Memory::failsOnce;
   return memory == Memory::none || memory.compare_exchange_strong(once, Memory::hasFailed);
}
} // namespace

std::size_t allocations() noexcept {
   return calls;
}

std::size_t liveBytes() noexcept {
   return live;
}

NoMemory::NoMemory(bool failsOnce, std::size_t skipped) noexcept {
   left = skipped;
   memory = failsOnce ? Memory::failsOnce : Memory::none;
}
NoMemory::~NoMemory() {
   memory = Memory::enough;
}
bool NoMemory::hasFailed() noexcept {
   return memory == Memory::hasFailed;
}

EnoughMemory::EnoughMemory() noexcept : before_(static_cast<int>(memory.exchange(Memory::enough))) {}
EnoughMemory::~EnoughMemory() {
   memory = static_cast<Memory>(before_);
}

// The array forms too: under a sanitizer they don't come to the plain ones by themselves.
void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
   ++calls;
   void* const p = fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
   live += malloc_usable_size(p);
   return p;
}
void* operator new(std::size_t size) {
   if (void* const p = operator new(size, std::nothrow))
      return p;
   throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
   return operator new(size, std::nothrow);
}
void* operator new[](std::size_t size) {
   return operator new(size);
}
void operator delete(void* p) noexcept {
   live -= malloc_usable_size(p);
   std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
   operator delete(p);
}
void operator delete[](void* p) noexcept {
   operator delete(p);
}
void operator delete[](void* p, std::size_t) noexcept {
   operator delete(p);
}
