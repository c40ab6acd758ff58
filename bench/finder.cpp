// Throughput of the finder on the simulated air:
// - advertisements per second from 10,000 advertisers into the finder's
//   discovery callback;
// - write-with-response round trips per second, from TQBeacon_SendData to the
//   finder's write callback, against one simulated device.
//
//   bench_finder --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "CoreBluetooth/CBAdvertisementData.h"
#include "Foundation/NSLog.h"
#include "Lumora/TQBleFinder.h"
#include "backends/sim/Air.h"
#include "bench/CountingFinder.h"

namespace {

using namespace std::chrono_literals;
using lumora::Bytes;
using lumora::CBUUID;
using lumora::bench::CountingFinder;
using lumora::bench::QuietLog;

/// The application side: takes every event and does nothing with it.
struct QuietApp : lumora::TQBleFinderDelegate {
  void didDiscoverBeacon(const lumora::CLBeaconList&,
                         const std::shared_ptr<lumora::CLBeaconRegion>&) override {}
  void didstate(std::int32_t, const std::string&, const lumora::Data&) override {}
};

void BM_AdvertisementsIntoDiscovery(benchmark::State& state) {
  const int advertisers = static_cast<int>(state.range(0));
  QuietLog quiet;
  QuietApp app;
  auto air = lumora::sim::Air::create({});
  lumora::radio::Backend::setCurrent(air);
  for (int i = 0; i < advertisers; ++i) {
    lumora::sim::DeviceConfig config;
    config.localName = "adv-" + std::to_string(i);  // never the wanted name
    config.advertisingInterval = 100ms;
    config.distance = 1.0 + (i % 20);
    air->addDevice(config);
  }
  auto finder = std::make_shared<CountingFinder>();
  finder->setDelegate(&app);
  finder->initTQFinder();
  finder->TQBeacon_Connect("wanted");  // scans for it once powered on
  air->settle();
  // Every report, not one per device and scan: the finder's name test runs
  // for each advertisement heard.
  finder->centralManager()->scanForPeripheralsWithServices(
      std::nullopt, lumora::Dictionary{{lumora::CBCentralManagerScanOptionAllowDuplicatesKey,
                                        lumora::Number::numberWithBool(true)}});
  air->advance(1s);  // every device's advertising phase is under way
  finder->discovered = 0;

  for (auto _ : state) air->advance(100ms);

  state.SetItemsProcessed(static_cast<std::int64_t>(finder->discovered));
  state.counters["advertisers"] = advertisers;
  finder.reset();
  air->settle();
  lumora::radio::Backend::setCurrent(nullptr);
}
BENCHMARK(BM_AdvertisementsIntoDiscovery)->Arg(10000)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_WriteRoundTrip(benchmark::State& state) {
  QuietLog quiet;
  QuietApp app;
  auto air = lumora::sim::Air::create({});
  lumora::radio::Backend::setCurrent(air);
  lumora::sim::DeviceConfig config;
  config.localName = "12";
  config.connectable = true;
  lumora::sim::ServiceSpec service;
  service.uuid = CBUUID::UUIDWithString("FFC0");
  lumora::sim::CharacteristicSpec data;
  data.uuid = CBUUID::UUIDWithString("FF0C");
  data.onWrite = [](const Bytes&) { return lumora::CBATTError::Success; };
  service.characteristics.push_back(data);
  config.services.push_back(service);
  auto device = air->addDevice(config);

  auto finder = std::make_shared<CountingFinder>();
  finder->setDelegate(&app);
  finder->initTQFinder();
  finder->TQBeacon_Connect("12");
  air->advance(1s);
  if (!device->isConnected()) {
    state.SkipWithError("the finder did not connect");
    return;
  }
  device->setAdvertising(false);
  air->advance(1s);

  const lumora::Data payload = Bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
  std::uint64_t trips = 0;
  for (auto _ : state) {
    const auto before = finder->written;
    finder->TQBeacon_SendData(payload);
    // Virtual time: the answer is due a link latency or two later.
    for (int step = 0; finder->written == before && step < 100; ++step) air->advance(5ms);
    if (finder->written == before) {
      state.SkipWithError("a write was never answered");
      break;
    }
    ++trips;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(trips));
  finder.reset();
  air->settle();
  lumora::radio::Backend::setCurrent(nullptr);
}
BENCHMARK(BM_WriteRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
