#pragma once

#include "notify/Observe.h"

#include <string>
#include <vector>

using Log = std::vector<std::string>;

/// The text of what `call` throws.
template <class Exception, class Call> std::string textOf(Call&& call) {
   try {
      call();
   } catch (Exception const& e) {
      return e.what();
   }
   return "(nothing was thrown)";
}

/// Writes down whose member or entry is here or gone, as `owner`'s reactors are told.
template <class X, class A> Mox::Watch logged(Mox::Ptr<X> const& owner, A attribute, Log& log) {
   return Mox::on(owner, attribute, [&log](X& x, Mox::Name const& name) {
      log.push_back(name.str() + (A::cell(x).contains(name) ? " here" : " gone"));
   });
}
