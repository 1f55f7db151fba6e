#include "support/ExportFixture.h"

#include <unistd.h>

#include <atomic>

namespace testsupport {

namespace {

Kivo::String uniqueTableName() {
   static std::atomic<int> n{0};
   return "/ipfix-test-stats-" + std::to_string(getpid()) + "-" + std::to_string(n++);
}

}  // namespace

ExportFixture::ExportFixture()
    : collStats(Kivo::make<Mirra::Ipfix::CollectorStatistics>(uniqueTableName())) {
   auto ft = hwConfig->ftConfigIs("t1");
   ft->ftIdIs(7), ft->activeIntervalIs({60000});
   hwStatus->ftStatusIs("t1");
   for (char const* name : {"e1", "e2"}) {
      auto e = ft->expConfigIs(name);
      e->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1")), e->srcIp6Is(*Pelto::Ip6Addr::parse("::1"));
      e->dscpIs(Pelto::DscpValue(10)), e->templateIntervalIs(30000), e->ipfixMtuIs(1500);
      e->exporter4ResolvedIs(true), e->exporter6ResolvedIs(true);
   }
   exporter("e1")->collector4Is("a", a.ipAndPort());
   exporter("e1")->collector6Is("v6", v6.ip6AndPort());
   exporter("e2")->collector4Is("b", b.ipAndPort());
}

ExportFixture::~ExportFixture() {
   templateSm = nullptr;
   infoSm = nullptr;
}

void ExportFixture::start() {
   infoSm =
       Kivo::make<FlowTracking::FlowTrackingInfoSm>(scheduler, hwConfig, info, init->agentInfo());
   templateSm = FlowTracking::templateSmFactory(scheduler, ftConfig, configReq, hwStatus, hwConfig,
                                                collStats, info, init->elementIdCollection());
   ASSERT_TRUE(scheduler->runUntilIdle());
}

Kivo::Ptr<HwFlowTracking::TemplateStatus> ExportFixture::addTemplate(
    FlowTracking::TemplateId id, std::vector<Ipfix::RecordType> const& fields) {
   auto status = hwStatus->ftStatus("t1")->templateStatusIs(id);
   std::uint32_t pos = 0;
   for (auto f : fields) {
      FlowTracking::updateFieldInfo(init->elementIdCollection(), status->entryIs(pos++, f));
   }
   status->inUseIs(true);
   return status;
}

}  // namespace testsupport
