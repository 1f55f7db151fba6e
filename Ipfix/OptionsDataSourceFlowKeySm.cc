#include "Ipfix/OptionsDataSourceFlowKeySm.h"

#include <charconv>
#include <string_view>

#include "Pelto/Endian.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("FlowKeySm"))

namespace FlowTracking {

namespace {

enum class AddressFamily { none, ipv4, ipv6 };

// The address family that a field's element implies: source and destination addresses.
AddressFamily addressFamily(Ipfix::RecordType fieldId) {
   using Ipfix::element;
   switch (fieldId) {
      case element("sourceIPv4Address"):
      case element("destinationIPv4Address"):
         return AddressFamily::ipv4;
      case element("sourceIPv6Address"):
      case element("destinationIPv6Address"):
         return AddressFamily::ipv6;
      default:
         return AddressFamily::none;
   }
}

// A bitmap in hexadecimal, formatted without allocating.
class Hex {
 public:
   explicit Hex(std::uint64_t v) {
      n_ = static_cast<std::size_t>(std::to_chars(buf_, buf_ + sizeof(buf_), v, 16).ptr - buf_);
   }
   std::string_view view() const { return {buf_, n_}; }

 private:
   char buf_[16];
   std::size_t n_;
};

// The bitmap follows the template id.
constexpr std::size_t flowKeyOffset = flowKeyTable.fields[0].len;

}  // namespace

FlowKeySm::FlowKeySm(Kivo::Ptr<OptionsDataSource> dataSource,
                     Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                     Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      hwFtStatus_(std::move(hwFtStatus)) {
   reactor_.watch(hwFtStatus_->onTemplateStatus(),
                  [this](TemplateId templateId) { handleTemplateStatus(templateId); });
   setIdValIs(setId());
   initializedIs(false);
   handleInitialized();
}

FlowKeySm::~FlowKeySm() {
   reactor_.reset();
   templateStatusDelAll();
   dataRecordDelAll();
}

TemplateId FlowKeySm::setId() {
   return flowKeyTable.templateId();
}

std::uint64_t FlowKeySm::flowKeyBit(std::uint32_t position) {
   // Deliberately 32-bit and signed, then sign-extended: see the header.
   std::int32_t const bit = std::int32_t{1} << (position % 32);
   return static_cast<std::uint64_t>(static_cast<std::int64_t>(bit));
}

void FlowKeySm::templateStatusIs(
    Kivo::Ptr<HwFlowTracking::TemplateStatus const> const& templateStatus) {
   Kivo::Reactor& reactor = templateStatus_[templateStatus->templateId()];
   reactor.reset();
   follow_p(reactor, *templateStatus);
}

void FlowKeySm::follow_p(Kivo::Reactor& reactor,
                         HwFlowTracking::TemplateStatus const& templateStatus) {
   TemplateId const templateId = templateStatus.templateId();
   reactor.watch(templateStatus.onGenId(), [this, templateId] { handleTemplate(templateId); });
}

DataRecordPtr FlowKeySm::dataRecord(TemplateId templateId) const {
   auto it = dataRecord_.find(templateId);
   return it == dataRecord_.end() ? nullptr : it->second;
}

void FlowKeySm::dataRecordIs(TemplateId templateId, DataRecordPtr const& record) {
   dataRecord_[templateId] = record;
}

DataRecordPtr FlowKeySm::makeDataRecord(TemplateId templateId) const {
   Kivo::Ptr<HwFlowTracking::TemplateStatus const> const templateStatus =
       hwFtStatus_->templateStatus(templateId);
   return templateStatus ? makeDataRecord_p(templateId, *templateStatus) : nullptr;
}

DataRecordPtr FlowKeySm::makeDataRecord_p(
    TemplateId templateId, HwFlowTracking::TemplateStatus const& templateStatus) const {
   std::uint64_t flowKey = 0;
   AddressFamily af = AddressFamily::none;
   // Asked once: a full build reads thousands of templates of tens of fields each.
   bool const traceFields = ktraceFacility_p().on(8);
   // Entries are ordered by position.
   for (auto const& [position, entry] : templateStatus.entries()) {
      AddressFamily const fieldAf = addressFamily(entry->fieldId());
      if (fieldAf != AddressFamily::none) {
         if (af != AddressFamily::none && af != fieldAf) {
            KTRACE(6, "AF mismatch at field:" << position);
            return nullptr;
         }
         af = fieldAf;
      }
      if (entry->flowKey()) {
         // Per-field detail: the text trace only, so that a full build of thousands of templates
         // does not fill the always-on ring with it.
         if (traceFields) {
            KTRACE_TEXT(
                8, "TemplateId:" << templateId.value() << ", Field:" << position << " is flowKey");
         }
         flowKey |= flowKeyBit(position);
      }
   }
   KTRACE_TEXT(7, "templateId:" << templateId.value() << ", flowKey: 0x" << Hex(flowKey).view());
   RecordWriter w(flowKeyTable.fields, 0);
   w.add(templateId.value());
   w.add(flowKey);
   return w.dataRecord();
}

void FlowKeySm::handleInitialized() {
   initializedIs(true);
   KTRACE(5, "FlowKeySm::handleInitialized for " << hwFtStatus_->name() << " template count:"
                                                 << hwFtStatus_->templateStatusColl().size());
   dataSource_->dataRecordDelAll();
   dataRecordDelAll();
   templateStatusDelAll();
   std::size_t const templates = hwFtStatus_->templateStatusColl().size();
   dataSource_->dataRecordReserve(templates);
   {
      // Both maps were just emptied and the status holds each template once: their indexes are
      // written when the build is over.
      decltype(templateStatus_)::Filler reactors(templateStatus_, templates);
      decltype(dataRecord_)::Filler records(dataRecord_, templates);
      for (auto const& [templateId, templateStatus] : hwFtStatus_->templateStatusColl()) {
         follow_p(reactors.add(templateId, Kivo::Reactor()), *templateStatus);
         if (DataRecordPtr const record = makeDataRecord_p(templateId, *templateStatus)) {
            dataSource_->dataRecordIs(record);
            records.add(templateId, record);
         }
      }
   }
   // The exporters resend the whole table; nothing is posted as an update.
   dataSource_->versionInc(1);
}

void FlowKeySm::handleTemplateStatus(TemplateId templateId) {
   KTRACE(5, "FlowKeySm::handleTemplateStatus for " << hwFtStatus_->name() << " "
                                                    << templateId.value());
   if (Kivo::Ptr<HwFlowTracking::TemplateStatus const> const templateStatus =
           hwFtStatus_->templateStatus(templateId)) {
      templateStatusIs(templateStatus);
      handleTemplate(templateId);
      return;
   }
   handleTemplateDel(templateId);
}

void FlowKeySm::handleTemplateDel(TemplateId templateId) {
   KTRACE(5,
          "FlowKeySm::handleTemplateDel for " << hwFtStatus_->name() << " " << templateId.value());
   templateStatusDel(templateId);
   handleTemplate(templateId);
}

void FlowKeySm::handleTemplate(TemplateId templateId) {
   KTRACE(5, "FlowKeySm::handleTemplate for " << hwFtStatus_->name() << " " << templateId.value());
   if (DataRecordPtr const old = dataRecord(templateId)) {
      dataSource_->dataRecordDel(old);
      dataRecordDel(templateId);
   }
   if (hwFtStatus_->templateStatus(templateId)) {
      if (DataRecordPtr const record = makeDataRecord(templateId)) {
         KTRACE(6, "templateId:" << templateId.value() << ", flowKey: 0x"
                                 << Hex(Pelto::loadBe64(reinterpret_cast<std::uint8_t const*>(
                                            record->data().data() + flowKeyOffset)))
                                        .view()
                                 << ", record len:" << record->dataLen());
         dataUpdate_->addUpdate(setIdVal(), record);
         dataSource_->dataRecordIs(record);
         dataRecordIs(templateId, record);
      } else {
         KTRACE(6, "templateId:" << templateId.value() << ", NO record (incomplete template)");
      }
   } else {
      // A removal is not posted: the template only leaves the table.
      KTRACE(6, "templateId:" << templateId.value() << ", not present");
   }
   KIVO_ASSERT(dataRecords() == dataSource()->dataRecords());
   dataSource_->versionInc(1);
}

Kivo::Ptr<FlowKeySm> flowKeySmFactory(Kivo::Ptr<OptionsDataSource> const& dataSource,
                                      Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
                                      Kivo::Ptr<HwFlowTracking::FtStatus const> const& hwFtStatus) {
   return Kivo::make<FlowKeySm>(dataSource, dataUpdate, hwFtStatus);
}

}  // namespace FlowTracking
