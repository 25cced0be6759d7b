// SPDX-License-Identifier: Apache-2.0
// Values, counts and notifications of every attribute are judged against a plain model elsewhere; here is what callers get back,
// and what members and references keep.

#include "core/Exceptions.h"
#include "entities/Cl10010Config.h"
#include "entities/Cl10010ConfigDir.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
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

TEST(Mutators, GiveBackWhatWasThereOrIsThereNow) {
   using Xcvr::CfpxHostChannel;
   auto const port = make<Cl10010Config>("port");
   port->overrideEthIntfConfigIs(5);
   EXPECT_EQ(port->overrideEthIntfConfigDel(), 5);
   port->diagsModeEpochIs(0xfffffffe);
   EXPECT_EQ(port->diagsModeEpochInc(3), 1u) << "wraps";

   for (std::uint32_t const key : {9u, 2u})
      port->calibrationIs(static_cast<CfpxHostChannel>(key), {key, 0, 0});
   Ptr<Cl10010Config::MoxCalibration const> const entry(port->calibration().find(CfpxHostChannel::channel9));
   port->calibrationIs(CfpxHostChannel::channel9, {99, 0, 0});
   EXPECT_EQ(entry->value().gain, 99u) << "the entry stays the same object";
   auto it = port->calibrationIterator();
   EXPECT_EQ(port->calibrationDel(it).gain, 2u);
   EXPECT_EQ(port->calibrationDel(it).gain, 0u) << "deleted already: the default";
   EXPECT_EQ(port->calibrationDel(CfpxHostChannel::channel9).gain, 99u);

   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("");
   EXPECT_EQ(dir->phyConfigDel("absent"), nullptr);
   auto at = dir->phyConfigIterator();
   EXPECT_EQ(dir->phyConfigDel(at), member);
   EXPECT_EQ(dir->phyConfigDel(at), nullptr) << "the iterator's position is no member any more";
}

TEST(Directory, AMemberStaysWithTheParametersThatItWasMadeWith) {
   auto const dir = make<Cl10010StatusDir>("status");
   auto const configs = make<Cl10010ConfigDir>("config");
   Ptr<Hardware::Phy::PhyConfig> const one = configs->phyConfigIs("one"), two = configs->phyConfigIs("two/2");
   auto const member = dir->phyStatusIs("po\"rt", one, nullptr);
   EXPECT_EQ(thrownBy<Mox::NameInUseException>([&] { dir->phyStatusIs("po\"rt", two, nullptr); }),
             R"(Reinstantiating the entity with name "po\"rt" where constructor parameter attribute _phyConfig has a )"
             "different value of /config/two%2F2 than the current value of /config/one not allowed");
   EXPECT_THROW(dir->phyStatusIs("po\"rt", one, make<Interface::EthPhyIntfStatus>("ethernet")),
                Mox::NameInUseException);
   EXPECT_EQ(dir->phyStatus("po\"rt"), member);
}

/// Does something as it goes.
struct Mortal : Cl10010Config {
   Mortal(Mox::Name name, std::function<void()> does) : Cl10010Config(std::move(name)), atTheEnd(std::move(does)) {}
   ~Mortal() override { atTheEnd(); }
   std::function<void()> atTheEnd;
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
   refs->phyConfigIs(make<Cl10010Config>("a"));
   EXPECT_NE(holder->value(), a) << "the holder that is there takes it";
   EXPECT_EQ(refs->newPhyConfig(a)->value(), a);
   EXPECT_NE(holder->value(), a) << "a holder that has left keeps what it holds";
   EXPECT_EQ(std::exchange(log, {}), (Log{"a here", "a here"}));
   // More than the first buckets: they go silently with their directory, one by one in its order.
   Log gone, expected;
   for (int i = 0; i < 20; ++i) {
      std::string const name = "c" + std::to_string(i);
      refs->newPhyConfig(make<Mortal>(name, [&gone, name] { gone.push_back(name); }));
   }
   for (auto [name, target] : refs->phyConfig())
      if (target != a)
         expected.push_back(name.str());
   refs = nullptr;
   EXPECT_EQ(gone, expected);
   EXPECT_EQ(log, Log{});
   EXPECT_EQ(a->references(), 2u);
}

TEST_F(References, NullIsRefusedInTheTypesWords) {
   std::string const text =
      R"(null _phyConfig parameter to mutator for Hardware::ClariPhy::Cl10010ConfigPtrDir::phyConfig not allowed")";
   EXPECT_EQ(thrownBy<Mox::RangeException>([&] { refs->phyConfigIs(nullptr); }), text);
   EXPECT_EQ(thrownBy<Mox::RangeException>([&] { refs->newPhyConfig(nullptr); }), text);
}

TEST_F(References, MayBeTakenAwayWhileTheyAreReplacedOrSet) {
   // The one that is replaced ends inside the mutator, and deletes the entry that replaces it.
   refs->phyConfigIs(make<Mortal>("a", [&] { refs->phyConfigDel("a"); }));
   refs->phyConfigIs(make<Cl10010Config>("a"));
   EXPECT_EQ(std::exchange(log, {}), (Log{"a here", "a gone", "a gone"}));

   // The argument is the holder's own reference, and goes with it.
   auto const drop =
      Mox::on(refs, Cl10010ConfigPtrDir::Attr::phyConfig, [](auto& r, auto const&) { r.phyConfigDelAll(); });
   refs->phyConfigIs(make<Cl10010Config>("b"));
   EXPECT_EQ(log, (Log{"b here", "b gone"}));
}

} // namespace
