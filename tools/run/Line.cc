// SPDX-License-Identifier: Apache-2.0
#include "run/Line.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <set>

namespace Job {

namespace {

class RecordedLine final : public Line {
public:
   RecordedLine(Trace trace, std::vector<std::string> names, std::vector<std::int64_t> moments)
      : Line(std::move(names), moments.size(), static_cast<double>(trace.interval) * 60),
        trace_(std::move(trace)),
        moments_(std::move(moments)),
        next_(trace_.ports.size()) {}

   std::optional<Sample> next(std::size_t port, std::size_t step) override {
      auto const& samples = trace_.ports[port].samples;
      std::size_t& at = next_[port];
      while (at < samples.size() && samples[at].minute < moments_[step])
         ++at;
      if (at == samples.size() || samples[at].minute != moments_[step])
         return std::nullopt;
      return samples[at];
   }

private:
   Trace trace_;
   std::vector<std::int64_t> moments_;
   std::vector<std::size_t> next_;
};

class SimulatedPort {
public:
   SimulatedPort(std::size_t number, std::size_t steps, std::uint64_t seed)
      : dice_(seed, number),
        level_(dice_.uniform(-3.6, -2.8)),
        period_(dice_.uniform(80, 300)),
        phase_(dice_.uniform(0, 2 * std::numbers::pi)) {
      auto const length = static_cast<double>(steps);
      bend_ = std::max(2.0, dice_.uniform(0.02, 0.06) * length);
      lost_ = std::floor(dice_.uniform(0.3, 0.7) * length);
      mended_ = lost_ + std::max(1.0, std::floor(dice_.uniform(0.005, 0.02) * length));
      peak_ = dice_.uniform(-2.35, -2.2);
      hasEvent_ = number % 2 == 0 && steps >= 20;
   }

   Sample next(std::size_t step) {
      auto const at = static_cast<double>(step);
      double const calm = level_ + 0.1 * std::sin(phase_ + 2 * std::numbers::pi * at / period_) + 0.02 * dice_.noise();
      double const spread = 0.03 + 0.02 * std::abs(dice_.noise());
      auto const minute = firstMinute + static_cast<std::int64_t>(step) * 15;
      if (hasEvent_ && at >= lost_ && at < mended_)
         return {minute, noSignal, noSignal};
      double const away = at < lost_ ? (lost_ - 1 - at) / bend_ : (at - mended_) / (bend_ / 2);
      double const event = hasEvent_ ? std::exp(-away * away) : 0;
      double const exponent = calm + (peak_ - calm) * event;
      return {minute, std::pow(10, exponent), std::pow(10, exponent + spread)};
   }

private:
   /// 2000/1/1 00:00.
   static constexpr std::int64_t firstMinute = 10957 * 1440;

   Dice dice_;
   double level_, period_, phase_; // exponents of ten, steps, radian
   double bend_, lost_, mended_;   // steps
   double peak_;
   bool hasEvent_;
};

class SimulatedLine final : public Line {
public:
   SimulatedLine(std::vector<std::string> names, std::size_t steps, std::uint64_t seed)
      : Line(std::move(names), steps, 900) {
      for (std::size_t p = 0; p < ports().size(); ++p)
         ports_.emplace_back(p, steps, seed);
   }

   std::optional<Sample> next(std::size_t port, std::size_t step) override { return ports_[port].next(step); }

private:
   std::vector<SimulatedPort> ports_;
};

} // namespace

Dice::Dice(std::uint64_t seed, std::uint64_t stream) {
   std::array<std::uint32_t, 4> const words{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                                            static_cast<std::uint32_t>(stream),
                                            static_cast<std::uint32_t>(stream >> 32)};
   std::seed_seq sequence(words.begin(), words.end());
   bits_.seed(sequence);
}

double Dice::uniform(double low, double high) {
   return low + (high - low) * static_cast<double>(bits_() >> 11) * 0x1p-53;
}

double Dice::noise() {
   double sum = -6;
   for (int i = 0; i < 12; ++i)
      sum += uniform(0, 1);
   return sum;
}

std::unique_ptr<Line> recordedLine(Trace trace, std::size_t ports, std::size_t steps) {
   if (ports != 0 && trace.ports.size() > ports)
      trace.ports.resize(ports);
   std::vector<std::string> names;
   std::set<std::int64_t> moments;
   for (PortTrace const& port : trace.ports) {
      names.push_back(port.name());
      for (Sample const& sample : port.samples)
         moments.insert(sample.minute);
   }
   std::vector<std::int64_t> first(moments.begin(), moments.end());
   if (steps != 0 && first.size() > steps)
      first.resize(steps);
   return std::make_unique<RecordedLine>(std::move(trace), std::move(names), std::move(first));
}

std::unique_ptr<Line> simulatedLine(std::size_t ports, std::size_t steps, std::uint64_t seed) {
   std::vector<std::string> names;
   for (std::size_t p = 0; p < ports; ++p)
      names.push_back("S" + std::to_string(p / 8 + 1) + "/1/" + std::to_string(p % 8 + 1));
   return std::make_unique<SimulatedLine>(std::move(names), steps, seed);
}

} // namespace Job
