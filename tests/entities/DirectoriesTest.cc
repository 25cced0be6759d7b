#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010StatusDirReactor.h"
#include "siblings/EthPhyIntfStatus.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010Config;
using Hardware::ClariPhy::Cl10010ConfigDir;
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

} // namespace
