// The statistics table as the exporters use it: read an entry, count one message, write it back.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "Ipfix/CollectorStats.h"

using namespace Mirra::Ipfix;

namespace {

CollectorStatisticsKey keyOf(int i) {
   return {
       "tracker", "exporter" + std::to_string(i % 16),
       CollectorInfo::fromIpAndPort({Pelto::IpAddr(0xc0000200u + static_cast<unsigned>(i)), 4739})};
}

struct Table {
   explicit Table(int entries) {
      for (int i = 0; i < entries; ++i) {
         stats->statsIs(CollectorStatisticsEntry(keyOf(i)));
      }
   }
   Kivo::String name = "/ipfix-bench-stats-" + std::to_string(getpid());
   Kivo::Ptr<CollectorStatistics> stats = Kivo::make<CollectorStatistics>(name);
};

void BM_StatsIsReadModifyWrite(benchmark::State& state) {
   Table t(static_cast<int>(state.range(0)));
   int i = 0;
   for (auto _ : state) {
      CollectorStatisticsKey const k = keyOf(i++ % static_cast<int>(state.range(0)));
      CollectorStatisticsEntry e = t.stats->stats(k).value_or(CollectorStatisticsEntry(k));
      e.exportedMessageTotalCount += 1;
      auto set = e.setEntry(SetId(257));
      set.setId = 257;
      set.exportedFlowRecordCount += 10;
      e.setEntryIs(set);
      benchmark::DoNotOptimize(t.stats->statsIs(e));
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StatsIsReadModifyWrite)->Arg(1000);

void BM_ReaderFullScan(benchmark::State& state) {
   Table t(static_cast<int>(state.range(0)));
   CollectorStatisticsReader reader(t.name);
   for (auto _ : state) {
      benchmark::DoNotOptimize(reader.allStats());
   }
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReaderFullScan)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
