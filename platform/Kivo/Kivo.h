// Basic vocabulary of the framework: strings, exceptions, limits and the shared clock.
#pragma once

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Kivo/Assert.h"
#include "Kivo/Ptr.h"

namespace Kivo {

// The framework's string. It is also the byte string of encoded records: it may hold any octets.
using String = std::string;

constexpr std::uint16_t maxU16() {
   return std::numeric_limits<std::uint16_t>::max();
}
constexpr std::uint32_t maxU32() {
   return std::numeric_limits<std::uint32_t>::max();
}

class Exception : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// A system call failed. `error()` is the errno value; the text names what was attempted.
class ErrnoException : public Exception {
 public:
   ErrnoException(int error, String const& what);
   int error() const noexcept { return error_; }

 private:
   int error_;
};

// A value outside the range its type allows (an over-long bounded name, an index out of range).
class RangeException : public Exception {
 public:
   using Exception::Exception;
};

// The time source shared by Kivo::currentTime() and every Orbo::TaskScheduler. Programs use the
// real clock; tests install a ManualClock and move time by hand.
class Clock : public Object {
 public:
   // Seconds since the Unix epoch, UTC.
   virtual double now() const = 0;
};

class RealClock : public Clock {
 public:
   double now() const override;
};

class ManualClock : public Clock {
 public:
   explicit ManualClock(double start = 1'700'000'000.0) : now_(start) {}
   double now() const override { return now_; }
   void advance(double seconds) { now_ += seconds; }
   void nowIs(double t) { now_ = t; }

 private:
   double now_;
};

// The process-wide clock; a RealClock until clockIs() installs another.
Clock& clock();
void clockIs(Ptr<Clock> c);
inline double currentTime() {
   return clock().now();
}

// Installs a ManualClock for the lifetime of the guard and restores the previous clock after.
class ScopedManualClock {
 public:
   explicit ScopedManualClock(double start = 1'700'000'000.0);
   ~ScopedManualClock();
   ScopedManualClock(ScopedManualClock const&) = delete;
   ScopedManualClock& operator=(ScopedManualClock const&) = delete;
   ManualClock& operator*() const { return *clock_; }
   ManualClock* operator->() const { return clock_.get(); }

 private:
   Ptr<ManualClock> clock_;
   Ptr<Clock> previous_;
};

// `s` as it goes into an error message: double-quoted, with quotes and backslashes escaped,
// control octets written as \xNN (other octets, UTF-8 included, as they are), and cut short with
// "..." after `maxShown` octets.
String quotedForMessage(std::string_view s, std::size_t maxShown = 80);

}  // namespace Kivo
