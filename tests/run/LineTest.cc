// SPDX-License-Identifier: Apache-2.0
#include "run/Line.h"
#include "run/Channel.h"
#include "run/Trace.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace Job;

TEST(Line, AlarmsRiseAtOneLimitAndClearBelowAnother) {
   struct {
      double average, worst;
      bool outOfFrame, lossOfFrame;
   } const steps[] = {{1.0e-3, 3.9e-3, false, false},
                      {1.0e-3, 4.0e-3, true, false},
                      {1.0e-3, 3.0e-3, true, false},
                      {1.0e-3, 2.9e-3, false, false},
                      {3.5e-3, 3.6e-3, false, false},
                      {4.0e-3, 5.0e-3, true, true},
                      {3.5e-3, 3.6e-3, true, true},
                      {2.9e-3, 2.9e-3, false, false},
                      {noSignal, noSignal, true, true},
                      {3.5e-3, 3.5e-3, true, true},
                      {0, 0, false, false}};
   EXPECT_NEAR(qFactor(1e-12), 7.0345, 1e-4) << "as books on optical transmission print it";
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

TEST(Line, RecordedRowsOfAnyOrderArePlayedByPortAndTime) {
   std::istringstream in("\xef\xbb\xbf" // as another system begins a file
                         "device_name,logical_name,item,stats_type,value,och,time,side\r\n"
                         "T1,/1,preFecBer,max,0.004,7,2000/1/2 00:00,A\r\n"
                         "T1,/1,preFecBer,avg,0.002,7,2000/1/2 00:00,A\r\n"
                         "T1,/1,preFecBer,avg,8.4e-6,7,2000/1/1 23:05,A\r\n"
                         "T1,/1,preFecBer,min,0.001,7,2000/1/2 00:00,A\r\n"
                         "T1,/1,preFecBer,instant,0.001,7,2000/1/2 00:00,A\r\n"
                         "T1,/1,preFecBer,avg,0.003,7,2000/1/2 00:00,Z\r\n"
                         "T1,/1,preFecBer,max,0.003,7,2000/1/3 00:00,A\r\n"
                         "T2,/1,preFecBer,avg,0.003,7,1999/12/31 00:59,A\r\n"
                         "T2,/1,preFecBer,avg,0.003,7,1999/12/31 00:60,A");
   BadRows bad;
   Trace const trace = readTrace(in, "t.csv", bad);
   EXPECT_EQ(bad.count(), 1u) << "no hour has sixty minutes";
   EXPECT_EQ(trace.interval, 55);
   EXPECT_EQ(trace.ports[0].samples[0].minute, 10957 * 1440 + 23 * 60 + 5);
   auto const line = recordedLine(trace, 2, 2);
   EXPECT_EQ(line->ports(), (std::vector<std::string>{"T1/1/A", "T1/1/Z"}));
   EXPECT_EQ(line->steps(), 2u) << "a time with no average is no moment, nor is that of the third port";
   EXPECT_EQ(line->next(0, 0)->worst, 8.4e-6) << "no highest ratio told: the average";
   EXPECT_FALSE(line->next(1, 0)) << "not measured then";
   EXPECT_EQ(line->next(0, 1)->average, 0.002);
   EXPECT_EQ(line->next(0, 1)->worst, 0.004);
   EXPECT_EQ(line->next(1, 1)->average, 0.003);
   EXPECT_EQ(recordedLine(trace, 2, 1)->steps(), 1u);
   EXPECT_EQ(recordedLine(trace, 0, 0)->steps(), 3u);
}

TEST(BadRows, AreToldInStretchesOfOneReasonAndFew) {
   BadRows bad;
   bad.add(2, "empty row");
   bad.add(3, "no number");
   for (std::size_t line = 10; line <= 300; ++line)
      bad.add(line, "empty row");
   for (std::size_t line = 400; line < 420; line += 2)
      bad.add(line, "no number");
   std::ostringstream out;
   bad.report(out, "t.csv");
   EXPECT_EQ(out.str(), "t.csv: line 2: empty row\n"
                        "t.csv: line 3: no number\n"
                        "t.csv: lines 10 to 300: empty row\n"
                        "t.csv: line 400: no number\n"
                        "t.csv: line 402: no number\n"
                        "t.csv: 303 bad rows skipped, 8 of them not listed\n");
}

} // namespace
