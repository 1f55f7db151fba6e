// ipfix-stats and the control socket against a running agent, each its own process: what the
// tool shows is what the collectors received, clear resets exactly what it names, and the
// control socket holds against bad clients while the agent keeps exporting.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

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

std::string statsBinary() {
#ifdef IPFIX_STATS_BIN
   return IPFIX_STATS_BIN;
#else
   return "ipfix-stats";
#endif
}

// What one collector received, counted as the statistics table counts it.
struct Counted {
   std::uint64_t messages = 0, records = 0, octets = 0;
   std::map<std::uint16_t, std::uint64_t> setRecords, setTemplates;
};

Counted count(std::vector<Received> const& rs) {
   Counted c;
   Decoder d;
   for (auto const& r : rs) {
      Message const m = d.decode(r.payload);
      ++c.messages;
      c.octets += r.payload.size();
      for (auto const& s : m.sets) {
         if (s.id == 2 || s.id == 3) {
            c.setTemplates[s.id] += s.templates.size();
         } else {
            c.setRecords[s.id] += s.records.size();
            c.records += s.records.size();
         }
      }
   }
   return c;
}

class StatsTool : public ::testing::Test {
 protected:
   void start(std::string const& extraExporters = {}, std::string const& extraCollectors = {}) {
      cfg.collectors = v4Collector("c4", c4) + v6Collector("c6", c6) + extraCollectors;
      cfg.extraExporters = extraExporters;
      agent = std::make_unique<AgentProcess>(cfg.text());
      ASSERT_TRUE(receiveUntil(
          {{&c4, &r4}, {&c6, &r6}},
          [&] {
             Stream a, b;
             a.add(r4);
             b.add(r6);
             return complete(a) && complete(b);
          },
          5s))
          << agent->log();
   }
   json stats(std::vector<std::string> args = {}) {
      std::vector<std::string> argv = {statsBinary(), "--table", cfg.table, "show", "--json"};
      argv.insert(argv.end(), args.begin(), args.end());
      std::string out, err;
      int const rc = runProgram(argv, &out, &err);
      EXPECT_EQ(rc, 0) << err;
      return json::parse(out);
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
   for (int attempt = 0; attempt < 20; ++attempt) {
      for (auto const& r : c4.drain(50))
         r4.push_back(r);
      for (auto const& r : c6.drain(0))
         r6.push_back(r);
      json const all = stats();
      auto late4 = c4.drain(30);
      auto late6 = c6.drain(0);
      if (!late4.empty() || !late6.empty()) {
         r4.insert(r4.end(), late4.begin(), late4.end());
         r6.insert(r6.end(), late6.begin(), late6.end());
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
         for (auto const& s : (*e)["sets"]) {
            std::uint16_t const id = s["setId"];
            EXPECT_EQ(s["records"], want.setRecords.count(id) ? want.setRecords.at(id) : 0) << id;
            EXPECT_EQ(s["templates"], want.setTemplates.count(id) ? want.setTemplates.at(id) : 0)
                << id;
         }
         EXPECT_EQ((*e)["sets"].size(), want.setRecords.size() + want.setTemplates.size());
      }
      return;
   }
   FAIL() << "the agent never paused for a moment";
}

TEST_F(StatsTool, ClearResetsExactlyTheNamedCollectorAndKeepsTheClearTime) {
   start();
   std::string out, err;
   ASSERT_EQ(runProgram({statsBinary(), "--table", cfg.table, "clear", "--collector",
                         c4.ipAndPort().toString()},
                        &out, &err),
             0)
       << err;
   EXPECT_NE(out.find("cleared 1 collector"), std::string::npos) << out;
   EXPECT_NE(out.find(c4.ipAndPort().toString()), std::string::npos) << out;
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

// A raw client of the control socket.
struct Client {
   explicit Client(std::string const& path) {
      fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un sa{};
      sa.sun_family = AF_UNIX;
      std::snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
      connected = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
   }
   ~Client() { close(fd); }
   void sendAll(std::string const& s) {
      for (std::size_t done = 0; done < s.size();) {
         ssize_t const n = ::send(fd, s.data() + done, s.size() - done, MSG_NOSIGNAL);
         if (n <= 0) {
            return;
         }
         done += static_cast<std::size_t>(n);
      }
   }
   // Reply lines until `n` arrived, the peer closed, or 5 s passed.
   std::vector<json> replies(std::size_t n) {
      std::vector<json> out;
      std::string buf;
      timeval tv{5, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
      while (out.size() < n) {
         char b[65536];
         ssize_t const r = recv(fd, b, sizeof(b), 0);
         if (r <= 0) {
            break;
         }
         buf.append(b, static_cast<std::size_t>(r));
         for (std::size_t nl; (nl = buf.find('\n')) != std::string::npos;) {
            out.push_back(json::parse(buf.substr(0, nl)));
            buf.erase(0, nl + 1);
         }
      }
      return out;
   }
   int fd = -1;
   bool connected = false;
};

TEST_F(StatsTool, ControlSocketRefusesBadClientsAndTheAgentKeepsExporting) {
   start();
   std::string const path = Agent::defaultControlSocketPath(cfg.table);
   {
      Client c(path);
      ASSERT_TRUE(c.connected);
      c.sendAll("garbage\n{\"request\": \"reboot\"}\n{\"request\": \"clear\", \"tracker\": 7}\n");
      auto const r = c.replies(3);
      ASSERT_EQ(r.size(), 3u);
      for (auto const& reply : r) {
         EXPECT_EQ(reply["ok"], false) << reply;
      }
      EXPECT_NE(r[1]["error"].get<std::string>().find("unknown request"), std::string::npos);
   }
   {
      Client c(path);
      c.sendAll(std::string(1 << 20, 'x'));
      auto const r = c.replies(2);
      ASSERT_EQ(r.size(), 1u) << "one error reply, then the connection is closed";
      EXPECT_NE(r[0]["error"].get<std::string>().find("longer than"), std::string::npos);
   }
   {
      Client c(path);
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
   pid_t const pid = fork();
   if (pid == 0) {
      if (setgid(65534) != 0 || setuid(65534) != 0) {
         _exit(2);
      }
      Client c(path);
      _exit(c.connected ? 1 : 0);
   }
   int status = 0;
   waitpid(pid, &status, 0);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

   // Through all of it the collectors kept getting their templates.
   std::vector<Received> later;
   receiveUntil(
       {{&c4, &later}}, [&] { return later.size() >= 2; }, 3s);
   EXPECT_GE(later.size(), 2u);
   EXPECT_EQ(agent->stop(), 0) << agent->log();
}

// A port on loopback that nobody listens on.
std::uint16_t deadPort(bool v6) {
   LoopbackCollector gone(v6);
   return gone.port();
}

// A collector without a listener: the ICMP port unreachable that comes back is counted as
// "connection refused" against that collector alone, and shown by every view: the table, JSON,
// Prometheus and the agent's status. Clearing the collector clears its failures.
TEST_F(StatsTool, CollectorWithoutListenerShowsConnectionRefusedEverywhereUntilCleared) {
   std::uint16_t const dead4 = deadPort(false), dead6 = deadPort(true);
   std::string const d4 = "127.0.0.1:" + std::to_string(dead4);
   std::string const d6 = "[::1]:" + std::to_string(dead6);
   start({}, "          dead4: " + d4 + "\n          dead6: \"" + d6 + "\"\n");
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

   std::string out, err;
   ASSERT_EQ(
       runProgram({statsBinary(), "--table", cfg.table, "show", "--collector", d4}, &out, &err), 0)
       << err;
   EXPECT_TRUE(err.empty()) << err;
   EXPECT_NE(out.find("FAILURES"), std::string::npos) << out;
   EXPECT_NE(out.find("    connection refused: "), std::string::npos) << out;
   EXPECT_NE(out.find(std::string(" ago: ") + std::strerror(ECONNREFUSED)), std::string::npos)
       << out;
   ASSERT_EQ(runProgram({statsBinary(), "--table", cfg.table, "prometheus"}, &out, &err), 0);
   EXPECT_NE(out.find("ipfix_exporter_send_failures_total{tracker=\"ft1\",exporter=\"e1\","
                      "collector=\"" +
                      d4 + "\",cause=\"connection_refused\"} "),
             std::string::npos)
       << out;

   Client status(Agent::defaultControlSocketPath(cfg.table));
   status.sendAll("{\"request\": \"status\"}\n");
   auto const r = status.replies(1);
   ASSERT_EQ(r.size(), 1u);
   std::map<std::string, json> byName;
   for (auto const& c : r[0]["trackers"][0]["exporters"][0]["collectors"]) {
      byName[c["name"]] = c["failures"];
   }
   EXPECT_GT(byName["dead4"]["connectionRefused"].get<std::uint64_t>(), 0u) << r[0];
   EXPECT_GT(byName["dead6"]["connectionRefused"].get<std::uint64_t>(), 0u) << r[0];
   EXPECT_EQ(byName["c4"]["total"], 0) << r[0];

   std::uint64_t const d4Before = (*find(all, d4))["failures"]["total"];
   double const clearedAt = Kivo::currentTime();
   ASSERT_EQ(
       runProgram({statsBinary(), "--table", cfg.table, "clear", "--collector", d6}, &out, &err), 0)
       << err;
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
}

// An agent without a health table (an older one) still gets its statistics shown, with one
// warning line.
TEST_F(StatsTool, MissingHealthTableShowsStatisticsWithOneWarning) {
   start();
   // Take the health table away as an older agent would not have made it.
   ASSERT_TRUE(Mirra::shmUnlink(cfg.table + "-health"));
   std::string out, err;
   ASSERT_EQ(runProgram({statsBinary(), "--table", cfg.table, "show"}, &out, &err), 0) << err;
   EXPECT_NE(out.find(c4.ipAndPort().toString()), std::string::npos) << out;
   EXPECT_EQ(out.find("FAILURES"), std::string::npos) << out;
   EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
   EXPECT_NE(err.find("no send failures shown"), std::string::npos) << err;
   ASSERT_EQ(runProgram({statsBinary(), "--table", cfg.table, "show", "--json"}, &out, &err), 0);
   EXPECT_TRUE(json::parse(out)[0]["failures"].is_null()) << out;
}

TEST(StatsToolWithoutAgent, MissingTableAndAbsentAgentHaveTheirOwnExitCodes) {
   std::string out, err;
   std::string const table = "/ipfix-agent-test-none-" + uniqueSuffix();
   EXPECT_EQ(runProgram({statsBinary(), "--table", table, "show"}, &out, &err), 2);
   EXPECT_NE(err.find("is ipfix-agent running?"), std::string::npos) << err;
   EXPECT_EQ(runProgram({statsBinary(), "--table", table, "clear"}, &out, &err), 4);
   EXPECT_NE(err.find("control socket"), std::string::npos) << err;
}

}  // namespace
}  // namespace testsupport
