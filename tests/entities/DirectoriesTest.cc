#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDir.h"
#include "entities/Cl10010StatusPtrDir.h"
#include "notify/Observe.h"
#include "siblings/EthPhyIntfStatus.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
using Hardware::ClariPhy::Cl10010ConfigPtrDir;
using Hardware::ClariPhy::Cl10010Status;
using Hardware::ClariPhy::Cl10010StatusDir;
using Mox::make;
using Mox::Ptr;
using Log = std::vector<std::string>;

TEST(Directory, AMemberHasItsPlaceAndItsParentWhenItIsToldAndHasLostBothWhenItGoes) {
   auto const dir = make<Cl10010ConfigDir>("config");
   Log log;
   Ptr<Cl10010Config> last;
   auto const watch = Mox::on(dir, Cl10010ConfigDir::Attr::phyConfig, [&](Cl10010ConfigDir& d, Mox::Name const& name) {
      auto* const member = d.phyConfig().find(name);
      log.push_back(std::string(std::string_view(name)) + (member == nullptr ? " gone" : " here"));
      EXPECT_EQ((member == nullptr ? last.get() : member)->parent(), member == nullptr ? nullptr : dir);
   });
   last = dir->phyConfigIs("a");
   EXPECT_EQ(dir->phyConfigIs("a"), last);
   EXPECT_EQ(dir->phyConfigDel("absent"), nullptr);
   EXPECT_EQ(dir->phyConfigDel("a"), last);
   EXPECT_EQ(last->references(), 1u);
   last = dir->phyConfigIs("");
   Cl10010ConfigDir::MoxPhyConfigMap::Iterator it(dir->phyConfig());
   EXPECT_EQ(dir->phyConfigDel(it), last);
   EXPECT_EQ(dir->phyConfigDel(it), nullptr) << "the iterator's position is no member any more";
   it.advance();
   EXPECT_EQ(dir->phyConfigDel(it), nullptr) << "at the end";
   EXPECT_EQ(log, (Log{"a here", "a gone", " here", " gone"}));
}

TEST(StatusDirectory, AMemberStaysWithTheParametersThatItWasMadeWith) {
   auto const dir = make<Cl10010StatusDir>("status");
   auto const configs = make<Cl10010ConfigDir>("config");
   Ptr<Hardware::Phy::PhyConfig> const one = configs->phyConfigIs("one");
   Ptr<Hardware::Phy::PhyConfig> const two = configs->phyConfigIs("two/2");
   auto const ethernet = make<Interface::EthPhyIntfStatus>("ethernet");
   auto const member = dir->phyStatusIs("po\"rt", one, nullptr);

   auto changes = dir->changeCount();
   auto touches = member->touchCount();
   EXPECT_EQ(dir->phyStatusIs("po\"rt", one, nullptr), member);
   EXPECT_EQ(dir->changeCount() - changes, 1u);
   EXPECT_EQ(member->touchCount() - touches, 2u) << "one for each parameter that was read";

   struct Case {
      Ptr<Hardware::Phy::PhyConfig> config;
      Ptr<Interface::EthPhyIntfStatus> ethernet;
      unsigned reads;
      char const* text;
   };
   std::string const start = R"(Reinstantiating the entity with name "po\"rt" where constructor parameter attribute )";
   for (auto const& [config, interface, reads, text] : {
           Case{two, ethernet, 1,
                "_phyConfig has a different value of /config/two%2F2 than the current value of /config/one"},
           Case{nullptr, nullptr, 1, "_phyConfig has a different value of null than the current value of /config/one"},
           Case{one, ethernet, 2, "_ethIntfStatus has a different value of /ethernet than the current value of null"},
        }) {
      changes = dir->changeCount();
      touches = member->touchCount();
      try {
         dir->phyStatusIs("po\"rt", config, interface);
         ADD_FAILURE() << "expected: " << text;
      } catch (Mox::NameInUseException const& e) {
         EXPECT_EQ(e.what(), start + text + " not allowed");
      }
      EXPECT_EQ(dir->phyStatus("po\"rt"), member);
      EXPECT_EQ(dir->changeCount(), changes);
      EXPECT_EQ(member->touchCount() - touches, reads);
   }
   // Gone and made again it may have others.
   dir->phyStatusDel("po\"rt");
   EXPECT_EQ(dir->phyStatusIs("po\"rt", two, ethernet)->ethIntfStatus(), ethernet);
   EXPECT_EQ(dir->auditErrors(2), 0u);
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
   Mox::Watch watch = Mox::on(refs, Cl10010ConfigPtrDir::Attr::phyConfig, [this](auto& r, Mox::Name const& name) {
      log.push_back(std::string(std::string_view(name)) + (r.phyConfig().contains(name) ? " here" : " gone"));
      if (then)
         then();
   });
   std::function<void()> then;
};

TEST_F(References, StandInHoldersThatKeepNothingElseAlive) {
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const a = dir->phyConfigIs("a");
   refs->phyConfigIs(a);
   EXPECT_EQ(a->parent(), dir) << "a reference changes no parent";
   EXPECT_EQ(a->references(), 3u);
   // Another of the same name takes its place in the holder that is there; the raw step makes another holder.
   auto const other = make<Cl10010Config>("a");
   Ptr<Cl10010ConfigPtrDir::MoxPhyConfig> const holder(refs->phyConfig().find("a"));
   refs->phyConfigIs(other);
   EXPECT_EQ(holder->value(), other);
   EXPECT_EQ(a->references(), 2u);
   EXPECT_EQ(refs->newPhyConfig(a)->value(), a);
   EXPECT_EQ(holder->value(), other) << "a holder that has left keeps what it holds";
   EXPECT_EQ(refs->phyConfigDel("absent"), nullptr);
   {
      Cl10010ConfigPtrDir::MoxPhyConfigMap::Iterator it(refs->phyConfig());
      EXPECT_EQ(refs->phyConfigDel(it), a);
      EXPECT_EQ(refs->phyConfigDel(it), nullptr) << "no entry any more";
   }
   refs->phyConfigIs(a);
   EXPECT_EQ(std::exchange(log, {}), (Log{"a here", "a here", "a gone", "a here"}));
   // More than the first buckets: they go silently with their directory, one by one in its order.
   std::vector<Ptr<Last>> last;
   Log names;
   for (int i = 0; i < 20; ++i) {
      auto const config = make<Cl10010Config>("c" + std::to_string(i));
      refs->newPhyConfig(config);
      last.push_back(make<Last>(config));
      last.back()->then = [&, name = config->name().str()] { names.push_back(name); };
   }
   Log expected;
   for (auto [name, target] : refs->phyConfig())
      if (name != "a")
         expected.push_back(name.str());
   refs = nullptr;
   EXPECT_EQ(names, expected);
   EXPECT_EQ(log, Log{});
   EXPECT_EQ(a->references(), 2u);
}

TEST_F(References, NullIsRefusedInTheTypesWords) {
   auto const textOf = [](auto call) -> std::string {
      try {
         call();
         return "nothing thrown";
      } catch (Mox::RangeException const& e) {
         return e.what();
      }
   };
   std::string const text =
      R"(null _phyConfig parameter to mutator for Hardware::ClariPhy::Cl10010ConfigPtrDir::phyConfig not allowed")";
   EXPECT_EQ(textOf([&] { refs->phyConfigIs(nullptr); }), text);
   EXPECT_EQ(textOf([&] { refs->newPhyConfig(nullptr); }), text);
   auto const states = make<Hardware::ClariPhy::Cl10010StatusPtrDir>("states");
   EXPECT_EQ(
      textOf([&] { states->phyStatusIs(nullptr); }),
      R"(null _phyStatus parameter to mutator for Hardware::ClariPhy::Cl10010StatusPtrDir::phyStatus not allowed")");
}

TEST_F(References, ReactorsMayTakeAwayWhatIsBeingReplacedOrDeleted) {
   // The one that is replaced ends inside the mutator, and its reactor deletes the entry that replaces it.
   auto dying = make<Cl10010Config>("a");
   refs->phyConfigIs(dying);
   auto const last = make<Last>(dying);
   last->then = [&] { refs->phyConfigDel("a"); };
   dying = nullptr;
   log.clear();
   refs->phyConfigIs(make<Cl10010Config>("a"));
   EXPECT_EQ(log, (Log{"a gone", "a gone"}));
   EXPECT_TRUE(refs->phyConfig().empty());

   // The argument is the holder's own reference, and goes with it.
   refs->phyConfigIs(make<Cl10010Config>("b"));
   then = [&] { refs->phyConfigDelAll(); };
   log.clear();
   refs->phyConfigIs(make<Cl10010Config>("b"));
   EXPECT_EQ(log, (Log{"b here", "b gone"}));
}

} // namespace
