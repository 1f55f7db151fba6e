// Snaplog: the fast in-memory trace. A fixed ring of the most recent trace lines, each truncated
// to lineCapacity() bytes, so memory stays bounded however much is traced. It is on by default;
// an assertion failure dumps its tail to stderr. Used from the agent's thread only.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace Snaplog {

constexpr std::size_t ringLines() {
   return 4096;
}
constexpr std::size_t lineCapacity() {
   return 200;
}

bool enabled();
void enabledIs(bool on);

void record(std::string_view line);
// The newest `n` lines (all when n is 0), oldest first.
std::vector<std::string> lines(std::size_t n = 0);
void clear();
// Writes the newest `n` lines to `out`.
void dump(std::FILE* out, std::size_t n);

}  // namespace Snaplog
