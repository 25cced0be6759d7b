// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Job {

/// A trace that can't be used at all; `what()` says what was expected and what came.
class TraceError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

/// Text from outside as it may stand in a message: short, and printable.
std::string shown(std::string_view text);

/// Error ratio of a receiver without a signal: half of the bits that it guesses are wrong.
inline constexpr double noSignal = 0.5;
/// From this ratio on there is no signal; no error correction comes near it.
inline constexpr double noSignalFrom = 0.1;

/// One measured interval of one port.
struct Sample {
   std::int64_t minute; ///< minutes since 1970, local time as written
   double average;      ///< pre-FEC bit error ratio over the interval, 0 to 0.5
   double worst;        ///< highest ratio within the interval; the average where the trace has none
};

struct PortTrace {
   std::string device;
   std::string port;
   char side;                   ///< end of the channel: 'A' or 'Z'
   std::vector<Sample> samples; ///< ascending by minute, one per minute

   /// Name of the port's entities.
   std::string name() const { return device + port + '/' + side; }
};

/// Recorded error ratios of the ports of a line.
struct Trace {
   std::vector<PortTrace> ports; ///< by device, port and side
   std::int64_t interval = 15;   ///< minutes between two samples of a port: the shortest that occurs
};

/// Rows that a reader skipped. Keeps the number of all and the place and reason of the first few stretches.
class BadRows {
public:
   struct Stretch {
      std::size_t first; ///< line numbers, 1 is the header
      std::size_t last;
      std::string reason;
   };

   void add(std::size_t line, std::string_view reason);
   std::size_t count() const noexcept { return count_; }
   std::vector<Stretch> const& stretches() const noexcept { return stretches_; }
   /// One line per stretch and one with the sum; nothing without bad rows.
   void report(std::ostream& out, std::string_view file) const;

private:
   static constexpr std::size_t kept = 5;

   std::size_t count_ = 0;
   std::size_t lastLine_ = 0;
   std::string lastReason_;
   std::vector<Stretch> stretches_;
};

/// Reads comma-separated rows below a header that names the columns, in any order; columns beyond the needed ones are
/// ignored, the rows need no order in time, and lines may end with CR LF. Rows of average and highest error ratio make
/// the samples; rows of other statistics are checked and left.
///
/// A row that can't be read goes to `badRows` and reading goes on. \throws TraceError where the header is another one,
/// a line has more than 4096 bytes, or no row of an average is left.
Trace readTrace(std::istream& in, std::string_view file, BadRows& badRows);

/// Opens and reads `path`. \throws TraceError also where it isn't a readable regular file.
Trace readTraceFile(std::string const& path, BadRows& badRows);

} // namespace Job
