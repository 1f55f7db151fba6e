// Building the data templates of one exporter: 680 templates of the same 20 fields, as the
// hardware reports them, rebuilt into the exporter's template message. The exporter has no
// collector, so the rebuild is timed without sending; BM_TemplateBuild_Fixbuf is the yardstick.
#include <benchmark/benchmark.h>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Trace/Snaplog.h"
#include "bench/Reference.h"

namespace {

Ipfix::RecordType elementNamed(std::string_view name) {
   for (Ipfix::ElementRow const& row : Ipfix::elementTable) {
      if (row.name == name) {
         return Ipfix::RecordType{row.id};
      }
   }
   throw std::runtime_error("no element " + std::string(name));
}

void BM_TemplateBuild_Component(benchmark::State& state) {
   Snaplog::enabledIs(true);
   Kivo::ScopedManualClock clock;
   auto scheduler = Kivo::make<Orbo::TaskScheduler>();
   auto hwConfig = Kivo::make<HwFlowTracking::Config>();
   auto hwStatus = Kivo::make<HwFlowTracking::Status>();
   auto init = Ipfix::ipfixInitSmFactory();
   auto info = Kivo::make<FlowTracking::FlowTrackingInfo>(FlowTracking::FlowTrackingType::sampled);
   auto stats = Kivo::make<Mirra::Ipfix::CollectorStatistics>("/ipfix-bench-templates-" +
                                                              std::to_string(getpid()));
   auto ft = hwConfig->ftConfigIs("t");
   ft->ftIdIs(Bench::domain);
   auto exp = ft->expConfigIs("e");
   exp->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1"));
   exp->ipfixMtuIs(1500);
   exp->templateIntervalIs(30000);
   auto ftStatus = hwStatus->ftStatusIs("t");
   auto const templates = static_cast<std::uint32_t>(state.range(0));
   Kivo::Ptr<HwFlowTracking::TemplateStatus> first;
   for (std::uint32_t t = 0; t < templates; ++t) {
      auto status = ftStatus->templateStatusIs(static_cast<std::uint16_t>(260 + t));
      std::uint32_t pos = 0;
      for (char const* name : Bench::templateFieldNames) {
         FlowTracking::updateFieldInfo(init->elementIdCollection(),
                                       status->entryIs(pos++, elementNamed(name)));
      }
      status->inUseIs(true);
      first = first ? first : status;
   }
   auto infoSm =
       Kivo::make<FlowTracking::FlowTrackingInfoSm>(scheduler, hwConfig, info, init->agentInfo());
   auto templateSm = FlowTracking::templateSmFactory(
       scheduler, Kivo::make<FlowTracking::Config>(), Kivo::make<FlowTracking::ConfigReq>(),
       hwStatus, hwConfig, stats, info, init->elementIdCollection());
   scheduler->runUntilIdle();
   for (auto _ : state) {
      // A template goes out of use and back: the exporter rebuilds all of them once.
      first->inUseIs(false);
      first->inUseIs(true);
      scheduler->runUntilIdle();
   }
   state.SetItemsProcessed(state.iterations() * templates);
}
BENCHMARK(BM_TemplateBuild_Component)->Arg(Bench::templates)->Unit(benchmark::kMicrosecond);

}  // namespace
