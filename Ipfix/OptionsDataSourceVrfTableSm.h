// The VRF table options data: which name belongs to each VRF id that flow records carry
// (ingressVRFID / egressVRFID).
//
// VrfTableSm follows Vrf::VrfIdMap::Status and keeps one data record per VRF in its
// OptionsDataSource, beside one fixed record for VRF id 0xFFFFFF with an empty name, and posts
// every new or renamed VRF to the global OptionsDataUpdate. A removed VRF is never posted: it only
// leaves the table.
//
// Record layout (value octets of one data record of the VRF table's options template):
//   0  4  VRF id, network order               (scope field ingressVRFID)
//   4  1  name length L, 0..254               (VRFname, short variable-length form)
//   5  L  name octets, no terminator
// Unlike an interface name, a VRF name may be empty; the fixed record is 00 FF FF FF 00.
#pragma once

#include <cstdint>
#include <map>

#include "Ipfix/OptionsDataExporter.h"
#include "Ipfix/OptionsTemplate.h"
#include "Vrf/VrfIdMap.h"

namespace FlowTracking {

class VrfTableSm : public Kivo::Object {
 public:
   // VRF id of the fixed, empty-named record.
   static constexpr Vrf::VrfIdMap::VrfId fixedVrfId() { return 0xFFFFFF; }

   // Builds the whole table (every VRF and the fixed record) before returning.
   VrfTableSm(Kivo::Ptr<OptionsDataSource> dataSource, Kivo::Ptr<OptionsDataUpdate> dataUpdate,
              Kivo::Ptr<Vrf::VrfIdMap::Status const> vrfIdMapStatus);
   ~VrfTableSm() override;

   // Template id of the VRF table's options template; updates are posted under it.
   static TemplateId setId();
   // The longest record the VRF table can give: VRF id, length octet and a name of the most
   // octets a VRF name has. The layout itself has room for 254.
   static constexpr std::uint32_t maxDataRecordLen() {
      return static_cast<std::uint32_t>(
          recordLen(vrfTable.fields, Vrf::VrfIdMap::VrfName::maxLength));
   }

   void handleInitialized();
   // Full rebuild of the data source; bumps its version once.
   void handleVrfIndexAll();
   // One VRF was added, renamed or removed.
   void handleVrfIndex(Vrf::VrfIdMap::VrfId vrfId);

 private:
   friend struct VrfTableSmProbe;

   Kivo::Ptr<OptionsDataSource> const& dataSource() const { return dataSource_; }
   TemplateId setIdVal() const { return setIdVal_; }
   void setIdValIs(TemplateId id) { setIdVal_ = id; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   // The record published for each VRF; the fixed record is not here.
   DataRecordPtr dataRecord(Vrf::VrfIdMap::VrfId vrfId) const;
   std::size_t dataRecords() const { return dataRecord_.size(); }
   void dataRecordIs(Vrf::VrfIdMap::VrfId vrfId, DataRecordPtr const& record);
   void dataRecordDel(Vrf::VrfIdMap::VrfId vrfId);
   void dataRecordDelAll() { dataRecord_.clear(); }

   // The record of one VRF. Aborts for a name of 255 octets or more.
   DataRecordPtr makeDataRecord(Vrf::VrfIdMap::VrfId vrfId, Kivo::String const& name) const;

   Kivo::Ptr<OptionsDataSource> dataSource_;
   Kivo::Ptr<OptionsDataUpdate> dataUpdate_;
   Kivo::Ptr<Vrf::VrfIdMap::Status const> vrfIdMapStatus_;
   TemplateId setIdVal_;
   std::map<Vrf::VrfIdMap::VrfId, DataRecordPtr> dataRecord_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

Kivo::Ptr<VrfTableSm> vrfTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<Vrf::VrfIdMap::Status const> const& vrfIdMapStatus);

}  // namespace FlowTracking
