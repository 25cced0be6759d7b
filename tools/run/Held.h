// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kestrel/entities/Cl10010ConfigDir.h"
#include "kestrel/entities/Cl10010ConfigPtrDir.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusPtrDir.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Job {

/// What one process holds at the end: its own half, and its mirrors of the other's.
struct Held {
   Mox::Ptr<Hardware::ClariPhy::Cl10010ConfigDir> config; ///< of the configuring process
   Mox::Ptr<Hardware::ClariPhy::Cl10010ConfigPtrDir>
      driven;                                             ///< of the driver: the configurations that its ports follow
   Mox::Ptr<Hardware::ClariPhy::Cl10010StatusDir> status; ///< of the driver
   Mox::Ptr<Hardware::ClariPhy::Cl10010StatusPtrDir> watched; ///< of the configuring process: what it watches

   /// The dumps of all four by path, arrays, histograms and references included. A reference must be to the very entity
   /// that `config` or `status` has under its name. Any other gets a further line, which names `who`, so that the texts
   /// of the two processes differ.
   std::string text(std::string_view who) const;
   /// Number of references.
   std::size_t references() const;
};

} // namespace Job
