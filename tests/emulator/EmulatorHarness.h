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
#include <thread>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Bytes.h"
#include "Foundation/Dispatch.h"
#include "Lumora/TQBleProcess.h"
#include "backends/sim/Air.h"

namespace lumora::test {

using namespace std::chrono_literals;

/// One ordered record of everything the emulator did, from any thread.
class Journal {
 public:
  void add(std::string entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
  }
  std::vector<std::string> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  /// Entries added after `mark` (a size taken earlier with size()).
  std::vector<std::string> since(std::size_t mark) const {
    std::lock_guard lock(mutex_);
    return {entries_.begin() + static_cast<std::ptrdiff_t>(std::min(mark, entries_.size())),
            entries_.end()};
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }
  std::size_t count(const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(entries_.begin(), entries_.end(),
                      [&](const std::string& e) { return e.starts_with(prefix); }));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

/// What the peripheral session was asked, kept in full for the checks that
/// need more than the journal's text.
struct RadioLog {
  std::mutex mutex;
  std::vector<radio::LocalService> services;         // every addService, in order
  std::vector<CBAdvertisementData> advertisements;   // every startAdvertising, in order
  std::map<radio::RequestId, std::string> requests;  // id -> "write <..>" / "read"
  std::map<radio::RequestId, std::pair<CBATTError, Data>> answers;

  std::vector<CBAdvertisementData> advertised() {
    std::lock_guard lock(mutex);
    return advertisements;
  }
  std::vector<radio::LocalService> added() {
    std::lock_guard lock(mutex);
    return services;
  }
};

/// Stands between the peripheral manager and the air's session: records the
/// radio's events before forwarding them to the manager.
class SpyEvents : public radio::PeripheralEvents {
 public:
  SpyEvents(std::weak_ptr<radio::PeripheralEvents> target, std::shared_ptr<Journal> journal,
            std::shared_ptr<RadioLog> log)
      : target_(std::move(target)), journal_(std::move(journal)), log_(std::move(log)) {}

  void radioStateChanged(CBManagerState state) override {
    journal_->add(std::string("state ") + std::to_string(static_cast<int>(state)));
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
    {
      std::lock_guard lock(log_->mutex);
      log_->requests[request.id] = "read";
    }
    journal_->add("request read @" + std::to_string(request.offset));
    if (auto t = target_.lock()) t->radioReadRequest(request);
  }
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override {
    {
      std::lock_guard lock(log_->mutex);
      for (const auto& r : requests) log_->requests[r.id] = "write " + description(r.value);
    }
    journal_->add("request writes " + std::to_string(requests.size()));
    if (auto t = target_.lock()) t->radioWriteRequests(requests);
  }

 private:
  std::weak_ptr<radio::PeripheralEvents> target_;
  std::shared_ptr<Journal> journal_;
  std::shared_ptr<RadioLog> log_;
};

class SpyPeripheral : public radio::PeripheralRadio {
 public:
  SpyPeripheral(std::shared_ptr<radio::PeripheralRadio> inner, std::shared_ptr<SpyEvents> events,
                std::shared_ptr<Journal> journal, std::shared_ptr<RadioLog> log)
      : inner_(std::move(inner)),
        events_(std::move(events)),
        journal_(std::move(journal)),
        log_(std::move(log)) {}

  CBManagerState state() const override { return inner_->state(); }
  void addService(radio::ServiceToken token, const radio::LocalService& service) override {
    {
      std::lock_guard lock(log_->mutex);
      log_->services.push_back(service);
    }
    journal_->add("addService " + service.uuid.UUIDString());
    inner_->addService(token, service);
  }
  void removeService(radio::ServiceToken token) override {
    journal_->add("removeService");
    inner_->removeService(token);
  }
  void removeAllServices() override {
    journal_->add("removeAllServices");
    inner_->removeAllServices();
  }
  void startAdvertising(const CBAdvertisementData& data) override {
    {
      std::lock_guard lock(log_->mutex);
      log_->advertisements.push_back(data);
    }
    journal_->add("startAdvertising " + data.localName.value_or("(no name)"));
    inner_->startAdvertising(data);
  }
  void stopAdvertising() override {
    journal_->add("stopAdvertising");
    inner_->stopAdvertising();
  }
  void respond(radio::RequestId request, CBATTError result, const Data& value) override {
    std::string what;
    {
      std::lock_guard lock(log_->mutex);
      log_->answers[request] = {result, value};
      auto it = log_->requests.find(request);
      what = it == log_->requests.end() ? "unknown" : it->second;
    }
    if (what == "read") what += " " + description(value);
    journal_->add("respond " + std::to_string(static_cast<int>(result)) + " " + what);
    inner_->respond(request, result, value);
  }
  void close() override {
    journal_->add("close");
    inner_->close();
  }

 private:
  std::shared_ptr<radio::PeripheralRadio> inner_;
  std::shared_ptr<SpyEvents> events_;  // owned here: the air holds it weakly
  std::shared_ptr<Journal> journal_;
  std::shared_ptr<RadioLog> log_;
};

/// The air, with every peripheral session it opens listened to.
class SpyBackend : public radio::Backend {
 public:
  SpyBackend(std::shared_ptr<sim::Air> air, std::shared_ptr<Journal> journal,
             std::shared_ptr<RadioLog> log)
      : air_(std::move(air)), journal_(std::move(journal)), log_(std::move(log)) {}

  std::string name() const override { return air_->name(); }
  CBManagerState adapterState() const override { return air_->adapterState(); }
  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override {
    return air_->openCentral(std::move(events));
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    auto spyEvents = std::make_shared<SpyEvents>(std::move(events), journal_, log_);
    auto inner = air_->openPeripheral(spyEvents);
    journal_->add("openPeripheral");
    return std::make_shared<SpyPeripheral>(std::move(inner), std::move(spyEvents), journal_, log_);
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
  std::shared_ptr<RadioLog> log_;
};

/// The application's side: answers reads with `readValue`, keeps every
/// write, notes the thread of each call, and writes both into the journal.
class ProcessRecorder : public TQBleProcessDelegate {
 public:
  explicit ProcessRecorder(std::shared_ptr<Journal> journal = nullptr, std::string tag = {})
      : journal_(std::move(journal)), tag_(std::move(tag)) {}

  Data tqbleprocess_didReqReadData() override {
    noteThread();
    Data answer;
    {
      std::lock_guard lock(mutex_);
      ++reads_;
      answer = readValue_;
    }
    if (journal_) journal_->add(tag_ + "didReqReadData");
    return answer;
  }
  void tqbleprocess_didRevData(const Data& data) override {
    noteThread();
    {
      std::lock_guard lock(mutex_);
      received_.push_back(data);
    }
    if (journal_) journal_->add(tag_ + "didRevData " + description(data));
  }

  void setReadValue(Data value) {
    std::lock_guard lock(mutex_);
    readValue_ = std::move(value);
  }
  std::vector<Data> received() const {
    std::lock_guard lock(mutex_);
    return received_;
  }
  int reads() const {
    std::lock_guard lock(mutex_);
    return reads_;
  }
  /// Calls made on the main thread, and calls made off the global pool.
  int callsOnMainThread() const {
    std::lock_guard lock(mutex_);
    return onMain_;
  }
  int callsOffGlobalQueue() const {
    std::lock_guard lock(mutex_);
    return offGlobal_;
  }

 private:
  void noteThread() {
    bool main = isMainThread();
    bool global = DispatchQueue::global()->isCurrent();
    std::lock_guard lock(mutex_);
    onMain_ += main ? 1 : 0;
    offGlobal_ += global ? 0 : 1;
  }

  std::shared_ptr<Journal> journal_;
  std::string tag_;
  mutable std::mutex mutex_;
  Data readValue_;
  std::vector<Data> received_;
  int reads_ = 0;
  int onMain_ = 0;
  int offGlobal_ = 0;
};

/// Forgets the process-wide emulator state so each test starts from a new
/// process's point of view.
inline void resetEmulatorGlobals() {
  peripheralManager.store(nullptr);
  region.store(nullptr);
  power.store(std::nullopt);
}

/// What an advertisement says, decoded the way a finder would.
struct Advertised {
  Uuid uuid;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  int measuredPower = 0;
  std::string localName;
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

/// A fresh air behind a listening radio for every test; the emulator's
/// process-wide state is reset before and after.
///
/// The adapter starts powered off and tests switch it on with powerOn(), so
/// the report that starts the emulator is a change of the adapter's state;
/// AdapterOnTest covers the other road, a new manager's first report.
class EmulatorTest : public ::testing::Test {
 protected:
  virtual sim::AirOptions airOptions() const {
    sim::AirOptions options;
    options.clock = sim::ClockMode::Virtual;
    options.seed = 11;
    options.initialState = CBManagerState::PoweredOff;
    return options;
  }

  void SetUp() override {
    resetEmulatorGlobals();
    air = sim::Air::create(airOptions());
    radio::Backend::setCurrent(std::make_shared<SpyBackend>(air, journal, radioLog));
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
                                           std::optional<Number> measuredPower,
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
  std::shared_ptr<RadioLog> radioLog = std::make_shared<RadioLog>();
  std::shared_ptr<sim::Air> air;
};

/// The adapter is already on when the emulator is configured: the emulator
/// must start from its manager's first report, the way applications see it.
class AdapterOnTest : public EmulatorTest {
 protected:
  sim::AirOptions airOptions() const override {
    auto options = EmulatorTest::airOptions();
    options.initialState = CBManagerState::PoweredOn;
    return options;
  }
};

}  // namespace lumora::test
