// The text parsers of addresses, interface names, element ids, sequence numbers and value texts
// on arbitrary text. Each either refuses it (nullopt, or Kivo::Exception from the throwing forms,
// which must agree with the non-throwing ones) or gives a value that prints as text reading back
// to the same value.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "Ipfix/Ipfix.h"
#include "Kivo/ValueText.h"
#include "Pelto/Address.h"
#include "tools/StatsFormat.h"

namespace {

// parse() and fromString() agree, and what parses prints as text that parses back to it.
template <class T>
void checkAddress(std::string_view s) {
   std::optional<T> const v = T::parse(s);
   std::optional<T> thrown;
   try {
      thrown = T::fromString(s);
   } catch (Kivo::Exception const&) {
   }
   FUZZ_CHECK(v == thrown);
   if (v) {
      FUZZ_CHECK(T::parse(v->toString()) == v);
   }
}

// Forms without fromString(): what parses prints back to a value that parses equal.
template <class T>
void checkParse(std::string_view s) {
   if (std::optional<T> const v = T::parse(s)) {
      FUZZ_CHECK(T::parse(v->toString()) == v);
   }
}

void checkValueText(std::string_view s) {
   try {
      Kivo::ValueText const t(s, "Ipfix::ElementId");
      for (char const* name : {"id", "len", "str", "enterpriseIe"}) {
         try {
            (void)t.attr(name);
            (void)t.boolAttr(name);
            (void)t.unsignedAttr(name, 1000);
         } catch (Kivo::Exception const&) {
         }
      }
   } catch (Kivo::Exception const&) {
   }
   try {
      std::string const text(s);
      Ipfix::ElementId const e(text.begin(), text.end());
      std::string const printed = e.toString();
      FUZZ_CHECK(Ipfix::ElementId(printed.begin(), printed.end()) == e);
   } catch (Kivo::Exception const&) {
   }
   try {
      Ipfix::IpfixMsgSeqNo const n = Ipfix::IpfixMsgSeqNo::fromString(s);
      FUZZ_CHECK(Ipfix::IpfixMsgSeqNo::fromString(std::to_string(n.value)).value == n.value);
   } catch (Kivo::Exception const&) {
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   std::string_view const s(reinterpret_cast<char const*>(data), size);
   checkParse<Pelto::IpAddr>(s);
   if (auto a = Pelto::IpAddr::parse(s)) {
      FUZZ_CHECK(a->toString() == s);  // the dotted quad has one spelling
   }
   checkParse<Pelto::Ip6Addr>(s);
   checkAddress<Pelto::IpGenAddr>(s);
   checkAddress<Pelto::IpAndPort>(s);
   checkAddress<Pelto::Ip6AndPort>(s);
   if (auto i = Pelto::IntfId::parse(s)) {
      FUZZ_CHECK(i->toString() == s && Pelto::IntfId::validName(s));
   }
   (void)Ipfix::recordTypeFromString(s);
   (void)Stats::sortKeyFromString(std::string(s));
   checkValueText(s);
   return 0;
}
