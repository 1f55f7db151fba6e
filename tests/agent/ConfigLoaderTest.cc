// The configuration loader: every refusal from one good file edited in one place, with the
// position it is reported at; defaults; the effective configuration read back; the example file.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "agent/ConfigLoader.h"

using namespace Agent;

namespace {

// Values are unique in the text where the cases below need to point at them.
std::string const goodText = R"(type: sampled
sample-rate: 1000
statistics-table: /ipfix-test-stats
trace: ""
interfaces:
  - { name: Ethernet1, index: 1 }
  - { name: Ethernet2, index: 2 }
vrfs:
  - { name: red, id: 11 }
  - { name: blue, id: 12 }
trackers:
  - name: ft1
    id: 101
    active-interval: 300s
    inactive-timeout: 15s
    software-export: false
    templates:
      - id: 260
        fields:
          - { element: sourceIPv4Address, key: true }
          - destinationIPv4Address
          - { element: 152 }
      - id: 261
        in-use: false
        fields:
          - { element: sourceIPv6Address, key: true }
          - flowTrackingType
    exporters:
      - name: e1
        vrf: default
        source-ipv4: 127.0.0.1
        source-ipv6: "::1"
        dscp: 10
        template-interval: 60s
        mtu: 1500
        collectors:
          c1: 127.0.0.1:4739
          c6: "[::1]:4739"
  - name: ft2
    id: 102
    exporters:
      - name: e1
        source-ipv4: 10.0.0.1
)";

// `text` with the first `from` replaced by `to`; fails the test when there is no `from`.
std::string edited(std::string text, std::string const& from, std::string const& to) {
   auto const at = text.find(from);
   EXPECT_NE(at, std::string::npos) << "no " << from;
   if (at != std::string::npos) {
      text.replace(at, from.size(), to);
   }
   return text;
}

// "LINE:COLUMN" (1-based) of the `nth` occurrence of `what` in `text`; a '^' in `what` marks the
// position within it.
std::string positionOf(std::string const& text, std::string what, int nth = 1) {
   auto const caret = what.find('^');
   std::size_t const skip = caret == std::string::npos ? 0 : caret;
   if (caret != std::string::npos) {
      what.erase(caret, 1);
   }
   std::size_t at = std::string::npos;
   for (int i = 0; i < nth; ++i) {
      at = text.find(what, at == std::string::npos ? 0 : at + 1);
      if (at == std::string::npos) {
         return "no " + what;
      }
   }
   at += skip;
   auto const lineStart = text.rfind('\n', at == 0 ? 0 : at - 1);
   int const line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + at, '\n'));
   int const column =
       static_cast<int>(lineStart == std::string::npos || at == 0 ? at + 1 : at - lineStart);
   return std::to_string(line) + ":" + std::to_string(column);
}

std::string errorsText(LoadResult const& r) {
   std::string out;
   for (auto const& e : r.errors) {
      out += e.toString() + "\n";
   }
   return out;
}

// `n` fields of one element, as template field list items.
std::string fieldItems(int n, std::string const& element) {
   std::string out;
   for (int i = 0; i < n; ++i) {
      out += "          - " + element + "\n";
   }
   return out;
}

std::string const longName(std::size_t n) {
   return std::string(n, 'x');
}

TEST(ConfigLoader, GoodTextLoadsWithEveryValue) {
   auto const r = loadConfigText(goodText, "good.yaml");
   ASSERT_TRUE(r.config) << errorsText(r);
   AgentConfig const& c = *r.config;
   EXPECT_EQ(c.sampleRate, 1000u);
   EXPECT_EQ(c.statisticsTable, "/ipfix-test-stats");
   EXPECT_EQ(c.interfaces,
             (std::map<std::string, std::uint32_t>{{"Ethernet1", 1}, {"Ethernet2", 2}}));
   EXPECT_EQ(c.vrfs, (std::map<std::uint32_t, std::string>{{11, "red"}, {12, "blue"}}));
   ASSERT_EQ(c.trackers.size(), 2u);
   TrackerConfig const& t = c.trackers.at("ft1");
   EXPECT_EQ(t.id, 101u);
   ASSERT_EQ(t.templates.size(), 2u);
   TemplateConfig const& t260 = t.templates.at(260);
   EXPECT_TRUE(t260.inUse);
   EXPECT_EQ(t260.fields, (std::vector<FieldConfig>{{Ipfix::RecordType{8}, true},
                                                    {Ipfix::RecordType{12}, false},
                                                    {Ipfix::RecordType{152}, false}}));
   EXPECT_FALSE(t.templates.at(261).inUse);
   ExporterConfig const& e = t.exporters.at("e1");
   EXPECT_EQ(e.vrf, "default");
   EXPECT_EQ(e.source4, Pelto::IpAddr::parse("127.0.0.1"));
   EXPECT_EQ(e.source6, Pelto::Ip6Addr::parse("::1"));
   EXPECT_EQ(e.dscp, 10);
   EXPECT_EQ(e.collectors.at("c1"), CollectorAddress(*Pelto::IpAndPort::parse("127.0.0.1:4739")));
   EXPECT_EQ(e.collectors.at("c6"), CollectorAddress(*Pelto::Ip6AndPort::parse("[::1]:4739")));
}

TEST(ConfigLoader, DefaultsFillWhatTheFileLeavesOut) {
   auto const r = loadConfigText(
       "trackers:\n  - name: t\n    id: 1\n    exporters:\n      - name: e\n"
       "        source-ipv6: 2001:db8::1\n",
       "min.yaml");
   ASSERT_TRUE(r.config) << errorsText(r);
   AgentConfig const& c = *r.config;
   EXPECT_EQ(c.type, FlowTracking::FlowTrackingType::sampled);
   EXPECT_EQ(c.sampleRate, 0u);
   EXPECT_EQ(c.statisticsTable, "/ipfix-collector-stats");
   EXPECT_EQ(c.trace, "");
   EXPECT_FALSE(c.interfacesFromKernel);
   EXPECT_TRUE(c.interfaces.empty() && c.vrfs.empty());
   TrackerConfig const& t = c.trackers.at("t");
   EXPECT_EQ(t.activeIntervalMs, 300000u);
   EXPECT_EQ(t.inactiveTimeoutMs, 15000u);
   EXPECT_FALSE(t.softwareExport);
   EXPECT_TRUE(t.templates.empty());
   ExporterConfig const& e = t.exporters.at("e");
   EXPECT_EQ(e.vrf, "");
   EXPECT_FALSE(e.source4);
   EXPECT_EQ(e.dscp, 0);
   EXPECT_EQ(e.templateIntervalMs, 60000u);
   EXPECT_EQ(e.mtu, 1500u);
   EXPECT_TRUE(e.collectors.empty());
}

// Values at the edge of their range are taken.
TEST(ConfigLoader, LimitsAreInclusive) {
   struct Case {
      std::string from, to;
   };
   std::vector<Case> const cases = {
       // The largest record of ft1 is its flow tracker record: 21 + 3 octets, + 68 around it.
       {"mtu: 1500", "mtu: 92"},
       {"mtu: 1500", "mtu: 65535"},
       {"active-interval: 300s", "active-interval: 65534s"},
       {"inactive-timeout: 15s", "inactive-timeout: 1s"},
       {"active-interval: 300s", "active-interval: 1092m"},
       {"template-interval: 60s", "template-interval: 4294967s"},
       {"template-interval: 60s", "template-interval: 1000ms"},
       {"dscp: 10", "dscp: 63"},
       {"id: 101", "id: 4294967295"},
       {"id: 261", "id: 65535"},
       {"name: ft2", "name: " + longName(128)},
       {"name: e1", "name: " + longName(128)},
       {"c1:", longName(128) + ":"},
       {"name: red", "name: " + longName(100)},
       {"vrf: default", "vrf: \"\""},
       {"vrf: default", "vrf: " + longName(100)},
       {"name: Ethernet1", "name: " + longName(100)},
       {"index: 2", "index: 4294967295"},
       {"id: 12", "id: 0"},
       {"trace: \"\"", "trace: \"*/4,Ipfix/9,Orbo\""},
       {"type: sampled", "type: hardware"},
       {"statistics-table: /ipfix-test-stats", "statistics-table: /" + longName(200)},
       {"interfaces:\n  - { name: Ethernet1, index: 1 }\n  - { name: Ethernet2, index: 2 }",
        "interfaces: kernel"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.to.substr(0, 60));
      auto const r = loadConfigText(edited(goodText, c.from, c.to), "edge.yaml");
      EXPECT_TRUE(r.config) << errorsText(r);
   }
}

struct BadCase {
   std::string from, to;  // the edit of goodText
   std::string at;        // the error is at the nth occurrence of this in the edited text
   std::string message;   // part of the error message
   int nth = 1;
   std::size_t errors = 1;
   std::string from2 = "", to2 = "";  // a second edit
};

TEST(ConfigLoader, EveryRefusalNamesItsPosition) {
   std::string const ft1Exporter = "    exporters:\n      - name: e1\n";
   std::vector<BadCase> const cases = {
       // Structure.
       {"trace: \"\"", "trace: \"\"\ncolour: red", "colour", "unknown key \"colour\""},
       {"dscp: 10", "dscp: 10\n        dcsp: 3", "dcsp", "exporter: unknown key \"dcsp\""},
       {"mtu: 1500", "mtu: 1500\n        mtu: 1400", "mtu: 1400",
        "duplicate key \"mtu\" (first at line 35)"},
       {"c6:", "c1:", "c1", "duplicate key \"c1\"", 2},
       {"vrfs:\n", "vrfs:\n  - red\n", "red", "VRF: expected a mapping"},
       {"trace: \"\"", "trace: [a]", "[a]", "trace: expected a single value"},
       {"sample-rate: 1000", "sample-rate:", "sample-rate", "sample-rate: missing value"},
       {"  - name: ft2\n", "  - id: 7\n    name: ft2\n", "id: 102", "duplicate key \"id\""},
       {"    id: 102\n", "", "name: ft2", "tracker: missing key \"id\""},
       {"        source-ipv4: 10.0.0.1\n", "", "name: e1", "exporter: no source address", 2},
       {"      - id: 261\n        in-use: false\n", "      - in-use: false\n", "in-use: false",
        "template: missing key \"id\""},
       {"type: sampled", "type: sampled\n---\ntype: hardware", "type: hardware",
        "a second YAML document"},
       // A flow indicator where a document begins: the YAML parser never got past it.
       {"type: sampled", ",type: sampled", ",type", "unexpected \",\" where a YAML document"},
       {"10.0.0.1\n", "10.0.0.1\n...\n, x\n", ", x", "unexpected \",\" where a YAML document"},
       // Agent-wide values.
       {"type: sampled", "type: none", "none", "type: \"none\" is not sampled or hardware"},
       {"sample-rate: 1000", "sample-rate: 4294967296", "4294967296",
        "sample-rate: 4294967296 is out of range (0 to 4294967295)"},
       {"sample-rate: 1000", "sample-rate: -1", "-1", "is not a whole decimal number"},
       {"sample-rate: 1000", "sample-rate: 0x10", "0x10", "is not a whole decimal number"},
       {"/ipfix-test-stats", "ipfix", "ipfix", "is not a shared-memory name"},
       {"trace: \"\"", "trace: \"Kivo\xff\"", "\"Kivo", "trace: value is not UTF-8 text"},
       {"name: Ethernet2", "name: Ether\xc3net2", "Ether\xc3", "name: value is not UTF-8 text"},
       {"/ipfix-test-stats", "/a/b", "/a/b", "is not a shared-memory name"},
       {"/ipfix-test-stats", "/..", "/..", "is not a shared-memory name"},
       {"/ipfix-test-stats", "/" + longName(201), "/x", "is not a shared-memory name"},
       {"trace: \"\"", "trace: \"*/10\"", "\"*/10\"", "trace: \"*/10\" is not a list"},
       {"trace: \"\"", "trace: \"Ipfix,\"", "\"Ipfix,\"", "trace: \"Ipfix,\" is not a list"},
       // Interfaces.
       {"interfaces:\n  - { name: Ethernet1, index: 1 }\n  - { name: Ethernet2, index: 2 }",
        "interfaces: all", "all", "expected \"kernel\" or a list"},
       {"name: Ethernet2", "name: \"Ether net2\"", "\"Ether net2\"",
        "interface name \"Ether net2\" is not valid (1 to 100 octets"},
       {"name: Ethernet2", "name: \"\"", "\"\"", "interface name \"\" is not valid", 2},
       {"name: Ethernet2", "name: " + longName(101), "xxx", "is not valid"},
       {"name: Ethernet2", "name: Ethernet1", "Ethernet1", "duplicate interface name", 2},
       {"index: 2", "index: 1", "1 }", "duplicate interface index 1 (first at line 6)", 2},
       {"index: 2", "index: 0", "0 }", "interface index 0x0 is reserved for the \"unknown\""},
       {"index: 2", "index: 1073741823", "1073741823", "0x3FFFFFFF is reserved for the \"CPU\""},
       {"index: 2", "index: 1073741824", "1073741824", "reserved for the \"discard\""},
       {"index: 2", "index: 2147483648", "2147483648", "reserved for the \"multicast\""},
       {"index: 2", "index: 4294967296", "4294967296", "index: 4294967296 is out of range"},
       {"  - { name: Ethernet2, index: 2 }", "  - { name: Ethernet2 }", "{ name: Ethernet2",
        "interface: missing key \"index\""},
       // VRFs.
       {"name: red", "name: re/d", "re/d", "VRF name \"re/d\" contains \"/\""},
       {"name: red", "name: \"..\"", "\"..\"", "VRF name \"..\" is not allowed"},
       {"name: red", "name: \".\"", "\".\"", "VRF name \".\" is not allowed"},
       {"name: red", "name: \"\"", "\"\"", "VRF name is empty", 2},
       {"name: red", "name: " + longName(101), "xxx", "is 101 octets long, over the limit of 100"},
       {"name: red", "name: \"r\\x01\"", "\"r", "contains a control character"},
       {"name: blue", "name: red", "red", "duplicate VRF name \"red\"", 2},
       {"id: 12", "id: 11", "id: ^11", "duplicate VRF id 11 (first at line 9)", 2},
       {"id: 12", "id: 16777215", "16777215", "VRF id 0xFFFFFF is reserved"},
       // Trackers.
       {"name: ft2", "name: \"\"", "\"\"", "tracker name is empty", 2},
       {"name: ft2", "name: " + longName(129), "xxx", "tracker name \"xxxx", 1},
       {"name: ft2", "name: ft1", "ft1", "duplicate tracker name \"ft1\"", 2},
       {"id: 102", "id: 101", "101", "tracker id 101 is already the id of the tracker at line 12",
        2},
       {"id: 101", "id: 0", "id: ^0", "id: 0 is out of range (1 to 4294967295)"},
       {"active-interval: 300s", "active-interval: 300", "300", "300 needs a unit"},
       {"active-interval: 300s", "active-interval: 65535s", "65535s",
        "active-interval: 65535s is too long (it must be under 65535s)"},
       {"active-interval: 300s", "active-interval: 0s", "0s", "is under the minimum of 1s"},
       {"active-interval: 300s", "active-interval: 1500ms", "1500ms",
        "1500ms is not a whole number of seconds"},
       {"active-interval: 300s", "active-interval: 18446744073709551616ms", "18446744073709551616",
        "is too long"},
       {"active-interval: 300s", "active-interval: 5124095576030432h", "5124095576030432h",
        "is too long"},
       {"inactive-timeout: 15s", "inactive-timeout: 15x", "15x", "unknown unit \"x\""},
       {"inactive-timeout: 15s", "inactive-timeout: s", "timeout: ^s", "\"s\" is not a duration"},
       {"inactive-timeout: 15s", "inactive-timeout: 1093m", "1093m", "is too long"},
       {"software-export: false", "software-export: yes", "yes", "\"yes\" is not true or false"},
       // Templates.
       {"id: 260", "id: 259", "259", "template id 259 is below 260"},
       {"id: 260", "id: 65536", "65536", "id: 65536 is out of range (260 to 65535)"},
       {"id: 261", "id: 260", "id: ^260", "duplicate template id 260", 2},
       {"        fields:\n          - { element: sourceIPv6Address, key: true }\n"
        "          - flowTrackingType\n",
        "        fields: []\n", "[]", "a template needs at least one field"},
       {"- destinationIPv4Address", "- destinationIPv4Adress", "destinationIPv4Adress",
        "unknown information element \"destinationIPv4Adress\""},
       {"{ element: 152 }", "{ element: 3 }", "3 }", "information element 3 is not in"},
       {"{ element: 152 }", "{ elem: 152 }", "{ ^elem: 152", "field: unknown key \"elem\"", 1, 2},
       {"{ element: sourceIPv4Address, key: true }", "{ element: sourceIPv4Address, key: 1 }",
        "key: ^1", "key: \"1\" is not true or false"},
       // Exporters.
       {"name: e1", "name: " + longName(129), "xxx", "exporter name \"xxx"},
       {ft1Exporter, ft1Exporter + "        source-ipv4: 10.1.1.1\n      - name: e1\n", "name: ^e1",
        "duplicate exporter name \"e1\" in this tracker", 2},
       {"vrf: default", "vrf: a/b", "a/b", "VRF name \"a/b\" contains \"/\""},
       {"vrf: default", "vrf: " + longName(101), "xxx", "over the limit of 100"},
       {"source-ipv4: 127.0.0.1", "source-ipv4: 127.0.0.256", "127.0.0.256",
        "source-ipv4: \"127.0.0.256\" is not an IPv4 address"},
       {"source-ipv4: 127.0.0.1", "source-ipv4: 0.0.0.0", "0.0.0.0",
        "source-ipv4: 0.0.0.0 cannot be a source address"},
       {"source-ipv6: \"::1\"", "source-ipv6: \"::g\"", "\"::g\"", "is not an IPv6 address"},
       {"source-ipv6: \"::1\"", "source-ipv6: \"::\"", "\"::\"", "cannot be a source address"},
       {"dscp: 10", "dscp: 64", "64", "dscp: 64 is out of range (0 to 63)"},
       {"template-interval: 60s", "template-interval: 500ms", "500ms", "under the minimum of 1s"},
       {"template-interval: 60s", "template-interval: 4294968s", "4294968s",
        "too long (it must be under 4294967296ms)"},
       {"mtu: 1500", "mtu: 65536", "65536", "mtu: 65536 is out of range (1 to 65535)"},
       {"mtu: 1500", "mtu: 0", "mtu: ^0", "mtu: 0 is out of range (1 to 65535)"},
       {"mtu: 1500", "mtu: 91", "91",
        "mtu 91 is too small for the flow tracker table record of \"ft1\" (24 octets): it needs "
        "at least 92"},
       // Ten enterprise fields more: 4 + 3 x 4 + 10 x 8 = 96 octets, so 164 at least.
       {"- { element: 152 }\n", "- { element: 152 }\n" + fieldItems(10, "flowTrackingType"),
        "mtu: ^163",
        "mtu 163 is too small for the template record of data template 260 (96 octets): it needs "
        "at least 164",
        1, 1, "mtu: 1500", "mtu: 163"},
       {"interfaces:\n  - { name: Ethernet1, index: 1 }\n  - { name: Ethernet2, index: 2 }",
        "interfaces: kernel", "mtu: ^172",
        "mtu 172 is too small for the interface table record of a 100-octet kernel interface "
        "name (105 octets)",
        1, 1, "mtu: 1500", "mtu: 172"},
       {"          - flowTrackingType\n", fieldItems(400, "destinationIPv4Address"), "name: e1",
        "the default mtu 1500 is too small for the template record of data template 261 (1608 "
        "octets)",
        1, 1, "        mtu: 1500\n", ""},
       // Collectors.
       {"c1: 127.0.0.1:4739", "c1: 127.0.0.1", "c1: ^127.0.0.1",
        "c1: bad IPv4 address and port \"127.0.0.1\": missing ':' before the port"},
       {"c1: 127.0.0.1:4739", "c1: 127.0.0.1:65536", "127.0.0.1:65536", "port > 65535"},
       {"c1: 127.0.0.1:4739", "c1: 127.0.0.1:0", "127.0.0.1:0", "c1: port 0 is not allowed"},
       {"c1: 127.0.0.1:4739", "c1: 0.0.0.0:4739", "0.0.0.0:4739", "has no collector address"},
       {"c6: \"[::1]:4739\"", "c6: \"[::1:4739\"", "\"[::1:4739\"", "missing ']'"},
       {"c6: \"[::1]:4739\"", "c6: \"::1:4739\"", "\"::1:4739\"", "bad IPv4 address and port"},
       {"c6: \"[::1]:4739\"", "c6: \"[::1]:4739\"\n          c2: 127.0.0.1:4739", "127.0.0.1:4739",
        "c2: same address and port as collector \"c1\"", 2},
       {"        source-ipv6: \"::1\"\n", "", "\"[::1]:4739\"",
        "c6: an IPv6 collector needs the exporter's source-ipv6"},
       {"        source-ipv4: 127.0.0.1\n", "", "127.0.0.1:4739",
        "c1: an IPv4 collector needs the exporter's source-ipv4"},
       {"c1:", longName(129) + ":", "xxx", "collector name \"xxx"},
       {"        collectors:\n          c1: 127.0.0.1:4739\n          c6: \"[::1]:4739\"\n",
        "        collectors: [127.0.0.1:4739]\n", "[127", "collectors: expected a mapping"},
   };
   for (auto const& c : cases) {
      std::string text = edited(goodText, c.from, c.to);
      if (!c.from2.empty()) {
         text = edited(text, c.from2, c.to2);
      }
      SCOPED_TRACE(c.message);
      auto const r = loadConfigText(text, "bad.yaml");
      EXPECT_FALSE(r.config);
      EXPECT_EQ(r.errors.size(), c.errors) << errorsText(r);
      bool found = false;
      for (auto const& e : r.errors) {
         if (e.message.find(c.message) != std::string::npos) {
            found = true;
            EXPECT_EQ(e.file, "bad.yaml");
            EXPECT_EQ(std::to_string(e.line) + ":" + std::to_string(e.column),
                      positionOf(text, c.at, c.nth))
                << e.message;
         }
      }
      EXPECT_TRUE(found) << errorsText(r);
   }
}

TEST(ConfigLoader, AllErrorsAreReportedInFileOrder) {
   std::string text = edited(goodText, "c1: 127.0.0.1:4739", "c1: 127.0.0.1:0");
   text = edited(text, "dscp: 10", "dscp: 99");
   text = edited(text, "sample-rate: 1000", "sample-rate: many");
   auto const r = loadConfigText(text, "f.yaml");
   EXPECT_FALSE(r.config);
   EXPECT_EQ(errorsText(r),
             "f.yaml:2:14: sample-rate: \"many\" is not a whole decimal number\n"
             "f.yaml:33:15: dscp: 99 is out of range (0 to 63)\n"
             "f.yaml:37:15: c1: port 0 is not allowed (1 to 65535)\n");
}

TEST(ConfigLoader, TemplatesOverOneMessageAreRefused) {
   // Two more templates of 8200 fields each: 16 + 16 + 2 x 32804 octets, over the 65515 that one
   // message carries besides its headers.
   std::string const wide = "      - id: 262\n        fields:\n" + fieldItems(8200, "vlanId") +
                            "      - id: 263\n        fields:\n" + fieldItems(8200, "vlanId");
   std::string const text =
       edited(goodText, "          - flowTrackingType\n", "          - flowTrackingType\n" + wide);
   auto const r = loadConfigText(text, "wide.yaml");
   EXPECT_FALSE(r.config);
   auto const e = std::ranges::find(r.errors,
                                    "templates: together they take 65640 octets, over the 65515 "
                                    "that one template message can carry",
                                    &ConfigError::message);
   ASSERT_NE(e, r.errors.end()) << errorsText(r).substr(0, 2000);
   EXPECT_EQ(std::to_string(e->line) + ":" + std::to_string(e->column),
             positionOf(text, "- id: 260"));
}

TEST(ConfigLoader, UnusableInputIsOneErrorWithoutConfig) {
   struct Case {
      std::string text, error;
   };
   std::vector<Case> const cases = {
       {"", "e.yaml:1:1: no configuration: the file must hold a mapping of keys to values"},
       {"# only a comment\n", "e.yaml:1:1: no configuration"},
       {"- a\n- b\n", "e.yaml:1:1: configuration: expected a mapping of keys to values"},
       {"trackers: [\n  a: b\n", "e.yaml:3:1: end of sequence flow not found"},
       {"a: b: c\n", "e.yaml:1:5: illegal map value"},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.text);
      auto const r = loadConfigText(c.text, "e.yaml");
      EXPECT_FALSE(r.config);
      ASSERT_EQ(r.errors.size(), 1u) << errorsText(r);
      EXPECT_EQ(r.errors[0].toString().substr(0, c.error.size()), c.error);
   }
   auto const missing = loadConfigFile("/nonexistent/ipfix-agent.yaml");
   EXPECT_FALSE(missing.config);
   ASSERT_EQ(missing.errors.size(), 1u);
   EXPECT_EQ(missing.errors[0].toString(),
             "/nonexistent/ipfix-agent.yaml: cannot read the file: No such file or directory");
   auto const directory = loadConfigFile("/");
   ASSERT_EQ(directory.errors.size(), 1u);
   EXPECT_EQ(directory.errors[0].toString(), "/: cannot read the file: Is a directory");
}

// Whatever part of a good file is lost, the result is a configuration or positioned errors,
// never both.
TEST(ConfigLoader, DamagedCopiesGiveConfigOrPositionedErrors) {
   std::vector<std::string> damaged;
   for (std::size_t at = 0; at < goodText.size(); at += 3) {
      // Truncated there, and one octet fewer there.
      damaged.insert(damaged.end(), {goodText.substr(0, at), std::string(goodText).erase(at, 1)});
   }
   std::size_t refused = 0;
   for (std::string const& text : damaged) {
      auto const r = loadConfigText(text, "d.yaml");
      ASSERT_NE(r.config.has_value(), !r.errors.empty()) << text;
      for (auto const& e : r.errors) {
         ASSERT_GE(e.line, 1) << text << e.toString();
         ASSERT_GE(e.column, 1) << text << e.toString();
      }
      refused += r.errors.empty() ? 0 : 1;
   }
   EXPECT_GT(refused, damaged.size() / 2);
}

// The effective text is a complete configuration: loading it gives the same configuration, and
// writing that again gives the same text.
TEST(ConfigLoader, EffectiveTextLoadsBackEqual) {
   std::string const kernel =
       edited(goodText,
              "interfaces:\n  - { name: Ethernet1, index: 1 }\n  - { name: Ethernet2, index: 2 }",
              "interfaces: kernel");
   std::string const odd =
       edited(edited(edited(goodText, "name: e1", "name: \"true\""), "c1:", "\"[c1]\":"),
              "trace: \"\"", "trace: \"*/4,Ipfix/9\"");
   for (std::string const& text : {goodText, kernel, odd, std::string("trackers: []\n")}) {
      auto const first = loadConfigText(text, "a.yaml");
      ASSERT_TRUE(first.config) << errorsText(first);
      std::string const effective = effectiveConfigText(*first.config);
      auto const second = loadConfigText(effective, "effective.yaml");
      ASSERT_TRUE(second.config) << errorsText(second) << effective;
      EXPECT_EQ(*second.config, *first.config) << effective;
      EXPECT_EQ(effectiveConfigText(*second.config), effective);
   }
}

TEST(ConfigLoader, ExampleFileLoads) {
   auto const r = loadConfigFile(IPFIX_SOURCE_DIR "/examples/ipfix-agent.yaml");
   ASSERT_TRUE(r.config) << errorsText(r);
   AgentConfig const& c = *r.config;
   EXPECT_EQ(c.vrfs.size(), 2u);
   EXPECT_FALSE(c.interfaces.empty());
   ASSERT_FALSE(c.trackers.empty());
   bool v4 = false, v6 = false;
   for (auto const& [name, t] : c.trackers) {
      EXPECT_FALSE(t.softwareExport);
      for (auto const& [expName, e] : t.exporters) {
         for (auto const& [collName, a] : e.collectors) {
            v4 |= std::holds_alternative<Pelto::IpAndPort>(a);
            v6 |= std::holds_alternative<Pelto::Ip6AndPort>(a);
         }
      }
   }
   EXPECT_TRUE(v4 && v6);
}

}  // namespace
