// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <time.h>

// What one question costs, beside its baseline in the same process. The two run in turn, a millisecond each, so that
// whatever else the machine does meets both; a figure is the ratio of neighbours, never a time against one of another day.

namespace bench {

/// Stops the compiler from knowing memory from here on: what a loop stores is really stored, what it loads is loaded.
inline void forget() {
   asm volatile("" ::: "memory");
}

/// Makes the compiler work `number` out, whatever becomes of it.
inline void use(std::size_t number) {
   asm volatile("" : : "r"(number));
}

/// Processor time of this thread: what other processes take is not in it.
inline double threadSeconds() {
   timespec t{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
   return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

inline double secondsOf(auto&& run, std::size_t count) {
   double const start = threadSeconds();
   run(count);
   return threadSeconds() - start;
}

/// One program's questions.
class Paired {
public:
   static constexpr std::size_t repetitions = 101;
   static constexpr double secondsEach = 0.001;

   /// Arguments: nothing measures; `QUESTION ours|baseline COUNT` runs one side COUNT times and measures nothing, for a
   /// profiler, or for a tool that counts instructions.
   Paired(int argc, char** argv) {
      if (argc == 4) {
         question_ = argv[1];
         side_ = argv[2];
         count_ = std::strtoull(argv[3], nullptr, 10);
      } else if (argc != 1) {
         std::fprintf(stderr, "%s: expected no arguments, or QUESTION ours|baseline COUNT\n", argv[0]);
         std::exit(2);
      }
   }

   /// `ours(n)` and `baseline(n)` each do the thing n times. Prints one row: the ratios' median, minimum and maximum over
   /// the repetitions, the target, and the medians in nanoseconds per operation.
   /// \param target highest ratio that is good enough; 0 for a figure without one
   void ask(std::string_view question, double target, auto&& ours, auto&& baseline) {
      if (!question_.empty()) {
         if (question_ == question)
            side_ == "ours" ? ours(count_) : baseline(count_);
         return;
      }
      std::size_t const oursCount = countFor(ours);
      std::size_t const baselineCount = countFor(baseline);
      std::vector<double> ratios, oursNs, baselineNs;
      for (std::size_t i = 0; i < repetitions; ++i) {
         oursNs.push_back(secondsOf(ours, oursCount) * 1e9 / static_cast<double>(oursCount));
         baselineNs.push_back(secondsOf(baseline, baselineCount) * 1e9 / static_cast<double>(baselineCount));
         ratios.push_back(oursNs.back() / baselineNs.back());
      }
      row(question, target, ratios, oursNs, baselineNs);
   }

   /// Whether a program that times by itself is to answer `question`, and which side of it.
   bool asks(std::string_view question, std::string_view side) const {
      return question_.empty() || (question_ == question && side_ == side);
   }
   std::size_t count(std::size_t otherwise) const { return question_.empty() ? otherwise : count_; }

   /// One row of the table: of ratios of neighbours, and of what the two took.
   static void row(std::string_view question, double target, std::vector<double> const& ratios,
                   std::vector<double> const& oursNs, std::vector<double> const& baselineNs) {
      double const ratio = median(ratios);
      char goal[32] = "-";
      if (target != 0)
         std::snprintf(goal, sizeof goal, "%.1f%s", target, ratio <= target ? "" : " missed");
      std::printf("%-24s %7.2f %7.2f %7.2f  %-12s %9.2f %9.2f\n", std::string(question).c_str(), ratio,
                  *std::min_element(ratios.begin(), ratios.end()), *std::max_element(ratios.begin(), ratios.end()),
                  goal, median(oursNs), median(baselineNs));
      std::fflush(stdout);
   }
   static double median(std::vector<double> v) {
      std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
      return v[v.size() / 2];
   }

private:
   static std::size_t countFor(auto& run) {
      std::size_t count = 1024;
      double best = 0;
      while ((best = secondsOf(run, count)) < secondsEach / 4)
         count *= 2;
      for (int i = 0; i < 3; ++i)
         best = std::min(best, secondsOf(run, count));
      return std::max<std::size_t>(1, static_cast<std::size_t>(static_cast<double>(count) * secondsEach / best));
   }

   std::string question_;
   std::string side_;
   std::size_t count_ = 0;
};

} // namespace bench
