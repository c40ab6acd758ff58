// Test rig for the beacon emulator: the simulated air with a listening radio
// in front of it, and a recording application delegate.
//
// The listening radio (SpyBackend) passes everything through to the air and
// writes down, in one journal shared with the recording delegate, what the
// peripheral manager asks of the radio (services, advertising, answers) and
// which requests the radio delivered. Because the journal is one sequence,
// tests can check orders that cross the two sides, such as "each write is
// answered before the application sees its bytes".
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Bytes.h"
#include "Foundation/Dispatch.h"
#include "Lumora/TQBleProcess.h"
#include "backends/sim/Air.h"

namespace lumora::test {

using namespace std::chrono_literals;

/// One ordered record of everything the emulator did, from any thread, and
/// in full what the peripheral session was asked to publish and advertise.
class Journal {
 public:
  void add(std::string entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
  }
  /// Entries added after `mark` (a size taken earlier with size()).
  std::vector<std::string> since(std::size_t mark = 0) const {
    std::lock_guard lock(mutex_);
    return {entries_.begin() + static_cast<std::ptrdiff_t>(std::min(mark, entries_.size())),
            entries_.end()};
  }
  std::size_t size() const { return since().size(); }
  std::size_t count(const std::string& prefix) const {
    const auto all = since();
    return std::count_if(all.begin(), all.end(),
                         [&](const auto& e) { return e.starts_with(prefix); });
  }
  std::vector<radio::LocalService> services() const {
    std::lock_guard lock(mutex_);
    return services_;
  }
  std::vector<CBAdvertisementData> advertised() const {
    std::lock_guard lock(mutex_);
    return advertisements_;
  }
  void keep(const radio::LocalService& service) {
    std::lock_guard lock(mutex_);
    services_.push_back(service);
  }
  void keep(const CBAdvertisementData& advertisement) {
    std::lock_guard lock(mutex_);
    advertisements_.push_back(advertisement);
  }
  void noteRequest(radio::RequestId id, std::string what) {
    std::lock_guard lock(mutex_);
    requests_[id] = std::move(what);
  }
  std::string request(radio::RequestId id) const {
    std::lock_guard lock(mutex_);
    auto it = requests_.find(id);
    return it == requests_.end() ? "unknown" : it->second;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
  std::vector<radio::LocalService> services_;         // every addService, in order
  std::vector<CBAdvertisementData> advertisements_;   // every startAdvertising, in order
  std::map<radio::RequestId, std::string> requests_;  // id -> "write <..>" / "read"
};

/// Stands between the peripheral manager and the air's session both ways:
/// journals the manager's calls and the radio's events before passing them on.
class SpyPeripheral : public radio::PeripheralRadio, public radio::PeripheralEvents {
 public:
  SpyPeripheral(std::weak_ptr<radio::PeripheralEvents> target, std::shared_ptr<Journal> journal)
      : target_(std::move(target)), journal_(std::move(journal)) {}
  std::shared_ptr<radio::PeripheralRadio> inner;

  // What the radio tells the manager.
  void radioStateChanged(CBManagerState state) override {
    journal_->add("state " + std::to_string(static_cast<int>(state)));
    if (auto t = target_.lock()) t->radioStateChanged(state);
  }
  void radioServiceAdded(radio::ServiceToken service, const std::optional<Error>& error) override {
    journal_->add(error ? "serviceAdded error" : "serviceAdded");
    if (auto t = target_.lock()) t->radioServiceAdded(service, error);
  }
  void radioAdvertisingStarted(const std::optional<Error>& error) override {
    if (auto t = target_.lock()) t->radioAdvertisingStarted(error);
  }
  void radioReadRequest(const radio::AttRequest& request) override {
    journal_->noteRequest(request.id, "read");
    journal_->add("request read @" + std::to_string(request.offset));
    if (auto t = target_.lock()) t->radioReadRequest(request);
  }
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override {
    for (const auto& r : requests) journal_->noteRequest(r.id, "write " + description(r.value));
    journal_->add("request writes " + std::to_string(requests.size()));
    if (auto t = target_.lock()) t->radioWriteRequests(requests);
  }

  // What the manager asks of the radio.
  CBManagerState state() const override { return inner->state(); }
  void addService(radio::ServiceToken token, const radio::LocalService& service) override {
    journal_->add("addService " + service.uuid.UUIDString());
    journal_->keep(service);
    inner->addService(token, service);
  }
  void removeService(radio::ServiceToken token) override {
    journal_->add("removeService");
    inner->removeService(token);
  }
  void removeAllServices() override {
    journal_->add("removeAllServices");
    inner->removeAllServices();
  }
  void startAdvertising(const CBAdvertisementData& data) override {
    journal_->add("startAdvertising " + data.localName.value_or("(no name)"));
    journal_->keep(data);
    inner->startAdvertising(data);
  }
  void stopAdvertising() override {
    journal_->add("stopAdvertising");
    inner->stopAdvertising();
  }
  void respond(radio::RequestId request, CBATTError result, const Data& value) override {
    std::string what = journal_->request(request);
    if (what == "read") what += " " + description(value);
    journal_->add("respond " + std::to_string(static_cast<int>(result)) + " " + what);
    inner->respond(request, result, value);
  }
  void close() override {
    journal_->add("close");
    inner->close();
  }

 private:
  std::weak_ptr<radio::PeripheralEvents> target_;
  std::shared_ptr<Journal> journal_;
};

/// The air, with every peripheral session it opens listened to.
class SpyBackend : public radio::Backend {
 public:
  SpyBackend(std::shared_ptr<sim::Air> air, std::shared_ptr<Journal> journal)
      : air_(std::move(air)), journal_(std::move(journal)) {}

  std::string name() const override { return air_->name(); }
  CBManagerState adapterState() const override { return air_->adapterState(); }
  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override {
    return air_->openCentral(std::move(events));
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    // The air holds the spy weakly as its listener; the manager owns it.
    auto spy = std::make_shared<SpyPeripheral>(std::move(events), journal_);
    spy->inner = air_->openPeripheral(spy);
    journal_->add("openPeripheral");
    return spy;
  }
  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)> sink) override {
    return air_->observeAdvertisements(std::move(sink));
  }
  int locationAuthorizationStatus() const override { return air_->locationAuthorizationStatus(); }
  radio::Nanos now() const override { return air_->now(); }
  radio::TimerId scheduleAfter(radio::Nanos delay, std::function<void()> fn) override {
    return air_->scheduleAfter(delay, std::move(fn));
  }
  void cancelScheduled(radio::TimerId id) override { air_->cancelScheduled(id); }

 private:
  std::shared_ptr<sim::Air> air_;
  std::shared_ptr<Journal> journal_;
};

/// The application's side: answers reads with `readValue`, keeps every
/// write, counts calls made on the main thread or anywhere but the global
/// pool, and writes both kinds of call into the journal (when given one).
class ProcessRecorder : public TQBleProcessDelegate {
 public:
  struct Record {
    Data readValue;
    std::vector<Data> received;
    int reads = 0;
    int misplacedCalls = 0;
  };

  explicit ProcessRecorder(std::shared_ptr<Journal> journal = nullptr)
      : journal_(std::move(journal)) {}

  Data tqbleprocess_didReqReadData() override {
    Data answer = update([](Record& r) {
      ++r.reads;
      return r.readValue;
    });
    if (journal_) journal_->add("didReqReadData");
    return answer;
  }
  void tqbleprocess_didRevData(const Data& data) override {
    update([&](Record& r) { r.received.push_back(data); });
    if (journal_) journal_->add("didRevData " + description(data));
  }

  void setReadValue(Data value) {
    std::lock_guard lock(mutex_);
    record_.readValue = std::move(value);
  }
  Record record() const {
    std::lock_guard lock(mutex_);
    return record_;
  }

 private:
  template <class F>
  std::invoke_result_t<F, Record&> update(F f) {
    const bool misplaced = isMainThread() || !DispatchQueue::global()->isCurrent();
    std::lock_guard lock(mutex_);
    record_.misplacedCalls += misplaced ? 1 : 0;
    return f(record_);
  }

  std::shared_ptr<Journal> journal_;
  mutable std::mutex mutex_;
  Record record_;
};

/// What an advertisement says, decoded the way a finder would.
struct Advertised {
  Uuid uuid;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  int measuredPower = 0;
  std::string localName;
  friend bool operator==(const Advertised&, const Advertised&) = default;
};
inline std::optional<Advertised> decode(const CBAdvertisementData& data) {
  if (!data.manufacturerData) return std::nullopt;
  auto frame = parseIBeacon(data.manufacturerData->data(), data.manufacturerData->size());
  if (!frame) return std::nullopt;
  return Advertised{frame->uuid, frame->major, frame->minor, frame->measuredPower,
                    data.localName.value_or("")};
}

inline const Uuid kBeaconUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
inline const Uuid kOtherUuid = *Uuid::fromString("74278BDA-B644-4520-8F0C-720EAF059935");
inline const CBUUID kWriteChar = CBUUID::UUIDWithString("FF0C");
inline const CBUUID kReadChar = CBUUID::UUIDWithString("FFCC");
inline const CBUUID kServiceUuid = CBUUID::UUIDWithString("CC00FFC0-0451-4000-B000-000000000000");
inline const std::string kAddService = "addService CC00FFC0-0451-4000-B000-000000000000";

/// A fresh air behind a listening radio for every test; the emulator's
/// process-wide state is reset before and after, so each test starts from a
/// new process's point of view.
///
/// The adapter starts powered off and tests switch it on with powerOn(), so
/// the report that starts the emulator is a change of the adapter's state;
/// AdapterOnTest covers the other road, a new manager's first report.
class EmulatorTest : public ::testing::Test {
 protected:
  virtual CBManagerState initialState() const { return CBManagerState::PoweredOff; }

  static void resetEmulatorGlobals() {
    peripheralManager.store(nullptr);
    region.store(nullptr);
    power.store(std::nullopt);
  }

  void SetUp() override {
    resetEmulatorGlobals();
    air = sim::Air::create(
        {.clock = sim::ClockMode::Virtual, .seed = 11, .initialState = initialState()});
    radio::Backend::setCurrent(std::make_shared<SpyBackend>(air, journal));
  }

  void TearDown() override {
    // The manager goes first so its session closes while the air is current.
    peripheralManager.store(nullptr);
    air->settle();
    dispatch::settle();
    resetEmulatorGlobals();
    radio::Backend::setCurrent(nullptr);
  }

  /// A configured emulator made the way applications make one, once its
  /// manager's first report has been delivered.
  std::shared_ptr<TQBleProcess> configured(std::optional<Uuid> uuid, std::optional<Number> major,
                                           std::optional<Number> minor,
                                           std::optional<Number> measuredPower = std::nullopt,
                                           TQBleProcessDelegate* delegate = nullptr) {
    auto emulator = std::make_shared<TQBleProcess>();
    emulator->setDelegate(delegate);
    emulator->initStartTQBeacon(uuid, major, minor, measuredPower);
    air->settle();
    return emulator;
  }

  /// Switches the adapter on and gives the emulator time to publish its
  /// service and advertise.
  void powerOn() {
    air->settle();
    air->setAdapterState(CBManagerState::PoweredOn);
    air->advance(100ms);
  }

  /// A connected remote central, or a test failure when nothing advertises `name`.
  std::shared_ptr<sim::VirtualCentral> connectedCentral(const std::string& name) {
    auto central = air->addCentral();
    EXPECT_TRUE(central->connectByName(name)) << "nothing advertises " << name;
    air->advance(50ms);
    EXPECT_TRUE(central->isConnected());
    return central;
  }

  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::shared_ptr<sim::Air> air;
};

/// The adapter is already on when the emulator is configured: the emulator
/// must start from its manager's first report, the way applications see it.
class AdapterOnTest : public EmulatorTest {
 protected:
  CBManagerState initialState() const override { return CBManagerState::PoweredOn; }
};

}  // namespace lumora::test
