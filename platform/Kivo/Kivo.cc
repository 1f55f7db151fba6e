#include "Kivo/Kivo.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Trace/Snaplog.h"

namespace Kivo {

namespace {

Ptr<Clock>& clockSlot() {
   static Ptr<Clock> c = make<RealClock>();
   return c;
}

}  // namespace

ErrnoException::ErrnoException(int error, String const& what)
    : Exception(what + ": " + std::strerror(error) + " (errno " + std::to_string(error) + ")"),
      error_(error) {}

double RealClock::now() const {
   timespec ts{};
   clock_gettime(CLOCK_REALTIME, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

Clock& clock() {
   return *clockSlot();
}

void clockIs(Ptr<Clock> c) {
   KIVO_ASSERT(c);
   clockSlot() = std::move(c);
}

ScopedManualClock::ScopedManualClock(double start)
    : clock_(make<ManualClock>(start)), previous_(clockSlot()) {
   clockIs(clock_);
}

ScopedManualClock::~ScopedManualClock() {
   clockIs(previous_);
}

void assertFail(char const* text, char const* file, int line) noexcept {
   std::fprintf(stderr, "ASSERTION FAILED: %s\n  at %s:%d\n", text, file, line);
   Snaplog::dump(stderr, 20);
   std::fflush(stderr);
   std::abort();
}

String quotedForMessage(std::string_view s, std::size_t maxShown) {
   String out = "\"";
   for (std::size_t i = 0; i < s.size() && i < maxShown; ++i) {
      auto const c = static_cast<unsigned char>(s[i]);
      if (c == '"' || c == '\\') {
         out += '\\';
         out += static_cast<char>(c);
      } else if (c >= 0x20 && c != 0x7f) {
         out += static_cast<char>(c);
      } else {
         char hex[5];
         std::snprintf(hex, sizeof(hex), "\\x%02x", c);
         out += hex;
      }
   }
   if (s.size() > maxShown) {
      out += "...";
   }
   return out + "\"";
}

}  // namespace Kivo
