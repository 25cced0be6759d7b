// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/notify/Observe.h"

#include <string>
#include <utility>
#include <vector>

using Log = std::vector<std::string>;

/// A reactor that listens to `entity` from now on; a weak one does not keep it.
template <class Reactor, class X, class... Arguments>
Mox::Ptr<Reactor> listening(Mox::Ptr<X> const& entity, bool isWeak, Arguments&&... arguments) {
   auto const reactor = Mox::make<Reactor>(std::forward<Arguments>(arguments)...);
   reactor->isWeakReferenceIs(isWeak);
   reactor->notifierIs(entity);
   reactor->isRegisteredNotifieeIs(true);
   return reactor;
}

/// Writes down whose member or entry is here or gone, as `owner`'s reactors are told.
template <class X, class A> Mox::Watch logged(Mox::Ptr<X> const& owner, A attribute, Log& log) {
   return Mox::on(owner, attribute, [&log](X& x, Mox::Name const& name) {
      log.push_back(name.str() + (A::cell(x).contains(name) ? " here" : " gone"));
   });
}
