// Random remote centrals against a running emulator on a virtual-clock air:
// connect, discover, reads and writes of any characteristic with any offset
// and length, batches, disconnections, adapter power changes, registration
// failures, and the application restarting, stopping and re-configuring the
// emulator in between. Afterwards:
// - every request the centrals made was answered exactly once;
// - every write the emulator accepted reached the application once, and
//   each central's writes reached it in the order they were sent;
// - every successful read carries a value the application gave.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <map>
#include <mutex>
#include <set>

#include "Check.h"
#include "Lumora/TQBleProcess.h"
#include "backends/sim/Air.h"

using namespace lumora;
using namespace std::chrono_literals;

namespace {

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const std::array<CBUUID, 4> kCharacteristics{
    CBUUID::UUIDWithString(TQBleProcessWriteCharacteristicUUID),
    CBUUID::UUIDWithString(TQBleProcessReadCharacteristicUUID),
    CBUUID::UUIDWithString(TQBleProcessServiceUUID), CBUUID::UUIDWithString("2A19")};

// A write's first three bytes say who sent it: central index, sequence number.
struct Tag {
  int central;
  int seq;
  friend auto operator<=>(const Tag&, const Tag&) = default;
};

// Everything the application saw, whichever delegate was set; written on
// the global pool, read on the main thread once it is drained.
struct AppLog {
  std::mutex mutex;
  std::vector<Tag> delivered;
  std::set<Bytes> answers{Bytes{}};  // every read answer ever configured (null reads as empty)
};

class App : public TQBleProcessDelegate {
 public:
  explicit App(AppLog& log) : log_(log) {}
  void setAnswer(Data answer) {
    std::lock_guard lock(log_.mutex);
    if (answer) log_.answers.insert(*answer);
    answer_ = std::move(answer);
  }
  Data tqbleprocess_didReqReadData() override {
    std::lock_guard lock(log_.mutex);
    return answer_;
  }
  void tqbleprocess_didRevData(const Data& data) override {
    FUZZ_CHECK(!isMainThread());
    FUZZ_CHECK(data && data->size() >= 3);
    std::lock_guard lock(log_.mutex);
    log_.delivered.push_back(Tag{(*data)[0], ((*data)[1] << 8) | (*data)[2]});
  }

 private:
  AppLog& log_;
  Data answer_;
};

struct Central {
  std::shared_ptr<sim::VirtualCentral> link;
  int nextSeq = 0;
};

// Per request: how often its completion ran, and what it said.
struct Outcomes {
  std::map<Tag, std::pair<int, CBATTError>> writes;
  int readsIssued = 0;
  int readsAnswered = 0;
};

void resetEmulatorGlobals() {
  peripheralManager.store(nullptr);
  region.store(nullptr);
  power.store(std::nullopt);
}

std::optional<Number> number(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
      return std::nullopt;
    case 1:
      return Number(in.ConsumeIntegralInRange(0, 3));
    case 2:
      return Number(in.ConsumeIntegral<long long>());
    default:
      return Number(in.ConsumeFloatingPoint<double>());
  }
}

class Run {
 public:
  explicit Run(FuzzedDataProvider& in) : in_(in) {
    sim::AirOptions options;
    options.clock = sim::ClockMode::Virtual;
    options.seed = in.ConsumeIntegral<std::uint8_t>();
    options.linkLatency = std::chrono::milliseconds(in.ConsumeIntegralInRange(0, 20));
    options.initialState = in.ConsumeProbability<float>() < 0.8f ? CBManagerState::PoweredOn
                                                                 : CBManagerState::PoweredOff;
    air_ = sim::Air::create(options);
    radio::Backend::setCurrent(air_);
    for (auto& app : apps_) app = std::make_unique<App>(log_);
    emulators_[0] = std::make_shared<TQBleProcess>();
    emulators_[0]->setDelegate(apps_[0].get());
    emulators_[0]->initStartTQBeacon(kUuid, Number(1), Number(2), std::nullopt);
    air_->advance(50ms);
    // One central starts out linked, so that short inputs already exchange data.
    centrals_.push_back({air_->addCentral()});
    centrals_.back().link->connectByName("12");
  }

  ~Run() {
    peripheralManager.store(nullptr);
    air_->settle();
    resetEmulatorGlobals();
    radio::Backend::setCurrent(nullptr);
  }

  void step() {
    switch (in_.ConsumeIntegralInRange(0, 17)) {
      case 0:
        if (centrals_.size() < 4) centrals_.push_back({air_->addCentral()});
        break;
      case 1:
        central().link->connectByName(in_.ConsumeBool() ? "12" : in_.ConsumeRandomLengthString(4));
        break;
      case 2:
        (void)central().link->discover();
        break;
      case 3:
      case 4:
      case 14:
      case 15:
        // Half of them to the write characteristic, the rest anywhere.
        write(central(), in_.ConsumeBool() ? 0 : in_.ConsumeIntegralInRange(0, 3));
        break;
      case 5:
      case 16:
        read(central());
        break;
      case 6:
        central().link->disconnect();
        break;
      case 7:
      case 17:
        air_->advance(std::chrono::milliseconds(in_.ConsumeIntegralInRange(0, 200)));
        break;
      case 8:
        air_->setAdapterState(static_cast<CBManagerState>(in_.ConsumeIntegralInRange(0, 5)));
        break;
      case 9:
        air_->failNextServiceRegistration(Error{"CBErrorDomain", 0, "fuzz"});
        break;
      case 10:
        apps_[in_.ConsumeIntegralInRange(0, 1)]->setAnswer(
            in_.ConsumeBool() ? Data{} : Data{in_.ConsumeBytes<std::uint8_t>(length())});
        break;
      case 11:
        emulator()->setDelegate(apps_[in_.ConsumeIntegralInRange(0, 1)].get());
        break;
      case 12: {
        auto& e = emulator();
        if (!e) {
          e = std::make_shared<TQBleProcess>();
          e->setDelegate(apps_[1].get());
        }
        auto uuid = in_.ConsumeBool() ? std::optional<Uuid>(kUuid) : std::nullopt;
        auto major = number(in_), minor = number(in_), measured = number(in_);
        e->initStartTQBeacon(uuid, major, minor, measured);
        break;
      }
      case 13:
        switch (in_.ConsumeIntegralInRange(0, 2)) {
          case 0:
            (void)emulator()->StartTQBeacon();
            break;
          case 1:
            (void)emulator()->StopTQBeacon();
            break;
          default:
            emulator()->DestroyTQBeacon();
        }
        break;
    }
  }

  void finish() {
    // Requests in flight complete first; then the links close, failing
    // whatever the application's churn still holds up.
    air_->advance(1s);
    for (auto& c : centrals_) c.link->disconnect();
    air_->advance(1s);
    dispatch::settle();

    std::lock_guard lock(log_.mutex);
    std::map<int, int> lastSeq;
    std::set<Tag> seen;
    for (const Tag& tag : log_.delivered) {
      FUZZ_CHECK(outcomes_.writes.count(tag) == 1);  // sent to the write characteristic
      FUZZ_CHECK(seen.insert(tag).second);           // once
      auto [last, fresh] = lastSeq.try_emplace(tag.central, tag.seq);
      FUZZ_CHECK(fresh || tag.seq > last->second);  // in the order sent
      last->second = tag.seq;
    }
    for (const auto& [tag, outcome] : outcomes_.writes) {
      FUZZ_CHECK(outcome.first == 1);
      if (outcome.second == CBATTError::Success) FUZZ_CHECK(seen.count(tag) == 1);
    }
    FUZZ_CHECK(outcomes_.readsAnswered == outcomes_.readsIssued);
  }

 private:
  Central& central() {
    if (centrals_.empty()) centrals_.push_back({air_->addCentral()});
    return centrals_[in_.ConsumeIntegralInRange<std::size_t>(0, centrals_.size() - 1)];
  }
  std::shared_ptr<TQBleProcess>& emulator() {
    auto& e = emulators_[in_.ConsumeIntegralInRange(0, 1)];
    return e ? e : emulators_[0];
  }

  // Mostly short values; now and then one past the ATT maximum of 512.
  std::size_t length() {
    return in_.ConsumeBool() ? in_.ConsumeIntegralInRange<std::size_t>(0, 16)
                             : in_.ConsumeIntegralInRange<std::size_t>(0, 600);
  }

  Bytes payload(const Central& c, int seq) {
    const auto index = static_cast<std::uint8_t>(&c - centrals_.data());
    Bytes value{index, static_cast<std::uint8_t>(seq >> 8), static_cast<std::uint8_t>(seq)};
    const auto extra = in_.ConsumeBytes<std::uint8_t>(length());
    value.insert(value.end(), extra.begin(), extra.end());
    return value;
  }

  void write(Central& c, std::size_t characteristic) {
    const bool toWrite = characteristic == 0;
    const int count = in_.ConsumeBool() ? 1 : in_.ConsumeIntegralInRange(0, 4);
    std::vector<Tag> tags;
    std::vector<Bytes> values;
    for (int k = 0; k < count; ++k) {
      const Tag tag{static_cast<int>(&c - centrals_.data()), c.nextSeq++ & 0xFFFF};
      values.push_back(payload(c, tag.seq));
      // Only writes to the write characteristic may reach the application.
      if (toWrite) outcomes_.writes[tag] = {0, CBATTError::UnlikelyError};
      tags.push_back(tag);
    }
    auto done = [this, tags, toWrite](std::vector<CBATTError> results) {
      FUZZ_CHECK(results.size() == tags.size());
      if (!toWrite) return;
      for (std::size_t k = 0; k < tags.size(); ++k) {
        auto& outcome = outcomes_.writes[tags[k]];
        ++outcome.first;
        outcome.second = results[k];
      }
    };
    if (count == 1 && in_.ConsumeBool()) {
      c.link->write(kCharacteristics[characteristic], values[0],
                    [done](CBATTError result) { done({result}); });
    } else {
      c.link->writeBatch(kCharacteristics[characteristic], values, done);
    }
  }

  void read(Central& c) {
    ++outcomes_.readsIssued;
    const auto characteristic = in_.ConsumeIntegralInRange<std::size_t>(0, 3);
    c.link->read(kCharacteristics[characteristic], in_.ConsumeIntegral<std::uint16_t>(),
                 [this](CBATTError result, const Data& value) {
                   ++outcomes_.readsAnswered;
                   if (result != CBATTError::Success) return;
                   FUZZ_CHECK(value.has_value());
                   std::lock_guard lock(log_.mutex);
                   FUZZ_CHECK(log_.answers.count(*value) == 1);
                 });
  }

  FuzzedDataProvider& in_;
  std::shared_ptr<sim::Air> air_;
  AppLog log_;
  std::array<std::unique_ptr<App>, 2> apps_;
  std::array<std::shared_ptr<TQBleProcess>, 2> emulators_;
  std::vector<Central> centrals_;
  Outcomes outcomes_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::quietLog();
  resetEmulatorGlobals();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  Run run(in);
  for (int n = 0; n < 200 && in.remaining_bytes() > 0; ++n) run.step();
  run.finish();
  return 0;
}
