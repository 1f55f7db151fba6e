// Expected stderr text for death tests.
//
// EXPECT_DEATH matches stderr against a POSIX extended regular expression, so literal text (an
// asserted condition is full of `+`, `(`, `*`, `|`, `[`) has to be escaped before it can be
// expected verbatim. Only the characters special outside a bracket expression are escaped; `]`
// and `}` are literal there, and escaping them is undefined.
#pragma once

#include <string>
#include <string_view>

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

}  // namespace testsupport
