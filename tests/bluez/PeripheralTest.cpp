// The peripheral role against the scripted bluetoothd: GATT applications,
// advertisements, and a remote central's reads and writes.
#include <gtest/gtest.h>

#include <thread>

#include "BlueZFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kFF0C = "0000ff0c-0000-1000-8000-00805f9b34fb";
constexpr const char* kFFCC = "0000ffcc-0000-1000-8000-00805f9b34fb";
constexpr const char* kFFCD = "0000ffcd-0000-1000-8000-00805f9b34fb";
constexpr radio::ServiceToken kToken = 7;

// The emulator's service: FF0C written by centrals, FFCC read from the
// manager, plus FFCD with a value the radio serves itself.
radio::LocalService customService() {
  radio::LocalService service;
  service.uuid = CBUUID::UUIDWithString("FFF0");
  service.characteristics.push_back({CBUUID::UUIDWithString("FF0C"), CBCharacteristicPropertyWrite,
                                     CBAttributePermissionsWriteable, std::nullopt});
  service.characteristics.push_back({CBUUID::UUIDWithString("FFCC"), CBCharacteristicPropertyRead,
                                     CBAttributePermissionsReadable, std::nullopt});
  service.characteristics.push_back({CBUUID::UUIDWithString("FFCD"), CBCharacteristicPropertyRead,
                                     CBAttributePermissionsReadable, Bytes{1, 2, 3}});
  return service;
}

CBAdvertisementData beaconAdvertisement() {
  CBAdvertisementData ad;
  ad.localName = "12";
  ad.manufacturerData = beaconFrame();
  return ad;
}

class PeripheralTest : public BlueZTest {
 protected:
  void publish() {
    peripheral->addService(kToken, customService());
    ASSERT_TRUE(until([&] { return !peripheralEvents->added.empty(); }));
    ASSERT_EQ(peripheralEvents->added[0].first, kToken);
    ASSERT_EQ(peripheralEvents->added[0].second, std::nullopt);
  }

  nlohmann::json waitForOp(std::uint32_t op) {
    nlohmann::json result;
    EXPECT_TRUE(eventually([&] {
      result = bluez->state()["ops"][std::to_string(op)];
      return result["done"] == true;
    }));
    return result;
  }

  std::uint32_t remoteWrite(const char* uuid, const Bytes& value, std::uint16_t mtu = 185) {
    return bluez->ask<std::uint32_t>("RemoteWrite", std::string("hci0"), std::string(uuid),
                                     std::vector<std::uint8_t>(value), std::uint16_t{0}, mtu);
  }
  std::uint32_t remoteRead(const char* uuid, std::uint16_t offset, std::uint16_t mtu) {
    return bluez->ask<std::uint32_t>("RemoteRead", std::string("hci0"), std::string(uuid), offset,
                                     mtu);
  }
};

TEST_F(PeripheralTest, PublishesServiceAndAdvertisesBeacon) {
  start();
  openPeripheral();
  EXPECT_EQ(peripheral->state(), CBManagerState::PoweredOn);
  publish();

  // One application root per service; flags exactly from the properties
  // (no write-without-response: 5.66 would acknowledge such writes itself).
  const auto apps = hci0()["apps"];
  ASSERT_EQ(apps.size(), 1u);
  std::map<std::string, nlohmann::json> flags;
  int services = 0;
  for (const auto& [path, interfaces] : apps[0]["objects"].items()) {
    if (interfaces.contains("org.bluez.GattService1")) {
      ++services;
      EXPECT_EQ(interfaces["org.bluez.GattService1"]["UUID"],
                "0000fff0-0000-1000-8000-00805f9b34fb");
      EXPECT_EQ(interfaces["org.bluez.GattService1"]["Primary"], true);
    }
    if (interfaces.contains("org.bluez.GattCharacteristic1")) {
      const auto& chr = interfaces["org.bluez.GattCharacteristic1"];
      flags[chr["UUID"]] = chr["Flags"];
    }
  }
  EXPECT_EQ(services, 1);
  EXPECT_EQ(flags[kFF0C], nlohmann::json::array({"write"}));
  EXPECT_EQ(flags[kFFCC], nlohmann::json::array({"read"}));

  peripheral->startAdvertising(beaconAdvertisement());
  ASSERT_TRUE(until([&] { return !peripheralEvents->advertising.empty(); }));
  EXPECT_EQ(peripheralEvents->advertising[0], std::nullopt);
  const auto ads = hci0()["ads"];
  ASSERT_EQ(ads.size(), 1u);
  const auto& props = ads[0]["props"];
  EXPECT_EQ(props["Type"], "peripheral");
  EXPECT_EQ(props["LocalName"], "12");
  EXPECT_EQ(props["ManufacturerData"], nlohmann::json({{"76", beaconPayloadHex()}}));
  EXPECT_FALSE(props.contains("ServiceUUIDs"));

  // Advertising anew replaces the advertisement (bluetoothd reads it once).
  auto other = beaconAdvertisement();
  other.localName = "34";
  peripheral->startAdvertising(other);
  ASSERT_TRUE(until([&] { return peripheralEvents->advertising.size() == 2; }));
  EXPECT_TRUE(eventually([&] {
    const auto now = hci0()["ads"];
    return now.size() == 1 && now[0]["props"]["LocalName"] == "34";
  }));

  peripheral->stopAdvertising();
  EXPECT_TRUE(eventually([&] { return hci0()["ads"].empty(); }));
  peripheral->removeAllServices();
  EXPECT_TRUE(eventually([&] { return hci0()["apps"].empty(); }));
}

TEST_F(PeripheralTest, RemoteWritesReachTheManagerAndResultsBecomeDBusReplies) {
  start();
  openPeripheral();
  publish();
  struct Case {
    CBATTError result;
    const char* error;    // D-Bus error name bluetoothd gets; "" for success
    const char* message;  // for org.bluez.Error.Failed: the code it carries
  };
  const Case cases[] = {
      {CBATTError::Success, "", ""},
      {CBATTError::WriteNotPermitted, "org.bluez.Error.NotPermitted", nullptr},
      {CBATTError::InsufficientAuthorization, "org.bluez.Error.NotAuthorized", nullptr},
      {CBATTError::InvalidOffset, "org.bluez.Error.InvalidOffset", nullptr},
      {CBATTError::InvalidAttributeValueLength, "org.bluez.Error.InvalidValueLength", nullptr},
      {CBATTError::RequestNotSupported, "org.bluez.Error.NotSupported", nullptr},
      {CBATTError::InsufficientEncryption, "org.bluez.Error.Failed", "0x0f"},
      {static_cast<CBATTError>(0x80), "org.bluez.Error.Failed", "0x80"},
  };
  std::uint8_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.result));
    const Bytes value{0xA0, ++n};
    const auto op = remoteWrite(kFF0C, value);
    ASSERT_TRUE(until([&] { return peripheralEvents->writes.size() == n; }));
    const auto& batch = peripheralEvents->writes.back();
    ASSERT_EQ(batch.size(), 1u);
    const auto& request = batch[0];
    EXPECT_EQ(request.value, value);
    EXPECT_EQ(request.central, "C0:FF:EE:00:00:01");
    EXPECT_EQ(request.service, kToken);
    EXPECT_EQ(request.characteristic, 0u);
    EXPECT_EQ(request.offset, 0);
    EXPECT_EQ(request.maximumUpdateValueLength, 182);
    // Managers answer from worker threads.
    std::thread([&] { peripheral->respond(request.id, c.result, std::nullopt); }).join();
    const auto result = waitForOp(op);
    if (*c.error == '\0') {
      EXPECT_FALSE(result.contains("error")) << result.dump();
    } else {
      EXPECT_EQ(result["error"], c.error);
      if (c.message != nullptr) {
        EXPECT_EQ(result["message"], c.message);
      }
    }
  }
}

TEST_F(PeripheralTest, RemoteReadsAreAnsweredWithTheManagersValue) {
  start();
  openPeripheral();
  publish();
  const auto op = remoteRead(kFFCC, 2, 23);
  ASSERT_TRUE(until([&] { return !peripheralEvents->reads.empty(); }));
  const auto request = peripheralEvents->reads[0];
  EXPECT_EQ(request.characteristic, 1u);
  EXPECT_EQ(request.offset, 2);
  EXPECT_EQ(request.maximumUpdateValueLength, 20);
  peripheral->respond(request.id, CBATTError::Success, Bytes{0xAB, 0xCD});
  EXPECT_EQ(waitForOp(op)["value"], "abcd");

  // A value given at publication is served by the radio, from the offset.
  const auto fixed = remoteRead(kFFCD, 1, 23);
  EXPECT_EQ(waitForOp(fixed)["value"], "0203");
  const auto tooFar = remoteRead(kFFCD, 4, 23);
  EXPECT_EQ(waitForOp(tooFar)["error"], "org.bluez.Error.InvalidOffset");
  EXPECT_EQ(peripheralEvents->reads.size(), 1u);

  // An answer to an unknown request changes nothing.
  peripheral->respond(request.id, CBATTError::Success, Bytes{1});
  RunLoop::main().drain();
}

TEST_F(PeripheralTest, AdvertisementsThatDoNotFitAreRefusedLocally) {
  start();
  openPeripheral();
  CBAdvertisementData ad;
  ad.manufacturerData = Bytes(30, 0x11);  // 2 + 30 bytes of AD: over the 28 left
  peripheral->startAdvertising(ad);
  ASSERT_TRUE(until([&] { return !peripheralEvents->advertising.empty(); }));
  ASSERT_TRUE(peripheralEvents->advertising[0]);
  EXPECT_EQ(peripheralEvents->advertising[0]->code, static_cast<int>(CBError::OutOfSpace));
  EXPECT_TRUE(hci0()["ads"].empty());
}

TEST_F(PeripheralTest, PowerLossWithdrawsServicesAdvertisingAndPendingRequests) {
  start();
  openPeripheral();
  publish();
  peripheral->startAdvertising(beaconAdvertisement());
  ASSERT_TRUE(until([&] { return !peripheralEvents->advertising.empty(); }));
  const auto op = remoteWrite(kFF0C, Bytes{1});
  ASSERT_TRUE(until([&] { return !peripheralEvents->writes.empty(); }));

  bluez->call("SetPowered", std::string("hci0"), false);
  ASSERT_TRUE(until([&] {
    return !peripheralEvents->states.empty() &&
           peripheralEvents->states.back() == CBManagerState::PoweredOff;
  }));
  EXPECT_EQ(peripheral->state(), CBManagerState::PoweredOff);
  // bluetoothd 5.66 would keep both across the power cycle; the backend does not.
  EXPECT_TRUE(eventually([&] {
    const auto s = hci0();
    return s["apps"].empty() && s["ads"].empty();
  }));
  EXPECT_EQ(waitForOp(op)["error"], "org.bluez.Error.Failed");

  // Refused while off, as the platform does.
  peripheral->addService(kToken + 1, customService());
  ASSERT_TRUE(until([&] { return peripheralEvents->added.size() == 2; }));
  EXPECT_TRUE(peripheralEvents->added[1].second);

  bluez->call("SetPowered", std::string("hci0"), true);
  ASSERT_TRUE(until([&] { return peripheralEvents->states.back() == CBManagerState::PoweredOn; }));
  peripheral->addService(kToken + 2, customService());
  ASSERT_TRUE(until([&] { return peripheralEvents->added.size() == 3; }));
  EXPECT_EQ(peripheralEvents->added[2].second, std::nullopt);
}

TEST_F(PeripheralTest, AdapterWithoutAdvertisingIsUnsupportedForThePeripheralRole) {
  start(MockBluez::Config::with(R"({"adapters": [{"name": "hci0", "peripheral": false}]})"));
  openPeripheral();
  openCentral();
  EXPECT_EQ(peripheral->state(), CBManagerState::Unsupported);
  EXPECT_EQ(central->state(), CBManagerState::PoweredOn);
  peripheral->addService(kToken, customService());
  ASSERT_TRUE(until([&] { return !peripheralEvents->added.empty(); }));
  EXPECT_TRUE(peripheralEvents->added[0].second);
}

TEST_F(PeripheralTest, AdvertisementReleasedByBluetoothdIsDropped) {
  start();
  openPeripheral();
  peripheral->startAdvertising(beaconAdvertisement());
  ASSERT_TRUE(until([&] { return !peripheralEvents->advertising.empty(); }));
  const auto ad = hci0()["ads"][0];
  const std::string owner = ad["sender"];
  const std::string path = ad["path"];
  const auto probe = [&] {
    return waitForOp(
        bluez->ask<std::uint32_t>("Probe", owner, path, std::string("org.bluez.LEAdvertisement1")));
  };
  EXPECT_EQ(probe()["value"]["Type"], "peripheral");

  bluez->call("ReleaseAdvertisements", std::string("hci0"));
  // The released object leaves the bus.
  EXPECT_TRUE(eventually([&] { return probe().contains("error"); }));

  // Advertising again works, and stopping withdraws only the new one.
  peripheral->startAdvertising(beaconAdvertisement());
  ASSERT_TRUE(until([&] { return peripheralEvents->advertising.size() == 2; }));
  EXPECT_EQ(peripheralEvents->advertising[1], std::nullopt);
  EXPECT_EQ(hci0()["ads"].size(), 1u);
  peripheral->stopAdvertising();
  EXPECT_TRUE(eventually([&] { return hci0()["ads"].empty(); }));
}

TEST_F(PeripheralTest, ClosingTheSessionUnregistersEverything) {
  start();
  openPeripheral();
  publish();
  peripheral->startAdvertising(beaconAdvertisement());
  ASSERT_TRUE(until([&] { return !peripheralEvents->advertising.empty(); }));
  peripheral.reset();  // dropping the session closes it
  EXPECT_TRUE(eventually([&] {
    const auto s = hci0();
    return s["apps"].empty() && s["ads"].empty();
  }));
}

}  // namespace
}  // namespace lumora::test
