// The one way the system traces.
//
//   KTRACE(fac, 4, "Created Pam: " << name << ", fd: " << fd);
// writes the line to the fast trace (Snaplog) and, when facility `fac` is enabled at level 4 or
// more, to the text trace (Dualog). KTRACE_FAST writes to the fast trace only. Nothing is
// formatted when neither would keep the line. Lines are built in a fixed buffer without
// allocation and truncated at Line::capacity() bytes.
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

#define KTRACE(fac, level, expr)                \
   do {                                         \
      if (::Trace::on((fac), (level))) {        \
         ::Trace::Line kivoTraceLine_;          \
         kivoTraceLine_ << expr;                \
         kivoTraceLine_.commit((fac), (level)); \
      }                                         \
   } while (0)

#define KTRACE_FAST(expr)              \
   do {                                \
      if (::Snaplog::enabled()) {      \
         ::Trace::Line kivoTraceLine_; \
         kivoTraceLine_ << expr;       \
         kivoTraceLine_.commitFast();  \
      }                                \
   } while (0)
