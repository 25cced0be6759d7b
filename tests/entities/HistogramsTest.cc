#include "core/Exceptions.h"
#include "entities/Cl10010StatusReactor.h"
#include "entities/FecHistogramReactor.h"
#include "notify/Observe.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using ClariPhyTypes::LdpcHistogramCounter;
using Hardware::ClariPhy::Cl10010Status;
using Hardware::ClariPhy::FecHistogram;
using Mox::make;
using Mox::Ptr;
using Log = std::vector<std::string>;

std::string textOf(Mox::Name const& name) {
   return std::string(std::string_view(name));
}

class StatusWatch : public Cl10010Status::Notifiee {
public:
   void onLdpcHistograms(Mox::Name name) override {
      // By then the member has its place and its parent, or has lost both.
      auto* const member = notifier()->ldpcHistograms().find(name);
      log.push_back(textOf(name) + (member == nullptr ? " gone" : " here"));
      if (member != nullptr) {
         EXPECT_EQ(member->parent(), notifier());
         EXPECT_EQ(member->parentAttrId(), 446u);
      }
      if (then)
         then(name);
   }
   void onNotificationException(Mox::AttributeId id) override { log.push_back("threw in " + std::to_string(id)); }
   Log taken() { return std::exchange(log, {}); }
   Log log;
   std::function<void(Mox::Name const&)> then;
};

struct Histograms : testing::Test {
   Ptr<Cl10010Status> status = make<Cl10010Status>("port", nullptr, nullptr);
   Ptr<StatusWatch> watch = make<StatusWatch>();
   Histograms() {
      watch->notifierIs(status);
      watch->isRegisteredNotifieeIs(true);
   }
   template <class Change> Log after(unsigned changes, unsigned touches, Change change) {
      auto const before = std::pair(status->changeCount(), status->touchCount());
      change();
      EXPECT_EQ(status->changeCount() - before.first, changes);
      EXPECT_EQ(status->touchCount() - before.second, touches);
      EXPECT_EQ(status->auditErrors(2), 0u);
      return watch->taken();
   }
};

TEST_F(Histograms, ComeAndGoByName) {
   Ptr<FecHistogram> a, b;
   EXPECT_EQ(after(0, 1, [&] { EXPECT_EQ(status->ldpcHistograms("a"), nullptr); }), Log{});
   EXPECT_EQ(after(1, 0, [&] { a = status->ldpcHistogramsIs("a"); }), Log{"a here"});
   EXPECT_EQ(a->fullName(), "/port/ldpcHistograms/a");
   EXPECT_EQ(after(1, 0, [&] { EXPECT_EQ(status->ldpcHistogramsIs("a"), a); }), Log{}) << "found: counted, untold";
   EXPECT_EQ(after(0, 1, [&] { EXPECT_EQ(status->ldpcHistograms("a"), a); }), Log{});
   EXPECT_EQ(after(1, 0, [&] { b = status->ldpcHistogramsIs(""); }), Log{" here"}) << "the empty name is a name";
   EXPECT_EQ(after(0, 0, [&] { status->ldpcHistogramsNotify("a"); }), Log{"a here"});
   EXPECT_EQ(after(0, 0, [&] { EXPECT_EQ(status->ldpcHistogramsDel("absent"), nullptr); }), Log{});
   auto const changes = a->changeCount();
   EXPECT_EQ(after(0, 0, [&] { a->histogramIs(7, 77); }), Log{}) << "a counter's change is the histogram's own";
   EXPECT_EQ(a->changeCount() - changes, 1u);

   // The raw step tells nobody; the replaced one keeps what it counted, and loses its parent.
   Ptr<FecHistogram> replacement;
   EXPECT_EQ(after(0, 0, [&] { replacement = status->newLdpcHistograms("a"); }), Log{});
   EXPECT_EQ(status->ldpcHistograms("a"), replacement);
   EXPECT_EQ(replacement->histogram(7), 0u);
   EXPECT_EQ(a->histogram(7), 77u);
   EXPECT_EQ(a->parent(), nullptr);
   EXPECT_EQ(a->references(), 1u);

   EXPECT_EQ(after(1, 0, [&] { EXPECT_EQ(status->ldpcHistogramsDel("a"), replacement); }), Log{"a gone"});
   EXPECT_EQ(replacement->parent(), nullptr);
   EXPECT_EQ(replacement->references(), 1u);
   Cl10010Status::MoxLdpcHistogramsMap::Iterator it(status->ldpcHistograms());
   EXPECT_EQ(after(1, 0, [&] { EXPECT_EQ(status->ldpcHistogramsDel(it), b); }), Log{" gone"});
   EXPECT_EQ(after(0, 0, [&] { EXPECT_EQ(status->ldpcHistogramsDel(it), nullptr); }), Log{}) << "no member any more";
   it.advance();
   EXPECT_EQ(after(0, 0, [&] { EXPECT_EQ(status->ldpcHistogramsDel(it), nullptr); }), Log{}) << "at the end";
}

TEST_F(Histograms, AllGoInTheOrderOfTheirNamesWhileReactorsChangeThem) {
   for (char const* const name : {"d", "b", "f", "c"})
      status->ldpcHistogramsIs(name);
   watch->taken();
   bool isOnce = true;
   watch->then = [&](Mox::Name const& name) {
      if (name != "c" || !std::exchange(isOnce, false))
         return;
      status->ldpcHistogramsDel("d"); // the next one
      status->ldpcHistogramsIs("e");  // ahead: goes too
      status->ldpcHistogramsIs("a");  // behind: stays
      status->newLdpcHistograms("f"); // in the place of another
      throw 1;
   };
   EXPECT_EQ(after(7, 0, [&] { status->ldpcHistogramsDelAll(); }),
             (Log{"b gone", "c gone", "d gone", "e here", "a here", "threw in 446", "e gone", "f gone"}));
   EXPECT_EQ(status->ldpcHistograms().size(), 1u);
   EXPECT_TRUE(status->ldpcHistograms().contains("a"));
}

TEST_F(Histograms, CountersHaveFortyEightBitsAndThirtyTwoPlaces) {
   auto const histogram = status->ldpcHistogramsIs("a");
   constexpr auto most = LdpcHistogramCounter(0xffffffffffff);
   histogram->histogramIs(31, most);
   EXPECT_EQ(histogram->histogram(31), most);
   histogram->histogramIs(5, 1);
   Log told;
   auto const counts =
      Mox::on(histogram, FecHistogram::Attr::histogram, [&](FecHistogram&, ClariPhyTypes::LdpcHistogramIterNum i) {
         told.push_back(std::to_string(i.number()));
      });
   auto const changes = histogram->changeCount();
   struct Case {
      std::function<void()> call;
      std::string text;
   };
   ClariPhyTypes::LdpcHistogramIterNum beyond;
   beyond.value = 32;
   for (auto const& [call, text] : {
           Case{[&] { histogram->histogramDel(beyond); }, "LdpcHistogramIterNum::value < 0 or > 31 not allowed"},
           Case{[&] { histogram->histogramIs(32, 1); }, "LdpcHistogramIterNum::value < 0 or > 31 not allowed"},
           Case{[&] { histogram->histogramIs(0, 0x1000000000000); },
                "LdpcHistogramCounter::value < 0 or > 0xffffffffffff not allowed"},
        }) {
      try {
         call();
         ADD_FAILURE() << "expected: " << text;
      } catch (Mox::RangeException const& e) {
         EXPECT_EQ(e.what(), text);
      }
   }
   EXPECT_EQ(histogram->changeCount(), changes);
   EXPECT_EQ(told, Log{});
   EXPECT_EQ(histogram->histogramDel(31), most);
   histogram->histogramIs(17, 2);
   told.clear();
   histogram->histogramDelAll();
   EXPECT_EQ(told, (Log{"5", "17"}));
   EXPECT_EQ(histogram->attributeString(258), "histogram");
   EXPECT_EQ(histogram->attributeString(259), "unknown");
}

TEST_F(Histograms, OutliveTheirStatusAndTellWhenTheyGo) {
   /// Takes a reference to what is going and drops it.
   struct Last : FecHistogram::Notifiee {
      void onZeroReferences() override {
         Ptr<FecHistogram> const dying = notifier();
         told = textOf(dying->name()) + (dying->parent() == nullptr ? " alone" : " with a parent");
         dying->histogramIs(0, 9);
         throw 1;
      }
      void onNotificationException(Mox::AttributeId id) override { threw = id; }
      std::string told;
      Mox::AttributeId threw = 0;
   };
   auto kept = status->ldpcHistogramsIs("kept");
   auto const lasts = {make<Last>(), make<Last>()};
   auto next = lasts.begin();
   for (char const* const name : {"kept", "lost"}) {
      (*next)->isWeakReferenceIs(true);
      (*next)->notifierIs(status->ldpcHistogramsIs(name));
      (*next++)->isRegisteredNotifieeIs(true);
   }
   auto const& ofKept = **lasts.begin();
   auto const& ofLost = **(lasts.begin() + 1);
   watch->taken();
   watch->isWeakReferenceIs(true);
   watch->then = [&](Mox::Name const&) { EXPECT_EQ(watch->notifier()->name(), "port"); };
   status = nullptr;
   EXPECT_EQ(watch->taken(), (Log{"kept gone", "lost gone"})) << "each with its notification, before the status goes";
   EXPECT_EQ(watch->notifier(), nullptr);
   EXPECT_EQ(ofLost.told, "lost alone");
   EXPECT_EQ(ofLost.threw, 5u);
   EXPECT_EQ(kept->parent(), nullptr);
   EXPECT_EQ(kept->references(), 1u);
   EXPECT_EQ(ofKept.told, "");
   kept = nullptr;
   EXPECT_EQ(ofKept.told, "kept alone");
}

} // namespace
