#include "containers/HashMap.h"
#include "containers/MapEntries.h"
#include "containers/RbTreeMap.h"
#include "support/Allocations.h"
#include "values/Coherent.h"

#include <gtest/gtest.h>

#include <algorithm>
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

template <class Key> Key keyOf(int number);
template <> CfpxHostChannel keyOf(int number) {
   return CfpxHostChannel{number - 300}; // both signs
}
template <> Name keyOf(int number) {
   return number == 0 ? Name() : Name("port-" + std::to_string(number));
}
template <> Crowded keyOf(int number) {
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
      std::size_t const sizeBefore = twin.size();
      if (random() % 100 < (filling ? 80u : 12u)) {
         auto const entry = Mox::make<Entry>(key, step);
         Ptr<Entry> const present(map.find(key));
         ASSERT_EQ(map.insert(entry), present);
         ASSERT_EQ(present != nullptr, twin.contains(key));
         twin[key] = step;
         ASSERT_EQ(entry->references(), 2u);
         ASSERT_EQ(map.version(), version + 1);
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
      ASSERT_LE(map.size(), sizeBefore + 1);

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

TYPED_TEST(Maps, RefuseWhatWouldBreakThem) {
   using Entry = typename TestFixture::EntryType;
   using Key = typename TypeParam::KeyType;
   TypeParam map, other;
   auto const first = Mox::make<Entry>(keyOf<Key>(1), 1);
   auto const second = Mox::make<Entry>(keyOf<Key>(1), 2);
   EXPECT_THROW(map.insert(nullptr), Mox::InternalException);
   map.insert(first);
   auto const version = map.version();
   EXPECT_EQ(map.insert(first), nullptr);
   EXPECT_EQ(map.remove(*second), nullptr) << "another entry with the same key is not this one";
   EXPECT_EQ(other.remove(*first), nullptr);
   EXPECT_EQ(map.version(), version);
   EXPECT_EQ(map.insert(second), first);
   EXPECT_EQ(first->references(), 1u);
   EXPECT_EQ(other.insert(first), nullptr) << "a replaced entry is free for another map";
}

/// An entry whose end looks at the map, as an entity's reactors may.
struct Curious : Mox::HashMapEntry<Curious, Crowded, int> {
   using Map = Mox::HashMap<Curious, Crowded, int>;
   Curious(int number, Map const* map) : HashMapEntry({number}, 0), map_(map) {}
   ~Curious() override {
      EXPECT_TRUE(map_ == nullptr || (map_->empty() && map_->find(fwkKey()) == nullptr && map_->first() == nullptr));
   }
   Map const* map_;
};

TEST(HashMap, ClearsALongChainWithoutRecursion) {
   Curious::Map map;
   int const count = 200000;
   for (int i = count; i > 0; --i) // each goes to the front of the one chain
      map.add(Mox::make<Curious>(i, i % 1000 == 0 ? &map : nullptr));
   EXPECT_EQ(map.size(), 200000u);
   map.clear();
   EXPECT_EQ(map.buckets(), 0u) << "memory comes back";
}

using ChannelHash = HashOf<CfpxHostChannel>;

CfpxHostChannel channel(int number) {
   return CfpxHostChannel{number};
}

std::vector<int> channels(ChannelHash const& map) {
   std::vector<int> result;
   for (auto [key, value] : map)
      result.push_back(static_cast<int>(key));
   return result;
}

TEST(HashMap, GrowsAndShrinksInTheOrderOfReversedBits) {
   ChannelHash map(4);
   EXPECT_EQ(map.buckets(), 0u);
   for (int i = 0; i < 4; ++i)
      map.add(Mox::make<HashEntry<CfpxHostChannel>>(channel(i), i));
   EXPECT_EQ(map.buckets(), 16u);
   EXPECT_EQ(channels(map), (std::vector<int>{0, 2, 1, 3}));
   EXPECT_TRUE(ChannelHash::IteratorConst(map, channel(1)).hasBookmark());
   EXPECT_FALSE(ChannelHash::IteratorConst(map).hasBookmark()) << "key 0 is a position without a bookmark";
   auto const& table = Mox::HashMapVTable<HashEntry<CfpxHostChannel>, CfpxHostChannel>::instance();
   EXPECT_EQ(table.hash(*map.find(channel(3))), 0xc0000000u);
   EXPECT_TRUE(table.keyLessThan(channel(-1), map.find(channel(0)), nullptr)) << "numbers compare with their sign";
   EXPECT_FALSE(table.keyLessThan(channel(-1), map.find(channel(0)), map.find(channel(1))));
   EXPECT_TRUE(table.keyLessThan(channel(9), nullptr, nullptr));
   for (int i = 4; i < 3000; ++i)
      map.add(Mox::make<HashEntry<CfpxHostChannel>>(channel(i), i));
   EXPECT_EQ(map.buckets(), 4096u);
   for (int i = 4; i < 3000; ++i)
      map.deleteMember(channel(i));
   EXPECT_LE(map.buckets(), 32u) << "memory comes back after a burst";
}

TEST(HashMap, HasChangedNothingWhenItCannotGrow) {
   ChannelHash map(1);
   auto const a = Mox::make<HashEntry<CfpxHostChannel>>(channel(1), 1);
   auto const b = Mox::make<HashEntry<CfpxHostChannel>>(channel(2), 2);
   auto const c = Mox::make<HashEntry<CfpxHostChannel>>(channel(3), 3);
   for (auto const& [entry, sizeBefore] : {std::pair(a, 0u), std::pair(c, 2u)}) {
      auto const version = map.version();
      EXPECT_TRUE(needsMemory([&, added = entry] { map.add(added); }));
      EXPECT_EQ(map.version(), version);
      EXPECT_EQ(map.size(), sizeBefore);
      EXPECT_EQ(map.auditErrors(), 0u);
      EXPECT_FALSE(entry->moxNext());
      map.add(entry);
      if (sizeBefore == 0)
         map.add(b);
   }
   EXPECT_EQ(channels(map), (std::vector<int>{2, 1, 3}));
}

TEST(MapsOfNames, AreAskedWithAnyTextWithoutMakingANameOfIt) {
   HashOf<Name> hash;
   TreeOf<Name> tree;
   hash.insert(Mox::make<HashEntry<Name>>("port-7", 7));
   tree.insert(Mox::make<TreeEntry<Name>>("port-7", 7));
   std::string const text = "port-7";
   std::size_t const before = allocations();
   EXPECT_TRUE(hash.contains("port-7") && hash.contains(text) && hash.contains(std::string_view(text)));
   EXPECT_TRUE(tree.contains("port-7") && tree.contains(text) && !tree.contains("port-8") && !hash.contains(""));
   EXPECT_EQ(allocations(), before);
   EXPECT_TRUE(hash.deleteMember("port-7") && tree.deleteMember("port-7"));
}

} // namespace
