// A file of its own, so that no compiler sees through the replaced operators and pairs them with the library's.
#include "Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::size_t> calls{0};
}

std::size_t allocations() noexcept {
   return calls;
}

void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
   ++calls;
   return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
   if (void* const p = operator new(size, std::nothrow))
      return p;
   throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
   std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
   std::free(p);
}
void operator delete(void* p, std::nothrow_t const&) noexcept {
   std::free(p);
}
