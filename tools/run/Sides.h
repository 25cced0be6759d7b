// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "run/Line.h"
#include "run/Options.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Job {

/// What the main job ends with; scripts read the numbers. A job that a signal ends, ends by that signal.
enum class Outcome { agree = 0, differ = 1, badInput = 2, setupFailed = 3, peerLost = 4 };

/// A signal asked the job to end; everything has been cleaned up.
struct Interrupted {
   int signal;
};

/// The configuring process: owns the configurations, starts the driver, answers what it sees of the status, compares at the
/// end, and prints the result.
/// \throws Mox::SocketException, std::system_error, OutputError, Interrupted
Outcome configure(Options const& options, std::unique_ptr<Line> line, std::size_t badRows);

/// The driver process: owns the status, plays the line into it, and follows the configuration. Talks to the process that
/// started it through standard input and output.
Outcome drive(Options const& options, std::unique_ptr<Line> line);

/// Where two dumps differ, by path, as text for people: at most `most` places, and the number of the rest.
std::vector<std::string> differences(std::string_view ours, std::string_view theirs, std::size_t most);

/// The text about a driver that was lost: why its connection ended, and how its process ended, as far as they are
/// known. A process that has ended has closed its connection too, so that is not said besides.
std::string lossText(std::optional<std::string> const& reason, std::optional<std::string> const& end);

/// The words that the processes exchange.
namespace word {
inline constexpr std::string_view step = "step";       ///< driver: so many steps are played; now and then
inline constexpr std::string_view played = "played";   ///< driver: the line has ended
inline constexpr std::string_view stop = "stop";       ///< to the driver: change nothing any more, then say `stopped`
inline constexpr std::string_view stopped = "stopped"; ///< driver: it has, and everything it sent was acknowledged
inline constexpr std::string_view dump = "dump";       ///< to the driver: send what you hold, and end
inline constexpr std::string_view leave = "leave";     ///< to the driver: end now
} // namespace word

/// What the driver says after `stopped`.
struct DriverFigures {
   std::uint64_t changes = 0;
   std::uint64_t recordsSent = 0;
   std::uint64_t recordsApplied = 0;
   std::uint64_t bytesSent = 0;

   std::string text() const;
   /// Zeros where the text has another form.
   static DriverFigures of(std::string const& text);
};

} // namespace Job
