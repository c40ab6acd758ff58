// The emulator, alone with remote centrals and then with finders in the same
// process, under application threads that keep changing everything around
// the traffic: restarts, replacements, delegates swapped and destroyed.
// Callbacks arrive on the main queue (finders) and on the worker pool
// (emulator) throughout. Meant for ThreadSanitizer: besides the explicit
// checks, any data race fails the run.
//
// Objects that are destroyed while a test runs are built in cells that
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

const Uuid kBeacon = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kOther = *Uuid::fromString("74278BDA-B644-4520-8F0C-720EAF059935");
const CBUUID kWrite = CBUUID::UUIDWithString(TQBleProcessWriteCharacteristicUUID);
const CBUUID kRead = CBUUID::UUIDWithString("FFCC");

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

// A write's tag: writer slot, writer generation, sequence number.
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
  /// (slot, generation) -> sequence numbers, in delivery order.
  std::map<std::pair<int, int>, std::vector<int>> bySender() {
    std::lock_guard lock(mutex);
    std::map<std::pair<int, int>, std::vector<int>> out;
    for (const Tag& t : tags) out[{t.slot, t.generation}].push_back(t.seq);
    return out;
  }
};

/// Checks that every accepted write was delivered, and that each sender's
/// deliveries came in the order sent, none twice.
void expectDeliveredOnceInOrder(Deliveries& deliveries, const std::vector<Tag>& accepted) {
  auto delivered = deliveries.bySender();
  for (const Tag& t : accepted) {
    const auto& seqs = delivered[{t.slot, t.generation}];
    EXPECT_TRUE(std::find(seqs.begin(), seqs.end(), t.seq) != seqs.end())
        << "writer " << t.slot << "." << t.generation << " write " << t.seq << " lost";
  }
  for (const auto& [writer, seqs] : delivered) {
    EXPECT_TRUE(std::adjacent_find(seqs.begin(), seqs.end(), std::greater_equal<>()) == seqs.end())
        << "writer " << writer.first << "." << writer.second;
  }
  std::lock_guard lock(deliveries.mutex);
  EXPECT_EQ(deliveries.malformed, 0);
}

/// Answers reads with one byte of its own (A0 and up) and keeps every write.
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
  static bool isAnswer(const Data& v) { return v && v->size() == 1 && (*v)[0] >= 0xA0; }
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
    // Event 80 carries what the emulator's application answered.
    if (state != 80) return;
    reads.fetch_add(1);
    if (!EmulatorApp::isAnswer(data)) badReads.fetch_add(1);
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

// Thousands of "Write" lines would only slow the run down.
struct QuietLog {
  QuietLog() : previous(setLogSink([](std::string_view) {})) {}
  ~QuietLog() { setLogSink(std::move(previous)); }
  LogSink previous;
};

/// Runs `rounds` rounds; in each, every actor acts once on its own thread
/// while the main thread runs `main` (which advances the air). The barriers
/// keep the churn bounded however the machine schedules the threads.
void race(int rounds, const std::vector<std::function<void(int)>>& actors,
          const std::function<void(int)>& main) {
  std::barrier<> sync(static_cast<std::ptrdiff_t>(actors.size() + 1));
  std::vector<std::thread> threads;
  for (const auto& act : actors) {
    threads.emplace_back([&sync, &act, rounds] {
      for (int round = 0; round < rounds; ++round) {
        sync.arrive_and_wait();
        act(round);
        sync.arrive_and_wait();
      }
    });
  }
  for (int round = 0; round < rounds; ++round) {
    sync.arrive_and_wait();
    main(round);
    sync.arrive_and_wait();
  }
  for (auto& t : threads) t.join();
}

class StressTest : public ::testing::Test {
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
    EXPECT_EQ(lateCalls.load(), 0);
    EXPECT_EQ(EmulatorApp::onMain.load(), 0);
  }

  TempDir defaults;
  QuietLog quiet;
  std::shared_ptr<sim::Air> air;
};

// Remote centrals write (singly and in prepared batches) and read while two
// application threads restart, re-configure and re-delegate two emulators
// sharing the one manager, and a third reads every property the callbacks
// write.
TEST_F(StressTest, CentralWritesArriveOnceAndInOrderWhileTheAppChurns) {
  constexpr int kCentrals = 3;
  Deliveries deliveries;
  Cells<EmulatorApp> apps;
  const std::array<EmulatorApp*, 3> app = {apps.make(deliveries, 0xA0), apps.make(deliveries, 0xA1),
                                           apps.make(deliveries, 0xA2)};
  auto first = std::make_shared<TQBleProcess>();
  first->setDelegate(app[0]);
  first->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
  auto second = std::make_shared<TQBleProcess>();
  second->setDelegate(app[1]);
  air->advance(100ms);

  struct Central {
    std::shared_ptr<sim::VirtualCentral> central;
    int nextSeq = 0;
    int outstanding = 0;
    std::vector<Tag> accepted;
    int badReads = 0;
  };
  std::vector<Central> centrals(kCentrals);
  for (auto& c : centrals) c.central = air->addCentral();
  auto traffic = [&](int round) {
    for (int index = 0; index < kCentrals; ++index) {
      auto& c = centrals[static_cast<std::size_t>(index)];
      if (!c.central->isConnected()) {
        c.central->connectByName("12");  // the identity stays "12": the region is sticky
        continue;
      }
      if (c.outstanding > 2) continue;
      std::vector<Tag> tags;
      for (int k = round % 7 == 3 ? 3 : 2; k > 0; --k) tags.push_back({index, 0, c.nextSeq++});
      if (tags.size() == 3) {
        ++c.outstanding;
        std::vector<Bytes> batch;
        for (const Tag& t : tags) batch.push_back(payload(t));
        c.central->writeBatch(kWrite, batch, [&c, tags](const std::vector<CBATTError>& results) {
          --c.outstanding;
          for (std::size_t k = 0; k < results.size() && k < tags.size(); ++k)
            if (results[k] == CBATTError::Success) c.accepted.push_back(tags[k]);
        });
      } else {
        for (const Tag& t : tags) {
          ++c.outstanding;
          c.central->write(kWrite, payload(t), [&c, t](CBATTError e) {
            --c.outstanding;
            if (e == CBATTError::Success) c.accepted.push_back(t);
          });
        }
      }
      c.central->read(kRead, 0, [&c](CBATTError result, const Data& value) {
        if (result == CBATTError::Success && !EmulatorApp::isAnswer(value)) ++c.badReads;
      });
    }
    air->advance(20ms);
  };

  std::atomic<int> stops{0};
  race(1000,
       {[&](int round) {
          if (round % 40 == 0) {
            if (first->StopTQBeacon()) stops.fetch_add(1);
            first->initStartTQBeacon(kOther, Number(9), Number(9), Number(-40));
          } else if (round % 20 == 13) {
            first->StartTQBeacon();
          } else {
            first->setDelegate(app[static_cast<std::size_t>(round) % 3]);
          }
        },
        [&](int round) {
          if (round % 45 == 0) {
            second->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
          } else if (round % 45 == 23) {
            first->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
          } else if (round % 70 == 0) {
            second->DestroyTQBeacon();
            second->initStartTQBeacon(kBeacon, Number(1), Number(2), std::nullopt);
          } else {
            second->setDelegate(app[static_cast<std::size_t>(round + 1) % 3]);
          }
        },
        [&](int) {
          (void)first->is_TQBeaconState();
          (void)second->customService();
          (void)first->customCharacteristic_Write();
          (void)second->numberFormatter();
          (void)first->uuid();
          (void)power.load();
          (void)region.load();
        }},
       traffic);
  air->advance(1s);  // answers still in flight come home

  std::vector<Tag> accepted;
  for (const auto& c : centrals) {
    // Answers come back in request order too.
    EXPECT_TRUE(std::is_sorted(c.accepted.begin(), c.accepted.end()));
    EXPECT_EQ(c.badReads, 0);
    accepted.insert(accepted.end(), c.accepted.begin(), c.accepted.end());
  }
  expectDeliveredOnceInOrder(deliveries, accepted);
  RecordProperty("stops", stops.load());
  // The churn must leave room for real traffic, or the test proves nothing.
  EXPECT_GT(accepted.size(), 300u);
  first.reset();
  second.reset();
}

// Finders are disconnected, reconnected and replaced, their delegates swapped
// and destroyed, while the emulator is restarted, replaced and re-delegated.
TEST_F(StressTest, FinderWritesArriveOnceInOrderAndNoDeadObjectIsCalled) {
  constexpr int kRounds = 2000;  // of 20 ms of virtual time
  constexpr std::size_t kFinders = 2;
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
  std::vector<std::function<void(int)>> actors;
  for (std::size_t index = 0; index < kFinders; ++index) {
    actors.push_back([&act, index](int round) {
      DispatchQueue::main()->async([&act, index, round] { act(index, round); });
    });
  }
  actors.push_back([&](int round) {
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
  });
  race(kRounds, actors, [&](int) { air->advance(20ms); });
  air->advance(1s);  // answers still in flight come home

  std::vector<Tag> accepted;
  for (Slot& slot : slots) {
    accepted.insert(accepted.end(), slot.accepted.begin(), slot.accepted.end());
    accepted.insert(accepted.end(), slot.finder->accepted.begin(), slot.finder->accepted.end());
  }
  expectDeliveredOnceInOrder(deliveries, accepted);
  EXPECT_EQ(FinderApp::offMain.load(), 0);
  EXPECT_EQ(FinderApp::badReads.load(), 0);
  // The churn must leave room for real traffic, or the test proves nothing.
  EXPECT_GT(accepted.size(), 600u);
  EXPECT_GT(FinderApp::reads.load(), 60);
  EXPECT_GT(FinderApp::ranged.load(), 20);

  for (auto& slot : slots) slot.finder.reset();
  emulator.reset();
  air->settle();
}

}  // namespace
}  // namespace lumora::test
