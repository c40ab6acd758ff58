// Recording receivers for the air's sessions: every event is kept in order,
// as a line of text for flow checks and as the raw values for details.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include "backends/sim/Air.h"

namespace lumora::sim::test {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

inline std::string errorText(const std::optional<Error>& e) {
  if (!e) return "ok";
  return (e->domain == CBATTErrorDomain ? "att " : "cb ") + std::to_string(e->code);
}

inline Bytes ascii(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

// Events may come from the air's thread or a worker: everything is locked.
class Recording {
 public:
  Lines log() const { return get(log_); }
  void clear() {
    std::lock_guard lock(mutex_);
    log_.clear();
  }

 protected:
  template <typename T>
  T get(const T& field) const {
    std::lock_guard lock(mutex_);
    return field;
  }
  // Runs `keep` (which may store details) and logs `line`, under the lock.
  void line(std::string text, const std::function<void()>& keep = {}) {
    std::lock_guard lock(mutex_);
    if (keep) keep();
    log_.push_back(std::move(text));
  }
  mutable std::mutex mutex_;

 private:
  Lines log_;
};

class CentralRecorder : public radio::CentralEvents, public Recording {
 public:
  void radioStateChanged(CBManagerState state) override {
    line("state " + std::to_string(static_cast<int>(state)));
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
    line("services " + peer + " " + std::to_string(services.size()) + " " + errorText(error),
         [&] { services_ = services; });
  }
  void radioCharacteristicsDiscovered(const radio::PeripheralId& peer, radio::AttHandle service,
                                      const std::vector<radio::RemoteCharacteristic>& found,
                                      const std::optional<Error>& error) override {
    line("characteristics " + peer + " " + std::to_string(service) + " " +
             std::to_string(found.size()) + " " + errorText(error),
         [&] { characteristics_ = found; });
  }
  void radioValueUpdated(const radio::PeripheralId& peer, radio::AttHandle handle,
                         const Data& value, const std::optional<Error>& error) override {
    line("value " + peer + " " + std::to_string(handle) + " " +
         (value ? description(*value) : std::string("null")) + " " + errorText(error));
  }
  void radioValueWritten(const radio::PeripheralId& peer, radio::AttHandle handle,
                         const std::optional<Error>& error) override {
    line("written " + peer + " " + std::to_string(handle) + " " + errorText(error));
  }

  std::vector<radio::AdvertisingReport> reports() const { return get(reports_); }
  std::vector<radio::RemoteService> services() const { return get(services_); }
  std::vector<radio::RemoteCharacteristic> characteristics() const { return get(characteristics_); }
  void clear() {
    Recording::clear();
    std::lock_guard lock(mutex_);
    reports_.clear();
  }

  /// Connects to `peer` and discovers all its services and characteristics;
  /// returns the value handle of each characteristic by UUID text, and
  /// leaves the recording empty.
  std::map<std::string, radio::AttHandle> discoverAll(Air& air, radio::CentralRadio& session,
                                                      const std::string& peer) {
    session.connect(peer);
    air.advance(10ms);
    session.discoverServices(peer, std::nullopt);
    air.advance(10ms);
    std::map<std::string, radio::AttHandle> handles;
    for (const auto& s : services()) {
      session.discoverCharacteristics(peer, s.handle, std::nullopt);
      air.advance(10ms);
      for (const auto& c : characteristics()) handles.emplace(c.uuid.UUIDString(), c.handle);
    }
    clear();
    return handles;
  }

 private:
  std::vector<radio::AdvertisingReport> reports_;
  std::vector<radio::RemoteService> services_;
  std::vector<radio::RemoteCharacteristic> characteristics_;
};

class PeripheralRecorder : public radio::PeripheralEvents, public Recording {
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
    line("read " + std::to_string(request.characteristic), [&] { reads_.push_back(request); });
  }
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override {
    line("write x" + std::to_string(requests.size()), [&] { writes_.push_back(requests); });
  }

  std::vector<radio::AttRequest> reads() const { return get(reads_); }
  std::vector<std::vector<radio::AttRequest>> writes() const { return get(writes_); }

 private:
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
};

}  // namespace lumora::sim::test
