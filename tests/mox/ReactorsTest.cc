// SPDX-License-Identifier: Apache-2.0
#include "Listener.h"
#include "core/Exceptions.h"
#include "entities/Cl10010ConfigDirReactor.h"
#include "entities/Cl10010StatusDir.h"
#include "siblings/IntCtrlReactor.h"

#include <gtest/gtest.h>

#include <functional>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Fru::Gpo;
using Mox::make;
using Mox::Ptr;

// What reactors of one entity do to its list is judged against a plain model elsewhere; here are adapters, and moves.

TEST(Registering, AdaptersStandAtTheHeadAndAttachingMovesWhoIsRegistered) {
   Log log;
   auto const gpo = make<Gpo>("reset"), other = make<Gpo>("other");
   auto const a = make<Listener>(log, "a"), b = make<Listener>(log, "b");
   auto const s = make<Listener>(log, "s", true), t = make<Listener>(log, "t", true);
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
   EXPECT_EQ(order(other), "b");
   EXPECT_EQ(other->references(), 2u);
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
   Ptr<Listener> const idle[] = {make<Listener>(log, "a"), make<Listener>(log, "b"), make<Listener>(log, "c")};
   for (auto const& r : idle) {
      r->isWeakReferenceIs(true);
      r->notifierIs(gpo);
      r->isRegisteredNotifieeIs(r == idle[2]);
   }
   idle[2]->hasNotificationActiveIs(false);
   auto const waiting = make<Listener>(log, "waiting");
   waiting->isWeakReferenceIs(true);
   waiting->notifierIs(other);
   for (auto const& r : {idle[1], idle[2]}) {
      r->notifierIs(other);
      EXPECT_EQ(gpo->auditErrors(0) + other->auditErrors(0), 0u);
   }
   gpo = nullptr;
   EXPECT_EQ(idle[0]->notifier(), nullptr);
   EXPECT_EQ(idle[1]->notifier(), other);
   other = nullptr;
   for (auto const& r : {idle[1], idle[2], waiting})
      EXPECT_EQ(r->notifier(), nullptr);
}

TEST(NotificationExceptions, TheDefaultSwallowsCountsAndLeavesAWord) {
   struct Faulty : Gpo::Notifiee {
      void onAsserted() override { fault(); }
      std::function<void()> fault = [] { throw std::runtime_error("no such pin"); };
   };
   auto const gpo = make<Gpo>("reset");
   auto const faulty = make<Faulty>();
   faulty->notifierIs(gpo);
   faulty->isRegisteredNotifieeIs(true);
   std::vector<std::string> heard;
   Mox::exceptionHookIs([&](std::string const& text) {
      heard.push_back(text);
      throw 1; // goes nowhere
   });
   auto const inProcess = Mox::swallowedExceptions();
   auto const inClass = Gpo::NotifieeConst::reactorClass.swallowedExceptions();
   EXPECT_NO_THROW(gpo->assertedIs(true));
   EXPECT_EQ(heard, Log{"/reset.asserted: no such pin"});
   faulty->fault = [] { Mox::throwNameInUseException("taken"); };
   {
      Mox::Expect const plan(Mox::NameInUseException::kind);
      EXPECT_NO_THROW(gpo->assertedIs(false));
   }
   EXPECT_EQ(Mox::lastSwallowedException(), "/reset.asserted: no such pin") << "what is expected leaves none";
   Mox::exceptionHookIs(nullptr);
   EXPECT_NO_THROW(gpo->assertedIs(true));
   EXPECT_EQ(Mox::lastSwallowedException(), "/reset.asserted: taken");
   EXPECT_EQ(heard.size(), 1u);
   EXPECT_EQ(Mox::swallowedExceptions() - inProcess, 3u);
   EXPECT_EQ(Gpo::NotifieeConst::reactorClass.swallowedExceptions() - inClass, 3u);
}

TEST(Audits, FindAPlantedCorruption) {
   using Hardware::ClariPhy::Cl10010ConfigDir;
   auto const dir = make<Cl10010ConfigDir>("config");
   auto const member = dir->phyConfigIs("port");

   member->parentIs(nullptr);
   EXPECT_EQ(dir->auditErrors(8), 1u) << "a member that forgot its parent";
   member->parentIs(dir);
   member->parentAttrIdIs(259);
   EXPECT_EQ(dir->auditErrors(0), 1u) << "a member that another attribute claims";
}

TEST(Paths, NameEveryStepThatIsNotPlain) {
   using namespace Hardware::ClariPhy;
   auto const dir = make<Cl10010StatusDir>("rack 1/left");
   auto const port = dir->phyStatusIs("", nullptr, nullptr);
   auto const histogram = port->ldpcHistogramsIs("100%");
   EXPECT_EQ(port->fullName(), "/rack 1%2Fleft/%") << "a directory's only collection goes unsaid";
   EXPECT_EQ(histogram->fullName(), "/rack 1%2Fleft/%/ldpcHistograms/100%25");
   EXPECT_EQ(histogram->uriPath(), histogram->fullName());
   EXPECT_EQ(histogram->parentAttr(), "ldpcHistograms");
   EXPECT_EQ(Mox::Entity::fullNameOf(nullptr), "null");
}

} // namespace
