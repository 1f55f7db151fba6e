// The statistics readers and ipfix-stats' formats on hostile shared memory. The input is made
// into real segments under names of this process:
//
//   [2 bytes: n, little-endian][n bytes: statistics table][rest: health table]
//
// where each table is its control segment (the first 48 bytes) followed by its data segment,
// created under the data serial the control header names. An empty health part means no health
// table, as with an agent that keeps none. Opening and reading the tables must either throw
// Kivo::Exception or give entries that every format shows without failing.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Ipfix/CollectorStats.h"
#include "Mirra/ShmLayout.h"
#include "Mirra/ShmTable.h"
#include "agent/CollectorHealth.h"
#include "agent/ControlSocket.h"
#include "tools/StatsFormat.h"

namespace {

namespace L = Mirra::ShmLayout;

void writeSegment(std::string const& name, std::span<std::uint8_t const> bytes) {
   int const fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   FUZZ_CHECK(fd >= 0);
   FUZZ_CHECK(fchmod(fd, 0644) == 0);  // whatever the umask: readers refuse group-writable ones
   std::size_t done = 0;
   while (done < bytes.size()) {
      ssize_t const n = write(fd, bytes.data() + done, bytes.size() - done);
      FUZZ_CHECK(n > 0);
      done += static_cast<std::size_t>(n);
   }
   close(fd);
}

// Writes `image` as the table `base`; returns the names made. A slot whose sequence number is odd
// is made even: such a slot only makes the reader wait out its stall limit (a second) before it
// throws, which its own tests cover, and would slow the run down to a crawl here.
template <class Key, class Value>
std::vector<std::string> writeTable(std::string const& base, std::span<std::uint8_t const> image) {
   std::vector<std::uint8_t> control(
       image.begin(), image.begin() + std::min(image.size(), sizeof(L::ControlHeader)));
   std::vector<std::uint8_t> data(image.begin() + control.size(), image.end());
   std::uint32_t serial = 0;
   if (control.size() >= sizeof(L::ControlHeader)) {
      std::memcpy(&serial, control.data() + offsetof(L::ControlHeader, dataSerial), 4);
   }
   std::size_t const slotSize = L::slotGeometry<Key, Value>().slotSize;
   for (std::size_t at = L::slotsOffset(); at + sizeof(std::uint64_t) <= data.size();
        at += slotSize) {
      data[at] &= 0xfe;  // seq is the slot's first word, in native (little-endian) order
   }
   std::string const dataName = Mirra::shmTableDataName(base, serial);
   writeSegment(base, control);
   writeSegment(dataName, data);
   return {base, dataName};
}

void formatAll(std::vector<Stats::Entry> const& all, std::optional<Stats::Health> const& health) {
   double const now = 1.8e9;
   for (auto sort : {Stats::SortKey::tracker, Stats::SortKey::exporter, Stats::SortKey::collector,
                     Stats::SortKey::messages, Stats::SortKey::records, Stats::SortKey::octets,
                     Stats::SortKey::lastSent}) {
      std::vector<Stats::Entry> const shown = Stats::select(all, {}, sort);
      FUZZ_CHECK(shown.size() <= all.size());
      (void)Stats::tableText(shown, now, health);
   }
   (void)Stats::toJson(all, health).dump(2);
   (void)Stats::prometheusText(all, health);
   (void)Stats::ageText(now, Stats::lastClearTime(all));
   for (Stats::Entry const& e : all) {
      (void)Stats::ageText(now, e.lastSentTime);
      (void)Stats::rfc3339(e.lastSentTime).dump();
      Stats::Filter const f{std::string(e.key.tracker()), std::string(e.key.exporter()),
                            Agent::collectorText(e.key.collector)};
      FUZZ_CHECK(f.matches(e));
   }
}

std::vector<std::uint8_t> fileBytes(std::string const& path) {
   std::vector<std::uint8_t> out;
   int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
   FUZZ_CHECK(fd >= 0);
   std::uint8_t buf[4096];
   for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;) {
      out.insert(out.end(), buf, buf + n);
   }
   close(fd);
   return out;
}

// A table's control segment then its current data segment, as the input holds them.
std::vector<std::uint8_t> tableImage(std::string const& base) {
   std::vector<std::uint8_t> out = fileBytes("/dev/shm" + base);
   FUZZ_CHECK(out.size() == sizeof(L::ControlHeader));
   std::uint32_t serial = 0;
   std::memcpy(&serial, out.data() + offsetof(L::ControlHeader, dataSerial), 4);
   std::vector<std::uint8_t> const data =
       fileBytes("/dev/shm" + Mirra::shmTableDataName(base, serial));
   out.insert(out.end(), data.begin(), data.end());
   return out;
}

// The seed: what the agent's writers leave for two collectors, one with failures, and the entry
// that records the last clear.
void writeSeed(char const* path) {
   using namespace Mirra::Ipfix;
   std::string const base = Fuzz::shmName("seed");
   CollectorStatistics stats(base, 2);
   Agent::HealthTable health(Agent::healthTableName(base), 2);
   CollectorInfo const v4{Pelto::IpGenAddr(*Pelto::IpAddr::parse("127.0.0.1")), 4739};
   CollectorInfo const v6{Pelto::IpGenAddr(*Pelto::Ip6Addr::parse("2001:db8::2")), 4740};
   CollectorStatisticsEntry a(CollectorStatisticsKey("ft1", "e1", v4));
   a.exportedMessageTotalCount = 12;
   a.exportedFlowRecordTotalCount = 40;
   a.exportedOctetTotalCount = 5120;
   a.lastSentTime = a.lastTemplateSentTime = a.lastOptionsDataSentTime = 1.7e9 + 0.25;
   a.setEntryIs({2, 0, 3});
   a.setEntryIs({3, 0, 4});
   a.setEntryIs({256, 36, 0});
   CollectorStatisticsEntry b(CollectorStatisticsKey("ft1", "e6", v6));
   b.lastClearedTime = 1.7e9;
   CollectorStatisticsEntry cleared(CollectorStatisticsKey("", "", CollectorInfo{}));
   cleared.lastClearedTime = 1.7e9;
   FUZZ_CHECK(stats.statsIs(a) && stats.statsIs(b) && stats.statsIs(cleared));
   Agent::CollectorHealth h;
   h.failureIs(ECONNREFUSED, 1.7e9 + 1);
   FUZZ_CHECK(health.upsert(b.key, h));

   std::vector<std::uint8_t> const s = tableImage(base);
   std::vector<std::uint8_t> const f = tableImage(Agent::healthTableName(base));
   FUZZ_CHECK(s.size() < 65536);
   std::vector<std::uint8_t> out{static_cast<std::uint8_t>(s.size()),
                                 static_cast<std::uint8_t>(s.size() >> 8)};
   out.insert(out.end(), s.begin(), s.end());
   out.insert(out.end(), f.begin(), f.end());
   int const fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   FUZZ_CHECK(fd >= 0 && write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size()));
   close(fd);
}

}  // namespace

// IPFIX_FUZZ_WRITE_SEED=FILE writes the seed input to FILE and exits.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
   if (char const* path = std::getenv("IPFIX_FUZZ_WRITE_SEED")) {
      writeSeed(path);
      std::exit(0);
   }
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   if (size < 2) {
      return 0;
   }
   std::size_t const n = std::min<std::size_t>(data[0] | data[1] << 8, size - 2);
   std::span<std::uint8_t const> const stats(data + 2, n);
   std::span<std::uint8_t const> const health(data + 2 + n, size - 2 - n);

   std::string const base = Fuzz::shmName("stats");
   std::vector<std::string> names =
       writeTable<Mirra::Ipfix::CollectorStatisticsKey, Mirra::Ipfix::CollectorStatisticsEntry>(
           base, stats);
   if (!health.empty()) {
      for (std::string& s : writeTable<Agent::HealthKey, Agent::CollectorHealth>(
               Agent::healthTableName(base), health)) {
         names.push_back(std::move(s));
      }
   }

   std::optional<Stats::Health> failures;
   std::vector<Stats::Entry> all;
   bool read = false;
   try {
      Mirra::Ipfix::CollectorStatisticsReader reader(base);
      (void)reader.generation();
      (void)reader.waitForChange(reader.generation() + 1, 0);
      all = reader.allStats();
      for (Stats::Entry const& e : all) {
         // Found only when the slot's hash is the key's; a damaged one may not be.
         if (std::optional<Stats::Entry> const again = reader.stats(e.key)) {
            FUZZ_CHECK(again->key == e.key && again->validationError().empty());
         }
      }
      if (!health.empty()) {
         failures = Agent::CollectorHealthReader(base).all();
      }
      read = true;
   } catch (Kivo::Exception const&) {
   }
   if (read) {
      formatAll(all, failures);
   }
   for (std::string const& s : names) {
      shm_unlink(s.c_str());
   }
   return 0;
}
