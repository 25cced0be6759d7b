#include "containers/SnapshotStack.h"

#include <algorithm>
#include <utility>

namespace Mox {

namespace {

// Plain words, so that a pass that runs after this thread's destructors still finds a usable, empty stack.
struct Storage {
   void** slots;
   std::size_t size;
   std::size_t capacity;
};
constinit thread_local Storage storage{nullptr, 0, 0};

struct Janitor {
   Janitor() noexcept {} // not trivial: touching it is what registers the destructor
   ~Janitor() {
      delete[] std::exchange(storage.slots, nullptr);
      storage.capacity = 0;
   }
   void touch() noexcept {}
};
thread_local Janitor janitor;

} // namespace

std::size_t SnapshotStack::push(std::size_t count) {
   std::size_t const base = storage.size;
   if (count > storage.capacity - base) {
      janitor.touch();
      std::size_t const capacity = std::max({std::size_t{64}, storage.capacity * 2, base + count});
      auto* const slots = new void*[capacity];
      std::copy_n(storage.slots, base, slots);
      delete[] std::exchange(storage.slots, slots);
      storage.capacity = capacity;
   }
   storage.size = base + count;
   return base;
}

void SnapshotStack::pop(std::size_t base) noexcept {
   storage.size = base;
}

void*& SnapshotStack::at(std::size_t index) noexcept {
   return storage.slots[index];
}

} // namespace Mox
