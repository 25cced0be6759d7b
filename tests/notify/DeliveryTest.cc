#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "siblings/GpoReactor.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::Phy::PhyConfig;
using Mox::make;
using Mox::Ptr;
using Log = std::vector<std::string>;

/// Writes down what it is told, and what the entity's value is by then; may do something the first time.
class Reactor : public Cl10010Config::Notifiee {
public:
   Reactor(Log& log, std::string name) : log_(log), name_(std::move(name)) {}
   ~Reactor() override {
      if (isLast)
         log_.push_back(name_ + " dies");
   }

   void onRollOff() override { told("rollOff " + std::to_string(notifier()->rollOff().value).substr(0, 4)); }
   void onRxSkewH() override { told("rxSkewH"); }
   void onRefClock() override { told("refClock"); }
   void onCalibration(Xcvr::CfpxHostChannel key) override {
      told("calibration " + std::to_string(static_cast<int>(key)));
   }
   void onCalibration() override { told("keyless"); }
   void onCalibrationmoxImmediate() override { told("immediate"); }
   void onWakeupTime() override { told("wakeupTime"); }
   void onNotificationException(Mox::AttributeId id) override {
      log_.push_back(name_ + " threw in " + std::to_string(id));
      if (rethrows)
         throw;
   }

   std::function<void()> once;
   bool rethrows = false;
   bool isLast = false;

private:
   void told(std::string const& what) {
      log_.push_back(name_ + " " + what);
      if (auto const run = std::exchange(once, nullptr))
         run();
   }
   Log& log_;
   std::string name_;
};

struct Delivery : testing::Test {
   Log log;
   Ptr<Cl10010Config> port = make<Cl10010Config>("port");
   Ptr<Reactor> a = added("a");
   Ptr<Reactor> b = added("b");
   Ptr<Reactor> c = added("c");

   Ptr<Reactor> added(std::string name) {
      auto const r = make<Reactor>(log, std::move(name));
      r->notifierIs(port);
      r->isRegisteredNotifieeIs(true);
      return r;
   }
};

TEST_F(Delivery, ANestedChangeIsToldWholeBeforeTheOuterOneGoesOn) {
   auto const before = port->changeCount();
   b->once = [&] { port->rxSkewHIs(2.0F); };
   port->rollOffIs(0.5F);
   EXPECT_EQ(log, (Log{"a rollOff 0.50", "b rollOff 0.50", "a rxSkewH", "b rxSkewH", "c rxSkewH", "c rollOff 0.50"}));
   EXPECT_EQ(port->changeCount() - before, 2u);

   // The same attribute again: the outer pass still tells its own change, of a value that is older by now.
   log.clear();
   a->once = [&] { port->rollOffIs(0.75F); };
   port->rollOffIs(0.25F);
   EXPECT_EQ(log, (Log{"a rollOff 0.25", "a rollOff 0.75", "b rollOff 0.75", "c rollOff 0.75", "b rollOff 0.75",
                       "c rollOff 0.75"}));
}

TEST_F(Delivery, APassGoesOverTheReactorsThatStoodThereWhenItBegan) {
   Ptr<Reactor> d;
   a->once = [&] {
      d = added("d");                   // not in this pass
      b->isRegisteredNotifieeIs(false); // still in it: somebody holds it
      c->isLast = true;
      c = nullptr; // nobody holds it: passed over
   };
   port->refClockIs(1);
   EXPECT_EQ(log, (Log{"a refClock", "b refClock", "c dies"}));
   log.clear();
   port->refClockIs(2);
   EXPECT_EQ(log, (Log{"a refClock", "d refClock"}));

   log.clear();
   a->isLast = true;
   a->once = [&] { a = nullptr; }; // its own last reference, while it runs
   port->refClockIs(3);
   EXPECT_EQ(log, (Log{"a refClock", "a dies", "d refClock"}));
   EXPECT_EQ(port->auditErrors(0), 0u);
}

TEST_F(Delivery, AThrowingReactorHearsOfItAndOnlyItsOwnRethrowLeaves) {
   a->once = [] { throw std::runtime_error("a is unwell"); };
   b->once = [] { throw 5; }; // whatever is thrown
   port->rollOffIs(0.5F);
   EXPECT_EQ(log, (Log{"a rollOff 0.50", "a threw in 394", "b rollOff 0.50", "b threw in 394", "c rollOff 0.50"}));

   log.clear();
   auto const before = port->changeCount();
   auto const held = c->references();
   b->rethrows = true;
   b->once = [] { throw std::runtime_error("b is unwell"); };
   EXPECT_THROW(port->calibrationIs(Xcvr::CfpxHostChannel::channel3, {1, 2, 3}), std::runtime_error);
   EXPECT_EQ(log, (Log{"a calibration 3", "b calibration 3", "b threw in 389"}));
   EXPECT_EQ(port->calibration(Xcvr::CfpxHostChannel::channel3), (ClariPhyTypes::Calibration{1, 2, 3}));
   EXPECT_EQ(port->changeCount() - before, 1u);
   EXPECT_EQ(c->references(), held) << "the snapshot has been let go";
   log.clear();
   port->refClockIs(9);
   EXPECT_EQ(log, (Log{"a refClock", "b refClock", "c refClock"}));
}

TEST_F(Delivery, AnnouncingAKeyChangesNothing) {
   auto const before = port->changeCount();
   port->calibrationNotify(Xcvr::CfpxHostChannel::channel7);
   EXPECT_EQ(log, (Log{"a calibration 7", "b calibration 7", "c calibration 7"})) << "keyed slots only";
   EXPECT_EQ(port->changeCount(), before);
}

/// A second type below the same base, as deep as the first: a level tells it apart from nothing.
struct Cousin : PhyConfig::Notifiee {
   static constexpr Mox::ReactorClass reactorClass{&PhyConfig::NotifieeConst::reactorClass};
   explicit Cousin(Log& l) : log(l) { reactorClassIs(reactorClass); }
   void onWakeupTime() override { log.push_back("cousin wakeupTime"); }
   virtual void onSomethingElse() { log.push_back("cousin called by mistake"); }
   Log& log;
};

TEST_F(Delivery, OnlyReactorsOfTheTypeHearOfItsOwnAttributes) {
   struct Base : PhyConfig::Notifiee {
      explicit Base(Log& l) : log(l) {}
      void onWakeupTime() override { log.push_back("base wakeupTime"); }
      Log& log;
   };
   struct Any : Mox::Entity::Notifiee {};
   auto const base = make<Base>(log);
   auto const cousin = make<Cousin>(log);
   auto const any = make<Any>();
   for (Ptr<Mox::PtrInterface::NotifieeConst> const& r :
        {Ptr<Mox::PtrInterface::NotifieeConst>(base), {cousin}, {any}}) {
      r->notifierIs(port);
      r->isRegisteredNotifieeIs(true);
   }
   b->isRegisteredNotifieeIs(false);
   c->isRegisteredNotifieeIs(false);
   port->spiAccelIs(nullptr);
   port->refClockIs(7);
   port->rollOffIs(0.5F);
   port->calibrationIs(Xcvr::CfpxHostChannel::channel0, {1, 1, 1});
   port->wakeupTimeIs(2.0);
   EXPECT_EQ(log, (Log{"a refClock", "a rollOff 0.50", "a calibration 0", "a wakeupTime", "base wakeupTime",
                       "cousin wakeupTime"}));
}

TEST(LongLists, NestedPassesKeepApartAndKeepReactorsAlive) {
   constexpr std::size_t count = 40; // more than a pass keeps in place
   auto const port = make<Cl10010Config>("port");
   Log log;
   std::vector<Ptr<Reactor>> reactors;
   for (std::size_t i = 0; i < count; ++i) {
      reactors.push_back(make<Reactor>(log, std::to_string(i)));
      reactors.back()->notifierIs(port);
      reactors.back()->isRegisteredNotifieeIs(true);
   }
   reactors[3]->once = [&] { port->rxSkewHIs(1.0F); };
   reactors[30]->once = [&] { // in the nested pass: a third one, and the loss of half of all reactors
      for (std::size_t i = 10; i < 30; ++i)
         reactors[i] = nullptr;
      port->refClockIs(1);
   };
   port->rollOffIs(0.5F);

   Log expected;
   auto const tell = [&](std::size_t from, std::size_t to, char const* what) {
      for (std::size_t i = from; i < to; ++i)
         if (reactors[i] || std::string_view(what) != "rollOff 0.50") // the outer pass still held them in the others
            expected.push_back(std::to_string(i) + " " + what);
   };
   tell(0, 4, "rollOff 0.50");
   tell(0, 31, "rxSkewH");
   tell(0, count, "refClock");
   tell(31, count, "rxSkewH");
   tell(4, count, "rollOff 0.50");
   EXPECT_EQ(log, expected);
   EXPECT_EQ(port->moxReactors().size(), 20u);
   EXPECT_EQ(port->references(), 21u);
}

} // namespace
