// The one fatal-assertion facility.
//
// KIVO_ASSERT(cond) stops the process when `cond` is false and reports the text of the condition
// exactly as written in the source (the preprocessor folds runs of blanks into one). Operators and
// tests rely on that text, so asserted conditions are written the way they should read.
// KIVO_ABSTRACT(name) is the body of a virtual operation that a subclass must provide.
#pragma once

namespace Kivo {

// Prints "ASSERTION FAILED: <text>" with the source location to stderr, flushes the trace rings
// and aborts. Never returns.
[[noreturn]] void assertFail(char const* text, char const* file, int line) noexcept;

}  // namespace Kivo

// Variadic so that a condition with a comma outside parentheses (is_same_v<A, B>) still works.
#define KIVO_ASSERT(...)                                       \
   do {                                                        \
      if (!(__VA_ARGS__)) [[unlikely]] {                       \
         ::Kivo::assertFail(#__VA_ARGS__, __FILE__, __LINE__); \
      }                                                        \
   } while (0)

#define KIVO_ABSTRACT(name) ::Kivo::assertFail("(!(\"" name "\"))", __FILE__, __LINE__)
