// The framework's text form of a value record:
//   Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': octetDeltaCount, 'len': 8, 'str':
//   'x'})
// Strings are single-quoted with backslash escapes for '\'' and '\\'; booleans are True / False.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kivo/Kivo.h"

namespace Kivo {

String quoted(std::string_view s);
inline char const* boolText(bool b) {
   return b ? "True" : "False";
}

// The attributes of a parsed value text, each with its raw text (quoted strings unquoted).
class ValueText {
 public:
   // Parses `text`, which must name `typeName`. Throws Kivo::Exception saying what is wrong.
   ValueText(std::string_view text, std::string_view typeName);

   // The raw text of attribute `name`. Throws Kivo::Exception when it is missing.
   String const& attr(std::string_view name) const;
   bool boolAttr(std::string_view name) const;
   unsigned long long unsignedAttr(std::string_view name, unsigned long long max) const;

 private:
   String typeName_;
   std::vector<std::pair<String, String>> attrs_;
};

}  // namespace Kivo
