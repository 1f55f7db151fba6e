#include "Ipfix/CollectorStats.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "Kivo/ValueText.h"
#include "Mirra/ShmTable.h"
#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("CollectorStats"))

namespace Mirra::Ipfix {

namespace {

// FNV-1a: the string hash shared by the writer and every reader of the table.
std::uint32_t stringHash(std::string_view s) {
   std::uint32_t h = 2166136261u;
   for (unsigned char c : s) {
      h = (h ^ c) * 16777619u;
   }
   return h;
}

void oneAtATime(std::uint32_t& h, std::uint32_t word) {
   unsigned char bytes[4];
   std::memcpy(bytes, &word, 4);  // memory order, as the readers hash it
   for (unsigned char b : bytes) {
      h = (h + b) * 1025u;
      h ^= h >> 6;
   }
}

// The set entries in use, as far as the storage goes whatever the count says.
unsigned usedSlots(CollectorStatisticsEntry const& e) {
   return std::min<unsigned>(e.setEntryCount, CollectorStatisticsEntry::setEntryCapacity);
}

bool validSetId(std::uint16_t id) {
   return id == Pelto::IpfixConst::templateSetId() ||
          id == Pelto::IpfixConst::optionsTemplateSetId() ||
          id >= Pelto::IpfixConst::minDataSetId();
}

Kivo::String timeText(double t) {
   char buf[32];
   std::snprintf(buf, sizeof(buf), "%.6f", t);
   return buf;
}

// The totals and times of an entry in their order, each with its attribute name (the text form)
// and its label (the trace form).
template <class Text>
void forEachTotal(CollectorStatisticsEntry const& e, Text const& text) {
   text("exportedMessageTotalCount", "msgs", std::to_string(e.exportedMessageTotalCount));
   text("exportedFlowRecordTotalCount", "flows", std::to_string(e.exportedFlowRecordTotalCount));
   text("exportedOctetTotalCount", "octets", std::to_string(e.exportedOctetTotalCount));
   text("lastSentTime", "last message", timeText(e.lastSentTime));
   text("lastTemplateSentTime", "template", timeText(e.lastTemplateSentTime));
   text("lastDataRecordSentTime", "data", timeText(e.lastDataRecordSentTime));
   text("lastOptionsDataSentTime", "options data", timeText(e.lastOptionsDataSentTime));
   text("lastClearedTime", "cleared", timeText(e.lastClearedTime));
}

}  // namespace

std::uint32_t CollectorInfo::hash() const {
   std::uint32_t h = stringHash(std::string_view(reinterpret_cast<char const*>(addr.addr), 16));
   h ^= static_cast<std::uint32_t>(addr.family) << 24;
   return (h ^ port) * 2654435761u;
}

Kivo::String CollectorInfo::toString() const {
   return "Value('Mirra::Ipfix::CollectorInfo', ** {'addr': " + addr.toString() +
          ", 'port': " + std::to_string(port) + "})";
}

StringIndex::StringIndex(unsigned v) : value(static_cast<std::uint8_t>(v)) {
   if (v > max()) {
      throw Kivo::RangeException(
          "Mirra::Ipfix::StringIndex::value < Mirra::Ipfix::StringIndex::min or > "
          "Mirra::Ipfix::StringIndex::max not allowed");
   }
}

SetIndex::SetIndex(unsigned v) : value(static_cast<std::uint8_t>(v)) {
   if (v > max()) {
      throw Kivo::RangeException(
          "Mirra::Ipfix::SetIndex::value < Mirra::Ipfix::SetIndex::min or > "
          "Mirra::Ipfix::SetIndex::max not allowed");
   }
}

SetId::SetId(std::uint16_t v) : v_(v) {
   // Data set ids (256 and up) are valid as well; only the two template set ids pass below that.
   if (value() < Pelto::IpfixConst::minDataSetId()) {
      KIVO_ASSERT(value() == Pelto::IpfixConst::optionsTemplateSetId() ||
                  value() == Pelto::IpfixConst::templateSetId());
   }
}

void InlineName::assign(std::string_view s) {
   std::size_t const sz = s.size();
   KIVO_ASSERT(sz <= StringIndex::max() + 1);
   std::memset(bytes, 0, sizeof(bytes));
   std::memcpy(bytes, s.data(), sz);
   len = static_cast<std::uint8_t>(sz);
}

CollectorStatisticsKey::CollectorStatisticsKey(std::string_view tracker, std::string_view exporter,
                                               CollectorInfo const& c)
    : collector(c) {
   trackerIs(tracker);
   exporterIs(exporter);
}

std::uint32_t CollectorStatisticsKey::hash() const {
   std::uint32_t h = 0;
   oneAtATime(h, stringHash(tracker()));
   oneAtATime(h, stringHash(exporter()));
   oneAtATime(h, collector.hash());
   h *= 9u;
   h ^= h >> 11;
   h *= 32769u;
   return h;
}

Kivo::String CollectorStatisticsKey::toString() const {
   return "Value('Mirra::Ipfix::CollectorStatisticsKey', ** {'collector': " + collector.toString() +
          ", 'trackerStorage': " + Kivo::quoted(tracker()) +
          ", 'exporterStorage': " + Kivo::quoted(exporter()) + "})";
}

CollectorStatisticsKey CollectorStatisticsKey::fromString(std::string_view) {
   KIVO_ABSTRACT("CollectorStatisticsKey::fromString");
}

Kivo::String CollectorSetStatisticsEntry::toString() const {
   return "Value('Mirra::Ipfix::CollectorSetStatisticsEntry', ** {'setId': " +
          std::to_string(setId) +
          ", 'exportedFlowRecordCount': " + std::to_string(exportedFlowRecordCount) +
          ", 'exportedTemplateCount': " + std::to_string(exportedTemplateCount) + "})";
}

std::uint8_t CollectorStatisticsEntry::indexForSetId(SetId setId) const {
   for (std::uint8_t i = 0; i < usedSlots(*this); ++i) {
      if (setEntryStorage[i].setId == setId.value()) {
         return i;
      }
   }
   return SetIndex::none();
}

CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntry(SetId setId) const {
   std::uint8_t const i = indexForSetId(setId);
   return i == SetIndex::none() ? CollectorSetStatisticsEntry() : setEntryStorage[i];
}

std::uint8_t CollectorStatisticsEntry::maybeNewIndexForSetId(SetId setId) const {
   std::uint8_t const existing = indexForSetId(setId);
   if (existing != SetIndex::none()) {
      return existing;
   }
   auto isFree = [this](unsigned i) { return setEntryStorage[i].setId == 0; };
   if (nextIdx != SetIndex::none() && nextIdx < setEntryCapacity && isFree(nextIdx)) {
      return nextIdx;
   }
   if (setEntryCount == 0 || isFree(0)) {
      return 0;
   }
   for (unsigned i = 1; i < usedSlots(*this); ++i) {
      if (isFree(i)) {
         return static_cast<std::uint8_t>(i);
      }
   }
   return SetIndex(setEntryCount).value;  // append; a 23rd set id is out of range
}

void CollectorStatisticsEntry::setEntryIs(CollectorSetStatisticsEntry const& e) {
   std::uint8_t const i = maybeNewIndexForSetId(SetId(e.setId));
   setEntryStorage[i] = e;
   if (setEntryCount < i + 1) {
      setEntryCount = static_cast<std::uint8_t>(i + 1);
   }
}

void CollectorStatisticsEntry::flowRecordCountInc(SetId setId, std::uint64_t n) {
   std::uint8_t const i = maybeNewIndexForSetId(setId);
   setEntryStorage[i].setId = setId.value();
   setEntryStorage[i].exportedFlowRecordCount += n;
   if (setEntryCount < i + 1) {
      setEntryCount = static_cast<std::uint8_t>(i + 1);
   }
}

CollectorSetStatisticsEntry CollectorStatisticsEntry::setEntryDel(SetId setId) {
   std::uint8_t const i = indexForSetId(setId);
   if (i == SetIndex::none()) {
      return {};
   }
   CollectorSetStatisticsEntry const old = setEntryStorage[i];
   nextIdx = i;
   setEntryStorage[i] = {};
   return old;
}

void CollectorStatisticsEntry::setEntryStorageDelAll() {
   setEntryStorage.fill({});
   setEntryCount = 0;
}

bool validTime(double t) {
   return std::isfinite(t) && t >= 0 && t <= 253402300799.0;  // 9999-12-31T23:59:59Z
}

Kivo::String CollectorStatisticsEntry::validationError() const {
   for (auto const* name : {&key.trackerStorage, &key.exporterStorage}) {
      if (name->len > sizeof(name->bytes)) {
         return Kivo::String(name == &key.trackerStorage ? "tracker" : "exporter") +
                " name length " + std::to_string(name->len) + " exceeds " +
                std::to_string(sizeof(name->bytes));
      }
   }
   using Family = Pelto::IpGenAddr::Family;
   if (Family const f = key.collector.addr.family;
       f != Family::none && f != Family::ipv4 && f != Family::ipv6) {
      return "collector address family " + std::to_string(static_cast<unsigned>(f)) +
             " is neither IPv4 nor IPv6";
   }
   if (setEntryCount > setEntryCapacity) {
      return "set entry count " + std::to_string(setEntryCount) + " exceeds " +
             std::to_string(setEntryCapacity);
   }
   if (nextIdx != SetIndex::none() && nextIdx > SetIndex::max()) {
      return "slot to reuse " + std::to_string(nextIdx) + " is past the " +
             std::to_string(setEntryCapacity) + " set entries";
   }
   for (unsigned i = 0; i < setEntryCount; ++i) {
      if (std::uint16_t const id = setEntryStorage[i].setId; id != 0 && !validSetId(id)) {
         return "set entry " + std::to_string(i) + " has set id " + std::to_string(id) +
                ", neither a template set id nor a data set id";
      }
   }
   for (auto const& [what, t] : {std::pair{"last sent", lastSentTime},
                                 {"last template sent", lastTemplateSentTime},
                                 {"last data record sent", lastDataRecordSentTime},
                                 {"last options data sent", lastOptionsDataSentTime},
                                 {"last cleared", lastClearedTime}}) {
      if (!validTime(t)) {
         char text[32];
         std::snprintf(text, sizeof(text), "%g", t);
         return Kivo::String(what) + " time " + text + " is not a time";
      }
   }
   return {};
}

Kivo::String CollectorStatisticsEntry::toString() const {
   Kivo::String sets = "[";
   for (std::uint8_t i = 0; i < usedSlots(*this); ++i) {
      sets += (i ? ", " : "") + setEntryStorage[i].toString();
   }
   sets += "]";
   Kivo::String s = "Value('Mirra::Ipfix::CollectorStatisticsEntry', ** {'key': " + key.toString();
   forEachTotal(*this, [&](char const* attr, char const*, Kivo::String const& value) {
      s += ", '" + Kivo::String(attr) + "': " + value;
   });
   return s + ", 'nextIdx': " + std::to_string(nextIdx) + ", 'setEntryStorage': " + sets + "})";
}

Kivo::String CollectorStatisticsEntry::mirraString() const {
   Kivo::String s;
   forEachTotal(*this, [&](char const*, char const* label, Kivo::String const& value) {
      s += (s.empty() ? "" : ", ") + Kivo::String(label) + ": " + value;
   });
   for (std::uint8_t i = 0; i < usedSlots(*this); ++i) {
      auto const& e = setEntryStorage[i];
      if (e.setId != 0) {
         s += ", set" + std::to_string(e.setId) +
              ": (flows: " + std::to_string(e.exportedFlowRecordCount) +
              ", templates: " + std::to_string(e.exportedTemplateCount) + ")";
      }
   }
   return s;
}

std::ostream& operator<<(std::ostream& os, CollectorStatisticsKey const& k) {
   return os << k.toString();
}

std::ostream& operator<<(std::ostream& os, CollectorStatisticsEntry const& e) {
   return os << e.toString();
}

// ---------------------------------------------------------------------------------------------
// The table

using Writer =
    ShmTableWriter<CollectorStatisticsKey, CollectorStatisticsEntry, CollectorStatisticsKeyHash>;
using Reader =
    ShmTableReader<CollectorStatisticsKey, CollectorStatisticsEntry, CollectorStatisticsKeyHash>;

struct CollectorStatistics::Table {
   Kivo::Ptr<Writer> writer;
};

CollectorStatistics::CollectorStatistics(Kivo::String const& name, std::size_t initialCapacity)
    : name_(name), table_(std::make_unique<Table>()) {
   table_->writer = Kivo::make<Writer>(name, static_cast<std::uint32_t>(initialCapacity));
}

CollectorStatistics::~CollectorStatistics() = default;

std::optional<CollectorStatisticsEntry> CollectorStatistics::stats(
    CollectorStatisticsKey const& key) const {
   std::optional<CollectorStatisticsEntry> e = table_->writer->get(key);
   if (e) {
      if (Kivo::String const error = e->validationError(); !error.empty()) {
         KTRACE(1, "collector statistics table " << name_ << ": damaged entry replaced: " << error);
         return std::nullopt;
      }
   }
   return e;
}

bool CollectorStatistics::statsIs(CollectorStatisticsEntry const& e) {
   return table_->writer->upsert(e.key, e);
}

CollectorStatisticsPlace::CollectorStatisticsPlace(CollectorStatisticsKey const& key) : key_(key) {
   place_.hash = CollectorStatisticsKeyHash()(key);
}

bool CollectorStatistics::modify_p(CollectorStatisticsPlace& place, EntryFn fn) {
   return table_->writer->modify(
       place.key_, place.place_, [&] { return CollectorStatisticsEntry(place.key_); },
       [&](CollectorStatisticsEntry& e) {
          if (Kivo::String const error = e.validationError(); !error.empty()) {
             KTRACE(1, "collector statistics table " << name_
                                                     << ": damaged entry replaced: " << error);
             e = CollectorStatisticsEntry(place.key_);
          }
          fn(e);
       });
}

bool CollectorStatistics::statsDel(CollectorStatisticsKey const& key) {
   return table_->writer->del(key);
}

void CollectorStatistics::statsDelAll() {
   table_->writer->delAll();
}

std::size_t CollectorStatistics::statsCount() const {
   return table_->writer->size();
}

void CollectorStatistics::forEachStats(
    std::function<void(CollectorStatisticsEntry const&)> const& fn) const {
   table_->writer->forEach(
       [&](CollectorStatisticsKey const&, CollectorStatisticsEntry const& e) { fn(e); });
}

struct CollectorStatisticsReader::Table {
   Kivo::Ptr<Reader> reader;
};

CollectorStatisticsReader::CollectorStatisticsReader(Kivo::String const& name,
                                                     std::optional<uid_t> writerUid)
    : name_(name), table_(std::make_unique<Table>()) {
   table_->reader = Kivo::make<Reader>(name, 1.0, CollectorStatisticsKeyHash(), writerUid);
}

CollectorStatisticsReader::~CollectorStatisticsReader() = default;

CollectorStatisticsEntry const& CollectorStatisticsReader::checked_p(
    CollectorStatisticsEntry const& e) const {
   if (Kivo::String const error = e.validationError(); !error.empty()) {
      throw Kivo::Exception("collector statistics table " + name_ + ": damaged entry: " + error);
   }
   return e;
}

std::optional<CollectorStatisticsEntry> CollectorStatisticsReader::stats(
    CollectorStatisticsKey const& key) {
   std::optional<CollectorStatisticsEntry> e = table_->reader->get(key);
   if (e && !(checked_p(*e).key == key)) {
      throw Kivo::Exception("collector statistics table " + name_ +
                            ": damaged entry: its key differs from the key of its slot");
   }
   return e;
}

std::vector<CollectorStatisticsEntry> CollectorStatisticsReader::allStats() {
   std::vector<CollectorStatisticsEntry> out;
   out.reserve(table_->reader->size());  // no more than the slots: the reader checks
   table_->reader->forEach([&](CollectorStatisticsKey const& k, CollectorStatisticsEntry const& e) {
      if (!(checked_p(e).key == k)) {
         throw Kivo::Exception("collector statistics table " + name_ +
                               ": damaged entry: its key differs from the key of its slot");
      }
      out.push_back(e);
   });
   return out;
}

std::optional<std::uint64_t> CollectorStatisticsReader::waitForChange(std::uint64_t generation,
                                                                      double timeoutSeconds) {
   return table_->reader->waitForChange(generation, timeoutSeconds);
}

std::uint64_t CollectorStatisticsReader::generation() {
   return table_->reader->generation();
}

}  // namespace Mirra::Ipfix
