// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "mox/Entity.h"
#include "notify/Kinds.h"

namespace Simulation {

template <class A, class B> struct Joined;
template <class... As, class... Bs> struct Joined<Mox::TypeList<As...>, Mox::TypeList<Bs...>> {
   using List = Mox::TypeList<As..., Bs...>;
};
/// Every attribute of `X` and its bases.
template <class X> struct AllOf {
   using List = typename Joined<typename AllOf<typename X::MoxBase>::List, typename X::MoxAttributes>::List;
};
template <> struct AllOf<Mox::Entity> {
   using List = Mox::TypeList<>;
};

} // namespace Simulation
