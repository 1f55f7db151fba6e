// Whether text is UTF-8, for input that is written out again as YAML or JSON.
#pragma once

#include <string_view>

namespace Agent {

// True when `s` is well-formed UTF-8 (as JSON and YAML require their text to be).
bool isUtf8(std::string_view s);

}  // namespace Agent
