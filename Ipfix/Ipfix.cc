#include "Ipfix/Ipfix.h"

#include <charconv>
#include <ostream>
#include <unordered_map>

#include "Kivo/ValueText.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::defaultFacility())

namespace Ipfix {

namespace {

consteval bool elementIdsUnique() {
   for (std::size_t i = 0; i < elementTable.size(); ++i) {
      for (std::size_t j = i + 1; j < elementTable.size(); ++j) {
         if (elementTable[i].id == elementTable[j].id ||
             elementTable[i].name == elementTable[j].name) {
            return false;
         }
      }
   }
   return true;
}
static_assert(elementIdsUnique(), "every element id and name appears once in the element table");

std::unordered_map<std::uint32_t, ElementRow const*> const& rowsById() {
   static auto const* m = [] {
      auto* rows = new std::unordered_map<std::uint32_t, ElementRow const*>();
      for (ElementRow const& r : elementTable) {
         rows->emplace(r.id, &r);
      }
      return rows;
   }();
   return *m;
}

}  // namespace

ElementRow const* elementRow(RecordType id) {
   auto it = rowsById().find(static_cast<std::uint32_t>(id));
   return it == rowsById().end() ? nullptr : it->second;
}

Kivo::String valueToStrep(RecordType id) {
   ElementRow const* r = elementRow(id);
   return r ? Kivo::String(r->name) : std::to_string(static_cast<std::uint32_t>(id));
}

std::ostream& operator<<(std::ostream& os, RecordType id) {
   return os << valueToStrep(id);
}

std::optional<RecordType> recordTypeFromString(std::string_view s) {
   for (ElementRow const& r : elementTable) {
      if (r.name == s) {
         return RecordType{r.id};
      }
   }
   std::uint32_t v = 0;
   auto res = std::from_chars(s.data(), s.data() + s.size(), v);
   if (s.empty() || res.ec != std::errc() || res.ptr != s.data() + s.size()) {
      return std::nullopt;
   }
   return RecordType{v};
}

ElementId::ElementId(Kivo::String::const_iterator begin, Kivo::String::const_iterator end) {
   std::size_t const n = static_cast<std::size_t>(end - begin);
   Kivo::ValueText t(n ? std::string_view(&*begin, n) : std::string_view(), "Ipfix::ElementId");
   auto id = recordTypeFromString(t.attr("id"));
   if (!id) {
      throw Kivo::Exception("Ipfix::ElementId text has an unknown id: " + t.attr("id"));
   }
   enterpriseIe_ = t.boolAttr("enterpriseIe");
   id_ = *id;
   len_ = static_cast<std::uint32_t>(t.unsignedAttr("len", Kivo::maxU32()));
   str_ = t.attr("str");
}

Kivo::String ElementId::toString() const {
   return "Value('Ipfix::ElementId', ** {'enterpriseIe': " +
          Kivo::String(Kivo::boolText(enterpriseIe_)) + ", 'id': " + valueToStrep(id_) +
          ", 'len': " + std::to_string(len_) + ", 'str': " + Kivo::quoted(str_) + "})";
}

std::ostream& operator<<(std::ostream& os, ElementId const& e) {
   return os << e.toString();
}

ElementId ElementIdColl::elementIdCollDel(RecordType id) {
   return coll_.del(id).value_or(ElementId());
}

void ElementIdColl::doInitialize() {
   KTRACE(4, "ElementIdColl::"
                 << "doInitialize");
   for (ElementRow const& r : elementTable) {
      elementIdCollIs(ElementId(r.enterprise, RecordType{r.id}, r.len, Kivo::String(r.name)));
   }
}

Kivo::Ptr<ElementIdColl> elementIdCollFactory() {
   return Kivo::make<ElementIdColl>();
}

Kivo::Ptr<AgentInfo> agentInfoFactory() {
   return Kivo::make<AgentInfo>();
}

IpfixMsgSeqNo IpfixMsgSeqNo::fromString(std::string_view s) {
   std::uint32_t v = 0;
   auto res = std::from_chars(s.data(), s.data() + s.size(), v);
   if (!s.empty() && res.ec == std::errc() && res.ptr == s.data() + s.size()) {
      return {v};
   }
   Kivo::ValueText t(s, "Ipfix::IpfixMsgSeqNo");
   return {static_cast<std::uint32_t>(t.unsignedAttr("value", Kivo::maxU32()))};
}

std::ostream& operator<<(std::ostream& os, IpfixMsgSeqNo s) {
   return os << s.value;
}

}  // namespace Ipfix
