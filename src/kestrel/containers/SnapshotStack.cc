// SPDX-License-Identifier: Apache-2.0
#include "kestrel/containers/SnapshotStack.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Mox {

namespace {

struct Block {
   Block(Block* below, std::size_t size) : slots(new void*[size]), top(slots), end(slots + size), before(below) {}
   Block(Block const&) = delete;
   Block& operator=(Block const&) = delete;
   ~Block() { delete[] slots; }

   std::size_t left() const noexcept { return static_cast<std::size_t>(end - top); }

   void** const slots;
   void** top;
   void** const end;
   Block* before;
   Block* behind = nullptr;
};

// A plain pointer, so that a pass that runs after this thread's destructors still finds a usable, empty stack.
constinit thread_local Block* current = nullptr; // never an empty block above another one

struct Janitor {
   Janitor() noexcept {} // not trivial: touching it is what registers the destructor
   ~Janitor() {
      Block* block = std::exchange(current, nullptr);
      while (block != nullptr && block->behind != nullptr)
         block = block->behind;
      while (block != nullptr)
         delete std::exchange(block, block->before);
   }
   void touch() noexcept {}
};
thread_local Janitor janitor;

/// The next block, all of it free.
Block* blockBehind(std::size_t count) {
   janitor.touch();
   Block* const old = current != nullptr ? current->behind : nullptr;
   if (old != nullptr && old->left() >= count)
      return old;
   std::size_t const below = current != nullptr ? static_cast<std::size_t>(current->end - current->slots) : 0;
   auto* const block = new Block(current, std::max({std::size_t{64}, below * 2, count}));
   if (old != nullptr) {
      // The block that was there is too small: the new one replaces it.
      block->behind = old->behind;
      if (old->behind != nullptr)
         old->behind->before = block;
      delete old;
   }
   if (current != nullptr)
      current->behind = block;
   return block;
}

} // namespace

void** SnapshotStack::push(std::size_t count) {
   if (current == nullptr || current->left() < count)
      current = blockBehind(count);
   void** const room = current->top;
   current->top += count;
   return room;
}

bool SnapshotStack::reserve(std::size_t count) noexcept {
   try {
      if (current == nullptr)
         current = blockBehind(count);
      else if (current->left() < count)
         blockBehind(count);
      return true;
   } catch (std::bad_alloc const&) {
      return false;
   }
}

void SnapshotStack::pop(void** room) noexcept {
   current->top = room;
   if (room == current->slots && current->before != nullptr)
      current = current->before;
}

} // namespace Mox
