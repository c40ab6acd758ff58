// Remote centrals writing to and reading from the emulator while application
// threads start, stop and re-configure it and swap its delegates. Meant for
// ThreadSanitizer: besides the explicit checks, any data race fails the run.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "Foundation/NSLog.h"
#include "emulator/EmulatorHarness.h"

namespace lumora::test {
namespace {

constexpr int kCentrals = 3;

// Every delegate appends to this one log, so the order of deliveries per
// central survives delegate swaps.
class DeliveryLog {
 public:
  void add(const Data& data) {
    std::lock_guard lock(mutex_);
    if (!data || data->size() != 5) {
      ++malformed_;
      return;
    }
    const auto& b = *data;
    std::uint32_t seq = (std::uint32_t{b[1]} << 24) | (std::uint32_t{b[2]} << 16) |
                        (std::uint32_t{b[3]} << 8) | b[4];
    delivered_[b[0]].push_back(seq);
  }
  std::map<int, std::vector<std::uint32_t>> delivered() const {
    std::lock_guard lock(mutex_);
    return delivered_;
  }
  int malformed() const {
    std::lock_guard lock(mutex_);
    return malformed_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<int, std::vector<std::uint32_t>> delivered_;
  int malformed_ = 0;
};

class SharingRecorder : public TQBleProcessDelegate {
 public:
  SharingRecorder(DeliveryLog& log, std::uint8_t tag) : log_(log), tag_(tag) {}
  Data tqbleprocess_didReqReadData() override { return Bytes{tag_, tag_}; }
  void tqbleprocess_didRevData(const Data& data) override { log_.add(data); }

 private:
  DeliveryLog& log_;
  std::uint8_t tag_;
};

Bytes payload(int central, std::uint32_t seq) {
  return Bytes{static_cast<std::uint8_t>(central), static_cast<std::uint8_t>(seq >> 24),
               static_cast<std::uint8_t>(seq >> 16), static_cast<std::uint8_t>(seq >> 8),
               static_cast<std::uint8_t>(seq)};
}

// Thousands of "Write" lines would only slow the run down.
struct QuietLog {
  QuietLog() : previous(setLogSink([](std::string_view) {})) {}
  ~QuietLog() { setLogSink(std::move(previous)); }
  LogSink previous;
};

class EmulatorStressTest : public EmulatorTest {};

TEST_F(EmulatorStressTest, AcceptedWritesArriveOnceAndInOrderWhileTheAppChurns) {
  QuietLog quiet;
  DeliveryLog deliveries;
  std::vector<std::unique_ptr<SharingRecorder>> apps;
  for (std::uint8_t tag = 0xD0; tag < 0xD3; ++tag)
    apps.push_back(std::make_unique<SharingRecorder>(deliveries, tag));

  auto first = configured(kBeaconUuid, Number(1), Number(2), std::nullopt, apps[0].get());
  auto second = std::make_shared<TQBleProcess>();
  second->setDelegate(apps[1].get());
  powerOn();

  // Application threads act on ticks of the main loop, racing the air as it
  // advances. A thread that wakes late acts once for the ticks it missed, so
  // the churn stays bounded (restarts do not pile up services); every tenth
  // tick the main loop lets the threads catch up, so a loaded machine still
  // sees the churn. `crossed` tells whether a tick of the given period and
  // phase passed since the thread last acted.
  std::atomic<int> tick{0};
  std::array<std::atomic<int>, 3> actedOn{};  // the tick each thread last acted on
  std::size_t nextThread = 0;
  std::atomic<int> stops{0};
  std::atomic<bool> done{false};
  auto appThread = [&](auto&& step) {
    return std::thread([&, step, &acted = actedOn.at(nextThread++)] {
      for (int last = 0;;) {
        tick.wait(last);
        const int now = tick.load();
        if (done.load()) break;
        auto crossed = [last, now](int period, int phase) {
          return (now + phase) / period > (last + phase) / period;
        };
        step(now, crossed);
        last = now;
        acted.store(now);
        acted.notify_all();
      }
    });
  };
  std::vector<std::thread> threads;
  threads.push_back(appThread([&](int now, auto crossed) {
    if (crossed(40, 0)) {
      if (first->StopTQBeacon()) stops.fetch_add(1);
      first->initStartTQBeacon(kOtherUuid, Number(9), Number(9), Number(-40));
    } else if (crossed(20, 7)) {
      first->StartTQBeacon();
    } else {
      first->setDelegate(apps[static_cast<std::size_t>(now) % apps.size()].get());
    }
  }));
  threads.push_back(appThread([&](int now, auto crossed) {
    if (crossed(45, 0)) {
      second->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
    } else if (crossed(45, 22)) {
      first->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
    } else if (crossed(70, 0)) {
      second->DestroyTQBeacon();
      second->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
    } else {
      second->setDelegate(apps[static_cast<std::size_t>(now + 1) % apps.size()].get());
    }
  }));
  threads.push_back(appThread([&](int, auto) {
    // Readers of every property the callbacks write.
    (void)first->is_TQBeaconState();
    (void)second->customService();
    (void)first->customCharacteristic_Write();
    (void)second->numberFormatter();
    (void)first->uuid();
    (void)power.load();
    (void)region.load();
  }));

  struct CentralState {
    std::shared_ptr<sim::VirtualCentral> central;
    std::uint32_t nextSeq = 0;
    int outstanding = 0;
    std::vector<std::uint32_t> accepted;
    int readsAnswered = 0;
    int readsWrongValue = 0;
  };
  std::vector<CentralState> centrals(kCentrals);
  for (auto& c : centrals) c.central = air->addCentral();

  for (int round = 0; round < 1000; ++round) {
    for (int index = 0; index < kCentrals; ++index) {
      auto& c = centrals[static_cast<std::size_t>(index)];
      if (!c.central->isConnected()) {
        c.central->connectByName("12");  // the identity stays "12": the region is sticky
        continue;
      }
      if (c.outstanding > 2) continue;
      auto writeOne = [&c, index](std::uint32_t seq) {
        ++c.outstanding;
        c.central->write(kWriteChar, payload(index, seq), [&c, seq](CBATTError result) {
          --c.outstanding;
          if (result == CBATTError::Success) c.accepted.push_back(seq);
        });
      };
      if (round % 7 == 3) {
        std::vector<Bytes> batch;
        std::vector<std::uint32_t> seqs;
        for (int k = 0; k < 3; ++k) {
          seqs.push_back(c.nextSeq);
          batch.push_back(payload(index, c.nextSeq++));
        }
        ++c.outstanding;
        c.central->writeBatch(kWriteChar, batch, [&c, seqs](std::vector<CBATTError> results) {
          --c.outstanding;
          for (std::size_t k = 0; k < results.size() && k < seqs.size(); ++k)
            if (results[k] == CBATTError::Success) c.accepted.push_back(seqs[k]);
        });
      } else {
        writeOne(c.nextSeq++);
        writeOne(c.nextSeq++);
      }
      c.central->read(kReadChar, 0, [&c](CBATTError result, const Data& value) {
        if (result != CBATTError::Success) return;
        ++c.readsAnswered;
        if (!value || value->size() != 2 || (*value)[0] < 0xD0 || (*value)[0] > 0xD2)
          ++c.readsWrongValue;
      });
    }
    tick.fetch_add(1);
    tick.notify_all();
    air->advance(20ms);
    if (round % 10 == 9) {
      const int current = tick.load();
      for (auto& acted : actedOn)
        for (int seen = acted.load(); seen < current; seen = acted.load()) acted.wait(seen);
    }
  }

  done.store(true);
  tick.fetch_add(1);
  tick.notify_all();
  for (auto& t : threads) t.join();
  air->advance(1s);  // answers still in flight come home

  auto delivered = deliveries.delivered();
  EXPECT_EQ(deliveries.malformed(), 0);
  std::size_t acceptedTotal = 0;
  for (int index = 0; index < kCentrals; ++index) {
    const auto& c = centrals[static_cast<std::size_t>(index)];
    const auto& got = delivered[index];
    // Delivered in the order written, never twice.
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end())) << "central " << index;
    EXPECT_EQ(std::adjacent_find(got.begin(), got.end()), got.end()) << "central " << index;
    // Every write the central saw accepted reached the application.
    std::set<std::uint32_t> gotSet(got.begin(), got.end());
    for (auto seq : c.accepted)
      EXPECT_TRUE(gotSet.count(seq)) << "central " << index << " write " << seq << " lost";
    // Answers come back in request order too.
    EXPECT_TRUE(std::is_sorted(c.accepted.begin(), c.accepted.end())) << "central " << index;
    EXPECT_EQ(c.readsWrongValue, 0);
    acceptedTotal += c.accepted.size();
  }
  std::size_t deliveredTotal = 0;
  for (const auto& [central, seqs] : delivered) deliveredTotal += seqs.size();
  RecordProperty("accepted", static_cast<int>(acceptedTotal));
  RecordProperty("delivered", static_cast<int>(deliveredTotal));
  RecordProperty("managers", static_cast<int>(journal->count("openPeripheral")));
  RecordProperty("stops", stops.load());
  // The churn must leave room for real traffic, or the test proves nothing.
  EXPECT_GT(acceptedTotal, 300u);
}

}  // namespace
}  // namespace lumora::test
