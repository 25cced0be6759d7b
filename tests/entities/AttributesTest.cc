#include "core/Exceptions.h"
#include "entities/Cl10010Config.h"
#include "entities/Cl10010Status.h"
#include "entities/FecHistogram.h"
#include "siblings/EthPhyIntfStatus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010Status;
using Mox::Kind;
using Mox::make;
using Mox::Ptr;

template <class X, class Visitor> void forEachAttribute(Visitor&& visit) {
   if constexpr (!std::same_as<X, Mox::Entity>) {
      forEachAttribute<typename X::MoxBase>(visit);
      X::MoxAttributes::forEach(visit);
   }
}

/// Runs `call`, which must throw. \return the text
template <class Exception, class Call> std::string textOf(Call call) {
   try {
      call();
   } catch (Exception const& e) {
      return e.what();
   }
   return "nothing was thrown";
}

// Values, counts and notifications of every attribute are judged against a plain model elsewhere; here is what callers get back.

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
   EXPECT_EQ(port->newCalibration(CfpxHostChannel::channel9, {9, 0, 0})->value().gain, 9u);
   EXPECT_EQ(entry->value().gain, 99u) << "a new one takes its place";
   EXPECT_EQ(port->calibrationDel(CfpxHostChannel::channel9).gain, 9u);

   Cl10010Config::MoxCalibrationMap::Iterator it(port->calibration());
   EXPECT_EQ(port->calibrationDel(it).gain, 2u);
   EXPECT_EQ(port->calibrationDel(it).gain, 0u) << "deleted already: the default";
   std::vector<std::uint32_t> seen;
   for (it.advance(); it; it.advance())
      seen.push_back(it.value().gain);
   EXPECT_EQ(seen, (std::vector<std::uint32_t>{5, 14}));
   EXPECT_EQ(port->calibrationDel(it), ClariPhyTypes::Calibration{}) << "at the end there is nothing to delete";
}

TEST(Arrays, ArePopulatedByWhatLooksIntoThemAndKeepAnIteratorsPlace) {
   auto const status = make<Cl10010Status>("port", nullptr, nullptr);
   // Announcing changes nothing, not even whether the array is populated, nor does an equal value; an iterator does.
   status->amplitudeNotify(1);
   status->amplitudeIs(1, 0);
   EXPECT_EQ(status->amplitude().size(), 0u);
   Cl10010Status::MoxAmplitudeArray::IteratorConst const looks(std::as_const(*status).amplitude(), 3);
   EXPECT_EQ(looks.position(), 3u);
   EXPECT_EQ(status->amplitude().size(), 4u);
   EXPECT_EQ(status->meanSquareErrorDel(1), 0);
   EXPECT_EQ(status->meanSquareError().size(), 4u) << "so does a deletion that finds the default";

   status->amplitudeIs(1, 1.5F);
   Cl10010Status::MoxAmplitudeArray::Iterator it(status->amplitude(), 1);
   EXPECT_EQ(status->amplitudeDel(it), 1.5F);
   EXPECT_EQ(it.position(), 1u) << "it stays where it is";
   EXPECT_EQ(status->amplitudeDel(it), 0.0F);
   for (int i = 0; i < 3; ++i)
      it.advance();
   EXPECT_FALSE(it);
   EXPECT_EQ(status->amplitudeDel(it), 0.0F) << "at the end nothing happens";
}

TEST(Histograms, CountersHaveFortyEightBitsAndThirtyTwoPlaces) {
   auto const histogram = make<Hardware::ClariPhy::FecHistogram>("h");
   constexpr auto most = ClariPhyTypes::LdpcHistogramCounter(0xffffffffffff);
   histogram->histogramIs(31, most);
   auto const before = histogram->changeCount();
   ClariPhyTypes::LdpcHistogramIterNum beyond;
   beyond.value = 32;
   std::string const keyText = "LdpcHistogramIterNum::value < 0 or > 31 not allowed";
   EXPECT_EQ(textOf<Mox::RangeException>([&] { histogram->histogramDel(beyond); }), keyText);
   EXPECT_EQ(textOf<Mox::RangeException>([&] { histogram->histogramIs(beyond, 1); }), keyText);
   EXPECT_EQ(textOf<Mox::RangeException>([&] { histogram->histogramIs(0, 0x1000000000000); }),
             "LdpcHistogramCounter::value < 0 or > 0xffffffffffff not allowed");
   EXPECT_EQ(histogram->changeCount(), before);
   EXPECT_EQ(histogram->histogramDel(31), most);
}

TEST(Construction, SetsTheDefaultsOfTheTypeOverThoseOfItsBase) {
   auto const config = make<Cl10010Config>("port");
   EXPECT_EQ(config->name(), "port");
   EXPECT_EQ(config->wakeupTime(), 0.5);
   EXPECT_EQ(config->rollOff(), 0.2F);
   EXPECT_EQ(config->quayDesc(), nullptr);
   EXPECT_EQ(config->registerMapVersion(), "1.0");
   EXPECT_EQ(config->driverVersion(), "1.0");
   auto const interface = make<Interface::EthPhyIntfStatus>("ethernet");
   auto const status = make<Cl10010Status>("port", config, interface);
   EXPECT_EQ(status->mdioClause(), static_cast<Hardware::Phy::MdioClause>(2));
   EXPECT_EQ(status->phyConfig(), config);
   EXPECT_EQ(status->ethIntfStatus(), interface);
   EXPECT_FALSE(status->pmaPmdDebugSignalDetectValid());
   EXPECT_FALSE(status->phyXsDebugStateValid());

   // All else starts at zero, empty or null.
   auto const checkZero = [](auto a, auto const& e) {
      using A = decltype(a);
      SCOPED_TRACE(A::name);
      auto const& cell = A::cell(static_cast<typename A::Owner const&>(e));
      if constexpr (A::kind == Kind::array) {
         cell.forEach([](auto, auto const& v) { EXPECT_TRUE(v == typename A::Value{}); });
         EXPECT_EQ(cell.size(), 0u);
      } else if constexpr (A::isKeyed) {
         EXPECT_TRUE(cell.empty());
      } else if constexpr (!A::isKeyed) {
         bool const isSet =
            A::name == "wakeupTime" || (A::name == "rollOff" && std::same_as<typename A::Owner, Cl10010Config>);
         EXPECT_NE(cell == typename A::Value{}, isSet);
      }
   };
   forEachAttribute<Cl10010Config>([&](auto a) { checkZero(a, *config); });
   forEachAttribute<Cl10010Status>([&](auto a) { checkZero(a, *status); });
}

TEST(AttributeNames, ComeFromTheLevelThatOwnsTheNumber) {
   auto const config = make<Cl10010Config>("port");
   auto const status = make<Cl10010Status>("port", nullptr, nullptr);
   struct Case {
      Mox::Entity const& entity;
      Mox::AttributeId id;
      char const* name;
   };
   for (auto const& [entity, id, name] : {
           Case{*config, 386, "spiAccel"},
           Case{*config, 394, "rollOff"},
           Case{*config, 395, "unknown"},
           Case{*config, 290, "wakeupTime"},
           Case{*config, 269, "unknown"},
           Case{*config, 130, "name"},
           Case{*config, 131, "parent"},
           Case{*config, 0, "unknown"},
           Case{*config, 0xffffffff, "unknown"},
           Case{*status, 258, "phyConfig"},
           Case{*status, 259, "ethIntfStatus"},
           Case{*status, 447, "rollOff"},
           Case{*status, 394, "hostEgressLaneAligned"},
        })
      EXPECT_EQ(entity.attributeString(id), name) << id;
}

TEST(BaseMutators, AreOverriddenByADerivedType) {
   /// A driver that never waits longer than a second.
   class Impatient : public Cl10010Config {
   public:
      using Cl10010Config::Cl10010Config;
      ~Impatient() override { moxEnd(); }
      void wakeupTimeIs(double const& v) override { Cl10010Config::wakeupTimeIs(std::min(v, 1.0)); }
      std::uint32_t diagsModeEpochInc(std::uint32_t) override { return 77; }
   };
   auto const port = make<Impatient>("port");
   Hardware::Phy::PhyConfig& base = *port;
   base.wakeupTimeIs(5.0);
   EXPECT_EQ(base.wakeupTime(), 1.0);
   Hardware::Phy::PhyConfig::Attr::wakeupTime_t::put(base, 0.75); // the way of the log and of the tools
   EXPECT_EQ(base.wakeupTime(), 0.75);
   EXPECT_EQ(base.diagsModeEpochInc(1), 77u);
}

} // namespace
