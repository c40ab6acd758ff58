// Ranging on the simulated air: beacons as virtual devices with a path-loss
// model, the virtual clock driving advertisements and ticks.
#include <gtest/gtest.h>

#include <cmath>

#include "CoreLocation/CLLocationManager.h"
#include "Recorder.h"
#include "backends/sim/Air.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using test::RangingRecorder;
using U16 = std::optional<std::uint16_t>;

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

sim::DeviceConfig beacon(std::uint16_t major, std::uint16_t minor, double distance,
                         double noise = 0.0) {
  sim::DeviceConfig config;
  config.manufacturerData = CLBeaconRegion(kUuid, U16(major), U16(minor), "device")
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
  void SetUp() override { saved_ = CLLocationManager::defaultRangingOptions(); }
  void TearDown() override {
    stop();
    CLLocationManager::setDefaultRangingOptions(saved_);
    radio::Backend::setCurrent(nullptr);
  }
  void stop() {
    manager_.reset();
    if (air_) air_->settle();
  }

  // A new air, and a manager ranging every beacon of kUuid in it.
  void start(std::uint64_t seed, const RangingOptions& options = {}) {
    stop();
    air_ = sim::Air::create({.seed = seed});
    radio::Backend::setCurrent(air_);
    recorder_ = std::make_shared<RangingRecorder>();
    CLLocationManager::setDefaultRangingOptions(options);
    manager_ = std::make_shared<CLLocationManager>();
    manager_->setDelegate(recorder_);
    manager_->startRangingBeaconsInRegion(
        std::make_shared<CLBeaconRegion>(kUuid, U16(), U16(), "region"));
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
  const std::pair<double, CLProximity> devices[] = {{0.2, CLProximity::Immediate},
                                                    {1.0, CLProximity::Near},
                                                    {3.0, CLProximity::Near},
                                                    {10.0, CLProximity::Far}};
  for (auto filter : {RangingOptions::Filter::RunningAverage, RangingOptions::Filter::Arma}) {
    RangingOptions options;
    options.filter = filter;
    start(7, options);
    std::uint16_t minor = 0;
    for (const auto& [distance, _] : devices) air_->addDevice(beacon(1, minor++, distance));
    air_->advance(3s);

    const auto& beacons = lastBeacons();
    ASSERT_EQ(beacons.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
      const auto [distance, proximity] = devices[i];
      // Nearest first, which here is the order they were added in.
      EXPECT_EQ(beacons[i]->minor(), Number(static_cast<int>(i)));
      EXPECT_EQ(beacons[i]->rssi(), modelRssi(distance)) << distance;
      EXPECT_DOUBLE_EQ(beacons[i]->accuracy(),
                       RangingOptions::accuracyFor(beacons[i]->rssi(), -59));
      EXPECT_EQ(beacons[i]->proximity(), proximity) << distance;
    }
  }
}

TEST_F(AirRanging, RotatingAddressesOfOneIdentityMakeOneBeacon) {
  start(7);
  air_->addDevice(beacon(1, 1, 1.0));
  air_->addDevice(beacon(1, 1, 4.0));
  air_->advance(3s);
  ASSERT_EQ(lastBeacons().size(), 1u);
  // Both addresses feed the same average.
  EXPECT_GT(lastBeacons()[0]->rssi(), modelRssi(4.0));
  EXPECT_LT(lastBeacons()[0]->rssi(), modelRssi(1.0));
}

TEST_F(AirRanging, OneSeedGivesOneHistory) {
  auto run = [&](std::uint64_t seed) {
    start(seed);
    for (std::uint16_t i = 0; i < 4; ++i) {
      auto config = beacon(1, i, 0.5 + 2.0 * i, 4.0);
      config.packetLoss = 0.3;
      air_->addDevice(config);
    }
    air_->advance(8s);
    std::vector<std::tuple<int, int, int, double>> rows;
    for (const auto& call : recorder_->calls) {
      for (const auto& b : call.beacons)
        rows.emplace_back(b->minor().intValue(), b->rssi(), static_cast<int>(b->proximity()),
                          b->accuracy());
      rows.emplace_back(-1, 0, 0, 0.0);  // end of one result
    }
    return rows;
  };
  const auto first = run(42);
  EXPECT_EQ(first.size(), 8u + 8u * 4u);
  EXPECT_EQ(first, run(42));
}

}  // namespace
}  // namespace lumora
