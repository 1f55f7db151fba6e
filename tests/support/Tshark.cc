#include "support/Tshark.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace testsupport {

namespace {

TsharkResult::Values split(std::string const& text, char sep) {
   TsharkResult::Values parts;
   std::istringstream in(text);
   for (std::string part; std::getline(in, part, sep);) {
      parts.push_back(part);
   }
   return parts;
}

}  // namespace

TsharkResult::Values TsharkResult::all(std::string const& field) const {
   auto const col = std::size_t(std::find(fields.begin(), fields.end(), field) - fields.begin());
   if (col == fields.size()) {
      throw std::out_of_range("field " + field + " was not requested from tshark");
   }
   Values values;
   for (auto const& row : rows) {
      values.insert(values.end(), row[col].begin(), row[col].end());
   }
   return values;
}

bool tsharkAvailable() {
   static bool const available = [] {
      CommandResult const r = runCommand({"tshark", "-v"});
      return r.ok() && r.out.find("TShark") != std::string::npos;
   }();
   return available;
}

TsharkResult runTshark(std::string const& pcapPath, std::vector<std::string> const& fields,
                       std::uint16_t decodePort) {
   // \x1f separates occurrences of one field: it cannot clash with a value.
   std::vector<std::string> argv = {
       "tshark", "-n",     "-r", pcapPath,
       "-T",     "fields", "-d", "udp.port==" + std::to_string(decodePort) + ",cflow"};
   for (char const* e : {"separator=/t", "occurrence=a", "quote=n", "aggregator=\x1f"}) {
      argv.insert(argv.end(), {"-E", e});
   }
   for (std::string const& f : fields) {
      argv.insert(argv.end(), {"-e", f});
   }
   TsharkResult r{runCommand(std::move(argv), std::chrono::seconds(60)), {}, fields};
   for (std::string const& line : split(r.out, '\n')) {
      std::vector<TsharkResult::Values> row;
      for (std::string const& column : split(line, '\t')) {
         row.push_back(split(column, '\x1f'));
      }
      row.resize(fields.size());
      r.rows.push_back(std::move(row));
   }
   return r;
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
