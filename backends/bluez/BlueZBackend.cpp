#include "backends/bluez/BlueZBackend.h"

#include <atomic>
#include <utility>

#include "Foundation/RunLoop.h"
#include "backends/bluez/Engine.h"

namespace lumora::bluez {

namespace {

// What a session holds of the engine: its id there, and whether it is
// closed, after which its calls are dropped. Sessions only post: the work
// runs on the loop thread, never inside the call.
class EngineLink {
 public:
  EngineLink(std::shared_ptr<Engine> engine, std::uint64_t id)
      : engine_(std::move(engine)), id_(id) {}

  Engine& engine() const { return *engine_; }

  template <class F>
  void run(F fn) {
    if (closed_.load()) return;
    engine_->post([id = id_, fn = std::move(fn)](Engine& e) { fn(e, id); });
  }

  /// The first call posts `closer` for the session; later ones do nothing.
  void close(void (Engine::*closer)(std::uint64_t)) {
    if (closed_.exchange(true)) return;
    engine_->post([id = id_, closer](Engine& e) { (e.*closer)(id); });
  }

 private:
  std::shared_ptr<Engine> engine_;
  const std::uint64_t id_;
  std::atomic<bool> closed_{false};
};

class Central final : public radio::CentralRadio {
 public:
  Central(std::shared_ptr<Engine> engine, std::uint64_t id) : link_(std::move(engine), id) {}
  ~Central() override { close(); }

  CBManagerState state() const override { return link_.engine().centralState(); }

  void startScan(const radio::ScanParameters& parameters) override {
    link_.run([parameters](Engine& e, std::uint64_t id) { e.startScan(id, parameters); });
  }
  void stopScan() override {
    link_.run([](Engine& e, std::uint64_t id) { e.stopScan(id); });
  }
  void connect(const radio::PeripheralId& peripheral) override {
    link_.run([peripheral](Engine& e, std::uint64_t id) { e.connect(id, peripheral); });
  }
  void cancelConnection(const radio::PeripheralId& peripheral) override {
    link_.run([peripheral](Engine& e, std::uint64_t id) { e.cancelConnection(id, peripheral); });
  }
  void discoverServices(const radio::PeripheralId& peripheral,
                        const std::optional<std::vector<CBUUID>>& filter) override {
    link_.run([peripheral, filter](Engine& e, std::uint64_t id) {
      e.discoverServices(id, peripheral, filter);
    });
  }
  void discoverCharacteristics(const radio::PeripheralId& peripheral, radio::AttHandle service,
                               const std::optional<std::vector<CBUUID>>& filter) override {
    link_.run([peripheral, service, filter](Engine& e, std::uint64_t id) {
      e.discoverCharacteristics(id, peripheral, service, filter);
    });
  }
  void read(const radio::PeripheralId& peripheral, radio::AttHandle characteristic) override {
    link_.run([peripheral, characteristic](Engine& e, std::uint64_t id) {
      e.read(id, peripheral, characteristic);
    });
  }
  void write(const radio::PeripheralId& peripheral, radio::AttHandle characteristic,
             const Bytes& value, bool withResponse) override {
    link_.run([peripheral, characteristic, value, withResponse](Engine& e, std::uint64_t id) {
      e.write(id, peripheral, characteristic, value, withResponse);
    });
  }
  void close() override { link_.close(&Engine::closeCentral); }

 private:
  EngineLink link_;
};

class Peripheral final : public radio::PeripheralRadio {
 public:
  Peripheral(std::shared_ptr<Engine> engine, std::uint64_t id) : link_(std::move(engine), id) {}
  ~Peripheral() override { close(); }

  CBManagerState state() const override { return link_.engine().peripheralState(); }

  void addService(radio::ServiceToken token, const radio::LocalService& service) override {
    link_.run([token, service](Engine& e, std::uint64_t id) { e.addService(id, token, service); });
  }
  void removeService(radio::ServiceToken token) override {
    link_.run([token](Engine& e, std::uint64_t id) { e.removeService(id, token); });
  }
  void removeAllServices() override {
    link_.run([](Engine& e, std::uint64_t id) { e.removeAllServices(id); });
  }
  void startAdvertising(const CBAdvertisementData& data) override {
    link_.run([data](Engine& e, std::uint64_t id) { e.startAdvertising(id, data); });
  }
  void stopAdvertising() override {
    link_.run([](Engine& e, std::uint64_t id) { e.stopAdvertising(id); });
  }
  void respond(radio::RequestId request, CBATTError result, const Data& value) override {
    link_.run([request, result, value](Engine& e, std::uint64_t id) {
      e.respond(id, request, result, value);
    });
  }
  void close() override { link_.close(&Engine::closePeripheral); }

 private:
  EngineLink link_;
};

class Observing final : public radio::Observation {
 public:
  Observing(std::shared_ptr<Engine> engine, std::uint64_t id)
      : engine_(std::move(engine)), id_(id) {}
  ~Observing() override {
    engine_->post([id = id_](Engine& e) { e.removeObservation(id); });
  }

 private:
  std::shared_ptr<Engine> engine_;
  const std::uint64_t id_;
};

class BlueZ final : public radio::Backend {
 public:
  explicit BlueZ(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {}

  std::string name() const override { return engine_->name(); }
  CBManagerState adapterState() const override { return engine_->centralState(); }

  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override {
    const auto id = engine_->newId();
    // Registered on the loop: a state change in between is caught up there.
    engine_->post([id, events = std::move(events), seen = engine_->centralState()](Engine& e) {
      e.openCentral(id, events, seen);
    });
    return std::make_shared<Central>(engine_, id);
  }

  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    const auto id = engine_->newId();
    engine_->post([id, events = std::move(events), seen = engine_->peripheralState()](Engine& e) {
      e.openPeripheral(id, events, seen);
    });
    return std::make_shared<Peripheral>(engine_, id);
  }

  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)> sink) override {
    const auto id = engine_->newId();
    engine_->post([id, sink = std::move(sink)](Engine& e) { e.addObservation(id, sink); });
    return std::make_shared<Observing>(engine_, id);
  }

  // Linux has no location permission for Bluetooth scanning: always allowed.
  int locationAuthorizationStatus() const override { return 3; }

  radio::Nanos now() const override {
    return std::chrono::duration_cast<radio::Nanos>(RunLoop::Clock::now().time_since_epoch());
  }
  radio::TimerId scheduleAfter(radio::Nanos delay, std::function<void()> fn) override {
    return RunLoop::main().addTimer(std::chrono::duration_cast<RunLoop::Clock::duration>(delay),
                                    std::move(fn));
  }
  void cancelScheduled(radio::TimerId id) override { RunLoop::main().cancelTimer(id); }

 private:
  std::shared_ptr<Engine> engine_;
};

}  // namespace

std::shared_ptr<radio::Backend> makeBackend(const Options& options) {
  return std::make_shared<BlueZ>(Engine::start(options));
}

std::shared_ptr<radio::Backend> makeBackend(std::string_view adapter) {
  Options options;
  options.adapter = std::string(adapter);
  return makeBackend(options);
}

}  // namespace lumora::bluez
