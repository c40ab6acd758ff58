// The simulated air's inside, shared by its source units (Air.cpp: clock,
// adapter, advertising, trace; AirCentral.cpp: central sessions and virtual
// devices; AirPeripheral.cpp: peripheral sessions and virtual centrals).
// Not a public header.
//
// Locking. One mutex (`mutex_`) guards every piece of air state. Operations,
// from whichever thread, take it, change state and queue events; they never
// raise an event. Events run one at a time under `runMutex_` (on the main
// thread in virtual time, on the main run loop in real time); an event takes
// `mutex_` to read and change state, lets it go, and only then calls
// receivers, device handlers and completions. `traceMutex_` guards the trace
// alone and is never taken while `mutex_` is held.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/RunLoop.h"
#include "backends/sim/Air.h"
#include "backends/sim/DueQueue.h"

namespace lumora::sim::detail {

using radio::AttHandle;
using radio::PeripheralId;

/// Something that advertises: a virtual device or a local peripheral manager.
struct Advertiser {
  explicit Advertiser(std::string addr) : address(std::move(addr)) {}

  // Guarded by the air mutex. What every advertisement reads comes first, so
  // that one costs few cache lines among thousands of advertisers.
  bool advertising = false;
  /// Advertisements of this advertiser in the air's queue. While there is
  /// one, `pin` keeps the advertiser alive; the queue holds plain pointers.
  std::uint32_t queued = 0;
  std::shared_ptr<Advertiser> pin;
  /// Bumped by every start and stop: queued advertisements of an older
  /// generation are stale and dropped when they come due.
  std::uint64_t generation = 0;
  Nanos interval = std::chrono::milliseconds(100);
  double packetLoss = 0.0;
  std::uint64_t contentVersion = 1;
  int txPowerAt1m = -59;
  double pathLossExponent = 2.0;
  double distance = 1.0;
  double noiseSigma = 2.0;
  std::vector<Waypoint> path;

  // Touched only by the running event (under the run mutex): the report
  // handed to receivers is refreshed only when the content changed, so an
  // advertisement costs no allocation.
  std::uint64_t reportVersion = 0;
  radio::AdvertisingReport report;
  Bytes wire;  // the content as AD structures, for the trace

  const std::string address;
  CBAdvertisementData content;  // guarded by the air mutex
};

/// A characteristic of a GATT database (a virtual device's or a local
/// peripheral manager's).
struct GattCharacteristic {
  CBUUID uuid;
  std::uint8_t properties = 0;
  AttHandle handle = 0;  // value handle

  // Virtual devices.
  Bytes value;
  std::function<std::pair<CBATTError, Bytes>(std::uint16_t)> onRead;
  std::function<CBATTError(const Bytes&)> onWrite;
  bool echoWrites = false;

  // Local peripheral managers: a value served by the radio itself.
  Data fixedValue;
};

struct GattService {
  CBUUID uuid;
  bool primary = true;
  AttHandle handle = 0;  // start handle
  radio::ServiceToken token = 0;
  std::vector<GattCharacteristic> characteristics;
};

/// Gives the attributes of `service` their handles from `next` on (service
/// declaration, then per characteristic a declaration, the value and, for
/// notifying ones, a configuration descriptor). Handles never wrap: past
/// 0xFFFF the database is full and false is returned.
bool assignHandles(GattService& service, AttHandle& next);

class AirImpl;

class SimDevice final : public VirtualDevice {
 public:
  SimDevice(std::weak_ptr<AirImpl> air, std::string address);

  const std::string& address() const override { return address_; }
  void setAdvertising(bool advertising) override;
  void setLocalName(std::optional<std::string> name) override;
  void setManufacturerData(Data data) override;
  void setDistance(double metres) override;
  void setPath(std::vector<Waypoint> path) override;
  void setPacketLoss(double probability) override;
  void setConnectable(bool connectable) override;
  void setConnectBehaviour(ConnectBehaviour behaviour, Nanos delay) override;
  void dropLink() override;
  void dropLinkOn(const std::string& request) override;
  void failReads(std::optional<CBATTError> error) override;
  void failWrites(std::optional<CBATTError> error) override;
  void pushValueUpdate(const CBUUID& characteristic, const Data& value,
                       const std::optional<Error>& error) override;
  bool isConnected() const override;
  std::vector<Bytes> writesTo(const CBUUID& characteristic) const override;

  // Guarded by the air mutex.
  std::shared_ptr<Advertiser> advertiser;
  bool connectable = false;
  ConnectBehaviour behaviour = ConnectBehaviour::Accept;
  Nanos connectDelay{0};
  std::set<std::string> dropOn;
  std::optional<CBATTError> readFailure;
  std::optional<CBATTError> writeFailure;
  std::vector<GattService> services;
  std::set<std::uint64_t> links;                   // connected central sessions
  std::vector<std::pair<CBUUID, Bytes>> writeLog;  // accepted writes, in arrival order
  bool removed = false;

 private:
  std::weak_ptr<AirImpl> air_;
  const std::string address_;
};

class SimCentral final : public VirtualCentral, public std::enable_shared_from_this<SimCentral> {
 public:
  SimCentral(std::weak_ptr<AirImpl> air, std::string address);

  const std::string& address() const override { return address_; }
  bool connectByName(const std::string& localName) override;
  void disconnect() override;
  bool isConnected() const override;
  std::vector<std::pair<CBUUID, std::vector<CBUUID>>> discover() const override;
  void write(const CBUUID& characteristic, const Bytes& value,
             std::function<void(CBATTError)> done) override;
  void writeBatch(const CBUUID& characteristic, const std::vector<Bytes>& values,
                  std::function<void(std::vector<CBATTError>)> done) override;
  void read(const CBUUID& characteristic, std::uint16_t offset,
            std::function<void(CBATTError, const Data&)> done) override;

  // Guarded by the air mutex.
  std::uint64_t peer = 0;        // peripheral session id; 0: not connected
  std::uint64_t generation = 0;  // of the current link

 private:
  std::weak_ptr<AirImpl> air_;
  const std::string address_;
};

struct CentralState {
  struct Link {
    bool connected = false;
    std::uint64_t generation = 0;
  };
  std::uint64_t id = 0;
  std::string address;
  std::weak_ptr<radio::CentralEvents> events;
  bool scanning = false;
  std::optional<std::vector<CBUUID>> scanServices;
  std::map<PeripheralId, Link> links;
};

/// Writes of one VirtualCentral::writeBatch, answered together.
struct WriteBatch {
  std::vector<CBATTError> results;
  std::size_t remaining = 0;
  std::function<void(std::vector<CBATTError>)> done;
};

/// A request handed to a local peripheral manager and not yet answered.
struct PendingRequest {
  bool read = false;
  AttHandle handle = 0;
  // From a central session (`central` set) or a virtual central (`remote`).
  std::uint64_t central = 0;
  std::shared_ptr<SimCentral> remote;
  std::uint64_t linkGeneration = 0;
  std::function<void(CBATTError, const Data&)> readDone;
  std::function<void(CBATTError)> writeDone;
  std::shared_ptr<WriteBatch> batch;
  std::size_t batchIndex = 0;
};

struct PeripheralState {
  std::uint64_t id = 0;
  std::weak_ptr<radio::PeripheralEvents> events;
  std::shared_ptr<Advertiser> advertiser;  // its address is the session's
  std::vector<GattService> services;       // registered, in registration order
  std::set<radio::ServiceToken> registering;
  AttHandle nextHandle = 1;
  std::map<radio::RequestId, PendingRequest> pending;
  radio::RequestId nextRequest = 1;
};

/// A trace line to record when an event is delivered.
struct TraceNote {
  std::string kind;
  std::string from;
  std::string to;
  std::string detail;
  Bytes payload;
};

/// The scenario name of a power state ("poweredOn", ...).

class AirImpl;

/// A trace line recorded when this goes out of scope: declared before a lock
/// of the air, it records after the lock is released (the trace sink is
/// application code).
class TraceLater {
 public:
  explicit TraceLater(AirImpl& air) : air_(air) {}
  ~TraceLater();
  TraceLater(const TraceLater&) = delete;
  TraceLater& operator=(const TraceLater&) = delete;
  void set(TraceNote note) { note_ = std::move(note); }

 private:
  AirImpl& air_;
  std::optional<TraceNote> note_;
};

Error linkError(CBError code, std::string text);
Error attError(CBATTError code);
/// A link fault (dropLink, dropLinkOn): the supervision time-out.
Error droppedError();
/// The peer went away (removed, no longer connectable, manager closed).
Error peerGoneError();
Error poweredOffError();
Error notConnectedError();

/// What a local central's link offers per notification (ATT_MTU 23 - 3).
inline constexpr std::uint16_t kMaximumUpdateValueLength = 20;
/// "0x0003"
std::string handleText(AttHandle handle);

class AirImpl final : public Air, public std::enable_shared_from_this<AirImpl> {
 public:
  explicit AirImpl(const AirOptions& options);
  ~AirImpl() override;

  // radio::Backend
  std::string name() const override { return "sim"; }
  CBManagerState adapterState() const override;
  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override;
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override;
  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)> sink) override;
  int locationAuthorizationStatus() const override;
  Nanos now() const override;
  radio::TimerId scheduleAfter(Nanos delay, std::function<void()> fn) override;
  void cancelScheduled(radio::TimerId id) override;

  // Air
  void advance(Nanos duration) override;
  void settle() override;
  ClockMode clockMode() const override { return clock_; }
  void setAdapterState(CBManagerState state) override;
  void setLocationAuthorization(int status) override;
  void setLinkLatency(Nanos latency) override;
  std::shared_ptr<VirtualDevice> addDevice(DeviceConfig config) override;
  void removeDevice(const std::string& address) override;
  std::shared_ptr<VirtualDevice> device(const std::string& address) const override;
  std::vector<std::string> deviceAddresses() const override;
  void setLocalPeripheralDistance(double metres) override;
  void failNextServiceRegistration(Error error) override;
  std::shared_ptr<VirtualCentral> addCentral(std::string address) override;
  void setTraceLimit(std::size_t limit) override;
  std::vector<TraceEvent> trace() const override;
  void setTraceSink(std::function<void(const TraceEvent&)> sink) override;

  // ---- Shared by the air's units. Functions named ...Locked need `mutex_`.

  /// A step of the air waiting in the queue (advertisements wait in the
  /// queue's entries themselves).
  struct Event {
    Nanos time{0};
    radio::TimerId timer = 0;    // a cancellable timer ...
    std::function<void()> task;  // ... or a step of the air
  };
  struct LinkCheck {
    PeripheralId peer;
    std::uint64_t generation = 0;
  };

  Nanos nowLocked() const { return now(); }
  void pushLocked(Event event);
  /// Queues an advertisement of `a` (which must be pinned by `owner` or by
  /// an advertisement already queued).
  void queueAdvertisementLocked(Advertiser& a, Nanos time,
                                const std::shared_ptr<Advertiser>* owner = nullptr);
  /// Runs `task` (with no lock held) after `delay` of air time.
  void scheduleLocked(Nanos delay, std::function<void()> task);
  /// Raises an event on a central session after `delay`, provided the
  /// session is still open and, with `check`, the link is still the same
  /// connected one. `note` is traced when it is delivered.
  void postCentralLocked(std::uint64_t central, Nanos delay, std::optional<LinkCheck> check,
                         std::optional<TraceNote> note,
                         std::function<void(radio::CentralEvents&)> call);
  void postPeripheralLocked(std::uint64_t peripheral, Nanos delay, std::optional<TraceNote> note,
                            std::function<void(radio::PeripheralEvents&)> call);

  void startAdvertiserLocked(const std::shared_ptr<Advertiser>& advertiser);
  void stopAdvertiserLocked(Advertiser& advertiser);
  void rebuildScannersLocked();

  /// Ends a central session's link to `peer` (connected or not) with
  /// `error`: the session hears radioDisconnected now.
  void dropCentralLinkLocked(CentralState& central, const PeripheralId& peer, const Error& error);
  /// Forgets every request of a central session's link pending at a local
  /// peripheral manager: its later answers are ignored.
  void forgetRequestsLocked(std::uint64_t central, const PeripheralId& peer);
  /// Ends a virtual central's link; its pending requests complete with an
  /// error.
  void endRemoteLinkLocked(SimCentral& remote);
  /// Ends every link to a local peripheral manager (closed, or the adapter
  /// went off).
  void dropLinksToPeripheralLocked(PeripheralState& peripheral, const Error& error);
  /// Connection attempts to `peer` still pending are tried again: the peer
  /// now advertises, takes connections or answers differently.
  void retryAttemptsLocked(const PeripheralId& peer);

  std::shared_ptr<SimDevice> deviceLocked(const std::string& address) const;
  std::shared_ptr<PeripheralState> peripheralAtLocked(const std::string& address) const;
  std::string nextDeviceAddressLocked();

  bool tracing() const { return tracing_.load(std::memory_order_relaxed); }
  /// Records one trace line (any thread; no air lock may be held).
  void record(Nanos time, std::string_view kind, std::string_view from, std::string_view to,
              std::string_view detail, const Bytes* payload);
  void record(Nanos time, const TraceNote& note) {
    record(time, note.kind, note.from, note.to, note.detail, &note.payload);
  }

  // Clock.
  const ClockMode clock_;
  const RunLoop::Clock::time_point start_;
  std::atomic<std::int64_t> virtualNow_{0};

  mutable std::mutex mutex_;
  std::mutex runMutex_;

  // Guarded by mutex_.
  // The queue: small (time, seq, slot) entries, earliest first, whose events
  // wait in `slots_`; a heap of whole events would move far more bytes per
  // advertisement.
  DueQueue queue_;
  std::vector<Event> slots_;
  std::vector<std::uint32_t> freeSlots_;
  std::uint64_t nextSeq_ = 1;
  std::set<radio::TimerId> liveTimers_;
  radio::TimerId nextTimer_ = 1;
  bool armed_ = false;  // real time: a run-loop timer is set for armedAt_
  Nanos armedAt_{0};
  RunLoop::TimerId armedTimer_ = 0;

  std::mt19937_64 rng_;
  std::normal_distribution<double> noise_{0.0, 1.0};
  std::uniform_real_distribution<double> unit_{0.0, 1.0};

  CBManagerState state_;
  int location_;
  Nanos latency_;
  double localDistance_ = 1.0;
  std::optional<Error> failNextRegistration_;

  std::map<std::string, std::shared_ptr<SimDevice>> devices_;
  std::vector<std::string> deviceOrder_;
  std::map<std::uint64_t, std::shared_ptr<CentralState>> centrals_;
  std::map<std::uint64_t, std::shared_ptr<PeripheralState>> peripherals_;
  std::map<std::string, std::uint64_t> peripheralByAddress_;
  std::vector<std::shared_ptr<SimCentral>> remotes_;
  std::uint64_t nextSession_ = 1;
  std::uint64_t nextLinkGeneration_ = 1;
  unsigned nextDeviceAddress_ = 1;
  unsigned nextCentralAddress_ = 1;

  struct Scanner {
    std::weak_ptr<radio::CentralEvents> events;
    std::optional<std::vector<CBUUID>> services;
  };
  struct Sink {
    std::function<void(const radio::AdvertisingReport&)> fn;
    std::atomic<bool> active{true};
  };
  // Replaced, never changed in place: an advertisement takes its receivers
  // by copying one pointer.
  std::shared_ptr<const std::vector<Scanner>> scanners_;
  std::shared_ptr<const std::vector<std::shared_ptr<Sink>>> sinks_;

 private:
  enum class Ran { Nothing, Quiet, Delivered };
  Ran runOne(Nanos limit);
  /// Who hears one advertisement, taken under the lock. The lists are held
  /// only for the advertisement: a list kept longer would keep ended
  /// observations' sinks, and whatever they hold, alive.
  struct Audience {
    bool traced = false;  // something to trace: heard or lost
    bool heard = false;
    std::shared_ptr<const std::vector<Scanner>> scanners;
    std::shared_ptr<const std::vector<std::shared_ptr<Sink>>> sinks;
  };
  /// With mutex_ held: queues the advertiser's next advertisement and draws
  /// the fate of this one (due at `time`, of `generation`).
  Audience advertiseLocked(Advertiser& a, Nanos time, std::uint64_t generation);
  /// Without locks: traces the advertisement and hands it to its audience.
  bool deliverAdvertisement(const Advertiser& advertiser, Nanos time, const Audience& audience);
  void armLocked();
  void onTimer();

  // Trace, guarded by traceMutex_.
  mutable std::mutex traceMutex_;
  std::vector<TraceEvent> ring_;
  std::size_t ringStart_ = 0;
  std::size_t traceLimit_ = 0;
  std::shared_ptr<const std::function<void(const TraceEvent&)>> traceSink_;
  std::atomic<bool> tracing_{false};
};

}  // namespace lumora::sim::detail
