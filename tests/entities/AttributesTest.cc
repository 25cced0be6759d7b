// SPDX-License-Identifier: Apache-2.0
// Values, counts and notifications of every attribute are judged against a plain model elsewhere; here is what callers get back.

#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010Status.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

namespace {

using namespace Hardware::ClariPhy;
using Mox::make;
using Mox::Ptr;

TEST(Mutators, GiveBackWhatWasThereOrIsThereNow) {
   using Xcvr::CfpxHostChannel;
   auto const port = make<Cl10010Config>("port");
   port->overrideEthIntfConfigIs(5);
   EXPECT_EQ(port->overrideEthIntfConfigDel(), 5);
   port->diagsModeEpochIs(0xfffffffe);
   EXPECT_EQ(port->diagsModeEpochInc(3), 1u) << "wraps";

   for (int key : {9, 2, 14, 5})
      port->calibrationIs(static_cast<CfpxHostChannel>(key), {static_cast<std::uint32_t>(key), 0, 0});
   Ptr<Cl10010Config::MoxCalibration const> const entry(port->calibration().find(CfpxHostChannel::channel9));
   port->calibrationIs(CfpxHostChannel::channel9, {99, 0, 0});
   EXPECT_EQ(entry->value().gain, 99u) << "the entry stays the same object";
   EXPECT_EQ(port->calibrationDel(CfpxHostChannel::channel9).gain, 99u);
   auto it = port->calibrationIterator();
   for (std::uint32_t const gain : {2u, 5u, 14u}) {
      EXPECT_EQ(port->calibrationDel(it).gain, gain);
      EXPECT_EQ(port->calibrationDel(it).gain, 0u) << "deleted already: the default";
      it.advance();
   }
   EXPECT_EQ(port->calibrationDel(it), ClariPhyTypes::Calibration{}) << "at the end there is nothing to delete";

   auto const status = make<Cl10010Status>("port", nullptr, nullptr);
   status->amplitudeIs(3, 1.5F);
   auto lane = status->amplitudeIterator(3);
   EXPECT_EQ(status->amplitudeDel(lane), 1.5F);
   EXPECT_EQ(lane.position(), 3u) << "it stays where it is";

   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("");
   EXPECT_EQ(dir->phyConfigDel("absent"), nullptr);
   auto at = dir->phyConfigIterator();
   EXPECT_EQ(dir->phyConfigDel(at), member);
   EXPECT_EQ(dir->phyConfigDel(at), nullptr) << "the iterator's position is no member any more";
}

TEST(Attributes, AreFoundByTheirIdentifierAndNoOther) {
   std::vector<std::string_view> found;
   auto const visit = [&](auto a) { found.push_back(a.name); };
   EXPECT_TRUE(Mox::visitAttribute<Cl10010Config>(Mox::firstAttribute<Cl10010Config>, visit));
   EXPECT_TRUE(Mox::visitAttribute<Cl10010Config>(Mox::lastAttribute<Cl10010Config>, visit));
   for (Mox::AttributeId const id : {Mox::firstAttribute<Cl10010Config> - 1, Mox::lastAttribute<Cl10010Config> + 1, 0u})
      EXPECT_FALSE(Mox::visitAttribute<Cl10010Config>(id, visit));
   ASSERT_EQ(found.size(), 2u);
   EXPECT_EQ(found[0], "spiAccel");
}

} // namespace
