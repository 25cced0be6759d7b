#include "entities/Cl10010ConfigReactor.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::Phy::PhyConfig;
using Mox::make;
using Mox::Ptr;
using Log = std::vector<std::string>;

/// Writes down what it is told.
struct Reactor : Cl10010Config::Notifiee {
   explicit Reactor(Log& l) : log(l) {}
   void onRefClock() override { log.push_back("refClock"); }
   void onCalibration(Xcvr::CfpxHostChannel key) override {
      log.push_back("calibration " + std::to_string(static_cast<int>(key)));
   }
   void onCalibration() override { log.push_back("keyless, by mistake"); }
   void onWakeupTime() override { log.push_back("wakeupTime"); }
   Log& log;
};

/// A second type below the same base, as deep as the first: a level tells it apart from nothing.
struct Cousin : PhyConfig::Notifiee {
   static constexpr Mox::ReactorClass reactorClass{&PhyConfig::NotifieeConst::reactorClass};
   explicit Cousin(Log& l) : log(l) { reactorClassIs(reactorClass); }
   void onWakeupTime() override { log.push_back("cousin wakeupTime"); }
   virtual void onSomethingElse() { log.push_back("cousin called by mistake"); }
   Log& log;
};

// Order, nesting, exceptions and lists that change under a pass are judged against a plain model elsewhere.

TEST(Delivery, OnlyReactorsOfTheTypeHearOfItsOwnAttributesInTheKeyedSlots) {
   Log log;
   auto const port = make<Cl10010Config>("port");
   Ptr<Mox::PtrInterface::NotifieeConst> const reactors[] = {make<Reactor>(log), make<Cousin>(log)};
   for (auto const& r : reactors) {
      r->notifierIs(port);
      r->isRegisteredNotifieeIs(true);
   }
   port->refClockIs(7);
   port->calibrationIs(Xcvr::CfpxHostChannel::channel0, {1, 1, 1});
   port->calibrationNotify(Xcvr::CfpxHostChannel::channel7);
   port->wakeupTimeIs(2.0);
   EXPECT_EQ(log, (Log{"refClock", "calibration 0", "calibration 7", "wakeupTime", "cousin wakeupTime"}));
}

} // namespace
