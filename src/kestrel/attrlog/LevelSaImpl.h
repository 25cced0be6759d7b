// SPDX-License-Identifier: Apache-2.0
#pragma once

// The bodies of `LevelFlow` and `LevelSa`, for the source that compiles one type's: by direction, and what a type brings.
#include "kestrel/attrlog/LevelFlow.h"
#include "kestrel/attrlog/LevelIn.h"
#include "kestrel/attrlog/LevelOut.h"
#include "kestrel/attrlog/LevelType.h"
