// SPDX-License-Identifier: Apache-2.0
#include "kestrel/core/Exceptions.h"
#include "kestrel/entities/Cl10010ConfigDirReactor.h"
#include "kestrel/siblings/GpoReactor.h"
#include "kestrel/siblings/IntCtrl.h"
#include "support/Thrown.h"
#include "support/Told.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <utility>

namespace {

using Fru::Gpo;
using namespace Hardware::ClariPhy;
using Mox::make;
using Mox::Ptr;

/// Writes down its title when it is told; may do something when what it listens to goes.
struct Listener : Gpo::Notifiee {
   Listener(Log& l, std::string t) : log(l), title(std::move(t)) {}
   void onAsserted() override { log.push_back(title); }
   void onZeroReferences() override {
      log.push_back(title + " sees " + name().str() + " go");
      if (onGoing)
         onGoing();
   }
   void listensTo(Ptr<Gpo> const& gpo, bool isRegistered = true) {
      notifierIs(gpo);
      isRegisteredNotifieeIs(isRegistered);
   }
   std::function<void()> onGoing;
   Log& log;
   std::string title;
};

struct LoggedGpo : Gpo {
   LoggedGpo(Mox::Name name, Log& l) : Gpo(std::move(name)), log(l) {}
   ~LoggedGpo() override { log.push_back("entity dies"); }
   Log& log;
};

TEST(Dying, AReferenceTakenMeanwhileMayBeDroppedMeanwhile) {
   Log log;
   auto entity = Ptr<Gpo>(make<LoggedGpo>("reset", log));
   auto const weak = make<Listener>(log, "weak"), late = make<Listener>(log, "late");
   weak->isWeakReferenceIs(true);
   weak->listensTo(entity);
   weak->onGoing = [&] {
      Ptr<Gpo> const again = weak->notifier();
      again->assertedIs(true); // told as ever
      late->listensTo(again);  // a strong reactor on what goes anyway
   };
   entity = nullptr;
   EXPECT_EQ(log, (Log{"weak sees reset go", "weak", "entity dies"}));
   EXPECT_EQ(late->notifier(), nullptr);

   // A reactor that is referenced again while the last reference to it goes.
   struct SelfHolding : Gpo::Notifiee {
      void zeroReferencesIs(bool) override { Ptr<SelfHolding> const again(this); }
   };
   auto const gpo = make<Gpo>("reset");
   listening<SelfHolding>(gpo, false);
   EXPECT_FALSE(gpo->moxHasReactors());
   EXPECT_EQ(gpo->references(), 1u);
}

TEST(Dying, ADirectoryOnTheStackGoesThoughAReactorHoldsIt) {
   struct Strong : Cl10010ConfigDir::Notifiee {};
   auto const strong = make<Strong>();
   strong->isRegisteredNotifieeIs(true);
   Ptr<Cl10010Config> member;
   { // and no counted reference
      Cl10010ConfigDir stack("config");
      member = stack.phyConfigIs("port");
      strong->notifierIs(Ptr<Cl10010ConfigDir>(&stack));
   }
   EXPECT_EQ(member->parent(), nullptr);
   EXPECT_EQ(strong->notifier(), nullptr);
}

TEST(Dying, EveryMemberGoesWhateverReactorsThrowOrPutBack) {
   /// Puts back what goes, and throws what nobody expects.
   struct Stubborn : Cl10010ConfigDir::Notifiee {
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
   auto const stubborn = listening<Stubborn>(dir, true);
   auto const swallowed = Mox::swallowedExceptions();
   testing::internal::CaptureStderr();
   dir = nullptr;
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
   EXPECT_EQ(Mox::swallowedExceptions() - swallowed, 2u) << "the first of each step";
   EXPECT_EQ(Mox::lastSwallowedException(), "/config as it goes: an exception of a foreign type");
   EXPECT_EQ(stubborn->there, 3u) << "members go behind the last notification";
   EXPECT_EQ(stubborn->gone.size(), 3u);
   for (auto const& member : {members[0], members[1], members[2], stubborn->back}) {
      ASSERT_NE(member, nullptr);
      EXPECT_EQ(member->parent(), nullptr);
      EXPECT_EQ(member->references(), 2u) << "ours, and the list of this loop";
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

TEST(Counting, ThreadsShareObjectsInThreadSafeMode) {
   Mox::VFPtrInterface::enableThreadSafePointers();
   auto const shared = make<Gpo>("reset");
   Mox::Name const name("shared");
   auto const work = [&] {
      for (int i = 0; i < 20000; ++i) {
         Ptr<Gpo> const copy(shared);                // NOLINT(performance-unnecessary-copy-initialization)
         Mox::Name const copiedName(name);           // NOLINT(performance-unnecessary-copy-initialization)
         shared->moxMarkedForDeletionIs(i % 2 == 0); // the flags share the word with the count
      }
   };
   std::thread other(work);
   work();
   other.join();
   EXPECT_EQ(shared->references(), 1u);
   Mox::VFPtrInterface::enableThreadSafePointers(false);
}

/// Says that it is an adapter's, which only `object` can make true.
struct Adapted : Listener {
   using Listener::Listener;
   bool isStreamAdapter() const override { return true; }
   Ptr<Mox::PtrInterface> moxReactor() const override { return object ? object : Listener::moxReactor(); }
   struct StateAdapter : Mox::PtrInterface {
      StateAdapter() noexcept : PtrInterface(stateAdapterKind) {}
   };
   Ptr<Mox::PtrInterface> object;
};

// What reactors of one entity do to its list is judged against a plain model elsewhere; here are adapters, and moves.

TEST(Registering, AdaptersStandAtTheHeadAndAttachingMovesWhoIsRegistered) {
   Log log;
   auto const gpo = make<Gpo>("reset"), other = make<Gpo>("other");
   auto const a = make<Adapted>(log, "a"), b = make<Adapted>(log, "b"), s = make<Adapted>(log, "s"),
              t = make<Adapted>(log, "t");
   s->object = make<Adapted::StateAdapter>();
   t->object = make<Adapted::StateAdapter>();
   /// Who is told, in order.
   auto const order = [&](Ptr<Gpo> const& of) {
      log.clear();
      of->assertedIs(!of->asserted());
      EXPECT_EQ(of->auditErrors(1), 0u);
      return std::accumulate(log.begin(), log.end(), std::string());
   };
   a->isRegisteredNotifieeIs(true); // only the flag: there is no notifier
   for (auto const& r : {a, s, b, t})
      r->listensTo(gpo);
   EXPECT_EQ(order(gpo), "tsab") << "the youngest adapter first";
   s->hasNotificationActiveIs(false);
   s->hasNotificationActiveIs(true);
   EXPECT_EQ(order(gpo), "stab") << "as young as new";

   b->notifierIs(other);
   a->notifierIs(other);
   a->notifierIs(other); // the current one again is nothing
   EXPECT_EQ(order(gpo), "st");
   EXPECT_EQ(order(other), "ba");
   a->notifierIs(make<Fru::IntCtrl>("irq"));
   EXPECT_EQ(a->notifier(), nullptr) << "a notifier of another type counts as null";
   b->isRegisteredNotifieeIs(false);
   b->hasNotificationActiveIs(false);
   b->hasNotificationActiveIs(true);
   EXPECT_EQ(order(other), "") << "a pause registers nobody";
   for (bool const weak : {true, false}) {
      b->isWeakReferenceIs(weak);
      EXPECT_EQ(other->references(), weak ? 1u : 2u);
   }
}

TEST(Registering, AnIdleWeakReactorMovesByItself) {
   Log log;
   auto gpo = make<Gpo>("reset"), other = make<Gpo>("other");
   Ptr<Listener> const idle[] = {make<Listener>(log, "a"), make<Listener>(log, "b"), make<Listener>(log, "c"),
                                 make<Listener>(log, "waiting")};
   for (auto const& r : idle) {
      r->isWeakReferenceIs(true);
      r->listensTo(r == idle[3] ? other : gpo, r == idle[2]);
   }
   idle[2]->hasNotificationActiveIs(false);
   for (auto const& r : {idle[1], idle[2]}) {
      r->notifierIs(other);
      EXPECT_EQ(gpo->auditErrors(0) + other->auditErrors(0), 0u);
   }
   gpo = nullptr;
   EXPECT_EQ(idle[0]->notifier(), nullptr);
   EXPECT_EQ(idle[1]->notifier(), other);
   other = nullptr;
   for (auto const& r : idle)
      EXPECT_EQ(r->notifier(), nullptr);
}

TEST(NotificationExceptions, TheDefaultSwallowsCountsAndLeavesAWord) {
   struct Faulty : Gpo::Notifiee {
      void onAsserted() override {
         if (notifier()->asserted())
            throw std::runtime_error("no such pin");
         Mox::throwNameInUseException("taken");
      }
   };
   auto const gpo = make<Gpo>("reset");
   auto const faulty = listening<Faulty>(gpo, false);
   Log heard;
   Mox::exceptionHookIs([&](std::string const& text) {
      heard.push_back(text);
      throw 1; // goes nowhere
   });
   auto const inProcess = Mox::swallowedExceptions();
   auto const inClass = Gpo::NotifieeConst::reactorClass.swallowedExceptions();
   gpo->assertedIs(true);
   EXPECT_EQ(heard, Log{"/reset.asserted: no such pin"});
   {
      Mox::Expect const plan(Mox::NameInUseException::kind);
      gpo->assertedIs(false);
   }
   EXPECT_EQ(Mox::lastSwallowedException(), "/reset.asserted: no such pin") << "what is expected leaves none";
   Mox::exceptionHookIs(nullptr);
   gpo->assertedIs(true);
   EXPECT_EQ(heard.size(), 1u);
   EXPECT_EQ(Mox::swallowedExceptions() - inProcess, 3u);
   EXPECT_EQ(Gpo::NotifieeConst::reactorClass.swallowedExceptions() - inClass, 3u);
}

TEST(Parents, FormNoCircle) {
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("port");
   auto const changes = dir->changeCount();
   for (Ptr<Mox::Entity> const& below : {Ptr<Mox::Entity>(dir), Ptr<Mox::Entity>(member)})
      EXPECT_EQ(thrownBy<Mox::InternalException>([&] { dir->parentIs(below); }),
                "an entity would stand above itself: /config");
   EXPECT_EQ(dir->changeCount(), changes);
   EXPECT_EQ(dir->parent(), nullptr);
   auto const above = make<Cl10010ConfigDir>("above");
   dir->parentIs(above);
   EXPECT_EQ(member->parent()->parent(), above);
}

TEST(Audits, FindAPlantedCorruption) {
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("port");

   member->parentIs(nullptr);
   EXPECT_EQ(dir->auditErrors(8), 1u) << "a member that forgot its parent";
   member->parentIs(dir);
   member->parentAttrIdIs(259);
   EXPECT_EQ(dir->auditErrors(0), 1u) << "a member that another attribute claims";
}

} // namespace
