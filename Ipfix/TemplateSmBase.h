// TemplateExporterSmBase: sends one template message of one (tracker, exporter) to every collector
// of the exporter: when the template becomes ready, when a collector gains or changes its address,
// and every template interval.
//
// A subclass builds the template records into a packet from getPkt() (back to back, lengths
// recorded with templateLenIs) and calls finishMessage(), which puts the message and set headers
// in front and sends. The message is built once per change and sent as is to every collector,
// restamped per send with the export time and that collector's current sequence number; template
// messages never advance sequence numbers. Each send is counted in the collector statistics, and
// after it the module's local port is stored in the exporter info, which makes the exporter ready.
//
// Subclasses provide taskPrefix(), headerSetId() and may override updateCollectorOnTx(). They call
// handleStartup() from their own handleInitialized(). A removed exporter leaves no statistics
// entries behind (handleDel runs on destruction).
#pragma once

#include <map>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Kivo/Entity.h"
#include "Orbo/TaskScheduler.h"
#include "Pelto/Pkt.h"

namespace FlowTracking {

class TemplateExporterSmBase : public Kivo::Object {
 public:
   TemplateExporterSmBase(Kivo::String expName, Kivo::String ftName, FtId ftId,
                          Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig,
                          Kivo::Ptr<ExporterInfo> expInfo,
                          Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                          Kivo::Ptr<Orbo::TaskScheduler> taskScheduler);
   ~TemplateExporterSmBase() override;

   Kivo::String const& expName() const { return expName_; }
   Kivo::String const& ftName() const { return ftName_; }
   Kivo::String traceId() const { return ftName_ + " for " + expName_; }

   // Setting it runs handleTemplateReady() when it changes.
   KIVO_ATTR(bool, templateReady, TemplateReady);

 public:
   void handleStartup();
   void handleTemplateReady();
   void handleTemplateInterval();
   void handlePeriodicTemplateTx();
   // A collector of the exporter configuration (IPv4 / IPv6) was added, changed or removed: its
   // old address loses its statistics entry, a collector with an address gets the template at
   // once, and with no collector left in either family the periodic task stops.
   void handleCollectorIpAndPort(Kivo::String const& name);
   void handleCollectorIp6AndPort(Kivo::String const& name);
   void handleDel();

 protected:
   // For the subclass building the template records.
   void templatePktIs(Kivo::Ptr<Pelto::Pkt> p) { templatePkt_ = std::move(p); }
   void templatePktTemplateCountIs(std::uint16_t n) { templatePktTemplateCount_ = n; }
   void templateLenIs(TemplateId id, std::uint32_t len) { templateLen_[id] = len; }
   void templateLenDelAll() { templateLen_.clear(); }
   // An empty packet with room for any template message and for the headers in front of it.
   Kivo::Ptr<Pelto::Pkt> getPkt() const;
   // Completes the message from the records in templatePkt_ and sends it where sending is due.
   // REQUIRES: templatePkt_ holds exactly the records whose lengths templateLen_ records.
   void finishMessage();

   // Name prefix of the periodic task, and the set id of the template set.
   virtual Kivo::String taskPrefix() const;
   virtual std::uint16_t headerSetId() const;
   // Called after each send to a collector.
   virtual void updateCollectorOnTx(Kivo::String const& collector);

   Kivo::Ptr<HwFlowTracking::ExporterConfig const> const& hwExpConfig() const {
      return hwExpConfig_;
   }
   Kivo::Ptr<ExporterInfo> const& expInfo() const { return expInfo_; }
   Kivo::Ptr<Orbo::TaskScheduler> const& taskScheduler() const { return taskScheduler_; }

 private:
   friend struct TemplateExporterSmBaseProbe;

   void addIpfixHeaders_p();
   // Every step that differs between the address families is written once, over a family; the
   // family's own state is picked from the pairs below.
   template <Family f>
   auto& collectorAddr_p();
   template <Family f>
   bool& sending_p();
   template <Family f>
   bool otherSending_p() const;
   template <Family f>
   bool canSend_p() const;
   template <Family f>
   void maybeTxTemplate_p();
   template <Family f>
   void doTxTemplate_p(typename FamilyTraits<f>::AddrAndPort const& dst,
                       Kivo::String const& collector);
   template <Family f>
   void mirrorCollector_p(Kivo::String const& name);
   template <Family f>
   void handleCollector_p(Kivo::String const& name);
   void maybeTxTemplate_p();
   void updateMsgHeader_p(Kivo::String const& collector);
   void updateStats(Mirra::Ipfix::CollectorInfo const& collector);
   void schedulePeriodicTemplateTx_p();
   void stopPeriodicTemplateTx_p();

   Kivo::String expName_;
   Kivo::String ftName_;
   FtId ftId_;
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig_;
   Kivo::Ptr<ExporterInfo> expInfo_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   Kivo::Ptr<Orbo::TaskScheduler> taskScheduler_;

   Kivo::Ptr<Pelto::Pkt> templatePkt_;
   std::uint16_t templatePktMsgLen_ = 0;
   std::uint16_t templatePktTemplateCount_ = 0;
   std::map<TemplateId, std::uint32_t> templateLen_;
   std::map<Kivo::String, std::uint32_t> exportTimeU32_;
   std::map<Kivo::String, Pelto::IpAndPort> collectorIpAndPort_;
   std::map<Kivo::String, Pelto::Ip6AndPort> collectorIp6AndPort_;
   std::uint32_t templateTxCount_ = 0;
   Kivo::Ptr<Orbo::Task> periodicTemplateTxTask_;
   bool sending4_p = false;
   bool sending6_p = false;
   Kivo::Reactor reactor_;
};

}  // namespace FlowTracking
