// The agent's configuration: what an operator writes in the YAML file, after it was read and
// checked. Every value here is valid for the component (names within their limits, ids in range,
// MTUs large enough for the largest record); the loader refuses anything else, so code that
// applies a configuration never needs to check it again.
//
// Plain values only: two configurations compare with ==, which is how a reload finds what changed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "HwFlowTracking/FtTemplateEntry.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Pelto/Address.h"

namespace Agent {

// One field of a data template, in template order.
struct FieldConfig {
   Ipfix::RecordType element{};
   bool flowKey = false;
   bool operator==(FieldConfig const&) const = default;
};

// A data template the hardware exports; the file stands in for the hardware's status.
struct TemplateConfig {
   FlowTracking::TemplateId id;  // 260 and up
   bool inUse = true;
   std::vector<FieldConfig> fields;  // at least one
   bool operator==(TemplateConfig const& o) const {
      return id.value() == o.id.value() && inUse == o.inUse && fields == o.fields;
   }
};

using CollectorAddress = std::variant<Pelto::IpAndPort, Pelto::Ip6AndPort>;

struct ExporterConfig {
   std::string name;
   // "" or "default" is the default network namespace; any other VRF lives in "ns-<vrf>".
   std::string vrf;
   std::optional<Pelto::IpAddr> source4;
   std::optional<Pelto::Ip6Addr> source6;
   std::uint8_t dscp = 0;                     // 0 to 63
   std::uint32_t templateIntervalMs = 60000;  // whole seconds, at least 1000
   std::uint32_t mtu = 1500;                  // large enough for the largest record, at most 65535
   std::map<std::string, CollectorAddress> collectors;  // by collector name
   bool operator==(ExporterConfig const&) const = default;
};

struct TrackerConfig {
   std::string name;
   FlowTracking::FtId id = 0;
   std::uint32_t activeIntervalMs = 300000;  // whole seconds, 1 s to 65534 s
   std::uint32_t inactiveTimeoutMs = 15000;  // whole seconds, 1 s to 65534 s
   bool softwareExport = false;
   std::map<std::uint16_t, TemplateConfig> templates;  // by template id
   std::map<std::string, ExporterConfig> exporters;    // by exporter name
   bool operator==(TrackerConfig const&) const = default;
};

struct AgentConfig {
   // The kind of flow tracking of every tracker of this agent.
   FlowTracking::FlowTrackingType type = FlowTracking::FlowTrackingType::sampled;
   // One packet in `sampleRate` is sampled (hardware status).
   std::uint32_t sampleRate = 0;
   std::map<std::string, TrackerConfig> trackers;  // by tracker name

   // The interface table: from the file, or followed live from the host's links.
   bool interfacesFromKernel = false;
   std::map<std::string, std::uint32_t> interfaces;  // name -> interface index (file only)
   std::map<std::uint32_t, std::string> vrfs;        // VRF id -> name

   // POSIX shared-memory name of the collector statistics table.
   std::string statisticsTable = "/ipfix-collector-stats";
   // Trace facilities and levels to print, e.g. "*/4" or "Ipfix/6,Orbo/2"; empty: none.
   std::string trace;

   bool operator==(AgentConfig const&) const = default;
};

}  // namespace Agent
