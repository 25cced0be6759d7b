// SPDX-License-Identifier: Apache-2.0
#include "containers/HashMap.h"
#include "containers/MapEntries.h"
#include "containers/RbTreeMap.h"
#include "support/Allocations.h"
#include "values/Coherent.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Mox::Name;
using Mox::Ptr;
using Xcvr::CfpxHostChannel;

int entriesAlive = 0;

template <class Key> struct TreeEntry : Mox::RbTreeMapEntry<TreeEntry<Key>, Key, int> {
   TreeEntry(Key k, int v) : Mox::RbTreeMapEntry<TreeEntry, Key, int>(k, v) { ++entriesAlive; }
   ~TreeEntry() override { --entriesAlive; }
};
template <class Key> struct HashEntry : Mox::HashMapEntry<HashEntry<Key>, Key, int> {
   HashEntry(Key k, int v) : Mox::HashMapEntry<HashEntry, Key, int>(k, v) { ++entriesAlive; }
   ~HashEntry() override { --entriesAlive; }
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

template <class Map> class Maps : public testing::Test {
protected:
   using EntryType = std::remove_cvref_t<decltype(*std::declval<Map&>().first())>;
   using TwinType = std::map<typename Map::KeyType, int, Before<Map>>;

   void TearDown() override { EXPECT_EQ(entriesAlive, 0); }

   void expectSame(Map& map, TwinType const& twin) {
      ASSERT_EQ(map.auditErrors(), 0u);
      ASSERT_EQ(map.size(), twin.size());
      auto expected = twin.begin();
      for (auto [key, value] : map) {
         ASSERT_TRUE(expected != twin.end() && key == expected->first && value == expected->second);
         ++expected;
      }
   }
};
TYPED_TEST_SUITE(Maps, Kinds);

TYPED_TEST(Maps, FollowTheirTwinAndSoDoIteratorsThroughEveryChange) {
   using Entry = typename TestFixture::EntryType;
   using Key = typename TypeParam::KeyType;
   std::mt19937 random(42);
   TypeParam map;
   typename TestFixture::TwinType twin;
   auto const entryKey = [](auto* e) { return e == nullptr ? std::optional<Key>() : std::optional<Key>(e->fwkKey()); };
   auto const twinKey = [&](auto it) {
      return it == twin.end() ? std::optional<Key>() : std::optional<Key>(it->first);
   };
   std::vector<typename TypeParam::Iterator> walkers(4);

   for (int step = 0; step < 12000; ++step) {
      // Fills for a while, then empties, so that buckets are added and given back while the walkers walk.
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
         if (removed) {
            ASSERT_EQ(removed->fwkKey(), key);
            ASSERT_EQ(map.remove(*removed), nullptr);
         }
      }
      Key const sought = keyOf<Key>(static_cast<int>(random() % 600));
      ASSERT_EQ(entryKey(map.lowerBound(sought)), twinKey(twin.lower_bound(sought)));
      ASSERT_EQ(entryKey(map.upperBound(sought)), twinKey(twin.upper_bound(sought)));
      auto& walker = walkers[random() % walkers.size()];
      if (!walker) {
         walker = typename TypeParam::Iterator(map, sought);
         ASSERT_EQ(entryKey(walker.entry().get()), twinKey(twin.lower_bound(sought)));
      } else {
         auto const expected = twinKey(twin.upper_bound(walker.key()));
         walker.advance();
         ASSERT_EQ(entryKey(walker.entry().get()), expected);
      }
      if (step % 50 == 0) {
         ASSERT_NO_FATAL_FAILURE(this->expectSame(map, twin));
      }
   }
   map.clear();
   twin.clear();
   ASSERT_NO_FATAL_FAILURE(this->expectSame(map, twin));
   for (auto const& walker : walkers)
      EXPECT_TRUE(!walker || walker.entry()->references() <= walkers.size()) << "only walkers hold what has left";
}

TYPED_TEST(Maps, AreEmptyForIteratorsThatStoodInThemWhenTheyWereCleared) {
   using Key = typename TypeParam::KeyType;
   TypeParam map;
   for (int n : {1, 2, 3})
      map.insert(Mox::make<typename TypeParam::EntryType>(keyOf<Key>(n), n));
   typename TypeParam::Iterator it(map);
   map.clear();
   map.insert(Mox::make<typename TypeParam::EntryType>(it.key(), 9)); // the one it stands at, anew
   auto const version = map.version();
   map.clear();
   EXPECT_NE(map.version(), version);
   it.advance();
   EXPECT_FALSE(it);
}

TYPED_TEST(Maps, RemoveNoEntryOfAnother) {
   TypeParam a, b;
   auto const key = keyOf<typename TypeParam::KeyType>(1);
   auto const inA = Mox::make<typename TypeParam::EntryType>(key, 1),
              inB = Mox::make<typename TypeParam::EntryType>(key, 2);
   a.insert(inA);
   EXPECT_EQ(a.remove(*inB), nullptr) << "in no map";
   b.insert(inB);
   EXPECT_EQ(a.remove(*inB), nullptr);
   EXPECT_TRUE(a.find(key) == inA.get() && b.find(key) == inB.get());
   EXPECT_EQ(a.remove(*inA), inA);
}

TEST(HashMap, ClearsALongChainWithoutRecursion) {
   HashOf<Crowded> map;
   for (int i = 200000; i > 0; --i) // each goes to the front of the one chain
      map.add(Mox::make<HashEntry<Crowded>>(Crowded{i}, i));
   map.clear();
   EXPECT_EQ(map.buckets(), 0u) << "memory comes back";
}

TEST(HashMap, GrowsAndShrinksAndHasChangedNothingWhenItCannot) {
   using Entry = HashEntry<CfpxHostChannel>;
   HashOf<CfpxHostChannel> map(1);
   unsigned refusals = 0;
   for (int i = 0; i < 3000; ++i) {
      auto const entry = Mox::make<Entry>(CfpxHostChannel{i}, i);
      auto const version = map.version();
      if (!needsMemory([&] { map.add(entry); }))
         continue;
      ++refusals;
      EXPECT_TRUE(map.version() == version && map.auditErrors() == 0 && !entry->moxNext());
      map.add(entry);
   }
   EXPECT_GT(refusals, 8u);
   EXPECT_EQ(map.buckets(), 4096u);
   map.deleteMember(CfpxHostChannel{2999});
   EXPECT_EQ(map.buckets(), 4096u) << "not to and fro";
   for (int i = 4; i < 3000; ++i)
      map.deleteMember(CfpxHostChannel{i});
   EXPECT_LE(map.buckets(), 32u) << "memory comes back after a burst";
   map.clear();
   map.add(Mox::make<Entry>(CfpxHostChannel{1}, 1));
   EXPECT_EQ(map.buckets(), 2u) << "as it began";
}

TEST(MapsOfNames, AreAskedWithAnyTextWithoutMakingANameOfIt) {
   HashOf<Name> hash;
   TreeOf<Name> tree;
   hash.insert(Mox::make<HashEntry<Name>>("port-7", 7));
   tree.insert(Mox::make<TreeEntry<Name>>("port-7", 7));
   std::size_t const before = allocations();
   EXPECT_TRUE(hash.contains("port-7") && tree.contains(std::string_view("port-7")) && !tree.contains("port-8"));
   EXPECT_EQ(allocations(), before);
}

} // namespace
