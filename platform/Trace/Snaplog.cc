#include "Trace/Snaplog.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Snaplog {

namespace {

struct Entry {
   std::uint8_t len = 0;
   char text[lineCapacity()];
};

struct Ring {
   std::array<Entry, ringLines()> entries;
   std::size_t next = 0;   // slot the next line goes to
   std::size_t count = 0;  // lines held
   bool on = true;
};

Ring& ring() {
   static Ring* r = new Ring();  // never destroyed: traces may run from static destructors
   return *r;
}

}  // namespace

bool enabled() {
   return ring().on;
}
void enabledIs(bool on) {
   ring().on = on;
}

void record(std::string_view line) {
   Ring& r = ring();
   if (!r.on) {
      return;
   }
   Entry& e = r.entries[r.next];
   std::size_t const n = std::min(line.size(), lineCapacity());
   std::memcpy(e.text, line.data(), n);
   e.len = static_cast<std::uint8_t>(n);
   r.next = (r.next + 1) % ringLines();
   r.count = std::min(r.count + 1, ringLines());
}

std::vector<std::string> lines(std::size_t n) {
   Ring& r = ring();
   if (n == 0 || n > r.count) {
      n = r.count;
   }
   std::vector<std::string> out;
   out.reserve(n);
   std::size_t idx = (r.next + ringLines() - n) % ringLines();
   for (std::size_t i = 0; i < n; ++i) {
      Entry const& e = r.entries[idx];
      out.emplace_back(e.text, e.len);
      idx = (idx + 1) % ringLines();
   }
   return out;
}

void clear() {
   ring().next = 0;
   ring().count = 0;
}

void dump(std::FILE* out, std::size_t n) {
   auto ls = lines(n);
   if (ls.empty()) {
      return;
   }
   std::fprintf(out, "last %zu trace lines:\n", ls.size());
   for (auto const& l : ls) {
      std::fprintf(out, "  %s\n", l.c_str());
   }
}

}  // namespace Snaplog
