#include "Listener.h"
#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "mox/MoxType.h"
#include "siblings/IntCtrlReactor.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Fru::Gpo;
using Mox::make;
using Mox::Ptr;

struct Registering : testing::Test {
   Log log;
   Ptr<Gpo> gpo = make<Gpo>("reset");
   Ptr<Listener> a = make<Listener>(log, "a"), b = make<Listener>(log, "b");
   Ptr<Listener> s = make<Listener>(log, "s", true), t = make<Listener>(log, "t", true);

   /// Who is told, in order.
   std::string order(Gpo& of) {
      log.clear();
      of.assertedIs(!of.asserted());
      EXPECT_EQ(of.auditErrors(1), 0u);
      std::string titles;
      for (auto const& title : log)
         titles += title;
      return titles;
   }
};

TEST_F(Registering, AdaptersStandAtTheHeadAndOthersInOrder) {
   for (auto const& r : {a, s, b, t})
      r->listensTo(gpo);
   EXPECT_EQ(order(*gpo), "tsab") << "the youngest adapter first";
   a->isRegisteredNotifieeIs(true);
   EXPECT_EQ(order(*gpo), "tsab") << "registering twice is nothing";

   // Each step takes a reactor off or puts it on; the text is who is told behind it, in order.
   struct Step {
      char const* what;
      std::function<void()> run;
      char const* order;
   };
   for (auto const& [what, run, expected] : std::vector<Step>{
           {"pause a", [&] { a->hasNotificationActiveIs(false); }, "tsb"},
           {"resume a", [&] { a->hasNotificationActiveIs(true); }, "tsba"},
           {"pause the adapter s", [&] { s->hasNotificationActiveIs(false); }, "tba"},
           {"resume s, which goes to the head", [&] { s->hasNotificationActiveIs(true); }, "stba"},
           {"deregister b", [&] { b->isRegisteredNotifieeIs(false); }, "sta"},
           {"pause and resume b: not registered before",
            [&] {
               b->hasNotificationActiveIs(false);
               b->hasNotificationActiveIs(true);
            },
            "sta"},
           {"register b", [&] { b->isRegisteredNotifieeIs(true); }, "stab"},
           {"destroy a", [&] { a = nullptr; }, "stb"},
           {"destroy the paused t",
            [&] {
               t->hasNotificationActiveIs(false);
               t = nullptr;
            },
            "sb"},
           {"detach s", [&] { s->notifierIs(nullptr); }, "b"},
        }) {
      SCOPED_TRACE(what);
      run();
      EXPECT_EQ(order(*gpo), expected);
   }
}

TEST_F(Registering, AttachingMovesARegisteredReactor) {
   a->isRegisteredNotifieeIs(true); // only the flag: there is no notifier
   EXPECT_EQ(a->name(), "");
   a->notifierIs(gpo);
   EXPECT_EQ(order(*gpo), "a");
   EXPECT_EQ(a->name(), "reset");

   auto const other = make<Gpo>("other");
   b->listensTo(other);
   a->notifierIs(other);
   EXPECT_EQ(order(*gpo), "");
   EXPECT_EQ(gpo->references(), 1u);
   a->notifierIs(other); // the current one again is nothing
   EXPECT_EQ(order(*other), "ba");
   a->notifierIs(make<Fru::IntCtrl>("irq"));
   EXPECT_EQ(a->notifier(), nullptr) << "a notifier of another type counts as null";
   EXPECT_TRUE(a->isRegisteredNotifiee());
   EXPECT_EQ(order(*other), "b");
   EXPECT_EQ(other->references(), 2u);
}

TEST(NotificationExceptions, TheDefaultSwallowsCountsAndTellsTheHook) {
   struct Faulty : Gpo::Notifiee {
      void onAsserted() override { throw std::runtime_error("no such pin"); }
   };
   auto const gpo = make<Gpo>("reset");
   auto const faulty = make<Faulty>();
   faulty->notifierIs(gpo);
   faulty->isRegisteredNotifieeIs(true);
   std::vector<std::string> heard;
   Mox::PtrInterface::NotifieeConst::exceptionHookIs(
      [&](Mox::PtrInterface::NotifieeConst const& r, Mox::AttributeId id) {
         try {
            throw; // it is current
         } catch (std::exception const& e) {
            heard.push_back(r.name().str() + " " + std::to_string(id) + " " + e.what());
         }
      });
   auto const inProcess = Mox::PtrInterface::NotifieeConst::swallowedExceptions();
   auto const inClass = Gpo::NotifieeConst::reactorClass.swallowedExceptions();
   auto const inOther = Fru::IntCtrl::NotifieeConst::reactorClass.swallowedExceptions();
   EXPECT_NO_THROW(gpo->assertedIs(true));
   Mox::PtrInterface::NotifieeConst::exceptionHookIs(nullptr);
   EXPECT_NO_THROW(gpo->assertedIs(false));
   EXPECT_EQ(heard, std::vector<std::string>{"reset 258 no such pin"});
   EXPECT_EQ(Mox::PtrInterface::NotifieeConst::swallowedExceptions() - inProcess, 2u);
   EXPECT_EQ(Gpo::NotifieeConst::reactorClass.swallowedExceptions() - inClass, 2u);
   EXPECT_EQ(Fru::IntCtrl::NotifieeConst::reactorClass.swallowedExceptions(), inOther);
}

TEST(Audits, FindAPlantedCorruption) {
   using Hardware::ClariPhy::Cl10010ConfigDir;
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("port");
   EXPECT_EQ(dir->auditErrors(8), 0u);
   EXPECT_EQ(dir->moxAuditErrors(8), 0u);

   member->parentIs(nullptr);
   EXPECT_EQ(dir->auditErrors(8), 1u) << "a member that forgot its parent";
   member->parentIs(dir);
   member->parentAttrIdIs(259);
   EXPECT_EQ(dir->auditErrors(0), 1u) << "a member that another attribute claims";
   member->parentAttrIdIs(258);

   // A reactor list whose tail was cut off behind the list's back.
   Log log;
   auto const gpo = make<Gpo>("reset");
   Ptr<Listener> const letters[] = {make<Listener>(log, "a"), make<Listener>(log, "b"), make<Listener>(log, "c")};
   for (auto const& letter : letters)
      letter->listensTo(gpo);
   EXPECT_EQ(gpo->auditErrors(0), 0u);
   letters[0]->moxNextInListIs(letters[2].get());
   EXPECT_EQ(gpo->auditErrors(0), 1u);
   letters[0]->moxNextInListIs(letters[1].get());
   EXPECT_EQ(gpo->auditErrors(0), 0u);
}

/// An entity type made by hand: with two collections, where a path must say which.
class Rack : public Mox::Entity {
public:
   explicit Rack(Mox::Name name) : Mox::Entity(std::move(name)) {}
   ~Rack() override { moxEnd(); }
   static Ptr<Mox::MoxType const> _fwkType() {
      static Ptr<Mox::MoxType const> const type = [] {
         Mox::EntityOperations operations;
         operations.collections = 2;
         return Ptr<Mox::MoxType const>(make<Mox::MoxType>("Test::Rack", Mox::Entity::_fwkType(), operations));
      }();
      return type;
   }
   Ptr<Mox::MoxType const> fwkType() const override { return _fwkType(); }
   Mox::String8 attributeString(Mox::AttributeId id) const override {
      return id == 258 ? "fan" : id == 259 ? "power supply" : Mox::Entity::attributeString(id);
   }
};

TEST(Paths, NameEveryStepThatIsNotPlain) {
   auto const rack = make<Rack>("rack 1/left");
   auto const dir = make<Hardware::ClariPhy::Cl10010ConfigDir>("");
   dir->parentAttrIdIs(259);
   dir->parentIs(rack);
   auto const member = dir->phyConfigIs("100%");

   struct Case {
      Ptr<Mox::Entity> entity;
      char const* path;
      char const* parentAttribute;
   };
   for (auto const& [entity, path, parentAttribute] : {
           Case{rack, "/rack 1%2Fleft", ""}, Case{dir, "/rack 1%2Fleft/power supply/%", "power supply"},
           Case{member, "/rack 1%2Fleft/power supply/%/100%25",
                "phyConfig"}, // a directory's only collection goes unsaid
        }) {
      EXPECT_EQ(entity->uriPath(), path);
      EXPECT_EQ(entity->fullName(), path);
      EXPECT_EQ(entity->parentAttr(), parentAttribute);
   }
   EXPECT_EQ(Mox::Entity::fullNameOf(nullptr), "null");
   dir->parentIs(nullptr);
   EXPECT_EQ(member->fullName(), "/%/100%25");
}

TEST(Types, AreFoundByNameWithTheirBases) {
   auto const config = Mox::MoxType::find("Hardware::ClariPhy::Cl10010Config");
   ASSERT_NE(config, nullptr);
   EXPECT_EQ(config->name(), "Hardware::ClariPhy::Cl10010Config");
   EXPECT_EQ(config->level(), 3u);
   auto const base = Mox::MoxType::find("Hardware::Phy::PhyConfig");
   EXPECT_EQ(config->base(), base);
   EXPECT_TRUE(config->derivesFrom(*base) && !base->derivesFrom(*config));
   EXPECT_EQ(base->base()->base()->name(), "Mox::PtrInterface");
   EXPECT_EQ(Mox::MoxType::find("Fru::Nothing"), nullptr);
   EXPECT_THROW(make<Mox::MoxType>("Fru::Gpo", Mox::Entity::_fwkType(), Mox::EntityOperations{}),
                Mox::InternalException);
   EXPECT_EQ(Gpo::_fwkType(), Mox::MoxType::find("Fru::Gpo")) << "the first registration stands";
}

TEST(ExpectScopes, NestPerThreadAndZeroExpectsNothing) {
   using Mox::Expect;
   Expect const outer(16);
   {
      Expect const none(0);
      Expect const inner(48);
      EXPECT_TRUE(Expect::isExpected(16));
      EXPECT_TRUE(Expect::isExpected(48));
      EXPECT_FALSE(Expect::isExpected(0));
      std::thread([] { EXPECT_FALSE(Expect::isExpected(16)); }).join();
   }
   EXPECT_TRUE(Expect::isExpected(16));
   EXPECT_FALSE(Expect::isExpected(48));
}

} // namespace
