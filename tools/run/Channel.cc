// SPDX-License-Identifier: Apache-2.0
#include "run/Channel.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

namespace Job {

namespace {

constexpr double frameSeconds = 1.168e-6; // of a transport frame at 112 Gbit/s

/// Inverse of the complementary error function on (0, 1].
double erfcInverse(double y) {
   // A closed approximation good to a few per mille (erf(x)^2 is close to 1 - exp(-x^2 * (4/pi + a x^2) / (1 + a x^2)))
   // starts a Newton iteration with Halley's correction, which triples the correct digits each time.
   double const a = 0.147;
   double const logarithm = std::log(y) + std::log(2 - y); // of 1 - erf^2, without cancelling for small y
   double const half = 2 / (std::numbers::pi * a) + logarithm / 2;
   double x = std::sqrt(std::sqrt(half * half - logarithm / a) - half);
   for (int i = 0; i < 3; ++i) {
      double const step = (std::erfc(x) - y) / (2 * std::numbers::inv_sqrtpi * std::exp(-x * x));
      x += step / (1 - x * step);
   }
   return x;
}

/// Iterations that the decoder takes for a word with as many errors as the index says; it gives up on words with more.
/// The share of wrong bits follows R. G. Gallager's recursion (Low-Density Parity-Check Codes, 1963, chapter 4), for a
/// code with three checks to a bit and fifteen bits to a check. Such a code repairs no word with more than 166 errors,
/// and takes many iterations close to that number.
std::vector<std::uint8_t> const& decoderIterations() {
   static std::vector<std::uint8_t> const table = [] {
      std::vector<std::uint8_t> iterations;
      for (;;) {
         double const received = static_cast<double>(iterations.size()) / Channel::wordBits;
         double wrong = received;
         std::uint8_t count = 0;
         for (; wrong * Channel::wordBits >= 0.5 && count < Reading::lastIteration; ++count) {
            double const others = std::pow(1 - 2 * wrong, 14); // the check's other bits: even errors less odd ones
            wrong =
               received - received * std::pow((1 + others) / 2, 2) + (1 - received) * std::pow((1 - others) / 2, 2);
         }
         if (count == Reading::lastIteration)
            return iterations;
         iterations.push_back(count);
      }
   }();
   return table;
}

/// Decodes the words of `r`, over which the errors scatter binomially.
void decode(double errorRatio, Reading& r) {
   auto const& iterations = decoderIterations();
   double const odds = errorRatio / (1 - errorRatio);
   double share = std::exp(Channel::wordBits * std::log1p(-errorRatio)); // of the words with so many errors
   double upTo = 0;
   std::uint64_t before = 0;
   // The running sum is rounded and not each bin, so that the bins add up to the number of words.
   for (std::size_t errors = 0; errors < iterations.size(); ++errors) {
      upTo = std::min(1.0, upTo + share);
      auto const now = static_cast<std::uint64_t>(std::llround(static_cast<double>(r.words) * upTo));
      r.iterations[iterations[errors]] += now - before;
      before = now;
      share *= odds * (Channel::wordBits - static_cast<double>(errors)) / static_cast<double>(errors + 1);
   }
   r.wordErrors = r.words - before;
   r.iterations[Reading::lastIteration] = r.wordErrors;
}

template <class Number> Number rounded(double value) {
   using Limits = std::numeric_limits<Number>;
   return static_cast<Number>(
      std::clamp(std::round(value), static_cast<double>(Limits::lowest()), static_cast<double>(Limits::max())));
}

double lengthOf(std::array<double, 3> const& v) {
   return std::hypot(v[0], v[1], v[2]);
}

} // namespace

double qFactor(double errorRatio) {
   if (errorRatio >= 0.5)
      return 0;
   return std::numbers::sqrt2 * erfcInverse(2 * std::max(errorRatio, 1e-15));
}

Channel::Channel(std::uint64_t seed, std::size_t port)
   // A stream of random numbers of its own, other than that of the simulated line of the same port.
   : dice_(seed, ~std::uint64_t{port}),
     length_(dice_.uniform(200, 1500)),
     laser_(dice_.uniform(-900, 900)),
     temperaturePhase_(dice_.uniform(0, 24)),
     loss_(dice_.uniform(0.5, 1.5)),
     delay_{dice_.noise(), dice_.noise(), dice_.noise()},
     centre_(dice_.uniform(1900, 2200)) {
   for (std::size_t i = 0; i < lanes_.size(); ++i) {
      lanes_[i].share = i % 2 == 0 ? dice_.uniform(-0.03, 0.03) : -lanes_[i - 1].share;
      lanes_[i].responsivity = dice_.uniform(0.95, 1.05);
      lanes_[i].skew = dice_.uniform(200, 800);
      for (double& c : lanes_[i].converter)
         c = 128 + 15 * dice_.noise();
   }
}

Reading Channel::next(Sample const& sample, double interval) {
   Reading r;
   r.time = static_cast<double>(sample.minute) * 60;
   r.light = sample.average < noSignalFrom;
   // Where the ratio changes fast, somebody is handling the fibre.
   double const change = r.light && lastRatio_ > 0 ? std::abs(std::log10(sample.average / lastRatio_)) : 0;
   double const disturbance = sample.average >= alarmAt / 2 && change > 0.05 ? 30 : 1;
   lastRatio_ = r.light ? sample.average : 0;
   drift(interval / 3600, disturbance > 1);

   if (hostAway_ > 0) {
      --hostAway_;
   } else if (dice_.chance(1.0 / 150)) {
      hostAway_ = 1 + (dice_.chance(0.5) ? 1 : 0);
      // One lane, or all of them.
      hostAwayLane_ = static_cast<std::size_t>(dice_.uniform(0, 2 * Reading::hostLanes));
   }
   for (std::size_t i = 0; i < Reading::hostLanes; ++i)
      r.hostLaneSignals[i] = hostAway_ == 0 || (hostAwayLane_ < Reading::hostLanes && i != hostAwayLane_);
   r.hostSignal = hostAway_ == 0;
   r.monitorFailed = dice_.chance(0.01);
   r.monitorBusy = !r.monitorFailed && dice_.chance(0.05);

   outOfFrame_ = !r.light || sample.worst >= (outOfFrame_ ? clearBelow : alarmAt);
   lossOfFrame_ = !r.light || sample.average >= (lossOfFrame_ ? clearBelow : alarmAt);
   r.outOfFrame = outOfFrame_;
   r.lossOfFrame = lossOfFrame_;
   if (!r.light) {
      for (Lane& lane : lanes_)
         lane.aligned = false;
      return r;
   }

   double const frames = std::floor(interval / frameSeconds);
   r.errorRatio = sample.average;
   r.qFactor = qFactor(sample.average);
   r.frames = static_cast<std::uint64_t>(frames);
   r.bitErrors = static_cast<std::uint64_t>(std::llround(frames * frameBits * sample.average));
   r.words = 4 * r.frames;
   decode(sample.average, r);
   measure(r, disturbance);
   return r;
}

/// Moves the fibre and the laser on by `hours`. Each value is pulled back to the middle as far as its noise pushes it
/// away, so that the spread stays the same over any time.
void Channel::drift(double hours, bool disturbed) {
   double const turn = std::min(0.5, 0.05 * hours) * (disturbed ? 5 : 1);
   for (double& d : delay_)
      d += -turn * d + std::sqrt(2 * turn) * dice_.noise();
   // A small rotation about a random axis: the state stays on the sphere.
   std::array<double, 3> const axis{turn * dice_.noise(), turn * dice_.noise(), turn * dice_.noise()};
   std::array<double, 3> const p = polarisation_;
   polarisation_ = {p[0] + axis[1] * p[2] - axis[2] * p[1], p[1] + axis[2] * p[0] - axis[0] * p[2],
                    p[2] + axis[0] * p[1] - axis[1] * p[0]};
   double const length = lengthOf(polarisation_);
   for (double& x : polarisation_)
      x /= length;
   laser_ += -0.01 * hours * laser_ + 15 * std::sqrt(hours) * dice_.noise();
   centre_ += 2 * dice_.noise();
   for (Lane& lane : lanes_)
      for (double& d : lane.drift)
         d += -0.1 * d + dice_.noise();
}

void Channel::measure(Reading& r, double disturbance) {
   double const hour = r.time / 3600 + temperaturePhase_;
   double const warmth = std::sin(2 * std::numbers::pi * hour / 24); // of the fibre's day
   double const tilt = polarisation_[2];
   // The polarisation that loses more light to the polarisation-dependent loss has more errors; both together have the
   // ratio.
   double const share = 0.3 * loss_ * tilt;
   double const horizontal = r.errorRatio * (1 + share);
   double const vertical = r.errorRatio * (1 - share);
   r.qFactorH = rounded<std::uint16_t>(1000 * qFactor(horizontal));
   r.qFactorV = rounded<std::uint16_t>(1000 * qFactor(vertical));
   for (std::size_t i = 0; i < lanes_.size(); ++i)
      measureLane(i, (i < 2 ? horizontal : vertical) * (1 + lanes_[i].share), warmth, r.lanes[i]);
   // Standard fibre: 16.7 ps/nm/km, 2.5e-3 of that more per degree, here five degrees between noon and mean.
   r.dispersion = rounded<std::int32_t>(length_ * (16.7 + 0.0025 * 5 * warmth) + 2 * dice_.noise());
   r.groupDelay = rounded<std::int32_t>(10 * 0.05 * std::sqrt(length_) * lengthOf(delay_));
   r.polarisationLoss = rounded<std::uint32_t>(100 * loss_ * (1 + 0.3 * std::abs(tilt)) + 2 * std::abs(dice_.noise()));
   r.frequencyOffset = rounded<std::int32_t>(laser_ + 120 * warmth + 10 * dice_.noise());
   r.polarisationRate = rounded<std::uint16_t>(20 * disturbance * std::exp(0.6 * dice_.noise()));
   r.centreH = rounded<std::uint16_t>(centre_ + 8 * delay_[0]);
   r.centreV = rounded<std::uint16_t>(centre_ - 8 * delay_[0]);
}

void Channel::measureLane(std::size_t number, double errorRatio, double warmth, Reading::LineLane& r) {
   Lane& lane = lanes_[number];
   lane.aligned = errorRatio < laneStands * (lane.aligned ? alarmAt : clearBelow);
   r.aligned = lane.aligned;
   double const q = qFactor(errorRatio);
   // The amplitude follows the square root of the signal's power, as the beat with the local laser does. As long as the
   // noise is the same, it therefore follows the Q-factor.
   double const amplitude = 12 * q * lane.responsivity * (1 + 0.002 * dice_.noise());
   r.amplitude = static_cast<float>(amplitude);
   r.gain = rounded<std::uint16_t>(64 * 500 / amplitude); // up to 500 mV
   // The error vector has 1/Q of the signal's length (R. Schmogrow et al., Error Vector Magnitude as a Performance Measure for
   // Advanced Modulation Formats, IEEE Photonics Technology Letters 24, 2012).
   r.squareError = rounded<std::uint16_t>(65536 / (q * q));
   r.skew = rounded<std::uint16_t>(lane.skew + 3 * warmth + dice_.noise());
   std::array const converter{&r.unitOffset, &r.rowOffset, &r.gainError, &r.timingError};
   for (std::size_t i = 0; i < converter.size(); ++i)
      *converter[i] = rounded<std::uint8_t>(lane.converter[i] + lane.drift[i]);
}

} // namespace Job
