// Making the radio, the adapter's power, bluetoothd and the bus coming and
// going, and the ranging feed.
#include <gtest/gtest.h>

#include "BlueZFixture.h"

namespace lumora::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kBeacon = "AA:BB:CC:DD:EE:01";

class LifecycleTest : public BlueZTest {
 protected:
  void addBeacon(bool connectable = true) {
    nlohmann::json device{{"address", kBeacon},
                          {"rssi", -60},
                          {"manufacturer", {{"76", beaconPayloadHex()}}},
                          {"connect", connectable ? "accept" : "refuse"}};
    bluez->call("SetAdvertiser", std::string("hci0"), device.dump());
  }
  void connectBeacon() {
    addBeacon();
    central->startScan({});
    ASSERT_TRUE(until([&] { return centralEvents->reportsFrom(kBeacon) > 0; }));
    central->connect(kBeacon);
    ASSERT_TRUE(until([&] { return !centralEvents->connected.empty(); }));
  }
  static bool endsWith(const std::vector<CBManagerState>& states, CBManagerState state) {
    return !states.empty() && states.back() == state;
  }
};

TEST_F(LifecycleTest, MakingTheRadioExplainsWhyItCannot) {
  struct Case {
    const char* name;
    MockBluez::Config config;
    const char* adapter;
    const char* explanation;
  };
  const Case cases[] = {
      {"no bluetoothd", MockBluez::Config::withoutBluetoothd(), "", "bluetoothd is not running"},
      {"no adapter", MockBluez::Config::with(R"({"adapters": []})"), "",
       "no Bluetooth adapter found"},
      {"unknown adapter", {}, "hci7", "Bluetooth adapter \"hci7\" not found"},
      {"policy", MockBluez::Config::denyingBluez(), "", "permission denied"},
      {"rfkill",
       MockBluez::Config::with(
           R"({"adapters": [{"name": "hci0", "powered": false, "props": {"PowerState": "off-blocked"}}]})"),
       "", "blocked by rfkill"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
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

TEST_F(LifecycleTest, AdapterIsChosenByNameOrAddress) {
  const char* twoAdapters = R"({"adapters": [
      {"name": "hci0", "address": "00:AA:01:00:00:00"},
      {"name": "hci1", "address": "00:AA:01:01:00:01", "powered": false}]})";
  start(MockBluez::Config::with(twoAdapters));
  EXPECT_EQ(backend->name(), "bluez:hci0");
  EXPECT_EQ(backend->adapterState(), CBManagerState::PoweredOn);
  for (const char* selector : {"hci1", "00:aa:01:01:00:01"}) {
    SCOPED_TRACE(selector);
    auto other = bluez::makeBackend(selector);
    EXPECT_EQ(other->name(), "bluez:hci1");
    EXPECT_EQ(other->adapterState(), CBManagerState::PoweredOff);
  }
  EXPECT_EQ(backend->locationAuthorizationStatus(), 3);
}

TEST_F(LifecycleTest, PowerCycleEndsLinksAndScansAndReportsStates) {
  start();
  openCentral();
  openPeripheral();
  connectBeacon();
  ASSERT_EQ(hci0()["startCount"], 1);

  bluez->call("SetPowered", std::string("hci0"), false);
  ASSERT_TRUE(until([&] {
    return endsWith(centralEvents->states, CBManagerState::PoweredOff) &&
           endsWith(peripheralEvents->states, CBManagerState::PoweredOff);
  }));
  EXPECT_EQ(backend->adapterState(), CBManagerState::PoweredOff);
  ASSERT_EQ(centralEvents->disconnected.size(), 1u);
  EXPECT_EQ(centralEvents->disconnected[0].second->code,
            static_cast<int>(CBError::PeripheralDisconnected));
  // Starting a scan while off is dropped, as on the platform.
  central->startScan({});

  bluez->call("SetPowered", std::string("hci0"), true);
  ASSERT_TRUE(until([&] {
    return endsWith(centralEvents->states, CBManagerState::PoweredOn) &&
           endsWith(peripheralEvents->states, CBManagerState::PoweredOn);
  }));
  EXPECT_EQ(hci0()["startCount"], 1);  // the scan ended with the power

  // A new scan sets the filter again (bluetoothd dropped it at power-off).
  const std::size_t filtersBefore = hci0()["filters"].size();
  central->startScan({});
  EXPECT_TRUE(eventually([&] {
    const auto s = hci0();
    return s["startCount"] == 2 && s["filters"].size() == filtersBefore + 1;
  }));
}

TEST_F(LifecycleTest, BluetoothdCrashResetsAndRecovers) {
  start();
  openCentral();
  openPeripheral();
  connectBeacon();

  bluez->killStandIn();
  ASSERT_TRUE(until([&] {
    return endsWith(centralEvents->states, CBManagerState::Resetting) &&
           endsWith(peripheralEvents->states, CBManagerState::Resetting);
  }));
  ASSERT_EQ(centralEvents->disconnected.size(), 1u);
  EXPECT_TRUE(centralEvents->disconnected[0].second);

  bluez->startStandIn();
  ASSERT_TRUE(until([&] {
    return endsWith(centralEvents->states, CBManagerState::PoweredOn) &&
           endsWith(peripheralEvents->states, CBManagerState::PoweredOn);
  }));
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
  ASSERT_TRUE(until([&] { return endsWith(centralEvents->states, CBManagerState::Unsupported); }));
  EXPECT_EQ(centralEvents->states,
            (std::vector<CBManagerState>{CBManagerState::Resetting, CBManagerState::Unsupported}));
}

TEST_F(LifecycleTest, LosingTheBusEndsUnsupported) {
  start();
  openCentral();
  bluez->killBus();
  ASSERT_TRUE(until([&] { return endsWith(centralEvents->states, CBManagerState::Unsupported); }));
  // Sessions still answer, with failures, and nothing crashes.
  central->connect(kBeacon);
  ASSERT_TRUE(until([&] { return !centralEvents->failed.empty(); }));
}

TEST_F(LifecycleTest, AdapterUnpluggedAndBack) {
  start();
  openCentral();
  bluez->call("RemoveAdapter", std::string("hci0"));
  ASSERT_TRUE(until([&] { return endsWith(centralEvents->states, CBManagerState::Unsupported); }));
  bluez->call("AddAdapter", std::string(R"({"name": "hci0"})"));
  ASSERT_TRUE(until([&] { return endsWith(centralEvents->states, CBManagerState::PoweredOn); }));
}

TEST_F(LifecycleTest, RangingRestartsDiscoveryWhenReportsAreSparse) {
  bluez::Options options;
  options.rangingCycle = 100ms;
  start({}, options);
  // Like a controller's duplicate filter: each advertiser once per discovery.
  bluez->call("SetReportMode", std::string("hci0"), std::string("once"));
  addBeacon(false);
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
  EXPECT_TRUE(eventually([&] { return hci0()["sessions"].empty(); }));
}

}  // namespace
}  // namespace lumora::test
