// The configuration loader on arbitrary text. A file is either refused, with every error at a
// position in it, or accepted; an accepted one prints as effective text that loads back equal,
// and the component built from it (then emptied and filled again as differences, the way a
// reload applies it) runs for simulated minutes without reaching an assertion.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "Kivo/Kivo.h"
#include "Orbo/TaskScheduler.h"
#include "agent/Component.h"
#include "agent/ConfigLoader.h"

namespace {

bool isolated = false;

void run(Kivo::Ptr<Orbo::TaskScheduler> const& scheduler, Kivo::ManualClock& clock) {
   // Long enough for the first templates, options data and one periodic resend.
   FUZZ_CHECK(scheduler->runFor(clock, 70));
}

void build(Agent::AgentConfig config) {
   Fuzz::confine(config, "config", isolated);
   Agent::AgentConfig empty;
   empty.type = config.type;
   empty.statisticsTable = config.statisticsTable;

   Kivo::ScopedManualClock clock;
   auto scheduler = Kivo::make<Orbo::TaskScheduler>();
   Agent::Component component(scheduler, config);
   run(scheduler, *clock);
   component.configIs(empty);
   run(scheduler, *clock);
   component.configIs(config);
   run(scheduler, *clock);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
   isolated = Fuzz::isolateNetwork();
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   std::string_view const text(reinterpret_cast<char const*>(data), size);
   Agent::LoadResult const loaded = Agent::loadConfigText(text, "fuzz.yaml");
   if (!loaded.config) {
      FUZZ_CHECK(!loaded.errors.empty());
      auto const lines = 1 + std::count(text.begin(), text.end(), '\n');
      for (Agent::ConfigError const& e : loaded.errors) {
         FUZZ_CHECK(e.file == "fuzz.yaml" && e.line >= 1 && e.line <= lines && e.column >= 1 &&
                    !e.message.empty());
         std::string const prefix =
             "fuzz.yaml:" + std::to_string(e.line) + ":" + std::to_string(e.column) + ": ";
         FUZZ_CHECK(e.toString().starts_with(prefix));
      }
      return 0;
   }
   FUZZ_CHECK(loaded.errors.empty());
   std::string const effective = Agent::effectiveConfigText(*loaded.config);
   Agent::LoadResult const again = Agent::loadConfigText(effective, "effective.yaml");
   FUZZ_CHECK(again.config && *again.config == *loaded.config);
   build(*loaded.config);
   return 0;
}
