// SPDX-License-Identifier: Apache-2.0
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
   auto const keyed = Mox::on(port, Cl10010Config::Attr::initialIngressAmp, [&](Cl10010Config&, CfpxHostChannel key) {
      log.push_back(key == CfpxHostChannel::channel2 ? "2" : "other");
   });
   std::vector<Mox::AttributeId> any;
   auto const all = Mox::onAny(port, [&](Cl10010Config&, Mox::AttributeId id) { any.push_back(id); });

   port->rollOffIs(0.5F);
   port->initialIngressAmpIs(CfpxHostChannel::channel2, 70);
   EXPECT_EQ(any, (std::vector<Mox::AttributeId>{391, 394, 393}));
   EXPECT_EQ(log, (Log{"rollOff", "rxSkewV of port", "2"}));
}

TEST_F(Watching, PauseEndMoveAndDeathStopIt) {
   auto const add = [&](char const* name) {
      return Mox::on(port, Cl10010Config::Attr::rollOff, [this, name](Cl10010Config&) { log.push_back(name); });
   };
   Watch first = add("first"), second = add("second");
   first.pause();
   change();
   EXPECT_EQ(log, Log{"second"});
   first.resume();
   Watch moved = std::move(first);
   first.pause(); // NOLINT(bugprone-use-after-move): of nothing
   change();
   EXPECT_EQ(log, (Log{"second", "first"})) << "behind the others";
   moved = std::move(second); // ends what it watched before
   change();
   EXPECT_EQ(log, Log{"second"});
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
