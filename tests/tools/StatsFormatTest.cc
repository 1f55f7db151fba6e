// What ipfix-stats prints, from entries made here: ages, times, filters and order, and a
// Prometheus exposition that a strict reading of the text format accepts.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tools/StatsFormat.h"

namespace {

using nlohmann::json;
using Stats::Entry;

Entry entry(std::string const& ft, std::string const& exp, char const* addr, std::uint16_t port,
            std::uint64_t messages) {
   Entry e(Mirra::Ipfix::CollectorStatisticsKey(ft, exp, {*Pelto::IpGenAddr::parse(addr), port}));
   e.exportedMessageTotalCount = messages;
   e.exportedFlowRecordTotalCount = messages * 3;
   e.exportedOctetTotalCount = messages * 100;
   e.lastSentTime = 1000;
   e.setEntryIs({256, 7, 1});
   e.setEntryIs({2, 0, 2});
   return e;
}

Entry clearTimeEntry(double when) {
   Entry e;
   e.lastClearedTime = when;
   return e;
}

TEST(StatsFormat, AgesAndTimes) {
   struct Case {
      double now, when;
      char const* text;
   } const cases[] = {
       {100, 0, "never"},        {100, 88, "12s ago"},       {100, 100, "0s ago"},
       {1000, 755, "4m05s ago"}, {20000, 9080, "3h02m ago"}, {200000, 13200, "2d03h ago"},
       {100, 103, "in 3s"},
   };
   for (Case const& c : cases) {
      EXPECT_EQ(Stats::ageText(c.now, c.when), c.text) << c.when;
   }
   EXPECT_TRUE(Stats::rfc3339(0).is_null());
   EXPECT_EQ(Stats::rfc3339(1795496573.25), "2026-11-24T05:02:53.250Z");
}

TEST(StatsFormat, SelectFiltersSortsAndLeavesOutTheClearTimeEntry) {
   std::vector<Entry> const all = {entry("ft2", "e1", "10.0.0.1", 4739, 5), clearTimeEntry(50),
                                   entry("ft1", "e2", "::1", 2055, 9),
                                   entry("ft1", "e1", "10.0.0.2", 4739, 9)};
   auto names = [](std::vector<Entry> const& es) {
      std::vector<std::string> out;
      for (auto const& e : es) {
         out.push_back(std::string(e.key.tracker()) + "/" + std::string(e.key.exporter()));
      }
      return out;
   };
   using Key = Stats::SortKey;
   struct Case {
      Stats::Filter filter;
      Key sort;
      std::vector<std::string> want;
   } const cases[] = {
       {{}, Key::tracker, {"ft1/e1", "ft1/e2", "ft2/e1"}},
       {{}, Key::messages, {"ft1/e1", "ft1/e2", "ft2/e1"}},
       {{}, Key::exporter, {"ft1/e1", "ft2/e1", "ft1/e2"}},
       {{"ft1", "", ""}, Key::tracker, {"ft1/e1", "ft1/e2"}},
       {{"", "", "[::1]:2055"}, Key::tracker, {"ft1/e2"}},
       {{"", "nope", ""}, Key::tracker, {}},
   };
   for (Case const& c : cases) {
      EXPECT_EQ(names(Stats::select(all, c.filter, c.sort)), c.want)
          << c.filter.tracker << "/" << c.filter.exporter << "/" << c.filter.collector << " by "
          << int(c.sort);
   }
   EXPECT_EQ(Stats::lastClearTime(all), 50);
}

// A strict reading of the text exposition format: every sample belongs to the family announced
// just before it by HELP and TYPE, names and labels are well formed, counters end in _total,
// no series repeats, values are numbers.
std::map<std::string, double> parseExposition(std::string const& text) {
   std::regex const help(R"(# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) \S.*)");
   std::regex const type(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge))");
   std::regex const sample(
       R"(([a-zA-Z_:][a-zA-Z0-9_:]*)\{((?:[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\[\\"n])*",?)*)\} (-?[0-9.e+]+))");
   std::map<std::string, double> series;
   std::string family, familyType;
   std::istringstream in(text);
   std::smatch m;
   for (std::string line; std::getline(in, line);) {
      if (std::regex_match(line, m, help)) {
         family = m[1];
         familyType.clear();
      } else if (std::regex_match(line, m, type)) {
         EXPECT_EQ(m[1], family) << line;
         familyType = m[2];
         if (familyType == "counter") {
            EXPECT_TRUE(family.ends_with("_total")) << family;
         }
      } else if (std::regex_match(line, m, sample)) {
         EXPECT_EQ(m[1], family) << line;
         EXPECT_FALSE(familyType.empty()) << line;
         std::string const key = std::string(m[1]) + "{" + std::string(m[2]) + "}";
         EXPECT_TRUE(series.emplace(key, std::stod(m[3])).second) << "repeated: " << key;
      } else {
         ADD_FAILURE() << "not exposition format: " << line;
      }
   }
   return series;
}

TEST(StatsFormat, PrometheusExpositionIsWellFormedAndEscapesLabels) {
   std::vector<Entry> const es = {entry("ft\"1", "e\\1", "10.0.0.1", 4739, 4),
                                  entry("ft2", "e1", "::1", 2055, 1)};
   auto const series = parseExposition(Stats::prometheusText(es));
   EXPECT_EQ(
       series.at(
           R"(ipfix_exporter_messages_total{tracker="ft\"1",exporter="e\\1",collector="10.0.0.1:4739"})"),
       4);
   EXPECT_EQ(
       series.at(
           R"(ipfix_exporter_set_records_total{tracker="ft2",exporter="e1",collector="[::1]:2055",set_id="256"})"),
       7);
   EXPECT_EQ(
       series.at(
           R"(ipfix_exporter_last_sent_timestamp_seconds{tracker="ft2",exporter="e1",collector="[::1]:2055"})"),
       1000);
   // Never cleared: no sample rather than a zero timestamp.
   for (auto const& [k, v] : series) {
      EXPECT_FALSE(k.starts_with("ipfix_exporter_last_cleared")) << k;
   }
}

// Every counter, and failures as each view shows them, for a collector with failures of several
// causes, one without any, and an agent without a health table.
TEST(StatsFormat, CountersAndFailuresInTableJsonAndPrometheus) {
   std::vector<Entry> const es = {entry("ft1", "e1", "10.0.0.1", 4739, 4),
                                  entry("ft1", "e1", "::1", 2055, 2)};
   Agent::CollectorHealth bad;
   bad.failureIs(ECONNREFUSED, 990);
   bad.failureIs(ECONNREFUSED, 995);
   bad.failureIs(ENOBUFS, 1000);
   Stats::Health const health = {{es[0].key, bad}};

   struct Case {
      char const* name;
      std::optional<Stats::Health> health;
      std::vector<std::string> present, absent;
   } const cases[] = {
       {"with failures",
        health,
        {"FAILURES", "    connection refused: 2 failed\n", "    no buffer space: 1 failed\n",
         std::string("    last failure: 12s ago: ") + std::strerror(ENOBUFS) + "\n"},
        {"message too long", "unreachable", "permission", "    other"}},
       {"without health table",
        std::nullopt,
        {"TRACKER", "ft1", "e1", "10.0.0.1:4739", "12s ago", "never",
         "set 2: 0 records, 2 templates", "set 256: 7 records, 1 templates"},
        {"FAILURES", "failed"}},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.name);
      std::string const table = Stats::tableText(es, 1012, c.health);
      for (auto const& s : c.present) {
         EXPECT_NE(table.find(s), std::string::npos) << s << "\n" << table;
      }
      for (auto const& s : c.absent) {
         EXPECT_EQ(table.find(s), std::string::npos) << s << "\n" << table;
      }
   }
   // One line per cause, under its own collector and nowhere else.
   std::string const table = Stats::tableText(es, 1012, health);
   EXPECT_LT(table.find("connection refused"), table.find("[::1]:2055")) << table;
   EXPECT_EQ(table.find("last failure", table.find("[::1]:2055")), std::string::npos) << table;

   auto const j = Stats::toJson(es, health);
   ASSERT_EQ(j.size(), 2u);
   EXPECT_EQ(j[0]["messages"], 4);
   EXPECT_EQ(j[0]["records"], 12);
   EXPECT_EQ(j[0]["octets"], 400);
   EXPECT_EQ(j[0]["lastSent"], "1970-01-01T00:16:40.000Z");
   EXPECT_TRUE(j[0]["lastCleared"].is_null());
   EXPECT_EQ(j[0]["sets"][1]["setId"], 256);
   EXPECT_EQ(j[0]["sets"][1]["records"], 7);
   EXPECT_EQ(j[0]["failures"]["connectionRefused"], 2);
   EXPECT_EQ(j[0]["failures"]["noBufferSpace"], 1);
   EXPECT_EQ(j[0]["failures"]["total"], 3);
   EXPECT_EQ(j[0]["failures"]["lastFailure"], "1970-01-01T00:16:40.000Z");
   EXPECT_EQ(j[0]["failures"]["lastFailureText"], std::strerror(ENOBUFS));
   EXPECT_EQ(j[1]["failures"]["total"], 0);
   EXPECT_TRUE(j[1]["failures"]["lastFailure"].is_null());
   EXPECT_TRUE(Stats::toJson(es)[0]["failures"].is_null());

   // Names and texts from a damaged table that are not UTF-8 still make JSON text (ipfix-stats
   // --json once died on them): each bad byte becomes U+FFFD.
   Entry damaged = entry("ft\xff", "e\xc3", "10.0.0.1", 4739, 1);
   Agent::CollectorHealth text = bad;
   std::strcpy(text.lastFailureText, "refused \xfe");
   auto const dumped =
       json::parse(Stats::toJson({damaged}, Stats::Health{{damaged.key, text}}).dump(2))[0];
   EXPECT_EQ(dumped["tracker"], "ft\ufffd");
   EXPECT_EQ(dumped["exporter"], "e\ufffd");
   EXPECT_EQ(dumped["failures"]["lastFailureText"], "refused \ufffd");

   auto const series = parseExposition(Stats::prometheusText(es, health));
   std::string const l0 = R"(tracker="ft1",exporter="e1",collector="10.0.0.1:4739")";
   std::string const l1 = R"(tracker="ft1",exporter="e1",collector="[::1]:2055")";
   EXPECT_EQ(
       series.at("ipfix_exporter_send_failures_total{" + l0 + R"(,cause="connection_refused"})"),
       2);
   EXPECT_EQ(series.at("ipfix_exporter_send_failures_total{" + l0 + R"(,cause="no_buffer_space"})"),
             1);
   EXPECT_EQ(
       series.at("ipfix_exporter_send_failures_total{" + l1 + R"(,cause="connection_refused"})"),
       0);
   EXPECT_EQ(series.at("ipfix_exporter_last_send_failure_timestamp_seconds{" + l0 + "}"), 1000);
   EXPECT_FALSE(series.count("ipfix_exporter_last_send_failure_timestamp_seconds{" + l1 + "}"));
   int causes = 0;
   for (auto const& [k, v] : series) {
      causes += k.starts_with("ipfix_exporter_send_failures_total{" + l1);
   }
   EXPECT_EQ(causes, 6);
   for (auto const& [k, v] : parseExposition(Stats::prometheusText(es))) {
      EXPECT_EQ(k.find("failure"), std::string::npos) << k;
   }
}

}  // namespace
