#include "CoreLocation/CLBeaconRegion.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace lumora {

namespace {

// Layout of the beacon manufacturer data: company 0x004C little-endian, type
// 0x02, length of the rest 0x15, then identity and power.
constexpr std::uint8_t kPrefix[4] = {0x4C, 0x00, 0x02, 0x15};
constexpr std::size_t kFrameSize = 25;
constexpr int kDefaultMeasuredPower = -59;

std::string optionalText(const std::optional<std::uint16_t>& value) {
  return value ? std::to_string(*value) : std::string("(null)");
}

}  // namespace

CLBeaconRegion::CLBeaconRegion(Uuid proximityUUID, std::optional<std::uint16_t> major,
                               std::optional<std::uint16_t> minor, std::string identifier)
    : proximityUUID_(proximityUUID),
      major_(major),
      // A minor narrows a major; on its own it names no region.
      minor_(major ? minor : std::nullopt),
      identifier_(std::move(identifier)) {}

CLBeaconRegion::CLBeaconRegion(Uuid proximityUUID, const std::optional<Number>& major,
                               const std::optional<Number>& minor, std::string identifier)
    : CLBeaconRegion(
          proximityUUID,
          major ? std::optional<std::uint16_t>(major->unsignedShortValue()) : std::nullopt,
          minor ? std::optional<std::uint16_t>(minor->unsignedShortValue()) : std::nullopt,
          std::move(identifier)) {}

std::optional<Number> CLBeaconRegion::major() const {
  if (!major_) return std::nullopt;
  return Number::numberWithUnsignedShort(*major_);
}

std::optional<Number> CLBeaconRegion::minor() const {
  if (!minor_) return std::nullopt;
  return Number::numberWithUnsignedShort(*minor_);
}

bool CLBeaconRegion::matches(const Uuid& uuid, std::uint16_t major, std::uint16_t minor) const {
  if (uuid != proximityUUID_) return false;
  if (major_ && *major_ != major) return false;
  if (minor_ && *minor_ != minor) return false;
  return true;
}

std::optional<CBAdvertisementData> CLBeaconRegion::peripheralDataWithMeasuredPower(
    const std::optional<Number>& measuredPower) const {
  // longLongValue truncates a fractional power toward zero and saturates, so
  // the range test below sees every out-of-range input.
  const std::int64_t power = measuredPower ? measuredPower->longLongValue() : kDefaultMeasuredPower;
  if (power < -128 || power > 127) return std::nullopt;

  Bytes frame(kFrameSize);
  std::memcpy(frame.data(), kPrefix, sizeof kPrefix);
  std::memcpy(frame.data() + 4, proximityUUID_.bytes().data(), 16);
  const std::uint16_t major = major_.value_or(0);
  const std::uint16_t minor = minor_.value_or(0);
  frame[20] = static_cast<std::uint8_t>(major >> 8);
  frame[21] = static_cast<std::uint8_t>(major & 0xFF);
  frame[22] = static_cast<std::uint8_t>(minor >> 8);
  frame[23] = static_cast<std::uint8_t>(minor & 0xFF);
  frame[24] = static_cast<std::uint8_t>(static_cast<std::int8_t>(power));

  CBAdvertisementData data;
  data.manufacturerData = std::move(frame);
  return data;
}

std::string CLBeaconRegion::description() const {
  return "CLBeaconRegion (identifier:'" + identifier_ + "', uuid:" + proximityUUID_.UUIDString() +
         ", major:" + optionalText(major_) + ", minor:" + optionalText(minor_) + ")";
}

const char* toString(CLProximity proximity) {
  switch (proximity) {
    case CLProximity::Unknown:
      return "Unknown";
    case CLProximity::Immediate:
      return "Immediate";
    case CLProximity::Near:
      return "Near";
    case CLProximity::Far:
      return "Far";
  }
  return "Unknown";
}

CLBeacon::CLBeacon(Uuid proximityUUID, std::uint16_t major, std::uint16_t minor,
                   CLProximity proximity, double accuracy, int rssi)
    : proximityUUID_(proximityUUID),
      major_(major),
      minor_(minor),
      proximity_(proximity),
      accuracy_(accuracy),
      rssi_(rssi) {}

std::string CLBeacon::description() const {
  char accuracy[32];
  std::snprintf(accuracy, sizeof accuracy, "%.2f", accuracy_);
  return "CLBeacon (uuid:" + proximityUUID_.UUIDString() + ", major:" + std::to_string(major_) +
         ", minor:" + std::to_string(minor_) +
         ", proximity:" + std::to_string(static_cast<int>(proximity_)) + " +/- " + accuracy +
         "m, rssi:" + std::to_string(rssi_) + ")";
}

std::optional<IBeaconFrame> parseIBeacon(const std::uint8_t* data, std::size_t size) {
  // The length byte is part of the fixed prefix: a frame announcing another
  // length is some other format under the same company and type, not a
  // beacon with a different layout. Bytes past the 25th are ignored.
  if (data == nullptr || size < kFrameSize) return std::nullopt;
  if (std::memcmp(data, kPrefix, sizeof kPrefix) != 0) return std::nullopt;
  IBeaconFrame frame;
  Uuid::Storage uuid;
  std::memcpy(uuid.data(), data + 4, uuid.size());
  frame.uuid = Uuid(uuid);
  frame.major = static_cast<std::uint16_t>((data[20] << 8) | data[21]);
  frame.minor = static_cast<std::uint16_t>((data[22] << 8) | data[23]);
  frame.measuredPower = static_cast<std::int8_t>(data[24]);
  return frame;
}

}  // namespace lumora
