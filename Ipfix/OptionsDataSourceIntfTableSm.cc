#include "Ipfix/OptionsDataSourceIntfTableSm.h"

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("InterfaceTableSm"))

namespace FlowTracking {

namespace {

// The index is written in the width its element has, and the name's length in one octet.
using U8 = std::uint8_t;
using U32 = std::uint32_t;
static_assert(intfTable.fields[0].len == sizeof(U32) && intfTable.fields[1].isVarLen());

}  // namespace

Kivo::Ptr<IntfIndexMap> intfIndexMapFactory() {
   return Kivo::make<IntfIndexMap>();
}

InterfaceTableSm::InterfaceTableSm(Kivo::Ptr<OptionsDataSource> dataSource,
                                   Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                                   Kivo::Ptr<IntfIndexMap const> intfIndexMap)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      intfIndexMap_(std::move(intfIndexMap)) {
   reactor_.watch(intfIndexMap_->onIntfIndex(),
                  [this](Pelto::IntfId const& intfId) { handleIntfId(intfId); });
   setIdValIs(setId());
   initializedIs(false);
   handleInitialized();
}

InterfaceTableSm::~InterfaceTableSm() {
   reactor_.reset();
   dataRecordDelAll();
}

TemplateId InterfaceTableSm::setId() {
   return intfTable.templateId();
}

DataRecordPtr InterfaceTableSm::dataRecord(Pelto::IntfId const& intfId) const {
   return DataRecordPtr(dataRecord_.find(intfId.stringValue()));
}

void InterfaceTableSm::dataRecordIs(Pelto::IntfId const& intfId, DataRecordPtr const& record) {
   KIVO_ASSERT(nameOf(*record) == intfId.stringValue());
   dataRecord_.insert(*record);
}

void InterfaceTableSm::dataRecordDel(Pelto::IntfId const& intfId) {
   dataRecord_.erase(intfId.stringValue());
}

DataRecordPtr InterfaceTableSm::makeDataRecord(Kivo::String const& intfName,
                                               std::uint32_t intfIndex) const {
   std::size_t const intfNameLen = intfName.size();
   KIVO_ASSERT(intfNameLen < 255);
   RecordWriter w(intfTable.fields, intfNameLen);
   auto const& [pos, max] = w.cursor();
   // clang-format off
   KIVO_ASSERT(pos + sizeof( U32 ) < max);
   w.add(intfIndex);
   // The strict bound refuses an empty name: it leaves no octet after the length.
   KIVO_ASSERT(pos + sizeof( U8 ) < max);
   // clang-format on
   w.addLength(intfNameLen);
   KIVO_ASSERT(pos + intfNameLen == max);
   w.addOctets(intfName);
   KIVO_ASSERT(pos == max);
   return w.dataRecord();
}

void InterfaceTableSm::handleInitialized() {
   initializedIs(true);
   KTRACE(5, "InterfaceTableSm::handleInitialized for "
                 << dataSource_->sourceName()
                 << " map count:" << intfIndexMap_->intfIndexColl().size());
   dataSource_->dataRecordDelAll();
   dataRecordDelAll();
   std::size_t const interfaces = intfIndexMap_->intfIndexColl().size();
   dataSource_->dataRecordReserve(interfaces + IntfIndexMap::numReservedIntfs());
   {
      // The local table was just emptied and the map has each interface once.
      DataRecordIndex<&nameOf>::Filler filler(dataRecord_, interfaces);
      for (auto const& [intfId, intfIndex] : intfIndexMap_->intfIndexColl()) {
         DataRecordPtr const record = makeDataRecord(intfId.stringValue(), intfIndex);
         dataSource_->dataRecordIs(record);
         filler.add(*record);
      }
   }
   // Indexes the hardware reports for traffic that has no ordinary interface.
   struct Reserved {
      std::string_view name;
      std::uint32_t index;
   };
   Reserved const reserved[] = {
       {IntfIndexMap::multicastIntfName(), IntfIndexMap::multicastIntfIndex()},
       {IntfIndexMap::discardIntfName(), IntfIndexMap::discardIntfIndex()},
       {IntfIndexMap::cpuIntfName(), IntfIndexMap::cpuIntfIndex()},
       {IntfIndexMap::unknownIntfName(), IntfIndexMap::unknownIntfIndex()},
   };
   static_assert(std::size(reserved) == IntfIndexMap::numReservedIntfs());
   for (Reserved const& r : reserved) {
      dataSource_->dataRecordIs(makeDataRecord(Kivo::String(r.name), r.index));
   }
   // The exporters resend the whole table; nothing is posted as an update.
   dataSource_->versionInc(1);
}

void InterfaceTableSm::handleIntfId(Pelto::IntfId const& intfId) {
   KTRACE(5, "InterfaceTableSm::handleIntfId for " << dataSource_->sourceName() << " "
                                                   << intfId.stringValue());
   KIVO_ASSERT(initialized());
   if (DataRecordPtr const old = dataRecord(intfId)) {
      dataSource_->dataRecordDel(old);
      dataRecordDel(intfId);
   }
   if (std::uint32_t const* intfIndex = intfIndexMap_->intfIndex(intfId)) {
      DataRecordPtr const record = makeDataRecord(intfId.stringValue(), *intfIndex);
      KTRACE(6, "intfId: " << intfId.stringValue() << ", index: " << *intfIndex);
      dataUpdate_->addUpdate(setIdVal(), record);
      dataSource_->dataRecordIs(record);
      dataRecordIs(intfId, record);
   } else {
      // A removal is not posted: the interface only leaves the full table.
      KTRACE(6, "intfId: " << intfId.stringValue() << ", index not present. ");
   }
   // clang-format off
   KIVO_ASSERT(( dataRecords() + intfIndexMap()->numReservedIntfs() ) == dataSource()->dataRecords());
   // clang-format on
   dataSource_->versionInc(1);
}

Kivo::Ptr<InterfaceTableSm> interfaceTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<IntfIndexMap const> const& intfIndexMap) {
   return Kivo::make<InterfaceTableSm>(dataSource, dataUpdate, intfIndexMap);
}

}  // namespace FlowTracking
