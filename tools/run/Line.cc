#include "run/Line.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

namespace Job {

namespace {

constexpr double intervalSeconds = 900;
constexpr double frameSeconds = 1.168e-6; // of a 112 Gbit/s transport frame
constexpr double frameBits = 4080 * 4 * 8;

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

/// Random numbers that are the same everywhere: the standard fixes the generator's bits, not its distributions.
class Dice {
public:
   explicit Dice(std::uint64_t seed) : bits_(seed) {}
   double uniform(double low, double high) { return low + (high - low) * static_cast<double>(bits_() >> 11) * 0x1p-53; }
   /// Near to a normal distribution of mean 0 and deviation 1.
   double noise() {
      double sum = -6;
      for (int i = 0; i < 12; ++i)
         sum += uniform(0, 1);
      return sum;
   }

private:
   std::mt19937_64 bits_;
};

} // namespace

double qFactor(double errorRatio) {
   if (errorRatio >= 0.5)
      return 0;
   return std::numbers::sqrt2 * erfcInverse(2 * std::max(errorRatio, 1e-15));
}

Trace simulatedTrace(unsigned ports, unsigned steps, std::uint64_t seed) {
   Dice dice(seed);
   Trace trace;
   for (unsigned p = 0; p < ports; ++p) {
      PortTrace port{"S" + std::to_string(p / 8 + 1), "/1/" + std::to_string(p % 8 + 1), 'A', {}};
      double const level = dice.uniform(-3.6, -2.8);
      double const period = dice.uniform(80, 300);
      double const phase = dice.uniform(0, 2 * std::numbers::pi);
      double const eventAt = dice.uniform(0.25, 0.75) * steps;
      double const eventWidth = std::max(2.0, dice.uniform(0.02, 0.06) * steps);
      double const eventPeak = p % 2 == 0 ? dice.uniform(-2.3, -2.1) : level;
      for (unsigned s = 0; s < steps; ++s) {
         double const from = (s - eventAt) / eventWidth;
         double const event = std::exp(-from * from);
         double const calm = level + 0.1 * std::sin(phase + 2 * std::numbers::pi * s / period);
         double const exponent = calm + (eventPeak - calm) * event + 0.02 * dice.noise();
         double const spread = 0.03 + 0.02 * std::abs(dice.noise());
         port.samples.push_back({std::int64_t{s} * 15, std::pow(10, exponent), std::pow(10, exponent + spread)});
      }
      trace.ports.push_back(std::move(port));
   }
   return trace;
}

Reading PortLine::next(Sample const& sample) {
   bool const before = frameLoss_;
   frameLoss_ = sample.worst >= (before ? clearBelow : alarmAt);
   double const frames = std::floor(intervalSeconds / frameSeconds);
   return {static_cast<double>(sample.minute) * 60,
           sample.average,
           qFactor(sample.average),
           static_cast<std::uint64_t>(frames),
           static_cast<std::uint64_t>(std::llround(frames * frameBits * sample.average)),
           frameLoss_,
           frameLoss_ != before};
}

} // namespace Job
