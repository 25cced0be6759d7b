// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "run/Answers.h"
#include "run/Terminal.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Job {

/// What a job that came to its end has to tell.
struct Result {
   std::string line; ///< what was played: the trace's file, or "simulated"
   std::uint64_t seed = 1;
   std::size_t ports = 0;
   std::size_t steps = 0;
   std::size_t badRows = 0;
   std::uint64_t changes = 0; ///< of the status, in the driver
   std::uint64_t recordsSent = 0;
   std::uint64_t recordsApplied = 0;
   std::uint64_t bytes = 0; ///< in both directions
   double seconds = 0;
   Answers::Worst worst;
   std::size_t signalLosses = 0;
   std::vector<Answers::Answer> answers;
   std::size_t comparedLines = 0;
   std::size_t references = 0; ///< among what was compared
   std::vector<std::string> differences;

   bool agree() const noexcept { return differences.empty(); }
   /// For people: a short table.
   std::string table(Terminal const& terminal) const;
   /// For programs: one object and a new line.
   std::string json() const;
};

/// 34210 as "34,210".
std::string grouped(std::uint64_t number);
/// "1 port", "2 ports".
std::string counted(std::uint64_t count, std::string_view what);

/// Standard output does not take what is to be printed.
class OutputError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

/// Writes all of it to standard output. \throws OutputError
void print(std::string_view text);

} // namespace Job
