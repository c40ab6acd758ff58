#include "Emulator.h"

#include <fmt/format.h>

#include "Foundation/Dispatch.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

using json = Json;

namespace {

// Runs `report` on the main queue with the log, if the log still exists then.
void post(const std::weak_ptr<EmulatorLog>& log, std::function<void(EmulatorLog&)> report) {
  DispatchQueue::main()->async([log, report = std::move(report)] {
    if (auto held = log.lock()) report(*held);
  });
}

}  // namespace

EmulatorLog::EmulatorLog(Output& out, std::string indent, std::string source)
    : out_(out), indent_(std::move(indent)), source_(std::move(source)) {}

void EmulatorLog::advertising(const std::string& name, const std::optional<std::string>& error) {
  json record{{"event", "advertising"}, {"name", name}};
  if (!source_.empty()) record["source"] = source_;
  if (error) {
    record["error"] = jsonSafe(*error);
    out_.emit(fmt::format("{}advertising failed: {}", indent_, printable(*error)), record);
    return;
  }
  advertising_ = true;
  out_.emit(fmt::format("{}advertising as \"{}\"", indent_, name), record);
}

void EmulatorLog::state(CBManagerState state) {
  state_ = state;
  if (state == CBManagerState::PoweredOn) return;
  out_.note(
      fmt::format("the emulator's Bluetooth is {}; waiting for it to power on", stateName(state)));
}

void EmulatorLog::wrote(const Data& data) {
  ++writes_;
  json record{{"event", "write"}, {"data", data ? json(hex(*data)) : json(nullptr)}};
  if (!source_.empty()) record["source"] = source_;
  out_.emit(fmt::format("{}a central wrote {}", indent_,
                        data ? (data->empty() ? std::string("nothing") : hex(*data))
                             : std::string("(null)")),
            record);
}

void EmulatorLog::read(const Data& reply) {
  ++reads_;
  json record{{"event", "read"}, {"reply", reply ? json(hex(*reply)) : json(nullptr)}};
  if (!source_.empty()) record["source"] = source_;
  out_.emit(fmt::format("{}a central read; answered {}", indent_,
                        reply ? (reply->empty() ? std::string("nothing") : hex(*reply))
                              : std::string("with no value")),
            record);
}

EmulatorApp::EmulatorApp(std::shared_ptr<EmulatorLog> log, Data reply)
    : log_(std::move(log)), reply_(std::move(reply)) {}

Data EmulatorApp::tqbleprocess_didReqReadData() {
  Data reply = reply_;
  post(log_, [reply](EmulatorLog& log) { log.read(reply); });
  return reply;
}

void EmulatorApp::tqbleprocess_didRevData(const Data& data) {
  post(log_, [data](EmulatorLog& log) { log.wrote(data); });
}

void ToolEmulator::peripheralManagerDidUpdateState(
    const std::shared_ptr<CBPeripheralManager>& peripheral) {
  TQBleProcess::peripheralManagerDidUpdateState(peripheral);
  const CBManagerState state = peripheral->state();
  post(log_, [state](EmulatorLog& log) { log.state(state); });
}

void ToolEmulator::peripheralManagerDidStartAdvertising(
    const std::shared_ptr<CBPeripheralManager>& peripheral, ErrorRef error) {
  TQBleProcess::peripheralManagerDidStartAdvertising(peripheral, error);
  const std::string name = emulatorName(major().value_or(Number()).unsignedShortValue(),
                                        minor().value_or(Number()).unsignedShortValue());
  std::optional<std::string> text;
  if (error) text = error->text;
  post(log_, [name, text](EmulatorLog& log) { log.advertising(name, text); });
}

void ToolEmulator::shutDown() {
  // StopTQBeacon asks the manager to stop and withdraw the service, but only
  // while it is powered on; DestroyTQBeacon gives the manager back in any state.
  if (!StopTQBeacon()) DestroyTQBeacon();
  setDelegate(nullptr);
  // A delegate call that began before the line above may still be running on
  // a worker; the delegate must outlive it.
  dispatch::waitForGlobalIdle();
}

}  // namespace lumora::tool
