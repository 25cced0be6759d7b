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
      ASSERT_EQ(fixture.list.contains(w), at != twin.end());
      if (at != twin.end()) {
         ASSERT_THROW(fixture.list.pushBack(w), Mox::InternalException);
         ASSERT_THROW(fixture.list.pushFront(w), Mox::InternalException);
         ASSERT_TRUE(fixture.list.unlink(w));
         twin.erase(at);
      } else if (random() % 2 != 0) {
         ASSERT_FALSE(fixture.list.unlink(w));
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

// Up to sixteen elements live in the iterator, others on a stack of the thread.
class SnapshotOfSize : public testing::TestWithParam<int> {
protected:
   void TearDown() override { EXPECT_EQ(Watcher::alive, 0); }
};

TEST_P(SnapshotOfSize, VisitsWhoWasThereAndIsStillHeld) {
   int const count = GetParam();
   Ptr<Watcher> const late = Mox::make<Watcher>(1000); // before the list, which it is on at the end
   Fixture fixture(count);
   std::vector<int> visited;
   for (Snapshot it(fixture.list); it; it.advance()) {
      visited.push_back(it->id);
      if (it.position() == 0) {
         fixture.list.pushFront(*late);
         for (int const gone : {0, 1, 2, count - 1}) // itself too: it lives until it has been passed
            if (gone < count && fixture.held[static_cast<std::size_t>(gone)])
               fixture.drop(gone);
         EXPECT_EQ(it->references(), 1u);
      }
   }
   std::vector<int> expected{0};
   for (int i = 3; i < count - 1; ++i)
      expected.push_back(i);
   EXPECT_EQ(visited, expected);
}

TEST_P(SnapshotOfSize, NestedPassesShareOneStackAndLeaveNothingBehind) {
   Fixture fixture(GetParam());
   auto const passes = [&](auto const& self, int depth, int throwAt) -> void {
      for (Snapshot it(fixture.list); it; it.advance()) {
         if (depth > 0 && it->id % 32 == 0)
            self(self, depth - 1, throwAt);
         ASSERT_EQ(it->id, static_cast<int>(it.position())) << "a nested pass has overwritten this one's pointers";
         if (depth == 0 && it->id == throwAt)
            throw std::runtime_error("watcher");
      }
   };
   passes(passes, 3, -1);
   std::size_t const before = allocations();
   passes(passes, 3, -1);
   EXPECT_EQ(allocations(), before);
   EXPECT_THROW(passes(passes, 3, GetParam() - 1), std::runtime_error);
   for (auto const& w : fixture.held)
      ASSERT_EQ(w->references(), 1u);
   EXPECT_FALSE(Snapshot(List()));
   if (GetParam() > 16) {
      auto const biggest = std::make_unique<Fixture>(5000);
      EXPECT_TRUE(needsMemory([&] { Snapshot const it(biggest->list); }));
      EXPECT_EQ(biggest->held[0]->references(), 1u);
   }
}

INSTANTIATE_TEST_SUITE_P(Lists, SnapshotOfSize, testing::Values(1, 5, 16, 17, 100));

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
      EXPECT_THROW(small.set(outside), Mox::InternalException);
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
