#include "agent/AgentProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "agent/ControlSocket.h"
#include "support/Tshark.h"

extern char** environ;

namespace testsupport {

using namespace std::chrono_literals;

namespace {

void writeFile(std::string const& path, std::string const& text) {
   std::ofstream out(path, std::ios::trunc);
   if (!(out << text)) {
      throw std::runtime_error("cannot write " + path);
   }
}

}  // namespace

AgentProcess::AgentProcess(std::string const& config, std::vector<std::string> prefix)
    : configPath_(tempPath("agent.yaml")), logPath_(tempPath("agent.log")) {
   writeFile(configPath_, config);
   prefix.insert(prefix.end(), {agentBinary(), "-c", configPath_});
   std::vector<char*> args;
   for (auto& a : prefix) {
      args.push_back(a.data());
   }
   args.push_back(nullptr);
   posix_spawn_file_actions_t fa;
   posix_spawn_file_actions_init(&fa);
   posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
   posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, logPath_.c_str(),
                                    O_WRONLY | O_CREAT | O_TRUNC, 0644);
   int const rc = posix_spawnp(&pid_, args[0], &fa, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&fa);
   if (rc != 0) {
      throw std::runtime_error("cannot start " + prefix[0]);
   }
}

AgentProcess::~AgentProcess() {
   if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
   }
   std::remove(configPath_.c_str());
   std::remove(logPath_.c_str());
}

void AgentProcess::rewriteConfig(std::string const& config) const {
   std::string const tmp = configPath_ + ".new";
   writeFile(tmp, config);
   if (std::rename(tmp.c_str(), configPath_.c_str()) != 0) {
      throw std::runtime_error("cannot rename " + tmp);
   }
}

void AgentProcess::signal(int signo) const {
   kill(pid_, signo);
}

int AgentProcess::stop() {
   kill(pid_, SIGTERM);
   int status = 0;
   auto const deadline = std::chrono::steady_clock::now() + 10s;
   while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
         kill(pid_, SIGKILL);
         waitpid(pid_, &status, 0);
         break;
      }
      std::this_thread::sleep_for(10ms);
   }
   pid_ = -1;
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string AgentProcess::log() const {
   std::stringstream ss;
   ss << std::ifstream(logPath_).rdbuf();
   return ss.str();
}

bool AgentProcess::waitForLog(std::string const& text, std::chrono::milliseconds timeout,
                              std::size_t count) const {
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   for (;;) {
      std::string const l = log();
      std::size_t n = 0;
      for (auto at = l.find(text); at != std::string::npos; at = l.find(text, at + 1)) {
         ++n;
      }
      if (n >= count) {
         return true;
      }
      if (std::chrono::steady_clock::now() > deadline) {
         return false;
      }
      std::this_thread::sleep_for(20ms);
   }
}

ControlClient::ControlClient(std::string const& path) {
   fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_un sa{};
   sa.sun_family = AF_UNIX;
   std::snprintf(sa.sun_path, sizeof(sa.sun_path), "%s", path.c_str());
   connected = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) == 0;
}

ControlClient::~ControlClient() {
   close(fd);
}

void ControlClient::sendAll(std::string const& s) const {
   for (std::size_t done = 0; done < s.size();) {
      ssize_t const n = ::send(fd, s.data() + done, s.size() - done, MSG_NOSIGNAL);
      if (n <= 0) {
         return;
      }
      done += static_cast<std::size_t>(n);
   }
}

std::vector<nlohmann::json> ControlClient::replies(std::size_t n) const {
   std::vector<nlohmann::json> out;
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
         out.push_back(nlohmann::json::parse(buf.substr(0, nl)));
         buf.erase(0, nl + 1);
      }
   }
   return out;
}

nlohmann::json controlStatus(std::string const& table) {
   ControlClient c(Agent::defaultControlSocketPath(table));
   c.sendAll("{\"request\": \"status\"}\n");
   auto const r = c.replies(1);
   return r.empty() ? nullptr : r[0];
}

bool receiveUntil(std::vector<std::pair<LoopbackCollector*, std::vector<Received>*>> const& from,
                  std::function<bool()> const& done, std::chrono::milliseconds timeout) {
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) {
         return false;
      }
      for (auto const& [collector, into] : from) {
         for (auto& r : collector->drain(10)) {
            into->push_back(std::move(r));
         }
      }
   }
   return true;
}

std::vector<Received> receiveFor(LoopbackCollector& c, std::chrono::milliseconds window) {
   std::vector<Received> rs;
   auto const deadline = std::chrono::steady_clock::now() + window;
   receiveUntil(
       {{&c, &rs}}, [&] { return std::chrono::steady_clock::now() > deadline; }, window + 1s);
   return rs;
}

}  // namespace testsupport
