// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace Mox {

/// Links of one node of a red-black tree; `child[0]` holds what is less.
struct RbTreeNode {
   RbTreeNode* parent = nullptr;
   RbTreeNode* child[2] = {nullptr, nullptr};
   bool isRed = false;
};

/// The balancing half of an ordered map, which needs no key. The paths from the root differ in length by a factor of two at most.
class RbTree {
public:
   RbTreeNode* root() const noexcept { return root_; }
   RbTreeNode* first() const noexcept;
   /// The node behind `node` in order, or null.
   static RbTreeNode* next(RbTreeNode* node) noexcept;
   /// Hangs `node` below `parent` (null: the tree is empty) as its child of that `side`, which must be free.
   void link(RbTreeNode* node, RbTreeNode* parent, unsigned side) noexcept;
   void unlink(RbTreeNode* node) noexcept;
   /// Puts `with` where `node` is.
   void replace(RbTreeNode* node, RbTreeNode* with) noexcept;
   /// Takes the first node in order off a tree that is being dismantled, in constant time on average and without
   /// balancing. `rest` is the root of the tree, and becomes the root of what is left.
   static RbTreeNode* dismantleFirst(RbTreeNode*& rest) noexcept;
   /// Empties the tree. \return its old root, for `dismantleFirst`
   RbTreeNode* release() noexcept;
   /// Number of faults in links, colours and heights.
   unsigned auditErrors() const noexcept;

private:
   void rotate(RbTreeNode* node, unsigned side) noexcept;
   void childIs(RbTreeNode* parent, RbTreeNode* before, RbTreeNode* node) noexcept;
   void rebalanceBelow(RbTreeNode* parent, RbTreeNode* shortChild) noexcept;

   RbTreeNode* root_ = nullptr;
};

} // namespace Mox
