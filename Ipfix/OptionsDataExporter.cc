#include "Ipfix/OptionsDataExporter.h"

#include <ostream>

namespace FlowTracking {

Kivo::String valueToStrep(OptionsDataScope s) {
   switch (s) {
      case OptionsDataScope::scopeGlobal:
         return "scopeGlobal";
      case OptionsDataScope::scopeTracker:
         return "scopeTracker";
   }
   return std::to_string(static_cast<unsigned>(s));
}

std::ostream& operator<<(std::ostream& os, OptionsDataScope s) {
   return os << valueToStrep(s);
}

std::optional<OptionsDataScope> optionsDataScopeInstance(std::string_view text) {
   for (auto s : {OptionsDataScope::scopeGlobal, OptionsDataScope::scopeTracker}) {
      if (valueToStrep(s) == text) {
         return s;
      }
   }
   return std::nullopt;
}

void OptionsDataUpdate::addUpdate(TemplateId setId, DataRecordPtr record) {
   setId_ = setId;
   record_ = std::move(record);
   versionIs(version() + 1);
}

}  // namespace FlowTracking
