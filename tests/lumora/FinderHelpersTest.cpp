// The finder's pure helpers: iBeacon decoders, the distance curve and the two
// hex text forms.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "Lumora/TQBleFinder.h"

namespace lumora {
namespace {

// Frames are written as hex text; a typo in one throws at registration.
Bytes hex(std::string_view text) {
  return bytesFromHex(text).value();
}

// A real-world iBeacon frame as it appears in manufacturer data:
//   4C 00                                            company 0x004C, little-endian
//   02                                               beacon type
//   15                                               21 bytes follow
//   E2 C5 6D B5 DF FB 48 D2 B0 60 D0 F5 A7 10 96 E0  proximity UUID, text order
//   00 01                                            major 1, big-endian
//   00 02                                            minor 2, big-endian
//   C5                                               measured power -59 dBm
constexpr std::string_view kFrame = "4C00 02 15 E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 0001 0002 C5";

// --- advDataIsBeacon ------------------------------------------------------------

struct PrefixCase {
  const char* name;
  Data data;
  bool beacon;
};

class AdvDataIsBeacon : public testing::TestWithParam<PrefixCase> {};

TEST_P(AdvDataIsBeacon, TestsLengthThenPrefix) {
  EXPECT_EQ(TQBleFinder::advDataIsBeacon(GetParam().data), GetParam().beacon);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, AdvDataIsBeacon,
    testing::Values(PrefixCase{"FullFrame", hex(kFrame), true},
                    PrefixCase{"FourBytesEvenThePrefixItself", hex("4C000215"), false},
                    PrefixCase{"FiveBytes", hex("4C00021500"), true},
                    PrefixCase{"OtherCompany", hex("4D000215 00"), false},
                    PrefixCase{"CompanyBytesSwapped", hex("004C0215 00"), false},
                    PrefixCase{"OtherType", hex("4C000315 00"), false},
                    PrefixCase{"WrongLengthByte",
                               hex("4C000216 E2C56DB5DFFB48D2B060D0F5A71096E000010002C5"), false},
                    PrefixCase{"Empty", Bytes{}, false}, PrefixCase{"Null", std::nullopt, false},
                    // The length byte is only compared with 0x15, never with the real length.
                    PrefixCase{"ShortButRightPrefix", hex("4C000215 E2C5"), true}),
    [](const auto& info) { return info.param.name; });

// --- getBeaconInfoFromData ------------------------------------------------------

TEST(BeaconInfo, DecodesTheReferenceFrame) {
  const auto info = TQBleFinder::getBeaconInfoFromData(hex(kFrame));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->uuid, "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  EXPECT_EQ(info->major.unsignedShortValue(), 1);
  EXPECT_EQ(info->minor.unsignedShortValue(), 2);
  EXPECT_EQ(info->power.intValue(), -59);

  const Dictionary d = info->dictionary();
  ASSERT_EQ(d.size(), 4u);
  EXPECT_EQ(stringValue(d.at("uuid")), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  EXPECT_EQ(numberValue(d.at("major"))->intValue(), 1);
  EXPECT_EQ(numberValue(d.at("minor"))->intValue(), 2);
  EXPECT_EQ(numberValue(d.at("power"))->intValue(), -59);
}

struct FieldCase {
  const char* name;
  const char* tail;  // bytes 20..24: major, minor, power
  int major;
  int minor;
  int power;
};

class BeaconInfoFields : public testing::TestWithParam<FieldCase> {};

TEST_P(BeaconInfoFields, MajorMinorBigEndianPowerSigned) {
  const auto& c = GetParam();
  const auto info = TQBleFinder::getBeaconInfoFromData(
      hex(std::string("4C000215 74278BDA-B644-4520-8F0C-720EAF059935 ") + c.tail));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->uuid, "74278BDA-B644-4520-8F0C-720EAF059935");
  EXPECT_EQ(info->major.intValue(), c.major);
  EXPECT_EQ(info->minor.intValue(), c.minor);
  EXPECT_EQ(info->power.intValue(), c.power);
}

INSTANTIATE_TEST_SUITE_P(Fields, BeaconInfoFields,
                         testing::Values(FieldCase{"MajorHighByteFirst", "1234 0000 C5", 4660, 0,
                                                   -59},
                                         FieldCase{"Extremes", "FFFF 8000 7F", 65535, 32768, 127},
                                         FieldCase{"MostNegativePower", "0000 0001 80", 0, 1, -128},
                                         FieldCase{"MinusOne", "0102 0304 FF", 258, 772, -1},
                                         FieldCase{"ZeroPower", "0001 0002 00", 1, 2, 0}),
                         [](const auto& info) { return info.param.name; });

TEST(BeaconInfo, ShortOrNullBuffersGiveNoRecordAndLongOnesIgnoreTheTail) {
  const Bytes frame = hex(kFrame);
  ASSERT_EQ(frame.size(), 25u);

  EXPECT_FALSE(TQBleFinder::getBeaconInfoFromData(std::nullopt));
  EXPECT_FALSE(TQBleFinder::getBeaconInfoFromData(Bytes{}));
  EXPECT_FALSE(TQBleFinder::getBeaconInfoFromData(Bytes(frame.begin(), frame.begin() + 24)));
  EXPECT_FALSE(TQBleFinder::getBeaconInfoFromData(Bytes(frame.begin(), frame.begin() + 5)));

  Bytes longer = frame;
  longer.push_back(0xAA);
  const auto exact = TQBleFinder::getBeaconInfoFromData(frame);
  const auto withTail = TQBleFinder::getBeaconInfoFromData(longer);
  ASSERT_TRUE(exact);
  ASSERT_TRUE(withTail);
  EXPECT_EQ(*exact, *withTail);
}

TEST(BeaconInfo, PrefixBytesAreNotChecked) {
  // The caller tests the prefix first; the decoder reads fields only.
  const auto info = TQBleFinder::getBeaconInfoFromData(
      hex("FFFFFFFF E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 0001 0002 C5"));
  ASSERT_TRUE(info);
  EXPECT_EQ(info->major.intValue(), 1);
}

// --- calculatedDistance ---------------------------------------------------------

struct DistanceCase {
  const char* name;
  std::optional<Number> txPower;
  std::optional<Number> rssi;
  std::optional<double> distance;  // null: no result
  double tolerance;
};

class Distance : public testing::TestWithParam<DistanceCase> {};

TEST_P(Distance, FollowsTheCurve) {
  const auto& c = GetParam();
  const auto result = TQBleFinder::calculatedDistance(c.txPower, c.rssi);
  if (!c.distance) {
    EXPECT_FALSE(result);
    return;
  }
  ASSERT_TRUE(result);
  const double d = result->doubleValue();
  if (std::isinf(*c.distance)) {
    EXPECT_EQ(d, *c.distance);
  } else {
    EXPECT_NEAR(d, *c.distance, c.tolerance);
  }
}

constexpr double kInf = std::numeric_limits<double>::infinity();

INSTANTIATE_TEST_SUITE_P(
    Curve, Distance,
    testing::Values(
        // At the measured power the upper branch gives 0.89976 + 0.111.
        DistanceCase{"AtMeasuredPower", Number(-59), Number(-59), 1.01076, 1e-12},
        DistanceCase{"Weaker", Number(-59), Number(-70), 3.4724, 5e-4},
        DistanceCase{"Stronger", Number(-59), Number(-50), 0.19106, 5e-5},
        DistanceCase{"Far", Number(-59), Number(-90), 23.444, 5e-3},
        DistanceCase{"VeryClose", Number(-59), Number(-30), 0.0011553, 5e-7},
        // A fractional power is truncated toward zero: -59.9 acts as -59.
        DistanceCase{"FractionalPower", Number(-59.9), Number(-59), 1.01076, 1e-12},
        // A fractional RSSI is kept: ratio 59.5/59 > 1.
        DistanceCase{"FractionalRssi", Number(-59), Number(-59.5),
                     0.89976 * std::pow(59.5 / 59.0, 7.7095) + 0.111, 1e-12},
        DistanceCase{"NoReading", Number(-59), Number(0), std::nullopt, 0},
        DistanceCase{"NullRssi", Number(-59), std::nullopt, std::nullopt, 0},
        DistanceCase{"ZeroPowerNegativeRssi", Number(0), Number(-70), kInf, 0},
        DistanceCase{"NullPowerNegativeRssi", std::nullopt, Number(-70), kInf, 0},
        DistanceCase{"ZeroPowerPositiveRssi", Number(0), Number(5), kInf, 0}),
    [](const auto& info) { return info.param.name; });

TEST(Distance, StepAtRatioOneIsKept) {
  // Just below ratio 1 the lower branch gives about 1.0, at 1 the upper 1.01076.
  const double below =
      TQBleFinder::calculatedDistance(Number(-59), Number(-58.9999))->doubleValue();
  const double at = TQBleFinder::calculatedDistance(Number(-59), Number(-59))->doubleValue();
  EXPECT_NEAR(below, 1.0, 1e-3);
  EXPECT_NEAR(at - below, 0.01076, 1e-3);
}

TEST(Distance, NotANumberTakesTheUpperBranch) {
  const auto result = TQBleFinder::calculatedDistance(
      Number(-59), Number(std::numeric_limits<double>::quiet_NaN()));
  ASSERT_TRUE(result);
  EXPECT_TRUE(std::isnan(result->doubleValue()));
}

// --- Hex text -------------------------------------------------------------------

Bytes sequence(int n) {
  Bytes b;
  for (int i = 0; i < n; ++i) b.push_back(static_cast<std::uint8_t>(i * 0x11));
  return b;
}

struct HexCase {
  const char* name;
  Data data;
  const char* lower;      // getHexString
  const char* upper;      // hexRepresentation, no separators
  const char* separated;  // hexRepresentation with separators
};

class HexText : public testing::TestWithParam<HexCase> {};

TEST_P(HexText, BothForms) {
  const auto& c = GetParam();
  const std::string lower = TQBleFinder::getHexString(c.data);
  const std::string upper = TQBleFinder::hexRepresentation(c.data, false);
  const std::string separated = TQBleFinder::hexRepresentation(c.data, true);
  EXPECT_EQ(lower, c.lower);
  EXPECT_EQ(upper, c.upper);
  EXPECT_EQ(separated, c.separated);
  // The allowance reserved up front is exactly what is written.
  const std::size_t n = c.data ? c.data->size() : 0;
  EXPECT_EQ(lower.size(), 2 * n);
  EXPECT_EQ(upper.size(), 2 * n);
  EXPECT_EQ(separated.size(), 2 * n + n / 4);
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, HexText,
    testing::Values(
        HexCase{"Null", std::nullopt, "", "", ""}, HexCase{"Empty", Bytes{}, "", "", ""},
        HexCase{"ThreeBytes", Bytes{0x01, 0xAB, 0xFF}, "01abff", "01ABFF", "01ABFF"},
        HexCase{"OneGroup", Bytes{0x00, 0x11, 0x22, 0x33}, "00112233", "00112233", "00112233 "},
        HexCase{"TwoGroups", sequence(8), "0011223344556677", "0011223344556677",
                "00112233 44556677 "},
        HexCase{"OneLine", hex("000102030405060708090A0B0C0D0E0F"),
                "000102030405060708090a0b0c0d0e0f", "000102030405060708090A0B0C0D0E0F",
                "00010203 04050607 08090A0B 0C0D0E0F\n"},
        HexCase{"SeventeenthByteOnTheNextLine", hex("000102030405060708090A0B0C0D0E0F10"),
                "000102030405060708090a0b0c0d0e0f10", "000102030405060708090A0B0C0D0E0F10",
                "00010203 04050607 08090A0B 0C0D0E0F\n10"}),
    [](const auto& info) { return info.param.name; });

TEST(HexText, TwoLinesEndWithALineFeed) {
  Bytes b(32, 0xAB);
  const std::string line = "ABABABAB ABABABAB ABABABAB ABABABAB\n";
  EXPECT_EQ(TQBleFinder::hexRepresentation(b, true), line + line);
}

}  // namespace
}  // namespace lumora
