#include "run/Line.h"
#include "run/Channel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

using namespace Job;

TEST(Line, QFactorFollowsFromTheErrorRatio) {
   // Pairs of the table that every book on optical transmission prints, then the inverse checked by the formula forward.
   EXPECT_NEAR(qFactor(1e-9), 5.9978, 1e-4);
   EXPECT_NEAR(qFactor(1e-12), 7.0345, 1e-4);
   for (double ratio : {1e-14, 8.4e-6, 1e-3, 5.4e-3, 0.1, 0.3, 0.499})
      EXPECT_NEAR(std::erfc(qFactor(ratio) / std::sqrt(2.0)) / 2 / ratio, 1, 1e-9) << ratio;
   EXPECT_EQ(qFactor(0), qFactor(1e-15));
   EXPECT_EQ(qFactor(0.5), 0);
}

TEST(Line, AlarmsRiseAtOneLimitAndClearBelowAnother) {
   struct {
      double average, worst;
      bool outOfFrame, lossOfFrame;
   } const steps[] = {{1.0e-3, 3.9e-3, false, false},   {1.0e-3, 4.0e-3, true, false},  {1.0e-3, 3.5e-3, true, false},
                      {1.0e-3, 3.0e-3, true, false},    {1.0e-3, 2.9e-3, false, false}, {3.5e-3, 3.6e-3, false, false},
                      {4.0e-3, 5.0e-3, true, true},     {3.5e-3, 3.6e-3, true, true},   {2.9e-3, 2.9e-3, false, false},
                      {noSignal, noSignal, true, true}, {3.5e-3, 3.5e-3, true, true},   {0, 0, false, false}};
   Channel channel(1, 0);
   std::int64_t minute = 100;
   for (auto const& s : steps) {
      SCOPED_TRACE(testing::Message() << s.average << ", " << s.worst);
      Reading const r = channel.next({minute++, s.average, s.worst}, 900);
      EXPECT_EQ(r.outOfFrame, s.outOfFrame);
      EXPECT_EQ(r.lossOfFrame, s.lossOfFrame);
      EXPECT_EQ(r.light, s.average < noSignal);
      EXPECT_EQ(r.light, r.frames > 0);
   }
}

TEST(Line, MeasurementsOfOneIntervalBelongTogether) {
   Channel channel(3, 5);
   double lastWordErrors = -1;
   for (double ratio : {0.0, 8.8e-6, 1.5e-3, 3.5e-3, 4.0e-3, 4.5e-3, 5.0e-3, 8.0e-3}) {
      SCOPED_TRACE(ratio);
      Reading const r = channel.next({0, ratio, ratio}, 3600);
      auto const bits = static_cast<double>(r.frames) * Channel::frameBits;
      EXPECT_NEAR(bits / 3600, 111.8e9, 0.1e9) << "bits in a second";
      EXPECT_NEAR(static_cast<double>(r.bitErrors), bits * ratio, 1);
      EXPECT_EQ(static_cast<double>(r.words) * Channel::wordBits, bits);
      auto const wordErrors = static_cast<double>(r.wordErrors) / static_cast<double>(r.words);
      EXPECT_GE(wordErrors, lastWordErrors);
      lastWordErrors = wordErrors;
      EXPECT_EQ(std::accumulate(r.iterations.begin(), r.iterations.end(), std::uint64_t{0}), r.words);
      EXPECT_EQ(r.iterations[Reading::lastIteration], r.wordErrors);
      EXPECT_NEAR(static_cast<double>(r.iterations[0]) / static_cast<double>(r.words),
                  std::exp(-Channel::wordBits * ratio), 1e-5)
         << "words without an error";
      // The lanes' ratios, from their error vectors back, have the whole one as their mean; the gain makes amplitudes equal.
      double laneRatios = 0;
      for (Reading::LineLane const& lane : r.lanes) {
         laneRatios += std::erfc(std::sqrt(65536.0 / lane.squareError) / std::sqrt(2.0)) / 2 / r.lanes.size();
         EXPECT_NEAR(lane.gain * lane.amplitude / 64, 500, 1);
         EXPECT_TRUE(lane.aligned || r.lossOfFrame);
      }
      // Both polarisations' ratios, from their Q-factors back, have the whole one as their mean.
      auto const half = [](std::uint16_t q) { return std::erfc(q / 1000.0 / std::sqrt(2.0)) / 2; };
      if (ratio > 0) {
         EXPECT_NEAR((half(r.qFactorH) + half(r.qFactorV)) / 2 / ratio, 1, 5e-3);
         EXPECT_NEAR(laneRatios / ratio, 1, 2e-3);
      }
      if (ratio == 1.5e-3) {
         EXPECT_EQ(wordErrors, 0);
      } else if (ratio == Channel::alarmAt) {
         EXPECT_NEAR(wordErrors, 1e-3, 0.5e-3);
      }
   }
}

TEST(Line, DecoderTakesLongerTheMoreErrorsAWordHas) {
   struct {
      double ratio;
      std::size_t most; // the bin that holds the median
   } const table[] = {{1e-6, 0}, {1e-4, 1}, {6e-4, 2}, {1.5e-3, 3}, {2.4e-3, 4}, {3.2e-3, 5}, {3.9e-3, 6}, {8e-3, 31}};
   for (auto const& c : table) {
      SCOPED_TRACE(c.ratio);
      Channel channel(3, 5);
      Reading const r = channel.next({0, c.ratio, c.ratio}, 900);
      std::uint64_t seen = 0;
      std::size_t median = 0;
      while ((seen += r.iterations[median]) < r.words / 2)
         ++median;
      EXPECT_EQ(median, c.most);
   }
}

TEST(Line, DriftIsSlow) {
   Channel channel(1, 2);
   std::vector<double> dispersion, offset; // a week's, in ps/nm and MHz
   for (std::int64_t quarter = 0; quarter < 4 * 24 * 7; ++quarter) {
      Reading const r = channel.next({quarter * 15, 1e-3, 1e-3}, 900);
      dispersion.push_back(r.dispersion);
      offset.push_back(r.frequencyOffset);
   }
   auto const expectDrift = [](std::vector<double> const& v, double jump, double least, double most) {
      for (std::size_t i = 1; i < v.size(); ++i)
         EXPECT_LT(std::abs(v[i] - v[i - 1]), jump);
      auto const [low, high] = std::minmax_element(v.begin(), v.end());
      EXPECT_GT(*high - *low, least);
      EXPECT_LT(*high - *low, most);
   };
   expectDrift(dispersion, 15, 10, 100);
   expectDrift(offset, 100, 200, 2500);
}

TEST(Line, SimulatedLineIsSeededAndHasItsEvent) {
   constexpr std::size_t ports = 12, steps = 100;
   auto const a = simulatedLine(ports, steps, 7);
   auto const b = simulatedLine(ports, steps, 7);
   auto const other = simulatedLine(ports, steps, 8);
   ASSERT_EQ(a->ports().size(), ports);
   unsigned equalToOther = 0;
   for (std::size_t p = 0; p < ports; ++p) {
      SCOPED_TRACE(a->ports()[p]);
      Channel channel(7, p);
      unsigned dark = 0, outOfFrame = 0;
      bool last = true;
      for (std::size_t s = 0; s < steps; ++s) {
         Sample const sample = *a->next(p, s);
         ASSERT_EQ(sample.average, b->next(p, s)->average);
         equalToOther += sample.average == other->next(p, s)->average && sample.average != noSignal;
         ASSERT_GE(sample.worst, sample.average);
         Reading const r = channel.next(sample, a->interval());
         dark += !r.light;
         outOfFrame += r.outOfFrame;
         last = r.outOfFrame;
      }
      EXPECT_EQ(dark > 0, p % 2 == 0);
      EXPECT_EQ(outOfFrame > dark, p % 2 == 0) << "it is bent before it breaks";
      EXPECT_LT(dark, 5u);
      EXPECT_FALSE(last) << "recovered at the end";
   }
   EXPECT_EQ(equalToOther, 0u);
}

TEST(Line, RecordingPlaysItsMomentsInOrder) {
   Trace trace;
   trace.ports = {{"T1", "/1", 'A', {{60, 0.1, 0.1}, {180, 0.2, 0.2}}},
                  {"T2", "/1", 'Z', {{60, 0.3, 0.3}, {120, 0.4, 0.4}}},
                  {"T3", "/1", 'Z', {{0, 0.3, 0.3}}}};
   trace.interval = 60;
   auto const line = recordedLine(trace, 2, 2);
   EXPECT_EQ(line->ports(), (std::vector<std::string>{"T1/1/A", "T2/1/Z"}));
   EXPECT_EQ(line->steps(), 2u) << "the third moment, and that of the third port, are left";
   EXPECT_EQ(line->interval(), 3600);
   EXPECT_EQ(line->next(0, 0)->average, 0.1);
   EXPECT_EQ(line->next(1, 0)->average, 0.3);
   EXPECT_FALSE(line->next(0, 1)) << "not measured then";
   EXPECT_EQ(line->next(1, 1)->average, 0.4);
   EXPECT_EQ(recordedLine(trace, 0, 0)->steps(), 4u);
}

} // namespace
