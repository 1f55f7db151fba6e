#include "Ipfix/OptionsDataSourceVrfTableSm.h"

#include <string_view>

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("VrfTableSm"))

namespace FlowTracking {

namespace {

using U8 = std::uint8_t;
using U32 = std::uint32_t;

// The octets a name takes in a record. The record has room for 254 of them whatever the VRF
// table itself allows, so the bound is checked on the octets and not by the table's own type.
struct RecordName {
   std::string_view text;
   std::size_t bytes() const { return text.size(); }
};

// The VRF id is written in the width its element has, and the name's length in one octet.
static_assert(vrfTable.fields[0].len == sizeof(U32) && vrfTable.fields[1].isVarLen());

}  // namespace

VrfTableSm::VrfTableSm(Kivo::Ptr<OptionsDataSource> dataSource,
                       Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                       Kivo::Ptr<Vrf::VrfIdMap::Status const> vrfIdMapStatus)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)) {
   reactor_.watch(vrfIdMapStatus_->onVrfName(),
                  [this](Vrf::VrfIdMap::VrfId vrfId) { handleVrfIndex(vrfId); });
   setIdValIs(setId());
   initializedIs(false);
   handleInitialized();
}

VrfTableSm::~VrfTableSm() {
   reactor_.reset();
   dataRecordDelAll();
}

TemplateId VrfTableSm::setId() {
   return vrfTable.templateId();
}

DataRecordPtr VrfTableSm::dataRecord(Vrf::VrfIdMap::VrfId vrfId) const {
   auto it = dataRecord_.find(vrfId);
   return it == dataRecord_.end() ? nullptr : it->second;
}

void VrfTableSm::dataRecordIs(Vrf::VrfIdMap::VrfId vrfId, DataRecordPtr const& record) {
   dataRecord_[vrfId] = record;
}

void VrfTableSm::dataRecordDel(Vrf::VrfIdMap::VrfId vrfId) {
   dataRecord_.erase(vrfId);
}

DataRecordPtr VrfTableSm::makeDataRecord(Vrf::VrfIdMap::VrfId vrfId,
                                         Kivo::String const& name) const {
   RecordName const vrfName{name};
   KIVO_ASSERT(vrfName.bytes() < 255);
   U8 const vrfNameLen = static_cast<U8>(vrfName.bytes());
   RecordWriter w(vrfTable.fields, vrfNameLen);
   auto const& [pos, max] = w.cursor();
   // clang-format off
   KIVO_ASSERT(pos + sizeof( U32 ) < max);
   w.add(vrfId);
   // Not strict, unlike the interface table: an empty name is a valid record.
   KIVO_ASSERT(pos + sizeof( vrfNameLen ) <= max);
   // clang-format on
   w.addLength(vrfNameLen);
   KIVO_ASSERT(pos + vrfNameLen == max);
   w.addOctets(vrfName.text);
   KIVO_ASSERT(pos == max);
   return w.dataRecord();
}

void VrfTableSm::handleInitialized() {
   KTRACE(5, "VrfTableSm::handleInitialized for " << dataSource_->sourceName());
   initializedIs(true);
   handleVrfIndexAll();
}

void VrfTableSm::handleVrfIndexAll() {
   KIVO_ASSERT(initialized());
   KTRACE(5, "VrfTableSm::handleVrfIndexAll for " << dataSource_->sourceName()
                                                  << " vrf count:" << vrfIdMapStatus_->vrfNames());
   dataSource_->dataRecordDelAll();
   dataRecordDelAll();
   dataSource_->dataRecordIs(makeDataRecord(fixedVrfId(), Kivo::String()));
   for (auto const& [vrfId, vrfName] : vrfIdMapStatus_->vrfNameColl()) {
      DataRecordPtr const record = makeDataRecord(vrfId, vrfName.value());
      dataSource_->dataRecordIs(record);
      dataRecordIs(vrfId, record);
   }
   // clang-format off
   KIVO_ASSERT(( dataRecords() + 1 ) == dataSource()->dataRecords());
   // clang-format on
   // The exporters resend the whole table; nothing is posted as an update.
   dataSource_->versionInc(1);
}

void VrfTableSm::handleVrfIndex(Vrf::VrfIdMap::VrfId vrfId) {
   KTRACE(5, "VrfTableSm::handleVrfIndex for " << dataSource_->sourceName() << " " << vrfId);
   KIVO_ASSERT(initialized());
   if (DataRecordPtr const old = dataRecord(vrfId)) {
      dataSource_->dataRecordDel(old);
      dataRecordDel(vrfId);
   }
   if (Vrf::VrfIdMap::VrfName const* vrfName = vrfIdMapStatus_->vrfName(vrfId)) {
      DataRecordPtr const record = makeDataRecord(vrfId, vrfName->value());
      KTRACE(6, "vrfIndex: " << vrfId << ", name: " << vrfName->value());
      dataUpdate_->addUpdate(setIdVal(), record);
      dataSource_->dataRecordIs(record);
      dataRecordIs(vrfId, record);
   } else {
      // A removal is not posted: the VRF only leaves the full table.
      KTRACE(6, "vrfIndex: " << vrfId << ", name not present. ");
   }
   // clang-format off
   KIVO_ASSERT(( dataRecords() + 1 ) == dataSource()->dataRecords());
   // clang-format on
   dataSource_->versionInc(1);
}

Kivo::Ptr<VrfTableSm> vrfTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<Vrf::VrfIdMap::Status const> const& vrfIdMapStatus) {
   return Kivo::make<VrfTableSm>(dataSource, dataUpdate, vrfIdMapStatus);
}

}  // namespace FlowTracking
