// SPDX-License-Identifier: Apache-2.0
// What a caller may do to an end at an unlucky moment: without memory, or from within what the end calls.

#include "Directories.h"
#include "kestrel/core/Exceptions.h"
#include "kestrel/mox/Swallowed.h"
#include "support/Allocations.h"

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace Mox::NboAttrLog {
namespace {

struct World : Directories {
   void TestBody() override {}
   World() {
      refs->phyConfigIs(port);
      settle();
   }
};

TEST(Callers, FindACallThatHadNoMemoryUndoneOrDone) {
   struct Case {
      char const* what;
      std::function<void(World&)> before, call, again;
   };
   auto const none = [](World&) {};
   auto const settle = [](World& w) { w.settle(); };
   auto const unmount = [](World& w) { w.right.unmount("config"); };
   auto const mount = [](World& w) { w.right.mountIs(w.theirs); };
   auto const exportDel = [](World& w) { w.left.exportDel(w.ours); };
   auto const exportRoot = [](World& w) { w.left.exportRoot(w.ours); };
   for (Case const& each : std::vector<Case>{
           {"unmount", none, unmount, mount},
           {"mount", [&](World& w) { unmount(w), w.settle(); }, mount, none},
           {"unmount, cut", [](World& w) { w.cut(); }, unmount, mount},
           {"export deleted", none, exportDel, exportRoot},
           {"export", [&](World& w) { exportDel(w), w.settle(); }, exportRoot, none},
           {"an export is told", [&](World& w) { exportDel(w), w.settle(), exportRoot(w); }, settle, none},
           {"its end is told", exportDel, settle, exportRoot},
        })
      for (std::size_t skipped = 0, isOver = 0; isOver == 0; ++skipped) {
         SCOPED_TRACE(each.what + (", the first that fails is allocation " + std::to_string(skipped)));
         World w;
         each.before(w);
         bool isDone = false;
         bool const hasFailed = failingOnce(skipped, [&] {
            each.call(w);
            isDone = true;
         });
         isOver = !hasFailed || skipped == 200;
         EXPECT_EQ(w.left.auditErrors() + w.right.auditErrors(), 0u);
         if (!isDone)
            each.call(w);
         w.settle();
         each.again(w);
         if (!w.left.isConnected() || !w.right.isConnected()) {
            w.cut();
            w.reconnect();
         }
         w.settle();
         w.expectSame();
         EXPECT_THROW(w.theirs->phyConfig("port")->refClockIs(77), ReadOnlyException);
      }
}

/// Throws whatever it is told, and lets that pass. One without a `Failure` only counts.
template <class X, class Failure>
struct Thrower final : X::template MoxForwarder<typename X::Notifiee, Thrower<X, Failure>> {
   std::size_t told = 0;
   template <class A, class... Key> void forward(A, Key const&...) {
      ++told;
      if constexpr (!std::is_void_v<Failure>)
         throw Failure("a reactor's");
   }
   void onNotificationException(AttributeId) override { throw; }
};

/// \return how often reactors were told each change
template <class Failure> std::vector<std::size_t> throwThroughEverything() {
   struct Case {
      char const* what;
      std::function<void(World&)> change;
   };
   std::vector<std::size_t> tellings;
   constexpr auto channel = Xcvr::CfpxHostChannel::channel1;
   auto const remake = [](World& w) {
      w.ours->phyConfigDel("port");
      w.port = w.ours->phyConfigIs("port");
      w.port->refClockIs(77);
   };
   for (Case const& each : std::vector<Case>{
           {"an entry",
            [](World& w) {
               w.port->calibrationIs(channel, {2, 2, 2});
            }},
           {"a member", [](World& w) { w.ours->phyConfigIs("fresh")->refClockIs(3); }},
           {"a reference", [](World& w) { w.refs->phyConfigIs(w.ours->phyConfigIs("fresh")); }},
           {"a member in another's place", remake},
           {"a reference to it", [&](World& w) { remake(w), w.refs->phyConfigIs(w.port); }},
           {"deletions", [](World& w) { w.refs->phyConfigDel("port"), w.ours->phyConfigDel("port"); }},
           {"answers to what was refused",
            [](World& w) {
               for (char const* name : {"here", "here as well"})
                  EXPECT_ANY_THROW(w.theirs->phyConfigIs(name));
               EXPECT_ANY_THROW(w.theirs->phyConfigDel("port"));
            }},
        })
      for (bool const isCut : {false, true}) {
         SCOPED_TRACE(each.what + std::string(isCut ? ", told in a resend" : ", told as a backlog"));
         World w;
         w.port->calibrationIs(channel, {1, 1, 1});
         w.settle();
         auto const ofConfig = listening<Thrower<Cl10010ConfigDir, Failure>>(w.theirs, true);
         auto const ofRefs = listening<Thrower<Cl10010ConfigPtrDir, Failure>>(w.refsThere, true);
         auto const ofMirror = listening<Thrower<Cl10010Config, Failure>>(w.mirror, true);
         isCut ? w.cut() : w.stall();
         each.change(w);
         isCut ? w.reconnect() : w.resume();
         w.settle();
         tellings.push_back(ofConfig->told + ofRefs->told + ofMirror->told);
         EXPECT_EQ(w.left.auditErrors() + w.right.auditErrors(), 0u);
         w.expectSame();
         EXPECT_TRUE(w.right.isConnected());
      }
   return tellings;
}

TEST(Callers, MayThrowThroughWhateverIsApplied) {
   auto const tellings = throwThroughEverything<void>();
   EXPECT_EQ(throwThroughEverything<std::runtime_error>(), tellings);
   EXPECT_EQ(throwThroughEverything<NameInUseException>(), tellings)
      << "the log throws it too, and means something else";
}

TEST(Callers, AreToldOfEachRefusedWriteWhereTheyThrow) {
   World w;
   auto const thrower = listening<Thrower<Cl10010ConfigDir, std::runtime_error>>(w.theirs, true);
   w.left.demuxer().out()->markIs(1);
   for (char const* name : {"a", "b", "c"})
      EXPECT_ANY_THROW(w.theirs->phyConfigIs(name));
   std::size_t const told = thrower->told;
   w.right.unmount("config");
   EXPECT_EQ(thrower->told, told + 3);
}

TEST(Callers, MayReplaceAFunctionFromWithinItself) {
   World w;
   Watch const throws = on(w.port, Cl10010Config::Attr::refClock, [](Cl10010Config&) { throw 1; });
   // Replaces what runs, and says whether it is still there then.
   std::vector<bool> stays;
   auto const replacing = [&stays](std::function<void()> replace) {
      return [&stays, replace, life = std::make_shared<int>()](auto const&...) {
         auto const act = replace;
         auto& answers = stays;
         std::weak_ptr<int> const alive = life;
         act();
         answers.push_back(!alive.expired());
      };
   };
   w.right.onState(replacing([&] { w.right.onState({}); }));
   w.cut();
   w.left.onReport(replacing([&] { w.left.onReport({}); }));
   w.left.demuxer().report("something");
   exceptionHookIs(replacing([] { exceptionHookIs({}); }));
   w.port->refClockIs(1);
   EXPECT_EQ(stays, std::vector<bool>(3, true));
}

} // namespace
} // namespace Mox::NboAttrLog
