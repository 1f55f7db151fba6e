// The control socket's request handling on arbitrary lines, against a running component with
// the example configuration: every line gets one reply, a JSON object whose "ok" is a boolean,
// with "error" when it is false; the component keeps running between requests.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "Kivo/Kivo.h"
#include "Orbo/EventLoop.h"
#include "Orbo/TaskScheduler.h"
#include "agent/Component.h"
#include "agent/ConfigLoader.h"
#include "agent/ControlSocket.h"

namespace {

struct Agent_ {
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Orbo::EventLoop loop{scheduler};
   std::unique_ptr<Agent::Component> component;
   std::unique_ptr<Agent::ControlSocket> control;
};

Agent_* agent = nullptr;

// The example configuration with two collectors per exporter, so that status and clear have
// entries to report; sends go to loopback only (or nowhere, without a network of our own).
Agent::AgentConfig exampleConfig(bool isolated) {
   Agent::LoadResult r = Agent::loadConfigFile(IPFIX_SOURCE_DIR "/examples/ipfix-agent.yaml");
   FUZZ_CHECK(r.config.has_value());
   Agent::AgentConfig config = *r.config;
   Fuzz::confine(config, "control", isolated);
   return config;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
   bool const isolated = Fuzz::isolateNetwork();
   agent = new Agent_;
   agent->component = std::make_unique<Agent::Component>(agent->scheduler, exampleConfig(isolated));
   agent->control = std::make_unique<Agent::ControlSocket>(
       agent->loop, agent->scheduler, "/tmp" + Fuzz::shmName("control") + ".sock",
       *agent->component);
   agent->scheduler->runUntilIdle();
   std::atexit([] {
      delete agent;  // removes the socket file and the statistics table
   });
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   std::string_view input(reinterpret_cast<char const*>(data), size);
   // One request per line, as a connection splits them.
   while (!input.empty()) {
      std::size_t const nl = input.find('\n');
      std::string const line(input.substr(0, nl));
      input.remove_prefix(nl == std::string_view::npos ? input.size() : nl + 1);
      std::string const reply = agent->control->handleRequest(line);
      FUZZ_CHECK(reply.find('\n') == std::string::npos);
      nlohmann::json const j = nlohmann::json::parse(reply);  // throws (and fails) when not JSON
      FUZZ_CHECK(j.is_object() && j.contains("ok") && j["ok"].is_boolean());
      FUZZ_CHECK(j["ok"] ? !j.contains("error") : j["error"].is_string());
      agent->scheduler->runUntilIdle();
   }
   return 0;
}
