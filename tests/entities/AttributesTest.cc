#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "notify/Observe.h"
#include "siblings/AcceleratorReactor.h"
#include "siblings/EthPhyIntfStatusReactor.h"
#include "siblings/GpoReactor.h"
#include "siblings/IntCtrlReactor.h"
#include "siblings/LedConfigReactor.h"
#include "siblings/PllStatusReactor.h"
#include "siblings/XcvrConfigReactor.h"
#include "siblings/XcvrStatusReactor.h"
#include "values/Print.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010Status;
using Mox::Kind;
using Mox::make;
using Mox::Ptr;

template <class X> Ptr<X> made() {
   if constexpr (std::same_as<X, Cl10010Status>)
      return make<X>("it", nullptr, nullptr);
   else
      return make<X>("it");
}

/// What a reactor was told: identifier and key.
using Told = std::vector<std::pair<Mox::AttributeId, std::string>>;

template <class X> struct Recorder : X::template MoxForwarder<typename X::Notifiee, Recorder<X>> {
   template <class A, class... Key> void forward(A, Key const&... key) {
      std::ostringstream text;
      (Mox::print(text, key), ...);
      told.emplace_back(A::id, text.str());
   }
   Told taken() { return std::exchange(told, {}); }
   Told told;
};

template <class X, class Visitor> void forEachAttribute(Visitor&& visit) {
   if constexpr (!std::same_as<X, Mox::Entity>) {
      forEachAttribute<typename X::MoxBase>(visit);
      X::MoxAttributes::forEach(visit);
   }
}

// A value that is not `v`.
template <class T>
   requires std::is_arithmetic_v<T>
T other(T v) {
   return std::same_as<T, bool> ? T(!v) : static_cast<T>(v + 1);
}
template <std::derived_from<Mox::FloatValue> T> T other(T v) {
   return T(v == 0.5F ? 0.25F : 0.5F);
}
template <Mox::BoundedValue T> T other(T v) {
   return T(v.number() == 0 ? 1 : 0);
}
template <Mox::Enumeration T> T other(T v) {
   for (auto const& row : Mox::enumTable<T>.rows)
      if (row.number != static_cast<int>(v))
         return static_cast<T>(row.number);
   return v;
}
Mox::String8 other(Mox::String8 const& v) {
   return Mox::String8(std::string(std::string_view(v)) + "x");
}
Kiln::ConditionStat other(Kiln::ConditionStat v) {
   return {v.condition, v.count, v.time + 1}; // the last member alone
}
ClariPhyTypes::Calibration other(ClariPhyTypes::Calibration v) {
   return {v.gain, v.offset, v.phase + 1};
}
template <class T> Ptr<T> other(Ptr<T> const&) {
   return make<std::remove_const_t<T>>("target");
}

template <class X> struct EveryAttribute : testing::Test {
   Ptr<X> entity = made<X>();
   Ptr<Recorder<X>> recorder = make<Recorder<X>>();
   EveryAttribute() {
      recorder->notifierIs(entity);
      recorder->isRegisteredNotifieeIs(true);
   }

   /// Runs `change`, which must count `changes` and `touches`, and returns what the reactor was told.
   template <class Change> Told after(unsigned changes, unsigned touches, Change change) {
      auto const before = std::pair(entity->changeCount(), entity->touchCount());
      change();
      EXPECT_EQ(entity->changeCount() - before.first, changes);
      EXPECT_EQ(entity->touchCount() - before.second, touches);
      return recorder->taken();
   }
};

using Types = testing::Types<Cl10010Config, Cl10010Status, Hardware::ClariPhy::FecHistogram, Hardware::Spi::Accelerator,
                             Interface::EthPhyIntfStatus, Fru::Gpo, Fru::IntCtrl, Hardware::Led::LedConfig,
                             Hardware::Dpll::PllStatus, Xcvr::XcvrConfig, Xcvr::XcvrStatus>;
TYPED_TEST_SUITE(EveryAttribute, Types);

TYPED_TEST(EveryAttribute, CountsAndTellsAChangeOnceAndAnEqualValueNever) {
   using X = TypeParam;
   Mox::AttributeId last = 0;
   forEachAttribute<X>([&](auto a) {
      using A = decltype(a);
      SCOPED_TRACE(A::name);
      auto& e = static_cast<typename A::Owner&>(*this->entity);
      EXPECT_EQ(this->entity->attributeString(A::id), A::name);
      EXPECT_LT(std::exchange(last, A::id), A::id) << "an identifier stands for one attribute";
      Told const none;

      if constexpr (!A::isKeyed) {
         Told const once{{A::id, ""}};
         auto const first = A::cell(e);
         auto const second = other(first);
         EXPECT_EQ(this->after(0, 0, [&] { A::put(e, first); }), none);
         EXPECT_EQ(this->after(1, 0, [&] { A::put(e, second); }), once);
         EXPECT_TRUE(A::cell(e) == second);
         EXPECT_EQ(this->after(0, 0, [&] { A::put(e, second); }), none);
         if constexpr (A::kind == Kind::reference) {
            EXPECT_EQ(second->references(), 2u);
            EXPECT_EQ(this->after(1, 0, [&] { A::put(e, other(first)); }), once) << "another of the same name";
            EXPECT_EQ(second->references(), 1u);
            EXPECT_EQ(this->after(1, 0, [&] { A::put(e, first); }), once) << "null is a value";
         } else if constexpr (A::kind == Kind::optional) {
            EXPECT_EQ(this->after(1, 0, [&] { A::drop(e); }), once);
            EXPECT_TRUE(A::cell(e) == typename A::Value{});
            EXPECT_EQ(this->after(0, 0, [&] { EXPECT_TRUE(Mox::optionalDel<A>(e) == typename A::Value{}); }), none);
         } else if constexpr (A::kind == Kind::counter) {
            using Value = typename A::Value;
            constexpr auto most = std::numeric_limits<Value>::max();
            constexpr auto least = std::numeric_limits<Value>::min();
            A::put(e, most);
            this->recorder->taken();
            EXPECT_EQ(this->after(0, 1, [&] { EXPECT_EQ(Mox::counterInc<A>(e, 0), most); }), none);
            EXPECT_EQ(this->after(0, 1, [&] { EXPECT_EQ(Mox::counterInc<A>(e, 1), least); }), once) << "wraps";
            EXPECT_EQ(this->after(0, 1, [&] { EXPECT_EQ(Mox::counterInc<A>(e, static_cast<Value>(-1)), most); }), once);
            A::put(e, Value{3});
            EXPECT_EQ(Mox::counterInc<A>(e, static_cast<Value>(-5)), static_cast<Value>(-2));
            this->recorder->taken();
         } else if constexpr (std::floating_point<typename A::Value>) {
            auto const nan = std::numeric_limits<typename A::Value>::quiet_NaN();
            EXPECT_EQ(this->after(1, 0, [&] { A::put(e, nan); }), once);
            EXPECT_EQ(this->after(1, 0, [&] { A::put(e, nan); }), once) << "a NaN equals nothing";
            A::put(e, typename A::Value{});
            this->recorder->taken();
            EXPECT_EQ(this->after(0, 0, [&] { A::put(e, typename A::Value(-0.0)); }), none);
            EXPECT_FALSE(std::signbit(A::cell(e)));
         }
      } else if constexpr (A::kind == Kind::array) {
         auto const key = typename A::Key(2);
         Told const once{{A::id, "2"}};
         typename A::Value const fallback{};
         auto const value = other(fallback);
         auto& array = A::cell(e);
         EXPECT_EQ(this->after(0, 0, [&] { A::put(e, key, fallback); }), none);
         EXPECT_EQ(array.size(), 0u) << "an equal value populates nothing";
         EXPECT_EQ(this->after(1, 0, [&] { A::put(e, key, value); }), once);
         EXPECT_EQ(array.size(), unsigned{A::Key::maximum} + 1);
         array.forEach([&](auto k, auto const& v) { EXPECT_TRUE(v == (k == key ? value : fallback)); });
         EXPECT_EQ(this->after(0, 0, [&] { A::put(e, key, value); }), none);
         EXPECT_EQ(this->after(0, 0, [&] { Mox::keyNotify<A>(e, key); }), once);
         auto const version = array.version();
         EXPECT_EQ(this->after(1, 0, [&] { EXPECT_TRUE(Mox::arrayDel<A>(e, key) == value); }), once);
         EXPECT_EQ(this->after(0, 0, [&] { EXPECT_TRUE(Mox::arrayDel<A>(e, key) == fallback); }), none);
         EXPECT_EQ(array.version(), version + 2) << "the default is stored too";
         auto beyond = key;
         beyond.value = A::Key::maximum + 1;
         EXPECT_EQ(this->after(0, 0, [&] { EXPECT_THROW(Mox::arrayDel<A>(e, beyond), Mox::RangeException); }), none);
         EXPECT_EQ(this->after(0, 0, [&] { EXPECT_THROW(A::put(e, beyond, value), Mox::RangeException); }), none);
      } else if constexpr (A::kind == Kind::map || A::kind == Kind::hashMap) {
         auto const key = static_cast<typename A::Key>(3);
         std::ostringstream keyText;
         Mox::print(keyText, key);
         Told const once{{A::id, keyText.str()}};
         typename A::Value const fallback{};
         auto const value = other(fallback);
         EXPECT_EQ(this->after(0, 0, [&] { EXPECT_TRUE(Mox::mapDel<A>(e, key) == fallback); }), none);
         EXPECT_EQ(this->after(1, 0, [&] { A::put(e, key, value); }), once);
         auto const entry = Ptr<typename A::Entry>(A::cell(e).find(key));
         EXPECT_EQ(this->after(0, 0, [&] { A::put(e, key, value); }), none);
         EXPECT_EQ(this->after(1, 0, [&] { A::put(e, key, fallback); }), once);
         EXPECT_TRUE(entry->value() == fallback) << "the entry stays the same object";
         EXPECT_EQ(this->after(0, 0, [&] { Mox::newMapEntry<A>(e, key, value); }), none);
         EXPECT_NE(A::cell(e).find(key), entry.get()) << "a new entry takes the place";
         EXPECT_EQ(A::cell(e).size(), 1u);
         EXPECT_EQ(this->after(0, 0, [&] { Mox::keyNotify<A>(e, key); }), once);
         EXPECT_EQ(this->after(1, 0, [&] { EXPECT_TRUE(Mox::mapDel<A>(e, key) == value); }), once);
         EXPECT_TRUE(A::cell(e).empty());
      }
   });
   EXPECT_EQ(this->entity->auditErrors(1), 0u);
}

TEST(Maps, IteratorsDeleteUnderChangeAndAllGoOneByOne) {
   using Xcvr::CfpxHostChannel;
   auto const port = make<Cl10010Config>("port");
   auto const recorder = make<Recorder<Cl10010Config>>();
   for (int key : {9, 2, 14, 5})
      port->calibrationIs(static_cast<CfpxHostChannel>(key), {static_cast<std::uint32_t>(key), 0, 0});
   recorder->notifierIs(port);
   recorder->isRegisteredNotifieeIs(true);

   Cl10010Config::MoxCalibrationMap::Iterator it(port->calibration());
   EXPECT_EQ(port->calibrationDel(it).gain, 2u);
   EXPECT_EQ(port->calibrationDel(it).gain, 0u) << "deleted already: the default";
   port->calibrationIs(CfpxHostChannel::channel3, {33, 0, 0}); // ahead of the position: visited
   port->calibrationIs(CfpxHostChannel::channel1, {11, 0, 0}); // behind it: not
   std::vector<std::uint32_t> seen;
   for (it.advance(); it; it.advance())
      seen.push_back(it.value().gain);
   EXPECT_EQ(seen, (std::vector<std::uint32_t>{33, 5, 9, 14}));
   EXPECT_EQ(port->calibrationDel(it), ClariPhyTypes::Calibration{}) << "at the end there is nothing to delete";
   recorder->taken();

   auto const before = port->changeCount();
   port->calibrationDelAll();
   port->calibrationDelAll();
   EXPECT_EQ(recorder->taken(),
             (Told{{389, "channel1"}, {389, "channel3"}, {389, "channel5"}, {389, "channel9"}, {389, "channel14"}}));
   EXPECT_EQ(port->changeCount() - before, 5u);
}

TEST(Arrays, DeleteThroughIteratorsAndAsAWholeWhileReactorsWrite) {
   auto const status = make<Cl10010Status>("port", nullptr, nullptr);
   auto const recorder = make<Recorder<Cl10010Status>>();
   recorder->notifierIs(status);
   recorder->isRegisteredNotifieeIs(true);
   Told const none;

   // Announcing again changes nothing, not even whether the array is populated; an iterator does.
   status->amplitudeNotify(1);
   EXPECT_EQ(recorder->taken(), (Told{{412, "1"}}));
   EXPECT_EQ(status->amplitude().size(), 0u);
   Cl10010Status::MoxAmplitudeArray::IteratorConst const looks(std::as_const(*status).amplitude(), 3);
   EXPECT_EQ(looks.position(), 3u);
   EXPECT_EQ(status->amplitude().size(), 4u);
   EXPECT_EQ(status->meanSquareErrorDel(1), 0);
   EXPECT_EQ(status->meanSquareError().size(), 4u) << "so does a deletion that finds the default";
   EXPECT_EQ(recorder->taken(), none);

   status->amplitudeIs(1, 1.5F);
   Cl10010Status::MoxAmplitudeArray::Iterator it(status->amplitude(), 1);
   EXPECT_EQ(status->amplitudeDel(it), 1.5F);
   EXPECT_EQ(it.position(), 1u) << "it stays where it is";
   EXPECT_EQ(status->amplitudeDel(it), 0.0F);
   for (int i = 0; i < 3; ++i)
      it.advance();
   EXPECT_FALSE(it);
   EXPECT_EQ(status->amplitudeDel(it), 0.0F) << "at the end nothing happens";
   EXPECT_EQ(recorder->taken(), (Told{{412, "1"}, {412, "1"}}));

   // Values that reactors put back ahead of the position go as well, those behind it stay.
   for (int lane : {2, 5, 9})
      status->hostEgressLaneLossOfFrameIs(lane, {true, 1, 0.0});
   recorder->taken();
   auto const before = status->changeCount();
   auto const watch = Mox::on(status, Cl10010Status::Attr::hostEgressLaneLossOfFrame,
                              [](Cl10010Status& s, ClariPhyTypes::HostLane lane) {
                                 if (lane == 5 && !s.hostEgressLaneLossOfFrame(5).condition) {
                                    s.hostEgressLaneLossOfFrameIs(0, {true, 2, 0.0});
                                    s.hostEgressLaneLossOfFrameIs(7, {true, 2, 0.0});
                                 }
                              });
   status->hostEgressLaneLossOfFrameDelAll();
   EXPECT_EQ(recorder->taken(), (Told{{395, "2"}, {395, "5"}, {395, "0"}, {395, "7"}, {395, "7"}, {395, "9"}}));
   EXPECT_EQ(status->changeCount() - before, 6u);
   std::vector<unsigned> left;
   for (auto const [lane, condition] : status->hostEgressLaneLossOfFrame())
      if (condition.condition)
         left.push_back(lane);
   EXPECT_EQ(left, (std::vector<unsigned>{0}));
   EXPECT_EQ(status->auditErrors(0), 0u);
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
