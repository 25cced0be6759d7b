// Values, counts and notifications of every attribute are judged against a plain model elsewhere; here is what callers get back.

#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010Status.h"
#include "siblings/EthPhyIntfStatus.h"

#include <gtest/gtest.h>

#include <algorithm>
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
   EXPECT_EQ(port->overrideEthIntfConfigDel(), 0);
   port->diagsModeEpochIs(0xfffffffe);
   EXPECT_EQ(port->diagsModeEpochInc(3), 1u) << "wraps";

   for (int key : {9, 2, 14, 5})
      port->calibrationIs(static_cast<CfpxHostChannel>(key), {static_cast<std::uint32_t>(key), 0, 0});
   Ptr<Cl10010Config::MoxCalibration> const entry(port->calibration().find(CfpxHostChannel::channel9));
   port->calibrationIs(CfpxHostChannel::channel9, {99, 0, 0});
   EXPECT_EQ(entry->value().gain, 99u) << "the entry stays the same object";
   EXPECT_EQ(port->calibrationDel(CfpxHostChannel::channel9).gain, 99u);
   Cl10010Config::MoxCalibrationMap::Iterator it(port->calibration());
   for (std::uint32_t const gain : {2u, 5u, 14u}) {
      EXPECT_EQ(port->calibrationDel(it).gain, gain);
      EXPECT_EQ(port->calibrationDel(it).gain, 0u) << "deleted already: the default";
      it.advance();
   }
   EXPECT_EQ(port->calibrationDel(it), ClariPhyTypes::Calibration{}) << "at the end there is nothing to delete";

   auto const status = make<Cl10010Status>("port", nullptr, nullptr);
   status->amplitudeIs(3, 1.5F);
   Cl10010Status::MoxAmplitudeArray::Iterator lane(status->amplitude(), 3);
   EXPECT_EQ(status->amplitudeDel(lane), 1.5F);
   EXPECT_EQ(lane.position(), 3u) << "it stays where it is";
   EXPECT_EQ(status->amplitudeDel(3), 0.0F);

   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("");
   EXPECT_EQ(dir->phyConfigIs(""), member);
   EXPECT_EQ(dir->phyConfigDel("absent"), nullptr);
   Cl10010ConfigDir::MoxPhyConfigMap::Iterator at(dir->phyConfig());
   EXPECT_EQ(dir->phyConfigDel(at), member);
   EXPECT_EQ(dir->phyConfigDel(at), nullptr) << "the iterator's position is no member any more";
}

TEST(Construction, SetsTheDefaultsOfTheTypeOverThoseOfItsBase) {
   auto const config = make<Cl10010Config>("port");
   EXPECT_EQ(config->wakeupTime(), 0.5);
   EXPECT_EQ(config->rollOff(), 0.2F);
   EXPECT_EQ(config->registerMapVersion(), "1.0");
   auto const interface = make<Interface::EthPhyIntfStatus>("ethernet");
   auto const status = make<Cl10010Status>("port", config, interface);
   EXPECT_EQ(status->mdioClause(), static_cast<Hardware::Phy::MdioClause>(2));
   EXPECT_EQ(status->phyConfig(), config);
   EXPECT_EQ(status->ethIntfStatus(), interface);
   EXPECT_FALSE(status->pmaPmdDebugSignalDetectValid());
   for (auto const& [id, name] : std::vector<std::pair<Mox::AttributeId, char const*>>{
           {130, "name"}, {131, "parent"}, {0, "unknown"}, {269, "unknown"}, {395, "unknown"}, {~0u, "unknown"}})
      EXPECT_EQ(config->attributeString(id), name) << id;
}

TEST(BaseMutators, AreOverriddenByADerivedType) {
   /// A driver that never waits longer than a second.
   class Impatient : public Cl10010Config {
   public:
      using Cl10010Config::Cl10010Config;
      ~Impatient() override { moxEnd(); }
      void wakeupTimeIs(double const& v) override { Cl10010Config::wakeupTimeIs(std::min(v, 1.0)); }
   };
   auto const port = make<Impatient>("port");
   Hardware::Phy::PhyConfig& base = *port;
   base.wakeupTimeIs(5.0);
   EXPECT_EQ(base.wakeupTime(), 1.0);
   Hardware::Phy::PhyConfig::Attr::wakeupTime_t::put(base, 0.75); // the way of the log and of the tools
   EXPECT_EQ(base.wakeupTime(), 0.75);
}

} // namespace
