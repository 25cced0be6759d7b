// A file of its own, so that no compiler sees through the replaced operators and pairs them with the library's.
#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace {
bool isArmed = false;
bool happened = false;
} // namespace

namespace Simulation {

FailedAllocation::FailedAllocation() noexcept {
   isArmed = true;
   happened = false;
}
FailedAllocation::~FailedAllocation() {
   isArmed = false;
}
bool FailedAllocation::hasHappened() noexcept {
   return happened;
}

} // namespace Simulation

void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
   if (isArmed) {
      isArmed = false;
      happened = true;
      return nullptr;
   }
   return std::malloc(size == 0 ? 1 : size);
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
   std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
   std::free(p);
}
void operator delete(void* p, std::nothrow_t const&) noexcept {
   std::free(p);
}
void operator delete[](void* p) noexcept {
   std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
   std::free(p);
}
void operator delete[](void* p, std::nothrow_t const&) noexcept {
   std::free(p);
}
