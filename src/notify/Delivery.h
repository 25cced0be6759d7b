#pragma once

#include "containers/SnapshotIterator.h"
#include "mox/Entity.h"
#include "notify/Mutators.h"

namespace Mox {

/// The delivery pass: calls `A`'s notification on every reactor that is registered when the pass starts, in list order.
///
/// *Re-entrancy*: a reactor may register, take off or drop any reactor, and change the entity, which runs a nested and
/// complete pass first. A reactor registered meanwhile is not called; one taken off meanwhile still is, unless its last
/// reference has gone.
/// *Exceptions*: what a notification throws goes to the same reactor's `onNotificationException`, while it is current; only what
/// that throws leaves, and the reactors behind miss this notification.
/// *Cost*: no allocation; one comparison per reactor for its interface.
template <class A, class... Key>
[[gnu::always_inline]] inline void deliver(typename A::Owner const& entity, Key const&... key) {
   using Owner = typename A::Owner;
   for (SnapshotIterator<ListRaw<PtrInterface::NotifieeConst>> it(entity.moxReactors()); it; it.advance()) {
      try {
         // Reactors of a base interface, down to one that watches any entity, may stand on the same list.
         if (!(*it).template isOfClass<typename Owner::NotifieeConst>())
            continue;
         A::fire(static_cast<typename Owner::NotifieeConst&>(*it), key...);
      } catch (...) {
         (*it).onNotificationException(A::id);
      }
   }
}

template <class A> void announce(typename A::Owner const& entity) {
   deliver<A>(entity);
}

template <class A> void announceKey(typename A::Owner const& entity, typename A::Key const& key) {
   deliver<A>(entity, key);
}

} // namespace Mox
