// A radio reduced to what ranging uses: an advertisement stream the test
// feeds by hand, timers on a clock the test moves, an adapter state and an
// authorization status. Reports and timers run on whichever thread drives
// them, so a test can play the radio's thread itself.
#pragma once

#include <map>
#include <mutex>

#include "CoreBluetooth/Backend.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Dispatch.h"

namespace lumora::test {

class FakeRadio : public radio::Backend, public std::enable_shared_from_this<FakeRadio> {
 public:
  std::string name() const override { return "fake"; }
  CBManagerState adapterState() const override {
    std::lock_guard lock(mutex_);
    return state_;
  }
  std::shared_ptr<radio::CentralRadio> openCentral(std::weak_ptr<radio::CentralEvents>) override {
    return nullptr;
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents>) override {
    return nullptr;
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

  /// Runs the timers due in (now, now + duration] in time order; with
  /// `settle`, the dispatch queues are settled after each one, as the
  /// simulated air's virtual clock does.
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
};

}  // namespace lumora::test
