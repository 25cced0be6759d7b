// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace Mox {

/// Where snapshots that outgrow their iterator keep their pointers: one stack per thread, in blocks that stay where they are.
/// It keeps its blocks, a few pointers per element of the longest chain of nested passes, so that no pass allocates in the
/// long run.
class SnapshotStack {
public:
   /// Room for `count` pointers, at least one, side by side. \throws std::bad_alloc, nothing has changed then
   static void** push(std::size_t count);
   /// Makes room, so that the next `push` of up to `count` pointers allocates nothing. \return false where there is no memory
   static bool reserve(std::size_t count) noexcept;
   /// Gives back everything from `room` on, which `push` has returned: the youngest snapshot goes first.
   static void pop(void** room) noexcept;
};

} // namespace Mox
