#include "support/Tshark.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

// Runs argv (found on PATH, stdin /dev/null) collecting its output; SIGKILLs it after `timeout`.
TsharkResult spawn(std::vector<std::string> argv, std::chrono::milliseconds timeout) {
   TsharkResult r;
   r.argv = std::move(argv);
   int out[2], err[2];
   if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
   }
   posix_spawn_file_actions_t fa;
   posix_spawn_file_actions_init(&fa);
   posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_adddup2(&fa, out[1], STDOUT_FILENO);
   posix_spawn_file_actions_adddup2(&fa, err[1], STDERR_FILENO);
   std::vector<char*> args(r.argv.size() + 1, nullptr);
   std::transform(r.argv.begin(), r.argv.end(), args.begin(), [](auto& a) { return a.data(); });
   pid_t pid = -1;
   int const rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&fa);
   close(out[1]), close(err[1]);
   pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   while (rc == 0 && (fds[0].fd >= 0 || fds[1].fd >= 0)) {
      auto const left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if ((r.timedOut = left.count() <= 0)) {
         kill(pid, SIGKILL);
         break;
      }
      int const n = poll(fds, 2, int(left.count()));
      for (int i = 0; n > 0 && i < 2; ++i) {
         char buf[65536];
         ssize_t const got = fds[i].revents ? read(fds[i].fd, buf, sizeof buf) : -1;
         if (got > 0) {
            (i ? r.stderrText : r.stdoutText).append(buf, std::size_t(got));
         } else if (fds[i].revents && (got == 0 || errno != EINTR)) {
            fds[i].fd = -1;  // EOF
         }
      }
   }
   close(out[0]), close(err[0]);
   int status = 0;
   while (rc == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
   }
   r.exitCode = rc == 0 && !r.timedOut && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   r.stderrText += rc == 0 ? "" : "cannot start " + r.argv[0] + ": " + std::strerror(rc);
   return r;
}

TsharkResult tshark(std::string const& pcap, TsharkOptions const& o,
                    std::vector<std::string> const& tail) {
   std::vector<std::string> argv = {
       "tshark", "-n", "-r", pcap, "-d", "udp.port==" + std::to_string(o.decodePort) + ",cflow"};
   argv.insert(argv.end(), o.extraArgs.begin(), o.extraArgs.end());
   argv.insert(argv.end(), tail.begin(), tail.end());
   return spawn(std::move(argv), o.timeout);
}

TsharkResult::Values split(std::string const& text, char sep) {
   TsharkResult::Values parts;
   std::istringstream in(text);
   for (std::string part; std::getline(in, part, sep);) {
      parts.push_back(part);
   }
   return parts;
}

}  // namespace

TsharkResult::Values TsharkResult::at(std::size_t packet, std::string const& field) const {
   auto const col = std::size_t(std::find(fields.begin(), fields.end(), field) - fields.begin());
   if (col == fields.size()) {
      throw std::out_of_range("field " + field + " was not requested from tshark");
   }
   return packet < rows.size() ? rows[packet][col] : Values{};
}

TsharkResult::Values TsharkResult::all(std::string const& field) const {
   Values values = at(0, field);  // checks `field` even when there are no packets
   for (std::size_t p = 1; p < rows.size(); ++p) {
      Values const v = at(p, field);
      values.insert(values.end(), v.begin(), v.end());
   }
   return values;
}

std::string TsharkResult::describe() const {
   std::string s;
   for (std::string const& a : argv) {
      s += a + " ";
   }
   return s + "\n  exit code " + std::to_string(exitCode) + (timedOut ? " (timed out)" : "") +
          "\n  stderr: " + stderrText;
}

bool tsharkAvailable() {
   static bool const available = [] {
      TsharkResult r = spawn({"tshark", "-v"}, std::chrono::seconds(30));
      return r.ok() && r.stdoutText.find("TShark") != std::string::npos;
   }();
   return available;
}

TsharkResult runTshark(std::string const& pcapPath, std::vector<std::string> const& fields,
                       TsharkOptions const& options) {
   // \x1f separates occurrences of one field: it cannot clash with a value.
   std::vector<std::string> args = {"-T", "fields",  "-E", "separator=/t",   "-E", "occurrence=a",
                                    "-E", "quote=n", "-E", "aggregator=\x1f"};
   for (std::string const& f : fields) {
      args.insert(args.end(), {"-e", f});
   }
   TsharkResult r = tshark(pcapPath, options, args);
   r.fields = fields;
   for (std::string const& line : split(r.stdoutText, '\n')) {
      std::vector<TsharkResult::Values> row;
      for (std::string const& column : split(line, '\t')) {
         row.push_back(split(column, '\x1f'));
      }
      row.resize(fields.size());
      r.rows.push_back(std::move(row));
   }
   return r;
}

std::string runTsharkVerbose(std::string const& pcapPath, TsharkOptions const& options) {
   TsharkResult r = tshark(pcapPath, options, {"-V"});
   if (!r.ok()) {
      throw std::runtime_error("tshark failed: " + r.describe());
   }
   return r.stdoutText;
}

std::string tempPath(std::string const& stem) {
   static std::atomic<unsigned> counter{0};
   char const* env = std::getenv("IPFIX_TEST_TMPDIR");
   std::filesystem::path dir = env && *env ? env : "/tmp";
   std::filesystem::create_directories(dir);
   std::filesystem::path const s(stem);  // "capture.pcap" -> "capture-<pid>-<n>.pcap"
   return (dir / (s.stem().string() + "-" + std::to_string(getpid()) + "-" +
                  std::to_string(counter++) + s.extension().string()))
       .string();
}

TempFile::~TempFile() {
   std::error_code ignored;
   std::filesystem::remove(path_, ignored);
}

}  // namespace testsupport
