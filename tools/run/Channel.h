// SPDX-License-Identifier: Apache-2.0
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

/// What the chip behind one port reads out at the end of an interval. In an interval with light all values fit
/// together: errors follow from the ratio and the frames, the Q-factors of the two polarisations from the two halves of
/// the ratio, the alarms from the worst moment. Without light, measurements and counts are 0 and the ratio is a half.
struct Reading {
   /// Lanes of the line: in phase and quadrature of the horizontal polarisation, then of the vertical one.
   static constexpr std::size_t lineLanes = 4;
   static constexpr std::size_t hostLanes = 10;
   /// The iteration at which the decoder gives up.
   static constexpr std::size_t lastIteration = 31;

   /// One lane of the line, from the receiver to the equaliser.
   struct LineLane {
      bool aligned = false;
      float amplitude = 0;            ///< in mV, before the automatic gain
      std::uint16_t gain = 0;         ///< in 1/64
      std::uint16_t squareError = 0;  ///< mean, in 1/65536 of the signal's power
      std::uint16_t skew = 0;         ///< in hundredths of a picosecond
      std::uint8_t unitOffset = 128;  ///< of the converter's units, 128 is none, in half steps
      std::uint8_t rowOffset = 128;   ///< of the converter's rows, likewise
      std::uint8_t gainError = 128;   ///< of the converter, 128 is none, in thousandths
      std::uint8_t timingError = 128; ///< of the converter, 128 is none, in hundredths of a picosecond
   };

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
   /// `words` by the iterations that the decoder took; those that it gave up, and no others, are in the last.
   std::array<std::uint64_t, lastIteration + 1> iterations{};

   // What the signal processor finds while it follows the signal.
   std::int32_t dispersion = 0;        ///< in ps/nm
   std::int32_t groupDelay = 0;        ///< differential, in tenths of a picosecond
   std::uint32_t polarisationLoss = 0; ///< in hundredths of a decibel
   std::int32_t frequencyOffset = 0;   ///< in MHz
   std::uint16_t polarisationRate = 0; ///< in rad/s
   std::uint16_t centreH = 0;          ///< of the equaliser's taps, in sixteenths of a tap
   std::uint16_t centreV = 0;
   std::array<LineLane, lineLanes> lanes{}; ///< aligned all of them unless frames are lost

   // Around the chip.
   std::array<bool, hostLanes> hostLaneSignals{}; ///< the host sends on each lane
   bool hostSignal = false;                       ///< the host sends on all lanes
   bool monitorBusy = false;                      ///< the module's monitoring had nothing new
   bool monitorFailed = false;                    ///< the module's monitoring did not answer
};

/// Turns the error ratios of one port into readings: the fibre, the laser and the equaliser behind it.
class Channel {
public:
   /// Alarms rise when the ratio reaches the first limit, and clear when it falls below the second.
   static constexpr double alarmAt = 4.0e-3;
   static constexpr double clearBelow = 3.0e-3;
   /// A lane loses its alignment at one and a half times the error ratio at which frames, which are spread over all
   /// lanes, are lost.
   static constexpr double laneStands = 1.5;
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
   void measureLane(std::size_t number, double errorRatio, double warmth, Reading::LineLane& lane);

   /// How one lane of the line differs from the others: properties that it is made with, and a drift about them. Of the
   /// two lanes of a polarisation, one has as many errors above the half as the other has below it.
   struct Lane {
      double share;                    // of the polarisation's errors, more or less than half
      double responsivity;             // of the diodes
      double skew;                     // of the tracks, in hundredths of a picosecond
      std::array<double, 4> converter; // offset of units, of rows, error of gain, of timing
      std::array<double, 4> drift{};
      bool aligned = false;
   };

   Dice dice_;
   double length_;                               // of the fibre, in km
   double laser_;                                // offset of the laser, in MHz
   double temperaturePhase_;                     // of the day, in hours
   double loss_;                                 // polarisation-dependent, in dB
   std::array<double, 3> delay_;                 // of the fibre's two principal states, in ps; a vector on the sphere
   std::array<double, 3> polarisation_{0, 0, 1}; // of the light on arrival, of length 1
   double centre_;
   unsigned hostAway_ = 0;        // intervals until the host sends again
   std::size_t hostAwayLane_ = 0; // the lane that it does not send on; from `hostLanes` on, it sends on none
   double lastRatio_ = 0;
   bool outOfFrame_ = false;
   bool lossOfFrame_ = false;
   std::array<Lane, Reading::lineLanes> lanes_;
};

} // namespace Job
