// SPDX-License-Identifier: Apache-2.0
// Values, counts and notifications of every attribute are judged against a plain model elsewhere; here is what callers get back,
// and what members and references keep.

#include "kestrel/core/Exceptions.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/entities/Cl10010ConfigPtrDirReactor.h"
#include "kestrel/entities/Cl10010ConfigReactor.h"
#include "kestrel/entities/Cl10010StatusDir.h"
#include "kestrel/entities/Cl10010StatusReactor.h"
#include "kestrel/notify/Dump.h"
#include "kestrel/siblings/EthPhyIntfStatus.h"
#include "kestrel/siblings/Gpo.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

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

TEST(Dump, IsALineOfPrintableTextForEachValueAndNoOtherEntitysText) {
   auto const dir = make<Cl10010ConfigDir>("config = 1");
   std::set<std::string> texts;
   for (Mox::Name const name : {"a\nb = \x1b[31m", "a\\nb = \x1b[31m", "a] = 1", "a%5D%20= 1", "\xff", ""})
      for (Mox::String8 const value : {"a\nb", R"("a\nb")", "\x9b", ""}) {
         dir->phyConfigDelAll();
         dir->phyConfigIs(name)->modelIs(value);
         std::ostringstream text;
         dump(*dir, text);
         EXPECT_TRUE(texts.insert(text.str()).second) << text.str();
         std::istringstream lines(text.str());
         std::string line;
         for (Mox::DumpLine const& expected : dumpLines(*dir)) {
            ASSERT_TRUE(std::getline(lines, line));
            EXPECT_EQ(line.substr(0, line.find(" = ")), expected.path);
            EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c < 0x7f; })) << line;
         }
         EXPECT_FALSE(std::getline(lines, line));
      }
}

/// Does something as it goes.
template <class X> struct Mortal : X {
   Mortal(Mox::Name name, std::function<void()> does, auto... parameters)
      : X(std::move(name), parameters...), atTheEnd(std::move(does)) {}
   ~Mortal() override { atTheEnd(); }
   std::function<void()> atTheEnd;
};

/// Does something when its entity has another parent.
struct Orphaned : Cl10010Config::Notifiee {
   void onParent() override { act(); }
   std::function<void()> act;
};

TEST(Mutators, HoldTheEntityThatAReactorLetsGoOf) {
   Ptr<Mox::Entity> last;
   std::string log;
   auto const drop = [&] { last = nullptr; };
   auto const ends = [&] { log += " gone"; };
   // What is there twice is changed, and whoever watches lets go of the entity: it stays until all is told.
   auto const expectTold = [&]<class X>(char const* expected, Ptr<Mortal<X>> entity, auto const& fill,
                                        auto const& change) {
      fill(*entity, 1);
      fill(*entity, 2);
      X& changed = *entity;
      Mox::Watch const watch = Mox::onAny(Ptr<X>(&changed), [&](X&, Mox::AttributeId) {
         log += changed.moxIsDying() ? " ending" : " told";
         drop();
      });
      last = std::move(entity);
      change(changed);
      EXPECT_EQ(std::exchange(log, {}), expected) << X::_fwkType()->name();
   };
   auto const name = [](int i) { return Mox::Name(std::to_string(i)); };
   auto const port = [&] { return make<Mortal<Cl10010Config>>("port", ends); };
   auto const dir = [&] { return make<Mortal<Cl10010ConfigDir>>("dir", ends); };
   auto const refs = [&] { return make<Mortal<Cl10010ConfigPtrDir>>("refs", ends); };
   expectTold(
      " told told gone", port(),
      [](auto& e, int i) {
         e.calibrationIs(static_cast<Xcvr::CfpxHostChannel>(i), {1, 0, 0});
      },
      [](auto& e) { e.calibrationDelAll(); });
   expectTold(
      " told told gone", make<Mortal<Cl10010Status>>("status", ends, nullptr, nullptr),
      [](auto& e, int i) { e.amplitudeIs(static_cast<unsigned>(i), 1); }, [](auto& e) { e.amplitudeDelAll(); });
   expectTold(
      " told told gone", dir(), [&](auto& e, int i) { e.phyConfigIs(name(i)); }, [](auto& e) { e.phyConfigDelAll(); });
   expectTold(
      " told told gone", refs(), [&](auto& e, int i) { e.phyConfigIs(make<Cl10010Config>(name(i))); },
      [](auto& e) { e.phyConfigDelAll(); });
   // Here the reactors of what the entity lets go of come first.
   expectTold(
      " told gone", port(), [&](auto& e, int) { e.resetUcIs(make<Mortal<Fru::Gpo>>("gpo", drop)); },
      [](auto& e) { e.resetUcIs(nullptr); });
   expectTold(
      " told gone", refs(), [&](auto& e, int i) { e.phyConfigIs(make<Mortal<Cl10010Config>>(name(i), drop)); },
      [](auto& e) { e.phyConfigIs(make<Cl10010Config>("1")); });
   auto const orphaned = make<Orphaned>();
   orphaned->act = drop;
   expectTold(
      " told ending gone", dir(),
      [&](auto& e, int i) {
         orphaned->notifierIs(e.phyConfigIs(name(i)));
         orphaned->isRegisteredNotifieeIs(true);
      },
      [](auto& e) { e.phyConfigDel("2"); });
}

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
      refs->newPhyConfig(make<Mortal<Cl10010Config>>(name, [&gone, name] { gone.push_back(name); }));
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
   refs->phyConfigIs(make<Mortal<Cl10010Config>>("a", [&] { refs->phyConfigDel("a"); }));
   refs->phyConfigIs(make<Cl10010Config>("a"));
   EXPECT_EQ(std::exchange(log, {}), (Log{"a here", "a gone", "a gone"}));

   // The argument is the holder's own reference, and goes with it.
   auto const drop =
      Mox::on(refs, Cl10010ConfigPtrDir::Attr::phyConfig, [](auto& r, auto const&) { r.phyConfigDelAll(); });
   refs->phyConfigIs(make<Cl10010Config>("b"));
   EXPECT_EQ(log, (Log{"b here", "b gone"}));
}

} // namespace
