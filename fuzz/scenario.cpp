// Scenario files as a user might write them, or worse. A file either loads or
// is refused with a ScenarioError (any other exception escapes and counts as
// a crash); a loaded air then runs for a few virtual seconds with a central
// that connects to everything connectable and reads and writes every
// characteristic, so scripted replies, timed events and paths all run.
#include <deque>
#include <nlohmann/json.hpp>
#include <set>

#include "Check.h"
#include "backends/sim/Air.h"

using namespace lumora;
using namespace std::chrono_literals;

namespace {

// Runs on the air's thread (here the fuzzer's, inside advance()): it only
// writes down what to do next, and the loop below asks the radio.
class Explorer : public radio::CentralEvents {
 public:
  struct Step {
    enum Kind { Connect, Services, Characteristics, Read, Write } kind;
    radio::PeripheralId peripheral;
    radio::AttHandle handle = 0;
  };
  std::deque<Step> todo;
  std::set<radio::PeripheralId> known;

  void radioStateChanged(CBManagerState) override {}
  void radioDiscovered(const radio::AdvertisingReport& report) override {
    FUZZ_CHECK(report.rssi >= -127 && report.rssi <= 20);
    if (report.advertisement.isConnectable.value_or(true) && known.insert(report.address).second)
      todo.push_back({Step::Connect, report.address});
  }
  void radioConnected(const radio::PeripheralId& p) override {
    todo.push_back({Step::Services, p});
  }
  void radioConnectFailed(const radio::PeripheralId&, const Error&) override {}
  void radioDisconnected(const radio::PeripheralId&, const std::optional<Error>&) override {}
  void radioServicesDiscovered(const radio::PeripheralId& p,
                               const std::vector<radio::RemoteService>& services,
                               const std::optional<Error>&) override {
    for (const auto& s : services) todo.push_back({Step::Characteristics, p, s.handle});
  }
  void radioCharacteristicsDiscovered(const radio::PeripheralId& p, radio::AttHandle,
                                      const std::vector<radio::RemoteCharacteristic>& list,
                                      const std::optional<Error>&) override {
    for (const auto& c : list) {
      todo.push_back({Step::Read, p, c.handle});
      todo.push_back({Step::Write, p, c.handle});
    }
  }
  void radioValueUpdated(const radio::PeripheralId&, radio::AttHandle, const Data&,
                         const std::optional<Error>&) override {}
  void radioValueWritten(const radio::PeripheralId&, radio::AttHandle,
                         const std::optional<Error>&) override {}
};

void explore(sim::Air& air) {
  auto explorer = std::make_shared<Explorer>();
  auto central = air.openCentral(explorer);
  central->startScan({});
  air.setTraceLimit(64);
  for (int round = 0; round < 30; ++round) {
    air.advance(100ms);
    // Bounded: a scripted device could keep the list growing.
    for (int n = 0; n < 64 && !explorer->todo.empty(); ++n) {
      const auto step = explorer->todo.front();
      explorer->todo.pop_front();
      switch (step.kind) {
        case Explorer::Step::Connect:
          central->connect(step.peripheral);
          break;
        case Explorer::Step::Services:
          central->discoverServices(step.peripheral, std::nullopt);
          break;
        case Explorer::Step::Characteristics:
          central->discoverCharacteristics(step.peripheral, step.handle, std::nullopt);
          break;
        case Explorer::Step::Read:
          central->read(step.peripheral, step.handle);
          break;
        case Explorer::Step::Write:
          central->write(step.peripheral, step.handle, Bytes{0x01, 0x02}, round % 2 == 0);
          break;
      }
    }
  }
  (void)air.trace();
  central->close();
  air.settle();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  // A scenario may name a capture file, which the air then writes: a fuzzer
  // must not create files wherever its inputs point.
  const auto document = nlohmann::json::parse(text, nullptr, false);
  if (document.is_object() && document.contains("capture")) return 0;
  std::shared_ptr<sim::Air> air;
  try {
    air = sim::loadScenario(text, {.clock = sim::ClockMode::Virtual});
  } catch (const sim::ScenarioError& e) {
    // Every refusal names where the problem is.
    FUZZ_CHECK(std::string_view(e.what()).find(": ") != std::string_view::npos);
    return 0;
  }
  FUZZ_CHECK(air != nullptr);
  explore(*air);
  return 0;
}
