// How ipfix-stats shows collector statistics: a table for people, JSON for programs, and the
// Prometheus text exposition format for monitoring. Pure functions of the entries read from the
// statistics table and the current time, so they can be checked without a running agent.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"

namespace Stats {

using Entry = Mirra::Ipfix::CollectorStatisticsEntry;

// Which entries to show; empty fields match everything.
struct Filter {
   std::string tracker;
   std::string exporter;
   std::string collector;  // "ADDR:PORT" or "[ADDR6]:PORT", as CollectorInfo prints it
   bool matches(Entry const& e) const;
};

enum class SortKey { tracker, exporter, collector, messages, records, octets, lastSent };
std::optional<SortKey> sortKeyFromString(std::string const& s);

// The entries of collectors (not the entry that only records the last clear), filtered and
// sorted; counters descending, names ascending, ties by tracker, exporter, collector.
std::vector<Entry> select(std::vector<Entry> const& all, Filter const& filter, SortKey sort);

// "never" for 0; else the age as "12s ago", "4m05s ago", "3h02m ago", "2d04h ago"; a time in
// the future (clocks of two hosts) is "in 3s".
std::string ageText(double now, double when);
// RFC 3339 in UTC with milliseconds ("2026-11-24T05:02:53.250Z"), or null for 0.
nlohmann::json rfc3339(double when);

// When the counters were last cleared, from the clear-time entry; 0 when never.
double lastClearTime(std::vector<Entry> const& all);

std::string tableText(std::vector<Entry> const& entries, double now);
nlohmann::json toJson(std::vector<Entry> const& entries);
std::string prometheusText(std::vector<Entry> const& entries);

}  // namespace Stats
