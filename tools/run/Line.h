#pragma once

#include "run/Trace.h"

#include <cstdint>

namespace Job {

/// The Q-factor that belongs to a bit error ratio, as a plain ratio (not in dB): for Gaussian noise and a decision between
/// two levels the textbook has BER = erfc(Q / sqrt 2) / 2, so Q = sqrt(2) * erfcinv(2 * BER). A ratio of 0 counts as
/// 1e-15, below what a measurement of minutes can tell; from 0.5 on there is no signal and Q is 0.
double qFactor(double errorRatio);

/// Error ratios for `ports` ports over `steps` quarter hours: each port has a level of its own, drifts slowly, is noisy,
/// and every second one, the first included, goes through one degradation past the alarm's limit and recovers. The same
/// seed gives the same trace.
Trace simulatedTrace(unsigned ports, unsigned steps, std::uint64_t seed);

/// What the chip behind one port reads out after an interval.
struct Reading {
   double time;       ///< end of the interval, in seconds since 1970
   double errorRatio; ///< pre-FEC bit error ratio, average of the interval
   double qFactor;
   std::uint64_t frames;    ///< FEC frames of the interval
   std::uint64_t bitErrors; ///< bits that the FEC corrected in them
   bool frameLoss;          ///< alarm: in the worst moment the FEC could not keep up
   bool frameLossChanged;   ///< since the reading before
};

/// Turns the error ratios of one port into readings.
class PortLine {
public:
   /// The alarm rises when the worst ratio reaches the first limit, and clears when it falls below the second.
   static constexpr double alarmAt = 4.0e-3;
   static constexpr double clearBelow = 3.0e-3;

   Reading next(Sample const& sample);

private:
   bool frameLoss_ = false;
};

} // namespace Job
