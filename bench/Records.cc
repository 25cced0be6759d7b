// SPDX-License-Identifier: Apache-2.0
// What does a change cost that another process mirrors, on its way out and on its way in? Beside it: a bare struct of 32 bytes,
// copied into a buffer of 64 KiB, and taken from one and applied to a table with one virtual call.

#include "Paired.h"
#include "Watchers.h"

#include "kestrel/attrlog/LocalLink.h"
#include "kestrel/entities/Cl10010ConfigDir.h"

#include <cstring>
#include <vector>

namespace {

using Hardware::ClariPhy::Cl10010ConfigDir;

/// Few enough that no buffer comes near its limit: each change is written as a record at once and leaves no mark, and
/// the records are carried off together.
constexpr std::size_t batch = 1000;

struct Bare {
   std::uint64_t entity = 0;
   std::uint32_t attribute = 0;
   std::uint32_t value = 0;
   std::uint64_t number = 0;
   std::uint64_t reserved = 0;
};
static_assert(sizeof(Bare) == 32);

struct Row {
   std::uint32_t value = 0;
   std::unique_ptr<bench::Observer> observer;
};

void carryOff(Mox::LinkEnd& end) {
   for (auto bytes = end.bytesToSend(); !bytes.empty(); bytes = end.bytesToSend())
      end.bytesSent(bytes.size());
}

/// Runs `one(count)` until n are done, a batch at a time, and `between()` after each.
void inBatches(std::size_t n, auto&& one, auto&& between) {
   while (n != 0) {
      std::size_t const count = std::min(n, batch);
      one(count);
      between();
      n -= count;
   }
}

} // namespace

int main(int argc, char** argv) {
   bench::Paired paired(argc, argv);
   auto const ours = Mox::make<Cl10010ConfigDir>("config");
   auto const config = ours->phyConfigIs("one");
   Mox::LocalLink link;
   link.left().exportRoot(ours);
   auto const theirs = link.right().mount<Cl10010ConfigDir>("config");
   link.settle();
   auto const mirror = theirs->phyConfig("one");
   if (!mirror) {
      std::fprintf(stderr, "the mirror is missing\n");
      return 1;
   }
   auto const reactor = bench::makeReactor();
   reactor->notifierIs(Mox::Ptr<Mox::PtrInterface const>(mirror));
   reactor->isRegisteredNotifieeIs(true);

   // What arrives: a batch of records, all of them changes, written by the owner.
   std::vector<std::uint8_t> arriving;
   for (std::uint32_t i = 0; i < batch; ++i)
      config->refClockIs(i + 1);
   for (auto bytes = link.left().bytesToSend(); !bytes.empty(); bytes = link.left().bytesToSend()) {
      arriving.insert(arriving.end(), bytes.begin(), bytes.end());
      link.left().bytesSent(bytes.size());
   }

   std::uint32_t value = 0;
   std::uint32_t plain = 0;
   std::vector<std::uint8_t> buffer(64 * 1024);
   paired.ask(
      "RecordOut", 0,
      [&](std::size_t n) {
         inBatches(
            n,
            [&](std::size_t count) {
               for (std::size_t i = 0; i < count; ++i)
                  config->refClockIs(--value);
            },
            [&] { carryOff(link.left()); });
      },
      [&](std::size_t n) {
         inBatches(
            n,
            [&](std::size_t count) {
               std::uint8_t* at = buffer.data();
               for (std::size_t i = 0; i < count; ++i) {
                  if (std::uint32_t const v = --value; plain != v) {
                     plain = v;
                     Bare const bare{1, 388, v, i, 0};
                     std::memcpy(at, &bare, sizeof bare);
                     at += sizeof bare;
                  }
                  bench::forget();
               }
            },
            [] {});
      });

   std::vector<Row> table(128);
   for (Row& row : table)
      row.observer = bench::makeObserver();
   for (std::size_t i = 0; i < batch; ++i) {
      Bare const bare{7, 88, static_cast<std::uint32_t>(i), i, 0};
      std::memcpy(buffer.data() + i * sizeof bare, &bare, sizeof bare);
   }
   paired.ask(
      "RecordIn", 0,
      [&](std::size_t n) {
         // Runs whole batches only; the figure is that of one record all the same.
         for (std::size_t done = 0; done < n; done += batch) {
            link.right().bytesArrived(arriving);
            carryOff(link.right());
         }
      },
      [&](std::size_t n) {
         for (std::size_t done = 0; done < n; done += batch)
            for (std::size_t i = 0; i < batch; ++i) {
               Bare bare;
               std::memcpy(&bare, buffer.data() + i * sizeof bare, sizeof bare);
               Row& row = table[bare.attribute % table.size()];
               if (row.value != bare.value) {
                  row.value = bare.value;
                  row.observer->onValue(bare.value);
               }
               bench::forget();
            }
      });
   // The count is checked only where all questions were asked: a program that was asked one side alone may have sent
   // nothing.
   if (!link.right().failure().empty() || (argc == 1 && link.right().demuxer().applied() < batch)) {
      std::fprintf(stderr, "records were not applied: %s\n", link.right().failure().c_str());
      return 1;
   }
}
