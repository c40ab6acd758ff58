// Recording event receivers and the fixture shared by the BlueZ scenario
// tests. Radio events arrive on the main run loop, which the test thread runs
// (RunLoop::main().runUntil), so the recorders need no lock.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
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

using namespace std::chrono_literals;

struct CentralRecorder final : radio::CentralEvents {
  /// A value update or a write's outcome (no value).
  struct Value {
    radio::AttHandle handle;
    Data value;
    std::optional<Error> error;
  };

  std::vector<CBManagerState> states;
  std::vector<radio::AdvertisingReport> reports;
  std::vector<radio::PeripheralId> connected;
  std::vector<std::pair<radio::PeripheralId, Error>> failed;
  std::vector<std::pair<radio::PeripheralId, std::optional<Error>>> disconnected;
  std::vector<std::pair<std::vector<radio::RemoteService>, std::optional<Error>>> services;
  std::vector<std::vector<radio::RemoteCharacteristic>> characteristics;
  std::vector<Value> values;
  std::vector<Value> written;

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
  void radioServicesDiscovered(const radio::PeripheralId&,
                               const std::vector<radio::RemoteService>& list,
                               const std::optional<Error>& error) override {
    services.emplace_back(list, error);
  }
  void radioCharacteristicsDiscovered(const radio::PeripheralId&, radio::AttHandle,
                                      const std::vector<radio::RemoteCharacteristic>& list,
                                      const std::optional<Error>&) override {
    characteristics.push_back(list);
  }
  void radioValueUpdated(const radio::PeripheralId&, radio::AttHandle handle, const Data& value,
                         const std::optional<Error>& error) override {
    values.push_back({handle, value, error});
  }
  void radioValueWritten(const radio::PeripheralId&, radio::AttHandle handle,
                         const std::optional<Error>& error) override {
    written.push_back({handle, std::nullopt, error});
  }

  std::size_t reportsFrom(const std::string& address) const {
    return std::count_if(reports.begin(), reports.end(),
                         [&](const auto& r) { return r.address == address; });
  }
  const radio::AdvertisingReport* lastFrom(const std::string& address) const {
    auto it = std::find_if(reports.rbegin(), reports.rend(),
                           [&](const auto& r) { return r.address == address; });
    return it == reports.rend() ? nullptr : &*it;
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

inline constexpr const char* kBeacon = "AA:BB:CC:DD:EE:01";
inline constexpr const char* kFF0C = "0000ff0c-0000-1000-8000-00805f9b34fb";
inline constexpr radio::ServiceToken kToken = 7;

/// The emulator's service: FF0C written by centrals, FFCC read from the
/// manager, plus FFCD with a value the radio serves itself.
inline radio::LocalService customService() {
  return {CBUUID::UUIDWithString("FFF0"),
          true,
          {{CBUUID::UUIDWithString("FF0C"), CBCharacteristicPropertyWrite,
            CBAttributePermissionsWriteable, std::nullopt},
           {CBUUID::UUIDWithString("FFCC"), CBCharacteristicPropertyRead,
            CBAttributePermissionsReadable, std::nullopt},
           {CBUUID::UUIDWithString("FFCD"), CBCharacteristicPropertyRead,
            CBAttributePermissionsReadable, Bytes{1, 2, 3}}}};
}

inline CBAdvertisementData beaconAdvertisement(const char* name = "12") {
  CBAdvertisementData ad;
  ad.localName = name;
  ad.manufacturerData = beaconFrame();
  return ad;
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

  /// Tells the stand-in's air about an advertiser (see SetAdvertiser there).
  void addDevice(const nlohmann::json& device) {
    bluez->call("SetAdvertiser", std::string("hci0"), device.dump());
  }
  /// Scans until `address` is heard, then links to it.
  void connectTo(const std::string& address) {
    central->startScan({});
    ASSERT_TRUE(until([&] { return centralEvents->reportsFrom(address) > 0; }));
    central->stopScan();
    const auto before = centralEvents->connected.size();
    central->connect(address);
    ASSERT_TRUE(until([&] { return centralEvents->connected.size() > before; }));
    EXPECT_EQ(centralEvents->connected.back(), address);
  }

  /// Runs the main loop until `done` (a failure bound, not a pause). The loop
  /// runs in short slices so that conditions only the stand-in can tell are
  /// asked again even when no event arrives.
  /// Once `done` says yes it is not asked again (some conditions act, such
  /// as a notification sent when the subscription is there).
  static bool until(const std::function<bool()>& done, std::chrono::milliseconds bound = 5s) {
    bool met = false;
    const std::function<bool()> latched = [&] { return met || (met = done()); };
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!RunLoop::main().runUntil(latched, 10ms)) {
      if (std::chrono::steady_clock::now() > deadline) return false;
    }
    return true;
  }
  /// Runs the loop until the last state the central session (and the
  /// peripheral one, when open) reported is `state`.
  bool bothEndIn(CBManagerState state) {
    return until([&] {
      const auto endsIn = [&](const auto& s) { return !s.empty() && s.back() == state; };
      return endsIn(centralEvents->states) && (!peripheral || endsIn(peripheralEvents->states));
    });
  }

  nlohmann::json hci0() { return bluez->state()["adapters"]["hci0"]; }

  /// Publishes customService() as kToken.
  void publish() {
    peripheral->addService(kToken, customService());
    ASSERT_TRUE(until([&] { return !peripheralEvents->added.empty(); }));
    ASSERT_EQ(peripheralEvents->added[0], std::pair(kToken, std::optional<Error>()));
  }
  void advertise(const CBAdvertisementData& ad) {
    const auto before = peripheralEvents->advertising.size();
    peripheral->startAdvertising(ad);
    ASSERT_TRUE(until([&] { return peripheralEvents->advertising.size() > before; }));
  }
  /// The stand-in's remote central writes `value` to the published `uuid`;
  /// waitForOp() tells how bluetoothd saw the answer.
  std::uint32_t remoteWrite(const char* uuid, const Bytes& value) {
    return bluez->ask<std::uint32_t>("RemoteWrite", std::string("hci0"), std::string(uuid),
                                     std::vector<std::uint8_t>(value), std::uint16_t{0},
                                     std::uint16_t{185});
  }
  nlohmann::json waitForOp(std::uint32_t op) {
    nlohmann::json result;
    EXPECT_TRUE(until([&] {
      result = bluez->state()["ops"][std::to_string(op)];
      return result["done"] == true;
    }));
    return result;
  }

  std::unique_ptr<MockBluez> bluez;
  std::shared_ptr<radio::Backend> backend;
  std::shared_ptr<CentralRecorder> centralEvents = std::make_shared<CentralRecorder>();
  std::shared_ptr<PeripheralRecorder> peripheralEvents = std::make_shared<PeripheralRecorder>();
  std::shared_ptr<radio::CentralRadio> central;
  std::shared_ptr<radio::PeripheralRadio> peripheral;
};

}  // namespace lumora::test
