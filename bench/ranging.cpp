// Cost of ranging: one advertisement into the engine, and one ranging tick,
// each with 1,000 beacons known. The engine is driven through a radio that
// only hands over reports and timers, so the simulated air's own cost is
// not counted.
//
//   build/cl-rel/bench/bench_ranging --benchmark_min_time=1
#include <benchmark/benchmark.h>

#include <map>
#include <mutex>

#include "CoreBluetooth/Backend.h"
#include "CoreLocation/CLLocationManager.h"
#include "Foundation/Dispatch.h"

namespace {

using namespace lumora;

// Single-threaded: the benchmark thread plays the radio's thread.
class BenchRadio : public radio::Backend {
 public:
  std::string name() const override { return "bench"; }
  CBManagerState adapterState() const override { return CBManagerState::PoweredOn; }
  std::shared_ptr<radio::CentralRadio> openCentral(std::weak_ptr<radio::CentralEvents>) override {
    return nullptr;
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents>) override {
    return nullptr;
  }
  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)> sink) override {
    sink_ = std::move(sink);
    return std::make_shared<radio::Observation>();
  }
  int locationAuthorizationStatus() const override { return 3; }
  radio::Nanos now() const override { return now_; }
  radio::TimerId scheduleAfter(radio::Nanos, std::function<void()> fn) override {
    tick_ = std::move(fn);
    return ++timers_;
  }
  void cancelScheduled(radio::TimerId) override {}

  std::function<void(const radio::AdvertisingReport&)> sink_;
  std::function<void()> tick_;
  radio::Nanos now_{0};
  radio::TimerId timers_ = 0;
};

class NullDelegate : public CLLocationManagerDelegate {
 public:
  void didRangeBeacons(const std::shared_ptr<CLLocationManager>&, const CLBeaconList& beacons,
                       const std::shared_ptr<CLBeaconRegion>&) override {
    seen += beacons.size();
  }
  void rangingBeaconsDidFailForRegion(const std::shared_ptr<CLLocationManager>&,
                                      const std::shared_ptr<CLBeaconRegion>&, ErrorRef) override {}
  std::size_t seen = 0;
};

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

radio::AdvertisingReport report(std::uint16_t major, std::uint16_t minor, int rssi) {
  radio::AdvertisingReport r;
  r.address = "5A:00:00:00:00:01";
  r.advertisement = *CLBeaconRegion(kUuid, std::optional<std::uint16_t>(major),
                                    std::optional<std::uint16_t>(minor), "bench")
                         .peripheralDataWithMeasuredPower(Number(-59));
  r.rssi = rssi;
  return r;
}

// A manager ranging one region that every beacon of the run matches.
struct Rig {
  explicit Rig(RangingOptions options = {}) {
    radio::Backend::setCurrent(radio);
    CLLocationManager::setDefaultRangingOptions(options);
    manager = std::make_shared<CLLocationManager>();
    manager->setDelegate(delegate);
    manager->startRangingBeaconsInRegion(std::make_shared<CLBeaconRegion>(kUuid, "all"));
  }
  ~Rig() {
    manager.reset();
    dispatch::settle();
    radio::Backend::setCurrent(nullptr);
    CLLocationManager::setDefaultRangingOptions({});
  }
  void feed(radio::AdvertisingReport& r, std::chrono::nanoseconds step) {
    radio->now_ += step;
    r.time = radio->now_;
    radio->sink_(r);
  }

  std::shared_ptr<BenchRadio> radio = std::make_shared<BenchRadio>();
  std::shared_ptr<NullDelegate> delegate = std::make_shared<NullDelegate>();
  std::shared_ptr<CLLocationManager> manager;
};

constexpr int kBeacons = 1000;

std::vector<radio::AdvertisingReport> beaconReports() {
  std::vector<radio::AdvertisingReport> reports;
  for (int i = 0; i < kBeacons; ++i)
    reports.push_back(
        report(static_cast<std::uint16_t>(i / 100), static_cast<std::uint16_t>(i), -40 - i % 50));
  return reports;
}

// One advertisement of an already known beacon (filter state in steady
// state: every ring full, so each sample also retires one).
void BM_AdvertisementKnownBeacon(benchmark::State& state) {
  Rig rig;
  auto reports = beaconReports();
  for (int round = 0; round < 256; ++round)
    for (auto& r : reports) rig.feed(r, std::chrono::microseconds(100));
  std::size_t i = 0;
  for (auto _ : state) {
    rig.feed(reports[i], std::chrono::microseconds(100));
    if (++i == reports.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AdvertisementKnownBeacon);

// One advertisement of a new identity into a full table: the stalest record
// is evicted every time (what a flood of spoofed identities costs).
void BM_AdvertisementNewIdentityAtCapacity(benchmark::State& state) {
  RangingOptions options;
  options.maxBeaconsPerRegion = kBeacons;
  Rig rig(options);
  auto r = report(0, 0, -60);
  std::uint32_t n = 0;
  for (auto _ : state) {
    ++n;
    (*r.advertisement.manufacturerData)[20] = static_cast<std::uint8_t>(n >> 24);
    (*r.advertisement.manufacturerData)[21] = static_cast<std::uint8_t>(n >> 16);
    (*r.advertisement.manufacturerData)[22] = static_cast<std::uint8_t>(n >> 8);
    (*r.advertisement.manufacturerData)[23] = static_cast<std::uint8_t>(n);
    rig.feed(r, std::chrono::microseconds(100));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AdvertisementNewIdentityAtCapacity);

// One ranging tick over 1,000 fresh beacons with 20 samples each, including
// the delivery of the result on the main queue.
void BM_TickThousandBeacons(benchmark::State& state) {
  Rig rig;
  auto reports = beaconReports();
  for (int round = 0; round < 20; ++round) {
    for (std::size_t i = 0; i < reports.size(); ++i) {
      reports[i].rssi = -40 - static_cast<int>((i + round * 7) % 50);
      rig.feed(reports[i], std::chrono::microseconds(50));
    }
  }
  for (auto _ : state) {
    auto tick = rig.radio->tick_;
    tick();
    dispatch::settle();
  }
  if (rig.delegate->seen != static_cast<std::size_t>(state.iterations()) * kBeacons)
    state.SkipWithError("beacons missing");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TickThousandBeacons)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
