// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace Mox {

template <class Signature> class Callback;

/// A function that the user of a class has set, or none. The function may replace itself while it runs: the running one
/// is kept until it returns.
template <class Result, class... Arguments> class Callback<Result(Arguments...)> {
public:
   using Function = std::function<Result(Arguments...)>;

   Callback() = default;
   Callback(Function function)
      : function_(function ? std::make_shared<Function const>(std::move(function)) : nullptr) {}

   explicit operator bool() const noexcept { return function_ != nullptr; }
   Result operator()(Arguments... arguments) const {
      auto const held = function_;
      return (*held)(std::forward<Arguments>(arguments)...);
   }

private:
   std::shared_ptr<Function const> function_;
};

} // namespace Mox
