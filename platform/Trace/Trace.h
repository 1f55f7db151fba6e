// The one way the system traces. A source file binds its facility once, after its includes:
//
//   KTRACE_FACILITY(::Dualog::facility("UdpPam"))
//
// and then traces with
//
//   KTRACE(4, "Created Pam: " << name << ", fd: " << fd);
//
// which writes the line to the fast trace (Snaplog) and, when the file's facility is enabled at
// level 4 or more, to the text trace (Dualog). KTRACE_FAST writes to the fast trace only;
// KTRACE_TEXT to the text trace only, for bulky detail (packet dumps) that the always-on fast
// trace must not pay for. Each macro evaluates its level and the facility once, and formats
// nothing unless a sink will keep the line. Lines are built in a fixed buffer without allocation
// and truncated at Line::capacity() bytes.
#pragma once

#include <charconv>
#include <concepts>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

#include "Trace/Dualog.h"
#include "Trace/Snaplog.h"

namespace Trace {

class Line {
   static constexpr std::size_t capacity_ = 1024;

 public:
   static constexpr std::size_t capacity() { return capacity_; }

   Line& operator<<(std::string_view s) {
      std::size_t const n = std::min(s.size(), capacity() - n_);
      std::memcpy(buf_ + n_, s.data(), n);
      n_ += n;
      return *this;
   }
   Line& operator<<(char const* s) { return *this << std::string_view(s ? s : "(null)"); }
   Line& operator<<(std::string const& s) { return *this << std::string_view(s); }
   Line& operator<<(char c) { return *this << std::string_view(&c, 1); }
   Line& operator<<(bool b) { return *this << std::string_view(b ? "true" : "false"); }
   template <std::integral I>
   Line& operator<<(I v) {
      char tmp[24];
      auto r = std::to_chars(tmp, tmp + sizeof(tmp), v);
      return *this << std::string_view(tmp, static_cast<std::size_t>(r.ptr - tmp));
   }
   Line& operator<<(double v) {
      char tmp[32];
      auto r = std::to_chars(tmp, tmp + sizeof(tmp), v);
      return *this << std::string_view(tmp, static_cast<std::size_t>(r.ptr - tmp));
   }
   // Anything else that can be streamed (addresses, ids, enumerations with names).
   template <class T>
   requires(!std::integral<T> && !std::convertible_to<T, std::string_view> &&
            requires(std::ostream & os, T const& t) { os << t; }) Line&
   operator<<(T const& v) {
      std::ostringstream os;
      os << v;
      return *this << os.str();
   }

   std::string_view view() const { return {buf_, n_}; }

   void commit(Dualog::Facility const& fac, int level) const {
      Snaplog::record(view());
      if (fac.on(level)) {
         Dualog::write(fac, level, view());
      }
   }
   void commitFast() const { Snaplog::record(view()); }

 private:
   char buf_[capacity_];
   std::size_t n_ = 0;
};

inline bool on(Dualog::Facility const& fac, int level) {
   return Snaplog::enabled() || fac.on(level);
}

}  // namespace Trace

// Defines ktraceFacility_p() for the file: `facilityExpr` is evaluated once, on first use.
#define KTRACE_FACILITY(facilityExpr)                             \
   namespace {                                                    \
   [[maybe_unused]] ::Dualog::Facility& ktraceFacility_p() {      \
      static ::Dualog::Facility& ktraceFacility = (facilityExpr); \
      return ktraceFacility;                                      \
   }                                                              \
   }

#define KTRACE(level, expr)                                      \
   do {                                                          \
      ::Dualog::Facility const& ktraceFac_ = ktraceFacility_p(); \
      int const ktraceLevel_ = (level);                          \
      if (::Trace::on(ktraceFac_, ktraceLevel_)) {               \
         ::Trace::Line ktraceLine_;                              \
         ktraceLine_ << expr;                                    \
         ktraceLine_.commit(ktraceFac_, ktraceLevel_);           \
      }                                                          \
   } while (0)

#define KTRACE_TEXT(level, expr)                                        \
   do {                                                                 \
      ::Dualog::Facility const& ktraceFac_ = ktraceFacility_p();        \
      int const ktraceLevel_ = (level);                                 \
      if (ktraceFac_.on(ktraceLevel_)) {                                \
         ::Trace::Line ktraceLine_;                                     \
         ktraceLine_ << expr;                                           \
         ::Dualog::write(ktraceFac_, ktraceLevel_, ktraceLine_.view()); \
      }                                                                 \
   } while (0)

#define KTRACE_FAST(expr)           \
   do {                             \
      if (::Snaplog::enabled()) {   \
         ::Trace::Line ktraceLine_; \
         ktraceLine_ << expr;       \
         ktraceLine_.commitFast();  \
      }                             \
   } while (0)
