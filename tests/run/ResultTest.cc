// SPDX-License-Identifier: Apache-2.0
#include "run/Result.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

TEST(Result, IsAPlainTableWhereNothingMoreIsKnownAndJsonThatReadsBack) {
   Job::Result r;
   r.line = "a \"b\"\n\xff.csv";
   r.ports = 1234;
   r.steps = 1;
   r.badRows = 2;
   r.changes = 1234567;
   r.recordsSent = 1000;
   r.recordsApplied = 999;
   r.bytes = 12345678;
   r.seconds = 4.0449;
   r.worst = {"T1/1/A", 5.375e-3F, 946684800 + 86340};
   r.signalLosses = 1;
   for (double ms : {0.5, 0.25, 0.125, 4.0, 1.0, 2.0, 3.0, 8.0})
      r.answers.push_back({"T1/1/A", "roll-off 0.225", ms});
   r.comparedLines = 77;
   r.references = 2468;
   EXPECT_EQ(r.table(Job::Terminal()), " ports         1,234, 1 step, 2 bad rows skipped\n"
                                       " changes       1,234,567\n"
                                       " records       1,000 sent, 999 applied\n"
                                       " bytes         12.3 MB\n"
                                       " time          4.04 s\n"
                                       " worst port    T1/1/A, error rate 0.00538, at 2000-01-01 23:59\n"
                                       " no signal     1 port for a while\n"
                                       " answers       T1/1/A  roll-off 0.225  0.50 ms\n"
                                       "               T1/1/A  roll-off 0.225  0.25 ms\n"
                                       "               T1/1/A  roll-off 0.225  0.12 ms\n"
                                       "               T1/1/A  roll-off 0.225  4.00 ms\n"
                                       "               T1/1/A  roll-off 0.225  1.00 ms\n"
                                       "               T1/1/A  roll-off 0.225  2.00 ms\n"
                                       "               and 2 more, of all: median 2.00 ms, longest 8.00 ms\n"
                                       " ok: both sides agree: 77 lines each, 2,468 references\n");
   auto const read = nlohmann::json::parse(r.json());
   EXPECT_EQ(read["line"], "a \"b\"\n\uFFFD.csv") << "what is no text is replaced";
   EXPECT_EQ(read["worst"]["errorRate"], 5.375e-3);
   EXPECT_EQ(read["answers"].size(), 8u);
}

} // namespace
