// Runs the ipfix-agent program for end-to-end tests: writes its configuration file, starts it
// with its log in a file, and stops it. Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/Command.h"
#include "support/LoopbackCollector.h"

namespace testsupport {

class AgentProcess {
 public:
   // Writes `config` and starts the agent on it, under `prefix` (e.g. {"ip", "netns", "exec",
   // "ns-x"}) when given. Throws std::runtime_error when it cannot be started.
   explicit AgentProcess(std::string const& config, std::vector<std::string> prefix = {});
   // Kills the agent if it still runs.
   ~AgentProcess();
   AgentProcess(AgentProcess const&) = delete;
   AgentProcess& operator=(AgentProcess const&) = delete;

   std::string const& configPath() const { return configPath_; }
   pid_t pid() const { return pid_; }
   // Replaces the configuration file the way editors save: a new file renamed over the old.
   void rewriteConfig(std::string const& config) const;
   void signal(int signo) const;
   // SIGTERM, then waits; returns the exit status (-1 when it had to be killed).
   int stop();

   std::string log() const;
   // Waits until the log has `text` `count` times; false on timeout.
   bool waitForLog(std::string const& text, std::chrono::milliseconds timeout,
                   std::size_t count = 1) const;

 private:
   std::string configPath_;
   std::string logPath_;
   pid_t pid_ = -1;
};

// A raw client of the agent's control socket.
struct ControlClient {
   explicit ControlClient(std::string const& path);
   ~ControlClient();
   ControlClient(ControlClient const&) = delete;
   ControlClient& operator=(ControlClient const&) = delete;
   void sendAll(std::string const& s) const;
   // Reply lines until `n` arrived, the peer closed, or 5 s passed.
   std::vector<nlohmann::json> replies(std::size_t n) const;

   int fd = -1;
   bool connected = false;
};

// The reply of the agent of statistics table `table` to a status request, null without one.
nlohmann::json controlStatus(std::string const& table);

// The programs under test, built beside the tests.
inline std::string agentBinary() {
   return IPFIX_AGENT_BIN;
}
// ipfix-stats --table `table` `args`...
inline CommandResult statsTool(std::string const& table, std::vector<std::string> args) {
   args.insert(args.begin(), {IPFIX_STATS_BIN, "--table", table});
   return runCommand(std::move(args));
}

// Collects datagrams from collectors until `done` says so or `timeout` passes; returns done().
bool receiveUntil(std::vector<std::pair<LoopbackCollector*, std::vector<Received>*>> const& from,
                  std::function<bool()> const& done, std::chrono::milliseconds timeout);
// Datagrams received by `c` within `window`.
std::vector<Received> receiveFor(LoopbackCollector& c, std::chrono::milliseconds window);

}  // namespace testsupport
