// The flow key options data: for every data template of a tracker, which of its fields make up
// the flow key (the IPFIX flow key indicator, RFC 7011 section 4.4).
//
// FlowKeySm follows the tracker's hardware template status and keeps one data record per
// template in the tracker's OptionsDataSource. A template that is added or whose genId changes
// gets its record rebuilt and posted to the tracker's OptionsDataUpdate; a removed template only
// leaves the table. A template that mixes IPv4 and IPv6 address fields is still being set up by
// the hardware and gets no record until it changes again.
//
// Record layout (value octets of one data record, network order):
//   0  2  template id of the described template   (scope field templateId)
//   2  8  flow key bitmap                          (flowKeyIndicator)
// Field position p sets bit p of the bitmap. The bit is computed as a 32-bit signed one shifted
// by p modulo 32 and sign-extended to 64 bits, which is what collectors of this system have always
// received: position 31 sets bits 31 to 63, and positions 32 to 63 set the bits of positions 0 to
// 31. Keep it that way; a plain 64-bit shift would change the values on the wire.
#pragma once

#include <cstdint>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/OptionsDataExporter.h"
#include "Ipfix/OptionsTemplate.h"
#include "Kivo/DenseMap.h"

namespace FlowTracking {

class FlowKeySm : public Kivo::Object {
 public:
   // Publishes the records of every template present before returning.
   FlowKeySm(Kivo::Ptr<OptionsDataSource> dataSource, Kivo::Ptr<OptionsDataUpdate> dataUpdate,
             Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus);
   ~FlowKeySm() override;

   // Template id of the flow key's options template; updates are posted under it.
   static TemplateId setId();
   // Every record: template id and the 64-bit bitmap.
   static constexpr std::uint32_t maxDataRecordLen() {
      return static_cast<std::uint32_t>(recordLen(flowKeyTable.fields, 0));
   }

   // Full rebuild of the data source; bumps its version once.
   void handleInitialized();
   // An entry of hwFtStatus's templateStatus was added or removed.
   void handleTemplateStatus(TemplateId templateId);
   void handleTemplateDel(TemplateId templateId);
   // Republishes one template's record (or drops it when the template is gone).
   void handleTemplate(TemplateId templateId);

 private:
   friend struct FlowKeySmProbe;

   // The flow key bitmap bit(s) that the field at `position` sets.
   static std::uint64_t flowKeyBit(std::uint32_t position);

   Kivo::Ptr<OptionsDataSource> const& dataSource() const { return dataSource_; }
   TemplateId setIdVal() const { return setIdVal_; }
   void setIdValIs(TemplateId id) { setIdVal_ = id; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   // One reactor per template, following its genId.
   bool templateStatus(TemplateId templateId) const { return templateStatus_.contains(templateId); }
   void templateStatusIs(Kivo::Ptr<HwFlowTracking::TemplateStatus const> const& templateStatus);
   // Points an empty reactor at the template's genId.
   void follow_p(Kivo::Reactor& reactor, HwFlowTracking::TemplateStatus const& templateStatus);
   void templateStatusDel(TemplateId templateId) { templateStatus_.erase(templateId); }
   void templateStatusDelAll() { templateStatus_.clear(); }

   // The record published for each template.
   DataRecordPtr dataRecord(TemplateId templateId) const;
   std::size_t dataRecords() const { return dataRecord_.size(); }
   void dataRecordIs(TemplateId templateId, DataRecordPtr const& record);
   void dataRecordDel(TemplateId templateId) { dataRecord_.erase(templateId); }
   void dataRecordDelAll() { dataRecord_.clear(); }

   // The record of a template present in hwFtStatus; null when its address families are mixed
   // (or it is not present).
   DataRecordPtr makeDataRecord(TemplateId templateId) const;
   // The same from the template's status, already found (a full build walks them all).
   DataRecordPtr makeDataRecord_p(TemplateId templateId,
                                  HwFlowTracking::TemplateStatus const& templateStatus) const;

   Kivo::Ptr<OptionsDataSource> dataSource_;
   Kivo::Ptr<OptionsDataUpdate> dataUpdate_;
   Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus_;
   TemplateId setIdVal_;
   // Entries in one array each: a build adds one per template without allocating per entry.
   Kivo::DenseMap<TemplateId, Kivo::Reactor> templateStatus_;
   Kivo::DenseMap<TemplateId, DataRecordPtr> dataRecord_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

Kivo::Ptr<FlowKeySm> flowKeySmFactory(Kivo::Ptr<OptionsDataSource> const& dataSource,
                                      Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
                                      Kivo::Ptr<HwFlowTracking::FtStatus const> const& hwFtStatus);

}  // namespace FlowTracking
