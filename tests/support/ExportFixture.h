// A complete template-export setup for end-to-end tests: one tracker "t1" (id 7) with exporters
// "e1" (collectors "a" on IPv4 and "v6" on IPv6) and "e2" (collector "b" on IPv4), real loopback
// collectors, the shared-memory statistics table, and a manual clock driving the scheduler.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "support/LoopbackCollector.h"

namespace testsupport {

class ExportFixture : public ::testing::Test {
 protected:
   ExportFixture();
   ~ExportFixture() override;

   // Builds the state machines on the configuration made so far and runs the first pass.
   void start();
   // Adds an in-use data template with these elements to the tracker's hardware status.
   Kivo::Ptr<HwFlowTracking::TemplateStatus> addTemplate(
       FlowTracking::TemplateId id, std::vector<Ipfix::RecordType> const& fields);
   Kivo::Ptr<HwFlowTracking::ExporterConfig> exporter(Kivo::String const& name) const {
      return hwConfig->ftConfig("t1")->expConfig(name);
   }
   // What exporter `exp` counted for collector `c`, reached over IPv6 when `ipv6`.
   std::optional<Mirra::Ipfix::CollectorStatisticsEntry> statsOf(Kivo::String const& exp,
                                                                 LoopbackCollector const& c,
                                                                 bool ipv6 = false) const {
      using Mirra::Ipfix::CollectorInfo;
      return collStats->stats({"t1", exp,
                               ipv6 ? CollectorInfo::fromIp6AndPort(c.ip6AndPort())
                                    : CollectorInfo::fromIpAndPort(c.ipAndPort())});
   }

   Kivo::ScopedManualClock clock;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<HwFlowTracking::Config> hwConfig = Kivo::make<HwFlowTracking::Config>();
   Kivo::Ptr<HwFlowTracking::Status> hwStatus = Kivo::make<HwFlowTracking::Status>();
   Kivo::Ptr<FlowTracking::Config> ftConfig = Kivo::make<FlowTracking::Config>();
   Kivo::Ptr<FlowTracking::ConfigReq> configReq = Kivo::make<FlowTracking::ConfigReq>();
   Kivo::Ptr<Ipfix::IpfixInitSm> init = Ipfix::ipfixInitSmFactory();
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats;
   Kivo::Ptr<FlowTracking::FlowTrackingInfo> info =
       Kivo::make<FlowTracking::FlowTrackingInfo>(FlowTracking::FlowTrackingType::sampled);
   Kivo::Ptr<FlowTracking::FlowTrackingInfoSm> infoSm;
   Kivo::Ptr<FlowTracking::TemplateSm> templateSm;
   LoopbackCollector a{false};
   LoopbackCollector b{false};
   LoopbackCollector v6{true};
};

}  // namespace testsupport
