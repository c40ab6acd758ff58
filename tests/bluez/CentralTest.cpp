// The central role against the scripted bluetoothd: discovery reports, links,
// the GATT client and how failures surface.
#include <gtest/gtest.h>

#include <map>

#include "BlueZFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kOther = "AA:BB:CC:DD:EE:02";
constexpr const char* kCharFF0C = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service000a/char000b";
constexpr const char* kCharFFCC = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service000a/char000d";

constexpr const char* k180F = "0000180f-0000-1000-8000-00805f9b34fb";

// A connectable beacon with a small GATT database: service FFF0 at 0x000a,
// FF0C (write) at 0x000b, FFCC (read, notify) at 0x000d.
nlohmann::json beaconDevice(const std::string& connect = "accept") {
  auto device = nlohmann::json::parse(R"({"address": "AA:BB:CC:DD:EE:01", "name": "12",
      "rssi": -42, "gatt": [{"uuid": "0000fff0-0000-1000-8000-00805f9b34fb", "handle": 10,
        "characteristics": [
          {"uuid": "0000ff0c-0000-1000-8000-00805f9b34fb", "handle": 11, "flags": ["write"]},
          {"uuid": "0000ffcc-0000-1000-8000-00805f9b34fb", "handle": 13,
           "flags": ["read", "notify"], "value": "0102"}]}]})");
  device["manufacturer"] = {{"76", beaconPayloadHex()}};
  device["connect"] = connect;
  return device;
}

class CentralTest : public BlueZTest {
 protected:
  void startCentral(bluez::Options options = {}) {
    start({}, options);
    openCentral();
  }
};

TEST_F(CentralTest, ReportsCarryNameManufacturerDataAndRssi) {
  startCentral();
  addDevice(beaconDevice());
  addDevice({{"address", kOther}, {"rssi", -80}});
  central->startScan({});
  ASSERT_TRUE(until([&] {
    return centralEvents->reportsFrom(kBeacon) > 0 && centralEvents->reportsFrom(kOther) > 0;
  }));
  const auto* beacon = centralEvents->lastFrom(kBeacon);
  EXPECT_EQ(beacon->advertisement.localName, std::optional<std::string>("12"));
  EXPECT_EQ(beacon->advertisement.manufacturerData, Data(beaconFrame()));
  EXPECT_EQ(beacon->rssi, -42);
  // No name advertised: BlueZ's address-shaped Alias is not taken for one.
  const auto* other = centralEvents->lastFrom(kOther);
  EXPECT_EQ(other->advertisement.localName, std::nullopt);
  EXPECT_EQ(other->advertisement.manufacturerData, std::nullopt);
  EXPECT_EQ(other->rssi, -80);
  // Always an LE filter, so that non-discoverable beacons are reported.
  const auto filters = hci0()["filters"];
  ASSERT_FALSE(filters.empty());
  EXPECT_EQ(filters.back()["Transport"], "le");
  EXPECT_EQ(filters.back()["DuplicateData"], false);

  // A later report follows the signal.
  addDevice({{"address", kBeacon}, {"rssi", -71}});
  ASSERT_TRUE(until([&] { return centralEvents->lastFrom(kBeacon)->rssi == -71; }));
  central->stopScan();
  EXPECT_TRUE(until([&] {
    const auto s = hci0();
    return s["sessions"].empty() && s["stopCount"] == 1;
  }));
}

TEST_F(CentralTest, ServiceFilteredScanAsksBluezAndDropsOtherAdvertisers) {
  startCentral();
  addDevice({{"address", kBeacon}, {"rssi", -50}, {"uuids", {k180F}}});
  addDevice({{"address", kOther}, {"rssi", -50}});
  radio::ScanParameters scan;
  scan.services = std::vector<CBUUID>{CBUUID::UUIDWithString("180F")};
  scan.allowDuplicates = true;
  central->startScan(scan);
  // Several reports of the match give the other advertiser time to show up.
  ASSERT_TRUE(until([&] { return centralEvents->reportsFrom(kBeacon) >= 3; }));
  EXPECT_EQ(centralEvents->reportsFrom(kOther), 0u);
  const auto filter = hci0()["filters"].back();
  EXPECT_EQ(filter["UUIDs"], nlohmann::json::array({k180F}));
  EXPECT_EQ(filter["DuplicateData"], true);
}

TEST_F(CentralTest, LinkServicesReadWriteNotifyFailuresAndCancel) {
  startCentral();
  addDevice(beaconDevice());
  connectTo(kBeacon);
  central->discoverServices(kBeacon, std::nullopt);
  ASSERT_TRUE(until([&] { return !centralEvents->services.empty(); }));
  const auto& [services, servicesError] = centralEvents->services.front();
  EXPECT_EQ(servicesError, std::nullopt);
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(std::tuple(services[0].handle, services[0].uuid, services[0].primary),
            std::tuple(0x000a, CBUUID::UUIDWithString("FFF0"), true));

  central->discoverCharacteristics(kBeacon, 0x000a, std::nullopt);
  ASSERT_TRUE(until([&] { return !centralEvents->characteristics.empty(); }));
  const auto& chars = centralEvents->characteristics.front();
  ASSERT_EQ(chars.size(), 2u);
  EXPECT_EQ(std::tuple(chars[0].handle, chars[0].uuid, chars[0].properties),
            std::tuple(0x000b, CBUUID::UUIDWithString("FF0C"), CBCharacteristicPropertyWrite));
  EXPECT_EQ(std::tuple(chars[1].handle, chars[1].properties),
            std::tuple(0x000d, CBCharacteristicPropertyRead | CBCharacteristicPropertyNotify));

  // Back to back: bluetoothd refuses a write while one to the same
  // characteristic is unanswered, so the radio must send them in turn.
  central->write(kBeacon, 0x000b, Bytes{1, 2, 3}, true);
  central->write(kBeacon, 0x000b, Bytes{4}, true);
  central->write(kBeacon, 0x000b, Bytes{5, 6}, true);
  central->read(kBeacon, 0x000d);
  ASSERT_TRUE(
      until([&] { return centralEvents->written.size() == 3 && !centralEvents->values.empty(); }));
  for (const auto& w : centralEvents->written) {
    EXPECT_EQ(w.handle, 0x000b);
    EXPECT_EQ(w.error, std::nullopt);
  }
  std::vector<std::string> writes;
  const auto state = hci0();
  for (const auto& w : state["writes"][kCharFF0C]) {
    writes.push_back(w["value"]);
    EXPECT_EQ(w["options"]["type"], "request");
  }
  EXPECT_EQ(writes, (std::vector<std::string>{"010203", "04", "0506"}));
  EXPECT_EQ(centralEvents->values[0].handle, 0x000d);
  EXPECT_EQ(centralEvents->values[0].value, Data(Bytes{1, 2}));

  // The backend subscribed to FFCC when it found it; a notification arrives
  // as one more value, while the echo of the read above did not.
  ASSERT_TRUE(until([&] {
    return bluez->ask<bool>("Notify", std::string(kCharFFCC), std::vector<std::uint8_t>{9, 9});
  }));
  ASSERT_TRUE(until([&] { return centralEvents->values.size() >= 2; }));
  EXPECT_EQ(centralEvents->values[1].value, Data(Bytes{9, 9}));
  EXPECT_EQ(centralEvents->values.size(), 2u);

  // GATT failures arrive as ATT errors, an unknown handle as a link-layer one.
  bluez->call("SetCharacteristicError", std::string(kCharFFCC), std::string("read"),
              std::string("org.bluez.Error.NotPermitted"), std::string("Read not permitted"));
  bluez->call("SetCharacteristicError", std::string(kCharFF0C), std::string("write"),
              std::string("org.bluez.Error.Failed"),
              std::string("Operation failed with ATT error: 0x81"));
  centralEvents->values.clear();
  centralEvents->written.clear();
  central->read(kBeacon, 0x000d);
  central->write(kBeacon, 0x000b, Bytes{1}, true);
  central->read(kBeacon, 0x0042);
  ASSERT_TRUE(until(
      [&] { return centralEvents->values.size() == 2 && centralEvents->written.size() == 1; }));
  std::map<radio::AttHandle, std::pair<std::string, int>> errors;
  for (const auto& v : centralEvents->values) {
    EXPECT_EQ(v.value, std::nullopt);
    ASSERT_TRUE(v.error);
    errors[v.handle] = {v.error->domain, v.error->code};
  }
  ASSERT_TRUE(centralEvents->written[0].error);
  errors[0x000b] = {centralEvents->written[0].error->domain, centralEvents->written[0].error->code};
  EXPECT_EQ(errors,
            (std::map<radio::AttHandle, std::pair<std::string, int>>{
                {0x000b, {CBATTErrorDomain, 0x81}},
                {0x000d, {CBATTErrorDomain, static_cast<int>(CBATTError::ReadNotPermitted)}},
                {0x0042, {CBErrorDomain, static_cast<int>(CBError::InvalidHandle)}}}));

  central->cancelConnection(kBeacon);
  ASSERT_TRUE(until([&] { return !centralEvents->disconnected.empty(); }));
  EXPECT_EQ(centralEvents->disconnected[0],
            std::pair(std::string(kBeacon), std::optional<Error>()));
  EXPECT_EQ(hci0()["disconnectCalls"], 1);
}

TEST_F(CentralTest, ConnectionFailures) {
  const struct {
    const char* behaviour;
    CBError code;
    bool cancelsAttempt;  // Disconnect is how BlueZ is told to give up
  } cases[] = {{"ignore", CBError::ConnectionTimeout, true},
               {"refuse", CBError::ConnectionFailed, false}};
  bluez::Options options;
  options.connectTimeout = 200ms;
  startCentral(options);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.behaviour);
    centralEvents->failed.clear();
    const int disconnectsBefore = hci0()["disconnectCalls"];
    addDevice(beaconDevice(c.behaviour));
    central->startScan({});
    ASSERT_TRUE(until([&] { return centralEvents->reportsFrom(kBeacon) > 0; }));
    central->stopScan();
    central->connect(kBeacon);
    ASSERT_TRUE(until([&] { return !centralEvents->failed.empty(); }));
    EXPECT_EQ(centralEvents->failed[0].first, kBeacon);
    EXPECT_EQ(centralEvents->failed[0].second.domain, CBErrorDomain);
    EXPECT_EQ(centralEvents->failed[0].second.code, static_cast<int>(c.code));
    if (c.cancelsAttempt) {
      EXPECT_TRUE(until([&] { return hci0()["disconnectCalls"] == disconnectsBefore + 1; }));
    }
    EXPECT_TRUE(centralEvents->connected.empty());
  }
  // A peripheral bluetoothd never heard of.
  centralEvents->failed.clear();
  central->connect("AA:BB:CC:DD:EE:99");
  ASSERT_TRUE(until([&] { return !centralEvents->failed.empty(); }));
  EXPECT_EQ(centralEvents->failed[0].second.code, static_cast<int>(CBError::ConnectionFailed));
}

TEST_F(CentralTest, DroppedLinkIsADisconnectionWithErrorAndClosingEndsEverythingQuietly) {
  startCentral();
  addDevice(beaconDevice());
  connectTo(kBeacon);
  bluez->call("DropLink", std::string("hci0"), std::string(kBeacon));
  ASSERT_TRUE(until([&] { return !centralEvents->disconnected.empty(); }));
  const auto& error = centralEvents->disconnected[0].second;
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, static_cast<int>(CBError::PeripheralDisconnected));
  // Requests on the dead link fail at once instead of waiting for bluetoothd.
  central->read(kBeacon, 0x000d);
  ASSERT_TRUE(until([&] { return !centralEvents->values.empty(); }));
  EXPECT_EQ(centralEvents->values[0].error->code, static_cast<int>(CBError::NotConnected));

  // Closing the session ends its scan and links without telling anyone.
  connectTo(kBeacon);
  central->startScan({});
  ASSERT_TRUE(until([&] { return hci0()["sessions"].size() == 1; }));
  const int disconnectsBefore = hci0()["disconnectCalls"];
  central->close();
  EXPECT_TRUE(until([&] {
    const auto s = hci0();
    return s["sessions"].empty() && s["disconnectCalls"] == disconnectsBefore + 1;
  }));
  RunLoop::main().drain();
  EXPECT_EQ(centralEvents->disconnected.size(), 1u);
}

}  // namespace
}  // namespace lumora::test
