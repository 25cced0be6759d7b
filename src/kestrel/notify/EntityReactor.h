// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/mox/Entity.h"
#include "kestrel/notify/Kinds.h"

#include <concepts>

namespace Mox {

/// Base of every generated reactor interface: its identity, and the check of what it is attached to.
template <class X> class ReactorOf : public X::MoxBase::NotifieeConst {
public:
   using MoxNotifier = X;
   static constexpr ReactorClass reactorClass{&X::MoxBase::NotifieeConst::reactorClass};

   /// Accepts an entity of the first type of the chain, the one directly below `Mox::Entity`; anything else counts as
   /// null. The interface of a derived type may therefore be attached to an entity of a base type: its `notifier` is
   /// null then.
   void notifierIs(Ptr<PtrInterface const> const& notifier) override {
      if constexpr (std::same_as<typename X::MoxBase, Entity>)
         this->template notifierOfTypeIs<X>(notifier);
      else
         X::MoxBase::NotifieeConst::notifierIs(notifier);
   }

protected:
   ReactorOf() noexcept { this->reactorClassIs(reactorClass); }
};

/// Root of the generated forwarders. A forwarder is a reactor that carries every notification of its type to one template,
/// `Derived::forward(attribute, key…)`: state adapters, generic adapters and watches are made from it.
template <class Interface, class Derived> class Entity::MoxForwarder : public Interface {
public:
   void onParent() override { self().forward(Attr::parent); }

protected:
   Derived& self() noexcept { return static_cast<Derived&>(*this); }
};

} // namespace Mox
