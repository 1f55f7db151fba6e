// Options data export at scale, against the yardsticks of bench/Reference.h: the interface and
// flow key tables from their inputs to finished messages (libfixbuf), the floor under the flow
// key table (reading its input alone), packing records already encoded (memcpy), a full
// transmission to eight loopback collectors (bare sendto), and one interface change at two table
// sizes.
//
// Each table benchmark first checks that the component's messages carry the same records as
// libfixbuf's from the same rows, and refuses to time anything otherwise.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <sstream>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Kivo/Pool.h"
#include "Pelto/Endian.h"
#include "bench/Reference.h"

using namespace FlowTracking;

namespace {

// Heap octets in use: what the allocator handed out, with the pool's chunks counted by the blocks
// living in them (the pool keeps chunks, so an earlier benchmark's leave free room).
std::size_t heapInUse() {
   Kivo::Pool::Storage const pooled = Kivo::Pool::storage();
   return mallinfo2().uordblks - pooled.chunkBytes + pooled.liveBytes;
}

// One exporter of tracker "t" (observation domain Bench::domain) with an MTU giving messages of
// Bench::maxMsgSize octets and `collectors` usable IPv4 collectors on loopback sinks. The sources
// are added by the caller before exporter() is called.
struct Setup {
   explicit Setup(std::size_t collectors = 1) : sinks(collectors) {
      expConfig->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1"));
      expConfig->ipfixMtuIs(Bench::maxMsgSize + ipAndUdpHeaderLen());
      auto pam = Kivo::make<Pelto::UdpPam>("bench");
      pam->modeIs(Pelto::UdpPam::Mode::open);
      expInfo->udpPam4Is(pam);
      for (std::size_t i = 0; i < sinks.size(); ++i) {
         Kivo::String const name = "c" + std::to_string(i);
         expConfig->collector4Is(name, {*Pelto::IpAddr::parse("127.0.0.1"), sinks[i].port()});
         expInfo->collInfoIs(name)->optTemplateSentIs(true);
      }
      container->dataIs(global);
      container->dataIs(tracker);
      container->updateIs(update);
   }
   ~Setup() { exporter = nullptr; }

   Kivo::Ptr<OptionsDataExporterSm> const& exporterIs() {
      exporter = optionsDataExporterSmFactory("e", "t", Bench::domain, ftConfig, expConfig, expInfo,
                                              stats, container, scheduler);
      scheduler->runUntilIdle();  // the collectors' catch-up transmissions
      return exporter;
   }

   Kivo::ScopedManualClock clock;
   std::vector<Bench::Sink> sinks;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<OptionsDataSourceColl> global =
       Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<OptionsDataSourceColl> tracker =
       Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeTracker);
   Kivo::Ptr<OptionsDataContainer> container = Kivo::make<OptionsDataContainer>("t");
   Kivo::Ptr<HwFlowTracking::FtConfig> ftConfig = Kivo::make<HwFlowTracking::FtConfig>("t");
   Kivo::Ptr<HwFlowTracking::ExporterConfig> expConfig =
       Kivo::make<HwFlowTracking::ExporterConfig>("e");
   Kivo::Ptr<ExporterInfo> expInfo = Kivo::make<ExporterInfo>("e");
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> stats =
       Kivo::make<Mirra::Ipfix::CollectorStatistics>("/ipfix-bench-" + std::to_string(getpid()));
   Kivo::Ptr<OptionsDataExporterSm> exporter;
};

// Finished messages as one collector receives them: each stamped with the sequence number of the
// records before it (export time left 0, as the reference's), so that a decoder sees a proper
// sequence.
std::vector<Bench::Message> asSent(auto const& wrappers) {
   std::vector<Bench::Message> out;
   std::uint32_t seqNo = 0;
   for (auto const& w : wrappers) {
      auto const span = w->message()->pkt()->span();
      Bench::Message m(reinterpret_cast<char const*>(span.data()), span.size());
      Pelto::storeBe(reinterpret_cast<std::uint8_t*>(m.data() + 8), seqNo);
      seqNo += w->message()->recordCount();
      out.push_back(std::move(m));
   }
   return out;
}

// The interface table of `n` interfaces "Ethernet1".. with indexes 1.., as the agent fills it.
Kivo::Ptr<IntfIndexMap> intfMap(std::uint32_t n) {
   auto map = intfIndexMapFactory();
   for (Bench::IntfRow const& r : Bench::intfRows(n)) {
      map->intfIndexIs(Pelto::IntfId(r.name), r.index);
   }
   return map;
}

// The records of an ipfixDump listing (each starts at its scope field), sorted: the component
// keeps no row order, so records are compared as a multiset.
std::vector<std::string> sortedRecords(std::string const& dump) {
   std::vector<std::string> records;
   std::istringstream in(dump);
   std::string line;
   while (std::getline(in, line)) {
      if (line.find(" (S) ") != std::string::npos || records.empty()) {
         records.emplace_back();
      }
      records.back() += line + "\n";
   }
   std::sort(records.begin(), records.end());
   return records;
}

// False (and the benchmark skipped) unless both encoders' messages carry the same records.
bool sameRecords(benchmark::State& state, std::vector<Bench::Message> const& component,
                 std::vector<Bench::Message> const& reference) {
   Bench::FixbufEncoder enc(Bench::maxMsgSize, Bench::domain);
   Bench::Message const templates = enc.templatesMessage();
   auto const a = sortedRecords(Bench::ipfixDumpRecords(templates, component));
   auto const b = sortedRecords(Bench::ipfixDumpRecords(templates, reference));
   if (a.empty() || a != b) {
      state.SkipWithError("the component's messages do not carry libfixbuf's records");
      return false;
   }
   return true;
}

std::size_t wireBytes(OptionsDataSource const& source) {
   std::size_t bytes = 0;
   for (DataRecordPtr const& r : source.dataRecord()) {
      bytes += r->dataLen();
   }
   return bytes;
}

// Checks once that the exporter's messages carry the records libfixbuf encodes from `rows`, then
// times what a table costs from its input to finished messages: the table made by `make` on an
// emptied source (its initialization, the only full build it does) and the message cache built
// from it. Tearing the previous table down is not timed. False (and the benchmark skipped) when
// the records differ.
template <class Rows, class Encode, class Make>
bool timeBuilds(benchmark::State& state, Setup& s, Rows const& rows, Encode encode,
                OptionsDataSource& source, Make make) {
   auto table = make();
   s.exporter->maybeBuildMsgCache();
   Bench::FixbufEncoder enc(Bench::maxMsgSize, Bench::domain);
   std::vector<Bench::Message> reference;
   (enc.*encode)(rows, reference);
   if (!sameRecords(state, asSent(s.exporter->msgCache()), reference)) {
      return false;
   }
   for (auto _ : state) {
      state.PauseTiming();
      table = nullptr;
      source.dataRecordDelAll();
      source.versionInc(1);
      state.ResumeTiming();
      table = make();
      s.exporter->maybeBuildMsgCache();
   }
   return true;
}

// The interface map to finished messages: the table's full rebuild and the message cache.
// Counters: heap octets the table and its messages hold per record, and those beyond the
// record's own wire octets.
void BM_IntfTable_Component(benchmark::State& state) {
   auto const n = static_cast<std::uint32_t>(state.range(0));
   Setup s;
   auto const map = intfMap(n);
   auto const source = s.global->sourceIs("InterfaceTable", InterfaceTableSm::setId());
   auto const make = [&] { return interfaceTableSmFactory(source, s.update, map); };
   s.exporterIs();
   std::size_t const heapBefore = heapInUse();
   auto table = make();
   s.exporter->maybeBuildMsgCache();
   std::size_t const heapAfter = heapInUse();
   table = nullptr;

   // The reference gets the same rows: the interfaces and the four reserved records.
   auto rows = Bench::intfRows(n);
   rows.push_back({IntfIndexMap::multicastIntfIndex(), "multicast"});
   rows.push_back({IntfIndexMap::discardIntfIndex(), "discard"});
   rows.push_back({IntfIndexMap::cpuIntfIndex(), "CPU"});
   rows.push_back({IntfIndexMap::unknownIntfIndex(), "unknown"});
   if (!timeBuilds(state, s, rows, &Bench::FixbufEncoder::intfTable, *source, make)) {
      return;
   }
   std::size_t const records = source->dataRecords();
   double const heapPerRecord = double(heapAfter - heapBefore) / double(records);
   double const wirePerRecord = double(wireBytes(*source)) / double(records);
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * records));
   state.counters["messages"] = static_cast<double>(s.exporter->msgCacheCount());
   state.counters["heapBytesPerRecord"] = heapPerRecord;
   state.counters["wireBytesPerRecord"] = wirePerRecord;
   state.counters["beyondWirePerRecord"] = heapPerRecord - wirePerRecord;
}
BENCHMARK(BM_IntfTable_Component)->Arg(Bench::interfaces)->Unit(benchmark::kMillisecond);

// The tracker's template status to finished messages: the flow key table's full rebuild and the
// message cache. Template 260 + i has one key field for each bit of Bench::flowKeyRows' bitmap.
Kivo::Ptr<HwFlowTracking::FtStatus> flowKeyStatus(std::vector<Bench::FlowKeyRow> const& rows) {
   auto const ftStatus = Kivo::make<HwFlowTracking::FtStatus>("t");
   for (Bench::FlowKeyRow const& r : rows) {
      auto t = ftStatus->templateStatusIs(TemplateId(r.templateId));
      for (std::uint32_t position = 0; position < 31; ++position) {
         if ((r.flowKeyIndicator >> position) & 1) {
            t->entryIs(position, Ipfix::element("packetDeltaCount"))->flowKeyIs(true);
         }
      }
   }
   return ftStatus;
}

void BM_FlowKeyTable_Component(benchmark::State& state) {
   auto const n = static_cast<std::uint32_t>(state.range(0));
   Setup s;
   auto const rows = Bench::flowKeyRows(n);
   auto const ftStatus = flowKeyStatus(rows);
   auto const source = s.tracker->sourceIs("FlowKey", FlowKeySm::setId());
   s.exporterIs();
   auto const make = [&] { return flowKeySmFactory(source, s.update, ftStatus); };
   if (!timeBuilds(state, s, rows, &Bench::FixbufEncoder::flowKeyTable, *source, make)) {
      return;
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * source->dataRecords()));
   state.counters["messages"] = static_cast<double>(s.exporter->msgCacheCount());
}
BENCHMARK(BM_FlowKeyTable_Component)->Arg(Bench::flowKeys)->Unit(benchmark::kMicrosecond);

// The floor under any flow key table that reads the template status as the hardware layer keeps
// it: each template's fields in position order, each field an object of its own, folded into the
// bitmaps. No records, messages or observers.
void BM_FlowKeyTable_ReadStatusFloor(benchmark::State& state) {
   auto const ftStatus =
       flowKeyStatus(Bench::flowKeyRows(static_cast<std::uint32_t>(state.range(0))));
   for (auto _ : state) {
      for (auto const& [templateId, templateStatus] : ftStatus->templateStatusColl()) {
         std::uint64_t flowKey = 0;
         for (auto const& [position, entry] : templateStatus->entries()) {
            if (entry->flowKey()) {
               flowKey |= std::uint64_t{1} << (position & 63);
            }
         }
         benchmark::DoNotOptimize(flowKey);
      }
   }
   state.SetItemsProcessed(
       static_cast<std::int64_t>(state.iterations() * ftStatus->templateStatusColl().size()));
}
BENCHMARK(BM_FlowKeyTable_ReadStatusFloor)->Arg(Bench::flowKeys)->Unit(benchmark::kMicrosecond);

// Records already encoded to finished messages, as the exporter packs them.
void BM_PackPreEncoded_Component(benchmark::State& state) {
   std::vector<DataRecordPtr> records;
   for (std::string const& r :
        Bench::encodedIntfRecords(static_cast<std::uint32_t>(state.range(0)))) {
      records.push_back(dataRecordFactory(r));
   }
   std::vector<Kivo::Ptr<MessageWrapper>> out;
   auto pack = [&] {
      out.clear();
      BuilderWrapper builder(Bench::maxMsgSize, Bench::domain);
      builder.startMsg();
      for (DataRecordPtr const& r : records) {
         if (builder.addSetRecord(Bench::intfTableId, r) == 0) {
            out.push_back(builder.finalizeMsg());
            builder.startMsg();
            builder.addSetRecord(Bench::intfTableId, r);
         }
      }
      out.push_back(builder.finalizeMsg());
   };
   pack();
   std::vector<Bench::Message> const mine = asSent(out);
   std::vector<Bench::Message> reference;
   Bench::memcpyPack(Bench::encodedIntfRecords(static_cast<std::uint32_t>(state.range(0))),
                     Bench::intfTableId, Bench::maxMsgSize, Bench::domain, reference);
   if (!sameRecords(state, mine, reference)) {
      return;
   }
   for (auto _ : state) {
      pack();
      benchmark::DoNotOptimize(out.data());
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * records.size()));
   state.counters["messages"] = static_cast<double>(out.size());
}
BENCHMARK(BM_PackPreEncoded_Component)->Arg(Bench::interfaces)->Unit(benchmark::kMillisecond);

// A periodic full transmission of the 100k-interface table from the cache, to eight collectors.
void BM_FullTransmission_Component(benchmark::State& state) {
   Setup s(Bench::collectors);
   auto const map = intfMap(Bench::interfaces);
   auto const source = s.global->sourceIs("InterfaceTable", InterfaceTableSm::setId());
   auto const table = interfaceTableSmFactory(source, s.update, map);
   s.exporterIs()->maybeBuildMsgCache();
   for (auto _ : state) {
      s.exporter->maybeBeginPeriodicTransmission();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() *
                                                     s.exporter->msgCacheCount() * s.sinks.size()));
   state.counters["messages"] = static_cast<double>(s.exporter->msgCacheCount());
}
BENCHMARK(BM_FullTransmission_Component)->Unit(benchmark::kMillisecond);

// An interface gets a new index: the table replaces its record, queues it, and the flush sends it
// to one collector. The cost must not grow with the table.
void BM_OneInterfaceChange(benchmark::State& state) {
   Setup s;
   auto const map = intfMap(static_cast<std::uint32_t>(state.range(0)));
   auto const source = s.global->sourceIs("InterfaceTable", InterfaceTableSm::setId());
   auto const table = interfaceTableSmFactory(source, s.update, map);
   s.exporterIs();
   Pelto::IntfId const intf("Ethernet500");
   std::uint32_t index = 1'000'000;
   for (auto _ : state) {
      map->intfIndexIs(intf, ++index);
      s.exporter->flushUpdateQueue();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_OneInterfaceChange)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace
