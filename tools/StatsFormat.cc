#include "tools/StatsFormat.h"

#include "agent/ControlSocket.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <sstream>
#include <tuple>

namespace Stats {

namespace {

bool isClearTimeEntry(Entry const& e) {
   return e.key.tracker().empty() && e.key.exporter().empty();
}

std::string collectorText(Entry const& e) {
   return Agent::collectorText(e.key.collector);
}

std::vector<Mirra::Ipfix::CollectorSetStatisticsEntry> setEntries(Entry const& e) {
   std::vector<Mirra::Ipfix::CollectorSetStatisticsEntry> out;
   for (auto const& s : e.setEntryStorage) {
      if (s.setId != 0) {
         out.push_back(s);
      }
   }
   std::sort(out.begin(), out.end(),
             [](auto const& a, auto const& b) { return a.setId < b.setId; });
   return out;
}

std::string pad(std::string s, std::size_t width) {
   if (s.size() < width) {
      s.append(width - s.size(), ' ');
   }
   return s;
}

// A label value of the exposition format: backslash, double quote and newline escaped.
std::string labelValue(std::string_view v) {
   std::string out;
   for (char c : v) {
      if (c == '\\' || c == '"') {
         out += '\\';
         out += c;
      } else if (c == '\n') {
         out += "\\n";
      } else {
         out += c;
      }
   }
   return out;
}

std::string number(double v) {
   std::ostringstream os;
   os.precision(17);
   os << v;
   return os.str();
}

}  // namespace

Agent::CollectorHealth healthOf(Health const& health, Entry const& e) {
   for (auto const& [k, h] : health) {
      if (k == e.key) {
         return h;
      }
   }
   return {};
}

bool Filter::matches(Entry const& e) const {
   return (tracker.empty() || tracker == e.key.tracker()) &&
          (exporter.empty() || exporter == e.key.exporter()) &&
          (collector.empty() || collector == collectorText(e));
}

std::optional<SortKey> sortKeyFromString(std::string const& s) {
   static std::map<std::string, SortKey> const keys = {
       {"tracker", SortKey::tracker},     {"exporter", SortKey::exporter},
       {"collector", SortKey::collector}, {"messages", SortKey::messages},
       {"records", SortKey::records},     {"octets", SortKey::octets},
       {"last-sent", SortKey::lastSent}};
   auto it = keys.find(s);
   return it == keys.end() ? std::nullopt : std::optional(it->second);
}

std::vector<Entry> select(std::vector<Entry> const& all, Filter const& filter, SortKey sort) {
   std::vector<Entry> out;
   for (Entry const& e : all) {
      if (!isClearTimeEntry(e) && filter.matches(e)) {
         out.push_back(e);
      }
   }
   auto names = [](Entry const& e) {
      return std::tuple(e.key.tracker(), e.key.exporter(), collectorText(e));
   };
   auto counter = [sort](Entry const& e) -> double {
      switch (sort) {
         case SortKey::messages:
            return static_cast<double>(e.exportedMessageTotalCount);
         case SortKey::records:
            return static_cast<double>(e.exportedFlowRecordTotalCount);
         case SortKey::octets:
            return static_cast<double>(e.exportedOctetTotalCount);
         case SortKey::lastSent:
            return e.lastSentTime;
         default:
            return 0;
      }
   };
   std::stable_sort(out.begin(), out.end(), [&](Entry const& a, Entry const& b) {
      switch (sort) {
         case SortKey::tracker:
            return names(a) < names(b);
         case SortKey::exporter:
            return std::tuple(a.key.exporter(), a.key.tracker(), collectorText(a)) <
                   std::tuple(b.key.exporter(), b.key.tracker(), collectorText(b));
         case SortKey::collector:
            return std::tuple(collectorText(a), a.key.tracker(), a.key.exporter()) <
                   std::tuple(collectorText(b), b.key.tracker(), b.key.exporter());
         default:
            if (counter(a) != counter(b)) {
               return counter(a) > counter(b);
            }
            return names(a) < names(b);
      }
   });
   return out;
}

std::string ageText(double now, double when) {
   if (when == 0) {
      return "never";
   }
   double const d = now - when;
   long long const s = std::llround(std::fabs(d));
   char buf[48];
   if (s < 60) {
      std::snprintf(buf, sizeof(buf), "%llds", s);
   } else if (s < 3600) {
      std::snprintf(buf, sizeof(buf), "%lldm%02llds", s / 60, s % 60);
   } else if (s < 86400) {
      std::snprintf(buf, sizeof(buf), "%lldh%02lldm", s / 3600, s % 3600 / 60);
   } else {
      std::snprintf(buf, sizeof(buf), "%lldd%02lldh", s / 86400, s % 86400 / 3600);
   }
   return d < -0.5 ? "in " + std::string(buf) : std::string(buf) + " ago";
}

double lastClearTime(std::vector<Entry> const& all) {
   for (Entry const& e : all) {
      if (isClearTimeEntry(e)) {
         return e.lastClearedTime;
      }
   }
   return 0;
}

std::string tableText(std::vector<Entry> const& entries, double now,
                      std::optional<Health> const& health) {
   std::vector<std::vector<std::string>> rows = {{"TRACKER", "EXPORTER", "COLLECTOR", "MESSAGES",
                                                  "RECORDS", "OCTETS", "LAST SENT", "LAST TEMPLATE",
                                                  "LAST OPTIONS DATA", "CLEARED"}};
   if (health) {
      rows[0].push_back("FAILURES");
   }
   for (Entry const& e : entries) {
      rows.push_back({std::string(e.key.tracker()), std::string(e.key.exporter()), collectorText(e),
                      std::to_string(e.exportedMessageTotalCount),
                      std::to_string(e.exportedFlowRecordTotalCount),
                      std::to_string(e.exportedOctetTotalCount), ageText(now, e.lastSentTime),
                      ageText(now, e.lastTemplateSentTime), ageText(now, e.lastOptionsDataSentTime),
                      ageText(now, e.lastClearedTime)});
      if (health) {
         rows.back().push_back(std::to_string(healthOf(*health, e).total()));
      }
   }
   std::vector<std::size_t> width(rows[0].size(), 0);
   for (auto const& r : rows) {
      for (std::size_t i = 0; i < r.size(); ++i) {
         width[i] = std::max(width[i], r[i].size());
      }
   }
   std::string out;
   for (std::size_t row = 0; row < rows.size(); ++row) {
      for (std::size_t i = 0; i < rows[row].size(); ++i) {
         out += i + 1 < rows[row].size() ? pad(rows[row][i], width[i] + 2) : rows[row][i];
      }
      out += '\n';
      if (row == 0) {
         continue;
      }
      for (auto const& s : setEntries(entries[row - 1])) {
         out += "    set " + std::to_string(s.setId) + ": " +
                std::to_string(s.exportedFlowRecordCount) + " records, " +
                std::to_string(s.exportedTemplateCount) + " templates\n";
      }
      if (!health) {
         continue;
      }
      Agent::CollectorHealth const h = healthOf(*health, entries[row - 1]);
      for (std::size_t i = 0; i < Agent::sendFailureCauseCount; ++i) {
         if (h.failures[i] != 0) {
            out += std::string("    ") + causeText(static_cast<Agent::SendFailureCause>(i)) + ": " +
                   std::to_string(h.failures[i]) + " failed\n";
         }
      }
      if (h.lastFailureTime != 0) {
         out += "    last failure: " + ageText(now, h.lastFailureTime) + ": " +
                std::string(h.text()) + "\n";
      }
   }
   if (entries.empty()) {
      out += "(no collectors)\n";
   }
   return out;
}

nlohmann::json toJson(std::vector<Entry> const& entries, std::optional<Health> const& health) {
   nlohmann::json out = nlohmann::json::array();
   for (Entry const& e : entries) {
      nlohmann::json sets = nlohmann::json::array();
      for (auto const& s : setEntries(e)) {
         sets.push_back({{"setId", s.setId},
                         {"records", s.exportedFlowRecordCount},
                         {"templates", s.exportedTemplateCount}});
      }
      out.push_back({{"tracker", Agent::jsonString(e.key.tracker())},
                     {"exporter", Agent::jsonString(e.key.exporter())},
                     {"collector", collectorText(e)},
                     {"messages", e.exportedMessageTotalCount},
                     {"records", e.exportedFlowRecordTotalCount},
                     {"octets", e.exportedOctetTotalCount},
                     {"lastSent", rfc3339(e.lastSentTime)},
                     {"lastTemplateSent", rfc3339(e.lastTemplateSentTime)},
                     {"lastDataRecordSent", rfc3339(e.lastDataRecordSentTime)},
                     {"lastOptionsDataSent", rfc3339(e.lastOptionsDataSentTime)},
                     {"lastCleared", rfc3339(e.lastClearedTime)},
                     {"sets", std::move(sets)}});
      out.back()["failures"] =
          health ? Agent::failuresJson(healthOf(*health, e)) : nlohmann::json(nullptr);
   }
   return out;
}

std::string prometheusText(std::vector<Entry> const& entries, std::optional<Health> const& health) {
   struct Family {
      char const* name;
      char const* type;
      char const* help;
   };
   std::ostringstream os;
   auto labels = [](Entry const& e) {
      return "tracker=\"" + labelValue(e.key.tracker()) + "\",exporter=\"" +
             labelValue(e.key.exporter()) + "\",collector=\"" + labelValue(collectorText(e)) + "\"";
   };
   auto family = [&](Family const& f, auto const& value) {
      os << "# HELP " << f.name << ' ' << f.help << '\n'
         << "# TYPE " << f.name << ' ' << f.type << '\n';
      for (Entry const& e : entries) {
         value(e, labels(e));
      }
   };
   auto counter = [&](char const* name, char const* help, std::uint64_t Entry::*field) {
      family({name, "counter", help}, [&](Entry const& e, std::string const& l) {
         os << name << '{' << l << "} " << e.*field << '\n';
      });
   };
   auto timestamp = [&](char const* name, char const* help, double Entry::*field) {
      family({name, "gauge", help}, [&](Entry const& e, std::string const& l) {
         if (e.*field != 0) {
            os << name << '{' << l << "} " << number(e.*field) << '\n';
         }
      });
   };
   counter("ipfix_exporter_messages_total", "IPFIX messages sent to the collector.",
           &Entry::exportedMessageTotalCount);
   counter("ipfix_exporter_records_total", "Data records sent to the collector.",
           &Entry::exportedFlowRecordTotalCount);
   counter("ipfix_exporter_sent_bytes_total", "Octets of IPFIX messages sent to the collector.",
           &Entry::exportedOctetTotalCount);
   auto perSet = [&](char const* name, char const* help,
                     std::uint64_t Mirra::Ipfix::CollectorSetStatisticsEntry::*field) {
      family({name, "counter", help}, [&](Entry const& e, std::string const& l) {
         for (auto const& s : setEntries(e)) {
            os << name << '{' << l << ",set_id=\"" << s.setId << "\"} " << s.*field << '\n';
         }
      });
   };
   perSet("ipfix_exporter_set_records_total", "Data records sent, by set id.",
          &Mirra::Ipfix::CollectorSetStatisticsEntry::exportedFlowRecordCount);
   perSet("ipfix_exporter_set_templates_total", "Template records sent, by set id.",
          &Mirra::Ipfix::CollectorSetStatisticsEntry::exportedTemplateCount);
   timestamp("ipfix_exporter_last_sent_timestamp_seconds",
             "When a message was last sent to the collector.", &Entry::lastSentTime);
   timestamp("ipfix_exporter_last_template_sent_timestamp_seconds",
             "When templates were last sent to the collector.", &Entry::lastTemplateSentTime);
   timestamp("ipfix_exporter_last_options_data_sent_timestamp_seconds",
             "When options data was last sent to the collector.", &Entry::lastOptionsDataSentTime);
   timestamp("ipfix_exporter_last_cleared_timestamp_seconds",
             "When the collector's counters were last cleared.", &Entry::lastClearedTime);
   if (!health) {
      return os.str();
   }
   family({"ipfix_exporter_send_failures_total", "counter",
           "Sends to the collector that failed, by cause."},
          [&](Entry const& e, std::string const& l) {
             Agent::CollectorHealth const h = healthOf(*health, e);
             for (std::size_t i = 0; i < Agent::sendFailureCauseCount; ++i) {
                os << "ipfix_exporter_send_failures_total{" << l << ",cause=\""
                   << causeLabel(static_cast<Agent::SendFailureCause>(i)) << "\"} " << h.failures[i]
                   << '\n';
             }
          });
   family({"ipfix_exporter_last_send_failure_timestamp_seconds", "gauge",
           "When a send to the collector last failed."},
          [&](Entry const& e, std::string const& l) {
             Agent::CollectorHealth const h = healthOf(*health, e);
             if (h.lastFailureTime != 0) {
                os << "ipfix_exporter_last_send_failure_timestamp_seconds{" << l << "} "
                   << number(h.lastFailureTime) << '\n';
             }
          });
   return os.str();
}

}  // namespace Stats
