// The one place that knows which radios exist and how a radio name picks one.
#include "backends/Radio.h"

#include <cstdlib>
#include <string>

#include "backends/sim/Air.h"

#ifdef LUMORA_WITH_BLUEZ
#include "backends/bluez/BlueZBackend.h"
#endif

namespace lumora::radio {
namespace {

constexpr std::string_view kSpecs = "sim, sim:SCENARIO.json, bluez or bluez:ADAPTER";

// Radio names come from the command line and the environment: quote them on one
// line whatever they hold.
std::string quoted(std::string_view which) {
  std::string out = "\"";
  for (char c : which) out += (c == '\n' || c == '\r') ? ' ' : c;
  return out + "\"";
}

std::shared_ptr<Backend> simulated(const std::string& scenarioPath) {
  sim::AirOptions options;
  options.clock = sim::ClockMode::RealTime;
  try {
    if (scenarioPath.empty()) return sim::loadScenario(sim::defaultScenarioJson(), options);
    return sim::loadScenarioFile(scenarioPath, options);
  } catch (const sim::ScenarioError& e) {
    throw BackendError(std::string("sim: ") + e.what());
  }
}

std::shared_ptr<Backend> bluez([[maybe_unused]] std::string_view adapter) {
#ifdef LUMORA_WITH_BLUEZ
  return lumora::bluez::makeBackend(adapter);
#else
  throw BackendError("this build has no BlueZ support");
#endif
}

}  // namespace

std::shared_ptr<Backend> makeBackend(std::string_view which) {
  if (which == "sim") return simulated({});
  if (which.starts_with("sim:")) {
    const std::string_view path = which.substr(4);
    if (path.empty()) throw BackendError("sim: needs a scenario file after \"sim:\"");
    return simulated(std::string(path));
  }
  if (which == "bluez") return bluez({});
  if (which.starts_with("bluez:")) {
    const std::string_view adapter = which.substr(6);
    if (adapter.empty()) throw BackendError("bluez: needs an adapter after \"bluez:\"");
    return bluez(adapter);
  }
  throw BackendError("unknown radio " + quoted(which) + " (expected " + std::string(kSpecs) + ")");
}

std::shared_ptr<Backend> makeDefaultBackend() {
  const char* chosen = std::getenv("LUMORA_BACKEND");
  if (chosen && *chosen) {
    try {
      return makeBackend(chosen);
    } catch (const BackendError& e) {
      throw BackendError(std::string("LUMORA_BACKEND: ") + e.what());
    }
  }
  return simulated({});
}

}  // namespace lumora::radio
