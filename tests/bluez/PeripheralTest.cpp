// The peripheral role against the scripted bluetoothd: GATT applications,
// advertisements, and a remote central's reads and writes.
#include <gtest/gtest.h>

#include <thread>

#include "BlueZFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kFFCC = "0000ffcc-0000-1000-8000-00805f9b34fb";
constexpr const char* kFFCD = "0000ffcd-0000-1000-8000-00805f9b34fb";

class PeripheralTest : public BlueZTest {
 protected:
  void startPeripheral() {
    start();
    openPeripheral();
  }
  std::uint32_t remoteRead(const char* uuid, std::uint16_t offset) {
    return bluez->ask<std::uint32_t>("RemoteRead", std::string("hci0"), std::string(uuid), offset,
                                     std::uint16_t{23});
  }
};

TEST_F(PeripheralTest, PublishesServiceAndAdvertisesBeaconAndWithdrawsBoth) {
  startPeripheral();
  EXPECT_EQ(peripheral->state(), CBManagerState::PoweredOn);
  // An advertisement that does not fit is refused before bluetoothd sees it:
  // 2 + 30 bytes of AD are over the 28 left.
  CBAdvertisementData tooBig;
  tooBig.manufacturerData = Bytes(30, 0x11);
  advertise(tooBig);
  ASSERT_TRUE(peripheralEvents->advertising[0]);
  EXPECT_EQ(peripheralEvents->advertising[0]->code, static_cast<int>(CBError::OutOfSpace));
  EXPECT_TRUE(hci0()["ads"].empty());

  // One application root per service; flags exactly from the properties
  // (no write-without-response: 5.66 would acknowledge such writes itself).
  publish();
  const auto apps = hci0()["apps"];
  ASSERT_EQ(apps.size(), 1u);
  nlohmann::json seen;  // service UUID and primary, characteristic UUID -> flags
  for (const auto& [path, interfaces] : apps[0]["objects"].items()) {
    for (const auto& [name, p] : interfaces.items()) {
      if (name == "org.bluez.GattService1") seen["services"].push_back({p["UUID"], p["Primary"]});
      if (name == "org.bluez.GattCharacteristic1") seen[p["UUID"].get<std::string>()] = p["Flags"];
    }
  }
  EXPECT_EQ(seen["services"], R"([["0000fff0-0000-1000-8000-00805f9b34fb", true]])"_json);
  EXPECT_EQ(seen[kFF0C], R"(["write"])"_json);
  EXPECT_EQ(seen[kFFCC], R"(["read"])"_json);

  advertise(beaconAdvertisement());
  EXPECT_EQ(peripheralEvents->advertising[1], std::nullopt);
  const auto ads = hci0()["ads"];
  ASSERT_EQ(ads.size(), 1u);
  const auto& props = ads[0]["props"];
  EXPECT_EQ(props["Type"], "peripheral");
  EXPECT_EQ(props["LocalName"], "12");
  EXPECT_EQ(props["ManufacturerData"], nlohmann::json({{"76", beaconPayloadHex()}}));
  EXPECT_FALSE(props.contains("ServiceUUIDs"));
  // Advertising anew replaces the advertisement (bluetoothd reads it once).
  advertise(beaconAdvertisement("34"));
  EXPECT_TRUE(until([&] {
    const auto now = hci0()["ads"];
    return now.size() == 1 && now[0]["props"]["LocalName"] == "34";
  }));
  peripheral->stopAdvertising();
  EXPECT_TRUE(until([&] { return hci0()["ads"].empty(); }));
  peripheral->removeAllServices();
  EXPECT_TRUE(until([&] { return hci0()["apps"].empty(); }));

  // An advertisement bluetoothd releases leaves the bus; advertising again
  // works, and stopping withdraws only the new one.
  advertise(beaconAdvertisement());
  const auto ad = hci0()["ads"][0];
  const auto probe = [&] {
    return waitForOp(bluez->ask<std::uint32_t>("Probe", ad["sender"].get<std::string>(),
                                               ad["path"].get<std::string>(),
                                               std::string("org.bluez.LEAdvertisement1")));
  };
  EXPECT_EQ(probe()["value"]["Type"], "peripheral");
  bluez->call("ReleaseAdvertisements", std::string("hci0"));
  EXPECT_TRUE(until([&] { return probe().contains("error"); }));
  advertise(beaconAdvertisement());
  EXPECT_EQ(peripheralEvents->advertising.back(), std::nullopt);
  EXPECT_EQ(hci0()["ads"].size(), 1u);
  peripheral->stopAdvertising();
  EXPECT_TRUE(until([&] { return hci0()["ads"].empty(); }));

  // Dropping the session closes it, which unregisters everything.
  peripheral->addService(kToken + 1, customService());
  advertise(beaconAdvertisement());
  ASSERT_TRUE(until([&] { return !hci0()["apps"].empty() && !hci0()["ads"].empty(); }));
  peripheral.reset();
  EXPECT_TRUE(until([&] {
    const auto s = hci0();
    return s["apps"].empty() && s["ads"].empty();
  }));
}

TEST_F(PeripheralTest, RemoteRequestsReachTheManagerAndItsAnswersBecomeDBusReplies) {
  startPeripheral();
  publish();
  const struct {
    CBATTError result;
    const char* error;    // D-Bus error name bluetoothd gets; "" for success
    const char* message;  // for org.bluez.Error.Failed: the code it carries
  } cases[] = {
      {CBATTError::Success, "", ""},
      {CBATTError::WriteNotPermitted, "org.bluez.Error.NotPermitted", nullptr},
      {CBATTError::InsufficientEncryption, "org.bluez.Error.Failed", "0x0f"},
  };
  std::uint8_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.result));
    const Bytes value{0xA0, ++n};
    const auto op = remoteWrite(kFF0C, value);
    ASSERT_TRUE(until([&] { return peripheralEvents->writes.size() == n; }));
    ASSERT_EQ(peripheralEvents->writes.back().size(), 1u);
    const auto request = peripheralEvents->writes.back()[0];
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

  // Reads are answered with the manager's value.
  const auto op = remoteRead(kFFCC, 2);
  ASSERT_TRUE(until([&] { return !peripheralEvents->reads.empty(); }));
  const auto request = peripheralEvents->reads[0];
  EXPECT_EQ(request.characteristic, 1u);
  EXPECT_EQ(request.offset, 2);
  EXPECT_EQ(request.maximumUpdateValueLength, 20);
  peripheral->respond(request.id, CBATTError::Success, Bytes{0xAB, 0xCD});
  EXPECT_EQ(waitForOp(op)["value"], "abcd");
  // A value given at publication is served by the radio, from the offset.
  EXPECT_EQ(waitForOp(remoteRead(kFFCD, 1))["value"], "0203");
  EXPECT_EQ(waitForOp(remoteRead(kFFCD, 4))["error"], "org.bluez.Error.InvalidOffset");
  EXPECT_EQ(peripheralEvents->reads.size(), 1u);
  // An answer to an unknown request changes nothing.
  peripheral->respond(request.id, CBATTError::Success, Bytes{1});
  RunLoop::main().drain();
}

TEST_F(PeripheralTest, AdapterWithoutAdvertisingIsUnsupportedForThePeripheralRole) {
  start({.parameters = R"({"adapters": [{"name": "hci0", "peripheral": false}]})"});
  openPeripheral();
  openCentral();
  EXPECT_EQ(peripheral->state(), CBManagerState::Unsupported);
  EXPECT_EQ(central->state(), CBManagerState::PoweredOn);
  peripheral->addService(kToken, customService());
  ASSERT_TRUE(until([&] { return !peripheralEvents->added.empty(); }));
  EXPECT_TRUE(peripheralEvents->added[0].second);
}

}  // namespace
}  // namespace lumora::test
