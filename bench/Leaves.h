// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "bench/LeafReactor.h"

#include "kestrel/attrlog/LocalLink.h"

#include <cstddef>
#include <string>

// A root with leaves, and its mirror: two ends in memory, nothing between them.

namespace bench {

using Bench::Leaf;

inline Mox::Name nameOf(std::size_t i) {
   return Mox::Name("leaf-" + std::to_string(i));
}

inline Mox::Ptr<Leaf> tree(char const* name, std::size_t n) {
   auto const root = Mox::make<Leaf>(name);
   for (std::size_t i = 0; i != n; ++i)
      root->leafIs(nameOf(i))->numberIs(1);
   return root;
}

/// `ours` on the left, its mirror on the right.
struct World {
   explicit World(Mox::Ptr<Leaf> const& root) : ours(root) {
      link.left().exportRoot(ours);
      theirs = link.right().mount<Leaf>(ours->name());
      link.settle();
   }
   explicit World(std::size_t members) : World(tree("ours", members)) {}

   Mox::Ptr<Leaf> ours;
   Mox::Ptr<Leaf> theirs;
   Mox::LocalLink link;
};

} // namespace bench
