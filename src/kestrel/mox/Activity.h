// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/core/Ptr.h"

namespace Mox {

/// A unit of deferred work that a reactor may belong to. Reactors that run synchronously have none.
class Activity : public PtrInterface {};

} // namespace Mox
