#include "Trace/Dualog.h"

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Kivo/Kivo.h"

namespace Dualog {

namespace {

struct Registry {
   std::mutex mutex;
   std::map<std::string, std::unique_ptr<Facility>, std::less<>> facilities;
   int allLevel = off();
   Sink sink;
};

Registry& registry() {
   static Registry* r = new Registry();
   return *r;
}

}  // namespace

Facility& facility(std::string_view name) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   auto it = r.facilities.find(name);
   if (it == r.facilities.end()) {
      auto f = std::make_unique<Facility>(std::string(name));
      f->levelIs(r.allLevel);
      it = r.facilities.emplace(std::string(name), std::move(f)).first;
   }
   return *it->second;
}

Facility& defaultFacility() {
   static Facility& f = facility("default");
   return f;
}

void enable(std::string_view name, int level) {
   if (name == "*") {
      Registry& r = registry();
      std::lock_guard lock(r.mutex);
      r.allLevel = level;
      for (auto& [n, f] : r.facilities) {
         f->levelIs(level);
      }
      return;
   }
   facility(name).levelIs(level);
}

namespace {

// Reads "Fac1/4,Fac2/9,*/2" into (facility, level) items; nullopt when malformed. An empty item
// anywhere, a trailing one included, is malformed.
std::optional<std::vector<std::pair<std::string_view, int>>> parseSpec_p(std::string_view text) {
   std::vector<std::pair<std::string_view, int>> items;
   while (!text.empty()) {
      auto comma = text.find(',');
      std::string_view item = text.substr(0, comma);
      if (item.empty()) {
         return std::nullopt;
      }
      int level = 9;
      auto slash = item.find('/');
      if (slash != std::string_view::npos) {
         std::string_view lv = item.substr(slash + 1);
         if (lv.size() != 1 || lv[0] < '0' || lv[0] > '9') {
            return std::nullopt;
         }
         level = lv[0] - '0';
         item = item.substr(0, slash);
      }
      if (item.empty()) {
         return std::nullopt;
      }
      items.emplace_back(item, level);
      if (comma == std::string_view::npos) {
         break;
      }
      text = text.substr(comma + 1);
      if (text.empty()) {
         return std::nullopt;
      }
   }
   return items;
}

}  // namespace

bool validSpec(std::string_view text) {
   return parseSpec_p(text).has_value();
}

bool enableFromSpec(std::string_view text) {
   // The whole string is parsed before any of it is applied, so a malformed one changes nothing.
   auto const items = parseSpec_p(text);
   if (!items) {
      return false;
   }
   // "*" goes first wherever it stands: in "Fac1/4,*/2" it sets the facilities not named.
   for (auto const& [name, level] : *items) {
      if (name == "*") {
         enable(name, level);
      }
   }
   for (auto const& [name, level] : *items) {
      if (name != "*") {
         enable(name, level);
      }
   }
   return true;
}

void sinkIs(Sink sink) {
   Registry& r = registry();
   std::lock_guard lock(r.mutex);
   r.sink = std::move(sink);
}

void write(Facility const& fac, int level, std::string_view line) {
   Registry& r = registry();
   Sink sink;
   {
      std::lock_guard lock(r.mutex);
      sink = r.sink;  // a copy: the sink may replace itself while it runs
   }
   if (sink) {
      sink(fac, level, line);
      return;
   }
   std::fprintf(stderr, "%.6f %s %d %.*s\n", Kivo::currentTime(), fac.name().c_str(), level,
                static_cast<int>(line.size()), line.data());
}

}  // namespace Dualog
