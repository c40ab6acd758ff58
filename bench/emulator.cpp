// Finder-to-emulator round trips through the simulated air, thread hops
// included: the finder writes (or reads) on the main thread, the air carries
// the request, the emulator answers on a worker of the global queue, and the
// answer comes back to the finder on the main queue.
//
//   bench_emulator --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "Foundation/Dispatch.h"
#include "Foundation/NSLog.h"
#include "Lumora/TQBleFinder.h"
#include "Lumora/TQBleProcess.h"
#include "backends/sim/Air.h"

namespace {

using namespace lumora;
using radio::Nanos;
using namespace std::chrono_literals;

struct CountingEmulatorApp : TQBleProcessDelegate {
  std::atomic<long> writes{0};
  std::atomic<long> reads{0};
  Data tqbleprocess_didReqReadData() override {
    reads.fetch_add(1, std::memory_order_relaxed);
    return Bytes{0x0A, 0x0B, 0x0C, 0x0D};
  }
  void tqbleprocess_didRevData(const Data&) override {
    writes.fetch_add(1, std::memory_order_relaxed);
  }
};

struct CountingFinderApp : TQBleFinderDelegate {
  std::atomic<long> received{0};
  std::atomic<bool> linked{false};
  void didDiscoverBeacon(const CLBeaconList&, const std::shared_ptr<CLBeaconRegion>&) override {}
  void didstate(std::int32_t state, const std::string&, const Data&) override {
    if (state == 80) received.fetch_add(1, std::memory_order_relaxed);
    if (state == 50) linked.store(true);
  }
};

// A finder linked to an emulator on a fresh virtual air. The finder answers a
// write with the log line "didWriteValueForCharacteristic" and nothing else,
// so the sink counts those lines to see a write's round trip complete.
class Rig {
 public:
  Rig() {
    previousSink_ = setLogSink([this](std::string_view line) {
      if (line == "didWriteValueForCharacteristic") writeAnswers.fetch_add(1);
    });
    peripheralManager.store(nullptr);
    region.store(nullptr);
    power.store(std::nullopt);
    air = sim::Air::create({.clock = sim::ClockMode::Virtual, .seed = 3});
    radio::Backend::setCurrent(air);

    emulator = std::make_shared<TQBleProcess>();
    emulator->setDelegate(&emulatorApp);
    emulator->initStartTQBeacon(*Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"),
                                Number(1), Number(2), std::nullopt);
    air->advance(100ms);

    finder = std::make_shared<TQBleFinder>();
    finder->setDelegate(&finderApp);
    finder->initTQFinder();
    finder->TQBeacon_Connect("12");
    air->advance(1s);
    if (!finderApp.linked.load()) throw std::runtime_error("the finder did not link");
    // With no link latency a whole round trip is due at once: one settle()
    // carries it, and what is left to measure is the work and the thread hops.
    air->setLinkLatency(Nanos{0});
  }

  ~Rig() {
    finder.reset();
    peripheralManager.store(nullptr);
    air->settle();
    dispatch::settle();
    radio::Backend::setCurrent(nullptr);
    setLogSink(std::move(previousSink_));
  }

  /// Runs the air until `counter` reaches `target`.
  void runUntil(const std::atomic<long>& counter, long target) {
    for (int step = 0; counter.load() < target; ++step) {
      if (step > 1000) throw std::runtime_error("round trip did not complete");
      air->settle();
    }
  }

  std::atomic<long> writeAnswers{0};
  CountingEmulatorApp emulatorApp;
  CountingFinderApp finderApp;
  std::shared_ptr<sim::Air> air;
  std::shared_ptr<TQBleProcess> emulator;
  std::shared_ptr<TQBleFinder> finder;

 private:
  LogSink previousSink_;
};

void BM_WriteRoundTrip(benchmark::State& state) {
  Rig rig;
  Bytes payload{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
  long expected = rig.writeAnswers.load();
  for (auto _ : state) {
    rig.finder->TQ_BLE_SendData(payload);
    rig.runUntil(rig.writeAnswers, ++expected);
  }
  if (rig.emulatorApp.writes.load() != static_cast<long>(state.iterations()))
    state.SkipWithError("a write did not reach the emulator's delegate exactly once");
  state.SetItemsProcessed(state.iterations());
  state.counters["round_trips_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_WriteRoundTrip)->UseRealTime();

void BM_ReadRoundTrip(benchmark::State& state) {
  Rig rig;
  long expected = rig.finderApp.received.load();
  for (auto _ : state) {
    rig.finder->TQ_BLE_ReqReadData();
    rig.runUntil(rig.finderApp.received, ++expected);
  }
  if (rig.emulatorApp.reads.load() != static_cast<long>(state.iterations()))
    state.SkipWithError("a read did not reach the emulator's delegate exactly once");
  state.SetItemsProcessed(state.iterations());
  state.counters["round_trips_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ReadRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
