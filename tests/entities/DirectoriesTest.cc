#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010ConfigPtrDirReactor.h"
#include "entities/Cl10010ConfigReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "entities/Cl10010StatusPtrDirReactor.h"
#include "notify/Observe.h"
#include "siblings/EthPhyIntfStatus.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
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

class DirWatch : public Cl10010ConfigDir::Notifiee {
public:
   void onPhyConfig(Mox::Name name) override {
      // By then the member has its place and its parent, or has lost both.
      auto* const member = notifier()->phyConfig().find(name);
      log.push_back(std::string(std::string_view(name)) + (member == nullptr ? " gone" : " here"));
      if (member != nullptr) {
         EXPECT_EQ(member->parent(), notifier());
         EXPECT_EQ(member->parentAttrId(), 258u);
      }
      if (then)
         then(name);
   }
   void onNotificationException(Mox::AttributeId id) override { log.push_back("threw in " + std::to_string(id)); }
   Log taken() { return std::exchange(log, {}); }
   Log log;
   std::function<void(Mox::Name const&)> then;
};

struct Directory : testing::Test {
   Ptr<Cl10010ConfigDir> dir = make<Cl10010ConfigDir>("config");
   Ptr<DirWatch> watch = make<DirWatch>();
   Directory() {
      watch->notifierIs(dir);
      watch->isRegisteredNotifieeIs(true);
   }
   template <class Change> Log after(unsigned changes, unsigned touches, Change change) {
      auto const before = std::pair(dir->changeCount(), dir->touchCount());
      change();
      EXPECT_EQ(dir->changeCount() - before.first, changes);
      EXPECT_EQ(dir->touchCount() - before.second, touches);
      EXPECT_EQ(dir->auditErrors(2), 0u);
      return watch->taken();
   }
};

TEST_F(Directory, MembersComeAndGoByName) {
   Ptr<Cl10010Config> a, b;
   EXPECT_EQ(after(0, 1, [&] { EXPECT_EQ(dir->phyConfig("a"), nullptr); }), Log{});
   EXPECT_EQ(after(1, 0, [&] { a = dir->phyConfigIs("a"); }), Log{"a here"});
   EXPECT_EQ(after(1, 0, [&] { EXPECT_EQ(dir->phyConfigIs("a"), a); }), Log{}) << "found: counted, told to nobody";
   EXPECT_EQ(after(0, 1, [&] { EXPECT_EQ(dir->phyConfig("a"), a); }), Log{});
   EXPECT_EQ(after(1, 0, [&] { b = dir->phyConfigIs(""); }), Log{" here"}) << "the empty name is a name";
   EXPECT_EQ(after(0, 0, [&] { dir->phyConfigNotify("a"); }), Log{"a here"});
   EXPECT_EQ(after(0, 0, [&] { EXPECT_EQ(dir->phyConfigDel("absent"), nullptr); }), Log{});

   // The raw step tells nobody, and takes the place of a member, which loses its parent.
   Ptr<Cl10010Config> replacement;
   EXPECT_EQ(after(0, 0, [&] { replacement = dir->newPhyConfig("a"); }), Log{});
   EXPECT_NE(replacement, a);
   EXPECT_EQ(dir->phyConfig("a"), replacement);
   EXPECT_EQ(a->parent(), nullptr);
   EXPECT_EQ(a->references(), 1u);

   EXPECT_EQ(after(1, 0, [&] { EXPECT_EQ(dir->phyConfigDel("a"), replacement); }), Log{"a gone"});
   EXPECT_EQ(replacement->parent(), nullptr);
   EXPECT_EQ(replacement->references(), 1u);
   EXPECT_EQ(after(1, 0, [&] { dir->phyConfigDelAll(); }), Log{" gone"});
   EXPECT_EQ(b->parent(), nullptr);
}

TEST_F(Directory, ThrowingReactorsLeaveTheMemberInPlace) {
   watch->then = [](Mox::Name const&) { throw 1; };
   EXPECT_EQ(after(1, 0, [&] { EXPECT_NE(dir->phyConfigIs("a"), nullptr); }), (Log{"a here", "threw in 258"}));
   EXPECT_EQ(after(1, 0, [&] { EXPECT_NE(dir->phyConfigDel("a"), nullptr); }), (Log{"a gone", "threw in 258"}));
}

TEST_F(Directory, DeletingUnderAnIteratorMeetsEveryMemberOnce) {
   constexpr int count = 100; // several growths of the buckets
   for (int i = 0; i < count; ++i)
      dir->phyConfigIs("port-" + std::to_string(i));
   watch->taken();
   Log order;
   for (auto const& member : dir->phyConfig())
      order.push_back(std::string(std::string_view(member.name())));
   ASSERT_EQ(order.size(), count);

   // Every second one, while reactors delete the one behind and add others.
   std::size_t met = 0;
   Cl10010ConfigDir::MoxPhyConfigMap::Iterator it(dir->phyConfig());
   for (; it; it.advance()) {
      auto const member = dir->phyConfigDel(it);
      ASSERT_NE(member, nullptr);
      EXPECT_EQ(member->name(), order[met]);
      EXPECT_EQ(dir->phyConfigDel(it), nullptr) << "the iterator's position is no member any more";
      if (met + 1 < order.size())
         dir->phyConfigDel(order[met + 1]);
      met += 2;
   }
   EXPECT_EQ(met, order.size());
   EXPECT_TRUE(dir->phyConfig().empty());

   // All at once: in iteration order, one notification each, what reactors put back ahead of it included.
   for (auto const& name : order)
      dir->phyConfigIs(Mox::Name(name));
   watch->taken();
   bool putBack = false;
   watch->then = [&](Mox::Name const& name) {
      if (name == order[50] && !std::exchange(putBack, true))
         dir->phyConfigIs(Mox::Name(order[20])); // behind the position: stays
   };
   dir->phyConfigDelAll();
   Log expected;
   for (auto const& name : order) {
      expected.push_back(name + " gone");
      if (name == order[50])
         expected.push_back(order[20] + " here");
   }
   EXPECT_EQ(watch->taken(), expected);
   EXPECT_EQ(dir->phyConfig().size(), 1u);
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

struct References : testing::Test {
   Ptr<Cl10010ConfigPtrDir> refs = make<Cl10010ConfigPtrDir>("refs");
   Ptr<Cl10010ConfigDir> dir = make<Cl10010ConfigDir>("config");
   Log log;
   Mox::Watch watch = Mox::on(refs, Cl10010ConfigPtrDir::Attr::phyConfig, [this](auto& r, Mox::Name const& name) {
      log.push_back(std::string(std::string_view(name)) + (r.phyConfig().contains(name) ? " here" : " gone"));
      if (then)
         then();
   });
   std::function<void()> then;

   template <class Change> Log after(unsigned changes, Change change) {
      auto const before = std::pair(refs->changeCount(), refs->touchCount());
      change();
      EXPECT_EQ(refs->changeCount() - before.first, changes);
      EXPECT_EQ(refs->touchCount(), before.second);
      EXPECT_EQ(refs->auditErrors(1), 0u);
      return std::exchange(log, {});
   }
};

TEST_F(References, StandUnderTheNamesOfWhatTheyReferTo) {
   auto const a = dir->phyConfigIs("a");
   EXPECT_EQ(after(1, [&] { refs->phyConfigIs(a); }), Log{"a here"});
   EXPECT_EQ(after(0, [&] { refs->phyConfigIs(a); }), Log{}) << "the very same";
   EXPECT_EQ(a->parent(), dir) << "a reference changes no parent";
   EXPECT_EQ(a->references(), 3u);
   EXPECT_EQ(after(0, [&] { refs->phyConfigNotify("a"); }), Log{"a here"});

   // Another of the same name takes its place in the holder that is there.
   auto const other = make<Cl10010Config>("a");
   Ptr<Cl10010ConfigPtrDir::MoxPhyConfig> const holder(refs->phyConfig().find("a"));
   EXPECT_EQ(after(1, [&] { refs->phyConfigIs(other); }), Log{"a here"});
   EXPECT_EQ(refs->phyConfig().find("a"), holder.get());
   EXPECT_EQ(holder->value(), other);
   EXPECT_EQ(a->references(), 2u);

   // The raw step makes another holder and tells nobody.
   EXPECT_EQ(after(0, [&] { EXPECT_EQ(refs->newPhyConfig(a)->value(), a); }), Log{});
   EXPECT_EQ(holder->value(), other) << "a holder that has left keeps what it holds";
   EXPECT_EQ(refs->phyConfig().size(), 1u);

   refs->phyConfigIs(make<Cl10010Config>(""));
   refs->phyConfigIs(make<Cl10010Config>("b"));
   log.clear();
   Log names;
   for (auto const [name, target] : refs->phyConfig()) {
      names.push_back(std::string(std::string_view(name)) + " gone");
      EXPECT_EQ(target->name(), name);
   }
   EXPECT_EQ(after(0, [&] { EXPECT_EQ(refs->phyConfigDel("absent"), nullptr); }), Log{});
   EXPECT_EQ(after(1, [&] { EXPECT_EQ(refs->phyConfigDel("a"), a); }), Log{"a gone"});
   std::erase(names, "a gone");
   Cl10010ConfigPtrDir::MoxPhyConfigMap::Iterator it(refs->phyConfig());
   Mox::Name const first = it.key();
   EXPECT_EQ(after(1, [&] { EXPECT_EQ(refs->phyConfigDel(it)->name(), first); }), Log{names[0]});
   EXPECT_EQ(after(0, [&] { EXPECT_EQ(refs->phyConfigDel(it), nullptr); }), Log{}) << "no entry any more";
   EXPECT_EQ(after(1, [&] { refs->phyConfigDelAll(); }), Log{names[1]});
   EXPECT_EQ(refs->attributeString(258), "phyConfig");
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
   EXPECT_EQ(after(0, [&] { EXPECT_EQ(textOf([&] { refs->phyConfigIs(nullptr); }), text); }), Log{});
   EXPECT_EQ(after(0, [&] { EXPECT_EQ(textOf([&] { refs->newPhyConfig(nullptr); }), text); }), Log{});
   auto const states = make<Hardware::ClariPhy::Cl10010StatusPtrDir>("states");
   EXPECT_EQ(
      textOf([&] { states->phyStatusIs(nullptr); }),
      R"(null _phyStatus parameter to mutator for Hardware::ClariPhy::Cl10010StatusPtrDir::phyStatus not allowed")");
}

TEST_F(References, ReactorsMayTakeAwayWhatIsBeingReplacedOrDeleted) {
   // The one that is replaced ends inside the mutator, and its reactor deletes the entry that replaces it.
   auto dying = make<Cl10010Config>("a");
   refs->phyConfigIs(dying);
   /// Tells that what it watches goes.
   struct Last : Cl10010Config::Notifiee {
      void onZeroReferences() override { then(); }
      std::function<void()> then;
   };
   auto const last = make<Last>();
   last->isWeakReferenceIs(true);
   last->notifierIs(dying);
   last->isRegisteredNotifieeIs(true);
   last->then = [&] { refs->phyConfigDel("a"); };
   dying = nullptr;
   log.clear();
   EXPECT_EQ(after(2, [&] { refs->phyConfigIs(make<Cl10010Config>("a")); }), (Log{"a gone", "a gone"}));
   EXPECT_TRUE(refs->phyConfig().empty());

   // The argument is the holder's own reference, and goes with it.
   refs->phyConfigIs(make<Cl10010Config>("b"));
   then = [&] { refs->phyConfigDelAll(); };
   log.clear();
   refs->phyConfigIs(make<Cl10010Config>("b"));
   EXPECT_EQ(log, (Log{"b here", "b gone"}));
}

TEST_F(References, GoSilentlyWithTheirDirectory) {
   auto const a = make<Cl10010Config>("a");
   refs->phyConfigIs(a);
   log.clear();
   refs = nullptr;
   EXPECT_EQ(log, Log{});
   EXPECT_EQ(a->references(), 1u);
}

} // namespace
