#include "support/Tshark.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace testsupport {

namespace {

// Separates multiple occurrences of one field; a control character cannot
// clash with anything tshark prints for a value.
constexpr char kAggregator = '\x1f';

struct ProcessResult {
   std::string out;
   std::string err;
   int exitCode = -1;
   bool timedOut = false;
};

class Pipe {
 public:
   Pipe() {
      if (pipe2(fd_, O_CLOEXEC) != 0) {
         throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
      }
   }
   ~Pipe() {
      closeRead();
      closeWrite();
   }
   int readEnd() const { return fd_[0]; }
   int writeEnd() const { return fd_[1]; }
   void closeRead() { closeFd(fd_[0]); }
   void closeWrite() { closeFd(fd_[1]); }

 private:
   static void closeFd(int& fd) {
      if (fd >= 0) {
         close(fd);
         fd = -1;
      }
   }
   int fd_[2] = {-1, -1};
};

// Runs argv[0] (looked up on PATH) with stdin from /dev/null, collecting its
// stdout and stderr. Kills it with SIGKILL once `timeout` has passed.
ProcessResult runProcess(std::vector<std::string> const& argv, std::chrono::milliseconds timeout) {
   Pipe out, err;
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_adddup2(&actions, out.writeEnd(), STDOUT_FILENO);
   posix_spawn_file_actions_adddup2(&actions, err.writeEnd(), STDERR_FILENO);

   std::vector<char*> args;
   for (std::string const& a : argv) {
      args.push_back(const_cast<char*>(a.c_str()));
   }
   args.push_back(nullptr);

   pid_t pid = -1;
   int const rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   if (rc != 0) {
      throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
   }
   out.closeWrite();
   err.closeWrite();

   ProcessResult result;
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   pollfd fds[2] = {{out.readEnd(), POLLIN, 0}, {err.readEnd(), POLLIN, 0}};
   std::string* sinks[2] = {&result.out, &result.err};
   int open = 2;
   while (open > 0) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
         result.timedOut = true;
         break;
      }
      int const n = poll(fds, 2, int(left.count()));
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n < 0) {
         break;
      }
      for (int i = 0; i < 2; ++i) {
         if (fds[i].fd < 0 || fds[i].revents == 0) {
            continue;
         }
         char buf[65536];
         ssize_t const got = read(fds[i].fd, buf, sizeof buf);
         if (got > 0) {
            sinks[i]->append(buf, std::size_t(got));
         } else if (got == 0 || errno != EINTR) {
            fds[i].fd = -1;  // EOF; the Pipe closes the descriptor
            --open;
         }
      }
   }
   if (open > 0) {
      kill(pid, SIGKILL);
   }
   int status = 0;
   while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
   }
   if (!result.timedOut && WIFEXITED(status)) {
      result.exitCode = WEXITSTATUS(status);
   }
   return result;
}

std::vector<std::string> split(std::string const& text, char sep) {
   std::vector<std::string> parts;
   std::size_t start = 0;
   for (;;) {
      std::size_t const end = text.find(sep, start);
      parts.push_back(text.substr(start, end - start));
      if (end == std::string::npos) {
         return parts;
      }
      start = end + 1;
   }
}

std::vector<std::string> baseArgs(std::string const& pcapPath, TsharkOptions const& options) {
   std::vector<std::string> argv = {
       "tshark", "-n", "-r",
       pcapPath, "-d", "udp.port==" + std::to_string(options.decodePort) + ",cflow"};
   argv.insert(argv.end(), options.extraArgs.begin(), options.extraArgs.end());
   return argv;
}

std::string joinArgs(std::vector<std::string> const& argv) {
   std::string s;
   for (std::string const& a : argv) {
      s += (s.empty() ? "" : " ") + a;
   }
   return s;
}

}  // namespace

std::size_t TsharkResult::column(std::string const& field) const {
   for (std::size_t i = 0; i < fields.size(); ++i) {
      if (fields[i] == field) {
         return i;
      }
   }
   throw std::out_of_range("field " + field + " was not requested from tshark");
}

TsharkResult::Values TsharkResult::at(std::size_t packet, std::string const& field) const {
   std::size_t const col = column(field);
   return packet < rows.size() ? rows[packet][col] : Values{};
}

TsharkResult::Values TsharkResult::all(std::string const& field) const {
   std::size_t const col = column(field);
   Values values;
   for (auto const& row : rows) {
      values.insert(values.end(), row[col].begin(), row[col].end());
   }
   return values;
}

std::string TsharkResult::describe() const {
   std::ostringstream s;
   s << joinArgs(argv) << "\n  exit code " << exitCode << (timedOut ? " (timed out)" : "")
     << "\n  stderr: " << stderrText;
   return s.str();
}

bool tsharkAvailable() {
   static bool const available = [] {
      try {
         ProcessResult r = runProcess({"tshark", "-v"}, std::chrono::seconds(30));
         return r.exitCode == 0 && r.out.find("TShark") != std::string::npos;
      } catch (std::exception const&) {
         return false;
      }
   }();
   return available;
}

TsharkResult runTshark(std::string const& pcapPath, std::vector<std::string> const& fields,
                       TsharkOptions const& options) {
   TsharkResult result;
   result.fields = fields;
   result.argv = baseArgs(pcapPath, options);
   for (char const* opt :
        {"-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", "-E", "quote=n"}) {
      result.argv.push_back(opt);
   }
   result.argv.push_back("-E");
   result.argv.push_back(std::string("aggregator=") + kAggregator);
   for (std::string const& f : fields) {
      result.argv.push_back("-e");
      result.argv.push_back(f);
   }
   ProcessResult p = runProcess(result.argv, options.timeout);
   result.exitCode = p.exitCode;
   result.timedOut = p.timedOut;
   result.stderrText = std::move(p.err);
   result.stdoutText = std::move(p.out);

   std::istringstream lines(result.stdoutText);
   std::string line;
   while (std::getline(lines, line)) {
      std::vector<TsharkResult::Values> row;
      for (std::string const& column : split(line, '\t')) {
         row.push_back(column.empty() ? TsharkResult::Values{} : split(column, kAggregator));
      }
      row.resize(fields.size());
      result.rows.push_back(std::move(row));
   }
   return result;
}

std::string runTsharkVerbose(std::string const& pcapPath, TsharkOptions const& options) {
   std::vector<std::string> argv = baseArgs(pcapPath, options);
   argv.push_back("-V");
   ProcessResult p = runProcess(argv, options.timeout);
   if (p.exitCode != 0) {
      throw std::runtime_error(joinArgs(argv) + " failed (exit " + std::to_string(p.exitCode) +
                               (p.timedOut ? ", timed out" : "") + "): " + p.err);
   }
   return p.out;
}

std::string tempPath(std::string const& stem) {
   static std::atomic<unsigned> counter{0};
   char const* env = std::getenv("IPFIX_TEST_TMPDIR");
   std::filesystem::path dir = env && *env ? env : "/tmp";
   std::filesystem::create_directories(dir);
   auto const ticks = std::chrono::steady_clock::now().time_since_epoch().count();
   // "capture.pcap" -> "capture-<pid>-<n>-<ticks>.pcap"
   std::size_t const dot = stem.rfind('.');
   std::string const base = stem.substr(0, dot);
   std::string const ext = dot == std::string::npos ? "" : stem.substr(dot);
   std::string const name = base + "-" + std::to_string(getpid()) + "-" +
                            std::to_string(counter++) + "-" + std::to_string(ticks % 1000000007) +
                            ext;
   return (dir / name).string();
}

TempFile::~TempFile() {
   std::error_code ignored;
   std::filesystem::remove(path_, ignored);
}

}  // namespace testsupport
