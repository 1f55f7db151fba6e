// Collector health: why sends to a collector failed, beside its statistics.
//
// The agent keeps, per (tracker, exporter, collector), the number of failed sends by cause and the
// time and text of the last failure, in a shared-memory table of its own named after the
// statistics table (healthTableName()). The statistics entries keep their layout: an older
// ipfix-stats reads them as before, and a newer one shows no failures when an older agent has no
// health table.
//
// The agent learns of failures from the process-wide Pelto::UdpPam failure observer
// (CollectorHealthMonitor), which names a module and a destination; the monitor finds the
// exporter owning the module in the component's info tree and the collector by its address.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Mirra/ShmTable.h"

namespace Agent {

// Why a send failed, from its errno.
enum class SendFailureCause : std::uint8_t {
   messageTooLong,     // EMSGSIZE
   connectionRefused,  // ECONNREFUSED (ICMP port unreachable: nobody listens)
   unreachable,        // ENETUNREACH, EHOSTUNREACH
   permission,         // EPERM, EACCES (a firewall rule, a prohibited route)
   noBufferSpace,      // ENOBUFS, EAGAIN / EWOULDBLOCK (send buffer or queue full)
   other,
};
constexpr std::size_t sendFailureCauseCount = 6;

SendFailureCause sendFailureCause(int err);
// How people read the cause: "message too long", "connection refused", ...
char const* causeText(SendFailureCause c);
// The cause's key in JSON ("messageTooLong") and its Prometheus label value
// ("message_too_long").
char const* causeJsonName(SendFailureCause c);
char const* causeLabel(SendFailureCause c);

using HealthKey = Mirra::Ipfix::CollectorStatisticsKey;

// One collector's failures, as stored in shared memory: plain, fixed-size.
struct CollectorHealth {
   std::array<std::uint64_t, sendFailureCauseCount> failures{};
   double lastFailureTime = 0;  // seconds since the epoch; 0: never
   std::int32_t lastFailureErrno = 0;
   std::uint32_t reserved = 0;
   char lastFailureText[128] = {};  // strerror of the last failure, NUL-terminated

   std::uint64_t total() const;
   std::uint64_t count(SendFailureCause c) const { return failures[static_cast<std::size_t>(c)]; }
   // At most 127 bytes of the text, whatever another process left in it.
   std::string_view text() const;
   // Counts a failure with `err` at `when`.
   void failureIs(int err, double when);
   // Why another process may not have written this (a time that is not a time, a negative
   // errno); empty when nothing is wrong.
   std::string validationError() const;
};
static_assert(sizeof(CollectorHealth) == 6 * 8 + 8 + 4 + 4 + 128);

// "<table>-health".
std::string healthTableName(std::string const& statisticsTable);

// The "failures" object of JSON output and of the control socket's status: per cause counts,
// "total", "lastFailure" (RFC 3339 or null) and "lastFailureText" (null when none).
nlohmann::json failuresJson(CollectorHealth const& h);
// RFC 3339 in UTC with milliseconds, or null for 0. REQUIRES: Mirra::Ipfix::validTime(when).
nlohmann::json rfc3339(double when);
// `s` as a JSON string that always dumps: each byte that is not part of valid UTF-8 (a name or
// text from another process's shared memory) becomes U+FFFD.
nlohmann::json jsonString(std::string_view s);

using HealthTable =
    Mirra::ShmTableWriter<HealthKey, CollectorHealth, Mirra::Ipfix::CollectorStatisticsKeyHash>;
using HealthTableReader =
    Mirra::ShmTableReader<HealthKey, CollectorHealth, Mirra::Ipfix::CollectorStatisticsKeyHash>;

// The agent's writer of the health table. Created with the statistics table, removed with it.
class CollectorHealthTable {
 public:
   // Throws as Mirra::ShmTableWriter does (EEXIST: another live agent writes it).
   explicit CollectorHealthTable(std::string const& statisticsTable);

   std::string const& name() const { return name_; }
   std::optional<CollectorHealth> health(HealthKey const& key) const { return table_.get(key); }
   // Counts a failure of `key`'s collector; a full table leaves it uncounted (traced by Mirra).
   void failureIs(HealthKey const& key, int err, double when);
   // Removes every entry `keep` refuses (collectors, exporters, trackers that went).
   void retain(std::function<bool(HealthKey const&)> const& keep);
   // Clears what a clear request covers: empty names match everything, as does an absent
   // collector.
   void clear(std::string const& tracker, std::string const& exporter,
              std::optional<Mirra::Ipfix::CollectorInfo> const& collector);
   std::uint32_t size() const { return table_.size(); }

 private:
   std::string name_;
   HealthTable table_;
};

// Hears every failed send of the process (Pelto::UdpPam's observer, set while this lives) and
// counts those of the exporters in `info` against their collectors, as `config` names them.
// Failures of other modules (the local collector's), or to a destination that is none of the
// exporter's collectors, are left out. REQUIRES: one at a time per process; `table` outlives it.
class CollectorHealthMonitor {
 public:
   CollectorHealthMonitor(Kivo::Ptr<FlowTracking::FlowTrackingInfo> info,
                          Kivo::Ptr<HwFlowTracking::Config> config, CollectorHealthTable& table);
   ~CollectorHealthMonitor();
   CollectorHealthMonitor(CollectorHealthMonitor const&) = delete;
   CollectorHealthMonitor& operator=(CollectorHealthMonitor const&) = delete;

   // The (tracker, exporter, collector) a failure belongs to, if any.
   std::optional<HealthKey> keyFor(Pelto::TxFailure const& f) const;

 private:
   void handleFailure_(Pelto::TxFailure const& f);

   Kivo::Ptr<FlowTracking::FlowTrackingInfo> info_;
   Kivo::Ptr<HwFlowTracking::Config> config_;
   CollectorHealthTable& table_;
};

// A reader's view of the health table, for ipfix-stats. Entries failing validation are left out.
// Throws as Mirra::ShmTableReader does (ENOENT: no health table, e.g. an older agent).
class CollectorHealthReader {
 public:
   explicit CollectorHealthReader(std::string const& statisticsTable);
   std::vector<std::pair<HealthKey, CollectorHealth>> all();

 private:
   HealthTableReader table_;
};

}  // namespace Agent
