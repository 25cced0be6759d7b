// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "run/Trace.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Job {

/// Random numbers that are the same everywhere: the standard fixes the generator's bits, not its distributions.
class Dice {
public:
   /// The same `seed` gives other numbers for another `stream`.
   Dice(std::uint64_t seed, std::uint64_t stream);
   double uniform(double low, double high);
   /// Near to a normal distribution of mean 0 and deviation 1.
   double noise();
   bool chance(double probability) { return uniform(0, 1) < probability; }

private:
   std::mt19937_64 bits_;
};

/// The line behind a number of ports: who they are, and what error ratios they see from moment to moment.
class Line {
public:
   virtual ~Line() = default;
   Line(Line const&) = delete;
   Line& operator=(Line const&) = delete;

   std::vector<std::string> const& ports() const noexcept { return ports_; }
   std::size_t steps() const noexcept { return steps_; }
   /// Time between two steps, in seconds.
   double interval() const noexcept { return interval_; }
   /// What `port` sees in `step`; nothing where it was not measured then. Called with ascending steps for each port.
   virtual std::optional<Sample> next(std::size_t port, std::size_t step) = 0;

protected:
   Line(std::vector<std::string> ports, std::size_t steps, double interval)
      : ports_(std::move(ports)), steps_(steps), interval_(interval) {}

private:
   std::vector<std::string> ports_;
   std::size_t steps_;
   double interval_;
};

/// Plays a recording: the first `ports` ports of it and of those the first `steps` moments; 0 is all.
std::unique_ptr<Line> recordedLine(Trace trace, std::size_t ports, std::size_t steps);

/// A line of `steps` quarter hours, made up as it is asked for: each port has a level of its own, drifts slowly and is
/// noisy. Every second one, the first included, sees a fibre being bent until the signal is lost, and mended again; lines
/// of less than 20 steps are too short for that. The same seed gives the same line.
std::unique_ptr<Line> simulatedLine(std::size_t ports, std::size_t steps, std::uint64_t seed);

} // namespace Job
