// SPDX-License-Identifier: Apache-2.0
// kestrel-simulate: runs seeds of the simulation, and replays and shrinks those that fail.
#include "Scenarios.h"
#include "Shrink.h"

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

char replayLine[200];
std::string withPending; ///< of the replay

void onCrash(void (*handler)(int)) {
   for (int const s : {SIGSEGV, SIGABRT, SIGALRM, SIGBUS})
      std::signal(s, handler);
}
/// What a run that crashes or hangs leaves behind: how to see it again. Writes only: it may run in the middle of anything.
extern "C" void crashed(int signal) {
   char const text[] = "crashed or hung; replay with: ";
   // Nothing can be done about a failed write here.
   if (write(STDOUT_FILENO, text, sizeof text - 1) < 0 || write(STDOUT_FILENO, replayLine, std::strlen(replayLine)) < 0)
      _exit(3);
   std::signal(signal, SIG_DFL);
   raise(signal);
}

/// Plays on worlds that are made from `how`. \return what goes wrong; empty for nothing
template <class How, class Play> std::string wrongIn(How how, Counts& counts, Play play) {
   try {
      Run run(how, counts);
      play(run);
      run.finish();
      return {};
   } catch (std::exception const& e) {
      return e.what();
   }
}

/// How it fails, in a process of its own: it may crash. 0 where it doesn't; else a number for the sort of failure, so that
/// shrinking doesn't slip from one fault to another. `report` shows the reason.
template <class How, class Play> int failureAlone(How how, Play play, bool report = true) {
   std::cout.flush();
   pid_t const child = fork();
   if (child == 0) {
      onCrash(SIG_DFL);
      alarm(patience);
      if (!report && std::freopen("/dev/null", "w", stderr) == nullptr)
         _exit(2);
      Counts counts;
      std::string const wrong = wrongIn(how, counts, play);
      if (report && !wrong.empty())
         std::cout << wrong << std::endl;
      int sort = 1;
      for (char const* const what :
           {"audit", "told again", "history of", "become quiet", "is quiet and", "after all roots", " is ", "live"}) {
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

/// Plays the scenario of that name, or all that the library passes.
int playScenarios(std::string const& name) {
   // A scenario changes entities by itself: how often, nobody counts.
   expectations[static_cast<std::size_t>(Expects::fewRestarts)].isMet = false;
   std::size_t played = 0, failed = 0;
   for (Scenario const& scenario : scenarios()) {
      if (name.empty() ? !scenario.isMet : scenario.name != name)
         continue;
      ++played;
      bool const passes = failureAlone(scenario.shape, scenario.play) == 0;
      std::cout << "scenario " << scenario.name << (passes ? ": passes\n" : ": FAILS\n");
      failed += !passes;
   }
   std::cout << "scenarios " << played << ", failed " << failed << '\n';
   return played == 0 || failed != 0 ? 1 : 0;
}

int replay(U64 seed) {
   std::vector<Step> steps = Run::stepsOf(seed);
   auto const failure = [&](std::vector<Step> const& some, bool report) {
      return failureAlone(
         seed, [&](Run& run) { run.play(some); }, report);
   };
   int const sort = failure(steps, true);
   if (sort == 0) {
      std::cout << "seed " << seed << " does not fail\n";
      return 0;
   }
   steps = shrink(steps, [&](std::vector<Step> const& fewer) { return failure(fewer, false) == sort; });
   std::cout << "seed " << seed << " fails with " << steps.size() << " steps:\n";
   for (Step const& step : steps)
      std::cout << "   " << Run::textOf(step) << ' ' << step.word << '\n';
   failure(steps, true);
   return 1;
}

} // namespace

int main(int argc, char** argv) {
   U64 seeds = 1, first = 1, replayed = 0;
   bool keepsGoing = false, playsAll = false;
   std::string scenario;
   std::vector<std::string> pending;
   CLI::App app("Runs seeds of the simulation, and shrinks the first that fails.");
   app.add_option("--seeds", seeds, "how many");
   app.add_option("--seed", first, "the first of them");
   auto const* const replays = app.add_option("--replay", replayed, "runs one seed that fails, and shrinks it");
   app.add_flag("--keep-going", keepsGoing, "goes on behind a seed that fails, and counts no situations");
   auto const* const named = app.add_option("--scenario", scenario, "plays the scenario of that name");
   app.add_flag("--scenarios", playsAll, "plays all scenarios");
   app.add_option("--with", pending, "with this of what the library doesn't survive yet");
   CLI11_PARSE(app, argc, argv);
   for (auto& [name, isMet] : expectations)
      if (!isMet && std::find(pending.begin(), pending.end(), name) != pending.end()) {
         withPending += std::string("--with ") + name + " ";
         isMet = true;
      }
   // The order of names in tables is part of what a seed fixes.
   Mox::nameHashKeyIs(1);
   if (replays->count() != 0)
      return replay(replayed);
   if (named->count() != 0 || playsAll)
      return playScenarios(scenario);

   onCrash(crashed);
   Counts counts;
   U64 divergences = 0;
   for (U64 seed = first; seed < first + seeds; ++seed) {
      std::snprintf(replayLine, sizeof replayLine, "kestrel-simulate %s--replay %llu\n", withPending.c_str(), seed);
      auto const play = [&](Run& run) { run.play(Run::stepsOf(seed)); };
      if (keepsGoing) {
         if (failureAlone(seed, play) == 0)
            continue;
         std::cout << "replay with: " << replayLine << std::flush;
      } else {
         alarm(patience);
         std::string const wrong = wrongIn(seed, counts, play);
         alarm(0);
         if (wrong.empty())
            continue;
         std::cout << "seed " << seed << ": " << wrong << "\nreplay with: " << replayLine << std::flush;
         if (divergences == 0)
            replay(seed);
      }
      ++divergences;
   }
   for (Situation const& situation : situations)
      if (plays(situation.expects))
         std::cout << "situation " << situation.what << ": " << counts[situation.what] << '\n';
   std::cout << "seeds " << seeds << ", steps " << counts["steps"] << ", divergences " << divergences << '\n';
   return divergences != 0 ? 1 : 0;
}
