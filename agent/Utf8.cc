#include "agent/Utf8.h"

#include <nlohmann/json.hpp>

namespace Agent {

bool isUtf8(std::string_view s) {
   // The strict serializer refuses exactly the byte sequences that are not UTF-8.
   try {
      (void)nlohmann::json(std::string(s)).dump();
      return true;
   } catch (nlohmann::json::type_error const&) {
      return false;
   }
}

}  // namespace Agent
