// The interface table options data: which name belongs to each 32-bit interface index that flow
// records carry (ingressInterface / egressInterface).
//
// IntfIndexMap is the input, filled by the agent as interfaces get their indexes. InterfaceTableSm
// keeps one data record per indexed interface in its OptionsDataSource, beside four fixed records
// for the reserved indexes (multicast, discard, CPU, unknown), and posts every new or changed
// interface record to the global OptionsDataUpdate so that collectors learn it without waiting
// for the next full transmission. A removed interface is never posted: it only leaves the table.
//
// Record layout (value octets of one data record of the interface table's options template):
//   0  4  interface index, network order      (scope field ingressInterface)
//   4  1  name length L, 1..254               (interfaceName, short variable-length form)
//   5  L  name octets, no terminator
#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_set>

#include "Ipfix/OptionsDataExporter.h"
#include "Ipfix/OptionsTemplate.h"
#include "Kivo/Entity.h"
#include "Pelto/Address.h"

namespace FlowTracking {

// Interfaces and their indexes, both ways. The export component reads `intfIndex` only.
class IntfIndexMap : public Kivo::Object {
   KIVO_VALUES(Pelto::IntfId, std::uint32_t, intfIndex, IntfIndex);
   KIVO_VALUES(std::uint32_t, Pelto::IntfId, intfId, IntfId);

 public:
   // The reserved interfaces: traffic without a single egress interface, dropped traffic, the
   // switch itself, and an interface the hardware could not tell.
   static constexpr std::uint32_t numReservedIntfs() { return 4; }
   static constexpr std::string_view multicastIntfName() { return "multicast"; }
   static constexpr std::string_view discardIntfName() { return "discard"; }
   static constexpr std::string_view cpuIntfName() { return "CPU"; }
   static constexpr std::string_view unknownIntfName() { return "unknown"; }
   static constexpr std::uint32_t multicastIntfIndex() { return 0x80000000u; }
   static constexpr std::uint32_t discardIntfIndex() { return 0x40000000u; }
   static constexpr std::uint32_t cpuIntfIndex() { return 0x3FFFFFFFu; }
   static constexpr std::uint32_t unknownIntfIndex() { return 0; }
};

Kivo::Ptr<IntfIndexMap> intfIndexMapFactory();

class InterfaceTableSm : public Kivo::Object {
 public:
   // Builds the whole table (every indexed interface and the reserved records) before returning.
   InterfaceTableSm(Kivo::Ptr<OptionsDataSource> dataSource,
                    Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                    Kivo::Ptr<IntfIndexMap const> intfIndexMap);
   ~InterfaceTableSm() override;

   // Template id of the interface table's options template; updates are posted under it.
   static TemplateId setId();
   // The longest record the table can give: index, length octet and the longest interface name.
   // The layout itself has room for 254 octets of name.
   static constexpr std::uint32_t maxDataRecordLen() {
      return static_cast<std::uint32_t>(recordLen(intfTable.fields, Pelto::IntfId::maxNameLen));
   }

   // Full rebuild of the data source; bumps its version once.
   void handleInitialized();
   // One interface's index was set, changed or removed.
   void handleIntfId(Pelto::IntfId const& intfId);

 private:
   friend struct InterfaceTableSmProbe;

   Kivo::Ptr<OptionsDataSource> const& dataSource() const { return dataSource_; }
   Kivo::Ptr<IntfIndexMap const> const& intfIndexMap() const { return intfIndexMap_; }
   TemplateId setIdVal() const { return setIdVal_; }
   void setIdValIs(TemplateId id) { setIdVal_ = id; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }

   // The record published for each interface; the reserved records are not here.
   DataRecordPtr dataRecord(Pelto::IntfId const& intfId) const;
   std::size_t dataRecords() const { return dataRecord_.size(); }
   void dataRecordIs(Pelto::IntfId const& intfId, DataRecordPtr const& record);
   void dataRecordDel(Pelto::IntfId const& intfId);
   void dataRecordDelAll() { dataRecord_.clear(); }

   // The record of one interface. Aborts for an empty name or one of 255 octets or more.
   DataRecordPtr makeDataRecord(Kivo::String const& intfName, std::uint32_t intfIndex) const;

   // The published records, found by the interface name they carry: the record is its own key,
   // so the table keeps no copy of the names.
   struct ByName {
      using is_transparent = void;
      static std::string_view name(DataRecordPtr const& r) { return r->data().substr(nameOffset); }
      static std::string_view name(std::string_view n) { return n; }
      std::size_t operator()(auto const& k) const { return std::hash<std::string_view>()(name(k)); }
      bool operator()(auto const& a, auto const& b) const { return name(a) == name(b); }
   };
   // The name follows the index and its length octet.
   static constexpr std::size_t nameOffset = intfTable.fields[0].len + 1;

   Kivo::Ptr<OptionsDataSource> dataSource_;
   Kivo::Ptr<OptionsDataUpdate> dataUpdate_;
   Kivo::Ptr<IntfIndexMap const> intfIndexMap_;
   TemplateId setIdVal_;
   std::unordered_set<DataRecordPtr, ByName, ByName> dataRecord_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

Kivo::Ptr<InterfaceTableSm> interfaceTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<IntfIndexMap const> const& intfIndexMap);

}  // namespace FlowTracking
