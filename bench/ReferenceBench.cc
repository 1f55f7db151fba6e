// The yardsticks alone: libfixbuf encoding the options tables and building templates, a bare
// memcpy packer, bare sendto. The component's benchmarks beside them use the same rows and sizes,
// so every goal is a ratio of two lines of one run.
#include <benchmark/benchmark.h>

#include "bench/Reference.h"

namespace {

// libfixbuf encoding one table of `rows(n)` with `encode`, the set-up kept across passes.
template <class Rows, class Encode>
void fixbufTable(benchmark::State& state, Rows rows, Encode encode) {
   auto const table = rows(static_cast<std::uint32_t>(state.range(0)));
   Bench::FixbufEncoder enc(Bench::maxMsgSize, Bench::domain);
   std::vector<Bench::Message> out;
   for (auto _ : state) {
      (enc.*encode)(table, out);
      benchmark::DoNotOptimize(out.data());
   }
   Bench::countRecords(state, table.size(), out);
}

void BM_IntfTable_Fixbuf(benchmark::State& state) {
   fixbufTable(state, Bench::intfRows, &Bench::FixbufEncoder::intfTable);
}
BENCHMARK(BM_IntfTable_Fixbuf)->Arg(Bench::interfaces)->Unit(benchmark::kMillisecond);

void BM_FlowKeyTable_Fixbuf(benchmark::State& state) {
   fixbufTable(state, Bench::flowKeyRows, &Bench::FixbufEncoder::flowKeyTable);
}
BENCHMARK(BM_FlowKeyTable_Fixbuf)->Arg(Bench::flowKeys)->Unit(benchmark::kMicrosecond);

// Packing records that are already encoded: the floor under every packer.
void BM_PackPreEncoded_Memcpy(benchmark::State& state) {
   auto const records = Bench::encodedIntfRecords(static_cast<std::uint32_t>(state.range(0)));
   std::vector<Bench::Message> out;
   for (auto _ : state) {
      Bench::memcpyPack(records, Bench::intfTableId, Bench::maxMsgSize, Bench::domain, out);
      benchmark::DoNotOptimize(out.data());
   }
   Bench::countRecords(state, records.size(), out);
}
BENCHMARK(BM_PackPreEncoded_Memcpy)->Arg(Bench::interfaces)->Unit(benchmark::kMillisecond);

void BM_TemplateBuild_Fixbuf(benchmark::State& state) {
   Bench::FixbufEncoder enc(Bench::maxMsgSize, Bench::domain);
   auto const templates = static_cast<std::uint32_t>(state.range(0));
   std::size_t bytes = 0;
   for (auto _ : state) {
      bytes = enc.buildTemplates(templates);
   }
   state.SetItemsProcessed(state.iterations() * templates);
   state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_TemplateBuild_Fixbuf)->Arg(Bench::templates)->Unit(benchmark::kMicrosecond);

// One full-size datagram to a loopback socket nobody reads.
void BM_SendOne_Sendto(benchmark::State& state) {
   Bench::Sink sink;
   std::string const msg(Bench::maxMsgSize, 'x');
   for (auto _ : state) {
      sink.send(msg);
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SendOne_Sendto);

// The datagrams of a full interface table, to each of eight collectors.
void BM_FullTransmission_Sendto(benchmark::State& state) {
   std::vector<Bench::Message> msgs;
   Bench::memcpyPack(Bench::encodedIntfRecords(Bench::interfaces), Bench::intfTableId,
                     Bench::maxMsgSize, Bench::domain, msgs);
   std::vector<Bench::Sink> sinks(Bench::collectors);
   for (auto _ : state) {
      for (Bench::Sink& s : sinks) {
         for (Bench::Message const& m : msgs) {
            s.send(m);
         }
      }
   }
   state.SetItemsProcessed(state.iterations() * msgs.size() * sinks.size());
}
BENCHMARK(BM_FullTransmission_Sendto)->Unit(benchmark::kMillisecond);

}  // namespace
