// The peripheral side of the tool: an emulator that also reports when it
// advertises, and the delegate that serves its characteristics.
//
// Threads. The emulator's peripheral manager calls back on worker threads of
// the global queue. The delegate answers reads there at once (the reply
// never changes after construction, so no lock is needed) and posts every
// report to the main queue, where EmulatorLog prints it: all output stays
// on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Lumora/TQBleProcess.h"

namespace lumora::tool {

class Output;

/// What the emulator's side saw; printed and counted on the main thread.
class EmulatorLog : public std::enable_shared_from_this<EmulatorLog> {
 public:
  /// `indent` and `source` dress the lines in the demo ("" elsewhere).
  EmulatorLog(Output& out, std::string indent = {}, std::string source = {});

  void advertising(const std::string& name, const std::optional<std::string>& error);
  void state(CBManagerState state);
  void wrote(const Data& data);
  void read(const Data& reply);

  bool isAdvertising() const { return advertising_; }
  std::optional<CBManagerState> lastState() const { return state_; }
  int writes() const { return writes_; }
  int reads() const { return reads_; }

 private:
  Output& out_;
  std::string indent_;
  std::string source_;
  bool advertising_ = false;
  std::optional<CBManagerState> state_;
  int writes_ = 0;
  int reads_ = 0;
};

/// The emulator's delegate: hands every write to the log and answers every
/// read with a fixed reply (null: no value).
class EmulatorApp : public TQBleProcessDelegate {
 public:
  EmulatorApp(std::shared_ptr<EmulatorLog> log, Data reply);
  Data tqbleprocess_didReqReadData() override;
  void tqbleprocess_didRevData(const Data& data) override;

 private:
  const std::shared_ptr<EmulatorLog> log_;
  const Data reply_;
};

/// A TQBleProcess that also tells its log when the radio has started
/// advertising and when the adapter's state changes (the library itself
/// observes neither), and that makes sure a powered-on emulator really
/// starts (see peripheralManagerDidUpdateState).
class ToolEmulator : public TQBleProcess {
 public:
  explicit ToolEmulator(std::shared_ptr<EmulatorLog> log) : log_(std::move(log)) {}
  void peripheralManagerDidUpdateState(
      const std::shared_ptr<CBPeripheralManager>& peripheral) override;
  void peripheralManagerDidStartAdvertising(const std::shared_ptr<CBPeripheralManager>& peripheral,
                                            ErrorRef error) override;

  /// Stops advertising and gives the shared manager back, whatever the
  /// adapter's state, and makes sure no delegate call is still running when
  /// it returns.
  void shutDown();

 private:
  const std::shared_ptr<EmulatorLog> log_;
};

}  // namespace lumora::tool
