#pragma once

#include "mox/Entity.h"
#include "notify/Kinds.h"

namespace Mox {

/// Root of the generated forwarders. A forwarder is a reactor that carries every notification of its type to one template,
/// `Derived::forward(attribute, key…)`: state adapters, generic adapters and watches are made from it.
template <class Interface, class Derived> class Entity::MoxForwarder : public Interface {
public:
   void onParent() override { self().forward(Attr::parent); }

protected:
   Derived& self() noexcept { return static_cast<Derived&>(*this); }
};

} // namespace Mox
