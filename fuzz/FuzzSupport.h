// What the fuzz targets share: a check that stops the run when a property fails, names for the
// shared-memory tables a target makes (one set per process, so parallel runs never meet), and a
// network of the target's own so that whatever a fuzzed configuration sends stays on the host.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "agent/AgentConfig.h"

// A property of the unit under test failed: report it and stop, so that libFuzzer keeps the input.
#define FUZZ_CHECK(...)                                                                   \
   do {                                                                                   \
      if (!(__VA_ARGS__)) {                                                               \
         std::fprintf(stderr, "FUZZ_CHECK failed: %s at %s:%d\n", #__VA_ARGS__, __FILE__, \
                      __LINE__);                                                          \
         std::abort();                                                                    \
      }                                                                                   \
   } while (0)

namespace Fuzz {

// "/ipfix-fuzz-<what>-<pid>": a shared-memory table name no other process uses.
std::string shmName(char const* what);

// Moves the process into a network namespace of its own (as root, or through a user namespace
// where unprivileged ones are allowed) with only its loopback up: sends to 127.0.0.1 and ::1 go
// out, every other destination is unreachable. False when neither was possible; the caller must
// then keep the component from opening sockets at all.
bool isolateNetwork();

// Makes a configuration safe to run inside a fuzz target: its statistics table gets a name of
// this process's own (see shmName), no trace file is written, and without a network of the
// target's own (isolated false) no exporter gets a socket.
void confine(Agent::AgentConfig& config, char const* what, bool isolated);

}  // namespace Fuzz
