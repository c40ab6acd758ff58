// Beacon regions and ranged beacons.
//
//   auto region = std::make_shared<CLBeaconRegion>(uuid, Number(1), std::nullopt,
//   "com.example.lobby"); auto ad = region->peripheralDataWithMeasuredPower(Number(-59));
//   // ad->manufacturerData: 4C 00 02 15, 16 UUID bytes, major BE, minor BE, power
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CoreBluetooth/CBAdvertisementData.h"
#include "Foundation/Bytes.h"
#include "Foundation/Number.h"
#include "Foundation/Uuid.h"

namespace lumora {

/// A region of beacons: a proximity UUID, optionally narrowed to one major
/// and then one minor. Immutable once made.
class CLBeaconRegion {
 public:
  /// initWithProximityUUID:identifier: / :major:identifier: / :major:minor:identifier:.
  /// A minor without a major is ignored (the platform has no such region).
  CLBeaconRegion(Uuid proximityUUID, std::optional<std::uint16_t> major,
                 std::optional<std::uint16_t> minor, std::string identifier);
  /// initWithProximityUUID:identifier: (every major and minor). Spelled out
  /// because std::nullopt alone cannot pick between the forms above and below.
  CLBeaconRegion(Uuid proximityUUID, std::string identifier)
      : CLBeaconRegion(proximityUUID, std::optional<std::uint16_t>(),
                       std::optional<std::uint16_t>(), std::move(identifier)) {}
  /// With number objects, as the emulator builds it; values are taken as
  /// unsigned 16-bit (unsignedShortValue).
  CLBeaconRegion(Uuid proximityUUID, const std::optional<Number>& major,
                 const std::optional<Number>& minor, std::string identifier);

  const Uuid& proximityUUID() const { return proximityUUID_; }
  /// Null when the region matches every major (resp. minor).
  std::optional<Number> major() const;
  std::optional<Number> minor() const;
  const std::string& identifier() const { return identifier_; }

  /// True when a beacon of this identity belongs to the region.
  bool matches(const Uuid& uuid, std::uint16_t major, std::uint16_t minor) const;

  /// The beacon advertisement for `measuredPower` (dBm at 1 m, as a signed
  /// byte; null: -59). Manufacturer data 4C 00 02 15, the 16 UUID bytes,
  /// major and minor big-endian (0 when the region has none), the power.
  /// Returns null when the power does not fit a signed byte.
  std::optional<CBAdvertisementData> peripheralDataWithMeasuredPower(
      const std::optional<Number>& measuredPower) const;

  std::string description() const;

 private:
  Uuid proximityUUID_;
  std::optional<std::uint16_t> major_;
  std::optional<std::uint16_t> minor_;
  std::string identifier_;
};

enum class CLProximity : int { Unknown = 0, Immediate = 1, Near = 2, Far = 3 };
const char* toString(CLProximity proximity);

/// One ranged beacon, as a ranging callback reports it.
class CLBeacon {
 public:
  CLBeacon(Uuid proximityUUID, std::uint16_t major, std::uint16_t minor, CLProximity proximity,
           double accuracy, int rssi);
  const Uuid& proximityUUID() const { return proximityUUID_; }
  Number major() const { return Number::numberWithUnsignedShort(major_); }
  Number minor() const { return Number::numberWithUnsignedShort(minor_); }
  CLProximity proximity() const { return proximity_; }
  /// Estimated distance in metres; negative when unknown.
  double accuracy() const { return accuracy_; }
  /// Filtered RSSI in dBm; 0 when no fresh reading.
  int rssi() const { return rssi_; }
  std::string description() const;

 private:
  Uuid proximityUUID_;
  std::uint16_t major_;
  std::uint16_t minor_;
  CLProximity proximity_;
  double accuracy_;
  int rssi_;
};

using CLBeaconList = std::vector<std::shared_ptr<CLBeacon>>;

/// iBeacon identity read from manufacturer data (company 0x004C, type 02 15,
/// at least 25 bytes). Empty optional for anything else, a frame announcing
/// another length than 0x15 included; bytes past the 25th are ignored. Never
/// reads past the buffer. Pure and thread-safe.
struct IBeaconFrame {
  Uuid uuid;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  std::int8_t measuredPower = 0;
};
std::optional<IBeaconFrame> parseIBeacon(const std::uint8_t* data, std::size_t size);

}  // namespace lumora
