// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/containers/SnapshotIterator.h"
#include "kestrel/mox/Entity.h"
#include "kestrel/notify/Kinds.h"

namespace Mox {

namespace detail {

template <class A, class... Key> inline void notify(PtrInterface::NotifieeConst& reactor, Key const&... key) {
   using Reactor = typename A::Owner::NotifieeConst;
   try {
      // Reactors of a base interface, down to one that watches any entity, may stand on the same list.
      if (reactor.isOfClass<Reactor>())
         A::fire(static_cast<Reactor&>(reactor), key...);
   } catch (...) {
      reactor.onNotificationException(A::id);
   }
}

/// Keeps a reactor, if there is one, alive during a pass, in a process whose counts are plain.
struct Held {
   explicit Held(PtrInterface::NotifieeConst* r) noexcept : reactor(r) {
      if (reactor != nullptr)
         reactor->plainReferenceInc();
   }
   [[gnu::always_inline]] ~Held() {
      if (reactor != nullptr)
         reactor->plainReferenceDec();
   }
   Held(Held const&) = delete;
   Held& operator=(Held const&) = delete;
   PtrInterface::NotifieeConst* const reactor;
};

template <class A, class... Key>
[[gnu::noinline]] void deliverMany(ListRaw<PtrInterface::NotifieeConst> const& reactors, Key const&... key) {
   visitSnapshot(reactors, [&](PtrInterface::NotifieeConst& reactor) { notify<A>(reactor, key...); });
}

} // namespace detail

/// The delivery pass: calls `A`'s notification on every reactor that is registered when the pass starts, in list order.
///
/// *Re-entrancy*: a reactor may register, take off or drop any reactor, and change the entity, which runs a nested and
/// complete pass first. A reactor registered meanwhile is not called; one taken off meanwhile still is, unless its last
/// reference has gone.
/// *Exceptions*: what a notification throws goes to the same reactor's `onNotificationException`, while it is current.
/// Only what that throws leaves the pass, and the reactors after it miss this notification.
/// *Cost*: no allocation in steady state, and none whose failure stops the pass; one comparison per reactor for its
/// interface.
template <class A, class... Key>
[[gnu::always_inline]] inline void deliver(typename A::Owner const& entity, Key const&... key) {
   auto const& reactors = entity.moxReactors();
   // The commonest lists are an adapter, a watch, or one of each: they need no snapshot. There is a copy of this code
   // for each attribute, and a program that changes many attributes in turn has to fetch each copy into the processor's
   // cache. So longer lists, and counts that threads share, are left to a function of their own.
   if (reactors.size() - 1 >= 2 || VFPtrInterface::threadSafePointers()) [[unlikely]] {
      detail::deliverMany<A>(reactors, key...);
      return;
   }
   detail::Held const second(reactors.first()->moxNextInList());
   {
      detail::Held const first(reactors.first());
      detail::notify<A>(*first.reactor, key...);
   }
   if (second.reactor != nullptr && second.reactor->references() != 1)
      detail::notify<A>(*second.reactor, key...);
}

} // namespace Mox
