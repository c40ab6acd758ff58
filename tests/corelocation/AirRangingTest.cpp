// Ranging on the simulated air: beacons as virtual devices with a path-loss
// model, the virtual clock driving advertisements and ticks.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "CoreLocation/CLLocationManager.h"
#include "Recorder.h"
#include "backends/sim/Air.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using test::RangingRecorder;
using U16 = std::optional<std::uint16_t>;

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kOther = *Uuid::fromString("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");

sim::DeviceConfig beacon(const Uuid& uuid, std::uint16_t major, std::uint16_t minor,
                         double distance, double noise = 0.0) {
  sim::DeviceConfig config;
  config.manufacturerData = CLBeaconRegion(uuid, U16(major), U16(minor), "device")
                                .peripheralDataWithMeasuredPower(Number(-59))
                                ->manufacturerData;
  config.txPowerAt1m = -59;
  config.distance = distance;
  config.rssiNoiseSigma = noise;
  return config;
}

// What a noise-free device at `distance` is heard at.
int modelRssi(double distance) {
  return static_cast<int>(std::lround(-59 - 20 * std::log10(distance)));
}

class AirRanging : public ::testing::Test {
 protected:
  void SetUp() override { useAir(7); }
  void TearDown() override {
    manager_.reset();
    air_->settle();
    CLLocationManager::setDefaultRangingOptions(saved_);
    radio::Backend::setCurrent(nullptr);
  }

  void useAir(std::uint64_t seed) {
    saved_ = CLLocationManager::defaultRangingOptions();
    manager_.reset();
    air_ = sim::Air::create({.seed = seed});
    radio::Backend::setCurrent(air_);
    recorder_ = std::make_shared<RangingRecorder>();
  }

  std::shared_ptr<CLLocationManager> makeManager(const RangingOptions& options = {}) {
    CLLocationManager::setDefaultRangingOptions(options);
    manager_ = std::make_shared<CLLocationManager>();
    manager_->setDelegate(recorder_);
    return manager_;
  }

  std::shared_ptr<CLBeaconRegion> range(U16 major = {}, U16 minor = {}, Uuid uuid = kUuid) {
    auto region = std::make_shared<CLBeaconRegion>(uuid, major, minor, "region");
    manager_->startRangingBeaconsInRegion(region);
    return region;
  }

  const CLBeaconList& lastBeacons() {
    static const CLBeaconList none;
    EXPECT_FALSE(recorder_->calls.empty());
    return recorder_->calls.empty() ? none : recorder_->calls.back().beacons;
  }

  RangingOptions saved_;
  std::shared_ptr<sim::Air> air_;
  std::shared_ptr<RangingRecorder> recorder_;
  std::shared_ptr<CLLocationManager> manager_;
};

TEST_F(AirRanging, NoiseFreeBeaconsLandInTheirProximityClass) {
  struct Device {
    double distance;
    CLProximity proximity;
  };
  const Device devices[] = {{0.2, CLProximity::Immediate},
                            {1.0, CLProximity::Near},
                            {3.0, CLProximity::Near},
                            {10.0, CLProximity::Far}};
  for (auto filter : {RangingOptions::Filter::RunningAverage, RangingOptions::Filter::Arma}) {
    useAir(7);
    RangingOptions options;
    options.filter = filter;
    makeManager(options);
    range();
    std::uint16_t minor = 0;
    for (const Device& d : devices) air_->addDevice(beacon(kUuid, 1, minor++, d.distance));
    air_->advance(3s);

    const auto& beacons = lastBeacons();
    ASSERT_EQ(beacons.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
      // Nearest first, which here is the order they were added in.
      EXPECT_EQ(beacons[i]->minor(), Number(static_cast<int>(i)));
      EXPECT_EQ(beacons[i]->rssi(), modelRssi(devices[i].distance)) << devices[i].distance;
      EXPECT_DOUBLE_EQ(beacons[i]->accuracy(),
                       RangingOptions::accuracyFor(beacons[i]->rssi(), -59));
      EXPECT_EQ(beacons[i]->proximity(), devices[i].proximity) << devices[i].distance;
    }
  }
}

TEST_F(AirRanging, RegionsMatchByUuidMajorAndMinor) {
  makeManager();
  auto any = range();
  auto major1 = range(1);
  auto exact = range(1, 2);
  air_->addDevice(beacon(kUuid, 1, 2, 1.0));
  air_->addDevice(beacon(kUuid, 1, 3, 1.0));
  air_->addDevice(beacon(kUuid, 2, 2, 1.0));
  air_->addDevice(beacon(kOther, 1, 2, 1.0));
  air_->addDevice({.localName = "not a beacon"});
  air_->advance(2s);

  const std::pair<std::shared_ptr<CLBeaconRegion>, std::set<std::pair<int, int>>> expected[] = {
      {any, {{1, 2}, {1, 3}, {2, 2}}}, {major1, {{1, 2}, {1, 3}}}, {exact, {{1, 2}}}};
  for (const auto& [region, identities] : expected) {
    const auto calls = recorder_->callsFor(region);
    ASSERT_EQ(calls.size(), 2u) << region->description();
    std::set<std::pair<int, int>> seen;
    for (const auto& b : calls.back().beacons) {
      EXPECT_EQ(b->proximityUUID(), kUuid);
      seen.emplace(b->major().intValue(), b->minor().intValue());
    }
    EXPECT_EQ(seen, identities) << region->description();
  }
}

TEST_F(AirRanging, RotatingAddressesOfOneIdentityMakeOneBeacon) {
  makeManager();
  range();
  air_->addDevice(beacon(kUuid, 1, 1, 1.0));
  air_->addDevice(beacon(kUuid, 1, 1, 4.0));
  air_->advance(3s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  // Both addresses feed the same average.
  EXPECT_GT(lastBeacons()[0]->rssi(), modelRssi(4.0));
  EXPECT_LT(lastBeacons()[0]->rssi(), modelRssi(1.0));
}

TEST_F(AirRanging, ASilentBeaconGoesStaleThenDropsOut) {
  makeManager();
  range();
  auto device = air_->addDevice(beacon(kUuid, 1, 1, 2.0));
  air_->advance(3s);
  device->setAdvertising(false);
  air_->advance(1s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  EXPECT_EQ(lastBeacons()[0]->rssi(), modelRssi(2.0));
  air_->advance(2s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  EXPECT_EQ(lastBeacons()[0]->rssi(), 0);
  EXPECT_EQ(lastBeacons()[0]->accuracy(), -1.0);
  EXPECT_EQ(lastBeacons()[0]->proximity(), CLProximity::Unknown);
  air_->advance(3s);
  EXPECT_TRUE(lastBeacons().empty());
}

TEST_F(AirRanging, ReadingsOfZeroAreNotReadings) {
  makeManager();
  range();
  auto silent = beacon(kUuid, 1, 1, 1.0);
  silent.txPowerAt1m = 0;  // heard at exactly 0 dBm
  air_->addDevice(silent);
  air_->addDevice(beacon(kUuid, 1, 2, 1.0));
  air_->advance(2s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  EXPECT_EQ(lastBeacons()[0]->minor(), Number(2));
}

TEST_F(AirRanging, PowerOffEmptiesResultsAndPowerOnRecovers) {
  makeManager();
  range();
  air_->addDevice(beacon(kUuid, 1, 1, 1.0));
  air_->advance(2s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  air_->setAdapterState(CBManagerState::PoweredOff);
  const std::size_t before = recorder_->calls.size();
  air_->advance(2s);
  EXPECT_EQ(recorder_->calls.size(), before + 2);
  EXPECT_TRUE(lastBeacons().empty());
  air_->setAdapterState(CBManagerState::PoweredOn);
  air_->advance(2s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  EXPECT_EQ(lastBeacons()[0]->rssi(), -59);
}

TEST_F(AirRanging, OneSeedGivesOneHistory) {
  using Row = std::tuple<int, int, int, double>;
  auto run = [&](std::uint64_t seed) {
    useAir(seed);
    makeManager();
    range();
    for (std::uint16_t i = 0; i < 4; ++i) {
      auto config = beacon(kUuid, 1, i, 0.5 + 2.0 * i, 4.0);
      config.packetLoss = 0.3;
      air_->addDevice(config);
    }
    air_->advance(8s);
    std::vector<Row> rows;
    for (const auto& call : recorder_->calls) {
      for (const auto& b : call.beacons)
        rows.emplace_back(b->minor().intValue(), b->rssi(), static_cast<int>(b->proximity()),
                          b->accuracy());
      rows.emplace_back(-1, 0, 0, 0.0);  // end of one result
    }
    TearDown();
    return rows;
  };
  const auto first = run(42);
  const auto again = run(42);
  EXPECT_EQ(first.size(), 8u + 8u * 4u);
  EXPECT_EQ(first, again);
  SetUp();
}

TEST_F(AirRanging, CallbacksComeOnTheMainThreadUntilRangingStops) {
  makeManager();
  auto region = range();
  air_->addDevice(beacon(kUuid, 1, 1, 1.0));
  air_->advance(3s);
  manager_->stopRangingBeaconsInRegion(region);
  air_->advance(3s);
  ASSERT_EQ(recorder_->calls.size(), 3u);
  for (const auto& call : recorder_->calls) {
    EXPECT_TRUE(call.onMainThread);
    EXPECT_EQ(call.region, region);
  }
}

}  // namespace
}  // namespace lumora
