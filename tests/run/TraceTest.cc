// SPDX-License-Identifier: Apache-2.0
#include "run/Trace.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace Job;

TEST(Trace, RowsOfAnyOrderBecomeSamplesByPortAndTime) {
   std::istringstream in("device_name,logical_name,item,stats_type,value,och,time,side\r\n"
                         "T1,/1/2/L1,preFecBer,max,0.004,7,2000/1/2 00:00,A\r\n"
                         "T1,/1/2/L1,preFecBer,avg,0.002,7,2000/1/2 00:00,A\r\n"
                         "T1,/1/2/L1,preFecBer,avg,8.4e-6,7,2000/1/1 23:05,A\r\n"
                         "T1,/1/2/L1,preFecBer,min,0.001,7,2000/1/2 00:00,A\r\n"
                         "T1,/1/2/L1,preFecBer,instant,0.001,7,2000/1/2 00:00,A\r\n"
                         "T1,/1/2/L1,preFecBer,avg,0.003,7,2000/1/2 00:00,Z\r\n"
                         "T1,/1/2/L1,preFecBer,max,0.003,7,2000/1/3 00:00,A");
   BadRows bad;
   Trace const trace = readTrace(in, "t.csv", bad);
   EXPECT_EQ(bad.count(), 0u);
   ASSERT_EQ(trace.ports.size(), 2u);
   EXPECT_EQ(trace.ports[0].name(), "T1/1/2/L1/A");
   auto const& samples = trace.ports[0].samples;
   ASSERT_EQ(samples.size(), 2u) << "a time with no average is no sample";
   EXPECT_EQ(samples[0].minute, 10957 * 1440 + 23 * 60 + 5);
   EXPECT_EQ(trace.interval, 55);
   EXPECT_DOUBLE_EQ(samples[0].average, 8.4e-6);
   EXPECT_DOUBLE_EQ(samples[0].worst, 8.4e-6) << "no highest ratio told: the average";
   EXPECT_DOUBLE_EQ(samples[1].worst, 0.004);
}

TEST(Trace, BeginsWithAByteOrderMarkAndEndsAnHourAtItsFiftyNinthMinute) {
   std::istringstream in("\xef\xbb\xbf"
                         "device_name,logical_name,item,stats_type,value,time,side\n"
                         "T1,/1/2/L1,preFecBer,avg,0.002,2000/1/2 00:59,A\n"
                         "T1,/1/2/L1,preFecBer,avg,0.002,2000/1/2 00:60,A\n");
   BadRows bad;
   Trace const trace = readTrace(in, "t.csv", bad);
   EXPECT_EQ(bad.count(), 1u);
   ASSERT_EQ(trace.ports.size(), 1u);
   EXPECT_EQ(trace.ports[0].samples.size(), 1u);
}

TEST(Trace, EachBadRowHasItsOwnReason) {
   BadRows bad;
   bad.add(2, "empty row");
   bad.add(3, "no number");
   std::ostringstream out;
   bad.report(out, "t.csv");
   EXPECT_EQ(out.str(), "t.csv: line 2: empty row\nt.csv: line 3: no number\nt.csv: 2 bad rows skipped\n");
}

TEST(Trace, ReportOfBadRowsIsShort) {
   BadRows bad;
   for (std::size_t line = 10; line <= 300; ++line)
      bad.add(line, "empty row");
   for (std::size_t line = 400; line < 420; line += 2)
      bad.add(line, "no number");
   std::ostringstream out;
   bad.report(out, "t.csv");
   EXPECT_EQ(out.str(), "t.csv: lines 10 to 300: empty row\n"
                        "t.csv: line 400: no number\n"
                        "t.csv: line 402: no number\n"
                        "t.csv: line 404: no number\n"
                        "t.csv: line 406: no number\n"
                        "t.csv: 301 bad rows skipped, 6 of them not listed\n");
}

} // namespace
