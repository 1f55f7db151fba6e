#include "agent/ConfigLoader.h"

#include <fcntl.h>
#include <unistd.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>
#include <sstream>
#include <utility>

#include "Ipfix/Ipfix.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Pelto/IpfixWire.h"
#include "Trace/Dualog.h"
#include "Vrf/VrfIdMap.h"
#include "agent/Utf8.h"

namespace Agent {

namespace {

using FlowTracking::IntfIndexMap;

// Tracker, exporter and collector names: the collector statistics key holds the tracker and
// exporter names inline in at most this many octets.
constexpr std::size_t maxNameLen = 128;
constexpr std::size_t maxVrfNameLen = Vrf::VrfIdMap::VrfName::maxLength;
constexpr std::size_t maxStatisticsTableNameLen = 200;
// The VRF table always carries a fixed record under this VRF id.
constexpr std::uint32_t fixedVrfId = 0xFFFFFF;
// The flow tracker table carries both timeouts as 16-bit whole seconds, 65535 excluded.
constexpr std::uint64_t timeoutLimitMs = 65535ull * 1000;
constexpr std::uint64_t msPerSecond = 1000;
constexpr std::uint32_t maxMtu = 65535;

// The data templates of a tracker go out together in one message of at most 65535 octets.
constexpr std::uint32_t maxTemplateSetLen =
    65535 - Pelto::IpfixConst::messageHeaderLen() - Pelto::IpfixConst::setHeaderLen();

// Lengths of the options data records (the value octets of one data record).
constexpr std::uint32_t nameRecordLen(std::size_t nameLen) {  // interface and VRF tables
   return 4 + 1 + static_cast<std::uint32_t>(nameLen);
}
constexpr std::uint32_t trackerRecordLen(std::size_t nameLen) {
   return 21 + static_cast<std::uint32_t>(nameLen);
}
constexpr std::uint32_t flowKeyRecordLen = 10;

std::uint32_t templateRecordLen(TemplateConfig const& t) {
   std::uint32_t len = 4;  // template id and field count
   for (FieldConfig const& f : t.fields) {
      Ipfix::ElementRow const* row = Ipfix::elementRow(f.element);
      len += 4 + (row && row->enterprise ? 4 : 0);  // the enterprise number follows the specifier
   }
   return len;
}

// `s` for a message: double-quoted, unprintable octets escaped, very long text cut short.
std::string quoted(std::string_view s) {
   return Kivo::quotedForMessage(s, 60);
}

bool hasControlChar(std::string_view s) {
   return std::any_of(s.begin(), s.end(), [](char ch) {
      auto const c = static_cast<unsigned char>(ch);
      return c < 0x20 || c == 0x7f;
   });
}

std::string hex(std::uint32_t v) {
   char buf[16];
   std::snprintf(buf, sizeof(buf), "0x%X", v);
   return buf;
}

// A key of a mapping with its value. The value's position is where its problems are reported;
// an empty value has none of its own, so the key's is used (when the key was not in the file,
// whatever position the empty value has).
struct Field {
   YAML::Node key;
   YAML::Node value;

   YAML::Mark mark() const {
      bool const valueHasMark = value.IsDefined() && !value.Mark().is_null();
      if (valueHasMark && (!value.IsNull() || key.Mark().is_null())) {
         return value.Mark();
      }
      return key.Mark();
   }
};
using Fields = std::map<std::string, Field>;

// The record that needs the largest message, and what to call it in an error.
struct Largest {
   std::uint32_t len = 0;
   std::string what;

   void consider(std::uint32_t l, std::string w) {
      if (l > len) {
         len = l;
         what = std::move(w);
      }
   }
};

class Loader {
 public:
   explicit Loader(std::string file) : file_(std::move(file)) {}

   std::optional<AgentConfig> load(std::string_view text);
   std::vector<ConfigError> takeErrors() { return std::move(errors_); }

 private:
   void error_p(YAML::Mark const& m, std::string message);
   // Remembers `line` as where `key` was first given; for a repeat, reports "duplicate <what>
   // (first at line N)" at `m` and returns false.
   template <class K>
   bool firstOf_p(std::map<K, int>& firstLine, K const& key, int line, YAML::Mark const& m,
                  std::string const& what) {
      auto const [prev, fresh] = firstLine.emplace(key, line);
      if (!fresh) {
         error_p(m, "duplicate " + what + " (first at line " + std::to_string(prev->second) + ")");
      }
      return fresh;
   }

   // Structure.
   std::vector<Field> entries_p(YAML::Node const& node);
   std::optional<Fields> mapping_p(YAML::Node const& node, YAML::Mark const& where,
                                   std::string_view what,
                                   std::initializer_list<std::string_view> known);
   std::vector<YAML::Node> sequence_p(Field const& f);

   // Values.
   std::optional<std::string> scalar_p(Field const& f);
   std::optional<std::uint64_t> integer_p(Field const& f, std::uint64_t min, std::uint64_t max);
   std::optional<bool> boolean_p(Field const& f);
   std::optional<std::uint64_t> durationMs_p(Field const& f);
   std::optional<std::uint32_t> interval_p(Field const& f, std::uint64_t minMs,
                                           std::uint64_t limitMs, std::string_view limitText);
   Field const* required_p(Fields const& fields, std::string_view key, YAML::Mark const& where,
                           std::string_view what);
   bool checkName_p(Field const& f, std::string const& name, std::string_view what);
   bool checkVrfName_p(Field const& f, std::string const& name);

   // Sections.
   void loadRoot_p(Fields const& root, AgentConfig& config);
   void loadInterfaces_p(Field const& f, AgentConfig& config);
   void loadVrfs_p(Field const& f, AgentConfig& config);
   void loadTrackers_p(Field const& f, AgentConfig& config);
   std::optional<TrackerConfig> loadTracker_p(YAML::Node const& node);
   void loadTemplates_p(Field const& f, TrackerConfig& tracker);
   std::optional<TemplateConfig> loadTemplate_p(YAML::Node const& node);
   std::optional<FieldConfig> loadTemplateField_p(YAML::Node const& node);
   std::optional<ExporterConfig> loadExporter_p(YAML::Node const& node, Largest const& largest);
   void loadCollectors_p(Field const& f, ExporterConfig& exporter, Field const* source4,
                         Field const* source6);

   std::string file_;
   std::vector<ConfigError> errors_;
   Largest globalLargest_;  // of the tables every tracker exports: interfaces and VRFs
};

// Walks the documents of a YAML stream without building them, to find where the parser stops
// making progress: a flow indicator such as ',' where a document would begin is never consumed,
// and every further call returns one more empty document at the same place, so loading all the
// documents would never end. Each real document takes at least one token of the text.
class DocumentWalk : public YAML::EventHandler {
 public:
   // Where the parser is stuck, if it is. Throws YAML::Exception as the parser does.
   static std::optional<YAML::Mark> stuckAt(std::string const& text) {
      std::istringstream in(text);
      YAML::Parser parser(in);
      DocumentWalk walk;
      std::optional<YAML::Mark> previous;
      for (std::size_t docs = 0; parser.HandleNextDocument(walk); ++docs) {
         if ((previous && previous->pos == walk.start_.pos) || docs > text.size()) {
            return walk.start_;
         }
         previous = walk.start_;
      }
      return std::nullopt;
   }

   void OnDocumentStart(YAML::Mark const& mark) override { start_ = mark; }
   void OnDocumentEnd() override {}
   void OnNull(YAML::Mark const&, YAML::anchor_t) override {}
   void OnAlias(YAML::Mark const&, YAML::anchor_t) override {}
   void OnScalar(YAML::Mark const&, std::string const&, YAML::anchor_t,
                 std::string const&) override {}
   void OnSequenceStart(YAML::Mark const&, std::string const&, YAML::anchor_t,
                        YAML::EmitterStyle::value) override {}
   void OnSequenceEnd() override {}
   void OnMapStart(YAML::Mark const&, std::string const&, YAML::anchor_t,
                   YAML::EmitterStyle::value) override {}
   void OnMapEnd() override {}

 private:
   YAML::Mark start_;
};

void Loader::error_p(YAML::Mark const& m, std::string message) {
   bool const known = !m.is_null() && m.line >= 0;
   errors_.push_back(
       ConfigError{file_, known ? m.line + 1 : 0, known ? m.column + 1 : 0, std::move(message)});
}

// --- structure

// The entries of a mapping in file order; keys must be plain values and appear once.
std::vector<Field> Loader::entries_p(YAML::Node const& node) {
   std::vector<Field> out;
   std::map<std::string, YAML::Mark> seen;
   for (auto it = node.begin(); it != node.end(); ++it) {
      YAML::Node const key = it->first;
      if (!key.IsScalar()) {
         error_p(key.Mark(), "a key must be a plain name, not a list or mapping");
         continue;
      }
      auto const [prev, fresh] = seen.emplace(key.Scalar(), key.Mark());
      if (!fresh) {
         error_p(key.Mark(), "duplicate key " + quoted(key.Scalar()) + " (first at line " +
                                 std::to_string(prev->second.line + 1) + ")");
         continue;
      }
      out.push_back(Field{key, it->second});
   }
   return out;
}

std::optional<Fields> Loader::mapping_p(YAML::Node const& node, YAML::Mark const& where,
                                        std::string_view what,
                                        std::initializer_list<std::string_view> known) {
   if (!node.IsMap()) {
      error_p(where, std::string(what) + ": expected a mapping of keys to values");
      return std::nullopt;
   }
   Fields fields;
   for (Field& f : entries_p(node)) {
      std::string const& key = f.key.Scalar();
      if (std::find(known.begin(), known.end(), key) == known.end()) {
         std::string list;
         for (std::string_view k : known) {
            list += (list.empty() ? "" : ", ") + std::string(k);
         }
         error_p(f.key.Mark(),
                 std::string(what) + ": unknown key " + quoted(key) + " (known: " + list + ")");
         continue;
      }
      fields.emplace(key, std::move(f));
   }
   return fields;
}

// The items of a list; an empty value is an empty list.
std::vector<YAML::Node> Loader::sequence_p(Field const& f) {
   if (f.value.IsNull()) {
      return {};
   }
   if (!f.value.IsSequence()) {
      error_p(f.mark(), f.key.Scalar() + ": expected a list");
      return {};
   }
   return {f.value.begin(), f.value.end()};
}

Field const* Loader::required_p(Fields const& fields, std::string_view key, YAML::Mark const& where,
                                std::string_view what) {
   auto it = fields.find(std::string(key));
   if (it == fields.end()) {
      error_p(where, std::string(what) + ": missing key " + quoted(key));
      return nullptr;
   }
   return &it->second;
}

// --- values

std::optional<std::string> Loader::scalar_p(Field const& f) {
   std::string const& key = f.key.Scalar();
   if (f.value.IsNull()) {
      error_p(f.mark(), key + ": missing value");
      return std::nullopt;
   }
   if (!f.value.IsScalar()) {
      error_p(f.mark(), key + ": expected a single value, not a list or mapping");
      return std::nullopt;
   }
   // A YAML file is UTF-8 text. Other bytes would not survive being written out again (the
   // effective configuration, replies, JSON), so a value holding them is refused here, once for
   // every field.
   if (!isUtf8(f.value.Scalar())) {
      error_p(f.mark(), key + ": value is not UTF-8 text");
      return std::nullopt;
   }
   return f.value.Scalar();
}

// A decimal number of digits only, within [min, max].
std::optional<std::uint64_t> Loader::integer_p(Field const& f, std::uint64_t min,
                                               std::uint64_t max) {
   auto const text = scalar_p(f);
   if (!text) {
      return std::nullopt;
   }
   std::string const& key = f.key.Scalar();
   std::uint64_t v = 0;
   auto const end = text->data() + text->size();
   auto const [ptr, ec] = std::from_chars(text->data(), end, v);
   bool const digitsOnly = !text->empty() && std::all_of(text->begin(), text->end(), [](char c) {
      return c >= '0' && c <= '9';
   });
   if (!digitsOnly || ptr != end) {
      error_p(f.mark(), key + ": " + quoted(*text) + " is not a whole decimal number");
      return std::nullopt;
   }
   if (ec != std::errc() || v < min || v > max) {
      error_p(f.mark(), key + ": " + *text + " is out of range (" + std::to_string(min) + " to " +
                            std::to_string(max) + ")");
      return std::nullopt;
   }
   return v;
}

std::optional<bool> Loader::boolean_p(Field const& f) {
   auto const text = scalar_p(f);
   if (!text) {
      return std::nullopt;
   }
   if (*text == "true") {
      return true;
   }
   if (*text == "false") {
      return false;
   }
   error_p(f.mark(), f.key.Scalar() + ": " + quoted(*text) + " is not true or false");
   return std::nullopt;
}

// A whole number with a unit (ms, s, m, h), in milliseconds.
std::optional<std::uint64_t> Loader::durationMs_p(Field const& f) {
   auto const text = scalar_p(f);
   if (!text) {
      return std::nullopt;
   }
   std::string const& key = f.key.Scalar();
   std::string_view const all(*text);
   std::string_view const digits =
       all.substr(0, std::min(all.find_first_not_of("0123456789"), all.size()));
   std::string_view const unit = all.substr(digits.size());
   if (digits.empty()) {
      error_p(f.mark(), key + ": " + quoted(*text) +
                            " is not a duration (a whole number and a unit: ms, s, m or h)");
      return std::nullopt;
   }
   std::uint64_t perUnit = 0;
   if (unit == "ms") {
      perUnit = 1;
   } else if (unit == "s") {
      perUnit = msPerSecond;
   } else if (unit == "m") {
      perUnit = 60 * msPerSecond;
   } else if (unit == "h") {
      perUnit = 3600 * msPerSecond;
   } else if (unit.empty()) {
      error_p(f.mark(), key + ": " + *text + " needs a unit (ms, s, m or h)");
      return std::nullopt;
   } else {
      error_p(f.mark(), key + ": unknown unit " + quoted(unit) + " (ms, s, m or h)");
      return std::nullopt;
   }
   std::uint64_t n = 0;
   auto const [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
   if (ec != std::errc() || n > std::numeric_limits<std::uint64_t>::max() / perUnit) {
      error_p(f.mark(), key + ": " + *text + " is too long");
      return std::nullopt;
   }
   return n * perUnit;
}

// A duration in whole seconds, at least `minMs` and under `limitMs`, in milliseconds. The
// component uses these intervals in whole seconds, so fractions are refused rather than dropped.
std::optional<std::uint32_t> Loader::interval_p(Field const& f, std::uint64_t minMs,
                                                std::uint64_t limitMs, std::string_view limitText) {
   auto const ms = durationMs_p(f);
   if (!ms) {
      return std::nullopt;
   }
   std::string const& key = f.key.Scalar();
   if (*ms < minMs) {
      error_p(f.mark(), key + ": " + f.value.Scalar() + " is under the minimum of " +
                            std::to_string(minMs / msPerSecond) + "s");
      return std::nullopt;
   }
   if (*ms >= limitMs) {
      error_p(f.mark(),
              key + ": " + f.value.Scalar() + " is too long (" + std::string(limitText) + ")");
      return std::nullopt;
   }
   if (*ms % msPerSecond != 0) {
      error_p(f.mark(), key + ": " + f.value.Scalar() + " is not a whole number of seconds");
      return std::nullopt;
   }
   return static_cast<std::uint32_t>(*ms);
}

bool Loader::checkName_p(Field const& f, std::string const& name, std::string_view what) {
   std::string const w(what);
   if (name.empty()) {
      error_p(f.mark(), w + " name is empty");
      return false;
   }
   if (name.size() > maxNameLen) {
      error_p(f.mark(), w + " name " + quoted(name) + " is " + std::to_string(name.size()) +
                            " octets long, over the limit of " + std::to_string(maxNameLen));
      return false;
   }
   if (hasControlChar(name)) {
      error_p(f.mark(), w + " name " + quoted(name) + " contains a control character");
      return false;
   }
   return true;
}

// A VRF name becomes part of a network namespace name ("ns-" + name), so it must make a file
// name.
bool Loader::checkVrfName_p(Field const& f, std::string const& name) {
   std::string reason;
   if (name.size() > maxVrfNameLen) {
      reason = "is " + std::to_string(name.size()) + " octets long, over the limit of " +
               std::to_string(maxVrfNameLen);
   } else if (name.find('/') != std::string::npos) {
      reason = "contains \"/\"";
   } else if (name == "." || name == "..") {
      reason = "is not allowed";
   } else if (hasControlChar(name)) {
      reason = "contains a control character";
   } else {
      return true;
   }
   error_p(f.mark(), "VRF name " + quoted(name) + " " + reason);
   return false;
}

// --- sections

std::optional<AgentConfig> Loader::load(std::string_view text) {
   std::vector<YAML::Node> docs;
   try {
      std::string const all(text);
      if (auto const stuck = DocumentWalk::stuckAt(all)) {
         std::size_t const at =
             std::min(static_cast<std::size_t>(std::max(stuck->pos, 0)), all.size());
         error_p(*stuck,
                 "unexpected " + quoted(all.substr(at, 1)) + " where a YAML document should begin");
         return std::nullopt;
      }
      docs = YAML::LoadAll(all);
   } catch (YAML::Exception const& e) {
      error_p(e.mark, e.msg);
      return std::nullopt;
   }
   if (docs.empty() || docs.front().IsNull()) {
      error_p(YAML::Mark(), "no configuration: the file must hold a mapping of keys to values");
      return std::nullopt;
   }
   // Empty documents after the first (a trailing "---") say nothing.
   auto const second =
       std::find_if(docs.begin() + 1, docs.end(), [](YAML::Node const& d) { return !d.IsNull(); });
   if (second != docs.end()) {
      error_p(second->Mark(), "a second YAML document; the file must hold exactly one");
   }
   YAML::Node const& rootNode = docs.front();
   auto const root = mapping_p(
       rootNode, rootNode.Mark(), "configuration",
       {"type", "sample-rate", "statistics-table", "trace", "interfaces", "vrfs", "trackers"});
   if (!root) {
      return std::nullopt;
   }
   AgentConfig config;
   try {
      loadRoot_p(*root, config);
   } catch (YAML::Exception const& e) {
      // Not expected: every node is looked at only after its kind was checked.
      error_p(e.mark, e.msg);
   }
   if (!errors_.empty()) {
      return std::nullopt;
   }
   return config;
}

void Loader::loadRoot_p(Fields const& root, AgentConfig& config) {
   if (auto it = root.find("type"); it != root.end()) {
      if (auto const v = scalar_p(it->second)) {
         if (*v == "sampled") {
            config.type = FlowTracking::FlowTrackingType::sampled;
         } else if (*v == "hardware") {
            config.type = FlowTracking::FlowTrackingType::hardware;
         } else {
            error_p(it->second.mark(), "type: " + quoted(*v) + " is not sampled or hardware");
         }
      }
   }
   if (auto it = root.find("sample-rate"); it != root.end()) {
      if (auto const v = integer_p(it->second, 0, Kivo::maxU32())) {
         config.sampleRate = static_cast<std::uint32_t>(*v);
      }
   }
   if (auto it = root.find("statistics-table"); it != root.end()) {
      if (auto const v = scalar_p(it->second)) {
         std::string_view const rest = std::string_view(*v).substr(v->empty() ? 0 : 1);
         bool const charsOk = std::all_of(rest.begin(), rest.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                   c == '.' || c == '_' || c == '-';
         });
         if (v->empty() || v->front() != '/' || rest.empty() ||
             rest.size() > maxStatisticsTableNameLen || !charsOk || rest == "." || rest == "..") {
            error_p(it->second.mark(),
                    "statistics-table: " + quoted(*v) +
                        " is not a shared-memory name (\"/\" and then 1 to 200 of A-Z a-z 0-9 . _ "
                        "-, not \".\" or \"..\")");
         } else {
            config.statisticsTable = *v;
         }
      }
   }
   if (auto it = root.find("trace"); it != root.end()) {
      if (auto const v = scalar_p(it->second)) {
         if (!Dualog::validSpec(*v)) {
            error_p(it->second.mark(),
                    "trace: " + quoted(*v) +
                        " is not a list of FACILITY or FACILITY/LEVEL (level 0 to 9, \"*\" for "
                        "every facility) separated by commas");
         } else {
            config.trace = *v;
         }
      }
   }

   // The reserved interface records are always in the interface table, and the fixed VRF record
   // in the VRF table.
   for (std::string_view name : {IntfIndexMap::multicastIntfName(), IntfIndexMap::discardIntfName(),
                                 IntfIndexMap::cpuIntfName(), IntfIndexMap::unknownIntfName()}) {
      globalLargest_.consider(nameRecordLen(name.size()),
                              "the interface table record of " + quoted(name));
   }
   globalLargest_.consider(nameRecordLen(0), "the fixed VRF table record");
   if (auto it = root.find("interfaces"); it != root.end()) {
      loadInterfaces_p(it->second, config);
   }
   if (auto it = root.find("vrfs"); it != root.end()) {
      loadVrfs_p(it->second, config);
   }
   if (auto it = root.find("trackers"); it != root.end()) {
      loadTrackers_p(it->second, config);
   }
}

void Loader::loadInterfaces_p(Field const& f, AgentConfig& config) {
   if (f.value.IsScalar()) {
      if (f.value.Scalar() != "kernel") {
         error_p(f.mark(), "interfaces: expected \"kernel\" or a list of interfaces, not " +
                               quoted(f.value.Scalar()));
         return;
      }
      config.interfacesFromKernel = true;
      globalLargest_.consider(nameRecordLen(Pelto::IntfId::maxNameLen),
                              "the interface table record of a " +
                                  std::to_string(Pelto::IntfId::maxNameLen) +
                                  "-octet kernel interface name");
      return;
   }
   std::map<std::uint32_t, int> indexLine;  // for duplicates: the line of the first use
   std::map<std::string, int> nameLine;
   for (YAML::Node const& item : sequence_p(f)) {
      auto const fields = mapping_p(item, item.Mark(), "interface", {"name", "index"});
      if (!fields) {
         continue;
      }
      Field const* nameField = required_p(*fields, "name", item.Mark(), "interface");
      Field const* indexField = required_p(*fields, "index", item.Mark(), "interface");
      std::optional<std::string> name = nameField ? scalar_p(*nameField) : std::nullopt;
      if (name && !Pelto::IntfId::validName(*name)) {
         error_p(nameField->mark(), "interface name " + quoted(*name) + " is not valid (1 to " +
                                        std::to_string(Pelto::IntfId::maxNameLen) +
                                        " octets, no blanks or control characters)");
         name.reset();
      }
      if (name && !firstOf_p(nameLine, *name, nameField->mark().line + 1, nameField->mark(),
                             "interface name " + quoted(*name))) {
         name.reset();
      }
      std::uint32_t i = 0;
      bool indexOk = false;
      if (auto const v = indexField ? integer_p(*indexField, 0, Kivo::maxU32()) : std::nullopt) {
         i = static_cast<std::uint32_t>(*v);
         indexOk = true;
      }
      if (indexOk) {
         std::string_view reservedFor;
         if (i == IntfIndexMap::multicastIntfIndex()) {
            reservedFor = IntfIndexMap::multicastIntfName();
         } else if (i == IntfIndexMap::discardIntfIndex()) {
            reservedFor = IntfIndexMap::discardIntfName();
         } else if (i == IntfIndexMap::cpuIntfIndex()) {
            reservedFor = IntfIndexMap::cpuIntfName();
         } else if (i == IntfIndexMap::unknownIntfIndex()) {
            reservedFor = IntfIndexMap::unknownIntfName();
         }
         if (!reservedFor.empty()) {
            error_p(indexField->mark(), "interface index " + hex(i) + " is reserved for the " +
                                            quoted(reservedFor) + " interface");
            indexOk = false;
         } else if (!firstOf_p(indexLine, i, indexField->mark().line + 1, indexField->mark(),
                               "interface index " + std::to_string(i))) {
            indexOk = false;
         }
      }
      if (name && indexOk) {
         config.interfaces.emplace(*name, i);
         globalLargest_.consider(nameRecordLen(name->size()),
                                 "the interface table record of " + quoted(*name));
      }
   }
}

void Loader::loadVrfs_p(Field const& f, AgentConfig& config) {
   std::map<std::uint32_t, int> idLine;
   std::map<std::string, int> nameLine;
   for (YAML::Node const& item : sequence_p(f)) {
      auto const fields = mapping_p(item, item.Mark(), "VRF", {"name", "id"});
      if (!fields) {
         continue;
      }
      Field const* nameField = required_p(*fields, "name", item.Mark(), "VRF");
      Field const* idField = required_p(*fields, "id", item.Mark(), "VRF");
      std::optional<std::string> name = nameField ? scalar_p(*nameField) : std::nullopt;
      if (name && name->empty()) {
         error_p(nameField->mark(), "VRF name is empty");
         name.reset();
      } else if (name && !checkVrfName_p(*nameField, *name)) {
         name.reset();
      } else if (name && !firstOf_p(nameLine, *name, nameField->mark().line + 1, nameField->mark(),
                                    "VRF name " + quoted(*name))) {
         name.reset();
      }
      std::uint32_t id = 0;
      bool idOk = false;
      if (auto const v = idField ? integer_p(*idField, 0, Kivo::maxU32()) : std::nullopt) {
         id = static_cast<std::uint32_t>(*v);
         idOk = true;
      }
      if (idOk && id == fixedVrfId) {
         error_p(idField->mark(), "VRF id " + hex(fixedVrfId) +
                                      " is reserved for the fixed record of the VRF table");
         idOk = false;
      } else if (idOk && !firstOf_p(idLine, id, idField->mark().line + 1, idField->mark(),
                                    "VRF id " + std::to_string(id))) {
         idOk = false;
      }
      if (name && idOk) {
         config.vrfs.emplace(id, *name);
         globalLargest_.consider(nameRecordLen(name->size()),
                                 "the VRF table record of " + quoted(*name));
      }
   }
}

void Loader::loadTrackers_p(Field const& f, AgentConfig& config) {
   std::map<FlowTracking::FtId, int> idLine;
   std::map<std::string, int> nameLine;
   for (YAML::Node const& item : sequence_p(f)) {
      auto tracker = loadTracker_p(item);
      if (!tracker) {
         continue;
      }
      int const line = item.Mark().line + 1;
      if (!firstOf_p(nameLine, tracker->name, line, item["name"].Mark(),
                     "tracker name " + quoted(tracker->name))) {
         continue;
      }
      if (auto const [prev, fresh] = idLine.emplace(tracker->id, line); !fresh) {
         error_p(item["id"].Mark(), "tracker id " + std::to_string(tracker->id) +
                                        " is already the id of the tracker at line " +
                                        std::to_string(prev->second) +
                                        " (ids are observation domain ids, unique per agent)");
         continue;
      }
      config.trackers.emplace(tracker->name, std::move(*tracker));
   }
}

std::optional<TrackerConfig> Loader::loadTracker_p(YAML::Node const& node) {
   auto const fields = mapping_p(node, node.Mark(), "tracker",
                                 {"name", "id", "active-interval", "inactive-timeout",
                                  "software-export", "templates", "exporters"});
   if (!fields) {
      return std::nullopt;
   }
   std::size_t const errorsBefore = errors_.size();
   TrackerConfig tracker;
   if (Field const* f = required_p(*fields, "name", node.Mark(), "tracker")) {
      if (auto const v = scalar_p(*f); v && checkName_p(*f, *v, "tracker")) {
         tracker.name = *v;
      }
   }
   // The observation domain id 0 stands for "no particular domain" in IPFIX.
   if (Field const* f = required_p(*fields, "id", node.Mark(), "tracker")) {
      if (auto const v = integer_p(*f, 1, Kivo::maxU32())) {
         tracker.id = static_cast<FlowTracking::FtId>(*v);
      }
   }
   std::string const timeoutLimit = "it must be under 65535s";
   if (auto it = fields->find("active-interval"); it != fields->end()) {
      if (auto const v = interval_p(it->second, msPerSecond, timeoutLimitMs, timeoutLimit)) {
         tracker.activeIntervalMs = *v;
      }
   }
   if (auto it = fields->find("inactive-timeout"); it != fields->end()) {
      if (auto const v = interval_p(it->second, msPerSecond, timeoutLimitMs, timeoutLimit)) {
         tracker.inactiveTimeoutMs = *v;
      }
   }
   if (auto it = fields->find("software-export"); it != fields->end()) {
      if (auto const v = boolean_p(it->second)) {
         tracker.softwareExport = *v;
      }
   }
   if (auto it = fields->find("templates"); it != fields->end()) {
      loadTemplates_p(it->second, tracker);
   }
   if (auto it = fields->find("exporters"); it != fields->end()) {
      // What the tracker's exporters send: the global tables and the tracker's own.
      Largest largest = globalLargest_;
      if (!tracker.name.empty()) {
         largest.consider(trackerRecordLen(tracker.name.size()),
                          "the flow tracker table record of " + quoted(tracker.name));
      }
      if (!tracker.templates.empty()) {
         largest.consider(flowKeyRecordLen, "a flow key record");
      }
      for (auto const& [id, t] : tracker.templates) {
         largest.consider(templateRecordLen(t),
                          "the template record of data template " + std::to_string(id));
      }
      std::map<std::string, int> nameLine;
      for (YAML::Node const& item : sequence_p(it->second)) {
         auto exporter = loadExporter_p(item, largest);
         if (!exporter) {
            continue;
         }
         if (!firstOf_p(nameLine, exporter->name, item.Mark().line + 1, item["name"].Mark(),
                        "exporter name " + quoted(exporter->name) + " in this tracker")) {
            continue;
         }
         tracker.exporters.emplace(exporter->name, std::move(*exporter));
      }
   }
   if (errors_.size() != errorsBefore) {
      return std::nullopt;
   }
   return tracker;
}

void Loader::loadTemplates_p(Field const& f, TrackerConfig& tracker) {
   std::map<std::uint16_t, int> idLine;
   std::uint32_t setLen = 0;
   for (YAML::Node const& item : sequence_p(f)) {
      auto t = loadTemplate_p(item);
      if (!t) {
         continue;
      }
      std::uint16_t const id = t->id.value();
      if (!firstOf_p(idLine, id, item.Mark().line + 1, item["id"].Mark(),
                     "template id " + std::to_string(id) + " in this tracker")) {
         continue;
      }
      setLen += templateRecordLen(*t);
      tracker.templates.emplace(id, std::move(*t));
   }
   if (setLen > maxTemplateSetLen) {
      error_p(f.mark(), "templates: together they take " + std::to_string(setLen) +
                            " octets, over the " + std::to_string(maxTemplateSetLen) +
                            " that one template message can carry");
   }
}

std::optional<TemplateConfig> Loader::loadTemplate_p(YAML::Node const& node) {
   auto const fields = mapping_p(node, node.Mark(), "template", {"id", "in-use", "fields"});
   if (!fields) {
      return std::nullopt;
   }
   std::size_t const errorsBefore = errors_.size();
   TemplateConfig t;
   if (Field const* f = required_p(*fields, "id", node.Mark(), "template")) {
      auto const first = FlowTracking::Constants::firstDynamicTemplateId().value();
      if (auto const text = scalar_p(*f)) {
         std::uint64_t v = 0;
         auto const [ptr, ec] = std::from_chars(text->data(), text->data() + text->size(), v);
         if (ec == std::errc() && ptr == text->data() + text->size() && v < first) {
            error_p(f->mark(), "id: template id " + *text + " is below " + std::to_string(first) +
                                   ", the first id for data templates (the ones below are "
                                   "reserved for sets and options templates)");
         } else if (auto const id = integer_p(*f, first, Kivo::maxU16())) {
            t.id = FlowTracking::TemplateId(static_cast<std::uint16_t>(*id));
         }
      }
   }
   if (auto it = fields->find("in-use"); it != fields->end()) {
      if (auto const v = boolean_p(it->second)) {
         t.inUse = *v;
      }
   }
   if (Field const* f = required_p(*fields, "fields", node.Mark(), "template")) {
      auto const items = sequence_p(*f);
      if (items.empty() && (f->value.IsNull() || f->value.IsSequence())) {
         error_p(f->mark(), "fields: a template needs at least one field");
      }
      for (YAML::Node const& item : items) {
         if (auto field = loadTemplateField_p(item)) {
            t.fields.push_back(*field);
         }
      }
   }
   if (errors_.size() != errorsBefore) {
      return std::nullopt;
   }
   return t;
}

// `name` or `{element: name, key: true}`; a name of the element table, or its id.
std::optional<FieldConfig> Loader::loadTemplateField_p(YAML::Node const& node) {
   FieldConfig out;
   // Points at the element's field, never assigned one: assigning a YAML::Node merges the whole
   // document's node memory into it, which made a large file (100000 interfaces and a few
   // trackers) take seconds to load.
   Field const alone{YAML::Node("element"), node};
   Field const* element = &alone;
   std::optional<Fields> fields;
   if (node.IsMap()) {
      fields = mapping_p(node, node.Mark(), "field", {"element", "key"});
      if (!fields) {
         return std::nullopt;
      }
      Field const* f = required_p(*fields, "element", node.Mark(), "field");
      if (!f) {
         return std::nullopt;
      }
      element = f;
      if (auto it = fields->find("key"); it != fields->end()) {
         auto const v = boolean_p(it->second);
         if (!v) {
            return std::nullopt;
         }
         out.flowKey = *v;
      }
   }
   auto const text = scalar_p(*element);
   if (!text) {
      return std::nullopt;
   }
   auto const id = Ipfix::recordTypeFromString(*text);
   if (!id) {
      error_p(element->mark(), "unknown information element " + quoted(*text));
      return std::nullopt;
   }
   if (!Ipfix::elementRow(*id)) {
      // The element table gives every field its length; an id outside it has none.
      error_p(element->mark(), "information element " + *text + " is not in the element table");
      return std::nullopt;
   }
   out.element = *id;
   return out;
}

std::optional<ExporterConfig> Loader::loadExporter_p(YAML::Node const& node,
                                                     Largest const& largest) {
   auto const fields = mapping_p(node, node.Mark(), "exporter",
                                 {"name", "vrf", "source-ipv4", "source-ipv6", "dscp",
                                  "template-interval", "mtu", "collectors"});
   if (!fields) {
      return std::nullopt;
   }
   std::size_t const errorsBefore = errors_.size();
   ExporterConfig e;
   if (Field const* f = required_p(*fields, "name", node.Mark(), "exporter")) {
      if (auto const v = scalar_p(*f); v && checkName_p(*f, *v, "exporter")) {
         e.name = *v;
      }
   }
   if (auto it = fields->find("vrf"); it != fields->end()) {
      // An empty value is the default VRF, as "" is.
      if (it->second.value.IsNull()) {
         e.vrf.clear();
      } else if (auto const v = scalar_p(it->second); v && checkVrfName_p(it->second, *v)) {
         e.vrf = *v;
      }
   }
   Field const* source4 = nullptr;
   Field const* source6 = nullptr;
   if (auto it = fields->find("source-ipv4"); it != fields->end()) {
      source4 = &it->second;
      if (auto const v = scalar_p(it->second)) {
         auto const a = Pelto::IpAddr::parse(*v);
         if (!a) {
            error_p(it->second.mark(), "source-ipv4: " + quoted(*v) + " is not an IPv4 address");
         } else if (a->isZero()) {
            error_p(it->second.mark(), "source-ipv4: " + *v + " cannot be a source address");
         } else {
            e.source4 = *a;
         }
      }
   }
   if (auto it = fields->find("source-ipv6"); it != fields->end()) {
      source6 = &it->second;
      if (auto const v = scalar_p(it->second)) {
         auto const a = Pelto::Ip6Addr::parse(*v);
         if (!a) {
            error_p(it->second.mark(), "source-ipv6: " + quoted(*v) + " is not an IPv6 address");
         } else if (a->isZero()) {
            error_p(it->second.mark(), "source-ipv6: " + *v + " cannot be a source address");
         } else {
            e.source6 = *a;
         }
      }
   }
   if (!source4 && !source6) {
      error_p(node.Mark(), "exporter: no source address (set source-ipv4, source-ipv6 or both)");
   }
   if (auto it = fields->find("dscp"); it != fields->end()) {
      if (auto const v = integer_p(it->second, 0, Pelto::DscpValue::maxValue)) {
         e.dscp = static_cast<std::uint8_t>(*v);
      }
   }
   if (auto it = fields->find("template-interval"); it != fields->end()) {
      // Kept in 32-bit milliseconds.
      if (auto const v = interval_p(it->second, msPerSecond, std::uint64_t{Kivo::maxU32()} + 1,
                                    "it must be under 4294967296ms")) {
         e.templateIntervalMs = *v;
      }
   }
   auto const mtuIt = fields->find("mtu");
   if (mtuIt != fields->end()) {
      // The lower bound depends on what the tracker exports; checked below.
      if (auto const v = integer_p(mtuIt->second, 1, maxMtu)) {
         e.mtu = static_cast<std::uint32_t>(*v);
      } else {
         e.mtu = 0;
      }
   }
   // Each record must fit an otherwise empty message of at most MTU - 48 octets.
   std::uint32_t const minMtu = FlowTracking::minIpfixMtuForRecord(largest.len);
   if (e.mtu != 0 && e.mtu < minMtu) {
      std::string const mtuText =
          (mtuIt == fields->end() ? "the default mtu " : "mtu ") + std::to_string(e.mtu);
      error_p(mtuIt == fields->end() ? node.Mark() : mtuIt->second.mark(),
              mtuText + " is too small for " + largest.what + " (" + std::to_string(largest.len) +
                  " octets): it needs at least " + std::to_string(minMtu) + " (" +
                  std::to_string(FlowTracking::ipAndUdpHeaderLen()) +
                  " octets of IP and UDP headers, the 16-octet message header and a 4-octet "
                  "set header around the record)");
   }
   if (auto it = fields->find("collectors"); it != fields->end()) {
      loadCollectors_p(it->second, e, source4, source6);
   }
   if (errors_.size() != errorsBefore) {
      return std::nullopt;
   }
   return e;
}

void Loader::loadCollectors_p(Field const& f, ExporterConfig& exporter, Field const* source4,
                              Field const* source6) {
   if (f.value.IsNull()) {
      return;
   }
   if (!f.value.IsMap()) {
      error_p(f.mark(), "collectors: expected a mapping of collector names to addresses");
      return;
   }
   std::map<CollectorAddress, std::string> byAddress;
   for (Field const& c : entries_p(f.value)) {
      std::string const& name = c.key.Scalar();
      if (!checkName_p(Field{c.key, c.key}, name, "collector")) {
         continue;
      }
      auto const text = scalar_p(c);
      if (!text) {
         continue;
      }
      CollectorAddress address;
      bool six = !text->empty() && text->front() == '[';
      try {
         if (six) {
            address = Pelto::Ip6AndPort::fromString(*text);
         } else {
            address = Pelto::IpAndPort::fromString(*text);
         }
      } catch (Kivo::Exception const& e) {
         error_p(c.mark(), name + ": " + e.what());
         continue;
      }
      auto const [zeroAddress, port] = std::visit(
          [](auto const& a) { return std::pair(a.ipAddr().isZero(), a.port()); }, address);
      if (port == 0) {
         error_p(c.mark(), name + ": port 0 is not allowed (1 to 65535)");
         continue;
      }
      if (zeroAddress) {
         error_p(c.mark(), name + ": " + *text + " has no collector address");
         continue;
      }
      if (six ? !source6 : !source4) {
         error_p(c.mark(), name + ": an IPv" + (six ? "6" : "4") +
                               " collector needs the exporter's source-ipv" + (six ? "6" : "4"));
         continue;
      }
      if (auto const [prev, fresh] = byAddress.emplace(address, name); !fresh) {
         error_p(c.mark(), name + ": same address and port as collector " + quoted(prev->second));
         continue;
      }
      exporter.collectors.emplace(name, address);
   }
}

// --- effective configuration

std::string durationText(std::uint32_t ms) {
   return ms % msPerSecond == 0 ? std::to_string(ms / msPerSecond) + "s"
                                : std::to_string(ms) + "ms";
}

}  // namespace

std::string ConfigError::toString() const {
   if (line == 0) {
      return file + ": " + message;
   }
   return file + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + message;
}

LoadResult loadConfigText(std::string_view text, std::string const& fileName) {
   Loader loader(fileName);
   LoadResult result;
   result.config = loader.load(text);
   result.errors = loader.takeErrors();
   std::stable_sort(result.errors.begin(), result.errors.end(),
                    [](ConfigError const& a, ConfigError const& b) {
                       return std::pair(a.line, a.column) < std::pair(b.line, b.column);
                    });
   return result;
}

LoadResult loadConfigFile(std::string const& path) {
   std::string text;
   int error = 0;
   int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      error = errno;
   } else {
      char buf[65536];
      for (;;) {
         ssize_t const n = ::read(fd, buf, sizeof(buf));
         if (n > 0) {
            text.append(buf, static_cast<std::size_t>(n));
         } else if (n == 0) {
            break;
         } else if (errno != EINTR) {
            error = errno;
            break;
         }
      }
      ::close(fd);
   }
   if (error != 0) {
      LoadResult result;
      result.errors.push_back(
          ConfigError{path, 0, 0, std::string("cannot read the file: ") + std::strerror(error)});
      return result;
   }
   return loadConfigText(text, path);
}

std::string effectiveConfigText(AgentConfig const& config) {
   YAML::Emitter out;
   out << YAML::BeginMap;
   out << YAML::Key << "type" << YAML::Value
       << (config.type == FlowTracking::FlowTrackingType::hardware ? "hardware" : "sampled");
   out << YAML::Key << "sample-rate" << YAML::Value << config.sampleRate;
   out << YAML::Key << "statistics-table" << YAML::Value << config.statisticsTable;
   out << YAML::Key << "trace" << YAML::Value << YAML::DoubleQuoted << config.trace;

   out << YAML::Key << "interfaces" << YAML::Value;
   if (config.interfacesFromKernel) {
      out << "kernel";
   } else {
      if (config.interfaces.empty()) {
         out << YAML::Flow;
      }
      out << YAML::BeginSeq;
      for (auto const& [name, index] : config.interfaces) {
         out << YAML::Flow << YAML::BeginMap << YAML::Key << "name" << YAML::Value << name
             << YAML::Key << "index" << YAML::Value << index << YAML::EndMap;
      }
      out << YAML::EndSeq;
   }

   out << YAML::Key << "vrfs" << YAML::Value;
   if (config.vrfs.empty()) {
      out << YAML::Flow;
   }
   out << YAML::BeginSeq;
   for (auto const& [id, name] : config.vrfs) {
      out << YAML::Flow << YAML::BeginMap << YAML::Key << "name" << YAML::Value << name << YAML::Key
          << "id" << YAML::Value << id << YAML::EndMap;
   }
   out << YAML::EndSeq;

   out << YAML::Key << "trackers" << YAML::Value;
   if (config.trackers.empty()) {
      out << YAML::Flow;
   }
   out << YAML::BeginSeq;
   for (auto const& [name, t] : config.trackers) {
      out << YAML::BeginMap;
      out << YAML::Key << "name" << YAML::Value << name;
      out << YAML::Key << "id" << YAML::Value << t.id;
      out << YAML::Key << "active-interval" << YAML::Value << durationText(t.activeIntervalMs);
      out << YAML::Key << "inactive-timeout" << YAML::Value << durationText(t.inactiveTimeoutMs);
      out << YAML::Key << "software-export" << YAML::Value << (t.softwareExport ? "true" : "false");
      out << YAML::Key << "templates" << YAML::Value;
      if (t.templates.empty()) {
         out << YAML::Flow;
      }
      out << YAML::BeginSeq;
      for (auto const& [id, tmpl] : t.templates) {
         out << YAML::BeginMap;
         out << YAML::Key << "id" << YAML::Value << id;
         out << YAML::Key << "in-use" << YAML::Value << (tmpl.inUse ? "true" : "false");
         out << YAML::Key << "fields" << YAML::Value << YAML::BeginSeq;
         for (FieldConfig const& f : tmpl.fields) {
            out << YAML::Flow << YAML::BeginMap << YAML::Key << "element" << YAML::Value
                << Ipfix::valueToStrep(f.element) << YAML::Key << "key" << YAML::Value
                << (f.flowKey ? "true" : "false") << YAML::EndMap;
         }
         out << YAML::EndSeq << YAML::EndMap;
      }
      out << YAML::EndSeq;
      out << YAML::Key << "exporters" << YAML::Value;
      if (t.exporters.empty()) {
         out << YAML::Flow;
      }
      out << YAML::BeginSeq;
      for (auto const& [expName, e] : t.exporters) {
         out << YAML::BeginMap;
         out << YAML::Key << "name" << YAML::Value << expName;
         out << YAML::Key << "vrf" << YAML::Value << YAML::DoubleQuoted << e.vrf;
         if (e.source4) {
            out << YAML::Key << "source-ipv4" << YAML::Value << e.source4->toString();
         }
         if (e.source6) {
            out << YAML::Key << "source-ipv6" << YAML::Value << YAML::DoubleQuoted
                << e.source6->toString();
         }
         out << YAML::Key << "dscp" << YAML::Value << static_cast<unsigned>(e.dscp);
         out << YAML::Key << "template-interval" << YAML::Value
             << durationText(e.templateIntervalMs);
         out << YAML::Key << "mtu" << YAML::Value << e.mtu;
         out << YAML::Key << "collectors" << YAML::Value;
         if (e.collectors.empty()) {
            out << YAML::Flow;
         }
         out << YAML::BeginMap;
         for (auto const& [collName, address] : e.collectors) {
            out << YAML::Key << collName << YAML::Value << YAML::DoubleQuoted
                << std::visit([](auto const& a) { return a.toString(); }, address);
         }
         out << YAML::EndMap << YAML::EndMap;
      }
      out << YAML::EndSeq << YAML::EndMap;
   }
   out << YAML::EndSeq << YAML::EndMap;
   return std::string(out.c_str()) + "\n";
}

}  // namespace Agent
