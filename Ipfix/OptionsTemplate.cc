#include "Ipfix/OptionsTemplate.h"

#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::defaultFacility())

namespace FlowTracking {

namespace {

// Options template records list their scope fields first; a table's records follow its field
// list, so the list has its scope fields first too, and at least one of them.
consteval bool scopeFieldsFirst(OptionsTable const& table) {
   bool scope = true;
   for (RecordField const& f : table.fields) {
      if (f.scope && !scope) {
         return false;
      }
      scope = f.scope;
   }
   return !table.fields.empty() && table.fields.front().scope;
}
static_assert(scopeFieldsFirst(intfTable) && scopeFieldsFirst(vrfTable) &&
              scopeFieldsFirst(flowKeyTable) && scopeFieldsFirst(flowTrackerTable));

Kivo::Ptr<HwFlowTracking::FtTemplateEntry> entryIs(OptionsTemplate::Fields& coll,
                                                   std::uint32_t fieldId, Ipfix::RecordType type) {
   Kivo::Ptr<HwFlowTracking::FtTemplateEntry> entry = coll.is(fieldId, type);
   KIVO_ASSERT(entry->fieldId() == type);
   return entry;
}

void appendField(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
                 Kivo::Ptr<HwFlowTracking::FtTemplateEntry> const& entry) {
   updateFieldInfo(eic, entry);
   // Options templates are built once, at start-up: reported with the rest of start-up.
   KTRACE(4, "  Added field " << entry->fieldId());
}

}  // namespace

Kivo::Ptr<HwFlowTracking::FtTemplateEntry> OptionsTemplate::scopeFieldIs(std::uint32_t fieldId,
                                                                         Ipfix::RecordType type) {
   return entryIs(scopeField_, fieldId, type);
}

Kivo::Ptr<HwFlowTracking::FtTemplateEntry> OptionsTemplate::fieldIs(std::uint32_t fieldId,
                                                                    Ipfix::RecordType type) {
   return entryIs(field_, fieldId, type);
}

Kivo::Ptr<OptionsTemplate> OptionsTemplateConfig::templateEntryIs(Kivo::String const& name,
                                                                  TemplateId templateId) {
   Kivo::Ptr<OptionsTemplate> t = templateEntry_.is(name, templateId);
   KIVO_ASSERT(t->templateId() == templateId);
   return t;
}

void updateFieldInfo(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
                     Kivo::Ptr<HwFlowTracking::FtTemplateEntry> const& field) {
   if (!eic->elementIdCollHas(field->fieldId())) {
      KTRACE_FAST(
          "Missing fieldId in elementIdColl: " << static_cast<std::uint32_t>(field->fieldId()));
   }
   // clang-format off
   KIVO_ASSERT(eic->elementIdCollHas( field->fieldId() ));
   // clang-format on
   Ipfix::ElementId const e = eic->elementIdColl(field->fieldId());
   field->fieldLenIs(static_cast<std::uint16_t>(e.len()));
   field->enterpriseIeIs(e.enterpriseIe());
}

void addScopeField(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
                   Kivo::Ptr<OptionsTemplate> const& optionsTemplate, Ipfix::RecordType type) {
   appendField(eic, optionsTemplate->scopeFieldIs(optionsTemplate->scopeFields(), type));
}

void addField(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
              Kivo::Ptr<OptionsTemplate> const& optionsTemplate, Ipfix::RecordType type) {
   appendField(eic, optionsTemplate->fieldIs(optionsTemplate->fields(), type));
}

std::uint32_t getTemplateEntryLength(Kivo::Ptr<OptionsTemplate const> const& templateEntry) {
   KIVO_ASSERT(templateEntry->scopeFields() > 0);
   KIVO_ASSERT(templateEntry->fields() >= templateEntry->scopeFields());
   std::uint32_t len = sizeof(Pelto::OptionsTemplateHeaderWire);
   for (auto const& [pos, e] : templateEntry->scopeField()) {
      len += fieldSpecifierLength(*e);
   }
   for (auto const& [pos, e] : templateEntry->field()) {
      len += fieldSpecifierLength(*e);
   }
   return len;
}

std::uint32_t writeFieldSpecifier(Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint32_t offset,
                                  HwFlowTracking::FtTemplateEntry const& entry) {
   Pelto::FieldSpecifier specifier(pkt, offset, entry.enterpriseIe());
   specifier.elementIdIs(static_cast<std::uint16_t>(entry.fieldId()));
   specifier.fieldLenIs(entry.fieldLen());
   if (entry.enterpriseIe()) {
      specifier.entNumIs(Constants::enterpriseNumber());
   }
   return offset + static_cast<std::uint32_t>(specifier.size());
}

std::uint32_t writeOptionsTemplateRecord(Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint32_t offset,
                                         OptionsTemplate const& ot, FieldWriter const& writeField) {
   auto write = [&](Kivo::Ptr<HwFlowTracking::FtTemplateEntry> const& e) {
      offset = writeField ? writeField(pkt, offset, e) : writeFieldSpecifier(pkt, offset, *e);
   };
   Pelto::OptionsTemplateHeader hdr(pkt, offset);
   hdr.templateIdIs(ot.templateId());
   hdr.fieldCountIs(static_cast<std::uint16_t>(ot.scopeFields() + ot.fields()));
   hdr.scopeFieldCountIs(static_cast<std::uint16_t>(ot.scopeFields()));
   offset += sizeof(Pelto::OptionsTemplateHeaderWire);
   for (auto const& [pos, e] : ot.scopeField()) {
      write(e);
   }
   for (auto const& [pos, e] : ot.field()) {
      write(e);
   }
   return offset;
}

}  // namespace FlowTracking
