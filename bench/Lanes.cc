// SPDX-License-Identifier: Apache-2.0
// What does an element of a lane array cost, and an increment of a counter, beside a scalar of the same type?

#include "Paired.h"

#include "kestrel/entities/Cl10010Status.h"

#include <array>
#include <cstdint>

namespace {

using Hardware::ClariPhy::Cl10010Status;
using Status = Mox::Ptr<Cl10010Status>;

} // namespace

int main(int argc, char** argv) {
   bench::Paired paired(argc, argv);
   std::array<Status, 16> statuses;
   for (Status& status : statuses)
      status = Mox::make<Cl10010Status>("one", nullptr, nullptr);
   std::array<Xcvr::CfpxHostLaneId, 4> const lanes{0, 1, 2, 3};
   // In turn, as Set.cc does it. Both sides run the same loop, which also picks the lane: a caller knows its lane, so
   // picking it is no part of a store.
   auto const run = [&](auto&& call) {
      return [&, call](std::size_t n) {
         for (std::size_t i = 0; i < n; ++i) {
            auto const& lane = lanes[i % lanes.size()];
            bench::use(lane.number());
            call(*statuses[i % statuses.size()], lane, i + 1);
            bench::forget();
         }
      };
   };
   paired.ask("LaneStore/U16", 1.5, run([](auto& s, auto const& lane, std::size_t i) {
                 s.meanSquareErrorIs(lane, static_cast<std::uint16_t>(i / 16));
              }),
              run([](auto& s, auto const&, std::size_t i) { s.qFactorHIs(static_cast<std::uint16_t>(i / 16)); }));
   paired.ask("LaneStore/F32", 1.5,
              run([](auto& s, auto const& lane, std::size_t i) { s.amplitudeIs(lane, static_cast<float>(i)); }),
              run([](auto& s, auto const&, std::size_t i) { s.rollOffIs(static_cast<float>(i)); }));
   paired.ask("LaneStore/ConditionStat", 1.5, run([](auto& s, auto const& lane, std::size_t i) {
                 s.laneSignalDetectIs(lane, {true, static_cast<std::uint32_t>(i), 1.0});
              }),
              run([](auto& s, auto const&, std::size_t i) {
                 s.signalDetectIs({true, static_cast<std::uint32_t>(i), 1.0});
              }));
   paired.ask("CounterInc/U32", 1.5, run([](auto& s, auto const&, std::size_t) { s.firmwareSmStateChangesInc(1); }),
              run([](auto& s, auto const&, std::size_t i) { s.polarizationDepLossIs(static_cast<std::uint32_t>(i)); }));
   paired.ask("CounterInc/U64", 1.5, run([](auto& s, auto const&, std::size_t) { s.fecErrorsInc(1); }),
              run([](auto& s, auto const&, std::size_t i) { s.totalLdpcWordsIs(i); }));
}
