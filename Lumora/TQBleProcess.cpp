// The beacon emulator.
//
// Every step below reads or replaces one property or one shared variable at a
// time: each access is indivisible, a sequence of them is not, exactly as the
// class notes promise. The shared manager is read afresh for every request
// made of it, so a manager released by another thread in the meantime turns
// the later requests into nothing, the way a message to a released manager
// would.
#include "Lumora/TQBleProcess.h"

#include <cstdio>
#include <string>

#include "CoreBluetooth/CBUUID.h"
#include "Foundation/Dispatch.h"
#include "Foundation/NSLog.h"
#include "Lumora/TQBeaconAP.h"

namespace lumora {

Atomic<std::shared_ptr<CBPeripheralManager>> peripheralManager;
Atomic<std::shared_ptr<CLBeaconRegion>> region;
Atomic<std::optional<Number>> power;

namespace {

// An absent manager counts as state 0 (unknown).
bool sharedManagerIsPoweredOn() {
  auto manager = peripheralManager.load();
  return manager &&
         static_cast<int>(manager->state()) >= static_cast<int>(CBManagerState::PoweredOn);
}

// A null number reads as 0, as a message to a null number object would.
Number orZero(const std::optional<Number>& number) {
  return number.value_or(Number{});
}

// Builds the beacon region from the instance's identity, stores it as the
// shared region and asks the shared manager to advertise it under the
// "%x%x" local name. Nothing is logged and the outcome is not observed.
void startBeaconAdvertising(const TQBleProcess& emulator) {
  auto proximityUUID = emulator.uuid();
  if (!proximityUUID || BeaconIdentifier == nullptr) return;  // no region can be built
  // shortValue keeps the low 16 bits; those bits are the unsigned number.
  auto majorBits = static_cast<std::uint16_t>(orZero(emulator.major()).shortValue());
  auto minorBits = static_cast<std::uint16_t>(orZero(emulator.minor()).shortValue());
  auto built = std::make_shared<CLBeaconRegion>(*proximityUUID, std::optional{majorBits},
                                                std::optional{minorBits}, BeaconIdentifier);
  region.store(built);

  auto advertisement = built->peripheralDataWithMeasuredPower(power.load());

  char localName[16];
  std::snprintf(localName, sizeof localName, "%x%x",
                static_cast<unsigned>(orZero(emulator.major()).unsignedShortValue()),
                static_cast<unsigned>(orZero(emulator.minor()).unsignedShortValue()));
  if (!advertisement) return;
  advertisement->setObject(Object{std::string(localName)}, CBAdvertisementDataLocalNameKey);
  if (auto manager = peripheralManager.load()) manager->startAdvertising(advertisement);
}

}  // namespace

void TQBleProcess::initStartTQBeacon(const std::optional<Uuid>& uuid,
                                     const std::optional<Number>& Major,
                                     const std::optional<Number>& Minor,
                                     const std::optional<Number>& MeasuredPower) {
  // Once a region has been advertised the beacon's identity is fixed for the
  // process: later configurations, on any instance, take it from the region
  // and leave the measured power alone.
  if (auto last = region.load()) {
    setUuid(last->proximityUUID());
    setMajor(last->major());
    setMinor(last->minor());
  } else {
    setUuid(uuid);
    setMajor(Major);
    setMinor(Minor);
    power.store(MeasuredPower);
  }
  if (!power.load()) power.store(TQBeaconAP::sharedDefaults()->defaultPower());

  // The style is set before the formatter is published, so a reader on
  // another thread never sees it change.
  auto formatter = std::make_shared<NSNumberFormatter>();
  formatter->setNumberStyle(NSNumberFormatter::DecimalStyle);
  setNumberFormatter(std::move(formatter));

  // Enabled and not yet started before the manager is reachable: its first
  // state report runs on a worker and may start us at once, and must find
  // the configuration complete rather than have it reset behind its back.
  setEnabled(true);
  setIs_startBeacon(false);

  // One manager for the process; the instance configured last receives its
  // callbacks. The manager holds us weakly, so a destroyed instance is never
  // called back.
  if (auto manager = peripheralManager.load()) {
    manager->setDelegate(weak_from_this());
  } else {
    peripheralManager.store(
        CBPeripheralManager::initWithDelegate(weak_from_this(), dispatch_get_global_queue(0, 0)));
  }
}

bool TQBleProcess::StartTQBeacon() {
  if (!sharedManagerIsPoweredOn()) return false;
  if (is_startBeacon()) {
    setIs_startBeacon(false);
    if (auto manager = peripheralManager.load()) manager->stopAdvertising();
  }
  setIs_startBeacon(true);
  // The service published by an earlier start stays: a restart adds one more
  // copy, and advertising follows each confirmation.
  if (enabled()) setupService();
  return true;
}

bool TQBleProcess::StopTQBeacon() {
  if (!sharedManagerIsPoweredOn()) return false;
  setIs_startBeacon(false);
  if (auto manager = peripheralManager.load()) manager->stopAdvertising();
  if (auto manager = peripheralManager.load()) manager->removeAllServices();
  DestroyTQBeacon();
  return true;
}

void TQBleProcess::DestroyTQBeacon() {
  setIs_startBeacon(false);
  // Released for every instance; region and power are kept.
  peripheralManager.store(nullptr);
}

void TQBleProcess::setupService() {
  auto write = std::make_shared<CBMutableCharacteristic>(
      CBUUID::UUIDWithString(TQBleProcessWriteCharacteristicUUID), CBCharacteristicPropertyWrite,
      std::nullopt, CBAttributePermissionsWriteable);
  setCustomCharacteristic_Write(write);
  auto read = std::make_shared<CBMutableCharacteristic>(
      CBUUID::UUIDWithString(TQBleProcessReadCharacteristicUUID), CBCharacteristicPropertyRead,
      std::nullopt, CBAttributePermissionsReadable);
  setCustomCharacteristic_Read(read);
  auto service =
      std::make_shared<CBMutableService>(CBUUID::UUIDWithString(TQBleProcessServiceUUID), true);
  setCustomService(service);
  // The manager is handed the service only once its characteristics are in place.
  service->setCharacteristics(CBCharacteristicList{write, read});
  if (auto manager = peripheralManager.load()) manager->addService(service);
}

void TQBleProcess::peripheralManagerDidUpdateState(
    const std::shared_ptr<CBPeripheralManager>& peripheral) {
  if (peripheral && peripheral->state() == CBManagerState::PoweredOn) {
    StartTQBeacon();
  } else {
    NSLog("Peripheral Manager did change state");
  }
}

void TQBleProcess::didAddService(const std::shared_ptr<CBPeripheralManager>& /*peripheral*/,
                                 const std::shared_ptr<CBService>& /*service*/, ErrorRef error) {
  // A failed registration is dropped without a word: the instance stays
  // started and never advertises.
  if (error) return;
  startBeaconAdvertising(*this);
}

void TQBleProcess::peripheralManagerDidStartAdvertising(
    const std::shared_ptr<CBPeripheralManager>& /*peripheral*/, ErrorRef /*error*/) {}

void TQBleProcess::didReceiveReadRequest(const std::shared_ptr<CBPeripheralManager>& peripheral,
                                         const std::shared_ptr<CBATTRequest>& request) {
  NSLog("Read");
  Data value;
  if (auto* app = delegate()) value = app->tqbleprocess_didReqReadData();
  // The whole value, whatever offset the central asked for.
  if (request) request->setValue(std::move(value));
  if (peripheral && request) peripheral->respondToRequest(request, CBATTError::Success);
}

void TQBleProcess::didReceiveWriteRequests(
    const std::shared_ptr<CBPeripheralManager>& peripheral,
    const std::vector<std::shared_ptr<CBATTRequest>>& requests) {
  NSLog("Write");
  for (const auto& request : requests) {
    if (!request) continue;
    Data value = request->value();
    NSLog(description(value));
    // Each request is answered before its bytes reach the application, one
    // answer per request.
    if (peripheral) peripheral->respondToRequest(request, CBATTError::Success);
    if (auto* app = delegate()) app->tqbleprocess_didRevData(value);
  }
}

}  // namespace lumora
