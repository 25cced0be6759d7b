// SPDX-License-Identifier: Apache-2.0
// kestrel-simulate: runs seeds of the simulation, and shrinks those that fail.
#include "Run.h"
#include "Shrink.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace Simulation;

/// Longest time for one seed, in seconds.
constexpr unsigned patience = 60;

/// What all processes have counted: the situations in their order, and behind them the steps.
using Sums = U64[std::size(situations) + 1];
Sums& sums =
   *static_cast<Sums*>(mmap(nullptr, sizeof(Sums), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

/// What goes wrong with a seed's steps; empty for nothing.
std::string wrongIn(U64 seed, std::vector<Step> const& steps) {
   Counts counts;
   std::string wrong;
   try {
      Run run(seed, counts);
      run.play(steps);
      run.finish();
   } catch (std::exception const& e) {
      wrong = e.what();
   }
   U64* sum = sums;
   for (Situation const& situation : situations)
      *sum++ += counts[situation.what];
   *sum += counts["steps"];
   return wrong;
}

/// Whether a seed's steps fail, in a process of their own: they may crash or hang. `reports` shows the reason.
bool fails(U64 seed, std::vector<Step> const& steps, bool reports) {
   std::cout.flush();
   pid_t const child = fork();
   if (child == 0) {
      alarm(patience);
      if (!reports && std::freopen("/dev/null", "w", stderr) == nullptr)
         _exit(2);
      std::string const wrong = wrongIn(seed, steps);
      if (reports && !wrong.empty())
         std::cout << "seed " << seed << ": " << wrong << std::endl;
      _exit(wrong.empty() ? 0 : 1);
   }
   int status = 0;
   waitpid(child, &status, 0);
   if (reports && WIFSIGNALED(status))
      std::cout << "seed " << seed << " is ended by signal " << WTERMSIG(status) << '\n';
   return status != 0;
}

void shrinkAndShow(U64 seed) {
   auto const steps =
      shrink(Run::stepsOf(seed), [&](std::vector<Step> const& fewer) { return fails(seed, fewer, false); });
   std::cout << "seed " << seed << " fails with " << steps.size() << " steps:\n";
   for (Step const& step : steps)
      std::cout << "   " << Run::textOf(step) << ' ' << step.word << '\n';
   fails(seed, steps, true);
}

} // namespace

int main(int argc, char** argv) {
   U64 seeds = 1, first = 1;
   bool keepsGoing = false;
   CLI::App app("Runs seeds of the simulation, and shrinks the first that fails.");
   app.add_option("--seeds", seeds, "how many");
   app.add_option("--seed", first, "the first of them");
   app.add_flag("--keep-going", keepsGoing, "shrinks none");
   CLI11_PARSE(app, argc, argv);
   // The order of names in tables is part of what a seed fixes.
   Mox::nameHashKeyIs(1);

   U64 divergences = 0;
   for (U64 seed = first; seed < first + seeds; ++seed)
      if (fails(seed, Run::stepsOf(seed), true)) {
         std::cout << "again with: kestrel-simulate --seed " << seed << std::endl;
         if (++divergences == 1 && !keepsGoing)
            shrinkAndShow(seed);
      }
   U64 const* sum = sums;
   for (Situation const& situation : situations)
      std::cout << "situation " << situation.what << ": " << *sum++ << '\n';
   std::cout << "seeds " << seeds << ", steps " << *sum << ", divergences " << divergences << '\n';
   return divergences != 0 ? 1 : 0;
}
