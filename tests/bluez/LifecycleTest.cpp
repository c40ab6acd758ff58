// Making the radio, the adapter's power, bluetoothd and the bus coming and
// going, and the ranging feed.
#include <gtest/gtest.h>

#include "BlueZFixture.h"

namespace lumora::test {
namespace {

class LifecycleTest : public BlueZTest {
 protected:
  void addBeacon(const char* connect = "accept") {
    addDevice({{"address", kBeacon},
               {"rssi", -60},
               {"manufacturer", {{"76", beaconPayloadHex()}}},
               {"connect", connect}});
  }
};

TEST_F(LifecycleTest, MakingTheRadioExplainsWhyItCannot) {
  const struct {
    MockBluez::Config config;
    const char* adapter;
    const char* explanation;
  } cases[] = {
      {{.startStandIn = false}, "", "bluetoothd is not running"},
      {{.parameters = R"({"adapters": []})"}, "", "no Bluetooth adapter found"},
      {{}, "hci7", "Bluetooth adapter \"hci7\" not found"},
      {{.denyBluez = true}, "", "permission denied"},
      {{.parameters =
            R"({"adapters": [{"name": "hci0", "powered": false, "props": {"PowerState": "off-blocked"}}]})"},
       "",
       "blocked by rfkill"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.explanation);
    MockBluez bus(c.config);
    try {
      bluez::makeBackend(c.adapter);
      ADD_FAILURE() << "no error";
    } catch (const radio::BackendError& e) {
      EXPECT_NE(std::string(e.what()).find(c.explanation), std::string::npos) << e.what();
      EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
    }
    RunLoop::main().drain();
  }
}

TEST_F(LifecycleTest, AdapterIsChosenByNameOrAddressAndMayComeAndGo) {
  start({.parameters = R"({"adapters": [
      {"name": "hci0", "address": "00:AA:01:00:00:00"},
      {"name": "hci1", "address": "00:AA:01:01:00:01", "powered": false}]})"});
  EXPECT_EQ(backend->name(), "bluez:hci0");
  EXPECT_EQ(backend->adapterState(), CBManagerState::PoweredOn);
  EXPECT_EQ(backend->locationAuthorizationStatus(), 3);
  for (const char* selector : {"hci1", "00:aa:01:01:00:01"}) {
    SCOPED_TRACE(selector);
    auto other = bluez::makeBackend(selector);
    EXPECT_EQ(other->name(), "bluez:hci1");
    EXPECT_EQ(other->adapterState(), CBManagerState::PoweredOff);
  }
  // Unplugged and back.
  openCentral();
  bluez->call("RemoveAdapter", std::string("hci0"));
  ASSERT_TRUE(bothEndIn(CBManagerState::Unsupported));
  bluez->call("AddAdapter", std::string(R"({"name": "hci0"})"));
  ASSERT_TRUE(bothEndIn(CBManagerState::PoweredOn));
}

TEST_F(LifecycleTest, PowerCycleEndsLinksScansRegistrationsAndPendingRequests) {
  start();
  openCentral();
  openPeripheral();
  addBeacon();
  connectTo(kBeacon);
  central->startScan({});
  publish();
  advertise(beaconAdvertisement());
  const auto op = remoteWrite(kFF0C, Bytes{1});
  ASSERT_TRUE(until([&] { return !peripheralEvents->writes.empty(); }));
  ASSERT_EQ(hci0()["startCount"], 2);

  bluez->call("SetPowered", std::string("hci0"), false);
  ASSERT_TRUE(bothEndIn(CBManagerState::PoweredOff));
  EXPECT_EQ(backend->adapterState(), CBManagerState::PoweredOff);
  EXPECT_EQ(peripheral->state(), CBManagerState::PoweredOff);
  ASSERT_EQ(centralEvents->disconnected.size(), 1u);
  EXPECT_EQ(centralEvents->disconnected[0].second->code,
            static_cast<int>(CBError::PeripheralDisconnected));
  // bluetoothd 5.66 would keep both registrations across the power cycle; the
  // backend does not, and the pending request fails.
  EXPECT_TRUE(until([&] {
    const auto s = hci0();
    return s["apps"].empty() && s["ads"].empty();
  }));
  EXPECT_EQ(waitForOp(op)["error"], "org.bluez.Error.Failed");
  // While off a scan is dropped and a service refused, as on the platform.
  central->startScan({});
  peripheral->addService(kToken + 1, customService());
  ASSERT_TRUE(until([&] { return peripheralEvents->added.size() == 2; }));
  EXPECT_TRUE(peripheralEvents->added[1].second);

  bluez->call("SetPowered", std::string("hci0"), true);
  ASSERT_TRUE(bothEndIn(CBManagerState::PoweredOn));
  EXPECT_EQ(hci0()["startCount"], 2);  // the scan ended with the power
  // A new scan sets the filter again (bluetoothd dropped it at power-off).
  const std::size_t filtersBefore = hci0()["filters"].size();
  central->startScan({});
  EXPECT_TRUE(until([&] {
    const auto s = hci0();
    return s["startCount"] == 3 && s["filters"].size() == filtersBefore + 1;
  }));
  peripheral->addService(kToken + 2, customService());
  ASSERT_TRUE(until([&] { return peripheralEvents->added.size() == 3; }));
  EXPECT_EQ(peripheralEvents->added[2].second, std::nullopt);
}

TEST_F(LifecycleTest, BluetoothdCrashResetsAndRecovers) {
  start();
  openCentral();
  openPeripheral();
  addBeacon();
  connectTo(kBeacon);
  bluez->killStandIn();
  ASSERT_TRUE(bothEndIn(CBManagerState::Resetting));
  ASSERT_EQ(centralEvents->disconnected.size(), 1u);
  EXPECT_TRUE(centralEvents->disconnected[0].second);

  bluez->startStandIn();
  ASSERT_TRUE(bothEndIn(CBManagerState::PoweredOn));
  // The new bluetoothd is used: a scan reaches it and hears the air again.
  addBeacon();
  centralEvents->reports.clear();
  central->startScan({});
  EXPECT_TRUE(until([&] { return centralEvents->reportsFrom(kBeacon) > 0; }));
}

TEST_F(LifecycleTest, BluetoothdThatStaysAwayEndsUnsupported) {
  bluez::Options options;
  options.restartGrace = 100ms;
  start({}, options);
  openCentral();
  bluez->killStandIn();
  ASSERT_TRUE(bothEndIn(CBManagerState::Unsupported));
  EXPECT_EQ(centralEvents->states,
            (std::vector<CBManagerState>{CBManagerState::Resetting, CBManagerState::Unsupported}));
}

TEST_F(LifecycleTest, LosingTheBusEndsUnsupported) {
  start();
  openCentral();
  bluez->killBus();
  ASSERT_TRUE(bothEndIn(CBManagerState::Unsupported));
  // Sessions still answer, with failures, and nothing crashes.
  central->connect(kBeacon);
  ASSERT_TRUE(until([&] { return !centralEvents->failed.empty(); }));
}

TEST_F(LifecycleTest, RangingRestartsDiscoveryWhenReportsAreSparse) {
  bluez::Options options;
  options.rangingCycle = 100ms;
  start({}, options);
  // Like a controller's duplicate filter: each advertiser once per discovery.
  bluez->call("SetReportMode", std::string("hci0"), std::string("once"));
  addBeacon("refuse");
  std::vector<radio::AdvertisingReport> seen;
  auto observation = backend->observeAdvertisements(
      [&seen](const radio::AdvertisingReport& report) { seen.push_back(report); });
  ASSERT_TRUE(until([&] { return seen.size() >= 3; }));
  EXPECT_EQ(seen.back().address, kBeacon);
  EXPECT_EQ(seen.back().advertisement.manufacturerData, Data(beaconFrame()));
  const auto s = hci0();
  EXPECT_GE(s["startCount"].get<int>(), 3);
  EXPECT_EQ(s["filters"].back()["DuplicateData"], true);
  observation.reset();
  EXPECT_TRUE(until([&] { return hci0()["sessions"].empty(); }));
}

}  // namespace
}  // namespace lumora::test
