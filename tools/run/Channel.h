#pragma once

#include "run/Line.h"

#include <array>
#include <cstdint>

namespace Job {

/// The Q-factor that belongs to a bit error ratio, as a plain ratio (not in dB): for Gaussian noise and a decision between
/// two levels, BER = erfc(Q / sqrt 2) / 2 (G. P. Agrawal, Fiber-Optic Communication Systems, section 4.6.1), so
/// Q = sqrt(2) * erfcinv(2 * BER). A ratio of 0 counts as 1e-15, below what a measurement of minutes can tell; from 0.5 on
/// there is no signal and Q is 0.
double qFactor(double errorRatio);

/// What the chip behind one port reads out at the end of an interval. Of one interval in which light came in, all belongs
/// together: errors follow from the ratio and the frames, the Q-factors of the two polarisations from the two halves of the
/// ratio, the alarms from the worst moment. Without light, measurements and counts are 0 and the ratio is a half.
struct Reading {
   double time = 0; ///< end of the interval, in seconds since 1970

   // The line.
   bool light = false;         ///< a signal comes in
   bool outOfFrame = true;     ///< in the worst moment the error correction could not keep up
   bool lossOfFrame = true;    ///< over the whole interval it could not
   double errorRatio = 0.5;    ///< bits in error before the correction
   double qFactor = 0;         ///< of `errorRatio`
   std::uint16_t qFactorH = 0; ///< of the horizontal polarisation, in thousandths
   std::uint16_t qFactorV = 0;
   std::uint64_t frames = 0;
   std::uint64_t bitErrors = 0;  ///< in `frames`
   std::uint64_t words = 0;      ///< codewords decoded, one per row of a frame
   std::uint64_t wordErrors = 0; ///< of those, beyond repair

   // What the signal processor finds while it follows the signal.
   std::int32_t dispersion = 0;        ///< in ps/nm
   std::int32_t groupDelay = 0;        ///< differential, in tenths of a picosecond
   std::uint32_t polarisationLoss = 0; ///< in hundredths of a decibel
   std::int32_t frequencyOffset = 0;   ///< in MHz
   std::uint16_t polarisationRate = 0; ///< in rad/s
   std::uint16_t centreH = 0;          ///< of the equaliser's taps, in sixteenths of a tap
   std::uint16_t centreV = 0;

   // Around the chip.
   bool hostSignal = false;    ///< the host sends
   bool monitorBusy = false;   ///< the module's monitoring had nothing new
   bool monitorFailed = false; ///< it did not answer
};

/// Turns the error ratios of one port into readings: the fibre, the laser and the equaliser behind it.
class Channel {
public:
   /// Alarms rise when the ratio reaches the first limit, and clear when it falls below the second.
   static constexpr double alarmAt = 4.0e-3;
   static constexpr double clearBelow = 3.0e-3;
   /// Bits of a frame, parity included, and of a codeword.
   static constexpr double frameBits = 4080 * 4 * 8;
   static constexpr double wordBits = frameBits / 4;

   /// \param port number of the port: ports of one seed differ
   Channel(std::uint64_t seed, std::size_t port);

   /// \param interval in seconds
   Reading next(Sample const& sample, double interval);

private:
   void drift(double hours, bool disturbed);
   void measure(Reading& reading, double disturbance);

   Dice dice_;
   double length_;                               // of the fibre, in km
   double laser_;                                // offset of the laser, in MHz
   double temperaturePhase_;                     // of the day, in hours
   double loss_;                                 // polarisation-dependent, in dB
   std::array<double, 3> delay_;                 // of the fibre's two principal states, in ps; a vector on the sphere
   std::array<double, 3> polarisation_{0, 0, 1}; // of the light on arrival, of length 1
   double centre_;
   unsigned hostAway_ = 0; // intervals until the host sends again
   double lastRatio_ = 0;
   bool outOfFrame_ = false;
   bool lossOfFrame_ = false;
};

} // namespace Job
