// The small-block pool against a model: blocks of every size class, and of sizes it leaves to
// the global allocator, made and dropped in random order across many chunks.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "Kivo/Pool.h"

using Kivo::Pool;

namespace {

struct Block {
   std::size_t size;
   unsigned char fill;
};

// Octets the pool counts for a block of `size`.
std::size_t counted(std::size_t size) {
   return Pool::pooled(size) ? Pool::blockSize(size) : 0;
}

TEST(KivoPool, BlocksKeepTheirOctetsAndAreCountedWhileTheyLive) {
   std::size_t const before = Pool::storage().liveBytes;
   std::map<unsigned char*, Block> live;
   std::size_t liveBytes = 0;
   std::mt19937 rng(11);
   for (int step = 0; step < 20000; ++step) {
      if (!live.empty() && rng() % 5 < 2) {
         auto it = live.begin();
         std::advance(it, static_cast<long>(rng() % live.size()));
         for (std::size_t i = 0; i < it->second.size; ++i) {
            ASSERT_EQ(it->first[i], it->second.fill)
                << "block of " << it->second.size << " octets overwritten, step " << step;
         }
         Pool::free(it->first, it->second.size);
         liveBytes -= counted(it->second.size);
         live.erase(it);
      } else {
         // Up to 600 octets: every size class, its edges, and sizes beyond the pool.
         std::size_t const size = 1 + rng() % 600;
         auto* const p = static_cast<unsigned char*>(Pool::alloc(size));
         ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 8, 0u) << "size " << size;
         auto const fill = static_cast<unsigned char>(step);
         std::memset(p, fill, size);
         ASSERT_TRUE(live.emplace(p, Block{size, fill}).second) << "block handed out twice";
         liveBytes += counted(size);
      }
      ASSERT_EQ(Pool::storage().liveBytes - before, liveBytes) << "step " << step;
   }
   for (auto const& [p, b] : live) {
      Pool::free(p, b.size);
   }
   EXPECT_EQ(Pool::storage().liveBytes, before);
   EXPECT_GE(Pool::storage().chunkBytes, Pool::storage().liveBytes);
}

#ifdef KIVO_THREAD_SAFE_PTR
// Objects are made on one thread and dropped on another when references are handed over.
TEST(KivoPool, TwoThreadsMakingAndDroppingLeaveTheCountWhereItWas) {
   std::size_t const before = Pool::storage().liveBytes;
   auto churn = [](unsigned seed) {
      std::mt19937 rng(seed);
      std::vector<std::pair<void*, std::size_t>> mine;
      for (int i = 0; i < 100000; ++i) {
         if (!mine.empty() && rng() % 2) {
            Pool::free(mine.back().first, mine.back().second);
            mine.pop_back();
         } else {
            std::size_t const size = 8 + rng() % 64;
            mine.emplace_back(Pool::alloc(size), size);
            std::memset(mine.back().first, 0xab, size);
         }
      }
      for (auto const& [p, n] : mine) {
         Pool::free(p, n);
      }
   };
   std::thread t1(churn, 1u), t2(churn, 2u);
   t1.join(), t2.join();
   EXPECT_EQ(Pool::storage().liveBytes, before);
}
#endif

}  // namespace
