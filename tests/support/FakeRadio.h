// A scripted radio for the front objects. Sessions record what the fronts
// ask of them as text lines; the test raises the radio's events itself, feeds
// advertisements by hand and moves a virtual clock that runs the timers. Each
// runs on whichever thread drives it, so a test can play the radio's thread.
#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Dispatch.h"

namespace lumora::test {

inline std::string hex(const Data& bytes) {
  if (!bytes) return "null";
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (auto b : *bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0F]);
  }
  return "<" + out + ">";
}

inline std::string uuidList(const std::optional<std::vector<CBUUID>>& uuids) {
  if (!uuids) return "all";
  std::string out;
  for (const auto& uuid : *uuids) out += (out.empty() ? "" : ",") + uuid.UUIDString();
  return out;
}

/// Thread-safe list of the operations a session received.
class CallLog {
 public:
  void add(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// A session that keeps the front's event receiver (null once the front is gone).
template <typename Radio, typename Events>
class FakeSession : public Radio {
 public:
  FakeSession(std::weak_ptr<Events> events, CBManagerState state)
      : events_(std::move(events)), state_(state) {}
  std::shared_ptr<Events> events() const { return events_.lock(); }
  CBManagerState state() const override { return state_; }
  void close() override { calls.add("close"); }
  CallLog calls;

 private:
  std::weak_ptr<Events> events_;
  CBManagerState state_;
};

class FakeCentralRadio : public FakeSession<radio::CentralRadio, radio::CentralEvents> {
 public:
  using FakeSession::FakeSession;
  void startScan(const radio::ScanParameters& p) override {
    calls.add("startScan duplicates=" + std::to_string(p.allowDuplicates) +
              " services=" + uuidList(p.services));
  }
  void stopScan() override { calls.add("stopScan"); }
  void connect(const radio::PeripheralId& p) override { calls.add("connect " + p); }
  void cancelConnection(const radio::PeripheralId& p) override { calls.add("cancel " + p); }
  void discoverServices(const radio::PeripheralId& p,
                        const std::optional<std::vector<CBUUID>>& filter) override {
    calls.add("discoverServices " + p + " " + uuidList(filter));
  }
  void discoverCharacteristics(const radio::PeripheralId& p, radio::AttHandle service,
                               const std::optional<std::vector<CBUUID>>& filter) override {
    calls.add("discoverCharacteristics " + p + " " + std::to_string(service) + " " +
              uuidList(filter));
  }
  void read(const radio::PeripheralId& p, radio::AttHandle c) override {
    calls.add("read " + p + " " + std::to_string(c));
  }
  void write(const radio::PeripheralId& p, radio::AttHandle c, const Bytes& value,
             bool withResponse) override {
    calls.add("write " + p + " " + std::to_string(c) + " " + hex(value) + " " +
              (withResponse ? "withResponse" : "withoutResponse"));
  }
};

class FakePeripheralRadio : public FakeSession<radio::PeripheralRadio, radio::PeripheralEvents> {
 public:
  using FakeSession::FakeSession;
  /// The tokens of addService(), in call order.
  std::vector<radio::ServiceToken> tokens() const {
    std::lock_guard lock(mutex_);
    return tokens_;
  }

  // A service reads "addService UUID primary|secondary" then, per
  // characteristic, "UUID/properties/permissions/value".
  void addService(radio::ServiceToken token, const radio::LocalService& service) override {
    std::string line =
        "addService " + service.uuid.UUIDString() + (service.primary ? " primary" : " secondary");
    for (const auto& c : service.characteristics) {
      line += " " + c.uuid.UUIDString() + "/" + std::to_string(c.properties) + "/" +
              std::to_string(c.permissions) + "/" + hex(c.value);
    }
    {
      std::lock_guard lock(mutex_);
      tokens_.push_back(token);
    }
    calls.add(line);
  }
  void removeService(radio::ServiceToken token) override {
    calls.add("removeService " + std::to_string(token));
  }
  void removeAllServices() override { calls.add("removeAllServices"); }
  void startAdvertising(const CBAdvertisementData& data) override {
    calls.add("startAdvertising " +
              (data == CBAdvertisementData{} ? "empty" : data.localName.value_or("?")));
  }
  void stopAdvertising() override { calls.add("stopAdvertising"); }
  void respond(radio::RequestId request, CBATTError result, const Data& value) override {
    calls.add("respond " + std::to_string(request) + " " +
              std::to_string(static_cast<int>(result)) + " " + hex(value));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<radio::ServiceToken> tokens_;
};

class FakeRadio : public radio::Backend, public std::enable_shared_from_this<FakeRadio> {
 public:
  std::string name() const override { return "fake"; }
  CBManagerState adapterState() const override {
    std::lock_guard lock(mutex_);
    return state_;
  }
  /// Sessions start in the adapter's state of the moment.
  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override {
    auto session = std::make_shared<FakeCentralRadio>(std::move(events), adapterState());
    std::lock_guard lock(mutex_);
    return central_ = session;
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    auto session = std::make_shared<FakePeripheralRadio>(std::move(events), adapterState());
    std::lock_guard lock(mutex_);
    return peripheral_ = session;
  }

  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)> sink) override {
    std::lock_guard lock(mutex_);
    const std::uint64_t id = ++nextId_;
    sinks_[id] = std::move(sink);
    return std::make_shared<Handle>(weak_from_this(), id);
  }

  int locationAuthorizationStatus() const override {
    std::lock_guard lock(mutex_);
    return authorization_;
  }
  radio::Nanos now() const override {
    std::lock_guard lock(mutex_);
    return now_;
  }
  radio::TimerId scheduleAfter(radio::Nanos delay, std::function<void()> fn) override {
    std::lock_guard lock(mutex_);
    const radio::TimerId id = ++nextId_;
    timers_[id] = Timer{now_ + delay, std::move(fn)};
    return id;
  }
  void cancelScheduled(radio::TimerId id) override {
    std::lock_guard lock(mutex_);
    if (!cancelTooLate_) timers_.erase(id);
  }

  // Test side.
  std::shared_ptr<FakeCentralRadio> lastCentral() const {
    std::lock_guard lock(mutex_);
    return central_;
  }
  std::shared_ptr<FakePeripheralRadio> lastPeripheral() const {
    std::lock_guard lock(mutex_);
    return peripheral_;
  }
  void setAdapterState(CBManagerState state) {
    std::lock_guard lock(mutex_);
    state_ = state;
  }
  void setAuthorization(int status) {
    std::lock_guard lock(mutex_);
    authorization_ = status;
  }
  /// Cancellations arrive too late from now on: the timer still fires, as
  /// one already running on the radio's thread would.
  void setCancelTooLate(bool late) {
    std::lock_guard lock(mutex_);
    cancelTooLate_ = late;
  }
  std::size_t observers() const {
    std::lock_guard lock(mutex_);
    return sinks_.size();
  }
  std::size_t pendingTimers() const {
    std::lock_guard lock(mutex_);
    return timers_.size();
  }

  /// Hands `report` to every observer, stamped with the current time unless
  /// it carries a time of its own.
  void emit(radio::AdvertisingReport report) {
    std::vector<std::function<void(const radio::AdvertisingReport&)>> sinks;
    {
      std::lock_guard lock(mutex_);
      if (report.time.count() == 0) report.time = now_;
      for (const auto& [id, sink] : sinks_) sinks.push_back(sink);
    }
    for (const auto& sink : sinks) sink(report);
  }

  /// An advertising report carrying the beacon frame of one identity.
  static radio::AdvertisingReport beacon(const Uuid& uuid, std::uint16_t major, std::uint16_t minor,
                                         int rssi, int power = -59,
                                         std::string address = "AA:00:00:00:00:01") {
    CLBeaconRegion region(uuid, std::optional<std::uint16_t>(major),
                          std::optional<std::uint16_t>(minor), "frame");
    radio::AdvertisingReport report;
    report.address = std::move(address);
    report.advertisement = *region.peripheralDataWithMeasuredPower(Number(power));
    report.rssi = rssi;
    return report;
  }

  /// Runs the timers due by now + duration in time order (advance(0ns): those
  /// already due, as the radio's thread would once the creating call has
  /// returned); with `settle`, the dispatch queues are settled after each
  /// one, as the simulated air's virtual clock does.
  void advance(radio::Nanos duration, bool settle = true) {
    std::unique_lock lock(mutex_);
    const radio::Nanos until = now_ + duration;
    for (;;) {
      auto next = timers_.end();
      for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->second.due <= until && (next == timers_.end() || it->second.due < next->second.due))
          next = it;
      }
      if (next == timers_.end()) break;
      now_ = std::max(now_, next->second.due);
      auto fn = std::move(next->second.fn);
      timers_.erase(next);
      lock.unlock();
      fn();
      if (settle) dispatch::settle();
      lock.lock();
    }
    now_ = until;
    lock.unlock();
    if (settle) dispatch::settle();
  }

 private:
  struct Timer {
    radio::Nanos due;
    std::function<void()> fn;
  };
  class Handle : public radio::Observation {
   public:
    Handle(std::weak_ptr<FakeRadio> radio, std::uint64_t id) : radio_(std::move(radio)), id_(id) {}
    ~Handle() override {
      if (auto radio = radio_.lock()) {
        std::function<void(const radio::AdvertisingReport&)> released;
        std::lock_guard lock(radio->mutex_);
        auto it = radio->sinks_.find(id_);
        if (it != radio->sinks_.end()) {
          released = std::move(it->second);
          radio->sinks_.erase(it);
        }
      }
    }

   private:
    std::weak_ptr<FakeRadio> radio_;
    std::uint64_t id_;
  };

  mutable std::mutex mutex_;
  CBManagerState state_ = CBManagerState::PoweredOn;
  int authorization_ = 3;
  bool cancelTooLate_ = false;
  radio::Nanos now_{0};
  std::uint64_t nextId_ = 0;
  std::map<std::uint64_t, std::function<void(const radio::AdvertisingReport&)>> sinks_;
  std::map<radio::TimerId, Timer> timers_;
  std::shared_ptr<FakeCentralRadio> central_;
  std::shared_ptr<FakePeripheralRadio> peripheral_;
};

}  // namespace lumora::test
