// SPDX-License-Identifier: Apache-2.0
// What does a mutator cost when nobody listens? Beside it: compare, and store where it differs.

#include "Paired.h"

#include "kestrel/entities/Cl10010Config.h"

#include <array>
#include <cstdint>
#include <memory>

namespace {

struct Plain {
   std::uint32_t refClock = 0;
   float rollOff = 0.2F;
};

template <class T> void set(T& cell, T value) {
   if (cell != value)
      cell = value;
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired paired(argc, argv);
   // Several objects in turn: on a single one the processor stalls until the last count comes back from memory, which
   // no program that changes more than one attribute meets. `/one` is that single one all the same.
   std::array<Mox::Ptr<Hardware::ClariPhy::Cl10010Config>, 16> configs;
   std::array<std::unique_ptr<Plain>, 16> plains;
   for (std::size_t i = 0; i < configs.size(); ++i) {
      configs[i] = Mox::make<Hardware::ClariPhy::Cl10010Config>("one");
      configs[i]->refClockIs(7);
      plains[i] = std::make_unique<Plain>();
      plains[i]->refClock = 7;
   }
   auto const each = [](std::size_t n, auto& objects, auto&& call) {
      for (std::size_t i = 0; i < n; ++i) {
         call(*objects[i % objects.size()], i);
         bench::forget();
      }
   };
   auto const one = [](std::size_t n, auto& object, auto&& call) {
      for (std::size_t i = 0; i < n; ++i) {
         call(object, i);
         bench::forget();
      }
   };
   auto const equal = [](auto& config, std::size_t) { config.refClockIs(7); };
   auto const plainEqual = [](Plain& plain, std::size_t) { set(plain.refClock, 7u); };
   auto const equalFloat = [](auto& config, std::size_t) { config.rollOffIs(0.2F); };
   auto const plainEqualFloat = [](Plain& plain, std::size_t) { set(plain.rollOff, 0.2F); };
   auto const changed = [](auto& config, std::size_t i) { config.refClockIs(static_cast<std::uint32_t>(i)); };
   auto const plainChanged = [](Plain& plain, std::size_t i) { set(plain.refClock, static_cast<std::uint32_t>(i)); };

   paired.ask(
      "SetEqual", 2.0, [&](std::size_t n) { each(n, configs, equal); },
      [&](std::size_t n) { each(n, plains, plainEqual); });
   paired.ask(
      "SetEqual/float", 2.0, [&](std::size_t n) { each(n, configs, equalFloat); },
      [&](std::size_t n) { each(n, plains, plainEqualFloat); });
   paired.ask(
      "SetChanged0", 3.0, [&](std::size_t n) { each(n, configs, changed); },
      [&](std::size_t n) { each(n, plains, plainChanged); });
   paired.ask(
      "SetEqual/one", 0, [&](std::size_t n) { one(n, *configs[0], equal); },
      [&](std::size_t n) { one(n, *plains[0], plainEqual); });
   paired.ask(
      "SetChanged0/one", 0, [&](std::size_t n) { one(n, *configs[0], changed); },
      [&](std::size_t n) { one(n, *plains[0], plainChanged); });
}
