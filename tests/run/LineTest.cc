#include "run/Line.h"

#include <gtest/gtest.h>

#include <cmath>

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

TEST(Line, AlarmRisesAtOneLimitAndClearsBelowAnother) {
   PortLine line;
   struct {
      double worst;
      bool alarm, changed;
   } const steps[] = {{3.9e-3, false, false}, {4.0e-3, true, true},  {3.5e-3, true, false},
                      {3.0e-3, true, false},  {2.9e-3, false, true}, {3.5e-3, false, false}};
   std::int64_t minute = 100;
   for (auto const& s : steps) {
      SCOPED_TRACE(s.worst);
      Reading const r = line.next({minute++, 1e-3, s.worst});
      EXPECT_EQ(r.frameLoss, s.alarm);
      EXPECT_EQ(r.frameLossChanged, s.changed);
      EXPECT_NEAR(static_cast<double>(r.bitErrors) / (static_cast<double>(r.frames) * 130560), 1e-3, 1e-12);
   }
}

TEST(Line, SimulatedLineIsSeededAndHasItsEvent) {
   Trace const a = simulatedTrace(12, 100, 7);
   Trace const b = simulatedTrace(12, 100, 7);
   Trace const other = simulatedTrace(12, 100, 8);
   ASSERT_EQ(a.ports.size(), 12u);
   unsigned equalToOther = 0;
   for (std::size_t p = 0; p < a.ports.size(); ++p) {
      SCOPED_TRACE(a.ports[p].name());
      ASSERT_EQ(a.ports[p].samples.size(), 100u);
      PortLine line;
      unsigned rises = 0;
      bool last = false;
      for (std::size_t s = 0; s < 100; ++s) {
         Sample const& sample = a.ports[p].samples[s];
         ASSERT_EQ(sample.average, b.ports[p].samples[s].average);
         equalToOther += sample.average == other.ports[p].samples[s].average;
         ASSERT_GE(sample.worst, sample.average);
         ASSERT_LT(sample.worst, 0.05);
         Reading const r = line.next(sample);
         rises += r.frameLoss && r.frameLossChanged;
         last = r.frameLoss;
      }
      EXPECT_EQ(rises > 0, p % 2 == 0);
      EXPECT_FALSE(last) << "recovered at the end";
   }
   EXPECT_EQ(equalToOther, 0u);
}

} // namespace
