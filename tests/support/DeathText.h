// Expected texts: what a death test prints on stderr, what the traces hold, what an exception says.
//
// EXPECT_DEATH matches stderr against a POSIX extended regular expression, so literal text (an
// asserted condition is full of `+`, `(`, `*`, `|`, `[`) has to be escaped before it can be
// expected verbatim. Only the characters special outside a bracket expression are escaped; `]`
// and `}` are literal there, and escaping them is undefined.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kivo/Kivo.h"
#include "Trace/Dualog.h"
#include "Trace/Snaplog.h"

namespace testsupport {

// A regular expression that matches exactly `literal`.
inline std::string deathText(std::string_view literal) {
   std::string re;
   re.reserve(literal.size() * 2);
   for (char c : literal) {
      if (std::string_view(R"(\.[{()*+?^$|)").find(c) != std::string_view::npos) {
         re += '\\';
      }
      re += c;
   }
   return re;
}

// What KIVO_ASSERT prints for `condition` (as the preprocessor spells it), up to the end of line.
inline std::string assertText(std::string_view condition) {
   return deathText("ASSERTION FAILED: " + std::string(condition) + "\n");
}

// How many lines of the fast trace start with `prefix` and contain `part`.
inline std::size_t traced(std::string_view prefix, std::string_view part = "") {
   std::size_t n = 0;
   for (auto const& l : Snaplog::lines()) {
      n += l.starts_with(prefix) && l.find(part) != std::string::npos;
   }
   return n;
}

// The text trace while this lives, each line as "facility/level line". Facilities given a level
// here get their own level back at the end.
class TextTrace {
 public:
   using Levels = std::initializer_list<std::pair<Dualog::Facility*, int>>;
   explicit TextTrace(Levels levels = {}) {
      for (auto [f, level] : levels) {
         saved_.emplace_back(f, f->level());
         f->levelIs(level);
      }
      Dualog::sinkIs([this](Dualog::Facility const& f, int level, std::string_view line) {
         lines.push_back(f.name() + "/" + std::to_string(level) + " " + std::string(line));
      });
   }
   ~TextTrace() {
      Dualog::sinkIs({});
      for (auto [f, level] : saved_) {
         f->levelIs(level);
      }
   }
   TextTrace(TextTrace const&) = delete;
   TextTrace& operator=(TextTrace const&) = delete;
   std::vector<std::string> lines;

 private:
   std::vector<std::pair<Dualog::Facility*, int>> saved_;
};

// The message of the Kivo::Exception `fn` throws; "" when it throws none.
template <class Fn>
std::string errorOf(Fn fn) {
   try {
      fn();
   } catch (Kivo::Exception const& e) {
      return e.what();
   }
   return "";
}

}  // namespace testsupport
