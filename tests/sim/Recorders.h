// Recording receivers for the air's sessions: every event is kept in order,
// as a line of text for flow checks and as the raw values for details.
#pragma once

#include <algorithm>
#include <cmath>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include "backends/sim/Air.h"

namespace lumora::sim::test {

using namespace std::chrono_literals;

inline std::string errorText(const std::optional<Error>& e) {
  if (!e) return "ok";
  return (e->domain == CBATTErrorDomain ? "att " : "cb ") + std::to_string(e->code);
}

inline Bytes ascii(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

class CentralRecorder : public radio::CentralEvents {
 public:
  struct Value {
    radio::AttHandle handle = 0;
    Data value;
    std::optional<Error> error;
  };

  void radioStateChanged(CBManagerState state) override {
    std::lock_guard lock(mutex_);
    states_.push_back(state);
    log_.push_back(std::string("state ") + std::to_string(static_cast<int>(state)));
  }
  void radioDiscovered(const radio::AdvertisingReport& report) override {
    std::lock_guard lock(mutex_);
    reports_.push_back(report);
  }
  void radioConnected(const radio::PeripheralId& peer) override { line("connected " + peer); }
  void radioConnectFailed(const radio::PeripheralId& peer, const Error& error) override {
    line("connect failed " + peer + " " + errorText(error));
  }
  void radioDisconnected(const radio::PeripheralId& peer,
                         const std::optional<Error>& error) override {
    line("disconnected " + peer + " " + errorText(error));
  }
  void radioServicesDiscovered(const radio::PeripheralId& peer,
                               const std::vector<radio::RemoteService>& services,
                               const std::optional<Error>& error) override {
    std::lock_guard lock(mutex_);
    services_ = services;
    log_.push_back("services " + peer + " " + std::to_string(services.size()) + " " +
                   errorText(error));
  }
  void radioCharacteristicsDiscovered(const radio::PeripheralId& peer, radio::AttHandle service,
                                      const std::vector<radio::RemoteCharacteristic>& found,
                                      const std::optional<Error>& error) override {
    std::lock_guard lock(mutex_);
    characteristics_ = found;
    log_.push_back("characteristics " + peer + " " + std::to_string(service) + " " +
                   std::to_string(found.size()) + " " + errorText(error));
  }
  void radioValueUpdated(const radio::PeripheralId& peer, radio::AttHandle handle,
                         const Data& value, const std::optional<Error>& error) override {
    std::lock_guard lock(mutex_);
    values_.push_back({handle, value, error});
    log_.push_back("value " + peer + " " + std::to_string(handle) + " " +
                   (value ? description(*value) : std::string("null")) + " " + errorText(error));
  }
  void radioValueWritten(const radio::PeripheralId& peer, radio::AttHandle handle,
                         const std::optional<Error>& error) override {
    line("written " + peer + " " + std::to_string(handle) + " " + errorText(error));
  }

  std::vector<std::string> log() const {
    std::lock_guard lock(mutex_);
    return log_;
  }
  std::vector<radio::AdvertisingReport> reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
  }
  std::vector<CBManagerState> states() const {
    std::lock_guard lock(mutex_);
    return states_;
  }
  std::vector<radio::RemoteService> services() const {
    std::lock_guard lock(mutex_);
    return services_;
  }
  std::vector<radio::RemoteCharacteristic> characteristics() const {
    std::lock_guard lock(mutex_);
    return characteristics_;
  }
  std::vector<Value> values() const {
    std::lock_guard lock(mutex_);
    return values_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    log_.clear();
    reports_.clear();
    values_.clear();
    states_.clear();
  }

 private:
  void line(std::string text) {
    std::lock_guard lock(mutex_);
    log_.push_back(std::move(text));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> log_;
  std::vector<radio::AdvertisingReport> reports_;
  std::vector<CBManagerState> states_;
  std::vector<radio::RemoteService> services_;
  std::vector<radio::RemoteCharacteristic> characteristics_;
  std::vector<Value> values_;
};

class PeripheralRecorder : public radio::PeripheralEvents {
 public:
  void radioStateChanged(CBManagerState state) override {
    line("state " + std::to_string(static_cast<int>(state)));
  }
  void radioServiceAdded(radio::ServiceToken token, const std::optional<Error>& error) override {
    line("added " + std::to_string(token) + " " + errorText(error));
  }
  void radioAdvertisingStarted(const std::optional<Error>& error) override {
    line("advertising " + errorText(error));
  }
  void radioReadRequest(const radio::AttRequest& request) override {
    std::lock_guard lock(mutex_);
    reads_.push_back(request);
    log_.push_back("read " + std::to_string(request.characteristic));
  }
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override {
    std::lock_guard lock(mutex_);
    writes_.push_back(requests);
    log_.push_back("write x" + std::to_string(requests.size()));
  }

  std::vector<std::string> log() const {
    std::lock_guard lock(mutex_);
    return log_;
  }
  std::vector<radio::AttRequest> reads() const {
    std::lock_guard lock(mutex_);
    return reads_;
  }
  std::vector<std::vector<radio::AttRequest>> writes() const {
    std::lock_guard lock(mutex_);
    return writes_;
  }

 private:
  void line(std::string text) {
    std::lock_guard lock(mutex_);
    log_.push_back(std::move(text));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> log_;
  std::vector<radio::AttRequest> reads_;
  std::vector<std::vector<radio::AttRequest>> writes_;
};

/// Collects every report an observation hands over.
struct ReportSink {
  std::shared_ptr<std::vector<radio::AdvertisingReport>> reports =
      std::make_shared<std::vector<radio::AdvertisingReport>>();
  std::shared_ptr<radio::Observation> handle;

  void observe(radio::Backend& air) {
    auto into = reports;
    handle = air.observeAdvertisements(
        [into](const radio::AdvertisingReport& r) { into->push_back(r); });
  }
  double meanRssi(const std::string& address) const {
    double sum = 0;
    std::size_t n = 0;
    for (const auto& r : *reports) {
      if (r.address != address) continue;
      sum += r.rssi;
      ++n;
    }
    return n ? sum / static_cast<double>(n) : std::nan("");
  }
  std::size_t countFrom(const std::string& address) const {
    return static_cast<std::size_t>(
        std::count_if(reports->begin(), reports->end(),
                      [&](const radio::AdvertisingReport& r) { return r.address == address; }));
  }
};

}  // namespace lumora::sim::test
