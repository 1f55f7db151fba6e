// The flow-tracking configuration and status records, as the export component sees them.
//
// The switch's configuration agent writes `Config` (trackers, their exporters and collectors) and
// the hardware layer writes `Status` (per tracker timeouts and the data templates the hardware
// exports). The export component reads both, and writes back a few attributes: the readiness and
// source port of each exporter, and each tracker's local collector configuration. Every attribute
// and collection notifies on change (Kivo/Entity.h); the names here are the ones the component's
// reactors watch.
#pragma once

#include <cstdint>

#include "HwFlowTracking/FtTemplateEntry.h"
#include "HwFlowTracking/FtTypes.h"
#include "Kivo/Entity.h"
#include "Pelto/Address.h"

namespace HwFlowTracking {

// An exporter of a tracker: where it sends from and to, and what it publishes back.
//
// MTU contract. Options data messages are at most `ipfixMtu` - 48 octets (room for an IPv6 and a
// UDP header), taken as 16 bits: FlowTracking::maxMsgSizeForMtu(). A record is never split, so
// the MTU must carry the longest options data record in one message of its own:
//    48 (IPv6 + UDP) + 16 (message header) + 4 (set header) + 149 (the flow tracker row: 21
//    octets and a tracker name of at most 128, the most a statistics key holds; interface and
//    VRF rows are at most 4 + 1 + 100 = 105, flow key rows 10) = 217,
//    the export component's FlowTracking::minIpfixMtu().
// The writer keeps `ipfixMtu` within [217, 65535]. Outside it the 16-bit size wraps around: 0 (not
// set) and 1 to 47 give messages of 65488 to 65535 octets, of which UDP over IPv4 carries at most
// 65507 and over IPv6 65527 (a larger datagram is refused by the stack and counted as a send
// error on the module); 48 to 216 and 65584 to 65752 leave no room for the longest record, and
// the first one that does not fit an empty message stops the process ("consumed > 0").
class ExporterConfig : public Kivo::Object {
 public:
   explicit ExporterConfig(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }

   // VRF the exporter sends in; "" and "default" mean the default network namespace.
   KIVO_ATTR(Kivo::String, vrfName, VrfName);
   // Source addresses, and whether each is known (resolved from the source interface).
   KIVO_ATTR(Pelto::IpAddr, srcIp4, SrcIp4);
   KIVO_ATTR(bool, exporter4Resolved, Exporter4Resolved);
   KIVO_ATTR(Pelto::Ip6Addr, srcIp6, SrcIp6);
   KIVO_ATTR(bool, exporter6Resolved, Exporter6Resolved);
   KIVO_ATTR(Pelto::DscpValue, dscp, Dscp);
   // How often templates are re-sent, in milliseconds.
   KIVO_ATTR(std::uint32_t, templateInterval, TemplateInterval);
   // Largest IP packet towards the collectors, headers included.
   KIVO_ATTR(std::uint32_t, ipfixMtu, IpfixMtu);
   // Collectors by name, one collection per address family.
   KIVO_VALUES(Kivo::String, Pelto::IpAndPort, collector4, Collector4);
   KIVO_VALUES(Kivo::String, Pelto::Ip6AndPort, collector6, Collector6);

   // Written by the export component: the local UDP port of each family's socket, and whether
   // the exporter is ready to send on it. A port is published before "ready" and withdrawn after.
   KIVO_ATTR(std::uint16_t, rxPort4, RxPort4);
   KIVO_ATTR(bool, exporter4Ready, Exporter4Ready);
   KIVO_ATTR(std::uint16_t, rxPort6, RxPort6);
   KIVO_ATTR(bool, exporter6Ready, Exporter6Ready);

 private:
   Kivo::String name_;
};

// Where software export sends its records, filled by the export component for trackers with
// software export: the local collector listens at the exporter's own source address and port.
class LocalCollectorConfig : public Kivo::Object {
   KIVO_ATTR(Kivo::String, expName, ExpName);
   KIVO_ATTR(Kivo::String, vrfName, VrfName);
   KIVO_ATTR(Pelto::IpGenAddr, srcIp, SrcIp);
   KIVO_ATTR(Pelto::IpGenAddr, destIp, DestIp);
   KIVO_ATTR(std::uint16_t, srcPort, SrcPort);
   KIVO_ATTR(std::uint16_t, destPort, DestPort);
   KIVO_ATTR(Pelto::DscpValue, dscpValue, DscpValue);
   KIVO_ATTR(bool, exporterReady, ExporterReady);
};

// One flow tracker's configuration.
class FtConfig : public Kivo::Object {
 public:
   explicit FtConfig(Kivo::String name)
       : name_(std::move(name)), localCollectorConfig_(Kivo::make<LocalCollectorConfig>()) {}
   Kivo::String const& name() const { return name_; }
   Kivo::Ptr<LocalCollectorConfig> const& localCollectorConfig() const {
      return localCollectorConfig_;
   }

   // The tracker's number; also its IPFIX observation domain id.
   KIVO_ATTR(FtId, ftId, FtId);
   // Interval of the periodic options data transmission.
   KIVO_ATTR(ActiveInterval, activeInterval, ActiveInterval);
   KIVO_ATTR(bool, swExport, SwExport);
   KIVO_ENTITIES(Kivo::String, ExporterConfig, expConfig, ExpConfig);

 private:
   Kivo::String name_;
   Kivo::Ptr<LocalCollectorConfig> localCollectorConfig_;
};

class Config : public Kivo::Object {
   KIVO_ENTITIES(Kivo::String, FtConfig, ftConfig, FtConfig);
};

// One data template the hardware exports: its fields by position, whether a flow group uses it,
// and a generation number bumped whenever its fields change.
class TemplateStatus : public Kivo::Object {
 public:
   explicit TemplateStatus(TemplateId id) : templateId_(id) {}
   TemplateId templateId() const { return templateId_; }

   KIVO_ATTR(bool, inUse, InUse);
   KIVO_ATTR(std::uint32_t, genId, GenId);

 public:
   // Creates the field at `position`. Replacing a field's element means deleting it first.
   Kivo::Ptr<FtTemplateEntry> entryIs(std::uint32_t position, Ipfix::RecordType fieldId) {
      return entry_.is(position, fieldId);
   }
   void entryDel(std::uint32_t position) { entry_.del(position); }
   void entryDelAll() { entry_.delAll(); }
   // In ascending position.
   Kivo::Coll<std::uint32_t, FtTemplateEntry, Kivo::Sorted> const& entries() const {
      return entry_;
   }
   Kivo::Signal<std::uint32_t> const& onEntry() const { return entry_.signal(); }

 private:
   TemplateId templateId_;
   // A template has tens of fields, read in order by every build of it.
   Kivo::Coll<std::uint32_t, FtTemplateEntry, Kivo::Sorted> entry_;
};

// One flow tracker's hardware status.
class FtStatus : public Kivo::Object {
 public:
   explicit FtStatus(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }

   KIVO_ATTR(ActiveInterval, activeInterval, ActiveInterval);
   KIVO_ATTR(InactiveTimeout, inactiveTimeout, InactiveTimeout);
   // Thousands of templates, walked whole by every full build of the flow key table; in no
   // particular order.
   KIVO_ENTITIES_OF_KIND(TemplateId, TemplateStatus, ::Kivo::Dense, templateStatus, TemplateStatus);

 private:
   Kivo::String name_;
};

class Status : public Kivo::Object {
   KIVO_ENTITIES(Kivo::String, FtStatus, ftStatus, FtStatus);
   // One packet in `sampleRate` is sampled.
   KIVO_ATTR(std::uint32_t, sampleRate, SampleRate);
};

}  // namespace HwFlowTracking

namespace FlowTracking {

// The feature configuration of flow tracking.
class Config : public Kivo::Object {
   KIVO_ATTR(bool, swExport, SwExport);
};

// A request to reset collector statistics. Empty tracker or exporter names match every entry; a
// zero collector (no address family) matches every collector. Requests are told apart by time.
struct ClearCountersReq {
   Kivo::String ftName;
   Kivo::String expName;
   Pelto::IpGenAddr collector;
   std::uint16_t collectorPort = 0;
   double requestTime = 0;
   bool operator==(ClearCountersReq const&) const = default;
};

// Requests from the operator.
class ConfigReq : public Kivo::Object {
   KIVO_ATTR(ClearCountersReq, clearCountersReq, ClearCountersReq);
};

}  // namespace FlowTracking
