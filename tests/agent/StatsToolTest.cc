// ipfix-stats and the control socket against a running agent, each its own process: what the
// tool shows is what the collectors received, clear resets exactly what it names, and the
// control socket holds against bad clients while the agent keeps exporting.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "Ipfix/CollectorStats.h"
#include "Mirra/ShmTable.h"
#include "agent/AgentProcess.h"
#include "agent/AgentScenario.h"
#include "agent/CollectorHealth.h"
#include "agent/ControlSocket.h"

namespace testsupport {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

using SetCounts = std::map<std::uint16_t, std::array<std::uint64_t, 2>>;  // records, templates

// What one collector received, counted as the statistics table counts it.
struct Counted {
   std::uint64_t messages = 0, records = 0, octets = 0;
   SetCounts sets;
};

Counted count(std::vector<Received> const& rs) {
   Counted c;
   Decoder d;
   for (auto const& r : rs) {
      Message const m = d.decode(r.payload);
      ++c.messages;
      c.octets += r.payload.size();
      for (auto const& s : m.sets) {
         bool const templates = s.id == 2 || s.id == 3;
         c.sets[s.id][templates] += templates ? s.templates.size() : s.records.size();
         c.records += templates ? 0 : s.records.size();
      }
   }
   return c;
}

class StatsTool : public ::testing::Test {
 protected:
   void start(std::string const& extraCollectors = {}) {
      cfg.collectors = v4Collector("c4", c4) + v6Collector("c6", c6) + extraCollectors;
      agent = std::make_unique<AgentProcess>(cfg.text());
      ASSERT_TRUE(receiveComplete({{&c4, &r4}, {&c6, &r6}}, 5s)) << agent->log();
   }
   json stats() {
      auto const r = statsTool(cfg.table, {"show", "--json"});
      EXPECT_EQ(r.exitCode, 0) << r.err;
      return json::parse(r.out);
   }
   static json const* find(json const& all, std::string const& collector) {
      for (auto const& e : all) {
         if (e["collector"] == collector) {
            return &e;
         }
      }
      return nullptr;
   }

   LoopbackCollector c4{false}, c6{true};
   ConfigText cfg;
   std::unique_ptr<AgentProcess> agent;
   std::vector<Received> r4, r6;
};

TEST_F(StatsTool, FiguresShownAgreeWithWhatTheCollectorsReceived) {
   start();
   // Compare in a quiet moment: nothing arrives between reading the table and draining again.
   auto take = [](LoopbackCollector& c, std::vector<Received>& into, int timeoutMs) {
      auto const got = c.drain(timeoutMs);
      into.insert(into.end(), got.begin(), got.end());
      return got.size();
   };
   for (int attempt = 0; attempt < 20; ++attempt) {
      take(c4, r4, 50), take(c6, r6, 0);
      json const all = stats();
      if (take(c4, r4, 30) + take(c6, r6, 0) > 0) {
         continue;
      }
      for (auto [rs, name] : {std::pair{&r4, c4.ipAndPort().toString()},
                              std::pair{&r6, c6.ip6AndPort().toString()}}) {
         json const* e = find(all, name);
         ASSERT_TRUE(e) << all.dump(2);
         Counted const want = count(*rs);
         EXPECT_EQ((*e)["tracker"], "ft1");
         EXPECT_EQ((*e)["exporter"], "e1");
         EXPECT_EQ((*e)["messages"], want.messages);
         EXPECT_EQ((*e)["octets"], want.octets);
         EXPECT_EQ((*e)["records"], want.records);
         SetCounts sets;
         for (auto const& s : (*e)["sets"]) {
            sets[s["setId"]] = {s["records"], s["templates"]};
         }
         EXPECT_EQ(sets, want.sets);
      }
      return;
   }
   FAIL() << "the agent never paused for a moment";
}

TEST_F(StatsTool, ClearResetsExactlyTheNamedCollectorAndKeepsTheClearTime) {
   start();
   auto const r = statsTool(cfg.table, {"clear", "--collector", c4.ipAndPort().toString()});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_NE(r.out.find("cleared 1 collector"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find(c4.ipAndPort().toString()), std::string::npos) << r.out;
   json const all = stats();
   json const* cleared = find(all, c4.ipAndPort().toString());
   json const* kept = find(all, c6.ip6AndPort().toString());
   ASSERT_TRUE(cleared && kept) << all.dump(2);
   EXPECT_FALSE((*cleared)["lastCleared"].is_null());
   EXPECT_TRUE((*kept)["lastCleared"].is_null());
   EXPECT_LT((*cleared)["messages"].get<std::uint64_t>(), (*kept)["messages"].get<std::uint64_t>());
   // The table also remembers when counters were last cleared, in an entry of its own.
   Mirra::Ipfix::CollectorStatisticsReader reader(cfg.table);
   bool sawClearTime = false;
   for (auto const& e : reader.allStats()) {
      sawClearTime |= e.key.tracker().empty() && e.key.exporter().empty() && e.lastClearedTime > 0;
   }
   EXPECT_TRUE(sawClearTime);
}

TEST_F(StatsTool, ControlSocketRefusesBadClientsAndTheAgentKeepsExporting) {
   start();
   std::string const path = Agent::defaultControlSocketPath(cfg.table);
   {
      ControlClient c(path);
      ASSERT_TRUE(c.connected);
      // The last two quote back bytes that are not UTF-8: a stray octet, and a collector cut at
      // 64 bytes inside a two-byte character. Their replies once failed to be written at all.
      c.sendAll(
          "garbage\n{\"request\": \"reboot\"}\n{\"request\": \"clear\", \"tracker\": 7}\n"
          "{\"request\": \"status\"\xa2}\n{\"request\": \"clear\", \"collector\": \"" +
          std::string(63, 'x') + "\xc3\xa9\"}\n");
      auto const r = c.replies(5);
      ASSERT_EQ(r.size(), 5u);
      for (auto const& reply : r) {
         EXPECT_EQ(reply["ok"], false) << reply;
      }
      EXPECT_NE(r[1]["error"].get<std::string>().find("unknown request"), std::string::npos);
      EXPECT_NE(r[4]["error"].get<std::string>().find(std::string(63, 'x') + "\ufffd"),
                std::string::npos);
   }
   {
      ControlClient c(path);
      c.sendAll(std::string(1 << 20, 'x'));
      auto const r = c.replies(2);
      ASSERT_EQ(r.size(), 1u) << "one error reply, then the connection is closed";
      EXPECT_NE(r[0]["error"].get<std::string>().find("longer than"), std::string::npos);
   }
   {
      ControlClient c(path);
      std::string burst;
      for (int i = 0; i < 1000; ++i) {
         burst += "{\"request\": \"status\"}\n";
      }
      std::thread writer([&] { c.sendAll(burst); });
      auto const r = c.replies(1000);
      writer.join();
      ASSERT_EQ(r.size(), 1000u);
      EXPECT_EQ(r.back()["trackers"][0]["exporters"][0]["ipv4"]["ready"], true) << r.back();
   }
   // Another user cannot even connect (the socket is its owner's alone).
   pid_t const other = inChild([&] {
      return setgid(65534) != 0 || setuid(65534) != 0 ? 2 : ControlClient(path).connected ? 1 : 0;
   });
   EXPECT_EQ(exitCodeOf(other), 0) << "1: connected, 2: could not change user";

   // Through all of it the collectors kept getting their templates.
   std::vector<Received> later;
   receiveUntil(
       {{&c4, &later}}, [&] { return later.size() >= 2; }, 3s);
   EXPECT_GE(later.size(), 2u);
   EXPECT_EQ(agent->stop(), 0) << agent->log();
}

// A collector without a listener: the ICMP port unreachable that comes back is counted as
// "connection refused" against that collector alone, and shown by every view: the table, JSON,
// Prometheus and the agent's status. Clearing the collector clears its failures. A listener that
// comes later gets the exporter's messages with nothing else done.
TEST_F(StatsTool, CollectorWithoutListenerShowsConnectionRefusedUntilClearedAndReachesALateOne) {
   std::uint16_t const p4 = LoopbackCollector::unusedPort(false);
   std::string const d4 = "127.0.0.1:" + std::to_string(p4);
   std::string const d6 = "[::1]:" + std::to_string(LoopbackCollector::unusedPort(true));
   start("          dead4: " + d4 + "\n          dead6: \"" + d6 + "\"\n");
   json all;
   auto refused = [&](std::string const& c) -> std::uint64_t {
      json const* e = find(all, c);
      return e ? (*e)["failures"]["connectionRefused"].get<std::uint64_t>() : 0;
   };
   // Templates go every second; each send after the first learns of the one before.
   for (int i = 0; i < 100 && (refused(d4) == 0 || refused(d6) == 0); ++i) {
      std::this_thread::sleep_for(50ms);
      all = stats();
   }
   for (std::string const& c : {d4, d6}) {
      ASSERT_TRUE(find(all, c)) << all.dump(2);
      json const& f = (*find(all, c))["failures"];
      EXPECT_GT(f["connectionRefused"].get<std::uint64_t>(), 0u) << f;
      EXPECT_EQ(f["total"], f["connectionRefused"]) << f;
      EXPECT_EQ(f["lastFailureText"], std::strerror(ECONNREFUSED)) << f;
      EXPECT_TRUE(f["lastFailure"].is_string()) << f;
   }
   for (std::string const& c : {c4.ipAndPort().toString(), c6.ip6AndPort().toString()}) {
      ASSERT_TRUE(find(all, c)) << all.dump(2);
      EXPECT_EQ((*find(all, c))["failures"]["total"], 0) << c;
      EXPECT_TRUE((*find(all, c))["failures"]["lastFailure"].is_null()) << c;
   }

   auto const shown = statsTool(cfg.table, {"show", "--collector", d4});
   ASSERT_EQ(shown.exitCode, 0) << shown.err;
   EXPECT_TRUE(shown.err.empty()) << shown.err;
   for (std::string const& line : {std::string("FAILURES"), std::string("    connection refused: "),
                                   std::string(" ago: ") + std::strerror(ECONNREFUSED)}) {
      EXPECT_NE(shown.out.find(line), std::string::npos) << line << "\n" << shown.out;
   }
   auto const prometheus = statsTool(cfg.table, {"prometheus"});
   ASSERT_EQ(prometheus.exitCode, 0);
   std::string const series = R"(ipfix_exporter_send_failures_total{tracker="ft1",exporter="e1",)"
                              R"(collector=")" +
                              d4 + R"(",cause="connection_refused"} )";
   EXPECT_NE(prometheus.out.find(series), std::string::npos) << prometheus.out;

   json const status = controlStatus(cfg.table);
   std::map<std::string, json> byName;
   for (auto const& c : status.at("trackers")[0]["exporters"][0]["collectors"]) {
      byName[c["name"]] = c["failures"];
   }
   EXPECT_GT(byName["dead4"]["connectionRefused"].get<std::uint64_t>(), 0u) << status;
   EXPECT_GT(byName["dead6"]["connectionRefused"].get<std::uint64_t>(), 0u) << status;
   EXPECT_EQ(byName["c4"]["total"], 0) << status;

   std::uint64_t const d4Before = (*find(all, d4))["failures"]["total"];
   double const clearedAt = Kivo::currentTime();
   auto const clear = statsTool(cfg.table, {"clear", "--collector", d6});
   ASSERT_EQ(clear.exitCode, 0) << clear.err;
   // What is counted for d6 afterwards failed after the clear; d4 kept everything.
   Agent::CollectorHealthReader health(cfg.table);
   bool sawD4 = false;
   for (auto const& [k, h] : health.all()) {
      std::string const c = Agent::collectorText(k.collector);
      if (c == d6) {
         EXPECT_GE(h.lastFailureTime, clearedAt);
      }
      if (c == d4) {
         sawD4 = true;
         EXPECT_GE(h.total(), d4Before);
      }
   }
   EXPECT_TRUE(sawD4);
   LoopbackCollector late(false, p4);
   EXPECT_FALSE(late.drain(3000, 1).empty());
}

// An agent without a health table (an older one) still gets its statistics shown, with one
// warning line.
TEST_F(StatsTool, MissingHealthTableShowsStatisticsWithOneWarning) {
   start();
   // Take the health table away as an older agent would not have made it.
   ASSERT_TRUE(Mirra::shmUnlink(cfg.table + "-health"));
   auto const r = statsTool(cfg.table, {"show"});
   ASSERT_EQ(r.exitCode, 0) << r.err;
   EXPECT_NE(r.out.find(c4.ipAndPort().toString()), std::string::npos) << r.out;
   EXPECT_EQ(r.out.find("FAILURES"), std::string::npos) << r.out;
   EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
   EXPECT_NE(r.err.find("no send failures shown"), std::string::npos) << r.err;
   EXPECT_TRUE(stats()[0]["failures"].is_null());
}

TEST(StatsToolWithoutAgent, MissingTableAndAbsentAgentHaveTheirOwnExitCodes) {
   std::string const table = "/ipfix-agent-test-none-" + uniqueSuffix();
   auto const show = statsTool(table, {"show"}), clear = statsTool(table, {"clear"});
   EXPECT_EQ(show.exitCode, 2);
   EXPECT_NE(show.err.find("is ipfix-agent running?"), std::string::npos) << show.err;
   EXPECT_EQ(clear.exitCode, 4);
   EXPECT_NE(clear.err.find("control socket"), std::string::npos) << clear.err;
}

}  // namespace
}  // namespace testsupport
