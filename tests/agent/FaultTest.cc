// Faults the running agent meets on a real host, each in a network namespace the test makes: an
// exporter's source address taken away and given back, and a storm of reload signals while a
// large interface table is on its way.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "agent/AgentProcess.h"
#include "agent/AgentScenario.h"
#include "support/NetNs.h"

namespace testsupport {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

// The failures ipfix-stats shows for `collector`, null while it shows none.
json failuresOf(std::string const& table, std::string const& collector) {
   auto const r = statsTool(table, {"show", "--json"});
   for (auto const& e : r.ok() ? json::parse(r.out) : json::array()) {
      if (e["collector"] == collector) {
         return e["failures"];
      }
   }
   return nullptr;
}

// Exporter e2 sends from 192.0.2.1, an address on the namespace's loopback; e1 from 127.0.0.1.
// While 192.0.2.1 is deleted every send of e2 fails with "network unreachable", counted against
// its collector and traced, and e1's collector keeps getting everything. Once the address is
// back, e2's socket (the same source port) sends again without anyone touching the agent; the
// records it could not send show as a jump of the sequence number, as any loss would. A third
// collector, which the namespace has no route to, fails as "unreachable" all along.
TEST(AgentFault, SourceAddressGoneIsCountedAndExportResumesWhenItIsBack) {
   std::string const vrf = "f" + std::to_string(getpid() % 100000);
   std::string why;
   auto ns = NetNs::create("ns-" + vrf, &why);
   ASSERT_TRUE(ns) << why;
   ns->ip({"addr", "add", "192.0.2.1/32", "dev", "lo"});
   auto kept = ns->run([] { return std::make_unique<LoopbackCollector>(false); });
   auto moved = ns->run([] { return std::make_unique<LoopbackCollector>(false); });
   ConfigText cfg;
   cfg.vrf = vrf;
   cfg.collectors = v4Collector("kept", *kept) + "          far: 198.51.100.7:4739\n";
   cfg.extraExporters = "      - name: e2\n        vrf: " + vrf +
                        "\n        source-ipv4: 192.0.2.1\n        template-interval: 1s\n"
                        "        collectors:\n" +
                        v4Collector("moved", *moved);
   AgentProcess agent(cfg.text() + "trace: UdpPam/2\n");
   std::vector<Received> rk, before;
   ASSERT_TRUE(receiveComplete({{kept.get(), &rk}, {moved.get(), &before}}, 5s)) << agent.log();

   ns->ip({"addr", "del", "192.0.2.1/32", "dev", "lo"});
   std::string const movedAt = moved->ipAndPort().toString();
   std::vector<Received> during;
   ASSERT_TRUE(receiveUntil(
       {{kept.get(), &rk}, {moved.get(), &before}},
       [&] {
          json const f = failuresOf(cfg.table, movedAt);
          return f.is_object() && f["unreachable"] > 0;
       },
       5s))
       << agent.log();
   // A whole active interval (2 s) without the address: e1's collector gets templates and every
   // table, e2's nothing.
   std::size_t const outageFrom = rk.size();
   auto const deadline = std::chrono::steady_clock::now() + 2500ms;
   receiveUntil(
       {{kept.get(), &rk}, {moved.get(), &during}},
       [&] { return std::chrono::steady_clock::now() > deadline; }, 3s);
   Stream k;
   k.add(rk, outageFrom);
   EXPECT_TRUE(complete(k)) << agent.log();
   EXPECT_TRUE(during.empty()) << during.size() << " datagrams";
   json f = failuresOf(cfg.table, movedAt);  // null (not shown) fails what follows
   EXPECT_EQ(f["total"], f["unreachable"]) << f;
   EXPECT_EQ(f["lastFailureText"], std::strerror(ENETUNREACH)) << f;
   EXPECT_EQ(failuresOf(cfg.table, kept->ipAndPort().toString())["total"], 0);
   json far = failuresOf(cfg.table, "198.51.100.7:4739");
   EXPECT_TRUE(far["unreachable"] > 0 && far["total"] == far["unreachable"]) << far;
   EXPECT_NE(statsTool(cfg.table, {"show"}).out.find("    unreachable: "), std::string::npos);
   EXPECT_NE(agent.log().find("udpPam4-ft1-e2: txPkt failed: Network is unreachable"),
             std::string::npos)
       << agent.log();

   ns->ip({"addr", "add", "192.0.2.1/32", "dev", "lo"});
   std::vector<Received> after;
   ASSERT_TRUE(receiveComplete({{moved.get(), &after}}, 5s)) << agent.log();
   std::uint64_t const failed = failuresOf(cfg.table, movedAt)["total"];
   receiveUntil(
       {{moved.get(), &after}, {kept.get(), &rk}}, [] { return false; }, 1500ms);
   EXPECT_EQ(failuresOf(cfg.table, movedAt)["total"], failed) << "sends still fail";
   EXPECT_EQ(after.front().srcPort, before.front().srcPort);
   Stream b, a;
   b.add(before);
   a.decoder = b.decoder;
   a.add(after);
   EXPECT_EQ(sequenceErrors(b) + sequenceErrors(a), "");
   auto const& last = b.messages.back();
   EXPECT_GT(a.messages.front().sequenceNumber, last.sequenceNumber + last.dataRecordCount());
   Stream whole;
   whole.add(rk);
   EXPECT_EQ(sequenceErrors(whole), "") << "e1's stream never missed a message";
   EXPECT_EQ(agent.stop(), 0) << agent.log();
}

// 200 SIGHUPs in a burst while a table of 100000 interfaces goes to an IPv4 and an IPv6
// collector: the agent reads the file again, sees it unchanged and parses nothing, stays up and
// responsive, and each collector gets the whole table with exact sequence numbers.
TEST(AgentFault, SighupStormDuringAFullTableLosesNothing) {
   constexpr int count = 100000;
   LoopbackCollector c4(false), c6(true);
   c4.rcvBufIs(64 << 20), c6.rcvBufIs(64 << 20);  // room for the whole table
   ConfigText cfg;
   cfg.interfaces.clear();
   for (int i = 1; i <= count; ++i) {
      cfg.interfaces +=
          "  - { name: if" + std::to_string(i) + ", index: " + std::to_string(i) + " }\n";
   }
   cfg.activeInterval = "3600s";  // one full table, at start
   cfg.collectors = v4Collector("c4", c4) + v6Collector("c6", c6);
   AgentProcess agent(cfg.text());
   std::vector<Received> r4, r6;
   ASSERT_TRUE(receiveUntil(
       {{&c4, &r4}, {&c6, &r6}}, [&] { return !r4.empty() || !r6.empty(); }, 60s))
       << agent.log();
   json before = controlStatus(cfg.table);  // answered once the first transmission's pass ends
   for (int i = 0; i < 200; ++i) {
      agent.signal(SIGHUP);
      std::this_thread::sleep_for(1ms);
   }
   // Each collector's interface names, from the records decoded so far.
   struct Seen {
      Stream stream;
      std::set<std::string> names;
      std::size_t decoded = 0;
   } s4, s6;
   auto const whole = [&](std::vector<Received> const& rs, Seen& s) {
      s.stream.add(rs, s.decoded);
      for (auto const& t : s.stream.tables(257, s.decoded)) {
         s.names.insert(t.begin(), t.end());
      }
      s.decoded = rs.size();
      return s.names.size() == count + 4;  // and the four reserved interfaces
   };
   ASSERT_TRUE(receiveUntil(
       {{&c4, &r4}, {&c6, &r6}},
       [&] {
          bool const all4 = whole(r4, s4);  // both streams are decoded on every poll
          return whole(r6, s6) && all4;
       },
       60s))
       << s4.names.size() << " and " << s6.names.size() << " names\n"
       << agent.log();
   for (Seen const* s : {&s4, &s6}) {
      EXPECT_EQ(sequenceErrors(s->stream), "");
      EXPECT_TRUE(s->names.count("if1") && s->names.count("if" + std::to_string(count)));
   }
   EXPECT_EQ(agent.log().find("refused"), std::string::npos) << agent.log();
   // The file that runs is not parsed again, which would stall the loop for seconds each time.
   json after = controlStatus(cfg.table);
   ASSERT_TRUE(before.is_object() && after.is_object()) << "no status within 5 s";
   EXPECT_EQ(after["loop"]["passesLongerThan"]["1.0"], before["loop"]["passesLongerThan"]["1.0"])
       << after["loop"];
   EXPECT_EQ(agent.stop(), 0) << agent.log();
}

}  // namespace
}  // namespace testsupport
