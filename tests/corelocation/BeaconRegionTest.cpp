// The pure parts of the location layer: the beacon frame in both directions,
// region matching, the distance curve and the proximity classes.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "CoreLocation/CLBeaconRegion.h"
#include "CoreLocation/CLLocationManager.h"

namespace lumora {
namespace {

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kOther = *Uuid::fromString("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");

// A complete beacon frame, identity E2C56DB5-..., major 0x1234, minor 0xABCD,
// measured power -59.
Bytes frame() {
  return *bytesFromHex(
      "4C 00"                                            // company 0x004C, little-endian
      "02 15"                                            // type 02, 21 bytes follow
      "E2 C5 6D B5 DF FB 48 D2 B0 60 D0 F5 A7 10 96 E0"  // proximity UUID, text order
      "12 34"                                            // major 0x1234, big-endian
      "AB CD"                                            // minor 0xABCD, big-endian
      "C5");                                             // measured power -59
}

// Copies into an allocation of exactly `size` bytes so that the address
// sanitizer sees any read past the end.
std::optional<IBeaconFrame> parseExact(const Bytes& bytes, std::size_t size) {
  auto copy = std::make_unique<std::uint8_t[]>(size == 0 ? 1 : size);
  std::copy_n(bytes.begin(), std::min(size, bytes.size()), copy.get());
  return parseIBeacon(size == 0 ? nullptr : copy.get(), size);
}

TEST(ParseIBeacon, ReadsTheExactPrefixWithEnoughBytesOnly) {
  const Bytes bytes = frame();
  const auto parsed = parseExact(bytes, bytes.size());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->uuid, kUuid);
  EXPECT_EQ(parsed->major, 0x1234);
  EXPECT_EQ(parsed->minor, 0xABCD);
  EXPECT_EQ(parsed->measuredPower, -59);
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(parseExact(bytes, size)) << size << " bytes";
  }

  struct Case {
    const char* name;
    std::size_t offset;  // byte to replace
    std::uint8_t value;
    std::size_t size;
    std::optional<int> power;  // null: refused
  };
  const Case cases[] = {
      {"26 bytes: the extra one is ignored", 25, 0xEE, 26, -59},
      {"company low byte", 0, 0x4D, 25, std::nullopt},
      {"company high byte", 1, 0x01, 25, std::nullopt},
      {"type 03", 2, 0x03, 25, std::nullopt},
      {"length byte 0x14", 3, 0x14, 25, std::nullopt},
      {"length byte 0x16 with 26 bytes", 3, 0x16, 26, std::nullopt},
      // The power is a signed byte.
      {"power 0x80", 24, 0x80, 25, -128},
      {"power 0x7F", 24, 0x7F, 25, 127},
      {"power 0xFF", 24, 0xFF, 25, -1},
  };
  for (const Case& c : cases) {
    Bytes changed = frame();
    changed.push_back(0xEE);
    changed[c.offset] = c.value;
    const auto got = parseExact(changed, c.size);
    EXPECT_EQ(got ? std::optional<int>(got->measuredPower) : std::nullopt, c.power) << c.name;
  }
}

// The frame a region advertises: the measured power must fit a signed byte,
// missing numbers are zero and numbers keep their low 16 bits; whatever is
// built reads back as the same identity.
TEST(PeripheralData, LaysOutTheFrameByteByByte) {
  CLBeaconRegion region(kUuid, std::optional<std::uint16_t>(0x1234),
                        std::optional<std::uint16_t>(0xABCD), "lobby");
  const auto ad = region.peripheralDataWithMeasuredPower(Number(-59));
  ASSERT_TRUE(ad);
  // Only the manufacturer data: the caller adds its name and the rest.
  CBAdvertisementData expected;
  expected.manufacturerData = frame();
  EXPECT_EQ(*ad, expected);

  using N = std::optional<Number>;
  const struct {
    N major, minor, power;
    const char* tail;  // bytes 20..24; null: no advertisement
  } cases[] = {
      {Number(1), Number(2), std::nullopt, "0001 0002 C5"},   // default -59
      {Number(1), Number(2), Number(-59.9), "0001 0002 C5"},  // truncated toward zero
      {Number(1), Number(2), Number(-128), "0001 0002 80"},
      {Number(1), Number(2), Number(127), "0001 0002 7F"},
      {Number(1), Number(2), Number(128), nullptr},
      {Number(1), Number(2), Number(-129), nullptr},
      {Number(1), Number(2), Number(1e300), nullptr},
      {std::nullopt, std::nullopt, Number(0), "0000 0000 00"},
      {Number(7), std::nullopt, std::nullopt, "0007 0000 C5"},
      {std::nullopt, Number(9), std::nullopt, "0000 0000 C5"},  // a minor alone names nothing
      {Number(70000), Number(-1), std::nullopt, "1170 FFFF C5"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tail ? c.tail : "refused");
    const auto built =
        CLBeaconRegion(kUuid, c.major, c.minor, "r").peripheralDataWithMeasuredPower(c.power);
    ASSERT_EQ(built.has_value(), c.tail != nullptr);
    if (!built) continue;
    const Bytes& data = built->manufacturerData.value();
    ASSERT_EQ(data.size(), 25u);
    EXPECT_EQ(Bytes(data.begin() + 20, data.end()), *bytesFromHex(c.tail));
    const auto parsed = parseIBeacon(data.data(), data.size());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uuid, kUuid);
  }
}

TEST(CLBeaconRegion, MatchesByUuidThenMajorThenMinor) {
  using U16 = std::optional<std::uint16_t>;
  const CLBeaconRegion any(kUuid, U16(), U16(), "any");
  const CLBeaconRegion major1(kUuid, U16(1), U16(), "major");
  const CLBeaconRegion exact(kUuid, U16(1), U16(2), "exact");
  const CLBeaconRegion minorAlone(kUuid, U16(), U16(2), "minor alone");
  struct Case {
    const CLBeaconRegion* region;
    Uuid uuid;
    std::uint16_t major, minor;
    bool matches;
  };
  const Case cases[] = {
      {&any, kUuid, 65535, 65535, true}, {&any, kOther, 1, 2, false},
      {&major1, kUuid, 1, 0, true},      {&major1, kUuid, 2, 2, false},
      {&major1, kOther, 1, 2, false},    {&exact, kUuid, 1, 2, true},
      {&exact, kUuid, 1, 3, false},      {&exact, kUuid, 2, 2, false},
      {&exact, kOther, 1, 2, false},     {&minorAlone, kUuid, 5, 7, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.region->matches(c.uuid, c.major, c.minor), c.matches)
        << c.region->identifier() << " " << c.major << "/" << c.minor;
  }
}

// The distance curve, and the classes its results fall into under the
// default thresholds and under narrower ones.
TEST(RangingOptions, DistanceCurveAndProximityClasses) {
  const std::tuple<int, int, double> distances[] = {
      // rssi, measured power, metres
      {-59, -59, 1.01076},   {-70, -59, 3.4724}, {-50, -59, 0.19106}, {-90, -59, 23.444},
      {-30, -59, 0.0011553}, {0, -59, -1.0},     {-59, 0, -1.0},
  };
  for (const auto& [rssi, power, metres] : distances) {
    EXPECT_NEAR(RangingOptions::accuracyFor(rssi, power), metres, std::abs(metres) * 1e-4)
        << rssi << " at " << power;
  }
  RangingOptions defaults;
  RangingOptions narrow;
  narrow.immediateBelow = 0.2;
  narrow.nearUpTo = 3.0;
  const std::tuple<double, CLProximity, CLProximity> classes[] = {
      // accuracy, by default, by narrow
      {-1.0, CLProximity::Unknown, CLProximity::Unknown},
      {std::nan(""), CLProximity::Unknown, CLProximity::Unknown},
      {0.0, CLProximity::Immediate, CLProximity::Immediate},
      {0.3, CLProximity::Immediate, CLProximity::Near},
      {0.5, CLProximity::Near, CLProximity::Near},
      {3.5, CLProximity::Near, CLProximity::Far},
      {4.0, CLProximity::Near, CLProximity::Far},
      {4.01, CLProximity::Far, CLProximity::Far},
  };
  for (const auto& [accuracy, byDefault, byNarrow] : classes) {
    EXPECT_EQ(defaults.proximityFor(accuracy), byDefault) << accuracy;
    EXPECT_EQ(narrow.proximityFor(accuracy), byNarrow) << accuracy;
  }
}

}  // namespace
}  // namespace lumora
