// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/moxc/Schema.h"

namespace moxc {

/// Reads one schema file. Faults of form (no file, no TOML, missing or unknown or wrongly typed fields) go to
/// `diagnostics`; what could be read is returned.
///
/// \param prefix  folder of the generated headers
/// \param path  must outlive the result and the diagnostics, whose positions refer to it
SchemaFile readSchema(std::string_view path, std::string prefix, bool imported, Diagnostics& diagnostics);

} // namespace moxc
