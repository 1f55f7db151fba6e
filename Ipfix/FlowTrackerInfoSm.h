// The tracking, tracker, exporter and collector information tree, and the state machines that keep
// it in step with the hardware flow-tracking configuration.
//
//   FlowTrackingInfoSm ─▶ FlowTrackerInfoSm (per tracker) ─▶ ExporterInfoSm (per exporter)
//   FlowTrackingInfo   ─▶ FlowTrackerInfo                 ─▶ ExporterInfo ─▶ CollectorInfo
//
// Each level creates the next when the configuration names it, and removes the state machine
// before the record it maintains. An ExporterInfo owns the exporter's UDP packet access modules
// (one per address family, open while that family's source is resolved) and the ports they got;
// a CollectorInfo holds the collector's IPFIX sequence number, which survives changes of the
// collector's address and family and restarts at 0 only when the collector is removed.
//
// ExporterInfoSm publishes each family's readiness back to the exporter configuration: a family is
// ready when its module is open and its local port is known (learned by the template sender after
// its first send). The port is written before "ready" and withdrawn after it, so an observer of
// the configuration never sees "ready" with a stale or zero port.
#pragma once

#include <string_view>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Kivo/Entity.h"
#include "Orbo/TaskScheduler.h"
#include "Pelto/UdpPam.h"

namespace FlowTracking {

class CollectorInfo : public Kivo::Object {
 public:
   explicit CollectorInfo(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }

   // Sequence number of the next message to this collector.
   KIVO_ATTR(Ipfix::IpfixMsgSeqNo, ipfixMsgSeqNo, IpfixMsgSeqNo);
   // Whether the options templates have been sent to this collector.
   KIVO_ATTR(bool, optTemplateSent, OptTemplateSent);

 public:
   // Adds `delta` modulo 2^32 and returns the new value; a zero delta notifies nobody.
   Ipfix::IpfixMsgSeqNo ipfixMsgSeqNoInc(Ipfix::IpfixMsgSeqNo delta) {
      Ipfix::IpfixMsgSeqNo const next = ipfixMsgSeqNo() + delta;
      ipfixMsgSeqNoIs(next);
      return next;
   }

 private:
   Kivo::String name_;
};

class ExporterInfo : public Kivo::Object {
 public:
   explicit ExporterInfo(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }

   KIVO_ATTR(Kivo::Ptr<Pelto::UdpPam>, udpPam4, UdpPam4);
   KIVO_ATTR(Kivo::Ptr<Pelto::UdpPam>, udpPam6, UdpPam6);
   KIVO_ATTR(std::uint16_t, rxPort4, RxPort4);
   KIVO_ATTR(std::uint16_t, rxPort6, RxPort6);
   // IPv4 and IPv6 collectors share this collection.
   KIVO_ENTITIES(Kivo::String, CollectorInfo, collInfo, CollInfo);

 private:
   Kivo::String name_;
};

// An address family. Everything in which IPv4 and IPv6 differ is in FamilyTraits<f>: the address
// types, the digit in the names of the family's modules and traces, and which attributes of the
// exporter configuration and of a module holder belong to it. Code that handles both families is
// written once, over a family.
enum class Family : std::uint8_t { v4, v6 };

template <Family f>
struct FamilyTraits;

// The platform names every per-family attribute by the family's digit (srcIp4, udpPam6, ...) and
// the address types by an infix ("" for IPv4, "6" for IPv6), so both families are described by
// the one text below. The accessors on a holder `H` serve every holder of one module per family:
// ExporterInfo, LocalCollectorPams, and for the port also ExporterConfig.
#define FLOWTRACKING_FAMILY_TRAITS_(F, D, X, TEXT)                                               \
   template <>                                                                                   \
   struct FamilyTraits<Family::F> {                                                              \
      static constexpr Family family = Family::F;                                                \
      using Addr = Pelto::Ip##X##Addr;                                                           \
      using AddrAndPort = Pelto::Ip##X##AndPort;                                                 \
      using Config = HwFlowTracking::ExporterConfig;                                             \
      static constexpr bool ipv6 = Family::F == Family::v6;                                      \
      static constexpr char const* digit = #D;                                                   \
      static constexpr char const* text = TEXT;                                                  \
                                                                                                 \
      static Addr const& srcIp(Config const& c) { return c.srcIp##D(); }                         \
      static Kivo::Signal<> const& onSrcIp(Config const& c) { return c.onSrcIp##D(); }           \
      static bool resolved(Config const& c) { return c.exporter##D##Resolved(); }                \
      static Kivo::Signal<> const& onResolved(Config const& c) {                                 \
         return c.onExporter##D##Resolved();                                                     \
      }                                                                                          \
      static auto const& collectors(Config const& c) { return c.collector##D##Coll(); }          \
      static AddrAndPort const* collector(Config const& c, Kivo::String const& name) {           \
         return c.collector##D(name);                                                            \
      }                                                                                          \
      static Kivo::Signal<Kivo::String> const& onCollector(Config const& c) {                    \
         return c.onCollector##D();                                                              \
      }                                                                                          \
      static void resolvedIs(Config& c, bool r) { c.exporter##D##ResolvedIs(r); }                \
      static bool ready(Config const& c) { return c.exporter##D##Ready(); }                      \
      static void readyIs(Config& c, bool ready) { c.exporter##D##ReadyIs(ready); }              \
      static Kivo::Signal<> const& onReady(Config const& c) { return c.onExporter##D##Ready(); } \
                                                                                                 \
      template <class H>                                                                         \
      static Kivo::Ptr<Pelto::UdpPam> const& udpPam(H const& h) {                                \
         return h.udpPam##D();                                                                   \
      }                                                                                          \
      template <class H>                                                                         \
      static void udpPamIs(H& h, Kivo::Ptr<Pelto::UdpPam> pam) {                                 \
         h.udpPam##D##Is(std::move(pam));                                                        \
      }                                                                                          \
      template <class H>                                                                         \
      static Kivo::Signal<> const& onUdpPam(H const& h) {                                        \
         return h.onUdpPam##D();                                                                 \
      }                                                                                          \
      template <class H>                                                                         \
      static bool udpPamReady(H const& h) {                                                      \
         return h.udpPam##D##Ready();                                                            \
      }                                                                                          \
      template <class H>                                                                         \
      static void udpPamReadyIs(H& h, bool ready) {                                              \
         h.udpPam##D##ReadyIs(ready);                                                            \
      }                                                                                          \
      template <class H>                                                                         \
      static std::uint16_t rxPort(H const& h) {                                                  \
         return h.rxPort##D();                                                                   \
      }                                                                                          \
      template <class H>                                                                         \
      static void rxPortIs(H& h, std::uint16_t port) {                                           \
         h.rxPort##D##Is(port);                                                                  \
      }                                                                                          \
      template <class H>                                                                         \
      static Kivo::Signal<> const& onRxPort(H const& h) {                                        \
         return h.onRxPort##D();                                                                 \
      }                                                                                          \
                                                                                                 \
      /* The address a bound module listens at. */                                               \
      static void bindAddrIs(Pelto::UdpPam& pam, Addr const& a) { pam.rxIp##X##AddrIs(a); }      \
      static void send(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,    \
                       Addr const& src, AddrAndPort const& dst, Pelto::DscpValue dscp) {         \
         sendPkt##D(pkt, pam, src, dst, dscp);                                                   \
      }                                                                                          \
   }

FLOWTRACKING_FAMILY_TRAITS_(v4, 4, , "IPv4");
FLOWTRACKING_FAMILY_TRAITS_(v6, 6, 6, "IPv6");
#undef FLOWTRACKING_FAMILY_TRAITS_

// The member of a per-family pair of a class's own state (`v4`, `v6`) that belongs to `f`.
template <Family f, class T4, class T6>
constexpr auto& familyPick(T4& v4, T6& v6) {
   if constexpr (f == Family::v4) {
      return v4;
   } else {
      return v6;
   }
}

// Runs `fn(FamilyTraits<f>{})` for IPv4, then for IPv6.
template <class Fn>
void forEachFamily(Fn&& fn) {
   fn(FamilyTraits<Family::v4>{});
   fn(FamilyTraits<Family::v6>{});
}

// Runs `fn(FamilyTraits<f>{})` for the family `f` known only at run time.
template <class Fn>
decltype(auto) withFamily(Family f, Fn&& fn) {
   return f == Family::v4 ? fn(FamilyTraits<Family::v4>{}) : fn(FamilyTraits<Family::v6>{});
}

class FlowTrackerInfo : public Kivo::Object {
 public:
   explicit FlowTrackerInfo(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }
   KIVO_ENTITIES(Kivo::String, ExporterInfo, expInfo, ExpInfo);

 private:
   Kivo::String name_;
};

class FlowTrackingInfo : public Kivo::Object {
 public:
   explicit FlowTrackingInfo(FlowTrackingType ftrType) : ftrType_(ftrType) {}
   FlowTrackingType ftrType() const { return ftrType_; }
   KIVO_ENTITIES(Kivo::String, FlowTrackerInfo, ftInfo, FtInfo);

 private:
   FlowTrackingType ftrType_;
};

// Keeps one exporter's packet access modules, collector records and readiness.
//
// A family's module is opened when its source is resolved, and again when the VRF changes. When it
// cannot be opened (Kivo::ErrnoException: no such namespace, no socket; Kivo::RangeException: a
// VRF name that cannot name a namespace) the failure is traced ("Caught ErrnoException: " /
// "Caught RangeException: " and the text) and the family stays without a module, hence not ready,
// until the next change of its resolved flag or of the VRF. Such failures never leave the state
// machine: the constructor and the handlers do not throw them, so one exporter's broken VRF does
// not stop the others or the tree above it.
class ExporterInfoSm : public Kivo::Object {
 public:
   ExporterInfoSm(FlowTrackingType ftrType, Kivo::String ftName, Kivo::String expName,
                  Kivo::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                  Kivo::Ptr<ExporterInfo> expInfo, Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                  Kivo::Ptr<Ipfix::AgentInfo const> agentInfo);
   ~ExporterInfoSm() override;

   Kivo::String traceId() const { return ftName_ + " for " + expName_; }
   bool initialized() const { return initialized_; }

   void handleInitialized();
   void handleCollector(Kivo::String const& name);
   // The steps of one family, under the names they are known by.
   void handleCollector4() { handleCollectors_p<Family::v4>(); }
   void handleCollector6() { handleCollectors_p<Family::v6>(); }
   void handlePam4Management() { handlePamManagement_p<Family::v4>(); }
   void handlePam6Management() { handlePamManagement_p<Family::v6>(); }
   void handleVrfName();
   void handlePam();
   void handleDestroyed();

 private:
   // Open a new module for the family and store it; throw (after tracing) when it cannot be opened,
   // storing nothing.
   void createPam4() { createPam_p<Family::v4>(); }
   void createPam6() { createPam_p<Family::v6>(); }
   void deletePam4() { deletePam_p<Family::v4>(); }
   void deletePam6() { deletePam_p<Family::v6>(); }

   template <Family f>
   void handleCollectors_p();
   template <Family f>
   void handlePamManagement_p();
   template <Family f>
   void createPam_p();
   template <Family f>
   void deletePam_p();
   template <Family f>
   void publishReady_p();

   FlowTrackingType ftrType_;
   Kivo::String ftName_;
   Kivo::String expName_;
   Kivo::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig_;
   Kivo::Ptr<ExporterInfo> expInfo_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   Kivo::Ptr<Ipfix::AgentInfo const> agentInfo_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

class FlowTrackerInfoSm : public Kivo::Object {
 public:
   FlowTrackerInfoSm(FlowTrackingType ftrType, Kivo::String ftName,
                     Kivo::Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                     Kivo::Ptr<FlowTrackerInfo> ftInfo, Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                     Kivo::Ptr<Ipfix::AgentInfo const> agentInfo);

   bool initialized() const { return initialized_; }
   void handleInitialized();
   void handleHwExpConfig(Kivo::String const& expName);

   Kivo::Ptr<ExporterInfoSm> expInfoSm(Kivo::String const& expName) const {
      return expInfoSm_.get(expName);
   }

 private:
   Kivo::Ptr<ExporterInfoSm> expInfoSmIs(Kivo::String const& expName,
                                         Kivo::Ptr<HwFlowTracking::ExporterConfig> const& cfg,
                                         Kivo::Ptr<ExporterInfo> const& info);
   void expInfoSmDel(Kivo::String const& expName) { expInfoSm_.del(expName); }

   FlowTrackingType ftrType_;
   Kivo::String ftName_;
   Kivo::Ptr<HwFlowTracking::FtConfig> hwFtConfig_;
   Kivo::Ptr<FlowTrackerInfo> ftInfo_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   Kivo::Ptr<Ipfix::AgentInfo const> agentInfo_;
   Kivo::Coll<Kivo::String, ExporterInfoSm> expInfoSm_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

class FlowTrackingInfoSm : public Kivo::Object {
 public:
   FlowTrackingInfoSm(Kivo::Ptr<Orbo::TaskSchedulerRoot> scheduler,
                      Kivo::Ptr<HwFlowTracking::Config> hwConfig,
                      Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo,
                      Kivo::Ptr<Ipfix::AgentInfo const> agentInfo);
   ~FlowTrackingInfoSm() override;

   bool initialized() const { return initialized_; }
   void handleInitialized();
   void handleHwFtConfig(Kivo::String const& ftName);

   Kivo::Ptr<FlowTrackerInfoSm> ftInfoSm(Kivo::String const& ftName) const {
      return ftInfoSm_.get(ftName);
   }

 private:
   void ftInfoSmDel(Kivo::String const& ftName) { ftInfoSm_.del(ftName); }

   Kivo::Ptr<Orbo::TaskSchedulerRoot> scheduler_;
   Kivo::Ptr<HwFlowTracking::Config> hwConfig_;
   Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo_;
   Kivo::Ptr<Ipfix::AgentInfo const> agentInfo_;
   Kivo::Coll<Kivo::String, FlowTrackerInfoSm> ftInfoSm_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

// Log messages the agent emits when an exporter becomes ready or stops being ready. The format
// takes, in order: the address family ("IPv4"/"IPv6"), the exporter, the VRF, the flow tracking
// type and the tracker.
struct LogMessage {
   std::string_view name;
   int severity;
   std::string_view format;
   std::string_view explanation;
   std::string_view recommendedAction;
};

inline constexpr LogMessage flowTrackingExporterActive{
    "FLOWTRACKING_EXPORTER_ACTIVE", 6, "%s exporter %s in VRF %s, in %s flow tracker %s is active.",
    "This exporter is ready to export packets.", "none required"};
inline constexpr LogMessage flowTrackingExporterInactive{
    "FLOWTRACKING_EXPORTER_INACTIVE", 6,
    "%s exporter %s in VRF %s, in %s flow tracker %s is inactive.",
    "This exporter is not ready to export packets.",
    "Ensure that both the local interface, and at least one collector, have been configured, and "
    "that both have valid IP addresses."};

// The message text with its five arguments filled in.
Kivo::String formatLogMessage(LogMessage const& msg, std::string_view family, std::string_view exp,
                              std::string_view vrf, std::string_view ftrType,
                              std::string_view tracker);

}  // namespace FlowTracking
