// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

/// What the stream's lists have in common: memory comes back behind a burst, and what has been written is owed no more.
namespace Mox::NboAttrLog {

/// Gives back most of a room that is many times as large as `needed` entries take; the list keeps room for twice as many. References
/// into the list end. Where there is no memory to move to, it stays as it is.
/// *Cost*: a look, or a move of the entries, which the entries that have gone since have paid for.
template <class T> void shrink(std::vector<T>& list, std::size_t needed) noexcept {
   constexpr std::size_t few = 64;
   if (list.capacity() < 4 * std::max(needed, few))
      return;
   try {
      std::vector<T> fewer;
      fewer.reserve(2 * std::max(needed, few / 2));
      std::move(list.begin(), list.end(), std::back_inserter(fewer));
      list = std::move(fewer);
   } catch (std::bad_alloc const&) { // see above
   }
}

/// Hands the entries of `list` to `write`, from the front, for as long as `hasRoom()` holds, and takes them off the list. An entry for
/// which `write` throws stays with those behind it.
template <class T, class HasRoom, class Write> void writeFront(std::vector<T>& list, HasRoom hasRoom, Write write) {
   if (list.empty())
      return;
   struct Written {
      std::vector<T>& list;
      std::size_t count = 0;
      ~Written() { list.erase(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(count)); }
   };
   for (Written written{list}; written.count != list.size() && hasRoom(); ++written.count)
      write(list[written.count]);
}

} // namespace Mox::NboAttrLog
