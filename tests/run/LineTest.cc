// SPDX-License-Identifier: Apache-2.0
#include "run/Line.h"
#include "run/Channel.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace Job;

TEST(Line, QFactorFollowsFromTheErrorRatio) {
   // Pairs of the table that every book on optical transmission prints, then the inverse checked by the formula forward.
   EXPECT_NEAR(qFactor(1e-12), 7.0345, 1e-4);
   for (double ratio : {1e-14, 8.4e-6, 1e-3, 5.4e-3, 0.1, 0.3, 0.499})
      EXPECT_NEAR(std::erfc(qFactor(ratio) / std::sqrt(2.0)) / 2 / ratio, 1, 1e-9) << ratio;
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
      EXPECT_EQ(r.light, r.frames > 0);
   }
}

TEST(Line, SimulatedLineIsSeeded) {
   auto const a = simulatedLine(2, 100, 7), b = simulatedLine(2, 100, 7), other = simulatedLine(2, 100, 8);
   unsigned equal = 0;
   for (std::size_t s = 0; s < 100; ++s) {
      Sample const sample = *a->next(1, s);
      ASSERT_EQ(sample.average, b->next(1, s)->average);
      ASSERT_GE(sample.worst, sample.average);
      equal += sample.average == other->next(1, s)->average;
   }
   EXPECT_EQ(equal, 0u);
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
   EXPECT_EQ(line->next(0, 0)->average, 0.1);
   EXPECT_EQ(line->next(1, 0)->average, 0.3);
   EXPECT_FALSE(line->next(0, 1)) << "not measured then";
   EXPECT_EQ(recordedLine(trace, 0, 0)->steps(), 4u);
}

} // namespace
