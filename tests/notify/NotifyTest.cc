// SPDX-License-Identifier: Apache-2.0
// Order, nesting, exceptions and lists that change under a pass are judged against a plain model elsewhere.

#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Mox::make;
using Mox::Ptr;

/// Of another type than the entity's reactors, below the same base and as deep: a level tells it apart from nothing.
struct Cousin : Hardware::Phy::PhyConfig::Notifiee {
   static constexpr Mox::ReactorClass reactorClass{&Hardware::Phy::PhyConfig::NotifieeConst::reactorClass};
   explicit Cousin(Log& l) : log(l) { reactorClassIs(reactorClass); }
   void onWakeupTime() override { log.push_back("wakeupTime"); }
   virtual void onSomethingElse() { log.push_back("called by mistake"); }
   Log& log;
};

TEST(Delivery, OnlyReactorsOfTheTypeHearOfItsOwnAttributes) {
   Log log;
   auto const port = make<Cl10010Config>("port");
   auto const cousin = listening<Cousin>(port, false, log);
   port->refClockIs(7);
   port->wakeupTimeIs(2.0);
   EXPECT_EQ(log, Log{"wakeupTime"});
}

struct Members : testing::Test {
   /// Does what it is given when it hears of its parent, and lets everything out.
   struct Frank : Cl10010Config::Notifiee {
      void onParent() override { act(); }
      void onNotificationException(Mox::AttributeId) override { throw; }
      std::function<void()> act;
   };
   Log log;
   Ptr<Cl10010ConfigDir> const dir = make<Cl10010ConfigDir>("config");
   Ptr<Frank> const own = make<Frank>();

   /// A new member, and what a reactor of its own does at the next change of its parent.
   Ptr<Cl10010Config> member(std::function<void()> act) {
      own->act = [] {};
      auto const port = dir->newPhyConfig("port");
      own->notifierIs(port);
      own->isRegisteredNotifieeIs(true);
      own->act = std::move(act);
      return port;
   }
};

TEST_F(Members, AreToldByTheNameThatTheyHadWhenTheMutatorBegan) {
   Mox::Name pending;
   auto const first = Mox::on(dir, Cl10010ConfigDir::Attr::phyConfig, [&](auto&, auto const&) { pending = "another"; });
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

TEST_F(Members, DeletionIsToldWhateverTheMembersOwnReactorsThrow) {
   struct Owners : Cl10010ConfigDir::Notifiee {
      void onPhyConfig(Mox::Name) override { throw std::runtime_error("second"); }
      void onNotificationException(Mox::AttributeId) override { throw; }
   };
   auto const watch = logged(dir, Cl10010ConfigDir::Attr::phyConfig, log);
   auto const throwing = make<Owners>();
   throwing->notifierIs(dir);
   for (bool const both : {false, true}) {
      auto const port = member([&] {
         EXPECT_EQ(own->notifier()->parent(), nullptr);
         EXPECT_FALSE(dir->phyConfig().contains("port"));
         EXPECT_EQ(log, Log{}) << "the member's reactors hear before the owner's";
         throw std::runtime_error("first");
      });
      auto const changes = dir->changeCount();
      throwing->isRegisteredNotifieeIs(both);
      EXPECT_EQ(thrownBy<std::runtime_error>([&] { dir->phyConfigDel("port"); }), "first");
      EXPECT_EQ(dir->changeCount(), changes + 1);
      EXPECT_EQ(std::exchange(log, {}), Log{"port gone"});
   }
   EXPECT_EQ(Mox::lastSwallowedException(), "/config.phyConfig: second");
}

TEST_F(Members, ReplacementHasItsParentWhateverTheOldOnesReactorsDo) {
   auto const old = member([&] {
      EXPECT_EQ(own->notifier()->parent(), nullptr);
      EXPECT_EQ(dir->phyConfig("port")->parent(), dir);
      throw std::runtime_error("first");
   });
   EXPECT_EQ(thrownBy<std::runtime_error>([&] { dir->newPhyConfig("port"); }), "first");
   EXPECT_EQ(dir->auditErrors(1), 0u);

   auto const next = member([&] { dir->phyConfigDel("port"); });
   EXPECT_EQ(dir->newPhyConfig("port")->parent(), nullptr) << "it is deleted already";
}

TEST(Watching, IsOfOneAttributeAndEndsWithPauseStopMoveAndDeath) {
   Log log;
   Ptr<Cl10010Config> port = Mox::make<Cl10010Config>("port");
   auto const add = [&](char const* name) {
      return Mox::on(port, Cl10010Config::Attr::rollOff, [&log, name](Cl10010Config&) { log.push_back(name); });
   };
   /// Who hears of a change.
   auto const told = [&] {
      port->rollOffIs(port->rollOff() == 0.5F ? 0.25F : 0.5F);
      return std::exchange(log, {});
   };
   Mox::Watch other = Mox::on(port, Cl10010Config::Attr::rxSkewV, [&](Cl10010Config&) { log.push_back("by mistake"); });
   Mox::Watch any = Mox::onAny(Ptr<Cl10010Config const>(port),
                               [&](Cl10010Config const&, Mox::AttributeId id) { log.push_back(std::to_string(id)); });
   Mox::Watch first = add("first"), second = add("second");
   first.pause();
   EXPECT_EQ(told(), (Log{"394", "second"}));
   first.resume();
   Mox::Watch moved = std::move(first);
   first.pause(); // NOLINT(bugprone-use-after-move): of nothing
   EXPECT_EQ(told(), (Log{"394", "second", "first"})) << "behind the others";
   moved = std::move(second); // ends what it watched before
   EXPECT_EQ(told(), (Log{"394", "second"}));
   moved.stop();
   EXPECT_EQ(told(), Log{"394"});
   EXPECT_EQ(port->references(), 1u) << "a watch keeps nothing alive";
   any.pause();
   port = nullptr;
   any.resume();
   EXPECT_THROW(static_cast<void>(add("none")), Mox::RangeException);
}

TEST(Watching, MayBeEndedByItsFunctionAndSoMayTheEntity) {
   Ptr<Cl10010Config> port = Mox::make<Cl10010Config>("port");
   auto const life = std::make_shared<int>(0);
   Mox::Watch watch = Mox::on(port, Cl10010Config::Attr::rollOff, [&, life](Cl10010Config& c) {
      watch.stop();
      port = nullptr;
      EXPECT_EQ(c.rollOff(), 0.5F) << "held until the function returns";
   });
   port->rollOffIs(0.5F);
   EXPECT_EQ(port, nullptr);
   EXPECT_EQ(life.use_count(), 1);
}

} // namespace
