// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Exceptions.h"

namespace Mox {

/// A socket that can't be opened, bound or connected; `what()` names the path, what was expected and what came.
class SocketException final : public Exception {
public:
   using Exception::Exception;
};

} // namespace Mox
