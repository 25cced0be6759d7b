#include "run/Trace.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace Job;

std::string const header = "device_name,logical_name,item,stats_type,value,och,center_frequency,och_group,time,side,pn";

/// A row of the one device, with the fields that matter.
std::string row(std::string const& statistic, std::string const& value, std::string const& time,
                std::string const& side = "A", std::string const& item = "preFecBer") {
   return "T1,/1/2/L1," + item + ',' + statistic + ',' + value + ",7,191400000,1," + time + ',' + side + ",ot1";
}

std::string file(std::initializer_list<std::string> lines, std::string const& end = "\r\n") {
   std::string out = header;
   for (auto const& line : lines)
      out += end + line;
   return out;
}

struct Outcome {
   Trace trace;
   BadRows bad;
};
Outcome readText(std::string const& text) {
   std::istringstream in(text);
   Outcome o;
   o.trace = readTrace(in, "t.csv", o.bad);
   return o;
}

TEST(Trace, RowsOfAnyOrderBecomeSamplesByPortAndTime) {
   auto const [trace, bad] =
      readText(file({row("max", "0.004", "2000/1/2 00:00"), row("avg", "0.002", "2000/1/2 00:00"),
                     row("avg", "8.4e-6", "2000/1/1 23:05"), row("min", "0.001", "2000/1/2 00:00"),
                     row("instant", "0.001", "2000/1/2 00:00"), row("avg", "0.003", "2000/1/2 00:00", "Z"),
                     row("max", "0.003", "2000/1/3 00:00")}));
   EXPECT_EQ(bad.count(), 0u);
   ASSERT_EQ(trace.ports.size(), 2u);
   EXPECT_EQ(trace.ports[0].name(), "T1/1/2/L1/A");
   EXPECT_EQ(trace.ports[1].name(), "T1/1/2/L1/Z");
   auto const& samples = trace.ports[0].samples;
   ASSERT_EQ(samples.size(), 2u) << "a time with no average is no sample";
   EXPECT_EQ(samples[0].minute, 10957 * 1440 + 23 * 60 + 5);
   EXPECT_EQ(samples[1].minute - samples[0].minute, 55);
   EXPECT_EQ(trace.interval, 55);
   EXPECT_DOUBLE_EQ(samples[0].average, 8.4e-6);
   EXPECT_DOUBLE_EQ(samples[0].worst, 8.4e-6) << "no highest ratio told: the average";
   EXPECT_DOUBLE_EQ(samples[1].worst, 0.004);
}

TEST(Trace, BadRowsAreSkippedWithLineAndReason) {
   struct {
      char const* name;
      std::string line, reason;
   } const table[] = {
      {"only commas", ",,,,,,,,,,", "empty row"},
      {"nothing", "", "empty row"},
      {"a field short", "T1,/1/2/L1,preFecBer,avg,0.1,7,1,1,2000/1/1 00:00,A", "expected 11 fields, got 10"},
      {"no device", ",x,preFecBer,avg,0.1,7,1,1,2000/1/1 00:00,A,p", "device_name: expected a printable name, got ''"},
      {"name with an escape", "T1,/\x1b[2J,preFecBer,avg,0.1,7,1,1,2000/1/1 00:00,A,p",
       "logical_name: expected a printable name, got '/.[2J'"},
      {"another item", row("avg", "0.1", "2000/1/1 00:00", "A", "osnr"), "item: expected preFecBer, got 'osnr'"},
      {"no number", row("avg", "abc", "2000/1/1 00:00"), "value: expected a ratio from 0 to 0.5, got 'abc'"},
      {"not a number", row("avg", "nan", "2000/1/1 00:00"), "value: expected a ratio from 0 to 0.5, got 'nan'"},
      {"above a half", row("max", "0.51", "2000/1/1 00:00"), "value: expected a ratio from 0 to 0.5, got '0.51'"},
      {"no such day", row("avg", "0.1", "2001/2/29 00:00"),
       "time: expected a time like 2000/1/31 23:05, got '2001/2/29 00:00'"},
      {"no such hour", row("avg", "0.1", "2001/2/2 24:00"),
       "time: expected a time like 2000/1/31 23:05, got '2001/2/2 24:00'"},
      {"side", row("avg", "0.1", "2000/1/1 00:00", "B"), "side: expected A or Z, got 'B'"},
      {"statistic", row("med", "0.1", "2000/1/1 00:00"), "stats_type: expected avg, max, min or instant, got 'med'"},
   };
   for (auto const& c : table) {
      SCOPED_TRACE(c.name);
      auto const [trace, bad] =
         readText(file({row("avg", "0.2", "2000/1/1 01:00"), c.line, row("avg", "0.2", "2000/1/1 02:00")}));
      EXPECT_EQ(trace.ports.at(0).samples.size(), 2u);
      ASSERT_EQ(bad.count(), 1u);
      EXPECT_EQ(bad.stretches().at(0).first, 3u);
      EXPECT_EQ(bad.stretches().at(0).reason, c.reason);
   }
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

TEST(Trace, ForeignFilesAreRefused) {
   struct {
      char const* name;
      std::string text, message;
   } const table[] = {
      {"empty", "", "t.csv: expected a header and rows, got an empty file"},
      {"a column short", "device_name,logical_name,item,stats_type,value,side\n",
       "t.csv: line 1: expected a header with the column 'time', got "
       "'device_name,logical_name,item,stats_type,value,side'"},
      {"binary", std::string("\x7f\x45\x4c\x46\0\0", 6),
       "t.csv: line 1: expected a header with the column 'device_name', got '.ELF..'"},
      {"endless line", std::string(5000, 'x'), "t.csv: line 1: expected at most 4096 bytes in a line"},
      {"binary below the header", header + "\n" + std::string(5000, '\0'),
       "t.csv: line 2: expected at most 4096 bytes in a line"},
      {"header alone", header,
       "t.csv: expected rows of average error ratios, got none in 0 rows (0 could not be read)"},
      {"bad rows alone", header + "\n,,\n" + row("max", "0.1", "2000/1/1 00:00"),
       "t.csv: expected rows of average error ratios, got none in 2 rows (1 could not be read)"},
   };
   for (auto const& c : table) {
      SCOPED_TRACE(c.name);
      EXPECT_EQ(thrownBy<TraceError>([&] { readText(c.text); }), c.message);
   }
}

} // namespace
