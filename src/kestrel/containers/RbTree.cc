// SPDX-License-Identifier: Apache-2.0
#include "kestrel/containers/RbTree.h"

#include <utility>

namespace Mox {

namespace {

bool isRed(RbTreeNode const* node) noexcept {
   return node != nullptr && node->isRed;
}

RbTreeNode* leftmost(RbTreeNode* node) noexcept {
   while (node != nullptr && node->child[0] != nullptr)
      node = node->child[0];
   return node;
}

unsigned sideOf(RbTreeNode const* node, RbTreeNode const* parent) noexcept {
   return parent->child[1] == node ? 1 : 0;
}

/// Black nodes on each path below `node`; adds the faults found to `errors`.
unsigned audit(RbTreeNode const* node, RbTreeNode const* parent, unsigned& errors) noexcept {
   if (node == nullptr)
      return 0;
   errors += node->parent != parent;
   errors += node->isRed && isRed(parent);
   unsigned const left = audit(node->child[0], node, errors);
   unsigned const right = audit(node->child[1], node, errors);
   errors += left != right;
   return left + (node->isRed ? 0u : 1u);
}

} // namespace

RbTreeNode* RbTree::first() const noexcept {
   return leftmost(root_);
}

RbTreeNode* RbTree::next(RbTreeNode* node) noexcept {
   if (node->child[1] != nullptr)
      return leftmost(node->child[1]);
   while (node->parent != nullptr && node->parent->child[1] == node)
      node = node->parent;
   return node->parent;
}

/// Puts `node` where `before` hangs below `parent`; a null parent means the root.
void RbTree::childIs(RbTreeNode* parent, RbTreeNode* before, RbTreeNode* node) noexcept {
   if (parent == nullptr)
      root_ = node;
   else
      parent->child[sideOf(before, parent)] = node;
   if (node != nullptr)
      node->parent = parent;
}

/// `node` goes down to `side`; its other child takes its place.
void RbTree::rotate(RbTreeNode* node, unsigned side) noexcept {
   RbTreeNode* const up = node->child[1 - side];
   childIs(node->parent, node, up);
   node->child[1 - side] = up->child[side];
   if (up->child[side] != nullptr)
      up->child[side]->parent = node;
   up->child[side] = node;
   node->parent = up;
}

void RbTree::link(RbTreeNode* node, RbTreeNode* parent, unsigned side) noexcept {
   node->parent = parent;
   node->child[0] = node->child[1] = nullptr;
   node->isRed = true;
   if (parent == nullptr)
      root_ = node;
   else
      parent->child[side] = node;

   // A red parent is not the root, so there is a grandparent.
   while (isRed(node->parent)) {
      RbTreeNode* const above = node->parent->parent;
      unsigned const parentSide = sideOf(node->parent, above);
      RbTreeNode* const uncle = above->child[1 - parentSide];
      if (isRed(uncle)) {
         node->parent->isRed = uncle->isRed = false;
         above->isRed = true;
         node = above;
         continue;
      }
      if (sideOf(node, node->parent) != parentSide) {
         node = node->parent;
         rotate(node, parentSide);
      }
      node->parent->isRed = false;
      above->isRed = true;
      rotate(above, 1 - parentSide);
   }
   root_->isRed = false;
}

void RbTree::unlink(RbTreeNode* node) noexcept {
   bool lostBlack = !node->isRed;
   RbTreeNode* below; // took the place of what left its level; may be null
   RbTreeNode* parent;
   if (node->child[0] == nullptr || node->child[1] == nullptr) {
      below = node->child[node->child[0] == nullptr ? 1 : 0];
      parent = node->parent;
      childIs(parent, node, below);
   } else {
      RbTreeNode* const successor = leftmost(node->child[1]);
      lostBlack = !successor->isRed;
      below = successor->child[1];
      parent = successor->parent == node ? successor : successor->parent;
      childIs(successor->parent, successor, below);
      replace(node, successor);
   }
   *node = {};
   if (lostBlack)
      rebalanceBelow(parent, below);
}

/// The paths through `shortChild` of `parent` have one black node less than the others.
void RbTree::rebalanceBelow(RbTreeNode* parent, RbTreeNode* shortChild) noexcept {
   while (parent != nullptr && !isRed(shortChild)) {
      // The sibling exists: its paths have a black node more.
      unsigned const side = parent->child[0] == shortChild ? 0 : 1;
      RbTreeNode* sibling = parent->child[1 - side];
      if (sibling->isRed) {
         sibling->isRed = false;
         parent->isRed = true;
         rotate(parent, side);
         sibling = parent->child[1 - side];
      }
      if (!isRed(sibling->child[0]) && !isRed(sibling->child[1])) {
         sibling->isRed = true;
         shortChild = parent;
         parent = parent->parent;
         continue;
      }
      if (!isRed(sibling->child[1 - side])) {
         sibling->child[side]->isRed = false;
         sibling->isRed = true;
         rotate(sibling, 1 - side);
         sibling = parent->child[1 - side];
      }
      sibling->isRed = std::exchange(parent->isRed, false);
      sibling->child[1 - side]->isRed = false;
      rotate(parent, side);
      return;
   }
   if (shortChild != nullptr)
      shortChild->isRed = false;
}

void RbTree::replace(RbTreeNode* node, RbTreeNode* with) noexcept {
   childIs(node->parent, node, with);
   with->isRed = node->isRed;
   for (unsigned const side : {0u, 1u}) {
      with->child[side] = node->child[side];
      if (with->child[side] != nullptr)
         with->child[side]->parent = with;
   }
   *node = {};
}

RbTreeNode* RbTree::release() noexcept {
   return std::exchange(root_, nullptr);
}

RbTreeNode* RbTree::dismantleFirst(RbTreeNode*& rest) noexcept {
   // Every step right straightens the left spine by one node, and no node comes back to it.
   while (RbTreeNode* const left = rest->child[0]) {
      rest->child[0] = left->child[1];
      left->child[1] = rest;
      rest = left;
   }
   RbTreeNode* const first = std::exchange(rest, rest->child[1]);
   *first = {};
   return first;
}

unsigned RbTree::auditErrors() const noexcept {
   unsigned errors = isRed(root_) ? 1 : 0;
   audit(root_, nullptr, errors);
   return errors;
}

} // namespace Mox
