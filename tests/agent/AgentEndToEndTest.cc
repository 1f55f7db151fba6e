// The agent program end to end: real collectors on loopback (and in network namespaces the tests
// make), a configuration file, signals, and what independent decoders read from the datagrams.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <set>

#include "Ipfix/CollectorStats.h"
#include "agent/AgentProcess.h"
#include "agent/AgentScenario.h"
#include "support/IpfixDecoder.h"
#include "support/NetNs.h"
#include "support/Pcap.h"
#include "support/Tshark.h"

namespace testsupport {
namespace {

using namespace std::chrono_literals;

TEST(AgentEndToEnd, EveryCollectorGetsTemplatesTablesAndExactSequenceNumbers) {
   ASSERT_TRUE(tsharkAvailable()) << "tshark is required (scripts/setup installs it)";
   LoopbackCollector c4(false), c6(true);
   ConfigText cfg;
   cfg.collectors = v4Collector("c4", c4) + v6Collector("c6", c6);
   AgentProcess agent(cfg.text());

   std::vector<Received> r4, r6;
   // Two active intervals: the tables go out at start and again periodically.
   auto deadline = std::chrono::steady_clock::now() + 5s;
   receiveUntil(
       {{&c4, &r4}, {&c6, &r6}}, [&] { return std::chrono::steady_clock::now() > deadline; }, 6s);
   ASSERT_EQ(agent.stop(), 0) << agent.log();
   // A clean stop removes the statistics table.
   EXPECT_NE(access(("/dev/shm" + cfg.table).c_str(), F_OK), 0);
   Stream s4, s6;
   s4.add(r4);
   s6.add(r6);
   ASSERT_TRUE(complete(s4) && complete(s6)) << agent.log();
   for (char const* active :
        {"FLOWTRACKING_EXPORTER_ACTIVE: IPv4 exporter e1 in VRF default, in sampled flow tracker "
         "ft1 is active.",
         "FLOWTRACKING_EXPORTER_ACTIVE: IPv6 exporter e1"}) {
      EXPECT_NE(agent.log().find(active), std::string::npos) << agent.log();
   }

   for (Stream const* s : {&s4, &s6}) {
      EXPECT_EQ(s->templateIds(), (std::set<std::uint16_t>{256, 257, 258, 259, 260, 261}));
      // The data templates carry the configured fields in order, keys or not.
      std::map<std::uint16_t, std::vector<std::uint16_t>> fields;
      for (auto const& m : s->messages) {
         for (auto const& t : m.templates()) {
            fields[t.id].clear();
            for (auto const& f : t.fields) {
               fields[t.id].push_back(f.id);
            }
         }
      }
      EXPECT_EQ(fields[260], (std::vector<std::uint16_t>{8, 12, 4, 2}));
      EXPECT_EQ(fields[261], (std::vector<std::uint16_t>{27, 28, 1}));
      // Each message carries the number of data records sent before it, and only data records
      // count: templates never advance it.
      EXPECT_EQ(sequenceErrors(*s), "");
      for (auto const& m : s->messages) {
         EXPECT_EQ(m.observationDomainId, 7u);
      }
   }

   // tshark, sharing no code with the exporter, reads the same tables: each field has at least
   // these values.
   std::vector<std::pair<std::string, std::vector<std::string>>> const want = {
       {"cflow.if_name",
        {"Ethernet1", "Ethernet2", "Management1", "multicast", "discard", "CPU", "unknown"}},
       {"cflow.inputint", {"999"}},
       {"cflow.vrfname", {"red", "blue"}},
       {"cflow.observation_domain_name", {"ft1"}},
       {"cflow.sampling_population", {"1000"}},
       {"cflow.od_id", {"7"}},
       {"cflow.template_id", {"256", "257", "258", "259", "260", "261"}},
       // Flow keys: the first three fields of 260, the first two of 261.
       {"cflow.post_key", {"0000000000000007", "0000000000000003"}},
   };
   std::vector<std::string> fields;
   for (auto const& [field, values] : want) {
      fields.push_back(field);
   }
   for (auto [rs, lo, port] :
        {std::tuple{&r4, "127.0.0.1", c4.port()}, std::tuple{&r6, "::1", c6.port()}}) {
      std::vector<Datagram> ds;
      for (auto const& r : *rs) {
         ds.push_back(
             {.payload = r.payload, .src = lo, .dst = lo, .srcPort = r.srcPort, .dstPort = port});
      }
      TempFile capture("agent.pcap");
      writePcap(capture.path(), ds);
      auto const t = runTshark(capture.path(), fields, port);
      ASSERT_TRUE(t.ok()) << t.describe();
      for (auto const& [field, values] : want) {
         auto const all = t.all(field);
         for (std::string const& v : values) {
            EXPECT_NE(std::find(all.begin(), all.end(), v), all.end()) << field << " " << v;
         }
      }
   }

   // libfixbuf's ipfixDump, a second independent decoder, reads every message without error.
   for (auto const* rs : {&r4, &r6}) {
      TempFile raw("agent.ipfix");
      std::ofstream out(raw.path(), std::ios::binary);
      for (auto const& r : *rs) {
         out.write(reinterpret_cast<char const*>(r.payload.data()),
                   static_cast<std::streamsize>(r.payload.size()));
      }
      out.close();
      auto const dump = runCommand({"ipfixDump", "--in", raw.path()});
      EXPECT_EQ(dump.exitCode, 0) << dump.err;
      EXPECT_EQ(dump.err.find("rror"), std::string::npos) << dump.err;
      EXPECT_NE(dump.out.find("Ethernet1"), std::string::npos);
      EXPECT_NE(dump.out.find("Management1"), std::string::npos);
   }
}

TEST(AgentEndToEnd, CheckPrintsTheEffectiveConfigurationOrTheErrorsWithTheirPosition) {
   LoopbackCollector c4(false);
   ConfigText cfg;
   cfg.collectors = v4Collector("c4", c4);
   std::string bad = cfg.text();
   bad.replace(bad.find("dscp: 0"), 7, "dscp: 64");
   TempFile good("good.yaml"), badFile("bad.yaml");
   std::ofstream(good.path()) << cfg.text();
   std::ofstream(badFile.path()) << bad;
   auto const checked = runCommand({agentBinary(), "--check", good.path()});
   ASSERT_EQ(checked.exitCode, 0) << checked.err;
   EXPECT_NE(checked.out.find("mtu: 1500"), std::string::npos) << checked.out;  // a default
   auto const refused = runCommand({agentBinary(), "--check", badFile.path()});
   EXPECT_EQ(refused.exitCode, 1);
   auto const line =
       std::count(bad.begin(), bad.begin() + static_cast<long>(bad.find("dscp: 64")), '\n') + 1;
   EXPECT_NE(refused.err.find(badFile.path() + ":" + std::to_string(line) + ":15:"),
             std::string::npos)
       << refused.err;
   EXPECT_NE(refused.err.find("dscp"), std::string::npos) << refused.err;
}

// Reloads, each a script against the running agent: what the collectors see after each edit.
class AgentReload : public ::testing::Test {
 protected:
   void startAgent() {
      cfg.collectors = v4Collector("c4", c4);
      agent = std::make_unique<AgentProcess>(cfg.text());
      ASSERT_TRUE(receiveComplete({{&c4, &r4}}, 5s)) << agent->log();
   }
   // Rewrites the configuration and waits for the agent's `nth` reload.
   void reload(std::size_t nth = 1) {
      agent->rewriteConfig(cfg.text());
      ASSERT_TRUE(agent->waitForLog("configuration reloaded", 3s, nth)) << agent->log();
   }

   LoopbackCollector c4{false};
   ConfigText cfg;
   std::unique_ptr<AgentProcess> agent;
   std::vector<Received> r4;
};

TEST_F(AgentReload, RenamingOneInterfaceSendsOneUpdateWithTheNewName) {
   startAgent();
   cfg.interfaces =
       "  - { name: Ethernet1, index: 1 }\n"
       "  - { name: Uplink2, index: 2 }\n"
       "  - { name: Management1, index: 999 }\n";
   receiveFor(c4, 300ms);  // settle past the start
   reload();
   // Within the coalescing time, and before the next full table (active interval 2 s), the
   // collector hears of the renamed interface alone.
   Stream s;
   s.add(r4);
   std::size_t const before = s.messages.size();
   s.add(receiveFor(c4, 1500ms));
   EXPECT_EQ(s.updates(257, before), Tables{{"Uplink2"}}) << agent->log();
}

TEST_F(AgentReload, AddedCollectorGetsEverythingAtOnceAndOthersAreUndisturbed) {
   // Nothing periodic in the test's time: anything c4 gets now is caused by the change.
   cfg.templateInterval = "60s";
   cfg.activeInterval = "60s";
   startAgent();
   LoopbackCollector added(true);
   cfg.collectors = v4Collector("c4", c4) + v6Collector("added", added);
   receiveFor(c4, 200ms);
   std::uint16_t const c4Port = r4.back().srcPort;
   agent->rewriteConfig(cfg.text());
   std::vector<Received> ra;
   ASSERT_TRUE(receiveComplete({{&added, &ra}}, 3s)) << agent->log();
   // The first collector is not disturbed: no templates, no tables.
   auto const quiet = receiveFor(c4, 1200ms);
   EXPECT_TRUE(quiet.empty()) << quiet.size() << " datagrams";

   // Removing the new collector stops its traffic and leaves c4 alone too.
   cfg.collectors = v4Collector("c4", c4);
   reload(2);
   added.drain(100);
   EXPECT_TRUE(receiveFor(added, 1200ms).empty());
   EXPECT_TRUE(receiveFor(c4, 300ms).empty());

   // A new interface is one update, from c4's same socket, with its sequence numbers carried on.
   cfg.interfaces += "  - { name: Ethernet9, index: 9 }\n";
   agent->rewriteConfig(cfg.text());
   std::vector<Received> more;
   ASSERT_TRUE(receiveUntil(
       {{&c4, &more}}, [&] { return !more.empty(); }, 3s))
       << agent->log();
   EXPECT_EQ(more.front().srcPort, c4Port);
   Stream before, after;
   before.add(r4);
   std::uint32_t expected = before.messages.back().sequenceNumber +
                            static_cast<std::uint32_t>(before.messages.back().dataRecordCount());
   after.decoder = before.decoder;
   after.add(more);
   EXPECT_EQ(after.messages.front().sequenceNumber, expected);
   EXPECT_EQ(after.tables(257), Tables{{"Ethernet9"}});
}

TEST_F(AgentReload, DscpChangeShowsInTheTosOfTheNextPackets) {
   startAgent();
   EXPECT_EQ(r4.back().tos, 0);
   cfg.dscp = 46;
   reload();
   receiveFor(c4, 100ms);
   auto const later = receiveFor(c4, 1500ms);
   ASSERT_FALSE(later.empty());
   EXPECT_EQ(later.back().tos, 46 << 2);
}

TEST_F(AgentReload, InvalidFileIsReportedAndTheRunningConfigurationStays) {
   startAgent();
   std::string bad = cfg.text();
   bad.replace(bad.find("template-interval: 1s"), 21, "template-interval: 10ms");
   agent->rewriteConfig(bad);
   ASSERT_TRUE(agent->waitForLog("still running the previous one", 3s)) << agent->log();
   EXPECT_NE(agent->log().find(agent->configPath() + ":"), std::string::npos) << agent->log();
   // Templates keep coming every second, from the old configuration.
   auto const later = receiveFor(c4, 2500ms);
   Stream s;
   s.add(later);
   EXPECT_TRUE(s.templateIds().count(260)) << agent->log();
   EXPECT_EQ(agent->stop(), 0);
}

TEST_F(AgentReload, RemovedExporterStopsSendingOnSighup) {
   LoopbackCollector other(false);
   cfg.extraExporters =
       "      - name: e2\n"
       "        source-ipv4: 127.0.0.1\n"
       "        template-interval: 1s\n"
       "        collectors:\n" +
       v4Collector("o", other);
   startAgent();
   std::vector<Received> ro;
   ASSERT_TRUE(receiveUntil(
       {{&other, &ro}}, [&] { return !ro.empty(); }, 3s));
   cfg.extraExporters.clear();
   // Written in place (no rename), then announced with SIGHUP.
   std::ofstream(agent->configPath(), std::ios::trunc) << cfg.text();
   agent->signal(SIGHUP);
   ASSERT_TRUE(agent->waitForLog("configuration reloaded", 3s)) << agent->log();
   receiveFor(other, 200ms);
   EXPECT_TRUE(receiveFor(other, 2000ms).empty());
   EXPECT_FALSE(receiveFor(c4, 1200ms).empty());
   // Its statistics went with it; the remaining exporter's stay.
   Mirra::Ipfix::CollectorStatisticsReader reader(cfg.table);
   std::set<std::string> exporters;
   for (auto const& e : reader.allStats()) {
      exporters.insert(std::string(e.key.exporter()));
   }
   EXPECT_EQ(exporters, (std::set<std::string>{"e1"}));
}

// Namespaces: the exporter's VRF lives in "ns-<vrf>", which the tests make and remove.
class AgentNetNs : public ::testing::Test {
 protected:
   std::unique_ptr<NetNs> makeNs() {
      std::string why;
      auto ns = NetNs::create("ns-" + vrf, &why);
      if (!ns) {
         ADD_FAILURE() << "cannot make a network namespace: " << why;
      }
      return ns;
   }
   std::string const vrf = "t" + std::to_string(getpid() % 100000);
};

TEST_F(AgentNetNs, NamespaceCreatedLateThenRecreatedBringsTheExporterBack) {
   // The collector port is fixed: a new namespace has every port free.
   static constexpr std::uint16_t port = 4739;
   ConfigText cfg;
   cfg.vrf = vrf;
   cfg.collectors = "          c4: 127.0.0.1:" + std::to_string(port) + "\n";
   AgentProcess agent(cfg.text());
   ASSERT_TRUE(agent.waitForLog("ipfix-agent running", 3s)) << agent.log();
   EXPECT_EQ(agent.log().find("FLOWTRACKING_EXPORTER_ACTIVE"), std::string::npos);

   for (int round = 1; round <= 2; ++round) {
      auto ns = makeNs();
      ASSERT_TRUE(ns);
      auto collector = ns->run([] { return std::make_unique<LoopbackCollector>(false, port); });
      std::vector<Received> rs;
      ASSERT_TRUE(receiveComplete({{collector.get(), &rs}}, 5s)) << round << agent.log();
      ASSERT_TRUE(agent.waitForLog("FLOWTRACKING_EXPORTER_ACTIVE: IPv4 exporter e1 in VRF " + vrf,
                                   2s, round));
      collector = nullptr;
      ns = nullptr;  // deleted: the exporter is not ready until it is back
      ASSERT_TRUE(agent.waitForLog("FLOWTRACKING_EXPORTER_INACTIVE: IPv4 exporter e1", 3s, round))
          << agent.log();
   }
   EXPECT_EQ(agent.stop(), 0);
}

TEST_F(AgentNetNs, RenamingARealLinkSendsOneUpdate) {
   auto ns = makeNs();
   ASSERT_TRUE(ns);
   ns->ip({"link", "add", "dumA", "type", "veth", "peer", "name", "peerA"});
   auto collector = ns->run([] { return std::make_unique<LoopbackCollector>(false, 4739); });
   ConfigText cfg;
   cfg.interfaces = "kernel";
   cfg.collectors = "          c4: 127.0.0.1:4739\n";
   AgentProcess agent(cfg.text(), {"ip", "netns", "exec", ns->name()});
   std::vector<Received> rs;
   Tables seen;
   // Receives until one of the interface tables received from datagram `from` on is `wanted`.
   auto until = [&](std::size_t from, auto wanted, std::chrono::milliseconds timeout) {
      auto const done = [&] {
         Stream t;
         t.add(rs);  // one message per datagram
         seen = t.tables(257, from);
         return std::ranges::any_of(seen, wanted);
      };
      return receiveUntil({{collector.get(), &rs}}, done, timeout);
   };
   auto const naming = [](std::string link) {
      return [link](auto const& t) { return std::count(t.begin(), t.end(), link) > 0; };
   };
   ASSERT_TRUE(until(0, naming("dumA"), 5s)) << agent.log();
   std::size_t const beforeRename = rs.size();
   ns->ip({"link", "set", "dumA", "name", "dumB"});
   ASSERT_TRUE(until(beforeRename, naming("dumB"), 3s)) << agent.log();
   // dumB is announced by a one-record update, not only by the next full table.
   EXPECT_GE(std::ranges::count(seen, Tables::value_type{"dumB"}), 1) << agent.log();

   // A deleted link is not announced; it is gone from the next full table (every 2 s).
   ns->ip({"link", "del", "dumB"});
   auto const full = [](auto const& t) { return t.size() > 1; };
   ASSERT_TRUE(until(rs.size(), full, 4s)) << agent.log();
   auto const& next = *std::ranges::find_if(seen, full);
   EXPECT_EQ(std::count(next.begin(), next.end(), "dumB"), 0);
   EXPECT_EQ(std::count(next.begin(), next.end(), "lo"), 1);
   EXPECT_EQ(agent.stop(), 0);
}

}  // namespace
}  // namespace testsupport
