#include <gtest/gtest.h>

#include "Kivo/DenseMap.h"
#include "Kivo/SortedMap.h"
#include "support/DeathText.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// Every key in one probe run: inserts wrap round the slot array and every removal shifts a long
// run back.
struct OneHash {
   std::size_t operator()(std::uint32_t) const { return 42; }
};

// Random inserts, replacements and removals over `keys` keys against std::map as a model. After
// every step each key is looked up, and a walk of the map must meet each model entry once (and,
// for a map that keeps its keys sorted, in the model's order).
template <class Map, class K = typename Map::value_type::first_type>
void agreesWithAMap(K (*key)(std::uint32_t), std::uint32_t keys, int steps, bool inKeyOrder) {
   Map map;
   std::map<K, std::uint32_t> model;
   std::mt19937 rng(11);
   for (int step = 0; step < steps; ++step) {
      K const k = key(rng() % keys);
      if (rng() % 3 == 0) {
         auto const it = map.find(k);
         ASSERT_EQ(it != map.end(), model.count(k) == 1) << "step " << step;
         if (it != map.end()) {
            map.erase(it);
            model.erase(k);
         }
      } else {
         auto const v = static_cast<std::uint32_t>(step);
         auto const [it, added] = map.emplace(k, v);
         ASSERT_EQ(added, model.count(k) == 0) << "step " << step;
         it->second = v;
         model[k] = v;
      }
      ASSERT_EQ(map.size(), model.size()) << "step " << step;
      for (std::uint32_t i = 0; i < keys; ++i) {
         auto const it = map.find(key(i));
         auto const m = model.find(key(i));
         ASSERT_EQ(it == map.end(), m == model.end()) << "step " << step << " key " << i;
         if (it != map.end()) {
            ASSERT_EQ(it->second, m->second) << "step " << step << " key " << i;
         }
      }
      std::vector<std::pair<K, std::uint32_t>> walked(map.begin(), map.end());
      if (!inKeyOrder) {
         std::sort(walked.begin(), walked.end());
      }
      ASSERT_EQ(walked, (std::vector<std::pair<K, std::uint32_t>>(model.begin(), model.end())))
          << "step " << step;
   }
}

std::uint32_t number(std::uint32_t i) {
   return i * 1024;  // identical low bits: the map must not take its slot from them
}
std::string name(std::uint32_t i) {
   return "Ethernet" + std::to_string(i);
}

TEST(KivoDenseMap, IntegerKeysWhoseLowBitsAreAllEqualAgreeWithAMap) {
   agreesWithAMap<Kivo::DenseMap<std::uint32_t, std::uint32_t>>(&number, 300, 3000, false);
}

TEST(KivoDenseMap, StringKeysAgreeWithAMap) {
   agreesWithAMap<Kivo::DenseMap<std::string, std::uint32_t>>(&name, 300, 3000, false);
}

TEST(KivoDenseMap, KeysThatAllHashAlikeAgreeWithAMap) {
   agreesWithAMap<Kivo::DenseMap<std::uint32_t, std::uint32_t, OneHash>>(&number, 40, 3000, false);
}

// A filler indexes its entries when it goes away, colliding keys included, and the map then
// behaves as if they had been inserted one by one; a key given twice stops the process.
TEST(KivoDenseMap, EntriesAddedThroughAFillerAreIndexedWhenItGoesAway) {
   Kivo::DenseMap<std::uint32_t, std::uint32_t, OneHash> map;
   map.emplace(number(0), 0);
   {
      decltype(map)::Filler filler(map, 40);
      for (std::uint32_t i = 1; i <= 40; ++i) {
         filler.add(number(i), i);
      }
   }
   for (std::uint32_t i = 0; i <= 40; ++i) {
      ASSERT_NE(map.find(number(i)), map.end()) << i;
      EXPECT_EQ(map.find(number(i))->second, i);
   }
   EXPECT_EQ(map.find(number(41)), map.end());
   map.erase(number(7));
   EXPECT_EQ(map.find(number(7)), map.end());
   EXPECT_EQ(map.find(number(40))->second, 40u);
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(decltype(map)::Filler(map, 1).add(number(3), 3),
                testsupport::assertText("!slots_[s]"));
}

// String keys sort differently from their numbers ("Ethernet10" before "Ethernet2"), so the walk
// order is the map's own, not the order of insertion.
TEST(KivoSortedMap, IntegerAndStringKeysAgreeWithAMapAndWalkInKeyOrder) {
   agreesWithAMap<Kivo::SortedMap<std::uint32_t, std::uint32_t>>(&number, 60, 2000, true);
   agreesWithAMap<Kivo::SortedMap<std::string, std::uint32_t>>(&name, 60, 2000, true);
}

}  // namespace
