#include "agent/AgentProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/Tshark.h"

extern char** environ;

namespace testsupport {

namespace {

std::string readFile(std::string const& path) {
   std::ifstream in(path);
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

void writeFile(std::string const& path, std::string const& text) {
   std::ofstream out(path, std::ios::trunc);
   out << text;
   if (!out) {
      throw std::runtime_error("cannot write " + path);
   }
}

pid_t spawn(std::vector<std::string> const& argv, std::string const& outPath,
            std::string const& errPath) {
   posix_spawn_file_actions_t fa;
   posix_spawn_file_actions_init(&fa);
   posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, outPath.c_str(),
                                    O_WRONLY | O_CREAT | O_TRUNC, 0644);
   posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, errPath.c_str(),
                                    O_WRONLY | O_CREAT | O_TRUNC, 0644);
   std::vector<char*> args;
   for (auto const& a : argv) {
      args.push_back(const_cast<char*>(a.c_str()));
   }
   args.push_back(nullptr);
   pid_t pid = -1;
   int const rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&fa);
   if (rc != 0) {
      throw std::runtime_error("cannot start " + argv[0]);
   }
   return pid;
}

// Waits for `pid` up to `timeout`; kills it after that. Returns the exit status, or -1.
int waitFor(pid_t pid, std::chrono::milliseconds timeout) {
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   for (;;) {
      int status = 0;
      pid_t const r = waitpid(pid, &status, WNOHANG);
      if (r == pid) {
         return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      if (std::chrono::steady_clock::now() > deadline) {
         kill(pid, SIGKILL);
         waitpid(pid, &status, 0);
         return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
   }
}

std::size_t occurrences(std::string const& text, std::string const& what) {
   std::size_t n = 0;
   for (auto pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) {
      ++n;
   }
   return n;
}

}  // namespace

std::string agentBinary() {
#ifdef IPFIX_AGENT_BIN
   return IPFIX_AGENT_BIN;
#else
   return "ipfix-agent";
#endif
}

AgentProcess::AgentProcess(std::string const& config, std::vector<std::string> prefix)
    : configPath_(tempPath("agent.yaml")), logPath_(tempPath("agent.log")) {
   writeFile(configPath_, config);
   prefix.push_back(agentBinary());
   prefix.push_back("-c");
   prefix.push_back(configPath_);
   pid_ = spawn(prefix, "/dev/null", logPath_);
}

AgentProcess::~AgentProcess() {
   if (pid_ > 0) {
      kill(pid_, SIGKILL);
      int status = 0;
      waitpid(pid_, &status, 0);
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
   int const status = waitFor(pid_, std::chrono::seconds(10));
   pid_ = -1;
   return status;
}

std::string AgentProcess::log() const {
   return readFile(logPath_);
}

bool AgentProcess::waitForLog(std::string const& text, std::chrono::milliseconds timeout,
                              std::size_t count) const {
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   while (occurrences(log(), text) < count) {
      if (std::chrono::steady_clock::now() > deadline) {
         return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
   }
   return true;
}

int runProgram(std::vector<std::string> const& argv, std::string* out, std::string* err,
               std::chrono::milliseconds timeout) {
   std::string const outPath = tempPath("prog.out");
   std::string const errPath = tempPath("prog.err");
   int const status = waitFor(spawn(argv, outPath, errPath), timeout);
   if (out) {
      *out = readFile(outPath);
   }
   if (err) {
      *err = readFile(errPath);
   }
   std::remove(outPath.c_str());
   std::remove(errPath.c_str());
   return status;
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

}  // namespace testsupport
