#include "notify/Observe.h"
#include "entities/Cl10010ConfigReactor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace Hardware::ClariPhy;
using Mox::make;
using Mox::Ptr;
using Mox::Watch;
using Xcvr::CfpxHostChannel;
using Log = std::vector<std::string>;

struct Watching : testing::Test {
   Log log;
   Ptr<Cl10010Config> port = make<Cl10010Config>("port");

   void change() {
      log.clear();
      port->rollOffIs(port->rollOff() == 0.5F ? 0.25F : 0.5F);
   }
};

TEST_F(Watching, EachFunctionHearsOfItsAttributeAlone) {
   auto const own = Mox::on(port, Cl10010Config::Attr::rollOff, [&](Cl10010Config& c) {
      log.push_back("rollOff");
      c.rxSkewVIs(c.rollOff().value); // what watches a changeable entity may change it
   });
   auto const readOnly = Mox::on(Ptr<Cl10010Config const>(port), Cl10010Config::Attr::rxSkewV, [&](auto& c) {
      static_assert(std::is_const_v<std::remove_reference_t<decltype(c)>>);
      log.push_back("rxSkewV of " + c.name().str());
   });
   auto const keyed = Mox::on(port, Cl10010Config::Attr::initialIngressAmp, [&](Cl10010Config& c, CfpxHostChannel key) {
      log.push_back("amplitude " + std::to_string(c.initialIngressAmp(key).number()));
   });
   std::vector<Mox::AttributeId> any;
   auto const all = Mox::onAny(port, [&](Cl10010Config&, Mox::AttributeId id) { any.push_back(id); });

   port->rollOffIs(0.5F);
   port->wakeupTimeIs(3.0);
   port->initialIngressAmpIs(CfpxHostChannel::channel2, 70);
   port->initialIngressAmpDel(CfpxHostChannel::channel2);
   EXPECT_EQ(any, (std::vector<Mox::AttributeId>{391, 394, 290, 393, 393}));
   EXPECT_EQ(log, (Log{"rollOff", "rxSkewV of port", "amplitude 70", "amplitude 0"}));
}

TEST_F(Watching, PauseEndMoveAndDeathStopIt) {
   auto const add = [&](char const* name) {
      return Mox::on(port, Cl10010Config::Attr::rollOff, [this, name](Cl10010Config&) { log.push_back(name); });
   };
   Watch first = add("first");
   Watch second = add("second");
   first.pause();
   change();
   EXPECT_EQ(log, Log{"second"});
   first.resume();
   change();
   EXPECT_EQ(log, (Log{"second", "first"})) << "behind the others";

   Watch moved = std::move(first);
   EXPECT_FALSE(first);
   first.pause();             // of nothing
   moved = std::move(second); // ends what it watched before
   change();
   EXPECT_EQ(log, Log{"second"});
   moved.stop();
   moved.stop();
   EXPECT_FALSE(port->moxHasReactors());

   Watch last = add("last");
   EXPECT_EQ(port->references(), 1u) << "a watch keeps nothing alive";
   last.pause();
   port = nullptr;
   EXPECT_TRUE(last);
   last.resume();
   last.stop();
   EXPECT_THROW(static_cast<void>(add("none")), Mox::RangeException);
}

TEST_F(Watching, AFunctionMayEndItsOwnWatchAndTheEntity) {
   auto const life = std::make_shared<int>(0);
   Watch watch = Mox::on(port, Cl10010Config::Attr::rollOff, [&, life](Cl10010Config& c) {
      log.push_back("told");
      watch.stop();
      port = nullptr;
      EXPECT_EQ(c.rollOff(), 0.5F) << "held until the function returns";
   });
   Ptr<Cl10010Config> const held = port;
   EXPECT_EQ(life.use_count(), 2);
   port->rollOffIs(0.5F);
   held->rollOffIs(0.25F);
   EXPECT_EQ(log, Log{"told"});
   EXPECT_EQ(life.use_count(), 1);
   EXPECT_EQ(held->references(), 1u);
}

} // namespace
