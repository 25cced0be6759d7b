#include "containers/BitSet.h"
#include "containers/LinkedQueue.h"
#include "containers/ListRaw.h"
#include "containers/SnapshotIterator.h"
#include "support/Allocations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

namespace {

using Mox::Ptr;

class Watcher : public Mox::PtrInterface {
public:
   explicit Watcher(int watcherId = 0) : id(watcherId) { ++alive; }
   ~Watcher() override { --alive; }
   Watcher* moxNextInList() const noexcept { return next_; }
   void moxNextInListIs(Watcher* next) noexcept { next_ = next; }

   int const id;
   static inline int alive = 0;

private:
   Watcher* next_ = nullptr;
};

using List = Mox::ListRaw<Watcher>;
using Snapshot = Mox::SnapshotIterator<List>;

std::vector<int> ids(List const& list) {
   std::vector<int> result;
   for (Watcher const& w : list)
      result.push_back(w.id);
   return result;
}

/// A list of `count` watchers, 0 upward, which it takes off again.
struct Fixture {
   explicit Fixture(int count) {
      for (int i = 0; i < count; ++i) {
         held.push_back(Mox::make<Watcher>(i));
         list.pushBack(*held.back());
      }
   }
   ~Fixture() {
      while (Watcher* const w = list.first())
         list.unlink(*w);
   }
   /// Takes the watcher off the list and drops it.
   void drop(int id) {
      list.unlink(*held[static_cast<std::size_t>(id)]);
      held[static_cast<std::size_t>(id)] = nullptr;
   }

   List list;
   std::vector<Ptr<Watcher>> held;
};

TEST(ListRaw, FollowsAVectorThroughRandomChanges) {
   std::mt19937 random(7);
   Fixture fixture(0);
   std::vector<int> twin;
   for (int i = 0; i < 12; ++i)
      fixture.held.push_back(Mox::make<Watcher>(i));
   for (int step = 0; step < 4000; ++step) {
      Watcher& w = *fixture.held[random() % 12];
      auto const at = std::find(twin.begin(), twin.end(), w.id);
      auto const version = fixture.list.version();
      if (at != twin.end()) {
         EXPECT_THROW(fixture.list.pushBack(w), Mox::InternalException);
         EXPECT_THROW(fixture.list.pushFront(w), Mox::InternalException);
         EXPECT_EQ(fixture.list.version(), version);
         EXPECT_TRUE(fixture.list.contains(w));
         EXPECT_TRUE(fixture.list.unlink(w));
         twin.erase(at);
      } else if (random() % 2 != 0) {
         EXPECT_FALSE(fixture.list.unlink(w));
         fixture.list.pushFront(w);
         twin.insert(twin.begin(), w.id);
      } else {
         fixture.list.pushBack(w);
         twin.push_back(w.id);
      }
      ASSERT_EQ(fixture.list.version(), version + 1);
      ASSERT_EQ(ids(fixture.list), twin);
      ASSERT_EQ(fixture.list.size(), twin.size());
      ASSERT_EQ(fixture.list.last() == nullptr ? -1 : fixture.list.last()->id, twin.empty() ? -1 : twin.back());
   }
}

class SnapshotOfSize : public testing::TestWithParam<int> {
protected:
   void TearDown() override { EXPECT_EQ(Watcher::alive, 0); }
};

TEST_P(SnapshotOfSize, VisitsWhoWasThereAndIsStillHeld) {
   int const count = GetParam();
   Ptr<Watcher> const late = Mox::make<Watcher>(1000);
   Fixture fixture(count);
   std::vector<int> visited;
   Ptr<Watcher> takenOffButHeld;
   for (Snapshot it(fixture.list); it; it.advance()) {
      visited.push_back(it->id);
      if (it.position() == 0) {
         fixture.list.pushFront(*late);
         fixture.drop(0); // itself: it lives until it has been passed
         EXPECT_EQ(it->references(), 1u);
         if (count > 4) {
            fixture.drop(1); // the next two, and the last
            fixture.drop(2);
            fixture.drop(count - 1);
            takenOffButHeld = fixture.held[3];
            fixture.drop(3);
         }
      }
   }
   std::vector<int> expected{0};
   for (int i = count > 4 ? 3 : 1; i < (count > 4 ? count - 1 : count); ++i)
      expected.push_back(i);
   EXPECT_EQ(visited, expected);
   EXPECT_EQ(Watcher::alive, count > 4 ? count - 3 : count);
}

TEST_P(SnapshotOfSize, LetsGoOfEverythingWhenAnExceptionPasses) {
   Fixture fixture(GetParam());
   auto const pass = [&fixture](int throwAt) {
      for (Snapshot it(fixture.list); it; it.advance()) {
         for (Snapshot nested(fixture.list); nested; nested.advance())
            if (nested->id == throwAt && it->id == throwAt)
               throw std::runtime_error("watcher");
      }
   };
   for (int const throwAt : {0, GetParam() / 2, GetParam() - 1}) {
      EXPECT_THROW(pass(throwAt), std::runtime_error);
      for (auto const& w : fixture.held)
         ASSERT_EQ(w->references(), 1u);
   }
}

TEST_P(SnapshotOfSize, NestedPassesAllocateNothingInTheLongRun) {
   Fixture fixture(GetParam());
   long sum = 0;
   auto const nestedPasses = [&](auto const& self, int depth) -> void {
      for (Snapshot it(fixture.list); it; it.advance()) {
         sum += it->id;
         if (depth > 0 && it->id % 32 == 0)
            self(self, depth - 1);
         ASSERT_EQ(it->id, static_cast<int>(it.position())) << "a nested pass has overwritten this one's pointers";
      }
   };
   nestedPasses(nestedPasses, 3);
   std::size_t const before = allocations();
   nestedPasses(nestedPasses, 3);
   EXPECT_EQ(allocations(), before);
   EXPECT_EQ(sum % 2, 0) << "both rounds visit the same";
   if (GetParam() > 16) {
      auto const biggest = std::make_unique<Fixture>(5000);
      EXPECT_TRUE(needsMemory([&] { Snapshot const it(biggest->list); }));
      EXPECT_EQ(biggest->held[0]->references(), 1u);
   }
}

INSTANTIATE_TEST_SUITE_P(Lists, SnapshotOfSize, testing::Values(1, 2, 4, 16, 17, 100));

TEST(Snapshot, OfAnEmptyListIsOver) {
   EXPECT_FALSE(Snapshot(List()));
}

TEST(LinkedQueue, CopiesReferToTheSameObjectsInOrder) {
   auto const a = Mox::make<Watcher>(1);
   auto const b = Mox::make<Watcher>(2);
   Mox::LinkedQueue<Watcher> queue;
   Mox::LinkedQueue<Watcher> other;
   for (auto const& w : {a, b, a})
      queue.push(w);
   other.push(b);
   other = queue;
   other = *&other;
   std::vector<int> seen;
   for (auto const& w : other)
      seen.push_back(w->id);
   EXPECT_EQ(seen, (std::vector<int>{1, 2, 1}));
   EXPECT_EQ(a->references(), 5u);
   EXPECT_TRUE(other.remove(*a));
   EXPECT_EQ(other.pop(), b);
   EXPECT_EQ(other.pop(), a);
   EXPECT_FALSE(other.pop());
   EXPECT_FALSE(other.remove(*a));
   queue.clear();
   EXPECT_EQ(a->references(), 1u);
}

TEST(BitSet, SetsFindsAndRefuses) {
   static_assert(sizeof(Mox::BitSet<29, unsigned>) == sizeof(unsigned));
   Mox::BitSet<29, unsigned> small;
   for (int const outside : {-1, 29, 32}) {
      try {
         small.set(outside);
         ADD_FAILURE() << outside;
      } catch (Mox::InternalException const& e) {
         EXPECT_STREQ(e.what(), "pos>=0 && pos<bits");
      }
      EXPECT_THROW(small.reset(outside), Mox::InternalException);
   }
   EXPECT_TRUE(small.none());
   Mox::BitSet<130, unsigned char> wide;
   std::vector<int> const positions{0, 7, 8, 63, 64, 127, 129};
   for (int const p : positions)
      wide.set(p);
   std::vector<int> found;
   for (int p = wide.next(0); p != wide.size; p = wide.next(p + 1))
      found.push_back(p);
   EXPECT_EQ(found, positions);
   wide.reset(63);
   EXPECT_FALSE(wide.test(63));
   EXPECT_TRUE(wide.test(64));
   EXPECT_EQ(wide.count(), 6);
}

} // namespace
