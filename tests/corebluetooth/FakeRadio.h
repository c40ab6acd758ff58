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

inline std::string hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (auto b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0F]);
  }
  return out;
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

class FakeCentralRadio : public radio::CentralRadio {
 public:
  explicit FakeCentralRadio(std::weak_ptr<radio::CentralEvents> events, CBManagerState state)
      : events_(std::move(events)), state_(state) {}

  /// The front's event receiver (null once the manager is gone).
  std::shared_ptr<radio::CentralEvents> events() const { return events_.lock(); }
  CallLog calls;

  CBManagerState state() const override { return state_; }
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
    calls.add("write " + p + " " + std::to_string(c) + " <" + hex(value) + "> " +
              (withResponse ? "withResponse" : "withoutResponse"));
  }
  void close() override { calls.add("close"); }

 private:
  std::weak_ptr<radio::CentralEvents> events_;
  CBManagerState state_;
};

struct Response {
  radio::RequestId id;
  CBATTError result;
  Data value;
};

class FakePeripheralRadio : public radio::PeripheralRadio {
 public:
  explicit FakePeripheralRadio(std::weak_ptr<radio::PeripheralEvents> events, CBManagerState state)
      : events_(std::move(events)), state_(state) {}

  std::shared_ptr<radio::PeripheralEvents> events() const { return events_.lock(); }
  CallLog calls;

  std::vector<std::pair<radio::ServiceToken, radio::LocalService>> added() const {
    std::lock_guard lock(mutex_);
    return added_;
  }
  std::vector<CBAdvertisementData> advertised() const {
    std::lock_guard lock(mutex_);
    return advertised_;
  }
  std::vector<Response> responses() const {
    std::lock_guard lock(mutex_);
    return responses_;
  }

  CBManagerState state() const override { return state_; }
  void addService(radio::ServiceToken token, const radio::LocalService& service) override {
    std::lock_guard lock(mutex_);
    added_.emplace_back(token, service);
  }
  void removeService(radio::ServiceToken token) override {
    calls.add("removeService " + std::to_string(token));
  }
  void removeAllServices() override { calls.add("removeAllServices"); }
  void startAdvertising(const CBAdvertisementData& data) override {
    std::lock_guard lock(mutex_);
    advertised_.push_back(data);
  }
  void stopAdvertising() override { calls.add("stopAdvertising"); }
  void respond(radio::RequestId request, CBATTError result, const Data& value) override {
    std::lock_guard lock(mutex_);
    responses_.push_back({request, result, value});
  }
  void close() override { calls.add("close"); }

 private:
  std::weak_ptr<radio::PeripheralEvents> events_;
  CBManagerState state_;
  mutable std::mutex mutex_;
  std::vector<std::pair<radio::ServiceToken, radio::LocalService>> added_;
  std::vector<CBAdvertisementData> advertised_;
  std::vector<Response> responses_;
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
    auto session = std::make_shared<FakeCentralRadio>(std::move(events), initialState);
    std::lock_guard lock(mutex_);
    central_ = session;
    return session;
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    auto session = std::make_shared<FakePeripheralRadio>(std::move(events), initialState);
    std::lock_guard lock(mutex_);
    peripheral_ = session;
    return session;
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
