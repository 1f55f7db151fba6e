// The agent's configuration file: YAML in, a checked AgentConfig out.
//
// The loader refuses everything the export component could not take later (over-long names,
// reserved ids and indexes, an MTU too small for the largest record the configuration produces,
// collectors of a family the exporter cannot send from, ...), so a configuration it returns can be
// applied without further checks. It reports every problem it can find in one pass, each with
// the file, line and column it comes from, and returns no configuration at all when there is
// any: a refused file never changes what runs. docs/CONFIG.md describes the format.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/AgentConfig.h"

namespace Agent {

struct ConfigError {
   std::string file;
   int line = 0;    // 1-based; 0 when the error has no position (a file that cannot be read)
   int column = 0;  // 1-based
   std::string message;

   // "FILE:LINE:COLUMN: message", or "FILE: message" without a position.
   std::string toString() const;
   bool operator==(ConfigError const&) const = default;
};

struct LoadResult {
   std::optional<AgentConfig> config;  // set exactly when `errors` is empty
   std::vector<ConfigError> errors;    // in file order
};

// Reads and checks the file at `path`. A file that cannot be read gives one error at line 0.
LoadResult loadConfigFile(std::string const& path);
// Checks `text`; `fileName` only names the source in errors.
LoadResult loadConfigText(std::string_view text, std::string const& fileName);

// The configuration as YAML with every default written out, in the order the format documents.
// Loading it gives back an equal configuration. REQUIRES: `config` came from the loader (or keeps
// its limits).
std::string effectiveConfigText(AgentConfig const& config);

}  // namespace Agent
