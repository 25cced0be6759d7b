// SPDX-License-Identifier: Apache-2.0
// Lists and passes over them are judged with reactors against a plain model elsewhere; here is what those are too few for.

#include "containers/BitSet.h"
#include "containers/LinkedQueue.h"
#include "containers/ListRaw.h"
#include "containers/SnapshotIterator.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Mox::Ptr;

class Watcher : public Mox::PtrInterface {
public:
   explicit Watcher(std::size_t watcherId) : id(watcherId) {}
   Watcher* moxNextInList() const noexcept { return next_; }
   void moxNextInListIs(Watcher* next) noexcept { next_ = next; }
   std::size_t const id;

private:
   Watcher* next_ = nullptr;
};

TEST(Snapshot, NestedPassesOverALongListKeepTheirPlacesAndLeaveNothingBehind) {
   using List = Mox::ListRaw<Watcher>;
   List list;
   std::vector<Ptr<Watcher>> held;
   for (std::size_t i = 0; i < 5000; ++i) {
      held.push_back(Mox::make<Watcher>(i));
      list.pushBack(*held.back());
   }
   auto const pass = [&](auto const& self, int depth) -> void {
      for (Mox::SnapshotIterator<List> it(list); it; it.advance()) {
         if (depth > 0 && it->id % 2000 == 0)
            self(self, depth - 1);
         ASSERT_EQ(it->id, it.position()) << "a nested pass has overwritten this one's pointers";
         if (depth == 0 && it->id == 100)
            return;
      }
   };
   pass(pass, 2);
   for (auto const& w : held) {
      list.unlink(*w);
      ASSERT_EQ(w->references(), 1u);
   }
}

TEST(Snapshot, ALongerPassBehindNestedOnesHasRoomForAll) {
   using List = Mox::ListRaw<Watcher>;
   List list;
   std::vector<Ptr<Watcher>> held;
   auto const grow = [&](std::size_t to) {
      while (held.size() < to) {
         held.push_back(Mox::make<Watcher>(held.size()));
         list.pushBack(*held.back());
      }
   };
   for (std::size_t const length : {1000u, 3000u, 100000u}) {
      grow(length);
      for (Mox::SnapshotIterator<List> outer(list); outer; outer.advance()) {
         if (outer->id != 1)
            continue;
         for (Mox::SnapshotIterator<List> inner(list); inner; inner.advance())
            ASSERT_EQ(inner->id, inner.position());
      }
   }
   for (auto const& w : held)
      list.unlink(*w);
}

TEST(LinkedQueue, CopiesReferToTheSameObjectsInOrder) {
   auto const a = Mox::make<Watcher>(1u), b = Mox::make<Watcher>(2u);
   Mox::LinkedQueue<Watcher> queue, other;
   for (auto const& w : {a, b, a})
      queue.push(w);
   other.push(b); // goes
   other = queue;
   EXPECT_EQ(other.size(), 3u);
   EXPECT_TRUE(other.remove(*a));
   EXPECT_TRUE(other.pop() == b && other.pop() == a && !other.pop());
   queue.clear();
   EXPECT_EQ(a->references(), 1u);
}

TEST(BitSet, SetsFindsAndRefuses) {
   Mox::BitSet<130, unsigned char> bits;
   for (int const outside : {-1, 130})
      EXPECT_THROW(bits.set(outside), Mox::InternalException);
   std::vector<int> const positions{0, 7, 8, 63, 64, 80, 127, 129};
   for (int const p : positions)
      bits.set(p);
   std::vector<int> found;
   for (int p = bits.next(0); p != bits.size; p = bits.next(p + 1))
      found.push_back(p);
   EXPECT_EQ(found, positions);
}

} // namespace
