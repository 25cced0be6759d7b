// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/// The text of what `call` throws.
template <class Exception, class Call> std::string thrownBy(Call&& call) {
   try {
      call();
   } catch (Exception const& e) {
      return e.what();
   }
   return "(nothing was thrown)";
}
