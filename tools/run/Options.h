// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Job {

/// Wrong use; `what()` is one line that says what was expected and what came.
class UsageError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

/// Of a simulated line.
inline constexpr unsigned usualPorts = 8;
inline constexpr unsigned usualSteps = 200;

/// What the main job is asked to do.
struct Options {
   std::string socket;     ///< path of the socket; empty: in a private folder of its own
   std::string trace;      ///< file to play; empty: a simulated line
   unsigned ports = 0;     ///< at most that many; 0: all of the trace, or `usualPorts`
   unsigned steps = 0;     ///< at most that many; 0: all of the trace, or `usualSteps`
   std::uint64_t seed = 1; ///< of what is simulated
   double speed = 50;      ///< steps in a second; 0: as fast as possible
   bool json = false;      ///< print one JSON object instead of a table
   bool driver = false;    ///< this process is the driver that the configuring process started
   std::string help;       ///< the help text or the version, when that was asked for
};

/// \throws UsageError
Options parseOptions(int argc, char const* const* argv);

} // namespace Job
