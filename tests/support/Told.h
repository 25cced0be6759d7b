// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "notify/Observe.h"

#include <string>
#include <vector>

using Log = std::vector<std::string>;

/// Writes down whose member or entry is here or gone, as `owner`'s reactors are told.
template <class X, class A> Mox::Watch logged(Mox::Ptr<X> const& owner, A attribute, Log& log) {
   return Mox::on(owner, attribute, [&log](X& x, Mox::Name const& name) {
      log.push_back(name.str() + (A::cell(x).contains(name) ? " here" : " gone"));
   });
}
