// SPDX-License-Identifier: Apache-2.0
#include "kestrel/containers/BitSet.h"
#include "kestrel/containers/DynArray.h"
#include "kestrel/containers/HashMap.h"
#include "kestrel/containers/LinkedQueue.h"
#include "kestrel/containers/MapEntries.h"
#include "kestrel/containers/RbTreeMap.h"
#include "kestrel/containers/SnapshotStack.h"
#include "kestrel/values/Coherent.h"
#include "support/Allocations.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Mox::Name;
using Mox::Ptr;
using Xcvr::CfpxHostChannel;

template <class Key> struct TreeEntry : Mox::RbTreeMapEntry<TreeEntry<Key>, Key, int> {
   TreeEntry(Key k, int v) : Mox::RbTreeMapEntry<TreeEntry, Key, int>(k, v) {}
};
template <class Key> struct HashEntry : Mox::HashMapEntry<HashEntry<Key>, Key, int> {
   HashEntry(Key k, int v) : Mox::HashMapEntry<HashEntry, Key, int>(k, v) {}
};

/// All keys share one base hash, so that one chain holds them.
struct Crowded {
   int number = 0;
   friend auto operator<=>(Crowded const&, Crowded const&) = default;
};
std::uint32_t baseHash(Crowded const&) noexcept {
   return 0x12345678;
}

template <class Key> Key keyOf(int number) {
   if constexpr (std::same_as<Key, CfpxHostChannel>)
      return CfpxHostChannel{number - 300}; // both signs
   else if constexpr (std::same_as<Key, Name>)
      return number == 0 ? Name() : Name("port-" + std::to_string(number));
   else
      return {number};
}

template <class Key> using TreeOf = Mox::RbTreeMap<TreeEntry<Key>, Key, int>;
template <class Key> using HashOf = Mox::HashMap<HashEntry<Key>, Key, int>;
using Kinds =
   testing::Types<TreeOf<CfpxHostChannel>, TreeOf<Name>, HashOf<CfpxHostChannel>, HashOf<Name>, HashOf<Crowded>>;

/// The order in which a map must iterate.
template <class Map> struct Before {
   using Key = typename Map::KeyType;
   bool operator()(Key const& a, Key const& b) const {
      using Mox::baseHash;
      if constexpr (requires(Map const& map) { map.buckets(); })
         if (auto const x = Mox::bitReversed(baseHash(a)), y = Mox::bitReversed(baseHash(b)); x != y)
            return x < y;
      return a < b;
   }
};

// Iterators and bounds are judged with entities against a plain model elsewhere.

template <class Map> struct Maps : testing::Test {};
TYPED_TEST_SUITE(Maps, Kinds);

TYPED_TEST(Maps, FollowTheirTwinAndCountEveryChange) {
   using Entry = std::remove_cvref_t<decltype(*std::declval<TypeParam&>().first())>;
   using Key = typename TypeParam::KeyType;
   std::mt19937 random(42);
   TypeParam map, other;
   std::map<Key, int, Before<TypeParam>> twin;
   auto const stranger = Mox::make<Entry>(keyOf<Key>(7), 7);
   other.insert(stranger);
   for (int step = 0; step < 12000; ++step) {
      // Fills for a while, then empties, so that buckets are added and given back.
      bool const filling = step / 2000 % 2 == 0;
      Key const key = keyOf<Key>(static_cast<int>(random() % 600));
      auto const version = map.version();
      if (random() % 100 < (filling ? 80u : 12u)) {
         auto const entry = Mox::make<Entry>(key, step);
         Ptr<Entry> const present(map.find(key));
         ASSERT_EQ(map.insert(entry), present);
         ASSERT_EQ(present != nullptr, twin.contains(key));
         twin[key] = step;
         ASSERT_EQ(entry->references(), 2u);
         ASSERT_EQ(map.version(), version + 1);
         if (present) { // what has been replaced may come back
            ASSERT_EQ(map.insert(present), entry);
            ASSERT_EQ(map.insert(entry), present);
         }
      } else {
         auto const removed = random() % 2 != 0   ? map.deleteMember(key)
                              : map.contains(key) ? map.remove(*map.find(key))
                                                  : nullptr;
         ASSERT_EQ(twin.erase(key) == 1, removed != nullptr);
         ASSERT_EQ(map.version(), version + (removed ? 1 : 0));
         ASSERT_TRUE(!removed || !map.remove(*removed)) << "it is in no map";
      }
      ASSERT_FALSE(map.remove(*stranger)) << "it is in another map";
      if (step % 50 != 0)
         continue;
      ASSERT_EQ(map.auditErrors(), 0u);
      ASSERT_EQ(map.size(), twin.size());
      auto expected = twin.begin();
      for (auto [k, value] : map) {
         ASSERT_TRUE(k == expected->first && value == expected->second);
         ++expected;
      }
   }

   // An iterator stands in what is cleared, and the entry it stands at comes and goes once more.
   Ptr<Entry> const last = Mox::make<Entry>(keyOf<Key>(0), 0);
   map.insert(last);
   typename TypeParam::Iterator walker(map);
   auto const version = map.version();
   map.clear();
   EXPECT_NE(map.version(), version);
   map.insert(Mox::make<Entry>(walker.key(), 9));
   map.clear();
   walker.advance();
   EXPECT_FALSE(walker);
   EXPECT_EQ(last->references(), 1u);
   EXPECT_EQ(map.auditErrors() + map.size(), 0u);
}

TEST(HashMap, ClearsALongChainWithoutRecursion) {
   HashOf<Crowded> map;
   for (int i = 200000; i > 0; --i) // each goes to the front of the one chain
      map.add(Mox::make<HashEntry<Crowded>>(Crowded{i}, i));
   map.clear();
   EXPECT_EQ(map.size(), 0u);
}

TEST(HashMap, GivesMemoryBackAfterABurstAndNotToAndFro) {
   HashOf<CfpxHostChannel> map(1);
   for (int i = 0; i < 3000; ++i)
      map.add(Mox::make<HashEntry<CfpxHostChannel>>(CfpxHostChannel{i}, i));
   EXPECT_EQ(map.buckets(), 4096u);
   map.deleteMember(CfpxHostChannel{2999});
   EXPECT_EQ(map.buckets(), 4096u);
   for (int i = 4; i < 3000; ++i)
      map.deleteMember(CfpxHostChannel{i});
   EXPECT_LE(map.buckets(), 32u);
   map.clear();
   EXPECT_EQ(map.buckets(), 0u);
   map.add(Mox::make<HashEntry<CfpxHostChannel>>(CfpxHostChannel{1}, 1));
   EXPECT_EQ(map.buckets(), 2u) << "as it began";
}

TEST(MapsOfNames, AreAskedWithAnyTextWithoutMakingANameOfIt) {
   HashOf<Name> const hash;
   TreeOf<Name> const tree;
   std::size_t const before = allocations();
   EXPECT_FALSE(hash.contains("port-7") || tree.contains("port-7"));
   EXPECT_EQ(allocations(), before);
}

struct Counted : Mox::PtrInterface {};

TEST(Array, RefusesAKeyPastItsRangeInTheKeysWordsAndIsUnchanged) {
   using Lanes = Mox::DynArray<int, ClariPhyTypes::HostLane, 10>;
   Lanes lanes;
   ClariPhyTypes::HostLane beyond;
   beyond.value = 10;
   for (auto const& call : std::vector<std::function<void()>>{
           [&] { lanes.store(beyond, 1); },
           [&] { lanes.reset(beyond); },
           [&] { static_cast<void>(lanes[beyond]); },
           [&] { Lanes::Iterator(lanes, beyond); },
        })
      EXPECT_EQ(thrownBy<Mox::RangeException>(call), "HostLane::value < 0 or > 9 not allowed");
   EXPECT_EQ(lanes.size(), 0u);
}

TEST(SnapshotStack, AnEmptyBlockIsNotTakenForTheOneBelow) {
   // In a thread of its own, whose first block has 64 slots.
   std::thread([] {
      void** const low = Mox::SnapshotStack::push(40);
      Mox::SnapshotStack::pop(Mox::SnapshotStack::push(40));
      Mox::SnapshotStack::pop(low);
      void** const wide = Mox::SnapshotStack::push(100);
      EXPECT_NE(wide, low) << "100 slots where there are 64";
      Mox::SnapshotStack::pop(wide);
   }).join();
}

TEST(LinkedQueue, CopiesReferToTheSameObjectsInOrder) {
   auto const a = Mox::make<Counted>(), b = Mox::make<Counted>();
   Mox::LinkedQueue<Counted> queue, other;
   for (auto const& w : {a, b, a})
      queue.push(w);
   other.push(b); // goes
   other = queue;
   EXPECT_EQ(other.size(), 3u);
   EXPECT_TRUE(other.remove(*a));
   EXPECT_TRUE(other.pop() == b && other.pop() == a && !other.pop());
   queue.clear();
   EXPECT_EQ(a->references(), 1u);

   struct Nest : Mox::PtrInterface {
      Mox::LinkedQueue<Nest> inner;
      ~Nest() override { inner.clear(); }
   };
   Mox::LinkedQueue<Nest> nests;
   nests.push(Mox::make<Nest>());
   auto const& inner = (*nests.begin())->inner;
   (*nests.begin())->inner.push(Mox::make<Nest>());
   nests = inner;
   EXPECT_EQ(nests.size(), 1u) << "of what an element held that goes";
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
