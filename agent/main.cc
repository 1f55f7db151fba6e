// ipfix-agent: runs the IPFIX export component from a configuration file.
//
//   ipfix-agent -c /etc/ipfix-agent.yaml           run until SIGTERM or SIGINT
//   ipfix-agent --check /etc/ipfix-agent.yaml      check, print the effective configuration
//
// SIGHUP, or any save of the file, reloads it: a valid configuration is applied as a difference,
// an invalid one is reported and the running configuration stays as it was.
#include <sys/eventfd.h>
#include <systemd/sd-daemon.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "Orbo/EventLoop.h"
#include "Trace/Dualog.h"
#include "agent/Component.h"
#include "agent/ConfigLoader.h"
#include "agent/ControlSocket.h"
#include "agent/DirWatch.h"
#include "agent/LinkWatch.h"
#include "agent/Log.h"
#include "agent/NetNsWatch.h"

namespace {

using namespace Agent;

// Exit codes: 0 done, 1 configuration refused, 2 usage, 3 could not start.
constexpr int exitBadConfig = 1;
constexpr int exitCannotStart = 3;

void reportErrors(std::vector<ConfigError> const& errors) {
   for (ConfigError const& e : errors) {
      log(Severity::err, e.toString());
   }
}

void notifySystemd(std::string const& state) {
   sd_notify(0, state.c_str());
}

// The file's text, or nothing when it cannot be read (the loader then says why).
std::optional<std::string> readText(std::string const& path) {
   std::ifstream in(path, std::ios::binary);
   std::ostringstream text;
   if (!(in && text << in.rdbuf())) {
      return std::nullopt;
   }
   return text.str();
}

LoadResult load(std::string const& path, std::optional<std::string> const& text) {
   return text ? loadConfigText(*text, path) : loadConfigFile(path);
}

std::uint64_t monotonicUsec() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<std::uint64_t>(ts.tv_sec) * 1000000u +
          static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
}

// The running agent: the component, and the host watchers that feed it.
class Runner {
 public:
   Runner(std::string path, std::string traceOverride, std::string controlPath)
       : path_(std::move(path)),
         traceOverride_(std::move(traceOverride)),
         controlPath_(std::move(controlPath)) {}

   int run() {
      runningText_ = readText(path_);
      LoadResult loaded = load(path_, runningText_);
      if (!loaded.config) {
         reportErrors(loaded.errors);
         log(Severity::err, "configuration refused: not starting");
         return exitBadConfig;
      }
      traceIs_(loaded.config->trace);

      scheduler_ = Kivo::make<Orbo::TaskScheduler>();
      loop_ = std::make_unique<Orbo::EventLoop>(scheduler_);
      try {
         netNs_ = std::make_unique<NetNsWatch>(*loop_, scheduler_,
                                               [this](Component::NetNsMap const& ns) {
                                                  if (component_) {
                                                     component_->netNsIs(ns);
                                                  }
                                               });
         linkWatchIs_(loaded.config->interfacesFromKernel);
         component_ = std::make_unique<Component>(scheduler_, *loaded.config, netNs_->current(),
                                                  std::move(initialLinks_));
         if (controlPath_.empty()) {
            controlPath_ = defaultControlSocketPath(loaded.config->statisticsTable);
         }
         control_ = std::make_unique<ControlSocket>(*loop_, scheduler_, controlPath_, *component_);
         std::filesystem::path const p = std::filesystem::absolute(path_);
         fileName_ = p.filename();
         fileWatch_ =
             std::make_unique<DirWatch>(*loop_, p.parent_path(), [this](std::string const& name) {
                if (name.empty() || name == fileName_) {
                   reloadTask_->scheduleTaskLowestDelay(0.2);  // one reload for a burst of writes
                }
             });
      } catch (std::exception const& e) {
         log(Severity::err, std::string("cannot start: ") + e.what());
         return exitCannotStart;
      }
      parsedFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
      if (parsedFd_ < 0) {
         log(Severity::err, std::string("cannot start: eventfd: ") + std::strerror(errno));
         return exitCannotStart;
      }
      loop_->fdIs(parsedFd_, [this] { handleParsed_(); });
      reloadTask_ =
          Kivo::make<Orbo::Task>(scheduler_, 3, "configReloadTask", [this] { reload_(); });
      loop_->signalIs(SIGHUP, [this] { reloadTask_->scheduleTask(); });
      loop_->signalIs(SIGTERM, [this] { loop_->stop(); });
      loop_->signalIs(SIGINT, [this] { loop_->stop(); });
      std::signal(SIGPIPE, SIG_IGN);

      log(Severity::info, "ipfix-agent running with " + path_);
      notifySystemd("READY=1");
      loop_->run();

      notifySystemd("STOPPING=1");
      log(Severity::info, "ipfix-agent stopping");
      if (parser_.joinable()) {
         parser_.join();
      }
      loop_->fdDel(parsedFd_);
      close(parsedFd_);
      reloadTask_ = nullptr;
      control_ = nullptr;
      fileWatch_ = nullptr;
      linkWatch_ = nullptr;
      component_ = nullptr;  // closes the sockets, removes the statistics table
      netNs_ = nullptr;
      return 0;
   }

 private:
   void traceIs_(std::string const& fromFile) {
      std::string const& s = traceOverride_.empty() ? fromFile : traceOverride_;
      Dualog::enable("*", Dualog::off());
      if (!s.empty()) {
         Dualog::enableFromSpec(s);
      }
   }

   void linkWatchIs_(bool on) {
      if (on && !linkWatch_) {
         linkWatch_ = std::make_unique<LinkWatch>(
             *loop_,
             [this](std::uint32_t index, std::string const& name) {
                if (component_) {
                   component_->linkIs(index, name);
                } else {
                   initialLinks_[index] = name;  // present at start: part of the first tables
                }
             },
             [this](std::uint32_t index) {
                if (component_) {
                   component_->linkDel(index);
                }
             });
      } else if (!on) {
         linkWatch_ = nullptr;
      }
   }

   // A large file takes seconds to parse (100k interfaces: 2 to 3 s), so the parse runs on a
   // thread of its own while the loop goes on exporting; the thread signals parsedFd_ when done
   // and the loop applies the result. A reload asked for meanwhile runs once the parse is over.
   void reload_() {
      if (parser_.joinable()) {
         reloadAgain_ = true;
         return;
      }
      // The text that runs already (a storm of SIGHUPs, an editor saving twice) is not parsed
      // again.
      std::optional<std::string> text = readText(path_);
      if (text && text == runningText_) {
         return;
      }
      parser_ = std::jthread([this, text = std::move(text)]() mutable {
         LoadResult loaded = load(path_, text);
         parseResult_ = Parsed{std::move(text), std::move(loaded)};
         std::uint64_t const one = 1;
         [[maybe_unused]] ssize_t const n = write(parsedFd_, &one, sizeof(one));
      });
   }

   void handleParsed_() {
      std::uint64_t n = 0;
      if (read(parsedFd_, &n, sizeof(n)) != sizeof(n) || !parser_.joinable()) {
         return;
      }
      parser_.join();  // the thread's result is complete and visible from here on
      Parsed p = std::move(*parseResult_);
      parseResult_.reset();
      apply_(std::move(p.text), std::move(p.loaded));
      if (std::exchange(reloadAgain_, false)) {
         reloadTask_->scheduleTask();
      }
   }

   void apply_(std::optional<std::string> text, LoadResult loaded) {
      if (!loaded.config) {
         reportErrors(loaded.errors);
         log(Severity::err, "configuration refused: still running the previous one");
         return;
      }
      runningText_ = std::move(text);
      if (*loaded.config == component_->config()) {
         return;
      }
      notifySystemd("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonicUsec()));
      try {
         traceIs_(loaded.config->trace);
         component_->configIs(*loaded.config);
         linkWatchIs_(loaded.config->interfacesFromKernel);
         log(Severity::info, "configuration reloaded from " + path_);
      } catch (std::exception const& e) {
         log(Severity::err, std::string("reload failed: ") + e.what());
         runningText_ = std::nullopt;  // not what runs: the same file is tried again
      }
      notifySystemd("READY=1");
   }

   struct Parsed {
      std::optional<std::string> text;
      LoadResult loaded;
   };

   std::string path_;
   std::string traceOverride_;
   std::string controlPath_;
   std::string fileName_;
   std::optional<std::string> runningText_;  // the file's text the running configuration is from
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   std::unique_ptr<Orbo::EventLoop> loop_;
   std::unique_ptr<NetNsWatch> netNs_;
   std::unique_ptr<Component> component_;
   std::unique_ptr<ControlSocket> control_;
   std::unique_ptr<LinkWatch> linkWatch_;
   Component::LinkMap initialLinks_;
   std::unique_ptr<DirWatch> fileWatch_;
   Kivo::Ptr<Orbo::Task> reloadTask_;
   int parsedFd_ = -1;
   bool reloadAgain_ = false;
   std::optional<Parsed> parseResult_;  // written by parser_, read on the loop after joining it
   // Last: joined (a parse in progress finishes) before anything it uses goes.
   std::jthread parser_;
};

}  // namespace

int main(int argc, char** argv) {
   CLI::App app{
       "ipfix-agent: sends IPFIX templates, options data and sequence numbers to the "
       "collectors of a configuration file"};
   std::string configPath;
   std::string checkPath;
   std::string trace;
   std::string controlPath;
   auto* run = app.add_option("-c,--config", configPath, "configuration file to run")
                   ->check(CLI::ExistingFile);
   auto* check = app.add_option("--check", checkPath,
                                "check a configuration file, print it with its defaults, and exit")
                     ->check(CLI::ExistingFile);
   app.add_option("--trace", trace,
                  "trace facilities and levels, e.g. '*/4' or 'ExporterInfoSm/9' "
                  "(overrides the file's 'trace')");
   app.add_option("--control-socket", controlPath,
                  "control socket path (default: /run, or $XDG_RUNTIME_DIR when /run is not "
                  "writable, followed by the statistics table name and .sock)");
   run->excludes(check);
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      int const rc = app.exit(e);  // prints help or the error
      return rc == 0 ? 0 : 2;
   }

   routeTraceToLog();
   if (!checkPath.empty()) {
      LoadResult loaded = loadConfigFile(checkPath);
      if (!loaded.config) {
         for (ConfigError const& e : loaded.errors) {
            std::cerr << e.toString() << "\n";
         }
         return exitBadConfig;
      }
      std::cout << effectiveConfigText(*loaded.config);
      return 0;
   }
   if (configPath.empty()) {
      std::cerr << "ipfix-agent: give a configuration file with -c (or --check FILE)\n"
                << app.help();
      return 2;
   }
   if (!trace.empty() && !Dualog::enableFromSpec(trace)) {
      std::cerr << "ipfix-agent: --trace: not a list of FACILITY/LEVEL items: " << trace << "\n";
      return 2;
   }
   return Runner(configPath, trace, controlPath).run();
}
