#include "run/Channel.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace Job {

namespace {

constexpr double frameSeconds = 1.168e-6; // of a transport frame at 112 Gbit/s
// Bits in error that the decoder repairs in a word. Where it gives up is a steep flank rather than a count; a count has the
// flank too, because the errors of a word scatter.
constexpr double repairableBits = 166;

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

/// Share of the words with more than `repairableBits` of errors, which scatter binomially, near enough to normally.
double wordErrorRatio(double bitErrorRatio) {
   double const mean = Channel::wordBits * bitErrorRatio;
   if (mean <= 0)
      return 0;
   return std::erfc((repairableBits - mean) / std::sqrt(2 * mean * (1 - bitErrorRatio))) / 2;
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
   // Other numbers than the simulated line's of the same port.
   : dice_(seed, ~std::uint64_t{port}),
     length_(dice_.uniform(200, 1500)),
     laser_(dice_.uniform(-900, 900)),
     temperaturePhase_(dice_.uniform(0, 24)),
     loss_(dice_.uniform(0.5, 1.5)),
     delay_{dice_.noise(), dice_.noise(), dice_.noise()},
     centre_(dice_.uniform(1900, 2200)) {}

Reading Channel::next(Sample const& sample, double interval) {
   Reading r;
   r.time = static_cast<double>(sample.minute) * 60;
   r.light = sample.average < noSignalFrom;
   // Somebody handles the fibre while the ratio runs away.
   double const change = r.light && lastRatio_ > 0 ? std::abs(std::log10(sample.average / lastRatio_)) : 0;
   double const disturbance = sample.average >= alarmAt / 2 && change > 0.05 ? 30 : 1;
   lastRatio_ = r.light ? sample.average : 0;
   drift(interval / 3600, disturbance > 1);

   if (hostAway_ > 0)
      --hostAway_;
   else if (dice_.chance(1.0 / 150))
      hostAway_ = 1 + (dice_.chance(0.5) ? 1 : 0);
   r.hostSignal = hostAway_ == 0;
   r.monitorFailed = dice_.chance(0.01);
   r.monitorBusy = !r.monitorFailed && dice_.chance(0.05);

   outOfFrame_ = !r.light || sample.worst >= (outOfFrame_ ? clearBelow : alarmAt);
   lossOfFrame_ = !r.light || sample.average >= (lossOfFrame_ ? clearBelow : alarmAt);
   r.outOfFrame = outOfFrame_;
   r.lossOfFrame = lossOfFrame_;
   if (!r.light)
      return r;

   double const frames = std::floor(interval / frameSeconds);
   r.errorRatio = sample.average;
   r.qFactor = qFactor(sample.average);
   r.frames = static_cast<std::uint64_t>(frames);
   r.bitErrors = static_cast<std::uint64_t>(std::llround(frames * frameBits * sample.average));
   r.words = 4 * r.frames;
   r.wordErrors =
      static_cast<std::uint64_t>(std::llround(static_cast<double>(r.words) * wordErrorRatio(sample.average)));
   measure(r, disturbance);
   return r;
}

/// Lets the fibre and the laser go on by a while. Each noise pulls back to the middle as far as it pushes away, so that the
/// spread stays the same over any time.
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
}

void Channel::measure(Reading& r, double disturbance) {
   double const hour = r.time / 3600 + temperaturePhase_;
   double const warmth = std::sin(2 * std::numbers::pi * hour / 24); // of the fibre's day
   double const tilt = polarisation_[2];
   // The half of the light that the polarisation-dependent loss takes more from has the more errors; both halves together
   // have the ratio.
   double const share = 0.3 * loss_ * tilt;
   r.qFactorH = rounded<std::uint16_t>(1000 * qFactor(r.errorRatio * (1 + share)));
   r.qFactorV = rounded<std::uint16_t>(1000 * qFactor(r.errorRatio * (1 - share)));
   // Standard fibre: 16.7 ps/nm/km, 2.5e-3 of that more per degree, here five degrees between noon and mean.
   r.dispersion = rounded<std::int32_t>(length_ * (16.7 + 0.0025 * 5 * warmth) + 2 * dice_.noise());
   r.groupDelay = rounded<std::int32_t>(10 * 0.05 * std::sqrt(length_) * lengthOf(delay_));
   r.polarisationLoss = rounded<std::uint32_t>(100 * loss_ * (1 + 0.3 * std::abs(tilt)) + 2 * std::abs(dice_.noise()));
   r.frequencyOffset = rounded<std::int32_t>(laser_ + 120 * warmth + 10 * dice_.noise());
   r.polarisationRate = rounded<std::uint16_t>(20 * disturbance * std::exp(0.6 * dice_.noise()));
   r.centreH = rounded<std::uint16_t>(centre_ + 8 * delay_[0]);
   r.centreV = rounded<std::uint16_t>(centre_ - 8 * delay_[0]);
}

} // namespace Job
