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

TEST(ParseIBeacon, ReadsEveryFieldOfACompleteFrame) {
  const Bytes bytes = frame();
  const auto parsed = parseExact(bytes, bytes.size());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->uuid, kUuid);
  EXPECT_EQ(parsed->major, 0x1234);
  EXPECT_EQ(parsed->minor, 0xABCD);
  EXPECT_EQ(parsed->measuredPower, -59);
}

TEST(ParseIBeacon, AcceptsOnlyTheExactPrefixAndEnoughBytes) {
  struct Case {
    const char* name;
    std::size_t offset;  // byte to replace, or npos
    std::uint8_t value;
    std::size_t size;
    bool accepted;
  };
  constexpr auto npos = static_cast<std::size_t>(-1);
  const Case cases[] = {
      {"25 bytes", npos, 0, 25, true},
      {"26 bytes: the extra one is ignored", npos, 0, 26, true},
      {"24 bytes", npos, 0, 24, false},
      {"empty", npos, 0, 0, false},
      {"company low byte", 0, 0x4D, 25, false},
      {"company high byte", 1, 0x01, 25, false},
      {"type 03", 2, 0x03, 25, false},
      {"length byte 0x14", 3, 0x14, 25, false},
      {"length byte 0x16 with 26 bytes", 3, 0x16, 26, false},
  };
  for (const Case& c : cases) {
    Bytes bytes = frame();
    bytes.push_back(0xEE);
    if (c.offset != npos) bytes[c.offset] = c.value;
    const auto parsed = parseExact(bytes, c.size);
    EXPECT_EQ(parsed.has_value(), c.accepted) << c.name;
    if (parsed) {
      EXPECT_EQ(parsed->measuredPower, -59) << c.name;
    }
  }
}

TEST(ParseIBeacon, NeverReadsPastATruncatedFrame) {
  const Bytes bytes = frame();
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(parseExact(bytes, size)) << size << " bytes";
  }
}

TEST(ParseIBeacon, PowerIsASignedByte) {
  const std::pair<std::uint8_t, int> cases[] = {{0x80, -128}, {0x7F, 127}, {0xFF, -1}, {0x00, 0}};
  for (const auto& [byte, power] : cases) {
    Bytes bytes = frame();
    bytes[24] = byte;
    const auto parsed = parseIBeacon(bytes.data(), bytes.size());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->measuredPower, power);
  }
}

TEST(PeripheralData, LaysOutTheFrameByteByByte) {
  CLBeaconRegion region(kUuid, std::optional<std::uint16_t>(0x1234),
                        std::optional<std::uint16_t>(0xABCD), "lobby");
  const auto ad = region.peripheralDataWithMeasuredPower(Number(-59));
  ASSERT_TRUE(ad);
  EXPECT_EQ(ad->manufacturerData, frame());
  // Only the manufacturer data: the caller adds its name and the rest.
  EXPECT_FALSE(ad->localName);
  EXPECT_TRUE(ad->serviceUUIDs.empty());
  EXPECT_FALSE(ad->txPowerLevel);
}

TEST(PeripheralData, MeasuredPowerMustFitASignedByte) {
  struct Case {
    std::optional<Number> power;
    std::optional<std::uint8_t> lastByte;  // null: no advertisement
  };
  const Case cases[] = {
      {std::nullopt, 0xC5},   // default -59
      {Number(-59), 0xC5},    //
      {Number(-59.9), 0xC5},  // truncated toward zero
      {Number(-128), 0x80},   //
      {Number(127), 0x7F},    //
      {Number(0), 0x00},      //
      {Number(128), std::nullopt}, {Number(-129), std::nullopt}, {Number(1e300), std::nullopt},
  };
  CLBeaconRegion region(kUuid, std::optional<std::uint16_t>(1), std::optional<std::uint16_t>(2),
                        "r");
  for (const Case& c : cases) {
    const auto ad = region.peripheralDataWithMeasuredPower(c.power);
    const std::string name = c.power ? c.power->stringValue() : "null";
    ASSERT_EQ(ad.has_value(), c.lastByte.has_value()) << name;
    if (!ad) continue;
    ASSERT_TRUE(ad->manufacturerData) << name;
    ASSERT_EQ(ad->manufacturerData->size(), 25u) << name;
    EXPECT_EQ(ad->manufacturerData->back(), *c.lastByte) << name;
  }
}

TEST(PeripheralData, MissingNumbersAreZeroAndNumbersKeepTheirLow16Bits) {
  struct Case {
    std::optional<Number> major;
    std::optional<Number> minor;
    Bytes numbers;  // bytes 20..23
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, {0, 0, 0, 0}},
      {Number(7), std::nullopt, {0x00, 0x07, 0, 0}},
      {std::nullopt, Number(9), {0, 0, 0, 0}},  // a minor alone names nothing
      {Number(70000), Number(-1), {0x11, 0x70, 0xFF, 0xFF}},
  };
  for (const Case& c : cases) {
    CLBeaconRegion region(kUuid, c.major, c.minor, "r");
    const auto ad = region.peripheralDataWithMeasuredPower(std::nullopt);
    ASSERT_TRUE(ad && ad->manufacturerData);
    const Bytes numbers(ad->manufacturerData->begin() + 20, ad->manufacturerData->begin() + 24);
    EXPECT_EQ(numbers, c.numbers);
    // What is built reads back as the same identity.
    const auto parsed = parseIBeacon(ad->manufacturerData->data(), ad->manufacturerData->size());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uuid, kUuid);
    EXPECT_EQ(parsed->measuredPower, -59);
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
      {&any, kUuid, 0, 0, true},        {&any, kUuid, 65535, 65535, true},
      {&any, kOther, 1, 2, false},      {&major1, kUuid, 1, 0, true},
      {&major1, kUuid, 1, 65535, true}, {&major1, kUuid, 2, 2, false},
      {&major1, kOther, 1, 2, false},   {&exact, kUuid, 1, 2, true},
      {&exact, kUuid, 1, 3, false},     {&exact, kUuid, 2, 2, false},
      {&exact, kOther, 1, 2, false},    {&minorAlone, kUuid, 5, 7, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.region->matches(c.uuid, c.major, c.minor), c.matches)
        << c.region->identifier() << " " << c.major << "/" << c.minor;
  }
  EXPECT_FALSE(minorAlone.minor());
  EXPECT_EQ(exact.minor(), Number(2));
}

TEST(RangingOptions, DistanceCurve) {
  struct Case {
    int rssi;
    int power;
    double metres;
  };
  const Case cases[] = {
      {-59, -59, 1.01076},   {-70, -59, 3.4724}, {-50, -59, 0.19106}, {-90, -59, 23.444},
      {-30, -59, 0.0011553}, {0, -59, -1.0},     {-59, 0, -1.0},
  };
  for (const Case& c : cases) {
    const double got = RangingOptions::accuracyFor(c.rssi, c.power);
    EXPECT_NEAR(got, c.metres, std::abs(c.metres) * 1e-4) << c.rssi << " at " << c.power;
  }
}

TEST(RangingOptions, ProximityClasses) {
  RangingOptions defaults;
  RangingOptions narrow;
  narrow.immediateBelow = 0.2;
  narrow.nearUpTo = 3.0;
  struct Case {
    double accuracy;
    CLProximity byDefault;
    CLProximity byNarrow;
  };
  const Case cases[] = {
      {-1.0, CLProximity::Unknown, CLProximity::Unknown},
      {std::nan(""), CLProximity::Unknown, CLProximity::Unknown},
      {0.0, CLProximity::Immediate, CLProximity::Immediate},
      {0.3, CLProximity::Immediate, CLProximity::Near},
      {0.5, CLProximity::Near, CLProximity::Near},
      {3.5, CLProximity::Near, CLProximity::Far},
      {4.0, CLProximity::Near, CLProximity::Far},
      {4.01, CLProximity::Far, CLProximity::Far},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(defaults.proximityFor(c.accuracy), c.byDefault) << c.accuracy;
    EXPECT_EQ(narrow.proximityFor(c.accuracy), c.byNarrow) << c.accuracy;
  }
}

}  // namespace
}  // namespace lumora
