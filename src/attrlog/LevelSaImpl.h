// SPDX-License-Identifier: Apache-2.0
#pragma once

// The bodies of `LevelFlow` and `LevelSa`, for the source that compiles one type's: by direction, and what a type brings.
#include "attrlog/LevelFlow.h"
#include "attrlog/LevelIn.h"
#include "attrlog/LevelOut.h"
#include "attrlog/LevelType.h"
