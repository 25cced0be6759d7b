// SPDX-License-Identifier: Apache-2.0
#include "kestrel/attrlog/EntityTree.h"

#include "kestrel/attrlog/Frames.h"
#include "kestrel/mox/MoxType.h"

namespace Mox::NboAttrLog {

void collectTree(Entity& top, std::vector<Ptr<Entity>>& tree) {
   tree.push_back(Ptr<Entity>(&top));
   for (Ptr<MoxType const> type = top.fwkType(); type; type = type->base())
      if (auto const visit = type->operations().visitMembers)
         visit(top, &tree, [](void* context, AttributeId, Entity& member) {
            collectTree(member, *static_cast<std::vector<Ptr<Entity>>*>(context));
         });
}

bool isAtOrBelow(Entity const* entity, Entity const& top) noexcept {
   for (; entity != nullptr; entity = entity->moxRawParent())
      if (entity == &top)
         return true;
   return false;
}

Entity* topOf(Entity* entity) noexcept {
   while (entity != nullptr && entity->moxRawParent() != nullptr)
      entity = entity->moxRawParent();
   return entity;
}

unsigned depthOf(Entity const& entity) noexcept {
   unsigned depth = 0;
   for (Entity const* e = entity.moxRawParent(); e != nullptr && depth <= frame::maximumDepth; e = e->moxRawParent())
      ++depth;
   return depth;
}

} // namespace Mox::NboAttrLog
