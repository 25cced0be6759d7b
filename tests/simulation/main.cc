// kestrel-simulate: runs seeds of the simulation, and replays and shrinks those that fail.
#include "Shrink.h"
#include "Simulation.h"
#include "core/String8.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
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

} // namespace

int main(int argc, char** argv) {
   U64 seeds = 1, first = 1, replayed = 0;
   bool shrinks = true, keepsGoing = false;
   CLI::App app("Runs seeds of the simulation, and shrinks the first that fails.");
   app.add_option("--seeds", seeds, "how many");
   app.add_option("--seed", first, "the first of them");
   auto const* const replays = app.add_option("--replay", replayed, "runs one seed that fails, and shrinks it");
   app.add_flag("!--no-shrink", shrinks, "leaves its steps as they are");
   app.add_flag("--keep-going", keepsGoing, "goes on behind a seed that fails");
   CLI11_PARSE(app, argc, argv);
   // The order of names in tables is part of what a seed fixes.
   Mox::nameHashKeyIs(1);
   if (replays->count() != 0)
      return replay(replayed, shrinks);

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
         replay(seed, shrinks);
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
