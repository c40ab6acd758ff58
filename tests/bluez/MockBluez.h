// Test harness: a private dbus-daemon with the scripted bluetoothd
// (lumora_bluez.py in python3-dbusmock) on it, and blocking control calls to
// the stand-in. The backend under test reaches it through LUMORA_BLUEZ_BUS.
//
//   MockBluez bluez;                      // daemon + stand-in with one adapter hci0
//   bluez.call("SetPowered", "hci0", false);
//   auto state = bluez.state();           // JSON
//
// Control calls block, so the stand-in never calls back into them; anything
// that makes it call the backend (remote reads and writes, registrations)
// returns at once and completes while the test runs the main run loop.
#pragma once

#include <sys/types.h>

#include <sdbus-c++/sdbus-c++.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "support/TempDir.h"

namespace lumora::test {

class MockBluez {
 public:
  struct Config {
    /// dbusmock template parameters (JSON); empty: one adapter hci0, powered,
    /// peripheral-capable.
    std::string parameters;
    /// Start the stand-in (false: a bus without bluetoothd).
    bool startStandIn = true;
    /// The bus policy denies every message to org.bluez.
    bool denyBluez = false;

    static Config with(std::string json) {
      Config c;
      c.parameters = std::move(json);
      return c;
    }
    static Config withoutBluetoothd() {
      Config c;
      c.startStandIn = false;
      return c;
    }
    static Config denyingBluez() {
      Config c;
      c.denyBluez = true;
      return c;
    }
  };

  /// Why the harness cannot run here ("" when dbus-daemon and Debian's
  /// /usr/bin/python3 with dbusmock are present).
  static const std::string& missingTools();

  MockBluez() : MockBluez(Config{}) {}
  explicit MockBluez(const Config& config);
  ~MockBluez();
  MockBluez(const MockBluez&) = delete;
  MockBluez& operator=(const MockBluez&) = delete;

  /// The private bus; also exported as LUMORA_BLUEZ_BUS while this lives.
  const std::string& address() const { return address_; }

  /// Starts the stand-in (again, after killStandIn()).
  void startStandIn(const std::string& parameters = "");
  /// SIGKILL: bluetoothd crashing.
  void killStandIn();
  /// SIGTERM to the bus daemon itself.
  void killBus();

  /// A blocking call to org.lumora.BluezMock on "/".
  template <class... Args>
  void call(const std::string& method, const Args&... args) {
    control_->callMethod(method).onInterface(kControl).withArguments(args...);
  }
  template <class Result, class... Args>
  Result ask(const std::string& method, const Args&... args) {
    Result result{};
    control_->callMethod(method).onInterface(kControl).withArguments(args...).storeResultsTo(
        result);
    return result;
  }

  nlohmann::json state();
  /// The stand-in's log (method calls, signals), for failure messages.
  std::string log() const;

 private:
  static constexpr const char* kControl = "org.lumora.BluezMock";

  TempDir dir_;
  std::string address_;
  pid_t bus_ = -1;
  int busOut_ = -1;
  pid_t standIn_ = -1;
  int standInOut_ = -1;
  std::string parameters_;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> control_;
};

}  // namespace lumora::test
