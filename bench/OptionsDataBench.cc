// Options data export at scale: the full table build, the update flush and one interface change,
// sending to a real loopback collector.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"

using namespace FlowTracking;

namespace {

// One exporter with one usable IPv4 collector (a loopback socket nobody reads: the kernel drops
// what does not fit, which costs the sender nothing) and the interface table as its only source.
struct Setup {
   explicit Setup(std::uint32_t interfaces) {
      rx = socket(AF_INET, SOCK_DGRAM, 0);
      sockaddr_in sa{};
      sa.sin_family = AF_INET;
      sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      bind(rx, reinterpret_cast<sockaddr*>(&sa), sizeof(sa));
      socklen_t len = sizeof(sa);
      getsockname(rx, reinterpret_cast<sockaddr*>(&sa), &len);

      for (std::uint32_t i = 0; i < interfaces; ++i) {
         intfs->intfIndexIs(Pelto::IntfId("Ethernet" + std::to_string(i + 1)), i + 1);
      }
      auto global = Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeGlobal);
      source = global->sourceIs("InterfaceTable", InterfaceTableSm::setId());
      table = interfaceTableSmFactory(source, update, intfs);
      container->dataIs(global);
      container->updateIs(update);

      expConfig->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1"));
      expConfig->ipfixMtuIs(1500);
      expConfig->collector4Is("c", {*Pelto::IpAddr::parse("127.0.0.1"), ntohs(sa.sin_port)});
      auto pam = Kivo::make<Pelto::UdpPam>("bench");
      pam->modeIs(Pelto::UdpPam::Mode::open);
      expInfo->udpPam4Is(pam);
      expInfo->collInfoIs("c")->optTemplateSentIs(true);
      exporter = optionsDataExporterSmFactory("e", "t", 1, ftConfig, expConfig, expInfo, stats,
                                              container, scheduler);
      scheduler->runUntilIdle();
   }
   ~Setup() {
      exporter = nullptr;
      close(rx);
   }

   Kivo::ScopedManualClock clock;
   int rx = -1;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<IntfIndexMap> intfs = intfIndexMapFactory();
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<OptionsDataSource> source;
   Kivo::Ptr<InterfaceTableSm> table;
   Kivo::Ptr<OptionsDataContainer> container = Kivo::make<OptionsDataContainer>("t");
   Kivo::Ptr<HwFlowTracking::FtConfig> ftConfig = Kivo::make<HwFlowTracking::FtConfig>("t");
   Kivo::Ptr<HwFlowTracking::ExporterConfig> expConfig =
       Kivo::make<HwFlowTracking::ExporterConfig>("e");
   Kivo::Ptr<ExporterInfo> expInfo = Kivo::make<ExporterInfo>("e");
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> stats =
       Kivo::make<Mirra::Ipfix::CollectorStatistics>("/ipfix-bench-" + std::to_string(getpid()));
   Kivo::Ptr<OptionsDataExporterSm> exporter;
};

void BM_FullCacheBuild(benchmark::State& state) {
   Setup s(static_cast<std::uint32_t>(state.range(0)));
   for (auto _ : state) {
      s.source->versionInc(1);  // the table changed: the cache is stale
      s.exporter->maybeBuildMsgCache();
   }
   std::size_t bytes = 0;
   for (DataRecordPtr const& r : s.source->dataRecord()) {
      bytes += r->dataLen();
   }
   state.SetItemsProcessed(state.iterations() * s.source->dataRecords());
   state.SetBytesProcessed(state.iterations() * bytes);
   state.counters["messages"] = static_cast<double>(s.exporter->msgCacheCount());
}
BENCHMARK(BM_FullCacheBuild)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_UpdateFlush(benchmark::State& state) {
   Setup s(0);
   auto const n = static_cast<std::uint32_t>(state.range(0));
   std::vector<DataRecordPtr> records;
   for (std::uint32_t i = 0; i < n; ++i) {
      auto r = dataRecordFactory(std::string("\0\0\0\0\x0b", 5) + "Ethernet" + std::to_string(i));
      records.push_back(r);
   }
   for (auto _ : state) {
      state.PauseTiming();
      for (auto const& r : records) {
         s.update->addUpdate(InterfaceTableSm::setId(), r);
      }
      s.exporter->updateTask()->stopTimerTask();
      state.ResumeTiming();
      s.exporter->flushUpdateQueue();
   }
   state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_UpdateFlush)->Arg(10000)->Unit(benchmark::kMillisecond);

// An interface gets a new index: the table replaces its record, queues it, and the flush sends it.
void BM_OneInterfaceChangeEndToEnd(benchmark::State& state) {
   Setup s(100000);
   Pelto::IntfId const intf("Ethernet500");
   std::uint32_t index = 1'000'000;
   for (auto _ : state) {
      s.intfs->intfIndexIs(intf, ++index);
      s.exporter->flushUpdateQueue();
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OneInterfaceChangeEndToEnd)->Unit(benchmark::kMicrosecond);

}  // namespace
