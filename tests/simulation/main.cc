// kestrel-simulate: runs seeds of the simulation, and replays and shrinks those that fail.
#include "Shrink.h"
#include "Simulation.h"
#include "core/String8.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace Simulation;

/// Longest time for one seed, in seconds.
constexpr unsigned patience = 60;

char replayLine[64];

/// What a run that crashes or hangs leaves behind: how to see it again. Writes only: it may run in the middle of anything.
extern "C" void crashed(int signal) {
   char const text[] = "crashed or hung; replay with: ";
   // Nothing can be done about a failed write here.
   if (write(STDOUT_FILENO, text, sizeof text - 1) < 0 || write(STDOUT_FILENO, replayLine, std::strlen(replayLine)) < 0)
      _exit(3);
   std::signal(signal, SIG_DFL);
   raise(signal);
}

/// What a run of one seed came to.
struct Outcome {
   std::string wrong; ///< empty where nothing went wrong
   Counts counts{};
   U64 operations = 0;
   unsigned faultsMet = 0;
};

Outcome runOne(U64 seed, std::vector<Step> const& steps) {
   Outcome outcome;
   try {
      Run run(seed);
      try {
         run.play(steps);
         run.finish();
      } catch (std::exception const& e) {
         outcome.wrong = e.what();
      }
      outcome = {outcome.wrong, run.counts(), run.operations(), run.faultsMet()};
   } catch (std::exception const& e) {
      outcome.wrong = e.what();
   }
   return outcome;
}

/// How the steps fail, in a process of their own: they may crash it. 0 where they don't; else a number for the sort of failure,
/// so that shrinking doesn't slip from one fault to another. `report` shows the reason.
int failureAlone(U64 seed, std::vector<Step> const& steps, bool report) {
   std::cout.flush();
   pid_t const child = fork();
   if (child == 0) {
      for (int const s : {SIGSEGV, SIGABRT, SIGALRM, SIGBUS})
         std::signal(s, SIG_DFL);
      alarm(patience);
      if (!report && (std::freopen("/dev/null", "w", stderr) == nullptr))
         _exit(2);
      std::string const wrong = runOne(seed, steps).wrong;
      if (report && !wrong.empty())
         std::cout << wrong << std::endl;
      int sort = 1;
      for (char const* const what :
           {"told again", "history of", "become quiet", "is quiet and", "after all roots", " is ", "live"}) {
         if (wrong.find(what) != std::string::npos)
            break;
         ++sort;
      }
      _exit(wrong.empty() ? 0 : sort);
   }
   int status = 0;
   if (waitpid(child, &status, 0) != child)
      return 0;
   if (report && WIFSIGNALED(status))
      std::cout << "ended by signal " << WTERMSIG(status) << '\n';
   return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

int replay(U64 seed, bool isShrinking) {
   std::vector<Step> steps = stepsOf(seed);
   int const sort = failureAlone(seed, steps, true);
   if (sort == 0) {
      std::cout << "seed " << seed << " does not fail\n";
      return 0;
   }
   if (isShrinking) {
      steps = shrink(steps, [&](std::vector<Step> const& fewer) { return failureAlone(seed, fewer, false) == sort; });
      std::cout << "seed " << seed << " fails with " << steps.size() << " steps:\n";
      for (Step const& step : steps)
         std::cout << "   " << textOf(step) << ' ' << step.word << '\n';
      failureAlone(seed, steps, true);
   }
   return 1;
}

U64 numberOf(char const* option, std::string_view text) {
   U64 number = 0;
   if (auto const r = std::from_chars(text.data(), text.data() + text.size(), number);
       r.ec != std::errc() || r.ptr != text.data() + text.size()) {
      std::cerr << option << ": expected a number, not \"" << text << "\"\n";
      std::exit(2);
   }
   return number;
}

int usage() {
   std::cerr << "usage: kestrel-simulate --seeds N [--seed S] [--keep-going]\n"
                "       kestrel-simulate --replay S [--no-shrink]\n";
   return 2;
}

} // namespace

int main(int argc, char** argv) {
   U64 seeds = 0, first = 1, replayed = 0;
   bool isReplay = false;
   bool isShrinking = true;
   bool keepsGoing = false;
   for (int i = 1; i < argc; ++i) {
      std::string_view const option = argv[i];
      bool const hasValue = i + 1 < argc;
      if (option == "--seeds" && hasValue)
         seeds = numberOf("--seeds", argv[++i]);
      else if (option == "--seed" && hasValue)
         first = numberOf("--seed", argv[++i]);
      else if (option == "--replay" && hasValue)
         replayed = numberOf("--replay", argv[++i]), isReplay = true;
      else if (option == "--no-shrink")
         isShrinking = false;
      else if (option == "--keep-going")
         keepsGoing = true;
      else
         return usage();
   }
   // The order of names in tables is part of what a seed fixes.
   Mox::nameHashKeyIs(1);
   if (isReplay)
      return replay(replayed, isShrinking);
   if (seeds == 0)
      return usage();

   for (int const s : {SIGSEGV, SIGABRT, SIGALRM, SIGBUS})
      std::signal(s, crashed);
   Counts counts;
   U64 steps = 0, divergences = 0;
   std::vector<U64> operationsEach;
   std::vector<unsigned> faultsEach;
   for (U64 seed = first; seed < first + seeds; ++seed) {
      std::snprintf(replayLine, sizeof replayLine, "kestrel-simulate --replay %llu\n", seed);
      alarm(patience);
      Outcome const outcome = runOne(seed, stepsOf(seed));
      alarm(0);
      for (auto const& [what, n] : outcome.counts)
         counts[what] += n;
      steps += outcome.operations;
      operationsEach.push_back(outcome.operations);
      faultsEach.push_back(outcome.faultsMet);
      if (outcome.wrong.empty())
         continue;
      ++divergences;
      std::cout << "seed " << seed << ": " << outcome.wrong << "\nreplay with: " << replayLine;
      if (divergences == 1 && !keepsGoing)
         replay(seed, isShrinking);
      std::cout.flush();
   }
   auto const median = [](auto& each) {
      std::nth_element(each.begin(), each.begin() + static_cast<std::ptrdiff_t>(each.size() / 2), each.end());
      return each[each.size() / 2];
   };
   std::cout << "median of a seed: operations " << median(operationsEach) << ", faults " << median(faultsEach) << '\n';
   for (auto const& [what, counter] : situations)
      std::cout << "situation " << what << ": " << counts[what] << '\n';
   std::cout << "seeds " << seeds << ", steps " << steps << ", faults:";
   for (char const* const what : faults)
      std::cout << ' ' << what << ' ' << counts[what] << ',';
   std::cout << " divergences " << divergences << '\n';
   return divergences != 0 ? 1 : 0;
}
