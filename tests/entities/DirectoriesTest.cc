// SPDX-License-Identifier: Apache-2.0
#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDir.h"
#include "siblings/EthPhyIntfStatus.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>

namespace {

using namespace Hardware::ClariPhy;
using Mox::make;
using Mox::Ptr;

TEST(Directory, AMemberStaysWithTheParametersThatItWasMadeWith) {
   auto const dir = make<Cl10010StatusDir>("status");
   auto const configs = make<Cl10010ConfigDir>("config");
   Ptr<Hardware::Phy::PhyConfig> const one = configs->phyConfigIs("one"), two = configs->phyConfigIs("two/2");
   auto const ethernet = make<Interface::EthPhyIntfStatus>("ethernet");
   auto const member = dir->phyStatusIs("po\"rt", one, nullptr);
   struct Case {
      Ptr<Hardware::Phy::PhyConfig> config;
      Ptr<Interface::EthPhyIntfStatus> ethernet;
      char const* text;
   };
   std::string const start = R"(Reinstantiating the entity with name "po\"rt" where constructor parameter attribute )";
   for (auto const& [config, interface, text] : {
           Case{two, ethernet,
                "_phyConfig has a different value of /config/two%2F2 than the current value of /config/one"},
           Case{nullptr, nullptr, "_phyConfig has a different value of null than the current value of /config/one"},
           Case{one, ethernet, "_ethIntfStatus has a different value of /ethernet than the current value of null"},
        }) {
      EXPECT_EQ(thrownBy<Mox::NameInUseException>([&, c = config, i = interface] { dir->phyStatusIs("po\"rt", c, i); }),
                start + text + " not allowed");
      EXPECT_EQ(dir->phyStatus("po\"rt"), member);
   }
}

/// Tells that what it watches goes.
struct Last : Cl10010Config::Notifiee {
   explicit Last(Ptr<Cl10010Config> const& config) {
      isWeakReferenceIs(true);
      notifierIs(config);
      isRegisteredNotifieeIs(true);
   }
   void onZeroReferences() override { then(); }
   std::function<void()> then;
};

struct References : testing::Test {
   Ptr<Cl10010ConfigPtrDir> refs = make<Cl10010ConfigPtrDir>("refs");
   Log log;
   Mox::Watch watch = logged(refs, Cl10010ConfigPtrDir::Attr::phyConfig, log);
};

TEST_F(References, StandInHoldersThatKeepNothingElseAlive) {
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const a = dir->phyConfigIs("a");
   refs->phyConfigIs(a);
   EXPECT_EQ(a->parent(), dir) << "a reference changes no parent";
   Ptr<Cl10010ConfigPtrDir::MoxPhyConfig const> const holder(refs->phyConfig().find("a"));
   refs->phyConfigIs(
      make<Cl10010Config>("a")); // takes its place in the holder that is there; the raw step makes another
   EXPECT_NE(holder->value(), a);
   EXPECT_EQ(refs->newPhyConfig(a)->value(), a);
   EXPECT_NE(holder->value(), a) << "a holder that has left keeps what it holds";
   EXPECT_EQ(std::exchange(log, {}), (Log{"a here", "a here"}));
   // More than the first buckets: they go silently with their directory, one by one in its order.
   std::vector<Ptr<Last>> last;
   Log names, expected;
   for (int i = 0; i < 20; ++i) {
      auto const config = make<Cl10010Config>("c" + std::to_string(i));
      refs->newPhyConfig(config);
      last.push_back(make<Last>(config));
      last.back()->then = [&, name = config->name().str()] { names.push_back(name); };
   }
   for (auto [name, target] : refs->phyConfig())
      if (name != "a")
         expected.push_back(name.str());
   refs = nullptr;
   EXPECT_EQ(names, expected);
   EXPECT_EQ(log, Log{});
   EXPECT_EQ(a->references(), 2u);
}

TEST_F(References, NullIsRefusedInTheTypesWords) {
   std::string const text =
      R"(null _phyConfig parameter to mutator for Hardware::ClariPhy::Cl10010ConfigPtrDir::phyConfig not allowed")";
   EXPECT_EQ(thrownBy<Mox::RangeException>([&] { refs->phyConfigIs(nullptr); }), text);
   EXPECT_EQ(thrownBy<Mox::RangeException>([&] { refs->newPhyConfig(nullptr); }), text);
}

TEST_F(References, ReactorsMayTakeAwayWhatIsBeingReplacedOrSet) {
   // The one that is replaced ends inside the mutator, and its reactor deletes the entry that replaces it.
   refs->phyConfigIs(make<Cl10010Config>("a"));
   auto const last = make<Last>(refs->phyConfig().find("a")->value());
   last->then = [&] { refs->phyConfigDel("a"); };
   log.clear();
   refs->phyConfigIs(make<Cl10010Config>("a"));
   EXPECT_EQ(log, (Log{"a gone", "a gone"}));

   // The argument is the holder's own reference, and goes with it.
   auto const drop =
      Mox::on(refs, Cl10010ConfigPtrDir::Attr::phyConfig, [](auto& r, auto const&) { r.phyConfigDelAll(); });
   log.clear();
   refs->phyConfigIs(make<Cl10010Config>("b"));
   EXPECT_EQ(log, (Log{"b here", "b gone"}));
}

} // namespace
