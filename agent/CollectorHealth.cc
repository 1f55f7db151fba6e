#include "agent/CollectorHealth.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace Agent {

namespace {

struct CauseNames {
   char const* text;
   char const* json;
   char const* label;
};

constexpr std::array<CauseNames, sendFailureCauseCount> causeNames = {{
    {"message too long", "messageTooLong", "message_too_long"},
    {"connection refused", "connectionRefused", "connection_refused"},
    {"unreachable", "unreachable", "unreachable"},
    {"permission", "permission", "permission"},
    {"no buffer space", "noBufferSpace", "no_buffer_space"},
    {"other", "other", "other"},
}};

CauseNames const& names(SendFailureCause c) {
   return causeNames[static_cast<std::size_t>(c)];
}

}  // namespace

SendFailureCause sendFailureCause(int err) {
   switch (err) {
      case EMSGSIZE:
         return SendFailureCause::messageTooLong;
      case ECONNREFUSED:
         return SendFailureCause::connectionRefused;
      case ENETUNREACH:
      case EHOSTUNREACH:
         return SendFailureCause::unreachable;
      case EPERM:
      case EACCES:
         return SendFailureCause::permission;
      case ENOBUFS:
      case EAGAIN:
#if EWOULDBLOCK != EAGAIN
      case EWOULDBLOCK:
#endif
         return SendFailureCause::noBufferSpace;
      default:
         return SendFailureCause::other;
   }
}

char const* causeText(SendFailureCause c) {
   return names(c).text;
}
char const* causeJsonName(SendFailureCause c) {
   return names(c).json;
}
char const* causeLabel(SendFailureCause c) {
   return names(c).label;
}

std::uint64_t CollectorHealth::total() const {
   std::uint64_t n = 0;
   for (std::uint64_t f : failures) {
      n += f;
   }
   return n;
}

std::string_view CollectorHealth::text() const {
   return {lastFailureText, strnlen(lastFailureText, sizeof(lastFailureText) - 1)};
}

void CollectorHealth::failureIs(int err, double when) {
   ++failures[static_cast<std::size_t>(sendFailureCause(err))];
   lastFailureTime = when;
   lastFailureErrno = err;
   std::memset(lastFailureText, 0, sizeof(lastFailureText));
   std::snprintf(lastFailureText, sizeof(lastFailureText), "%s", std::strerror(err));
}

std::string CollectorHealth::validationError() const {
   if (!Mirra::Ipfix::validTime(lastFailureTime)) {
      return "last failure time is not a time";
   }
   if (lastFailureErrno < 0) {
      return "negative errno " + std::to_string(lastFailureErrno);
   }
   return {};
}

std::string healthTableName(std::string const& statisticsTable) {
   return statisticsTable + "-health";
}

nlohmann::json rfc3339(double when) {
   if (when == 0) {
      return nullptr;
   }
   auto const secs = static_cast<std::time_t>(std::floor(when));
   int const ms = static_cast<int>(std::lround((when - static_cast<double>(secs)) * 1000)) % 1000;
   std::tm tm{};
   gmtime_r(&secs, &tm);
   char buf[40];
   std::size_t const n = std::strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%S", &tm);
   std::snprintf(buf + n, sizeof(buf) - n, ".%03dZ", ms);
   return std::string(buf);
}

nlohmann::json jsonString(std::string_view s) {
   using nlohmann::json;
   return json::parse(json(std::string(s)).dump(-1, ' ', false, json::error_handler_t::replace));
}

nlohmann::json failuresJson(CollectorHealth const& h) {
   nlohmann::json out = nlohmann::json::object();
   for (std::size_t i = 0; i < sendFailureCauseCount; ++i) {
      out[causeJsonName(static_cast<SendFailureCause>(i))] = h.failures[i];
   }
   out["total"] = h.total();
   out["lastFailure"] = rfc3339(h.lastFailureTime);
   out["lastFailureText"] = h.lastFailureTime == 0 ? nlohmann::json(nullptr) : jsonString(h.text());
   return out;
}

// -----------------------------------------------------------------------------------------------

CollectorHealthTable::CollectorHealthTable(std::string const& statisticsTable)
    : name_(healthTableName(statisticsTable)), table_(name_, 16) {}

void CollectorHealthTable::failureIs(HealthKey const& key, int err, double when) {
   CollectorHealth h = table_.get(key).value_or(CollectorHealth{});
   if (!h.validationError().empty()) {
      h = CollectorHealth{};  // damaged by another process: start again
   }
   h.failureIs(err, when);
   table_.upsert(key, h);
}

void CollectorHealthTable::retain(std::function<bool(HealthKey const&)> const& keep) {
   std::vector<HealthKey> gone;
   table_.forEach([&](HealthKey const& k, CollectorHealth const&) {
      if (!keep(k)) {
         gone.push_back(k);
      }
   });
   for (auto const& k : gone) {
      table_.del(k);
   }
}

void CollectorHealthTable::clear(std::string const& tracker, std::string const& exporter,
                                 std::optional<Mirra::Ipfix::CollectorInfo> const& collector) {
   retain([&](HealthKey const& k) {
      bool const match = (tracker.empty() || tracker == k.tracker()) &&
                         (exporter.empty() || exporter == k.exporter()) &&
                         (!collector || *collector == k.collector);
      return !match;
   });
}

// -----------------------------------------------------------------------------------------------

CollectorHealthMonitor::CollectorHealthMonitor(Kivo::Ptr<FlowTracking::FlowTrackingInfo> info,
                                               Kivo::Ptr<HwFlowTracking::Config> config,
                                               CollectorHealthTable& table)
    : info_(std::move(info)), config_(std::move(config)), table_(table) {
   Pelto::UdpPam::txFailureObserverIs([this](Pelto::TxFailure const& f) { handleFailure_(f); });
}

CollectorHealthMonitor::~CollectorHealthMonitor() {
   Pelto::UdpPam::txFailureObserverIs({});
}

std::optional<HealthKey> CollectorHealthMonitor::keyFor(Pelto::TxFailure const& f) const {
   for (auto const& [ftName, ft] : info_->ftInfoColl()) {
      for (auto const& [expName, exp] : ft->expInfoColl()) {
         // The family whose module failed; IPv6 when both match (no module at all).
         std::optional<FlowTracking::Family> family;
         // Captured by name: clang before 16 cannot capture a structured binding.
         FlowTracking::forEachFamily([&, &exp = exp]<class F>(F) {
            if (F::udpPam(*exp).get() == f.module) {
               family = F::family;
            }
         });
         if (!family) {
            continue;
         }
         auto ftCfg = config_->ftConfig(ftName);
         auto expCfg = ftCfg ? ftCfg->expConfig(expName) : nullptr;
         if (!expCfg) {
            return std::nullopt;
         }
         bool const known = FlowTracking::withFamily(*family, [&]<class F>(F) {
            bool any = false;
            for (auto const& [name, addr] : F::collectors(*expCfg)) {
               any |= f.dst == Pelto::IpGenAddr(addr.ipAddr()) && f.dstPort == addr.port();
            }
            return any;
         });
         if (!known) {
            return std::nullopt;
         }
         return HealthKey(ftName, expName, Mirra::Ipfix::CollectorInfo{f.dst, f.dstPort});
      }
   }
   return std::nullopt;
}

void CollectorHealthMonitor::handleFailure_(Pelto::TxFailure const& f) {
   if (auto key = keyFor(f)) {
      table_.failureIs(*key, f.error, Kivo::currentTime());
   }
}

// -----------------------------------------------------------------------------------------------

CollectorHealthReader::CollectorHealthReader(std::string const& statisticsTable)
    : table_(healthTableName(statisticsTable)) {}

std::vector<std::pair<HealthKey, CollectorHealth>> CollectorHealthReader::all() {
   std::vector<std::pair<HealthKey, CollectorHealth>> out;
   table_.forEach([&](HealthKey const& k, CollectorHealth const& h) {
      if (k.trackerStorage.len <= 128 && k.exporterStorage.len <= 128 &&
          (k.collector.addr.isV4() || k.collector.addr.isV6()) && h.validationError().empty()) {
         out.emplace_back(k, h);
      }
   });
   return out;
}

}  // namespace Agent
