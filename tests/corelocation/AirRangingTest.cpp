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
using U16 = std::optional<std::uint16_t>;

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

sim::DeviceConfig beacon(std::uint16_t minor, double distance, double noise = 0.0) {
  sim::DeviceConfig config;
  config.manufacturerData = CLBeaconRegion(kUuid, U16(1), U16(minor), "device")
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

// A new air with the given beacons, and a manager ranging every beacon of
// kUuid in it for `duration`; returns every result.
std::vector<test::RangingRecorder::Call> rangeOnAir(std::uint64_t seed,
                                                    const std::vector<sim::DeviceConfig>& devices,
                                                    radio::Nanos duration) {
  auto air = sim::Air::create({.seed = seed});
  radio::Backend::setCurrent(air);
  for (const auto& device : devices) air->addDevice(device);
  auto recorder = std::make_shared<test::RangingRecorder>();
  auto manager = std::make_shared<CLLocationManager>();
  manager->setDelegate(recorder);
  manager->startRangingBeaconsInRegion(
      std::make_shared<CLBeaconRegion>(kUuid, U16(), U16(), "region"));
  air->advance(duration);
  manager.reset();
  air->settle();
  radio::Backend::setCurrent(nullptr);
  return recorder->calls;
}

TEST(AirRanging, NoiseFreeBeaconsLandInTheirProximityClass) {
  const std::pair<double, CLProximity> devices[] = {{0.2, CLProximity::Immediate},
                                                    {1.0, CLProximity::Near},
                                                    {3.0, CLProximity::Near},
                                                    {10.0, CLProximity::Far}};
  std::vector<sim::DeviceConfig> configs;
  for (std::uint16_t i = 0; i < 4; ++i) configs.push_back(beacon(i, devices[i].first));
  // One identity advertised from two addresses, as rotating addresses are.
  configs.push_back(beacon(9, 1.0));
  configs.push_back(beacon(9, 4.0));
  const auto calls = rangeOnAir(7, configs, 3s);
  ASSERT_FALSE(calls.empty());
  const auto& beacons = calls.back().beacons;
  ASSERT_EQ(beacons.size(), 5u);
  for (const auto& b : beacons) {
    const int minor = b->minor().intValue();
    SCOPED_TRACE(minor);
    if (minor == 9) {
      // Both addresses feed the same average.
      EXPECT_GT(b->rssi(), modelRssi(4.0));
      EXPECT_LT(b->rssi(), modelRssi(1.0));
      continue;
    }
    const auto [distance, proximity] = devices[minor];
    EXPECT_EQ(b->rssi(), modelRssi(distance));
    EXPECT_DOUBLE_EQ(b->accuracy(), RangingOptions::accuracyFor(b->rssi(), -59));
    EXPECT_EQ(b->proximity(), proximity);
  }
}

}  // namespace
}  // namespace lumora
