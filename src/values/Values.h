// SPDX-License-Identifier: Apache-2.0
#pragma once

// All value types of attributes and keys.

#include "values/Bounded.h"
#include "values/Coherent.h"
#include "values/Enumeration.h"
#include "values/FloatValue.h"
#include "values/PhyEnums.h"
#include "values/Records.h"
