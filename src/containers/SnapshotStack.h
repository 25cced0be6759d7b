#pragma once

#include <cstddef>

namespace Mox {

/// Where snapshots that outgrow their iterator keep their pointers: one stack per thread. It keeps its greatest size, one
/// pointer per element of the longest chain of nested passes, so that no pass allocates in the long run.
class SnapshotStack {
public:
   /// Makes room for `count` pointers. \return the index of the first. \throws std::bad_alloc, nothing has changed then
   static std::size_t push(std::size_t count);
   /// Gives back everything from index `base` on: the youngest snapshot goes first.
   static void pop(std::size_t base) noexcept;
   /// An index and not an address, because the stack moves when a nested pass makes it grow.
   static void*& at(std::size_t index) noexcept;
};

} // namespace Mox
