// Checks against real bluetoothd: a finder in this process on one adapter,
// and the `lumora emulate` tool as a second process on another adapter, both
// going through bluetoothd and the kernel. scripts/vm/real-bluez.sh runs
// them in a qemu guest with two btvirt controllers, one scenario per process
// and a fresh bluetoothd for each; CTest does not know this program, since
// the build host has no Bluetooth.
//
// The adapters come from LUMORA_GUEST_FINDER_ADAPTER and
// LUMORA_GUEST_EMULATOR_ADAPTER ("hci1", "hci0"): bluetoothd serves both
// processes, so each side names its adapter instead of taking the default.
//
// Unlike the simulated air, real radios take real time: tests wait by
// running RunLoop::main() (where the BlueZ radio and the finder's callbacks
// live) until a condition holds, with deadlines far above what the guest
// needs, so only a failure ever waits them out.
//
// Scanning starts before the emulator advertises. btvirt sends its
// advertising reports once, when scanning or advertising is switched on,
// and the kernel drops reports that arrive before it counts discovery as
// running; a scan switched on after the advertiser then hears it only when
// the kernel restarts discovery, 10.24 s later. An advertiser switched on
// during the scan is heard at once.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "Foundation/Bytes.h"
#include "Foundation/RunLoop.h"
#include "Foundation/Uuid.h"
#include "Lumora/TQBleFinder.h"
#include "support/FinderRecorder.h"
#include "support/TempDir.h"

namespace lumora::test {

using namespace std::chrono_literals;

/// Runs the main run loop until `done` holds or `timeout` passes; returns done().
bool runUntil(const std::function<bool()>& done, RunLoop::Clock::duration timeout);

/// `lumora --json --backend bluez:ADAPTER emulate ...` as a child process.
/// Its JSON lines are read on the main run loop while a test waits; its
/// stderr (with the library's log lines) goes to the test's stderr.
class EmulatorProcess {
 public:
  struct Options {
    std::string adapter;
    Uuid uuid;
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    int power = -59;
    Data reply;  // answers every read; null: no value
  };

  explicit EmulatorProcess(const Options& options);
  /// Stops the process if it still runs (SIGTERM, then SIGKILL).
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  /// Waits until the tool reports that advertising has started, failed, or
  /// the process ended. True only for a started advertisement.
  bool waitUntilAdvertising(RunLoop::Clock::duration timeout);
  /// Waits until `count` writes have been reported.
  bool waitForWrites(std::size_t count, RunLoop::Clock::duration timeout);
  /// Waits until `count` reads have been reported.
  bool waitForReads(std::size_t count, RunLoop::Clock::duration timeout);

  /// Asks the tool to stop (as Ctrl-C does) and waits for its exit status;
  /// -1 when it had to be killed.
  int stop(RunLoop::Clock::duration timeout = 15s);

  /// The advertised local name the tool prints ("1234" for 0x12, 0x34).
  std::optional<std::string> advertisedName() const;
  /// The bytes of each reported write, in order.
  std::vector<Data> writes() const;
  std::size_t reads() const;
  /// Every JSON line so far, for failure messages.
  std::string transcript() const;

 private:
  void readOutput();
  std::vector<nlohmann::json> eventsNamed(const std::string& name) const;

  pid_t pid_ = -1;
  int out_ = -1;
  RunLoop::SourceId source_ = 0;
  bool ended_ = false;
  std::string pending_;                // a line not yet complete
  std::vector<nlohmann::json> lines_;  // main thread only
  TempDir home_;                       // the tool's user defaults
};

/// The fixture of every scenario: the standard user defaults in a temporary
/// file, the adapters from the environment, and a finder on the finder's
/// adapter whose events are recorded.
class RealBluezTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// Selects the BlueZ radio on the finder's adapter for managers made from
  /// now on (wrapped by `wrap` when given) and makes the finder.
  void makeFinder(
      const std::function<std::shared_ptr<radio::Backend>(std::shared_ptr<radio::Backend>)>& wrap =
          nullptr);

  /// Waits until the finder has started scanning.
  bool waitForScan();
  /// Waits until the finder has connected and knows the characteristics of
  /// the device's service (it then holds one in dataCharacteristic()).
  bool waitForCharacteristics();

  /// Every status event so far, for failure messages.
  std::string statesText() const;

  std::string finderAdapter;
  std::string emulatorAdapter;
  TempDir defaultsDir;
  FinderRecorder recorder;
  std::shared_ptr<TQBleFinder> finder;
};

}  // namespace lumora::test
