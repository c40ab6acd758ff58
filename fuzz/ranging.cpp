// Beacon ranging fed arbitrary advertising reports: frames (well-formed or
// raw bytes), any RSSI, reports out of time order, with the adapter, the
// authorization and the ranged regions changing in between, under random
// ranging options. Every result must be one the documentation allows.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <tuple>

#include "Check.h"
#include "CoreLocation/CLLocationManager.h"
#include "support/FakeRadio.h"

using namespace lumora;

namespace {

using Key = std::tuple<Uuid, std::uint16_t, std::uint16_t>;

const std::array<Uuid, 2> kUuids{*Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"),
                                 *Uuid::fromString("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5")};

struct World {
  std::shared_ptr<test::FakeRadio> radio;
  RangingOptions options;
  std::set<Key> heard;  // identities of every frame handed to the radio
  std::set<std::shared_ptr<CLBeaconRegion>> ranged;
  bool live() const {
    const int status = radio->locationAuthorizationStatus();
    return radio->adapterState() == CBManagerState::PoweredOn && (status == 3 || status == 4);
  }
};

class Checker : public CLLocationManagerDelegate {
 public:
  explicit Checker(const World& world) : world_(world) {}

  void didRangeBeacons(const std::shared_ptr<CLLocationManager>&, const CLBeaconList& beacons,
                       const std::shared_ptr<CLBeaconRegion>& region) override {
    FUZZ_CHECK(isMainThread());
    // Stopped on the main queue: nothing more for that region.
    FUZZ_CHECK(world_.ranged.count(region) == 1);
    if (!world_.live()) FUZZ_CHECK(beacons.empty());
    FUZZ_CHECK(beacons.size() <= std::max<std::size_t>(world_.options.maxBeaconsPerRegion, 1));
    std::set<Key> seen;
    bool unknownSeen = false;
    double lastAccuracy = 0;
    for (const auto& beacon : beacons) {
      const Key key{beacon->proximityUUID(), beacon->major().unsignedShortValue(),
                    beacon->minor().unsignedShortValue()};
      FUZZ_CHECK(seen.insert(key).second);
      FUZZ_CHECK(world_.heard.count(key) == 1);
      FUZZ_CHECK(region->matches(std::get<0>(key), std::get<1>(key), std::get<2>(key)));
      FUZZ_CHECK(beacon->rssi() >= -127 && beacon->rssi() <= 20);
      const double accuracy = beacon->accuracy();
      FUZZ_CHECK(accuracy == -1.0 || (accuracy >= 0 && std::isfinite(accuracy)));
      if (beacon->rssi() == 0) FUZZ_CHECK(accuracy == -1.0);
      FUZZ_CHECK(beacon->proximity() == world_.options.proximityFor(accuracy));
      // Nearest first, the unknown ones last.
      const bool unknown = beacon->proximity() == CLProximity::Unknown;
      FUZZ_CHECK(!unknownSeen || unknown);
      if (!unknown) FUZZ_CHECK(accuracy >= lastAccuracy);
      unknownSeen = unknownSeen || unknown;
      if (!unknown) lastAccuracy = accuracy;
    }
  }
  void rangingBeaconsDidFailForRegion(const std::shared_ptr<CLLocationManager>&,
                                      const std::shared_ptr<CLBeaconRegion>&, ErrorRef) override {}

 private:
  const World& world_;
};

radio::AdvertisingReport report(FuzzedDataProvider& in, World& world) {
  radio::AdvertisingReport r;
  r.address = "AA:00:00:00:00:0" + std::to_string(in.ConsumeIntegralInRange(0, 3));
  if (in.ConsumeBool()) {
    r.advertisement.manufacturerData =
        in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange(0, 40));
  } else {
    const Uuid& uuid = kUuids[in.ConsumeIntegralInRange<std::size_t>(0, 1)];
    const auto major = in.ConsumeIntegralInRange<std::uint16_t>(0, 3);
    const auto minor = in.ConsumeIntegralInRange<std::uint16_t>(0, 3);
    CLBeaconRegion source(uuid, std::optional<std::uint16_t>(major),
                          std::optional<std::uint16_t>(minor), "frame");
    r.advertisement =
        *source.peripheralDataWithMeasuredPower(Number(int{in.ConsumeIntegral<std::int8_t>()}));
  }
  const auto& bytes = r.advertisement.manufacturerData;
  if (auto frame = parseIBeacon(bytes->data(), bytes->size()))
    world.heard.insert(Key{frame->uuid, frame->major, frame->minor});
  r.rssi = in.ConsumeBool() ? in.ConsumeIntegral<std::int8_t>() : in.ConsumeIntegral<int>();
  // Reports may arrive a little out of time order; zero means "now".
  if (in.ConsumeBool()) {
    const auto now = world.radio->now();
    const radio::Nanos jitter = std::chrono::milliseconds(in.ConsumeIntegralInRange(-10000, 10000));
    r.time = std::max(now + jitter, radio::Nanos{1});
  }
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  World world;
  world.options.filter =
      in.ConsumeBool() ? RangingOptions::Filter::Arma : RangingOptions::Filter::RunningAverage;
  world.options.averageWindow = std::chrono::milliseconds(in.ConsumeIntegralInRange(0, 30000));
  world.options.armaSpeed = in.ConsumeProbability<double>();
  world.options.period = std::chrono::milliseconds(in.ConsumeIntegralInRange(1, 2000));
  world.options.beaconExpiry = std::chrono::milliseconds(in.ConsumeIntegralInRange(0, 10000));
  world.options.staleAfter = std::chrono::milliseconds(in.ConsumeIntegralInRange(0, 10000));
  world.options.maxBeaconsPerRegion = in.ConsumeIntegralInRange<std::size_t>(0, 6);
  CLLocationManager::setDefaultRangingOptions(world.options);

  world.radio = std::make_shared<test::FakeRadio>();
  radio::Backend::setCurrent(world.radio);
  auto checker = std::make_shared<Checker>(world);
  auto manager = std::make_shared<CLLocationManager>();
  manager->setDelegate(checker);

  std::array<std::shared_ptr<CLBeaconRegion>, 3> regions;
  for (auto& region : regions) {
    const Uuid& uuid = kUuids[in.ConsumeIntegralInRange<std::size_t>(0, 1)];
    std::optional<std::uint16_t> major, minor;
    if (in.ConsumeBool()) major = in.ConsumeIntegralInRange<std::uint16_t>(0, 3);
    if (in.ConsumeBool()) minor = in.ConsumeIntegralInRange<std::uint16_t>(0, 3);
    region = std::make_shared<CLBeaconRegion>(uuid, major, minor, "fuzz");
  }

  for (int step = 0; step < 256 && in.remaining_bytes() > 0; ++step) {
    auto& region = regions[in.ConsumeIntegralInRange<std::size_t>(0, regions.size() - 1)];
    switch (in.ConsumeIntegralInRange(0, 7)) {
      case 0:
      case 1:
        world.radio->emit(report(in, world));
        break;
      case 2: {
        const auto period = world.options.period.count();
        world.radio->advance(
            std::chrono::milliseconds(in.ConsumeIntegralInRange<long>(0, 20 * period)));
        break;
      }
      case 3:
        world.radio->setAdapterState(static_cast<CBManagerState>(in.ConsumeIntegralInRange(0, 5)));
        break;
      case 4:
        world.radio->setAuthorization(in.ConsumeIntegralInRange(0, 5));
        break;
      case 5:
        world.ranged.insert(region);
        manager->startRangingBeaconsInRegion(region);
        break;
      case 6:
        manager->stopRangingBeaconsInRegion(region);
        world.ranged.erase(region);
        break;
      case 7:
        // A tick already under way on the radio's thread when ranging stops.
        world.radio->setCancelTooLate(in.ConsumeBool());
        break;
    }
  }
  // Two more periods deliver what is due; then the manager goes with its timers.
  world.radio->advance(2 * world.options.period);
  manager.reset();
  dispatch::settle();
  radio::Backend::setCurrent(nullptr);
  return 0;
}
