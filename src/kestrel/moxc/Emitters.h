// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/moxc/Model.h"
#include "kestrel/moxc/Output.h"

#include <filesystem>

namespace moxc {

/// Writers of the generated files: one function per file, all reading the model alone. A type has up to four files,
/// which share its stem: the class (.h), its reactor interfaces (Reactor.h), its attribute-log adapter (Log.h, where it
/// has a log) and the definitions (.cc).

std::string emitClass(EntityType const& type);
std::string emitReactor(EntityType const& type);
std::string emitLog(EntityType const& type);
std::string emitSource(EntityType const& type);
/// The unit that makes the types of one library known to the framework when the library is loaded.
std::string emitRegistration(Model const& model, std::string const& unit);
/// The tables of attributes that people read.
std::string emitDocumentation(Model const& model);

} // namespace moxc
