#include "Lumora/TQBleFinder.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <utility>

#include "CoreBluetooth/CBAdvertisementData.h"
#include "CoreBluetooth/CBUUID.h"
#include "Foundation/NSLog.h"
#include "Foundation/NSUserDefaults.h"

namespace lumora {

namespace {

// Characteristics of the beacon device that discovery recognises.
constexpr const char* kMajorCharacteristicUUID = "B0702882-A295-A8AB-F734-031A98A512DE";
constexpr const char* kMinorCharacteristicUUID = "B0702883-A295-A8AB-F734-031A98A512DE";
// Data channel: the finder writes to the first, reads from the second.
constexpr const char* kDataWriteUUID = "FF0C";
constexpr const char* kDataReadUUID = "FFCC";

// iBeacon manufacturer data: company 0x004C (little-endian), type 0x02, and
// the length 0x15 of the 21 bytes that follow.
constexpr std::uint8_t kBeaconPrefix[] = {0x4C, 0x00, 0x02, 0x15};
constexpr std::size_t kBeaconFrameLength = 25;
constexpr std::size_t kUuidOffset = 4;
constexpr std::size_t kMajorOffset = 20;
constexpr std::size_t kMinorOffset = 22;
constexpr std::size_t kPowerOffset = 24;

// Above the measured power (ratio >= 1) a fitted curve, below it the plain
// tenth power. The two meet only roughly at ratio 1 (1.0 against 1.01076);
// the step is kept so distances stay comparable with earlier releases.
constexpr double kCurveFactor = 0.89976;
constexpr double kCurveExponent = 7.7095;
constexpr double kCurveOffset = 0.111;
constexpr double kNearExponent = 10.0;

constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr char kLowerDigits[] = "0123456789abcdef";

/// Replaces the "%@" of a message or log format with `object`'s text.
std::string withObject(std::string_view format, std::string_view object) {
  std::string text;
  const auto at = format.find("%@");
  if (at == std::string_view::npos) return std::string(format);
  text.reserve(format.size() - 2 + object.size());
  text.append(format.substr(0, at)).append(object).append(format.substr(at + 2));
  return text;
}

/// The boolean reading of a stored object, as the platform's boolValue
/// gives it: a number is true when non-zero; a text is true when, after
/// blanks, a sign and leading zeros, it starts with Y, y, T, t or a digit 1
/// to 9 ("YES", "true", "1"); anything else (bytes, absent) is false.
bool booleanReading(const std::optional<Object>& object) {
  if (const auto number = numberValue(object)) return number->boolValue();
  const auto text = stringValue(object);
  if (!text) return false;
  std::size_t i = 0;
  while (i < text->size() && std::isspace(static_cast<unsigned char>((*text)[i]))) ++i;
  if (i < text->size() && ((*text)[i] == '+' || (*text)[i] == '-')) ++i;
  while (i < text->size() && (*text)[i] == '0') ++i;
  if (i == text->size()) return false;
  const char c = (*text)[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

/// Calls `operation` on every characteristic of `peripheral`'s discovered
/// services whose UUID equals `uuidText`, in service then characteristic
/// order. Services whose characteristics were never discovered are skipped.
template <class Operation>
void forEachCharacteristic(const std::shared_ptr<CBPeripheral>& peripheral,
                           std::string_view uuidText, Operation&& operation) {
  if (!peripheral) return;
  const auto services = peripheral->services();
  if (!services) return;
  for (const auto& service : *services) {
    if (!service) continue;
    const auto characteristics = service->characteristics();
    if (!characteristics) continue;
    for (const auto& characteristic : *characteristics) {
      if (characteristic && characteristic->UUID() == CBUUID::UUIDWithString(uuidText)) {
        operation(characteristic);
      }
    }
  }
}

}  // namespace

// --- Beacon-info record -------------------------------------------------------

Dictionary TQBleFinder::BeaconInfo::dictionary() const {
  return Dictionary{{"uuid", uuid.str()}, {"major", major}, {"minor", minor}, {"power", power}};
}

// --- Set-up and ranging -------------------------------------------------------

TQBleFinder::~TQBleFinder() {
  // Scans, links and ranging end as the platform objects go with the finder;
  // nothing is stopped or cancelled explicitly.
  setCentralManager(nullptr);
  setPeripheral(nullptr);
  setPeripheral_uuid(std::nullopt);
  setBeacons(nullptr);
  setRangedRegions(std::nullopt);
}

void TQBleFinder::initTQFinder() {
  // A repeated set-up forgets the link without cancelling it: the platform
  // objects end it when they are released.
  setCentralManager(nullptr);
  setPeripheral(nullptr);
  setPeripheral_uuid(std::nullopt);
  setBeacons(std::make_shared<BeaconDictionary>());
  setIs_connectBeacon(false);

  // The authorization is only logged: ranging is set up whatever it is, and
  // simply yields nothing while it is not granted.
  switch (static_cast<int>(CLLocationManager::authorizationStatus())) {
    case 0:
      NSLog("Not determined");
      break;
    case 1:
      NSLog("Restricted");
      break;
    case 2:
      NSLog("Denied");
      break;
    case 3:
      NSLog("Authorized Always");
      break;
    case 4:
      NSLog("Authorized when in use");
      break;
    default:
      break;
  }

  auto manager = std::make_shared<CLLocationManager>();
  setLocationManager(manager);
  manager->setDelegate(weak_from_this());
  // Ranging must go on in the background, hence always, never only in use.
  if (manager->respondsToRequestAlwaysAuthorization()) manager->requestAlwaysAuthorization();
  manager->setPausesLocationUpdatesAutomatically(false);
}

void TQBleFinder::StartTQFinder(const std::optional<RegionList>& regions) {
  // The regions ranged until now are deliberately not stopped: a second start
  // without a stop leaves them ranged, and the finder no longer knows them.
  if (rangedRegions_) setRangedRegions(std::nullopt);
  setRangedRegions(regions ? *regions : RegionList{});
  const auto manager = locationManager_;
  const auto ranged = *rangedRegions_;
  if (!manager) return;  // not set up yet: the regions are only remembered
  for (const auto& region : ranged) manager->startRangingBeaconsInRegion(region);
}

void TQBleFinder::StopTQFinder() {
  const auto manager = locationManager_;
  if (!manager || !rangedRegions_) return;
  const auto ranged = *rangedRegions_;
  for (const auto& region : ranged) manager->stopRangingBeaconsInRegion(region);
}

bool TQBleFinder::is_TQFinderState() const {
  return is_connectBeacon();
}

void TQBleFinder::didRangeBeacons(const std::shared_ptr<CLLocationManager>& /*manager*/,
                                  const CLBeaconList& beacons,
                                  const std::shared_ptr<CLBeaconRegion>& region) {
  // The platform's list goes to the application as it came; `beacons_` is
  // never filled.
  if (beacons.empty()) return;
  if (auto* target = delegate()) target->didDiscoverBeacon(beacons, region);
}

void TQBleFinder::rangingBeaconsDidFailForRegion(
    const std::shared_ptr<CLLocationManager>& /*manager*/,
    const std::shared_ptr<CLBeaconRegion>& /*region*/, ErrorRef /*error*/) {}

// --- Pure helpers -------------------------------------------------------------

bool TQBleFinder::advDataIsBeacon(const Data& data) {
  // Only the prefix is checked; the length byte and the 25 bytes a full frame
  // needs are left to getBeaconInfoFromData().
  if (!data || data->size() <= sizeof(kBeaconPrefix)) return false;
  return std::memcmp(data->data(), kBeaconPrefix, sizeof(kBeaconPrefix)) == 0;
}

std::optional<TQBleFinder::BeaconInfo> TQBleFinder::getBeaconInfoFromData(const Data& data) {
  // Applications decode every advertisement, so the record is filled where
  // the caller wants it (one object on every path: no copy on return) and
  // nothing is allocated, the UUID text included.
  std::optional<BeaconInfo> out(std::in_place);
  // Bytes 0 to 3 are the caller's to test (advDataIsBeacon); a frame too
  // short to hold the power byte gives no record rather than a padded one.
  if (!data || data->size() < kBeaconFrameLength) {
    out.reset();
    return out;
  }
  const std::uint8_t* bytes = data->data();
  const auto bigEndian = [bytes](std::size_t at) {
    return static_cast<std::uint16_t>((bytes[at] << 8) | bytes[at + 1]);
  };
  out->uuid.assign(Uuid::fromBytes(bytes + kUuidOffset));
  out->major = Number::numberWithUnsignedShort(bigEndian(kMajorOffset));
  out->minor = Number::numberWithUnsignedShort(bigEndian(kMinorOffset));
  out->power = Number::numberWithChar(static_cast<std::int8_t>(bytes[kPowerOffset]));
  return out;
}

std::optional<Number> TQBleFinder::calculatedDistance(const std::optional<Number>& txPower,
                                                      const std::optional<Number>& RSSI) {
  const std::int32_t power = txPower ? txPower->intValue() : 0;
  const double rssi = RSSI ? RSSI->doubleValue() : 0.0;
  if (rssi == 0.0) return std::nullopt;  // no reading
  // A power of 0 (or none) divides by zero: IEEE 754 then gives an infinite
  // distance instead of an error, and callers rely on that.
  const double ratio = rssi * 1.0 / static_cast<double>(power);
  if (ratio < 1.0) return Number::numberWithDouble(std::pow(ratio, kNearExponent));
  return Number::numberWithDouble(kCurveFactor * std::pow(ratio, kCurveExponent) + kCurveOffset);
}

std::string TQBleFinder::getHexString(const Data& data) {
  const std::size_t length = data ? data->size() : 0;
  std::string text;
  text.reserve(2 * length);
  if (!data) return text;
  for (const std::uint8_t byte : *data) {
    text.push_back(kLowerDigits[byte >> 4]);
    text.push_back(kLowerDigits[byte & 0x0F]);
  }
  return text;
}

std::string TQBleFinder::hexRepresentation(const Data& data, bool Spaces_AS) {
  const std::size_t length = data ? data->size() : 0;
  std::string text;
  // length / 4 is exactly the number of separators written, so the text is
  // never regrown.
  text.reserve(2 * length + (Spaces_AS ? length / 4 : 0));
  if (!data) return text;
  std::size_t count = 0;
  for (const std::uint8_t byte : *data) {
    text.push_back(kUpperDigits[byte >> 4]);
    text.push_back(kUpperDigits[byte & 0x0F]);
    ++count;
    if (!Spaces_AS) continue;
    if (count % 16 == 0) {
      text.push_back('\n');
    } else if (count % 4 == 0) {
      text.push_back(' ');
    }
  }
  return text;
}

// --- Scan ----------------------------------------------------------------------

void TQBleFinder::Scan_peripherals() {
  // Duplicates are folded by the platform: the name match needs one report.
  const Dictionary options{
      {CBCentralManagerScanOptionAllowDuplicatesKey, Number::numberWithBool(false)}};
  if (const auto manager = centralManager_) {
    manager->scanForPeripheralsWithServices(std::nullopt, options);
  }
  NSLog("Scanning started");
  send(TQStatus::StartScan);
}

void TQBleFinder::stopScan_Scan_peripherals() {
  if (const auto manager = centralManager_) manager->stopScan();
  send(TQStatus::StopScan);
}

void TQBleFinder::centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) {
  // Only powered on matters; a manager that leaves that state is not told to
  // stop, and one that comes back scans again.
  if (central && central->state() == CBManagerState::PoweredOn) Scan_peripherals();
}

void TQBleFinder::didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>& /*central*/,
                                        const std::shared_ptr<CBPeripheral>& peripheral,
                                        const CBAdvertisementData& advertisementData,
                                        const Number& /*RSSI*/) {
  // The wanted device is known by its advertised local name alone (despite
  // the field's name), compared exactly; nothing else of the report is read.
  const auto& advertisedName = advertisementData.localName;
  if (!advertisedName) return;
  // Compared in place: this runs for every advertisement heard.
  const bool wanted = peripheral_uuid_.read(
      [&](const std::optional<std::string>& name) { return name && *name == *advertisedName; });
  if (wanted) TQ_BLE_Connect(peripheral);
}

// --- Connection ------------------------------------------------------------------

void TQBleFinder::TQBeacon_Connect(const std::optional<std::string>& name) {
  send(TQStatus::Connecting);
  if (const auto held = peripheral_) {
    // A peripheral is held (linking, linked or being cancelled): the link is
    // asked for again and the new name is ignored.
    TQ_BLE_Connect(held);
    return;
  }
  setPeripheral_uuid(name);
  // A fresh manager for every search; the one it replaces is released with
  // whatever it was doing. Its first state report starts the scan.
  auto manager = CBCentralManager::initWithDelegate(weak_from_this(), nullptr);
  setCentralManager(manager);
  manager->setDelegate(weak_from_this());
}

void TQBleFinder::TQBeacon_Disconnect() {
  TQ_BLE_Disconnect();
  // Sent now, before the platform confirms: the confirmation is event 51.
  send(TQStatus::Disconnected);
}

bool TQBleFinder::TQ_BLE_Connect(const std::shared_ptr<CBPeripheral>& p) {
  stopScan_Scan_peripherals();
  setPeripheral(p);
  NSLog(withObject("Connecting to peripheral %@", description(peripheral_)));
  if (const auto manager = centralManager_; manager && p)
    manager->connectPeripheral(p, std::nullopt);
  setIs_connectBeacon(true);
  return true;
}

void TQBleFinder::TQ_BLE_Disconnect() {
  // The peripheral stays held until the platform reports the disconnection;
  // the quiet-disconnection flag is the application's to set.
  const auto held = peripheral_;
  if (const auto manager = centralManager_) manager->cancelPeripheralConnection(held);
  NSLog(withObject("Disconnecting to peripheral %@", description(held)));
  setIs_connectBeacon(false);
}

void TQBleFinder::didConnectPeripheral(const std::shared_ptr<CBCentralManager>& /*central*/,
                                       const std::shared_ptr<CBPeripheral>& /*peripheral*/) {
  NSLog("Peripheral Connected");
  // The held peripheral, not the callback's: they are the same device unless
  // the application swapped the field in between.
  if (const auto held = peripheral_) {
    held->setDelegate(weak_from_this());
    held->discoverServices(std::nullopt);
  }
  send(TQStatus::ConnectPeripheral);
}

void TQBleFinder::didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>& /*central*/,
                                             const std::shared_ptr<CBPeripheral>& /*peripheral*/,
                                             ErrorRef /*error*/) {}

void TQBleFinder::didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>& /*central*/,
                                          const std::shared_ptr<CBPeripheral>& /*peripheral*/,
                                          ErrorRef /*error*/) {
  send(TQStatus::DidDisconnect);
  // The flag tells a requested disconnection from a drop. Whichever
  // disconnection comes first after the application set it consumes it.
  const auto defaults = NSUserDefaults::standardUserDefaults();
  if (booleanReading(defaults->objectForKey(TQDisconnectFlagKey))) {
    defaults->setObject(Number::numberWithBool(false), TQDisconnectFlagKey);
  } else {
    send(TQStatus::ConnectionLost);
  }
  // is_connectBeacon, peripheral_uuid and the manager stay: nothing
  // reconnects by itself.
  setIBeaconUUIDCharacteristic(nullptr);
  setMajorCharacteristic(nullptr);
  setMinorCharacteristic(nullptr);
  setDataCharacteristic(nullptr);
  setBatteryLevelBroadCastCharacteristic(nullptr);
  setPeripheral(nullptr);
}

// --- Discovery -----------------------------------------------------------------

void TQBleFinder::didDiscoverServices(const std::shared_ptr<CBPeripheral>& peripheral,
                                      ErrorRef /*error*/) {
  NSLog("DiscoverServices");
  if (!peripheral) return;
  const auto services = peripheral->services();
  if (!services) return;
  for (const auto& service : *services) {
    if (service) peripheral->discoverCharacteristics(std::nullopt, service);
  }
}

void TQBleFinder::didDiscoverCharacteristicsForService(
    const std::shared_ptr<CBPeripheral>& peripheral, const std::shared_ptr<CBService>& service,
    ErrorRef /*error*/) {
  if (!service) return;
  const auto characteristics = service->characteristics();
  int recognised = 0;  // per service: four in one service confirm the device
  if (characteristics) {
    for (const auto& c : *characteristics) {
      if (!c) continue;
      const CBUUID cuuid = c->UUID();
      // The beacon-UUID characteristic is compared with the text form of
      // `uuid` (value equality of the text); a null `uuid` never matches.
      const auto beaconUuid = uuid();
      if (beaconUuid && cuuid.isEqual(beaconUuid->UUIDString())) {
        setIBeaconUUIDCharacteristic(c);
      } else if (cuuid == CBUUID::UUIDWithString(kMajorCharacteristicUUID)) {
        setMajorCharacteristic(c);
      } else if (cuuid == CBUUID::UUIDWithString(kMinorCharacteristicUUID)) {
        setMinorCharacteristic(c);
      } else if (cuuid == CBUUID::UUIDWithString(kDataWriteUUID)) {
        setDataCharacteristic(c);
      } else if (cuuid == CBUUID::UUIDWithString(kDataReadUUID)) {
        // Both data directions share one field: the later one in the list wins.
        setDataCharacteristic(c);
      } else {
        continue;
      }
      ++recognised;
    }
  }
  // A second connect request for the same device confirms it; the platform
  // answers it silently when the link is already up.
  if (recognised > 3) TQ_BLE_Connect(peripheral);
}

// --- Data exchange -------------------------------------------------------------

void TQBleFinder::TQBeacon_SendData(const Data& data) {
  send(TQStatus::SendData.code, withObject(TQStatus::SendData.message, description(data)),
       std::nullopt);
  TQ_BLE_SendData(data);
}

void TQBleFinder::TQBeacon_ReqReadData() {
  TQ_BLE_ReqReadData();
  // Sent after the request, unlike the send event: it reports the read asked.
  send(TQStatus::ReadData);
}

void TQBleFinder::TQ_BLE_SendData(const Data& data) {
  // Characteristics are found afresh by UUID on every call, not taken from the
  // fields discovery fills; every match is written, with response.
  const auto held = peripheral_;
  forEachCharacteristic(held, kDataWriteUUID, [&](const std::shared_ptr<CBCharacteristic>& c) {
    held->writeValue(data, c, CBCharacteristicWriteType::WithResponse);
    NSLog(withObject("BLE SEND data:%@", description(data)));
  });
}

void TQBleFinder::TQ_BLE_ReqReadData() {
  const auto held = peripheral_;
  forEachCharacteristic(held, kDataReadUUID, [&](const std::shared_ptr<CBCharacteristic>& c) {
    held->readValueForCharacteristic(c);
    NSLog("BLE ReqRead data");
  });
}

void TQBleFinder::TQ_BLE_RecvData(const Data& data) {
  send(TQStatus::RecvData, data);
}

void TQBleFinder::didUpdateValueForCharacteristic(
    const std::shared_ptr<CBPeripheral>& /*peripheral*/,
    const std::shared_ptr<CBCharacteristic>& characteristic, ErrorRef error) {
  // A value is delivered even when an error comes with it; a failure with no
  // value is dropped silently. Which characteristic it is does not matter:
  // nothing is subscribed, so updates answer the finder's reads.
  const Data value = characteristic ? characteristic->value() : std::nullopt;
  if (value || !error) TQ_BLE_RecvData(value);
}

void TQBleFinder::didWriteValueForCharacteristic(
    const std::shared_ptr<CBPeripheral>& /*peripheral*/,
    const std::shared_ptr<CBCharacteristic>& /*characteristic*/, ErrorRef /*error*/) {
  // The outcome of a write is not passed on: the application is not told.
  NSLog("didWriteValueForCharacteristic");
}

// --- Events ----------------------------------------------------------------------

void TQBleFinder::send(const TQStatusEvent& event, const Data& data) {
  if (auto* target = delegate()) target->didstate(event.code, std::string(event.message), data);
}

void TQBleFinder::send(std::int32_t code, const std::string& message, const Data& data) {
  // A null delegate drops the event; the finder goes on as if delivered.
  if (auto* target = delegate()) target->didstate(code, message, data);
}

}  // namespace lumora
