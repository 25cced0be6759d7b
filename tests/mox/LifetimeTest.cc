// SPDX-License-Identifier: Apache-2.0
#include "Listener.h"
#include "entities/Cl10010ConfigDirReactor.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

namespace {

using Fru::Gpo;
using namespace Hardware::ClariPhy;
using Mox::make;
using Mox::Ptr;

class LoggedGpo : public Gpo {
public:
   LoggedGpo(Mox::Name name, Log& log) : Gpo(std::move(name)), log_(log) {}
   ~LoggedGpo() override { log_.push_back("entity dies"); }

private:
   Log& log_;
};

TEST(Dying, WeakReactorsSeeZeroReferencesAndStrongOnesPreventIt) {
   Log log;
   auto entity = Ptr<Gpo>(make<LoggedGpo>("reset", log));
   auto const strong = make<Listener>(log, "strong"), weak = make<Listener>(log, "weak");
   auto const paused = make<Listener>(log, "paused"), idle = make<Listener>(log, "idle");
   for (auto const& watch : {idle, strong, weak, paused}) {
      watch->isWeakReferenceIs(watch != strong);
      watch->notifierIs(entity);
      watch->isRegisteredNotifieeIs(watch != idle);
   }
   paused->hasNotificationActiveIs(false);
   entity = nullptr;
   EXPECT_EQ(log, Log{}) << "the strong reactor keeps it";
   strong->notifier()->assertedIs(true);
   EXPECT_EQ(log, (Log{"strong", "weak"}));
   log.clear();
   strong->isWeakReferenceIs(true); // the last strong one lets go
   EXPECT_EQ(log, (Log{"strong sees reset go", "weak sees reset go", "entity dies"}));
   for (auto const& watch : {strong, weak, paused, idle})
      EXPECT_EQ(watch->notifier(), nullptr);
}

TEST(Dying, AReferenceTakenMeanwhileMayBeDroppedMeanwhile) {
   Log log;
   auto entity = Ptr<Gpo>(make<LoggedGpo>("reset", log));
   auto const weak = make<Listener>(log, "weak");
   weak->isWeakReferenceIs(true);
   weak->listensTo(entity);
   auto const late = make<Listener>(log, "late");
   late->isRegisteredNotifieeIs(true);
   weak->onGoing = [&] {
      Ptr<Gpo> const again = weak->notifier();
      EXPECT_EQ(again->references(), 2u);
      again->assertedIs(true); // told as ever
      late->notifierIs(again); // a strong reactor on what goes anyway
   };
   entity = nullptr;
   EXPECT_EQ(log, (Log{"weak sees reset go", "weak", "entity dies"}));
   EXPECT_EQ(late->notifier(), nullptr);

   // A reactor that is referenced again while the last reference to it goes.
   class SelfHolding : public Gpo::Notifiee {
   public:
      void zeroReferencesIs(bool) override { Ptr<SelfHolding> const again(this); }
   };
   auto const gpo = make<Gpo>("reset");
   auto reactor = make<SelfHolding>();
   reactor->notifierIs(gpo);
   reactor->isRegisteredNotifieeIs(true);
   reactor = nullptr;
   EXPECT_FALSE(gpo->moxHasReactors());
   EXPECT_EQ(gpo->references(), 1u);
}

TEST(Dying, OfTheOldNotifierShowsTheReactorAtItsNewOne) {
   Log log;
   auto const next = make<Gpo>("next");
   auto const mover = make<Listener>(log, "mover"), weak = make<Listener>(log, "weak");
   weak->isWeakReferenceIs(true);
   {
      auto const old = make<Gpo>("old");
      mover->listensTo(old);
      weak->listensTo(old);
   }
   weak->onGoing = [&] {
      EXPECT_EQ(mover->notifier(), next);
      next->assertedIs(true);
   };
   mover->notifierIs(next);
   EXPECT_EQ(log, (Log{"weak sees old go", "mover"}));
}

TEST(Dying, ADirectoryOnTheStackGoesLikeOneThatIsCounted) {
   class Strong : public Cl10010ConfigDir::Notifiee {};
   auto const strong = make<Strong>();
   strong->isRegisteredNotifieeIs(true);
   Log log;
   Mox::Watch watch;
   Ptr<Cl10010Config> member;
   {
      Cl10010ConfigDir stack("config");
      watch = logged(Ptr<Cl10010ConfigDir>(&stack), Cl10010ConfigDir::Attr::phyConfig, log);
      member = stack.phyConfigIs("port");
      strong->notifierIs(Ptr<Cl10010ConfigDir>(&stack)); // holds it, and must not be what ends the process
   }
   EXPECT_EQ(log, (Log{"port here", "port gone"}));
   EXPECT_EQ(member->parent(), nullptr);
}

TEST(Dying, EveryMemberGoesWhateverReactorsThrowOrPutBack) {
   /// Puts back what goes, and throws what nobody expects.
   class Stubborn : public Cl10010ConfigDir::Notifiee {
   public:
      void onZeroReferences() override {
         there = notifier()->phyConfig().size();
         throw 1;
      }
      void onPhyConfig(Mox::Name name) override {
         gone.push_back(name);
         if (gone.size() > 1)
            back = notifier()->newPhyConfig(gone[0]); // behind the position
         throw 2;
      }
      void onNotificationException(Mox::AttributeId) override { throw; }
      std::size_t there = 0;
      std::vector<Mox::Name> gone;
      Ptr<Cl10010Config> back;
   };
   auto dir = make<Cl10010ConfigDir>("config");
   Ptr<Cl10010Config> const members[] = {dir->phyConfigIs("a"), dir->phyConfigIs("b"), dir->phyConfigIs("c")};
   auto const stubborn = make<Stubborn>();
   stubborn->isWeakReferenceIs(true);
   stubborn->notifierIs(dir);
   stubborn->isRegisteredNotifieeIs(true);
   auto const swallowed = Mox::swallowedExceptions();
   testing::internal::CaptureStderr();
   dir = nullptr;
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
   EXPECT_EQ(Mox::swallowedExceptions() - swallowed, 2u) << "the first of each step";
   EXPECT_EQ(Mox::lastSwallowedException(), "/config as it goes: an exception of a foreign type");
   EXPECT_EQ(stubborn->there, 3u) << "members go behind the last notification";
   EXPECT_EQ(stubborn->gone.size(), 3u);
   EXPECT_EQ(stubborn->notifier(), nullptr);
   ASSERT_NE(stubborn->back, nullptr);
   EXPECT_EQ(stubborn->back->parent(), nullptr);
   for (auto const& member : members) {
      EXPECT_EQ(member->parent(), nullptr);
      EXPECT_EQ(member->references(), 1u);
   }
}

TEST(DyingDeathTest, AnObjectThatSomebodyStillReferencesEndsTheProcess) {
   EXPECT_DEATH(
      {
         Ptr<Gpo> dangling;
         Gpo stack("reset");
         dangling = Ptr<Gpo>(&stack);
         std::destroy_at(&stack);
      },
      "destroyed while somebody references it");
}

TEST(Counting, AssigningHoldsTheNewBeforeItLetsGoOfTheOld) {
   Log log;
   auto entity = Ptr<Gpo>(make<LoggedGpo>("reset", log));
   Ptr<Gpo> const& itself = entity;
   entity = itself;
   EXPECT_EQ(log, Log{});
   EXPECT_EQ(entity->references(), 1u);
}

TEST(Counting, ThreadsShareObjectsInThreadSafeMode) {
   struct Mode {
      Mode() { Mox::VFPtrInterface::enableThreadSafePointers(); }
      ~Mode() { Mox::VFPtrInterface::enableThreadSafePointers(false); }
   } const mode;
   auto const shared = make<Gpo>("reset");
   Mox::Name const name("shared");
   auto const work = [&](bool flags) {
      for (int i = 0; i < 20000; ++i) {
         Ptr<Gpo> const a(shared); // NOLINT(performance-unnecessary-copy-initialization)
         Ptr<Gpo const> const b(a);
         Mox::Name const copy(name); // NOLINT(performance-unnecessary-copy-initialization)
         ASSERT_EQ(copy.hash(), Mox::hashOf("shared"));
         if (flags)
            shared->moxMarkedForDeletionIs(i % 2 == 0); // the flags share the word with the count
      }
   };
   std::thread other(work, true);
   work(false);
   other.join();
   EXPECT_EQ(shared->references(), 1u);
   EXPECT_FALSE(shared->moxMarkedForDeletion());
}

} // namespace
