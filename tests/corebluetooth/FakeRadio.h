// A scripted radio for the CoreBluetooth front objects: it records what the
// fronts ask of it as text lines and lets a test raise the radio's events
// itself (on the test's thread, standing in for the radio's thread).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"

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

class FakeBackend : public radio::Backend {
 public:
  CBManagerState initialState = CBManagerState::PoweredOn;

  std::shared_ptr<FakeCentralRadio> lastCentral() const {
    std::lock_guard lock(mutex_);
    return central_;
  }
  std::shared_ptr<FakePeripheralRadio> lastPeripheral() const {
    std::lock_guard lock(mutex_);
    return peripheral_;
  }

  std::string name() const override { return "fake"; }
  CBManagerState adapterState() const override { return initialState; }
  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override {
    std::lock_guard lock(mutex_);
    return central_ = std::make_shared<FakeCentralRadio>(std::move(events), initialState);
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    std::lock_guard lock(mutex_);
    return peripheral_ = std::make_shared<FakePeripheralRadio>(std::move(events), initialState);
  }
  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)>) override {
    return std::make_shared<radio::Observation>();
  }
  int locationAuthorizationStatus() const override { return 3; }
  radio::Nanos now() const override { return radio::Nanos{0}; }
  // Timers run only when the test calls runTimers(), as the radio's thread
  // would run them after the creating call returned.
  radio::TimerId scheduleAfter(radio::Nanos, std::function<void()> fn) override {
    std::lock_guard lock(mutex_);
    timers_.push_back(std::move(fn));
    return timers_.size();
  }
  void cancelScheduled(radio::TimerId) override {}
  void runTimers() {
    std::vector<std::function<void()>> due;
    {
      std::lock_guard lock(mutex_);
      due.swap(timers_);
    }
    for (auto& fn : due) fn();
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<FakeCentralRadio> central_;
  std::shared_ptr<FakePeripheralRadio> peripheral_;
  std::vector<std::function<void()>> timers_;
};

}  // namespace lumora::test
