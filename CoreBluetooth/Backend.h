// The narrow interface a radio implements, below the CoreBluetooth and
// CoreLocation front objects.
//
// Two radios implement it: the simulated air (backends/sim, the default) and
// BlueZ over D-Bus (backends/bluez). Front objects open one session per
// manager (CentralRadio / PeripheralRadio) and receive the radio's events
// through CentralEvents / PeripheralEvents, which they implement.
//
// Threading contract, identical for every radio:
// - Session and Backend operations may be called from any thread and never
//   call back into the caller before returning (no event is raised from
//   inside an operation).
// - Events are raised on the radio's own thread (the simulated air's clock
//   thread, the main run loop for BlueZ), never while the radio holds a lock
//   of its own, one at a time per session and in the order they happened.
// - Event receivers only queue work: they never call application code on the
//   radio's thread and never block. The front objects move every application
//   callback onto the delegate queue of their manager.
// - Receivers are held weakly; a receiver that is gone is skipped.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CoreBluetooth/CBAdvertisementData.h"
#include "CoreBluetooth/CBTypes.h"
#include "CoreBluetooth/CBUUID.h"
#include "Foundation/Bytes.h"
#include "Foundation/Object.h"

namespace lumora::radio {

/// Time on the radio's clock (virtual in the simulated air's tests).
using Nanos = std::chrono::nanoseconds;
/// A remote device as the radio knows it: its address text
/// ("C0:FF:EE:00:00:01"), or an object path for radios that have no stable
/// address. Stable for as long as the device is known.
using PeripheralId = std::string;
/// ATT handle of a remote service (its start handle) or characteristic (its
/// value handle).
using AttHandle = std::uint16_t;

/// RSSI value meaning "no reading" (as controllers report it).
inline constexpr int kRssiUnavailable = 127;

/// One advertising report as heard by the adapter.
struct AdvertisingReport {
  PeripheralId address;
  CBAdvertisementData advertisement;
  int rssi = kRssiUnavailable;  // dBm
  Nanos time{0};                // radio clock when heard
};

struct ScanParameters {
  bool allowDuplicates = false;                 // hint: fronts fold duplicates themselves
  std::optional<std::vector<CBUUID>> services;  // null: every advertiser
};

struct RemoteService {
  AttHandle handle = 0;
  CBUUID uuid;
  bool primary = true;
};

struct RemoteCharacteristic {
  AttHandle handle = 0;
  CBUUID uuid;
  std::uint8_t properties = 0;
};

/// Events of a central session. Implemented by CBCentralManager.
class CentralEvents {
 public:
  virtual ~CentralEvents() = default;
  virtual void radioStateChanged(CBManagerState state) = 0;
  /// Every report while scanning, duplicates included.
  virtual void radioDiscovered(const AdvertisingReport& report) = 0;
  virtual void radioConnected(const PeripheralId& peripheral) = 0;
  virtual void radioConnectFailed(const PeripheralId& peripheral, const Error& error) = 0;
  /// A link ended: requested (error empty) or dropped (error set).
  virtual void radioDisconnected(const PeripheralId& peripheral,
                                 const std::optional<Error>& error) = 0;
  virtual void radioServicesDiscovered(const PeripheralId& peripheral,
                                       const std::vector<RemoteService>& services,
                                       const std::optional<Error>& error) = 0;
  virtual void radioCharacteristicsDiscovered(
      const PeripheralId& peripheral, AttHandle service,
      const std::vector<RemoteCharacteristic>& characteristics,
      const std::optional<Error>& error) = 0;
  /// A read answer or a notification: value and error may each be absent.
  virtual void radioValueUpdated(const PeripheralId& peripheral, AttHandle characteristic,
                                 const Data& value, const std::optional<Error>& error) = 0;
  virtual void radioValueWritten(const PeripheralId& peripheral, AttHandle characteristic,
                                 const std::optional<Error>& error) = 0;
};

/// A central session: what one CBCentralManager asks of the radio.
class CentralRadio {
 public:
  virtual ~CentralRadio() = default;
  virtual CBManagerState state() const = 0;
  /// Starts (or restarts with new parameters) scanning.
  virtual void startScan(const ScanParameters& parameters) = 0;
  virtual void stopScan() = 0;
  /// Asks for a link. An already connected peripheral is satisfied without a
  /// further radioConnected; failures come as radioConnectFailed; there is no
  /// time-out unless the radio documents one.
  virtual void connect(const PeripheralId& peripheral) = 0;
  /// Cancels a pending connection or closes the link; radioDisconnected
  /// follows (without error) when there was a link or attempt.
  virtual void cancelConnection(const PeripheralId& peripheral) = 0;
  virtual void discoverServices(const PeripheralId& peripheral,
                                const std::optional<std::vector<CBUUID>>& filter) = 0;
  virtual void discoverCharacteristics(const PeripheralId& peripheral, AttHandle service,
                                       const std::optional<std::vector<CBUUID>>& filter) = 0;
  virtual void read(const PeripheralId& peripheral, AttHandle characteristic) = 0;
  /// With response: radioValueWritten follows. Without: nothing follows.
  virtual void write(const PeripheralId& peripheral, AttHandle characteristic, const Bytes& value,
                     bool withResponse) = 0;
  /// The manager is gone: scanning stops and links close without events.
  virtual void close() = 0;
};

/// One characteristic of a service that a peripheral manager publishes.
struct LocalCharacteristic {
  CBUUID uuid;
  std::uint8_t properties = 0;
  std::uint8_t permissions = 0;
  Data value;  // a fixed value served by the radio; null: every request goes to the manager
};

struct LocalService {
  CBUUID uuid;
  bool primary = true;
  std::vector<LocalCharacteristic> characteristics;
};

/// Registration of a published service, chosen by the front (unique per session).
using ServiceToken = std::uint64_t;
/// An outstanding ATT request, chosen by the radio (unique per session).
using RequestId = std::uint64_t;

struct AttRequest {
  RequestId id = 0;
  std::string central;             // the remote central's address
  ServiceToken service = 0;        // which published service
  std::size_t characteristic = 0;  // index in that service's characteristics
  std::uint16_t offset = 0;
  Bytes value;                                  // written bytes (writes only)
  std::uint16_t maximumUpdateValueLength = 20;  // ATT_MTU - 3 of the link
};

/// Events of a peripheral session. Implemented by CBPeripheralManager.
class PeripheralEvents {
 public:
  virtual ~PeripheralEvents() = default;
  virtual void radioStateChanged(CBManagerState state) = 0;
  virtual void radioServiceAdded(ServiceToken service, const std::optional<Error>& error) = 0;
  virtual void radioAdvertisingStarted(const std::optional<Error>& error) = 0;
  virtual void radioReadRequest(const AttRequest& request) = 0;
  /// Writes that arrived together (one prepared batch, or one request).
  virtual void radioWriteRequests(const std::vector<AttRequest>& requests) = 0;
};

/// A peripheral session: what one CBPeripheralManager asks of the radio.
class PeripheralRadio {
 public:
  virtual ~PeripheralRadio() = default;
  virtual CBManagerState state() const = 0;
  /// Publishes a service; radioServiceAdded follows once.
  virtual void addService(ServiceToken token, const LocalService& service) = 0;
  virtual void removeService(ServiceToken token) = 0;
  virtual void removeAllServices() = 0;
  /// Advertises `data` (replacing what was advertised); radioAdvertisingStarted follows.
  virtual void startAdvertising(const CBAdvertisementData& data) = 0;
  virtual void stopAdvertising() = 0;
  /// Answers one request. `value` is the read value (reads only).
  virtual void respond(RequestId request, CBATTError result, const Data& value) = 0;
  /// The manager is gone: advertising stops and services are withdrawn.
  virtual void close() = 0;
};

/// Held while a consumer observes advertisements; dropping it stops them.
class Observation {
 public:
  virtual ~Observation() = default;
};

using TimerId = std::uint64_t;

/// A radio. One is chosen process-wide; managers take the current one when
/// they are created.
class Backend {
 public:
  virtual ~Backend() = default;

  /// "sim", "bluez:hci0", ...
  virtual std::string name() const = 0;
  virtual CBManagerState adapterState() const = 0;

  virtual std::shared_ptr<CentralRadio> openCentral(std::weak_ptr<CentralEvents> events) = 0;
  virtual std::shared_ptr<PeripheralRadio> openPeripheral(
      std::weak_ptr<PeripheralEvents> events) = 0;

  /// Every advertising report, duplicates included, for as long as the
  /// returned handle lives (a passive scan for ranging). `sink` runs on the
  /// radio's thread and must only record.
  virtual std::shared_ptr<Observation> observeAdvertisements(
      std::function<void(const AdvertisingReport&)> sink) = 0;

  /// The location authorization status the platform would report (0 not
  /// determined ... 4 when in use).
  virtual int locationAuthorizationStatus() const = 0;

  /// The radio's clock and timers; timer callbacks run on the radio's thread.
  virtual Nanos now() const = 0;
  virtual TimerId scheduleAfter(Nanos delay, std::function<void()> fn) = 0;
  virtual void cancelScheduled(TimerId id) = 0;

  /// The process-wide radio that new managers use. The first call without
  /// setCurrent() makes the default one (makeDefaultBackend()).
  static std::shared_ptr<Backend> current();
  /// Selects the radio for managers created from now on (null: back to the
  /// default on next use).
  static void setCurrent(std::shared_ptr<Backend> backend);
};

/// Supplied by the radio-selection unit (backends/Radio.cpp): honours
/// LUMORA_BACKEND ("sim", "sim:SCENARIO.json", "bluez", "bluez:hci1") and
/// otherwise gives the simulated air in real time with the built-in scenario.
std::shared_ptr<Backend> makeDefaultBackend();

}  // namespace lumora::radio
