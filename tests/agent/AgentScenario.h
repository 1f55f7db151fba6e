// What the agent tests share: a configuration to edit, and a collector's decoded stream.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "agent/AgentProcess.h"
#include "support/IpfixDecoder.h"
#include "support/LoopbackCollector.h"

namespace testsupport {

inline std::string uniqueSuffix() {
   static int n = 0;
   return std::to_string(getpid()) + "-" + std::to_string(n++);
}

// A configuration with one tracker ("ft1", id 7) and one exporter ("e1"); the collectors and a
// few keys are the test's.
struct ConfigText {
   std::string collectors;  // the lines under "collectors:", already indented
   std::string interfaces =
       "  - { name: Ethernet1, index: 1 }\n"
       "  - { name: Ethernet2, index: 2 }\n"
       "  - { name: Management1, index: 999 }\n";
   std::string vrf = "default";
   int dscp = 0;
   std::string extraExporters;  // further exporters, already indented
   std::string table = "/ipfix-agent-test-" + uniqueSuffix();
   std::string templateInterval = "1s";
   std::string activeInterval = "2s";

   std::string text() const {
      std::string t = R"(type: sampled
sample-rate: 1000
statistics-table: TABLE
interfaces:INTERFACES
vrfs:
  - { name: red, id: 1 }
  - { name: blue, id: 2 }
trackers:
  - name: ft1
    id: 7
    active-interval: ACTIVE
    inactive-timeout: 15s
    templates:
      - id: 260
        fields:
          - { element: sourceIPv4Address, key: true }
          - { element: destinationIPv4Address, key: true }
          - { element: protocolIdentifier, key: true }
          - packetDeltaCount
      - id: 261
        fields:
          - { element: sourceIPv6Address, key: true }
          - { element: destinationIPv6Address, key: true }
          - octetDeltaCount
    exporters:
      - name: e1
        vrf: VRF
        source-ipv4: 127.0.0.1
        source-ipv6: "::1"
        dscp: DSCP
        template-interval: TEMPLATES
        collectors:
)";
      for (auto const& [key, value] :
           {std::pair{"TABLE", table},
            {"INTERFACES\n", interfaces == "kernel" ? " kernel\n" : "\n" + interfaces},
            {"ACTIVE", activeInterval},
            {"VRF", vrf},
            {"DSCP", std::to_string(dscp)},
            {"TEMPLATES", templateInterval}}) {
         t.replace(t.find(key), std::string_view(key).size(), value);
      }
      return t + collectors + extraExporters;
   }
};

inline std::string v4Collector(std::string const& name, LoopbackCollector const& c) {
   return "          " + name + ": 127.0.0.1:" + std::to_string(c.port()) + "\n";
}

inline std::string v6Collector(std::string const& name, LoopbackCollector const& c) {
   return "          " + name + ": \"[::1]:" + std::to_string(c.port()) + "\"\n";
}

using Tables = std::vector<std::vector<std::string>>;

// What one collector got, decoded in order.
struct Stream {
   Decoder decoder;
   std::vector<Message> messages;

   void add(std::vector<Received> const& rs, std::size_t from = 0) {
      for (std::size_t i = from; i < rs.size(); ++i) {
         messages.push_back(decoder.decode(rs[i].payload));
      }
   }
   std::set<std::uint16_t> setIds() const {
      std::set<std::uint16_t> ids;
      for (auto const& m : messages) {
         for (auto const& s : m.sets) {
            ids.insert(s.id);
         }
      }
      return ids;
   }
   std::set<std::uint16_t> templateIds() const {
      std::set<std::uint16_t> ids;
      for (auto const& m : messages) {
         for (auto const& t : m.templates()) {
            ids.insert(t.id);
         }
      }
      return ids;
   }
   // The names (the records' second field) in each data set `setId`, one list per set, from
   // message `from` on.
   Tables tables(std::uint16_t setId, std::size_t from = 0) const {
      Tables out;
      for (std::size_t i = from; i < messages.size(); ++i) {
         for (auto const& s : messages[i].sets) {
            if (s.id == setId) {
               out.emplace_back();
               for (auto const& r : s.records) {
                  out.back().push_back(fieldText(r.fields.at(1)));
               }
            }
         }
      }
      return out;
   }
   // Those of one record: updates rather than whole tables.
   Tables updates(std::uint16_t setId, std::size_t from = 0) const {
      Tables out;
      std::ranges::copy_if(tables(setId, from), std::back_inserter(out),
                           [](auto const& t) { return t.size() == 1; });
      return out;
   }
};

// Where a stream's sequence numbers are wrong, one line each; empty when every message from
// `from` on carries the number of data records sent before it on the stream.
inline std::string sequenceErrors(Stream const& s, std::size_t from = 0) {
   std::string out;
   for (std::size_t i = from + 1; i < s.messages.size(); ++i) {
      auto const& prev = s.messages[i - 1];
      auto const want = prev.sequenceNumber + static_cast<std::uint32_t>(prev.dataRecordCount());
      if (s.messages[i].sequenceNumber != want) {
         out += "message " + std::to_string(i) + ": " +
                std::to_string(s.messages[i].sequenceNumber) + ", not " + std::to_string(want) +
                "\n";
      }
   }
   return out;
}

// Every message type a collector needs, once: data templates, the four options templates and
// their data.
inline bool complete(Stream const& s) {
   std::set<std::uint16_t> const want = {2, 3, 256, 257, 258, 259};
   auto const got = s.setIds();
   return std::includes(got.begin(), got.end(), want.begin(), want.end());
}

// Receives until what each collector got is complete; false on timeout.
inline bool receiveComplete(
    std::vector<std::pair<LoopbackCollector*, std::vector<Received>*>> const& from,
    std::chrono::milliseconds timeout) {
   return receiveUntil(
       from,
       [&] {
          return std::ranges::all_of(from, [](auto const& f) {
             Stream s;
             s.add(*f.second);
             return complete(s);
          });
       },
       timeout);
}

}  // namespace testsupport
