// How ipfix-stats shows collector statistics: a table for people, JSON for programs, and the
// Prometheus text exposition format for monitoring. Pure functions of the entries read from the
// statistics table, the health table and the current time, so they can be checked without a
// running agent.
//
// Health (send failures per collector) comes from a table of its own; an agent that has none
// (an older one) is shown without failures: `health` is then nullopt.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "agent/CollectorHealth.h"

namespace Stats {

using Entry = Mirra::Ipfix::CollectorStatisticsEntry;
// The health table's entries; a collector without one has had no failure.
using Health = std::vector<std::pair<Agent::HealthKey, Agent::CollectorHealth>>;

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
using Agent::rfc3339;

// When the counters were last cleared, from the clear-time entry; 0 when never.
double lastClearTime(std::vector<Entry> const& all);

// The failures of `e`'s collector: its health entry, all zero when it has none.
Agent::CollectorHealth healthOf(Health const& health, Entry const& e);

std::string tableText(std::vector<Entry> const& entries, double now,
                      std::optional<Health> const& health = std::nullopt);
nlohmann::json toJson(std::vector<Entry> const& entries,
                      std::optional<Health> const& health = std::nullopt);
std::string prometheusText(std::vector<Entry> const& entries,
                           std::optional<Health> const& health = std::nullopt);

}  // namespace Stats
