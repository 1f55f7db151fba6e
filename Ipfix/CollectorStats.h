// Per-collector export statistics, as stored in the shared-memory statistics table.
//
// Records live in shared memory and are read by other processes, so they are plain fixed-size
// values: no pointers, names held inline with a length, set counts in an array of fixed capacity.
// Every record has a static_assert on its size; a change of layout must change the table's layout
// version too.
//
// An entry counts, for one (tracker, exporter, collector), the messages, records and octets sent,
// when each kind of message was last sent and when the counters were last cleared, and per set id
// the data records and template records sent. A writer reads the entry, changes it and writes it
// back whole.
//
// An entry read from shared memory may have been damaged by another process: its operations never
// index past the storage whatever its counts say, and validationError() says whether it can be
// believed.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "Kivo/Kivo.h"
#include "Mirra/ShmPlace.h"
#include "Pelto/Address.h"

namespace Mirra::Ipfix {

// A collector's address and UDP port.
struct CollectorInfo {
   Pelto::IpGenAddr addr;
   std::uint16_t port = 0;

   static CollectorInfo fromIpAndPort(Pelto::IpAndPort const& a) { return {a.ipAddr(), a.port()}; }
   static CollectorInfo fromIp6AndPort(Pelto::Ip6AndPort const& a) {
      return {a.ipAddr(), a.port()};
   }
   bool operator==(CollectorInfo const&) const = default;
   std::uint32_t hash() const;
   Kivo::String toString() const;
};
static_assert(sizeof(CollectorInfo) == 20);

// Index into an inline name (0 to 127) and into the set entries (0 to 21). Values out of range
// throw Kivo::RangeException.
struct StringIndex {
   static constexpr std::uint8_t min() { return 0; }
   static constexpr std::uint8_t max() { return 127; }
   explicit StringIndex(unsigned v);
   std::uint8_t value;
};
struct SetIndex {
   static constexpr std::uint8_t min() { return 0; }
   static constexpr std::uint8_t max() { return 21; }
   static constexpr std::uint8_t none() { return 255; }
   explicit SetIndex(unsigned v);
   std::uint8_t value;
};

// An IPFIX set id as counted here: 2 (templates), 3 (options templates) or a data set id from 256
// up. Anything else is a programming error.
class SetId {
 public:
   explicit SetId(std::uint16_t v);
   std::uint16_t value() const { return v_; }

 private:
   std::uint16_t v_;
};

// A name stored inline: a length and up to 128 bytes. A length over 128 (a damaged record) reads
// as the 128 bytes there are.
struct InlineName {
   std::uint8_t len = 0;
   char bytes[StringIndex::max() + 1] = {};

   // REQUIRES: at most 128 bytes.
   void assign(std::string_view s);
   std::string_view view() const { return {bytes, len <= sizeof(bytes) ? len : sizeof(bytes)}; }
   bool operator==(InlineName const& o) const { return view() == o.view(); }
};
static_assert(sizeof(InlineName) == 129);

// Times in the tables are seconds since the epoch, 0 for never. A valid one is finite, not
// negative and no later than the last second of year 9999, the last one RFC 3339 can write.
bool validTime(double t);

struct CollectorStatisticsKey {
   CollectorInfo collector;
   InlineName trackerStorage;
   InlineName exporterStorage;

   CollectorStatisticsKey() = default;
   CollectorStatisticsKey(std::string_view tracker, std::string_view exporter,
                          CollectorInfo const& c);
   void trackerIs(std::string_view name) { trackerStorage.assign(name); }
   void exporterIs(std::string_view name) { exporterStorage.assign(name); }
   std::string_view tracker() const { return trackerStorage.view(); }
   std::string_view exporter() const { return exporterStorage.view(); }

   bool operator==(CollectorStatisticsKey const&) const = default;
   // One-at-a-time hash over the tracker name hash, the exporter name hash and the collector hash.
   std::uint32_t hash() const;
   Kivo::String toString() const;
   // Keys have no text constructor; calling this is a programming error.
   [[noreturn]] static CollectorStatisticsKey fromString(std::string_view text);
};
static_assert(sizeof(CollectorStatisticsKey) == 278);

struct CollectorStatisticsKeyHash {
   std::uint32_t operator()(CollectorStatisticsKey const& k) const { return k.hash(); }
};

struct CollectorSetStatisticsEntry {
   std::uint16_t setId = 0;  // 0 marks a free slot
   std::uint64_t exportedFlowRecordCount = 0;
   std::uint64_t exportedTemplateCount = 0;

   bool operator==(CollectorSetStatisticsEntry const&) const = default;
   Kivo::String toString() const;
};
static_assert(sizeof(CollectorSetStatisticsEntry) == 24);

struct CollectorStatisticsEntry {
   static constexpr std::size_t setEntryCapacity = SetIndex::max() + 1;

   CollectorStatisticsKey key;
   std::uint64_t exportedMessageTotalCount = 0;
   std::uint64_t exportedFlowRecordTotalCount = 0;
   std::uint64_t exportedOctetTotalCount = 0;
   double lastSentTime = 0;
   double lastTemplateSentTime = 0;
   double lastDataRecordSentTime = 0;
   double lastOptionsDataSentTime = 0;
   double lastClearedTime = 0;
   std::uint8_t nextIdx = SetIndex::none();  // slot freed last, reused first
   std::uint8_t setEntryCount = 0;
   std::array<CollectorSetStatisticsEntry, setEntryCapacity> setEntryStorage{};

   CollectorStatisticsEntry() = default;
   explicit CollectorStatisticsEntry(CollectorStatisticsKey const& k) : key(k) {}

   // The slot of `setId`, or 255.
   std::uint8_t indexForSetId(SetId setId) const;
   // The counts of `setId`; all zero when it has none.
   CollectorSetStatisticsEntry setEntry(SetId setId) const;
   // The slot to write `setId` into. Throws Kivo::RangeException when all 22 slots are taken.
   std::uint8_t maybeNewIndexForSetId(SetId setId) const;
   void setEntryIs(CollectorSetStatisticsEntry const& e);
   // Adds `n` data records to the counts of `setId`, taking a slot for it when it has none (as
   // setEntryIs does, and throwing as it does), in one search of the slots.
   void flowRecordCountInc(SetId setId, std::uint64_t n);
   // Frees the slot of `setId` (reused first by the next new set id) and returns what it held.
   CollectorSetStatisticsEntry setEntryDel(SetId setId);
   void setEntryStorageDelAll();

   // What makes this entry one that no writer could have written (a name longer than 128 bytes,
   // an unknown address family, more than 22 set entries, a reuse slot out of range, a set id
   // that fails the SetId check, a time that fails validTime), on one line; empty when there is
   // nothing wrong.
   Kivo::String validationError() const;

   bool operator==(CollectorStatisticsEntry const&) const = default;
   Kivo::String toString() const;
   // The short form used in traces.
   Kivo::String mirraString() const;
};
static_assert(sizeof(CollectorStatisticsEntry) == 280 + 3 * 8 + 5 * 8 + 8 + 22 * 24);

std::ostream& operator<<(std::ostream& os, CollectorStatisticsKey const& k);
std::ostream& operator<<(std::ostream& os, CollectorStatisticsEntry const& e);

}  // namespace Mirra::Ipfix

namespace Mirra::Ipfix {

// A writer's handle on one entry of the table: its key, and where the table last had it, so that
// counting a message touches the entry in place without building the key, hashing it or copying
// the entry out and back.
class CollectorStatisticsPlace {
 public:
   explicit CollectorStatisticsPlace(CollectorStatisticsKey const& key);
   CollectorStatisticsKey const& key() const { return key_; }

 private:
   friend class CollectorStatistics;
   CollectorStatisticsKey key_;
   ShmPlace<CollectorStatisticsKey> place_;
};

// The collector statistics table in shared memory, as its one writer (the agent) sees it. Other
// processes read it with CollectorStatisticsReader.
class CollectorStatistics : public Kivo::Object {
 public:
   // Creates the table under the POSIX shared-memory name `name` (e.g. "/ipfix-collector-stats"),
   // replacing a stale table left by a writer that died. Throws Kivo::ErrnoException when the
   // segment cannot be created, or when a live writer holds it. The segment is removed when the
   // table is destroyed.
   explicit CollectorStatistics(Kivo::String const& name, std::size_t initialCapacity = 64);
   ~CollectorStatistics() override;

   // The entry of `key`; nothing when there is none, or when another process has damaged it so
   // that it fails validationError() (traced; the caller's next statsIs replaces it).
   std::optional<CollectorStatisticsEntry> stats(CollectorStatisticsKey const& key) const;
   // Inserts or replaces the entry of `e.key`. Returns false, changing nothing, when the table is
   // full and cannot grow.
   bool statsIs(CollectorStatisticsEntry const& e);
   // Changes the entry of `place`'s key in place with fn(entry): readers see the entry before
   // or after, never between. A key without an entry, or with one another process has damaged
   // (traced), starts from an empty entry, as a read, change and statsIs() would. False,
   // changing nothing, when the key is new and the table is full and cannot grow. fn must not
   // change the table.
   template <class F>
   bool statsModify(CollectorStatisticsPlace& place, F&& fn) {
      return modify_p(place, [&fn](CollectorStatisticsEntry& e) { fn(e); });
   }
   bool statsDel(CollectorStatisticsKey const& key);
   void statsDelAll();
   std::size_t statsCount() const;
   // Calls `fn` for every entry; `fn` must not change the table.
   void forEachStats(std::function<void(CollectorStatisticsEntry const&)> const& fn) const;
   Kivo::String const& name() const { return name_; }

 private:
   // A reference to the caller's function, without allocating.
   class EntryFn {
    public:
      template <class F>
      EntryFn(F&& f)  // NOLINT: converts from any callable, as std::function does
          : fn_(&f),
            call_([](void* fn, CollectorStatisticsEntry& e) { (*static_cast<F*>(fn))(e); }) {}
      void operator()(CollectorStatisticsEntry& e) const { call_(fn_, e); }

    private:
      void* fn_;
      void (*call_)(void*, CollectorStatisticsEntry&);
   };
   bool modify_p(CollectorStatisticsPlace& place, EntryFn fn);

   struct Table;
   Kivo::String name_;
   std::unique_ptr<Table> table_;
};

// A reader of the table from another process (show and clear tools), which any user may run. Every
// entry is read whole; a walk over all entries is not a snapshot. Throws Kivo::ErrnoException when
// there is no table of that name. Throws Kivo::Exception, with one line saying what is wrong, when
// the segments are not a statistics table, are owned by anyone but root and `writerUid` (by
// default this process's effective uid) or writable by anyone else, have been damaged or cut
// short, and when an entry read fails validationError(): whatever is in shared memory, a reader
// throws rather than crash or hang, and every entry it returns passes validation.
class CollectorStatisticsReader : public Kivo::Object {
 public:
   explicit CollectorStatisticsReader(Kivo::String const& name,
                                      std::optional<uid_t> writerUid = std::nullopt);
   ~CollectorStatisticsReader() override;

   std::optional<CollectorStatisticsEntry> stats(CollectorStatisticsKey const& key);
   std::vector<CollectorStatisticsEntry> allStats();
   // Waits up to `timeoutSeconds` for a change after `generation`; returns the new generation.
   std::optional<std::uint64_t> waitForChange(std::uint64_t generation, double timeoutSeconds);
   std::uint64_t generation();

 private:
   CollectorStatisticsEntry const& checked_p(CollectorStatisticsEntry const& e) const;

   Kivo::String name_;
   struct Table;
   std::unique_ptr<Table> table_;
};

}  // namespace Mirra::Ipfix
