#pragma once

#include "run/Options.h"
#include "run/Trace.h"

#include <string>
#include <string_view>
#include <vector>

namespace Job {

/// What the main job ends with; scripts read the numbers.
enum class Outcome { agree = 0, differ = 1, badInput = 2, setupFailed = 3, peerLost = 4 };

/// The configuring process: owns the configurations, starts the driver, answers what it sees of the status, and at the
/// end compares. \throws Mox::SocketException, std::system_error
Outcome configure(Options const& options, Trace const& trace, std::size_t badRows);

/// The driver process: owns the status, plays the line into it, and follows the configuration. Talks to the process that
/// started it through standard input and output.
Outcome drive(Options const& options, Trace const& trace);

/// Where two dumps differ, by path, as text for people: at most `most` places, and the number of the rest.
std::vector<std::string> differences(std::string_view ours, std::string_view theirs, std::size_t most);

/// The words that the processes exchange.
namespace word {
inline constexpr std::string_view played = "played";   ///< driver: the line has ended (with figures behind it)
inline constexpr std::string_view stop = "stop";       ///< to the driver: change nothing any more, then say `stopped`
inline constexpr std::string_view stopped = "stopped"; ///< driver: it has, and everything it sent was acknowledged
inline constexpr std::string_view dump = "dump";       ///< to the driver: send what you hold
} // namespace word

} // namespace Job
