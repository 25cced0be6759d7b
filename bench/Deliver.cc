// SPDX-License-Identifier: Apache-2.0
// What does a change cost per reactor? Beside it: the same store, and a loop of virtual calls that do the same.

#include "Paired.h"
#include "Watchers.h"

#include <array>
#include <string>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;

struct Ours {
   Mox::Ptr<Cl10010Config> const config = Mox::make<Cl10010Config>("one");
   std::vector<Mox::Ptr<Cl10010Config::NotifieeConst>> reactors;
};

struct Plain {
   std::uint32_t refClock = 0;
   std::vector<std::unique_ptr<bench::Observer>> observers;
};

// Several objects are changed in turn, as a program does it: on a single one each change would stall until the counts
// of the last one come back from memory.
template <std::size_t objects>
void ask(bench::Paired& paired, std::string const& name, std::size_t reactors, double target) {
   std::array<Ours, objects> ours;
   std::array<Plain, objects> plains;
   for (std::size_t o = 0; o < objects; ++o)
      for (std::size_t i = 0; i < reactors; ++i) {
         auto const reactor = bench::makeReactor();
         reactor->notifierIs(Mox::Ptr<Mox::PtrInterface const>(ours[o].config));
         reactor->isRegisteredNotifieeIs(true);
         ours[o].reactors.push_back(reactor);
         plains[o].observers.push_back(bench::makeObserver());
      }
   std::uint32_t ourValue = 0;
   std::uint32_t plainValue = 0;
   paired.ask(
      name, target,
      [&](std::size_t n) {
         for (std::size_t i = 0; i < n; ++i) {
            ours[i % objects].config->refClockIs(++ourValue);
            bench::forget();
         }
      },
      [&](std::size_t n) {
         for (std::size_t i = 0; i < n; ++i) {
            Plain& plain = plains[i % objects];
            if (std::uint32_t const value = ++plainValue; plain.refClock != value) {
               plain.refClock = value;
               for (auto const& observer : plain.observers)
                  observer->onRefClock();
            }
            bench::forget();
         }
      });
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired paired(argc, argv);
   struct {
      std::size_t reactors;
      double target;
   } const rows[] = {{1, 4.0}, {4, 4.0}, {16, 4.5}, {20, 0}};
   for (auto const& row : rows)
      ask<8>(paired, "Deliver" + std::to_string(row.reactors), row.reactors, row.target);
   for (auto const& row : rows)
      ask<1>(paired, "Deliver" + std::to_string(row.reactors) + "/one", row.reactors, 0);
}
