// ipfix-stats: shows the collector statistics that a running ipfix-agent keeps in shared memory,
// in Prometheus format too, with the send failures the agent keeps beside them, and clears them
// through the agent's control socket.
//
// Exit codes: 0 done; 1 bad usage; 2 no statistics table (no agent running with that table);
// 3 the table is damaged or not one of ours; 4 the agent's control socket refused or failed;
// 5 the output file could not be written.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "Kivo/Kivo.h"
#include "agent/ControlSocket.h"
#include "tools/StatsFormat.h"

namespace {

constexpr int exitNoTable = 2;
constexpr int exitDamaged = 3;
constexpr int exitControl = 4;
constexpr int exitOutput = 5;

struct Failure {
   int code;
   std::string text;
};

Mirra::Ipfix::CollectorStatisticsReader openTable(std::string const& table) {
   try {
      return Mirra::Ipfix::CollectorStatisticsReader(table);
   } catch (Kivo::ErrnoException const& e) {
      if (e.error() == ENOENT) {
         throw Failure{exitNoTable, "no statistics table " + table + ": is ipfix-agent running?"};
      }
      throw Failure{exitDamaged, "statistics table " + table + ": " + e.what()};
   } catch (std::exception const& e) {
      throw Failure{exitDamaged, "statistics table " + table + ": " + e.what()};
   }
}

std::vector<Stats::Entry> readAll(Mirra::Ipfix::CollectorStatisticsReader& reader,
                                  std::string const& table) {
   try {
      return reader.allStats();
   } catch (std::exception const& e) {
      throw Failure{exitDamaged, "statistics table " + table + ": " + e.what()};
   }
}

// The health table beside the statistics. An agent without one (an older agent) or a damaged
// one is not a reason to show nothing: the statistics are shown without failures, and stderr says
// why once.
class HealthSource {
 public:
   explicit HealthSource(std::string table) : table_(std::move(table)) {}
   std::optional<Stats::Health> read() {
      try {
         if (!reader_) {
            reader_.emplace(table_);
         }
         return reader_->all();
      } catch (std::exception const& e) {
         reader_.reset();
         if (!warned_) {
            warned_ = true;
            std::cerr << "ipfix-stats: no send failures shown: health table "
                      << Agent::healthTableName(table_) << ": " << e.what() << "\n";
         }
         return std::nullopt;
      }
   }

 private:
   std::string table_;
   std::optional<Agent::CollectorHealthReader> reader_;
   bool warned_ = false;
};

// One request line to the agent, one reply line back, within a few seconds.
nlohmann::json ask(std::string const& path, nlohmann::json const& request) {
   int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_un sa{};
   sa.sun_family = AF_UNIX;
   if (fd < 0 || path.size() >= sizeof(sa.sun_path)) {
      throw Failure{exitControl, "control socket " + path + ": cannot connect"};
   }
   std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
   if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
      int const err = errno;
      close(fd);
      throw Failure{exitControl, "control socket " + path + ": " + std::strerror(err) +
                                     " (is ipfix-agent running, and are you its user?)"};
   }
   std::string const line = request.dump() + "\n";
   std::string reply;
   bool ok = send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
   while (ok && reply.find('\n') == std::string::npos && reply.size() < (1 << 22)) {
      pollfd p{fd, POLLIN, 0};
      char buf[4096];
      ssize_t n = 0;
      ok = poll(&p, 1, 5000) == 1 && (n = recv(fd, buf, sizeof(buf), 0)) > 0;
      if (ok) {
         reply.append(buf, static_cast<std::size_t>(n));
      }
   }
   close(fd);
   auto const nl = reply.find('\n');
   if (!ok || nl == std::string::npos) {
      throw Failure{exitControl, "control socket " + path + ": no reply"};
   }
   try {
      nlohmann::json r = nlohmann::json::parse(reply.substr(0, nl));
      if (!r.value("ok", false)) {
         throw Failure{exitControl, "agent refused: " + r.value("error", std::string("?"))};
      }
      return r;
   } catch (nlohmann::json::exception const&) {
      throw Failure{exitControl, "control socket " + path + ": reply is not JSON"};
   }
}

void writeAtomically(std::string const& path, std::string const& text) {
   // The textfile collector may read at any moment: it must see the old file or the new one.
   std::string const tmp = path + ".tmp." + std::to_string(getpid());
   {
      std::ofstream out(tmp, std::ios::trunc);
      out << text;
      out.flush();
      if (!out) {
         std::remove(tmp.c_str());
         throw Failure{exitOutput, "cannot write " + tmp};
      }
   }
   if (std::rename(tmp.c_str(), path.c_str()) != 0) {
      int const err = errno;
      std::remove(tmp.c_str());
      throw Failure{exitOutput, "cannot rename " + tmp + " to " + path + ": " + std::strerror(err)};
   }
}

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{"ipfix-stats: per-collector export statistics of a running ipfix-agent"};
   app.require_subcommand(1);
   std::string table = "/ipfix-collector-stats";
   std::string controlPath;
   app.add_option("--table", table, "statistics table (POSIX shared-memory name)")
       ->capture_default_str();
   app.add_option("--control-socket", controlPath,
                  "the agent's control socket (default: found from the table name)");

   Stats::Filter filter;
   auto addFilter = [&](CLI::App* sub) {
      sub->add_option("--tracker", filter.tracker, "only this tracker");
      sub->add_option("--exporter", filter.exporter, "only this exporter");
      sub->add_option("--collector", filter.collector, "only this collector (ADDR:PORT)");
   };

   auto* show = app.add_subcommand("show", "table of every collector");
   addFilter(show);
   std::string sortText = "tracker";
   bool json = false;
   double watch = 0;
   show->add_option("--sort", sortText,
                    "tracker, exporter, collector, messages, records, octets or last-sent");
   show->add_flag("--json", json, "JSON instead of a table");
   show->add_option("--watch", watch, "refresh when the table changes, at most every SECONDS")
       ->expected(0, 1)
       ->default_str("2");

   auto* prom = app.add_subcommand("prometheus", "Prometheus text exposition format");
   std::string output;
   prom->add_option("--output", output, "write to FILE atomically (node_exporter textfile)");

   auto* clear = app.add_subcommand("clear", "clear counters through the agent");
   addFilter(clear);

   CLI11_PARSE(app, argc, argv);
   if (controlPath.empty()) {
      controlPath = Agent::defaultControlSocketPath(table);
   }

   try {
      if (*clear) {
         nlohmann::json req{{"request", "clear"},
                            {"tracker", filter.tracker},
                            {"exporter", filter.exporter},
                            {"collector", filter.collector}};
         auto const reply = ask(controlPath, req);
         auto const& cleared = reply["cleared"];
         std::cout << "cleared " << cleared.size() << " collector"
                   << (cleared.size() == 1 ? "" : "s") << "\n";
         for (auto const& c : cleared) {
            std::cout << "  " << c["tracker"].get<std::string>() << " "
                      << c["exporter"].get<std::string>() << " "
                      << c["collector"].get<std::string>() << "\n";
         }
         return 0;
      }
      auto reader = openTable(table);
      HealthSource health(table);
      if (*prom) {
         auto const text = Stats::prometheusText(
             Stats::select(readAll(reader, table), {}, Stats::SortKey::tracker), health.read());
         if (output.empty()) {
            std::cout << text;
         } else {
            writeAtomically(output, text);
         }
         return 0;
      }
      auto const sort = Stats::sortKeyFromString(sortText);
      if (!sort) {
         std::cerr << "ipfix-stats: --sort: unknown key " << sortText << "\n";
         return 1;
      }
      if (show->count("--watch") && watch <= 0) {
         watch = 2;
      }
      for (std::uint64_t gen = reader.generation();;) {
         auto const entries = Stats::select(readAll(reader, table), filter, *sort);
         auto const failures = health.read();
         if (json) {
            std::cout << Stats::toJson(entries, failures).dump(2) << "\n";
         } else {
            if (watch > 0) {
               std::cout << "\x1b[H\x1b[2J";  // refresh in place
            }
            std::cout << Stats::tableText(entries, Kivo::currentTime(), failures);
         }
         std::cout.flush();
         if (watch <= 0) {
            return 0;
         }
         // Woken by the writer's change generation; ages are redrawn at least every period.
         gen = reader.waitForChange(gen, watch).value_or(gen);
         usleep(static_cast<useconds_t>(std::min(watch, 1.0) * 2e5));
      }
   } catch (Failure const& f) {
      std::cerr << "ipfix-stats: " << f.text << "\n";
      return f.code;
   }
}
