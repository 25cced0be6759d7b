// SPDX-License-Identifier: Apache-2.0
#pragma once

// All value types of attributes and keys.

#include "kestrel/values/Bounded.h"
#include "kestrel/values/Coherent.h"
#include "kestrel/values/Enumeration.h"
#include "kestrel/values/FloatValue.h"
#include "kestrel/values/PhyEnums.h"
#include "kestrel/values/Records.h"
