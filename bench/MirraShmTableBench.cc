// The shared-memory statistics table at the agent's scale: 1,000 collectors with entries the
// size of collector statistics.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "Mirra/ShmTable.h"

namespace {

struct Key {
   std::uint32_t id = 0;
   char name[276] = {};
   bool operator==(Key const& o) const {
      return id == o.id && std::strncmp(name, o.name, sizeof(name)) == 0;
   }
};
static_assert(sizeof(Key) == 280);

struct KeyHash {
   std::uint32_t operator()(Key const& k) const { return k.id * 0x85ebca6bu; }
};

struct Value {
   std::uint64_t counters[112] = {};
   std::uint32_t id = 0;
};
static_assert(sizeof(Value) == 904);

using Writer = Mirra::ShmTableWriter<Key, Value, KeyHash>;
using Reader = Mirra::ShmTableReader<Key, Value, KeyHash>;

constexpr std::uint32_t kEntries = 1000;

Key key(std::uint32_t id) {
   Key k;
   k.id = id;
   std::snprintf(k.name, sizeof(k.name), "tracker-%u/exporter/collector-%u", id % 7, id);
   return k;
}

std::string tableName(char const* what) {
   return "/ipfix-stats-bench-" + std::to_string(getpid()) + "-" + what;
}

Writer& fill(Writer& w, Key* keys) {
   Value v;
   for (std::uint32_t id = 0; id < kEntries; ++id) {
      keys[id] = key(id);
      v.id = id;
      w.upsert(keys[id], v);
   }
   return w;
}

// The agent's write on every message sent: replace one collector's entry.
void BM_MirraShmTableUpsert(benchmark::State& state) {
   static Key keys[kEntries];
   Writer w(tableName("upsert"), kEntries);
   fill(w, keys);
   Value v;
   std::uint32_t i = 0;
   for (auto _ : state) {
      v.counters[i % 112] += 1;
      benchmark::DoNotOptimize(w.upsert(keys[i], v));
      i = i + 1 == kEntries ? 0 : i + 1;
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MirraShmTableUpsert);

// The same with a reader asleep in waitForChange, so every write also wakes it.
void BM_MirraShmTableUpsertWithSleepingReader(benchmark::State& state) {
   static Key keys[kEntries];
   Writer w(tableName("upsert-woken"), kEntries);
   fill(w, keys);
   pid_t const child = fork();
   if (child == 0) {
      Reader r(w.baseName());
      for (std::uint64_t g = r.generation();;) {
         g = r.waitForChange(g, 1).value_or(g);
      }
   }
   usleep(100'000);
   Value v;
   std::uint32_t i = 0;
   for (auto _ : state) {
      v.counters[i % 112] += 1;
      benchmark::DoNotOptimize(w.upsert(keys[i], v));
      i = i + 1 == kEntries ? 0 : i + 1;
   }
   state.SetItemsProcessed(state.iterations());
   kill(child, SIGKILL);
   waitpid(child, nullptr, 0);
}
BENCHMARK(BM_MirraShmTableUpsertWithSleepingReader);

// A show command: read every entry of the table.
void BM_MirraShmTableReaderScan(benchmark::State& state) {
   static Key keys[kEntries];
   Writer w(tableName("scan"), kEntries);
   fill(w, keys);
   Reader r(w.baseName());
   for (auto _ : state) {
      std::uint64_t sum = 0;
      r.forEach([&](Key const&, Value const& v) { sum += v.id; });
      benchmark::DoNotOptimize(sum);
   }
   state.SetItemsProcessed(state.iterations() * kEntries);
}
BENCHMARK(BM_MirraShmTableReaderScan);

void BM_MirraShmTableReaderGet(benchmark::State& state) {
   static Key keys[kEntries];
   Writer w(tableName("get"), kEntries);
   fill(w, keys);
   Reader r(w.baseName());
   std::uint32_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(r.get(keys[i]));
      i = i + 1 == kEntries ? 0 : i + 1;
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MirraShmTableReaderGet);

}  // namespace
