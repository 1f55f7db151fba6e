// Sending one full-size datagram, beside the bare sendto of the same datagram
// (BM_SendOne_Sendto), with the fast trace ring on as it ships: through the packet access module
// alone, and through the exporter's whole per-collector path (stamp, trace, send, statistics).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Pelto/Endian.h"
#include "Pelto/UdpPam.h"
#include "Trace/Snaplog.h"
#include "bench/Reference.h"

using namespace FlowTracking;

namespace {

void BM_SendOne_UdpPam(benchmark::State& state) {
   Snaplog::enabledIs(true);
   Bench::Sink sink;
   auto pam = Kivo::make<Pelto::UdpPam>("bench");
   pam->modeIs(Pelto::UdpPam::Mode::open);
   pam->txSrcIpAddrIs(*Pelto::IpAddr::parse("127.0.0.1"));
   pam->txDstIpAddrIs(*Pelto::IpAddr::parse("127.0.0.1"));
   pam->txPortIs(sink.port());
   auto pkt = Kivo::make<Pelto::Pkt>(Bench::maxMsgSize);
   pkt->tailGrow(Bench::maxMsgSize);
   for (auto _ : state) {
      pam->txPktIs(pkt);
   }
   state.SetItemsProcessed(state.iterations());
   if (pam->txErrors() != 0) {
      state.SkipWithError("sends failed");
   }
}
BENCHMARK(BM_SendOne_UdpPam);

// One exporter of tracker "t" with one usable IPv4 collector on a loopback sink, and a table of
// eight 179-octet records: one message of 16 + 4 + 8 * 179 = 1452 octets.
struct OneCollector {
   OneCollector() {
      Snaplog::enabledIs(true);
      expConfig->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1"));
      expConfig->ipfixMtuIs(Bench::maxMsgSize + ipAndUdpHeaderLen());
      auto pam = Kivo::make<Pelto::UdpPam>("bench");
      pam->modeIs(Pelto::UdpPam::Mode::open);
      expInfo->udpPam4Is(pam);
      expConfig->collector4Is("c0", {*Pelto::IpAddr::parse("127.0.0.1"), sink.port()});
      expInfo->collInfoIs("c0")->optTemplateSentIs(true);
      auto const source = global->sourceIs("InterfaceTable", Bench::intfTableId);
      for (std::uint32_t i = 0; i < 8; ++i) {
         std::string rec(5, '\0');
         Pelto::storeBe32(reinterpret_cast<std::uint8_t*>(rec.data()), i + 1);
         rec[4] = static_cast<char>(174);
         source->dataRecordIs(dataRecordFactory(rec + std::string(174, 'a' + char(i))));
      }
      container->dataIs(global);
      exporter = optionsDataExporterSmFactory("e", "t", Bench::domain, nullptr, expConfig, expInfo,
                                              stats, container, scheduler);
      scheduler->runUntilIdle();  // the catch-up transmission
   }
   ~OneCollector() { exporter = nullptr; }

   Kivo::ScopedManualClock clock;
   Bench::Sink sink;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<OptionsDataSourceColl> global =
       Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<OptionsDataContainer> container = Kivo::make<OptionsDataContainer>("t");
   Kivo::Ptr<HwFlowTracking::ExporterConfig> expConfig =
       Kivo::make<HwFlowTracking::ExporterConfig>("e");
   Kivo::Ptr<ExporterInfo> expInfo = Kivo::make<ExporterInfo>("e");
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> stats =
       Kivo::make<Mirra::Ipfix::CollectorStatistics>("/ipfix-bench-send-" +
                                                     std::to_string(getpid()));
   Kivo::Ptr<OptionsDataExporterSm> exporter;
};

// One message to one collector through Collector::sendMessage, as every transmission sends it.
void BM_SendOne_Component(benchmark::State& state) {
   OneCollector s;
   if (s.exporter->msgCacheCount() != 1 ||
       s.exporter->msgCache().front()->message()->pkt()->bytes() != Bench::maxMsgSize) {
      state.SkipWithError("the table is not one full-size message");
      return;
   }
   MessageWrapper const& msg = *s.exporter->msgCache().front();
   auto const collector =
       Kivo::make<Collector>("c0", s.expInfo->collInfo("c0"), *s.expConfig->collector4("c0"),
                             Pelto::Ip6AndPort(), s.exporter.get());
   for (auto _ : state) {
      collector->sendMessage(*s.expInfo, *s.expConfig, msg);
   }
   state.SetItemsProcessed(state.iterations());
   if (s.expInfo->udpPam4()->txErrors() != 0) {
      state.SkipWithError("sends failed");
   }
}
BENCHMARK(BM_SendOne_Component);

}  // namespace
