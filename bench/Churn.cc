// SPDX-License-Identifier: Apache-2.0
// Does memory grow with what has happened, or only with what there is? Each churn is printed at 10, 50 and 100 % of its length: the
// sizes of the end that it burdens, and what the process has allocated since the churn began, in KiB. Flat is right, apart from
// what the entities themselves take where they are deleted for good.
//
//    bench-churn                        all churns
//    bench-churn CHURN                  one of them

#include "Leaves.h"

#include "kestrel/core/Exceptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>

namespace {

using bench::Leaf, bench::World, bench::nameOf;

/// Bytes that are allocated, in small pieces and in large ones.
std::size_t allocated() {
   auto const info = mallinfo2();
   return info.uordblks + info.hblkhd;
}

using Footprint = Mox::NboAttrLog::Demuxer::Footprint;
constexpr struct {
   char const* title;
   std::size_t Footprint::*term;
} terms[] = {{"announced", &Footprint::announced},
             {"mirrored", &Footprint::mirrored},
             {"askedAnew", &Footprint::askedAnew},
             {"waiting", &Footprint::waiting},
             {"flows", &Footprint::flows},
             {"dirtyKeys", &Footprint::dirtyKeys},
             {"parked", &Footprint::parked},
             {"untold", &Footprint::untold},
             {"successors", &Footprint::successors},
             {"retired", &Footprint::retired},
             {"reidentified", &Footprint::reidentified},
             {"retirements", &Footprint::retirements},
             {"bufferBytes", &Footprint::bufferBytes},
             {"slots", &Footprint::slots}};

/// Calls `step(i)` for i from 0 to n - 1, and prints a row three times on the way.
template <class Step> void churn(char const* name, std::size_t n, Mox::LinkEnd& burdened, Step step) {
   std::size_t const before = allocated();
   for (std::size_t i = 0; i != n; ++i) {
      step(i);
      std::size_t const done = i + 1;
      if (done != n / 10 && done != n / 2 && done != n)
         continue;
      auto const f = burdened.demuxer().footprint();
      std::printf("%-18s %8zu", name, done);
      for (auto const& [title, term] : terms)
         std::printf(" %12zu", f.*term);
      auto const more = static_cast<long long>(allocated()) - static_cast<long long>(before);
      std::printf(" %9lld\n", more / 1024);
      std::fflush(stdout);
   }
}

/// A reference to a mirror that waits for an owner who has taken its root back, beside a live peer.
void togglesToWaiting(char const* name) {
   World w(1);
   auto const pointing = Mox::make<Leaf>("pointing");
   w.link.right().exportRoot(pointing);
   auto const mirror = w.link.left().mount<Leaf>("pointing");
   w.link.settle();
   auto const target = w.theirs->leaf(nameOf(0));
   w.link.cut();
   w.link.left().exportDel(w.ours);
   w.link.reconnect();
   w.link.settle();
   churn(name, 1000000, w.link.right(), [&](std::size_t i) {
      pointing->otherIs(i % 2 == 0 ? target : nullptr);
      w.link.settle();
   });
}

/// Members that come and go, 20,000 at once, at the mirror's end and at the owner's.
void membersComeAndGo(char const* name) {
   for (bool const atMirror : {true, false}) {
      World w(0);
      churn(name, 10, atMirror ? w.link.right() : w.link.left(), [&](std::size_t) {
         for (std::size_t i = 0; i != 20000; ++i)
            w.ours->leafIs(nameOf(i));
         w.link.settle();
         for (std::size_t i = 0; i != 20000; ++i)
            w.ours->leafDel(nameOf(i));
         w.link.settle();
      });
   }
}

/// A root is exported and withdrawn again, while the peer reads nothing.
void exportsUnread(char const* name) {
   World w(1);
   auto const other = Mox::make<Leaf>("other");
   churn(name, 100000, w.link.left(), [&](std::size_t) {
      w.link.left().exportRoot(other);
      w.link.left().exportDel(other);
   });
}

void mountsUnread(char const* name) {
   World w(1);
   churn(name, 100000, w.link.right(), [&](std::size_t) {
      auto const mirror = w.link.right().mount<Leaf>("other");
      w.link.right().unmount("other");
   });
}

/// Refused writes that the owner is asked about: values, and members that come and go. The owner reads nothing.
void refusalsUnread(char const* name) {
   World w(1);
   auto const target = w.theirs->leaf(nameOf(0));
   auto const refused = [](auto write) {
      try {
         write();
      } catch (Mox::Exception const&) {
      }
   };
   churn(name, 20000, w.link.right(), [&](std::size_t i) {
      refused([&] { target->numberIs(static_cast<std::uint32_t>(i) + 2); });
      refused([&] { w.theirs->leafDel(nameOf(0)); });
      refused([&] { w.theirs->leafIs(nameOf(i + 1)); });
   });
}

void retirementsUnread(char const* name) {
   World w(200000);
   churn(name, 200000, w.link.left(), [&](std::size_t i) { w.ours->leafDel(nameOf(i)); });
}

struct Churn {
   char const* name;
   void (*run)(char const*);
} const churns[] = {{"TogglesToWaiting", togglesToWaiting}, {"MembersComeAndGo", membersComeAndGo},
                    {"ExportsUnread", exportsUnread},       {"MountsUnread", mountsUnread},
                    {"RefusalsUnread", refusalsUnread},     {"RetirementsUnread", retirementsUnread}};

} // namespace

int main(int argc, char** argv) {
   std::printf("%-18s %8s", "", "done");
   for (auto const& [title, term] : terms)
      std::printf(" %12s", title);
   std::printf(" %9s\n", "KiB");
   for (Churn const& c : churns)
      if (argc == 1 || std::strcmp(argv[1], c.name) == 0)
         c.run(c.name);
}
