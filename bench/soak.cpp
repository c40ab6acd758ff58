// Soak: one million advertisements from rotating random addresses through a
// finder that scans (every report, duplicates included) and ranges the
// default beacon region at the same time, on the simulated air's virtual
// clock. About 1,000 devices are on the air at any moment; every 100 ms the
// oldest tenth leaves and as many new ones, with fresh random addresses and
// beacon identities, arrive, so some 100,000 addresses pass through the
// central manager's device table and the ranging tables. Resident memory is
// read from /proc after every 100,000 advertisements: once the central
// manager's device table has reached its bound (16,384 devices) it must stay
// flat, since every table involved is bounded.
//
//   build/default/bench/bench_soak
//
// Not a test and not in CI: it takes about a minute.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Foundation/NSLog.h"
#include "Lumora/TQBeaconAP.h"
#include "Lumora/TQBleFinder.h"
#include "backends/sim/Air.h"
#include "bench/CountingFinder.h"

namespace {

using namespace std::chrono_literals;
using lumora::bench::CountingFinder;
using lumora::bench::QuietLog;

struct CountingApp : lumora::TQBleFinderDelegate {
  void didDiscoverBeacon(const lumora::CLBeaconList& beacons,
                         const std::shared_ptr<lumora::CLBeaconRegion>&) override {
    ++results;
    lastCount = beacons.size();
  }
  void didstate(std::int32_t, const std::string&, const lumora::Data&) override {}
  std::uint64_t results = 0;
  std::size_t lastCount = 0;
};

double residentMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

std::string randomAddress(std::mt19937_64& rng) {
  const std::uint64_t bits = rng();
  char text[18];
  std::snprintf(
      text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", static_cast<unsigned>(bits & 0xFF),
      static_cast<unsigned>((bits >> 8) & 0xFF), static_cast<unsigned>((bits >> 16) & 0xFF),
      static_cast<unsigned>((bits >> 24) & 0xFF), static_cast<unsigned>((bits >> 32) & 0xFF),
      static_cast<unsigned>((bits >> 40) & 0xFF));
  return text;
}

lumora::sim::DeviceConfig randomBeacon(std::mt19937_64& rng, const lumora::Uuid& uuid) {
  lumora::sim::DeviceConfig config;
  config.address = randomAddress(rng);
  lumora::Bytes frame{0x4C, 0x00, 0x02, 0x15};
  const auto& bytes = uuid.bytes();
  frame.insert(frame.end(), bytes.begin(), bytes.end());
  const auto identity = static_cast<std::uint32_t>(rng());
  frame.insert(
      frame.end(),
      {static_cast<std::uint8_t>(identity >> 24), static_cast<std::uint8_t>(identity >> 16),
       static_cast<std::uint8_t>(identity >> 8), static_cast<std::uint8_t>(identity), 0xC5});
  config.manufacturerData = frame;
  config.distance = 1.0 + static_cast<double>(rng() % 20);
  return config;
}

void BM_SoakRotatingAddresses(benchmark::State& state) {
  constexpr std::uint64_t kAdvertisements = 1'000'000;
  constexpr std::size_t kOnAir = 1000;
  constexpr std::size_t kTurnover = kOnAir / 10;  // per 100 ms

  QuietLog quiet;
  std::mt19937_64 rng(7);
  const lumora::Uuid uuid = *lumora::TQBeaconAP::sharedDefaults()->defaultProximityUUID();
  CountingApp app;
  auto air = lumora::sim::Air::create({});
  lumora::radio::Backend::setCurrent(air);
  std::deque<std::string> onAir;
  for (std::size_t i = 0; i < kOnAir; ++i)
    onAir.push_back(air->addDevice(randomBeacon(rng, uuid))->address());

  auto finder = std::make_shared<CountingFinder>();
  finder->setDelegate(&app);
  finder->initTQFinder();
  finder->StartTQFinder(
      lumora::TQBleFinder::RegionList{std::make_shared<lumora::CLBeaconRegion>(uuid, "soak")});
  finder->TQBeacon_Connect("nobody");  // scans once powered on
  air->settle();
  finder->centralManager()->scanForPeripheralsWithServices(
      std::nullopt, lumora::Dictionary{{lumora::CBCentralManagerScanOptionAllowDuplicatesKey,
                                        lumora::Number::numberWithBool(true)}});

  // Resident memory each time another 100,000 advertisements have been heard.
  std::vector<double> samples;
  for (auto _ : state) {
    while (finder->discovered < kAdvertisements) {
      air->advance(100ms);
      for (std::size_t i = 0; i < kTurnover; ++i) {
        air->removeDevice(onAir.front());
        onAir.pop_front();
        onAir.push_back(air->addDevice(randomBeacon(rng, uuid))->address());
      }
      if (finder->discovered >= (samples.size() + 1) * (kAdvertisements / 10)) {
        samples.push_back(residentMiB());
      }
    }
  }
  state.counters["advertisements"] = static_cast<double>(finder->discovered);
  state.counters["ranging_results"] = static_cast<double>(app.results);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "rss_MiB_%03zuk", (i + 1) * 100);
    state.counters[name] = samples[i];
  }

  finder.reset();
  air->settle();
  lumora::radio::Backend::setCurrent(nullptr);
}
BENCHMARK(BM_SoakRotatingAddresses)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
