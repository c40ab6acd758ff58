// Recording event receivers and the fixture shared by the BlueZ scenario
// tests. Radio events arrive on the main run loop, which the test thread runs
// (RunLoop::main().runUntil), so the recorders need no lock.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "Foundation/RunLoop.h"
#include "MockBluez.h"
#include "backends/bluez/BlueZBackend.h"

namespace lumora::test {

struct CentralRecorder final : radio::CentralEvents {
  struct Services {
    radio::PeripheralId peripheral;
    std::vector<radio::RemoteService> services;
    std::optional<Error> error;
  };
  struct Characteristics {
    radio::PeripheralId peripheral;
    radio::AttHandle service;
    std::vector<radio::RemoteCharacteristic> characteristics;
    std::optional<Error> error;
  };
  struct Value {
    radio::PeripheralId peripheral;
    radio::AttHandle handle;
    Data value;
    std::optional<Error> error;
  };
  struct Written {
    radio::PeripheralId peripheral;
    radio::AttHandle handle;
    std::optional<Error> error;
  };

  std::vector<CBManagerState> states;
  std::vector<radio::AdvertisingReport> reports;
  std::vector<radio::PeripheralId> connected;
  std::vector<std::pair<radio::PeripheralId, Error>> failed;
  std::vector<std::pair<radio::PeripheralId, std::optional<Error>>> disconnected;
  std::vector<Services> services;
  std::vector<Characteristics> characteristics;
  std::vector<Value> values;
  std::vector<Written> written;

  void radioStateChanged(CBManagerState state) override { states.push_back(state); }
  void radioDiscovered(const radio::AdvertisingReport& report) override {
    reports.push_back(report);
  }
  void radioConnected(const radio::PeripheralId& p) override { connected.push_back(p); }
  void radioConnectFailed(const radio::PeripheralId& p, const Error& error) override {
    failed.emplace_back(p, error);
  }
  void radioDisconnected(const radio::PeripheralId& p, const std::optional<Error>& error) override {
    disconnected.emplace_back(p, error);
  }
  void radioServicesDiscovered(const radio::PeripheralId& p,
                               const std::vector<radio::RemoteService>& list,
                               const std::optional<Error>& error) override {
    services.push_back({p, list, error});
  }
  void radioCharacteristicsDiscovered(const radio::PeripheralId& p, radio::AttHandle service,
                                      const std::vector<radio::RemoteCharacteristic>& list,
                                      const std::optional<Error>& error) override {
    characteristics.push_back({p, service, list, error});
  }
  void radioValueUpdated(const radio::PeripheralId& p, radio::AttHandle handle, const Data& value,
                         const std::optional<Error>& error) override {
    values.push_back({p, handle, value, error});
  }
  void radioValueWritten(const radio::PeripheralId& p, radio::AttHandle handle,
                         const std::optional<Error>& error) override {
    written.push_back({p, handle, error});
  }

  std::size_t reportsFrom(const std::string& address) const {
    std::size_t n = 0;
    for (const auto& r : reports) n += r.address == address ? 1 : 0;
    return n;
  }
  const radio::AdvertisingReport* lastFrom(const std::string& address) const {
    for (auto it = reports.rbegin(); it != reports.rend(); ++it) {
      if (it->address == address) return &*it;
    }
    return nullptr;
  }
};

struct PeripheralRecorder final : radio::PeripheralEvents {
  std::vector<CBManagerState> states;
  std::vector<std::pair<radio::ServiceToken, std::optional<Error>>> added;
  std::vector<std::optional<Error>> advertising;
  std::vector<radio::AttRequest> reads;
  std::vector<std::vector<radio::AttRequest>> writes;

  void radioStateChanged(CBManagerState state) override { states.push_back(state); }
  void radioServiceAdded(radio::ServiceToken token, const std::optional<Error>& error) override {
    added.emplace_back(token, error);
  }
  void radioAdvertisingStarted(const std::optional<Error>& error) override {
    advertising.push_back(error);
  }
  void radioReadRequest(const radio::AttRequest& request) override { reads.push_back(request); }
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override {
    writes.push_back(requests);
  }
};

/// iBeacon manufacturer data as the platform hands it out: company 0x004C
/// little-endian, type 0x02, length 0x15, UUID, major 1, minor 2, power -59.
inline Bytes beaconFrame() {
  return *bytesFromHex("4C00 0215 E2C56DB5DFFB48D2B060D0F5A71096E0 0001 0002 C5");
}
/// The same as the stand-in's JSON wants it: {"76": bytes after the company id}.
inline const char* beaconPayloadHex() {
  return "0215e2c56db5dffb48d2b060d0f5a71096e000010002c5";
}

class BlueZTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!MockBluez::missingTools().empty()) GTEST_SKIP() << MockBluez::missingTools();
  }

  void TearDown() override {
    // What the stand-in saw explains most failures.
    if (HasFailure() && bluez) std::cerr << "--- bluetoothd stand-in log ---\n" << bluez->log();
    central.reset();
    peripheral.reset();
    backend.reset();
    RunLoop::main().drain();  // the engine closes its connection on the loop
    bluez.reset();
    RunLoop::main().drain();
  }

  void start(const MockBluez::Config& config = {}, bluez::Options options = {}) {
    bluez = std::make_unique<MockBluez>(config);
    backend = bluez::makeBackend(options);
  }

  void openCentral() { central = backend->openCentral(centralEvents); }
  void openPeripheral() { peripheral = backend->openPeripheral(peripheralEvents); }

  /// Runs the main loop until `done` (a failure bound, not a pause).
  static bool until(const std::function<bool()>& done,
                    std::chrono::milliseconds bound = std::chrono::seconds(5)) {
    return RunLoop::main().runUntil(done, bound);
  }
  /// For conditions only the stand-in can tell: runs the loop in short
  /// slices, asking in between.
  static bool eventually(const std::function<bool()>& done,
                         std::chrono::milliseconds bound = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      RunLoop::main().runFor(std::chrono::milliseconds(10));
    }
    return true;
  }

  nlohmann::json hci0() { return bluez->state()["adapters"]["hci0"]; }

  std::unique_ptr<MockBluez> bluez;
  std::shared_ptr<radio::Backend> backend;
  std::shared_ptr<CentralRecorder> centralEvents = std::make_shared<CentralRecorder>();
  std::shared_ptr<PeripheralRecorder> peripheralEvents = std::make_shared<PeripheralRecorder>();
  std::shared_ptr<radio::CentralRadio> central;
  std::shared_ptr<radio::PeripheralRadio> peripheral;
};

}  // namespace lumora::test
