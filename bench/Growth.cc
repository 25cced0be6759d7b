// SPDX-License-Identifier: Apache-2.0
// Does the work per item grow with how many there are? Each question is asked for 5,000, 20,000 and 80,000 items; the last columns
// are the time per item against the smallest count: about 1 is linear, 16 is quadratic. Two ends in memory, nothing between them.
//
//    bench-growth                       all questions; one that would take more than 30 seconds is left out ("-")
//    bench-growth --list                their names
//    bench-growth QUESTION COUNT        one of them once, for a profiler

#include "Leaves.h"

#include "kestrel/core/Exceptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace {

using bench::Leaf, bench::World, bench::nameOf, bench::tree;

/// Of this process alone: others share the machine.
double seconds() {
   timespec t{};
   clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
   return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

void check(bool holds, char const* what) {
   if (!holds) {
      std::fprintf(stderr, "growth: %s\n", what);
      std::exit(1);
   }
}

template <class Work> double timed(Work work) {
   double const start = seconds();
   work();
   return seconds() - start;
}

double deletedApart(std::size_t n) {
   World w(tree("ours", n));
   w.link.cut();
   w.ours->leafDelAll();
   double const t = timed([&] {
      w.link.reconnect();
      w.link.settle();
   });
   check(w.theirs->leaf().empty(), "deleted members are still mirrored");
   return t;
}

double orphansAgain(std::size_t n) {
   auto const root = Mox::make<Leaf>("ours");
   for (std::size_t i = 0; i != n; ++i)
      root->looseIs(Mox::make<Leaf>(nameOf(i)));
   World w(root);
   w.link.cut();
   double const t = timed([&] {
      w.link.reconnect();
      w.link.settle();
   });
   check(w.theirs->loose().size() == n, "orphans are not mirrored");
   return t;
}

double deletedLive(std::size_t n) {
   World w(tree("ours", n));
   auto const other = tree("theirs", n);
   w.link.right().exportRoot(other);
   auto const mirror = w.link.left().mount<Leaf>("theirs");
   w.link.settle();
   double const t = timed([&] {
      for (std::size_t i = 0; i != n; ++i) {
         w.ours->leafDel(nameOf(i));
         if (i % 64 == 0)
            w.link.settle();
      }
      w.link.settle();
   });
   check(w.theirs->leaf().empty() && mirror->leaf().size() == n, "deletions are not mirrored");
   return t;
}

double refusedWrites(std::size_t n) {
   World w(tree("ours", n));
   double const t = timed([&] {
      for (std::size_t i = 0; i != n; ++i)
         try {
            w.theirs->leaf(nameOf(i))->numberIs(2);
         } catch (Mox::Exception const&) {
         }
      w.link.settle();
   });
   check(w.theirs->leaf(nameOf(n - 1))->number() == 1, "a refused write stays");
   return t;
}

double madeWhileStalled(std::size_t n) {
   World w(tree("ours", 0));
   double const t = timed([&] {
      for (std::size_t i = 0; i != n; ++i)
         w.ours->leafIs(nameOf(i));
      w.link.settle();
   });
   check(w.theirs->leaf().size() == n, "members are not mirrored");
   return t;
}

/// `n` leaves of this side refer to `n` mirrored ones, whose owner tells them again.
double referredAgain(std::size_t n) {
   World w(tree("ours", n));
   auto const pointing = tree("pointing", n);
   for (std::size_t i = 0; i != n; ++i)
      pointing->leaf(nameOf(i))->otherIs(w.theirs->leaf(nameOf(i)));
   w.link.right().exportRoot(pointing);
   auto const mirror = w.link.left().mount<Leaf>("pointing");
   w.link.settle();
   w.link.cut();
   double const t = timed([&] {
      w.link.reconnect();
      w.link.settle();
   });
   check(mirror->leaf(nameOf(n - 1))->other() == w.ours->leaf(nameOf(n - 1)), "references are not mirrored");
   return t;
}

/// Members come one by one, while `n` references wait for an owner who has taken his root back.
double madeBesideWaiting(std::size_t n) {
   World w(tree("ours", n));
   auto const pointing = tree("pointing", n);
   for (std::size_t i = 0; i != n; ++i)
      pointing->leaf(nameOf(i))->otherIs(w.theirs->leaf(nameOf(i)));
   w.link.cut();
   w.link.left().exportDel(w.ours);
   w.link.right().exportRoot(pointing);
   auto const mirror = w.link.left().mount<Leaf>("pointing");
   auto const busy = tree("busy", 0);
   w.link.left().exportRoot(busy);
   auto const seen = w.link.right().mount<Leaf>("busy");
   w.link.reconnect();
   w.link.settle();
   constexpr std::size_t members = 200;
   double const t = timed([&] {
      for (std::size_t i = 0; i != members; ++i) {
         busy->leafIs(nameOf(i));
         pointing->leafIs(nameOf(n + i));
         w.link.settle();
      }
   });
   check(seen->leaf().size() == members, "members are not mirrored");
   return t * static_cast<double>(n) / members; // per member that comes, however many references wait
}

struct Question {
   char const* name;
   double (*ask)(std::size_t);
} const questions[] = {
   {"DeletedApart", deletedApart},          {"OrphansAgain", orphansAgain},         {"DeletedLive", deletedLive},
   {"RefusedWrites", refusedWrites},        {"MadeWhileStalled", madeWhileStalled}, {"ReferredAgain", referredAgain},
   {"MadeBesideWaiting", madeBesideWaiting}};

constexpr std::size_t counts[] = {5000, 20000, 80000};
constexpr double patience = 30;

} // namespace

int main(int argc, char** argv) {
   if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
      for (Question const& q : questions)
         std::printf("%s\n", q.name);
      return 0;
   }
   if (argc == 3) {
      for (Question const& q : questions)
         if (std::strcmp(q.name, argv[1]) == 0) {
            q.ask(std::strtoul(argv[2], nullptr, 10));
            return 0;
         }
      std::fprintf(stderr, "growth: no question %s\n", argv[1]);
      return 2;
   }
   std::printf("%-20s %10s %10s %10s   %8s %8s\n", "microseconds of each", "5000", "20000", "80000", "20000", "80000");
   for (Question const& q : questions) {
      std::printf("%-20s", q.name);
      double each[std::size(counts)] = {};
      for (std::size_t i = 0; i != std::size(counts); ++i) {
         auto const n = static_cast<double>(counts[i]);
         // As if it were quadratic, when the last one was.
         bool const isSteep = i > 1 && each[i - 1] > 2 * each[0];
         if (i > 0 && (each[i - 1] == 0 || each[i - 1] * n * (isSteep ? 4 : 1) > patience * 1e6)) {
            std::printf(" %10s", "-");
            continue;
         }
         each[i] = q.ask(counts[i]) * 1e6 / n;
         std::printf(" %10.3f", each[i]);
         std::fflush(stdout);
      }
      std::printf("  ");
      for (std::size_t i = 1; i != std::size(counts); ++i)
         if (each[i] != 0)
            std::printf(" %8.2f", each[i] / each[0]);
         else
            std::printf(" %8s", "-");
      std::printf("\n");
   }
}
