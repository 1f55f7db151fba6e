// The memory of a large set-up, wired as the agent wires it (OptionsDataManagerSm): 8 trackers of
// 4 exporters with 4 collectors each, 100,000 interfaces, every exporter's message cache built.
// Reports the process's resident set before and after, from /proc/self/status.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "Ipfix/OptionsDataManagerSm.h"
#include "bench/Reference.h"

using namespace FlowTracking;

namespace {

constexpr int trackers = 8;
constexpr int exportersPerTracker = 4;
constexpr int collectorsPerExporter = 4;

// VmRSS in octets; 0 when it cannot be read.
double residentBytes() {
   std::ifstream in("/proc/self/status");
   std::string line;
   while (std::getline(in, line)) {
      if (line.rfind("VmRSS:", 0) == 0) {
         return std::stod(line.substr(6)) * 1024;  // the kernel counts in kB
      }
   }
   return 0;
}

// The configuration, status and info records the agent keeps, filled for the whole set-up: every
// exporter sends from 127.0.0.1 through a module of its own to its collectors (loopback sinks
// shared by all exporters), whose options templates count as sent.
struct Records {
   Records() {
      for (Bench::IntfRow const& r : Bench::intfRows(Bench::interfaces)) {
         intfMap->intfIndexIs(Pelto::IntfId(r.name), r.index);
      }
      vrfs->vrfNameIs(1, "red");
      for (int t = 0; t < trackers; ++t) {
         Kivo::String const ft = "t" + std::to_string(t);
         auto const ftConfig = hwConfig->ftConfigIs(ft);
         ftConfig->ftIdIs(FtId(t + 1));
         ftConfig->activeIntervalIs({60000});
         hwStatus->ftStatusIs(ft);
         auto const ftInfo = info->ftInfoIs(ft);
         for (int e = 0; e < exportersPerTracker; ++e) {
            Kivo::String const exp = "e" + std::to_string(e);
            auto const expConfig = ftConfig->expConfigIs(exp);
            expConfig->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1"));
            expConfig->ipfixMtuIs(Bench::maxMsgSize + ipAndUdpHeaderLen());
            auto const expInfo = ftInfo->expInfoIs(exp);
            auto pam = Kivo::make<Pelto::UdpPam>(ft + "-" + exp);
            pam->modeIs(Pelto::UdpPam::Mode::open);
            expInfo->udpPam4Is(pam);
            for (int c = 0; c < collectorsPerExporter; ++c) {
               Kivo::String const name = "c" + std::to_string(c);
               expConfig->collector4Is(name, {*Pelto::IpAddr::parse("127.0.0.1"), sinks[c].port()});
               expInfo->collInfoIs(name)->optTemplateSentIs(true);
            }
         }
      }
   }

   Kivo::ScopedManualClock clock;
   std::vector<Bench::Sink> sinks = std::vector<Bench::Sink>(collectorsPerExporter);
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<HwFlowTracking::Config> hwConfig = Kivo::make<HwFlowTracking::Config>();
   Kivo::Ptr<HwFlowTracking::Status> hwStatus = Kivo::make<HwFlowTracking::Status>();
   Kivo::Ptr<FlowTrackingInfo> info = Kivo::make<FlowTrackingInfo>(FlowTrackingType::sampled);
   Kivo::Ptr<IntfIndexMap> intfMap = intfIndexMapFactory();
   Kivo::Ptr<Vrf::VrfIdMap::Status> vrfs = Vrf::VrfIdMap::statusFactory();
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> stats =
       Kivo::make<Mirra::Ipfix::CollectorStatistics>(
           "/ipfix-bench-mem-" + std::to_string(getpid()),
           trackers* exportersPerTracker* collectorsPerExporter);
};

// One pass: the records, the managers and every exporter's first transmission (which builds its
// cache), timed together; the resident set before and after, and what each step added, in MB.
void BM_Memory_Trackers8x4x4(benchmark::State& state) {
   double before = 0;
   double records = 0;  // after the records (the interface map the largest)
   double tables = 0;   // after the managers: the sources' tables and the message caches, as
                        // exporters whose collectors are usable send when they are made
   double after = 0;
   std::size_t counted = 0;
   for (auto _ : state) {
      malloc_trim(0);
      before = residentBytes();
      Records r;
      records = residentBytes();
      auto const manager = optionsDataManagerSmFactory(r.hwConfig, r.hwStatus, r.info, r.intfMap,
                                                       r.vrfs, r.stats, r.scheduler);
      tables = residentBytes();
      r.scheduler->runUntilIdle();
      after = residentBytes();
      counted = r.stats->statsCount();
   }
   if (counted != trackers * exportersPerTracker * collectorsPerExporter) {
      state.SkipWithError("not every collector got the tables");
      return;
   }
   constexpr double mb = 1024 * 1024;
   state.counters["rssBeforeMB"] = before / mb;
   state.counters["rssAfterMB"] = after / mb;
   state.counters["setupMB"] = (after - before) / mb;
   state.counters["recordsMB"] = (records - before) / mb;
   state.counters["managersMB"] = (tables - records) / mb;
}
BENCHMARK(BM_Memory_Trackers8x4x4)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
