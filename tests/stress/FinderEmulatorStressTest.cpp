// Finders and the emulator in one process, talking over the simulated air,
// while application threads keep changing everything around the traffic:
// finders are disconnected, reconnected and replaced, their delegates swapped
// and destroyed; the emulator is restarted, replaced, and its delegates
// swapped and destroyed. Callbacks arrive on the main queue (finders) and on
// the worker pool (emulator) throughout. Meant for ThreadSanitizer: besides
// the explicit checks, any data race fails the run.
//
// Objects that are destroyed while the test runs are built in cells that
// outlive them and mark their own end: a call that arrives afterwards finds a
// marked object (or the abstract base's pure-virtual trap) rather than freed
// memory, and is counted.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "Foundation/Dispatch.h"
#include "Foundation/NSLog.h"
#include "Foundation/NSUserDefaults.h"
#include "Lumora/TQBleFinder.h"
#include "Lumora/TQBleProcess.h"
#include "backends/sim/Air.h"
#include "support/TempDir.h"

namespace lumora::test {
namespace {

using namespace std::chrono_literals;

constexpr int kRounds = 2000;  // of 20 ms of virtual time
constexpr std::size_t kFinders = 2;
const Uuid kBeacon = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const CBUUID kWrite = CBUUID::UUIDWithString(TQBleProcessWriteCharacteristicUUID);

std::atomic<int> lateCalls{0};

/// Counts any use after its destructor ran.
class Mortal {
 public:
  ~Mortal() { dead_.store(true); }
  void touch() const {
    if (dead_.load()) lateCalls.fetch_add(1);
  }

 private:
  std::atomic<bool> dead_{false};
};

/// Storage for objects of type T that lasts until the test ends.
template <class T>
class Cells {
 public:
  ~Cells() {
    for (T* t : live_) std::destroy_at(t);
  }
  template <class... Args>
  T* make(Args&&... args) {
    std::lock_guard lock(mutex_);
    T* t = new (&cells_.emplace_back()) T(std::forward<Args>(args)...);
    live_.insert(t);
    return t;
  }
  void end(T* t) {
    {
      std::lock_guard lock(mutex_);
      live_.erase(t);
    }
    std::destroy_at(t);
  }
  /// Shared ownership whose last release ends the object in its cell.
  template <class... Args>
  std::shared_ptr<T> share(Args&&... args) {
    return std::shared_ptr<T>(make(std::forward<Args>(args)...), [this](T* t) { end(t); });
  }

 private:
  struct alignas(T) Cell {
    std::byte raw[sizeof(T)];
  };
  std::mutex mutex_;
  std::deque<Cell> cells_;
  std::set<T*> live_;
};

// A write's tag: finder slot, finder generation, sequence number.
struct Tag {
  int slot;
  int generation;
  int seq;
  friend auto operator<=>(const Tag&, const Tag&) = default;
};
Bytes payload(const Tag& t) {
  return Bytes{static_cast<std::uint8_t>(t.slot), static_cast<std::uint8_t>(t.generation),
               static_cast<std::uint8_t>(t.seq >> 8), static_cast<std::uint8_t>(t.seq)};
}

/// What reached the emulator's applications, whichever delegate was set.
struct Deliveries {
  std::mutex mutex;
  std::vector<Tag> tags;
  int malformed = 0;
};

class EmulatorApp : public TQBleProcessDelegate, public Mortal {
 public:
  EmulatorApp(Deliveries& log, std::uint8_t answer) : log_(log), answer_(answer) {}
  Data tqbleprocess_didReqReadData() override {
    touch();
    return Bytes{answer_};
  }
  void tqbleprocess_didRevData(const Data& data) override {
    touch();
    if (isMainThread()) onMain.fetch_add(1);
    std::lock_guard lock(log_.mutex);
    if (!data || data->size() != 4) {
      ++log_.malformed;
      return;
    }
    const auto& b = *data;
    log_.tags.push_back(Tag{b[0], b[1], (b[2] << 8) | b[3]});
  }
  static inline std::atomic<int> onMain{0};

 private:
  Deliveries& log_;
  std::uint8_t answer_;
};

class FinderApp : public TQBleFinderDelegate, public Mortal {
 public:
  void didDiscoverBeacon(const CLBeaconList&, const std::shared_ptr<CLBeaconRegion>&) override {
    touch();
    ranged.fetch_add(1);
  }
  void didstate(std::int32_t state, const std::string&, const Data& data) override {
    touch();
    if (!isMainThread()) offMain.fetch_add(1);
    // Event 80 carries what the emulator's application answered: one byte A0..
    if (state == 80 && (!data || data->size() != 1 || (*data)[0] < 0xA0)) badReads.fetch_add(1);
    if (state == 80) reads.fetch_add(1);
  }
  static inline std::atomic<int> offMain{0};
  static inline std::atomic<int> badReads{0};
  static inline std::atomic<int> reads{0};
  static inline std::atomic<int> ranged{0};
};

/// The emulator, with an eye on its platform callbacks.
class CountingEmulator : public TQBleProcess, public Mortal {
 public:
  void didReceiveWriteRequests(
      const std::shared_ptr<CBPeripheralManager>& manager,
      const std::vector<std::shared_ptr<CBATTRequest>>& requests) override {
    touch();
    TQBleProcess::didReceiveWriteRequests(manager, requests);
  }
  void didReceiveReadRequest(const std::shared_ptr<CBPeripheralManager>& manager,
                             const std::shared_ptr<CBATTRequest>& request) override {
    touch();
    TQBleProcess::didReceiveReadRequest(manager, request);
  }
};

/// A finder that pairs each write it sends with the platform's answer. Both
/// happen on the main thread, and answers on one link come in request order.
class CountingFinder : public TQBleFinder, public Mortal {
 public:
  void send(const Tag& tag) {
    // The finder writes every "FF0C" it has discovered; the emulator has one.
    std::size_t targets = 0;
    if (auto p = peripheral())
      for (const auto& s : p->services().value_or(CBServiceList{}))
        if (s)
          for (const auto& c : s->characteristics().value_or(CBCharacteristicList{}))
            targets += c && c->UUID() == kWrite ? 1 : 0;
    if (targets == 1) inflight_.push_back(tag);
    TQBeacon_SendData(payload(tag));
  }
  void didWriteValueForCharacteristic(const std::shared_ptr<CBPeripheral>& p,
                                      const std::shared_ptr<CBCharacteristic>& c,
                                      ErrorRef error) override {
    touch();
    if (!inflight_.empty()) {
      if (!error) accepted.push_back(inflight_.front());
      inflight_.pop_front();
    }
    TQBleFinder::didWriteValueForCharacteristic(p, c, error);
  }
  void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                               const std::shared_ptr<CBPeripheral>& p, ErrorRef error) override {
    touch();
    inflight_.clear();  // their answers died with the link
    TQBleFinder::didDisconnectPeripheral(central, p, error);
  }

  std::vector<Tag> accepted;  // main thread

 private:
  std::deque<Tag> inflight_;
};

struct QuietLog {
  QuietLog() : previous(setLogSink([](std::string_view) {})) {}
  ~QuietLog() { setLogSink(std::move(previous)); }
  LogSink previous;
};

class FinderEmulatorStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto* counter : {&lateCalls, &EmulatorApp::onMain, &FinderApp::offMain,
                          &FinderApp::badReads, &FinderApp::reads, &FinderApp::ranged})
      counter->store(0);
    peripheralManager.store(nullptr);
    region.store(nullptr);
    power.store(std::nullopt);
    air = sim::Air::create({.clock = sim::ClockMode::Virtual, .seed = 5});
    radio::Backend::setCurrent(air);
    NSUserDefaults::setStandardPath(defaults.file("defaults.json"));
  }
  void TearDown() override {
    peripheralManager.store(nullptr);
    air->settle();
    dispatch::settle();
    region.store(nullptr);
    power.store(std::nullopt);
    radio::Backend::setCurrent(nullptr);
    NSUserDefaults::setStandardPath({});
  }

  TempDir defaults;
  QuietLog quiet;
  std::shared_ptr<sim::Air> air;
};

TEST_F(FinderEmulatorStressTest, WritesArriveOnceInOrderAndNoDeadObjectIsCalled) {
  Deliveries deliveries;
  Cells<EmulatorApp> emulatorApps;
  Cells<FinderApp> finderApps;
  Cells<CountingEmulator> emulators;
  Cells<CountingFinder> finders;

  // Emulator side: owned by its application thread once the churn starts.
  std::uint8_t nextAnswer = 0xA0;
  EmulatorApp* emulatorApp = emulatorApps.make(deliveries, nextAnswer++);
  auto emulator = emulators.share();
  emulator->setDelegate(emulatorApp);
  emulator->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
  air->advance(100ms);

  // Finder side: main thread only, as the finder asks.
  struct Slot {
    std::shared_ptr<CountingFinder> finder;
    FinderApp* app = nullptr;
    int generation = 0;
    int nextSeq = 0;
    int lastConnect = -100;
    std::vector<Tag> accepted;  // of finders already replaced
  };
  std::array<Slot, kFinders> slots;
  const auto beaconRegion = std::make_shared<CLBeaconRegion>(kBeacon, "stress");
  auto freshFinder = [&](Slot& slot) {
    if (slot.finder) {
      slot.accepted.insert(slot.accepted.end(), slot.finder->accepted.begin(),
                           slot.finder->accepted.end());
    }
    slot.finder = finders.share();  // the one it replaces ends here, traffic or not
    ++slot.generation;
    slot.nextSeq = 0;
    slot.finder->setDelegate(slot.app);
    slot.finder->initTQFinder();
    // Ranging the emulator's own beacon adds a steady stream of main-queue callbacks.
    slot.finder->StartTQFinder(TQBleFinder::RegionList{beaconRegion});
  };
  for (auto& slot : slots) {
    slot.app = finderApps.make();
    freshFinder(slot);
  }

  // Posted by the finder threads, run on the main queue between air events.
  auto act = [&](std::size_t index, int round) {
    Slot& slot = slots[index];
    auto& f = *slot.finder;
    if (round % 97 == 50 + static_cast<int>(index) * 20) {
      freshFinder(slot);
    } else if (round % 31 == 7) {
      FinderApp* old = slot.app;
      slot.app = finderApps.make();
      f.setDelegate(slot.app);
      finderApps.end(old);  // no call of it can be under way on the main thread
    } else if (round % 41 == 13) {
      f.TQBeacon_Disconnect();
    } else if (!f.peripheral()) {
      // A search takes a few advertisements: do not restart it every round.
      if (round - slot.lastConnect >= 15) {
        slot.lastConnect = round;
        f.TQBeacon_Connect("12");
      }
    } else if (round % 5 == 0) {
      f.TQBeacon_ReqReadData();
    } else {
      f.send(Tag{static_cast<int>(index), slot.generation, slot.nextSeq++});
    }
  };

  // Every round: the threads act while the main thread runs 20 ms of air.
  std::barrier<> sync(1 + kFinders + 1);
  std::vector<std::thread> threads;
  for (std::size_t index = 0; index < kFinders; ++index) {
    threads.emplace_back([&, index] {
      for (int round = 0; round < kRounds; ++round) {
        sync.arrive_and_wait();
        DispatchQueue::main()->async([&act, index, round] { act(index, round); });
        sync.arrive_and_wait();
      }
    });
  }
  threads.emplace_back([&] {
    for (int round = 0; round < kRounds; ++round) {
      sync.arrive_and_wait();
      switch (round % 60) {
        case 10: {  // a new application delegate; the old one is destroyed
          EmulatorApp* old = emulatorApp;
          emulatorApp = emulatorApps.make(deliveries, nextAnswer++);
          emulator->setDelegate(emulatorApp);
          // Calls that picked up the old delegate run on the pool: once it
          // has been idle, none is left.
          dispatch::waitForGlobalIdle();
          emulatorApps.end(old);
          break;
        }
        case 25:  // restart: the links drop, a new manager publishes afresh
          if (emulator->StopTQBeacon())
            emulator->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
          break;
        case 40: {  // a new emulator takes the shared manager; the old one is released
          auto replacement = emulators.share();
          replacement->setDelegate(emulatorApp);
          replacement->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
          emulator = std::move(replacement);
          break;
        }
        case 55:
          emulator->DestroyTQBeacon();
          emulator->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
          break;
        default:
          (void)emulator->is_TQBeaconState();
          (void)emulator->customService();
      }
      sync.arrive_and_wait();
    }
  });

  for (int round = 0; round < kRounds; ++round) {
    sync.arrive_and_wait();
    air->advance(20ms);
    sync.arrive_and_wait();
  }
  for (auto& t : threads) t.join();
  air->advance(1s);  // answers still in flight come home
  std::vector<Tag> tags;
  int malformed;
  {
    std::lock_guard lock(deliveries.mutex);
    tags = deliveries.tags;
    malformed = deliveries.malformed;
  }

  std::map<std::pair<int, int>, std::vector<int>> delivered;  // (slot, generation) -> seqs
  for (const Tag& t : tags) delivered[{t.slot, t.generation}].push_back(t.seq);
  std::size_t acceptedTotal = 0;
  for (std::size_t index = 0; index < kFinders; ++index) {
    Slot& slot = slots[index];
    std::vector<Tag> accepted = slot.accepted;
    accepted.insert(accepted.end(), slot.finder->accepted.begin(), slot.finder->accepted.end());
    acceptedTotal += accepted.size();
    for (const Tag& t : accepted) {
      const auto& seqs = delivered[{t.slot, t.generation}];
      EXPECT_TRUE(std::binary_search(seqs.begin(), seqs.end(), t.seq))
          << "finder " << t.slot << "." << t.generation << " write " << t.seq << " lost";
    }
  }
  for (const auto& [finder, seqs] : delivered) {
    // In the order sent, never twice.
    EXPECT_TRUE(std::adjacent_find(seqs.begin(), seqs.end(), std::greater_equal<>()) == seqs.end())
        << "finder " << finder.first << "." << finder.second;
  }
  EXPECT_EQ(malformed, 0);
  EXPECT_EQ(lateCalls.load(), 0);
  EXPECT_EQ(EmulatorApp::onMain.load(), 0);
  EXPECT_EQ(FinderApp::offMain.load(), 0);
  EXPECT_EQ(FinderApp::badReads.load(), 0);
  RecordProperty("accepted", static_cast<int>(acceptedTotal));
  RecordProperty("reads", FinderApp::reads.load());
  RecordProperty("ranged", FinderApp::ranged.load());
  // The churn must leave room for real traffic, or the test proves nothing.
  EXPECT_GT(acceptedTotal, 600u);
  EXPECT_GT(FinderApp::reads.load(), 60);
  EXPECT_GT(FinderApp::ranged.load(), 20);

  for (auto& slot : slots) slot.finder.reset();
  emulator.reset();
  air->settle();
}

}  // namespace
}  // namespace lumora::test
