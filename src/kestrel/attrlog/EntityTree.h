// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/mox/Entity.h"

#include <vector>

namespace Mox::NboAttrLog {

/// Appends `top` and everything below it, each behind its parent. \throws std::bad_alloc
void collectTree(Entity& top, std::vector<Ptr<Entity>>& tree);
bool isAtOrBelow(Entity const* entity, Entity const& top) noexcept;
/// The entity above `entity` that has no parent.
Entity* topOf(Entity* entity) noexcept;
/// How many parents `entity` has, as far as `frame::maximumDepth + 1`.
unsigned depthOf(Entity const& entity) noexcept;

} // namespace Mox::NboAttrLog
