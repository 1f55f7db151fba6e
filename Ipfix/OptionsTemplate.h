// Templates on the wire (RFC 7011 section 3.4).
//
// A template record is its template id, its field count and one field specifier per field; an
// options template record adds the scope field count and lists the scope fields first. A field
// specifier is 4 octets (element id, field length) or, for an enterprise-specific element, 8: the
// element id carries the enterprise bit and the enterprise number follows.
//
// Template entries get their length and enterprise flag from the element table (updateFieldInfo),
// so the table is the only place those are decided. Lengths are computed before anything is
// written, so a template packet is sized once.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "HwFlowTracking/FtTemplateEntry.h"
#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Ipfix/MessageBuilder.h"
#include "Kivo/Attr.h"
#include "Pelto/Pkt.h"

namespace FlowTracking {

// One options table: the step that announces it while the options templates are configured, its
// options template's name and reserved template id, and its fields in record order, scope fields
// first. The options template (TemplateSm::initOptTemplateConfig) and the table's data records
// (RecordWriter) are both made from `fields`.
struct OptionsTable {
   std::string_view step;
   std::string_view name;
   StaticTemplateId staticId;
   std::span<RecordField const> fields;

   constexpr TemplateId templateId() const { return Constants::reservedTemplateId(staticId); }
};

namespace OptionsTableFields {
inline constexpr RecordField intfTable[] = {
    recordField("ingressInterface", true),
    recordField("interfaceName"),
};
inline constexpr RecordField vrfTable[] = {
    recordField("ingressVRFID", true),
    recordField("VRFname"),
};
inline constexpr RecordField flowKey[] = {
    recordField("templateId", true),
    recordField("flowKeyIndicator"),
};
inline constexpr RecordField flowTrackerTable[] = {
    recordField("observationDomainId", true), recordField("observationDomainName"),
    recordField("flowActiveTimeout"),         recordField("flowIdleTimeout"),
    recordField("selectorAlgorithm"),         recordField("samplingSize"),
    recordField("samplingPopulation"),        recordField("flowTrackingType"),
};
}  // namespace OptionsTableFields

// Interface index to interface name.
inline constexpr OptionsTable intfTable{"addOptTemplateIntfTable", "IntfTable",
                                        StaticTemplateId::intfTable, OptionsTableFields::intfTable};
// VRF id to VRF name.
inline constexpr OptionsTable vrfTable{"addOptTemplateVrfTable", "VrfTable",
                                       StaticTemplateId::vrfTable, OptionsTableFields::vrfTable};
// Data template id to the flow key indicator of its fields.
inline constexpr OptionsTable flowKeyTable{"addOptTemplateFlowKey", "FlowKey",
                                           StaticTemplateId::flowKey, OptionsTableFields::flowKey};
// The flow tracker as an observation domain: its name, timeouts and sampling.
inline constexpr OptionsTable flowTrackerTable{"addOptTemplateFlowTrackerTable", "FlowTrackerTable",
                                               StaticTemplateId::flowTrackerTable,
                                               OptionsTableFields::flowTrackerTable};
// The options tables in the order their templates are configured.
inline constexpr OptionsTable const* optionsTables[] = {&intfTable, &vrfTable, &flowKeyTable,
                                                        &flowTrackerTable};

// One options template: scope fields and (non-scope) fields, each keyed by position and written
// in ascending position order.
class OptionsTemplate : public Kivo::Object {
 public:
   using Fields = Kivo::Coll<std::uint32_t, HwFlowTracking::FtTemplateEntry>;

   OptionsTemplate(Kivo::String name, TemplateId templateId)
       : name_(std::move(name)), templateId_(templateId) {}

   Kivo::String const& name() const { return name_; }
   TemplateId templateId() const { return templateId_; }

   // Creates the entry at `fieldId` for element `type`, or returns the existing one.
   // REQUIRES: an existing entry at `fieldId` has the same element.
   Kivo::Ptr<HwFlowTracking::FtTemplateEntry> scopeFieldIs(std::uint32_t fieldId,
                                                           Ipfix::RecordType type);
   Kivo::Ptr<HwFlowTracking::FtTemplateEntry> fieldIs(std::uint32_t fieldId,
                                                      Ipfix::RecordType type);
   void scopeFieldDel(std::uint32_t fieldId) { scopeField_.del(fieldId); }
   void fieldDel(std::uint32_t fieldId) { field_.del(fieldId); }
   void scopeFieldDelAll() { scopeField_.delAll(); }
   void fieldDelAll() { field_.delAll(); }

   std::uint32_t scopeFields() const { return static_cast<std::uint32_t>(scopeField_.size()); }
   std::uint32_t fields() const { return static_cast<std::uint32_t>(field_.size()); }
   Fields const& scopeField() const { return scopeField_; }
   Fields const& field() const { return field_; }

 private:
   Kivo::String name_;
   TemplateId templateId_;
   Fields scopeField_;
   Fields field_;
};

// The options templates of the agent, by name. Writers change templates and then bump `version`
// once; readers rebuild on the bump, never on single template changes.
class OptionsTemplateConfig : public Kivo::Object {
 public:
   using Entries = Kivo::Coll<Kivo::String, OptionsTemplate>;

   // Creates the template or returns the existing one.
   // REQUIRES: an existing template of that name has the same template id.
   Kivo::Ptr<OptionsTemplate> templateEntryIs(Kivo::String const& name, TemplateId templateId);
   void templateEntryDel(Kivo::String const& name) { templateEntry_.del(name); }
   void templateEntryDelAll() { templateEntry_.delAll(); }
   Kivo::Ptr<OptionsTemplate> templateEntry(Kivo::String const& name) const {
      return templateEntry_.get(name);
   }
   // Iterated in name order, which is the order the templates are written in.
   Entries const& templateEntries() const { return templateEntry_; }

   std::uint32_t version() const { return version_.get(); }
   void versionIs(std::uint32_t v) { version_.is(v); }
   void versionInc(std::uint32_t d) { version_.inc(d); }
   Kivo::Signal<> const& onVersion() const { return version_.signal(); }

 private:
   Entries templateEntry_;
   Kivo::Value<std::uint32_t> version_;
};

// Fills the entry's length and enterprise flag from the table. An element the table lacks is a
// fatal programming error.
void updateFieldInfo(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
                     Kivo::Ptr<HwFlowTracking::FtTemplateEntry> const& field);
// Append a scope field / a field for element `type`, filled from the table.
void addScopeField(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
                   Kivo::Ptr<OptionsTemplate> const& optionsTemplate, Ipfix::RecordType type);
void addField(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic,
              Kivo::Ptr<OptionsTemplate> const& optionsTemplate, Ipfix::RecordType type);

// Octets of one field specifier of `entry`: 4, or 8 for an enterprise element.
inline std::uint32_t fieldSpecifierLength(HwFlowTracking::FtTemplateEntry const& entry) {
   return entry.enterpriseIe() ? 8 : 4;
}
// Octets of the options template record. REQUIRES: at least one scope field and at least as many
// fields as scope fields (stricter than RFC 7011, on purpose).
std::uint32_t getTemplateEntryLength(Kivo::Ptr<OptionsTemplate const> const& templateEntry);

// Writes one field specifier at `offset` of the packet's data; returns the offset after it.
// REQUIRES: the specifier lies inside the packet's data.
std::uint32_t writeFieldSpecifier(Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint32_t offset,
                                  HwFlowTracking::FtTemplateEntry const& entry);
// Writes the whole options template record at `offset`: the header, then each scope field and
// each field through `writeField` (writeFieldSpecifier unless the caller wants to do more per
// field). Returns the offset after the record.
// REQUIRES: getTemplateEntryLength(ot) octets of room at `offset`.
using FieldWriter = std::function<std::uint32_t(Kivo::Ptr<Pelto::Pkt> const&, std::uint32_t,
                                                Kivo::Ptr<HwFlowTracking::FtTemplateEntry> const&)>;
std::uint32_t writeOptionsTemplateRecord(Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint32_t offset,
                                         OptionsTemplate const& ot,
                                         FieldWriter const& writeField = {});

}  // namespace FlowTracking
