// SPDX-License-Identifier: Apache-2.0
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Hardware::Phy::PhyConfig;
using Mox::make;
using Mox::Ptr;

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

TEST(Delivery, ANameThatAReactorChangesIsToldToTheOthersAsItWas) {
   Log log;
   auto const dir = make<Cl10010ConfigDir>("config");
   Mox::Name pending("port");
   auto const first = Mox::on(dir, Cl10010ConfigDir::Attr::phyConfig,
                              [&](Cl10010ConfigDir&, Mox::Name const&) { pending = "another"; });
   auto const second = logged(dir, Cl10010ConfigDir::Attr::phyConfig, log);
   for (auto const& call : std::vector<std::function<void()>>{
           [&] { dir->phyConfigIs(pending); },
           [&] { dir->phyConfigNotify(pending); },
           [&] { dir->phyConfigDel(pending); },
        }) {
      pending = "port";
      call();
   }
   EXPECT_EQ(log, (Log{"port here", "port here", "port gone"}));
}

// The member's own reactors are told of its parent before the owner's hear its name.

/// Does what it is given, and lets everything out.
template <class Interface> struct Frank : Interface {
   void onParent() override { act(); }
   void onNotificationException(Mox::AttributeId) override { throw; }
   std::function<void()> act = [] {};
};

struct Members : testing::Test {
   Log log;
   Ptr<Cl10010ConfigDir> const dir = make<Cl10010ConfigDir>("config");
   Mox::Watch const watch = logged(dir, Cl10010ConfigDir::Attr::phyConfig, log);
   Ptr<Frank<Cl10010Config::Notifiee>> const own = make<Frank<Cl10010Config::Notifiee>>();

   /// A new member, which `own` watches.
   Ptr<Cl10010Config> member() {
      own->act = [] {};
      auto const port = dir->newPhyConfig("port");
      own->notifierIs(port);
      own->isRegisteredNotifieeIs(true);
      return port;
   }
};

TEST_F(Members, DeletionIsToldWhateverTheMembersOwnReactorsThrow) {
   struct Owners : Cl10010ConfigDir::Notifiee {
      void onPhyConfig(Mox::Name) override { throw std::runtime_error("second"); }
      void onNotificationException(Mox::AttributeId) override { throw; }
   };
   auto const throwing = make<Owners>();
   throwing->notifierIs(dir);
   for (bool const both : {false, true}) {
      auto const port = member();
      auto const changes = dir->changeCount(), membersOwn = port->changeCount();
      own->act = [&] {
         EXPECT_EQ(port->parent(), nullptr);
         EXPECT_FALSE(dir->phyConfig().contains("port"));
         EXPECT_EQ(dir->changeCount(), changes + 1);
         EXPECT_GT(port->changeCount(), membersOwn);
         EXPECT_EQ(log, Log{});
         throw std::runtime_error("first");
      };
      throwing->isRegisteredNotifieeIs(both);
      EXPECT_EQ(thrownBy<std::runtime_error>([&] { dir->phyConfigDel("port"); }), "first");
      EXPECT_EQ(std::exchange(log, {}), Log{"port gone"});
   }
   EXPECT_EQ(Mox::lastSwallowedException(), "/config.phyConfig: second");
}

TEST_F(Members, ReplacementHasItsParentWhateverTheOldOnesReactorsDo) {
   auto const old = member();
   own->act = [&] {
      EXPECT_EQ(old->parent(), nullptr);
      EXPECT_EQ(dir->phyConfig("port")->parent(), dir);
      throw std::runtime_error("first");
   };
   EXPECT_EQ(thrownBy<std::runtime_error>([&] { dir->newPhyConfig("port"); }), "first");
   EXPECT_EQ(dir->auditErrors(1), 0u);

   member();
   own->act = [&] { dir->phyConfigDel("port"); };
   auto const deleted = dir->newPhyConfig("port");
   EXPECT_EQ(deleted->parent(), nullptr);
   EXPECT_EQ(std::exchange(log, {}), Log{"port gone"});
}

} // namespace
