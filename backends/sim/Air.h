// The simulated air: a complete radio in memory, the default backend.
//
//   auto air = lumora::sim::Air::create({.clock = lumora::sim::ClockMode::Virtual, .seed = 7});
//   lumora::radio::Backend::setCurrent(air);
//   air->addDevice({.localName = "Beacon-A", .manufacturerData = frame, .distance = 2.0});
//   ... create managers, call them ...
//   air->advance(std::chrono::seconds(3));   // everything due happens, queues settle
//
// Clock. Virtual (tests): nothing happens between calls to advance()/settle();
// each due event runs on the calling thread (the main thread) and the
// dispatch queues are settled (main queue run, global pool drained) after
// each one, so a run is deterministic for a given seed. RealTime (the tool):
// events run as timers of RunLoop::main(), so the application just runs the
// main run loop.
//
// Radio model. One adapter (the local one) with a power state; virtual
// devices that advertise at an interval with an RSSI from a log-distance path
// loss model (rssi = txPowerAt1m - 10 * n * log10(distance) + N(0, sigma)),
// packet loss, movement along waypoints; connectable devices with a GATT
// database whose reads and writes are answered by handlers; remote centrals
// that drive the local peripheral managers. Every peripheral manager opened on
// the air is one more device: its advertisement is heard by every central and
// by ranging, its services are what a connecting central discovers.
//
// Link timing: every over-the-air step (connection, discovery, read, write,
// answer) takes `linkLatency` of virtual time (default 5 ms).
//
// Advertising: each advertiser sends once per interval plus a random 0-10 ms
// advDelay, from a random phase after it starts; loss, delay and RSSI noise
// come from one generator seeded with AirOptions::seed. Reports reach
// scanning central sessions and observeAdvertisements() sinks only while the
// adapter is powered on.
//
// Power: leaving PoweredOn drops every link (radioDisconnected with a
// CBErrorDomain error; pending attempts get radioConnectFailed), ends every
// scan and stops the local peripheral managers' advertising (their services
// stay); the application starts them again. Every session hears
// radioStateChanged for each change (not on opening: the managers report
// their first state themselves).
//
// Local peripheral managers: addService registers after one link latency
// (handles are assigned then); requests from a central session or a
// VirtualCentral reach the manager as radioReadRequest/radioWriteRequests and
// are answered by respond(); a write without response is delivered and needs
// no answer. A read answered with a null value gives the central a
// zero-length value; an error result reaches it in CBATTErrorDomain.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreBluetooth/CBTypes.h"
#include "CoreBluetooth/CBUUID.h"
#include "Foundation/Bytes.h"
#include "Foundation/Object.h"

namespace lumora::sim {

using radio::Nanos;

enum class ClockMode { Virtual, RealTime };

struct AirOptions {
  ClockMode clock = ClockMode::Virtual;
  std::uint64_t seed = 1;
  Nanos linkLatency = std::chrono::milliseconds(5);
  CBManagerState initialState = CBManagerState::PoweredOn;
  int locationAuthorization = 3;  // authorized always
};

struct Position {
  double x = 0;
  double y = 0;
  friend bool operator==(const Position&, const Position&) = default;
};

/// Movement: at virtual time `at` the device is at `position`; positions in
/// between are interpolated; after the last waypoint it stays.
struct Waypoint {
  Nanos at{0};
  Position position{};
};

/// A characteristic of a virtual device's GATT database.
struct CharacteristicSpec {
  CBUUID uuid{};
  std::uint8_t properties = CBCharacteristicPropertyRead | CBCharacteristicPropertyWrite;
  Bytes value{};  // served by default reads; replaced by default writes
  /// Answers a read (offset as asked); default: `value` from offset.
  std::function<std::pair<CBATTError, Bytes>(std::uint16_t offset)> onRead{};
  /// Answers a write; default: stores the bytes as `value`, Success.
  std::function<CBATTError(const Bytes& written)> onWrite{};
  /// A successful write is sent back to the writing central as a value update
  /// of this characteristic, right after the write's answer (an echo device).
  bool echoWrites = false;
};

struct ServiceSpec {
  CBUUID uuid{};
  bool primary = true;
  std::vector<CharacteristicSpec> characteristics{};
};

struct DeviceConfig {
  std::string address{};  // empty: one is assigned ("5A:00:00:00:00:01", ...)
  std::optional<std::string> localName{};
  Data manufacturerData{};
  std::vector<CBUUID> serviceUUIDs{};
  Nanos advertisingInterval = std::chrono::milliseconds(100);
  int txPowerAt1m = -59;  // RSSI heard at one metre, dBm
  double pathLossExponent = 2.0;
  double distance = 1.0;         // metres from the local adapter (when no path)
  std::vector<Waypoint> path{};  // overrides distance when not empty (receiver at 0,0)
  double rssiNoiseSigma = 2.0;   // dB
  double packetLoss = 0.0;       // probability an advertisement is not heard
  bool advertising = true;
  bool connectable = false;
  std::vector<ServiceSpec> services{};
};

/// How a virtual device answers connection requests.
enum class ConnectBehaviour { Accept, Refuse, Ignore };

/// One remote device in the air. All operations are thread-safe and take
/// effect at the current virtual time.
class VirtualDevice {
 public:
  virtual ~VirtualDevice() = default;
  virtual const std::string& address() const = 0;

  virtual void setAdvertising(bool advertising) = 0;
  virtual void setLocalName(std::optional<std::string> name) = 0;
  virtual void setManufacturerData(Data data) = 0;
  virtual void setDistance(double metres) = 0;
  virtual void setPath(std::vector<Waypoint> path) = 0;
  virtual void setPacketLoss(double probability) = 0;
  /// A device that stops being connectable drops its links (the centrals see
  /// a disconnection with an error) and leaves connection attempts pending
  /// until it is connectable again.
  virtual void setConnectable(bool connectable) = 0;

  /// Faults. A slow connection answers after `delay` (plus the link
  /// latency). Attempts still pending (Ignore) are answered anew.
  virtual void setConnectBehaviour(ConnectBehaviour behaviour, Nanos delay = Nanos{0}) = 0;
  /// Drops every link to this device now (the central sees a disconnection
  /// with an error).
  virtual void dropLink() = 0;
  /// Drops the link when the central's next request of this kind arrives
  /// ("services", "characteristics", "read", "write").
  virtual void dropLinkOn(const std::string& request) = 0;
  /// Answers reads (resp. writes) with `error` until cleared with nullopt.
  virtual void failReads(std::optional<CBATTError> error) = 0;
  virtual void failWrites(std::optional<CBATTError> error) = 0;
  /// A value update on a connected central's link, as a notification: value
  /// and error may each be absent.
  virtual void pushValueUpdate(const CBUUID& characteristic, const Data& value,
                               const std::optional<Error>& error) = 0;

  virtual bool isConnected() const = 0;
  /// Every value written to `characteristic`, in arrival order.
  virtual std::vector<Bytes> writesTo(const CBUUID& characteristic) const = 0;
};

/// A remote central in the air that talks to the local peripheral managers
/// (the emulator's side of the link). Completion callbacks run on the air's
/// thread.
class VirtualCentral {
 public:
  virtual ~VirtualCentral() = default;
  virtual const std::string& address() const = 0;
  /// Connects to the advertiser heard under `localName` (a local peripheral
  /// manager); false when none advertises it.
  virtual bool connectByName(const std::string& localName) = 0;
  virtual void disconnect() = 0;
  virtual bool isConnected() const = 0;
  /// The services the connected peripheral publishes (UUIDs, in order, with
  /// their characteristic UUIDs in order).
  virtual std::vector<std::pair<CBUUID, std::vector<CBUUID>>> discover() const = 0;
  /// A write with response; `done` gets the peripheral's result.
  virtual void write(const CBUUID& characteristic, const Bytes& value,
                     std::function<void(CBATTError)> done) = 0;
  /// Several writes delivered as one batch (a prepared write).
  virtual void writeBatch(const CBUUID& characteristic, const std::vector<Bytes>& values,
                          std::function<void(std::vector<CBATTError>)> done) = 0;
  virtual void read(const CBUUID& characteristic, std::uint16_t offset,
                    std::function<void(CBATTError, const Data&)> done) = 0;
};

/// What crossed the air, one line each, for tests and debugging.
struct TraceEvent {
  Nanos time{0};
  std::string kind;    // "adv", "connect", "disconnect", "read", "write", "power", ...
  std::string from;    // address
  std::string to;      // address (empty for broadcasts)
  std::string detail;  // human-readable
  Bytes payload;       // advertising data or ATT value
};

class Air : public radio::Backend {
 public:
  static std::shared_ptr<Air> create(AirOptions options = {});

  /// Virtual clock only (std::logic_error otherwise): settles the dispatch
  /// queues, then runs everything due in (now, now + duration] in (time,
  /// order queued) order, settling the queues after each event; time ends at
  /// now + duration. Main thread only; called from inside an air event
  /// (a receiver, a device handler, a completion) it does nothing.
  virtual void advance(Nanos duration) = 0;
  /// Runs what is due now and settles the queues, again until both are quiet
  /// (virtual clock: without moving time). Main thread only.
  virtual void settle() = 0;
  virtual ClockMode clockMode() const = 0;

  virtual void setAdapterState(CBManagerState state) = 0;
  virtual void setLocationAuthorization(int status) = 0;
  virtual void setLinkLatency(Nanos latency) = 0;

  virtual std::shared_ptr<VirtualDevice> addDevice(DeviceConfig config) = 0;
  virtual void removeDevice(const std::string& address) = 0;
  virtual std::shared_ptr<VirtualDevice> device(const std::string& address) const = 0;
  virtual std::vector<std::string> deviceAddresses() const = 0;

  /// Where the local peripheral managers' advertisements are heard from
  /// (metres from the local adapter; default 1). They advertise at 100 ms
  /// with txPowerAt1m -59 and 2 dB of noise, like a default device.
  virtual void setLocalPeripheralDistance(double metres) = 0;

  /// The next service registration of a local peripheral manager fails with `error`.
  virtual void failNextServiceRegistration(Error error) = 0;
  /// A remote central (for driving local peripheral managers).
  virtual std::shared_ptr<VirtualCentral> addCentral(std::string address = {}) = 0;

  /// Trace: kept in memory (at most `limit` newest events; none until a
  /// limit is set: recording is a large share of an advertisement's trip
  /// through the air) and/or handed to a sink. The sink runs on the thread
  /// where the step happened (the air's thread, or the caller of a
  /// VirtualCentral operation), with no lock of the air held; it must only
  /// record. Kinds: "adv", "power", "connect", "disconnect", "services",
  /// "characteristics", "read", "write", "answer", "notify", "register",
  /// "advertise".
  virtual void setTraceLimit(std::size_t limit) = 0;
  virtual std::vector<TraceEvent> trace() const = 0;
  virtual void setTraceSink(std::function<void(const TraceEvent&)> sink) = 0;
};

/// Scenario files: a JSON description of an air (adapter, authorization,
/// devices with their GATT databases and movement, timed events).
class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
/// Builds an air from scenario JSON text (format: docs/scenarios.md); throws
/// ScenarioError naming the problem (with the JSON path of the bad field).
/// `options` gives the clock and the defaults of what the scenario leaves
/// out; the scenario's seed, adapter, authorization and latency win.
std::shared_ptr<Air> loadScenario(const std::string& json, AirOptions options = {});
std::shared_ptr<Air> loadScenarioFile(const std::string& path, AirOptions options = {});
/// The built-in scenario of the tool's demo.
const std::string& defaultScenarioJson();

}  // namespace lumora::sim
