// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/moxc/Model.h"
#include "kestrel/moxc/Schema.h"

#include <vector>

namespace moxc {

/// Checks the schemas against each other and builds the model. Faults go to `diagnostics`; with any of them the model is
/// incomplete and must not reach an emitter.
Model checkSchemas(std::vector<SchemaFile> const& files, Diagnostics& diagnostics);

} // namespace moxc
