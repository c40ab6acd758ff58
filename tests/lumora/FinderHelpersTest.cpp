// The finder's pure helpers (iBeacon decoders, the distance curve, the two
// hex text forms) and the process-wide beacon defaults.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "Lumora/Lumora.h"

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

TEST(AdvDataIsBeacon, TestsLengthThenPrefix) {
  const struct {
    Data data;
    bool beacon;
  } cases[] = {
      {hex(kFrame), true},
      {hex("4C000215"), false},  // four bytes, even the prefix itself
      {hex("4C00021500"), true},
      {hex("4D000215 00"), false},                                          // other company
      {hex("004C0215 00"), false},                                          // company bytes swapped
      {hex("4C000315 00"), false},                                          // other type
      {hex("4C000216 E2C56DB5DFFB48D2B060D0F5A71096E000010002C5"), false},  // wrong length byte
      {Bytes{}, false},
      {std::nullopt, false},
      // The length byte is only compared with 0x15, never with the real length.
      {hex("4C000215 E2C5"), true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TQBleFinder::advDataIsBeacon(c.data), c.beacon) << description(c.data);
  }
}

// --- getBeaconInfoFromData ------------------------------------------------------

TEST(BeaconInfo, FieldsAreBigEndianPowerIsSignedAndShortBuffersGiveNothing) {
  const std::string uuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0 ";
  const struct {
    std::string frame;                         // after the four-byte prefix and the UUID
    std::optional<std::array<int, 3>> fields;  // major, minor, power; null: no record
  } cases[] = {
      {"0001 0002 C5", {{1, 2, -59}}},
      {"FFFF 8000 7F", {{65535, 32768, 127}}},
      {"0000 0001 80", {{0, 1, -128}}},
      {"0102 0304 FF", {{258, 772, -1}}},
      {"0001 0002 C5 AA", {{1, 2, -59}}},  // a longer buffer's tail is ignored
      {"0001 0002", std::nullopt},         // 24 bytes
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.frame);
    const auto info = TQBleFinder::getBeaconInfoFromData(hex("4C000215" + uuid + c.frame));
    ASSERT_EQ(info.has_value(), c.fields.has_value());
    if (!info) continue;
    EXPECT_EQ(info->uuid, "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
    EXPECT_EQ((std::array{info->major.intValue(), info->minor.intValue(), info->power.intValue()}),
              *c.fields);
  }
  // The caller tests the prefix first; the decoder reads fields only.
  EXPECT_TRUE(TQBleFinder::getBeaconInfoFromData(hex("FFFFFFFF" + uuid + "0001 0002 C5")));
  for (const Data& shortData : {Data(), Data(Bytes{}), Data(hex("4C00021500"))}) {
    EXPECT_FALSE(TQBleFinder::getBeaconInfoFromData(shortData)) << description(shortData);
  }
  const Dictionary d = TQBleFinder::getBeaconInfoFromData(hex(kFrame))->dictionary();
  EXPECT_EQ(d, (Dictionary{{"uuid", std::string("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0")},
                           {"major", Number(1)},
                           {"minor", Number(2)},
                           {"power", Number(-59)}}));
}

// --- calculatedDistance ---------------------------------------------------------

TEST(Distance, FollowsTheCurve) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  const struct {
    const char* name;
    std::optional<Number> txPower, rssi;
    std::optional<double> distance;  // null: no result
    double tolerance;
  } cases[] = {
      // At the measured power the upper branch gives 0.89976 + 0.111.
      {"AtMeasuredPower", Number(-59), Number(-59), 1.01076, 1e-12},
      // Just below ratio 1 the lower branch gives about 1.0: the step is kept.
      {"JustBelowRatioOne", Number(-59), Number(-58.9999), 1.0, 1e-3},
      {"Weaker", Number(-59), Number(-70), 3.4724, 5e-4},
      {"Stronger", Number(-59), Number(-50), 0.19106, 5e-5},
      {"Far", Number(-59), Number(-90), 23.444, 5e-3},
      {"VeryClose", Number(-59), Number(-30), 0.0011553, 5e-7},
      // A fractional power is truncated toward zero: -59.9 acts as -59.
      {"FractionalPower", Number(-59.9), Number(-59), 1.01076, 1e-12},
      // A fractional RSSI is kept: ratio 59.5/59 > 1.
      {"FractionalRssi", Number(-59), Number(-59.5),
       0.89976 * std::pow(59.5 / 59.0, 7.7095) + 0.111, 1e-12},
      {"NotANumberTakesTheUpperBranch", Number(-59), Number(kNaN), kNaN, 0},
      {"NoReading", Number(-59), Number(0), std::nullopt, 0},
      {"NullRssi", Number(-59), std::nullopt, std::nullopt, 0},
      {"ZeroPowerNegativeRssi", Number(0), Number(-70), kInf, 0},
      {"NullPowerNegativeRssi", std::nullopt, Number(-70), kInf, 0},
      {"ZeroPowerPositiveRssi", Number(0), Number(5), kInf, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto result = TQBleFinder::calculatedDistance(c.txPower, c.rssi);
    ASSERT_EQ(result.has_value(), c.distance.has_value());
    if (!c.distance) continue;
    const double d = result->doubleValue();
    if (std::isnan(*c.distance)) {
      EXPECT_TRUE(std::isnan(d)) << d;
    } else if (std::isinf(*c.distance)) {
      EXPECT_EQ(d, *c.distance);
    } else {
      EXPECT_NEAR(d, *c.distance, c.tolerance);
    }
  }
}

// --- Hex text -------------------------------------------------------------------

TEST(HexText, BothForms) {
  struct Case {
    Data data;
    const char* lower;      // getHexString; hexRepresentation without separators is its upper case
    const char* separated;  // hexRepresentation with separators
  };
  const std::string line = "ABABABAB ABABABAB ABABABAB ABABABAB\n", twoLines = line + line;
  const Case cases[] = {
      {std::nullopt, "", ""},
      {Bytes{}, "", ""},
      {Bytes{0x01, 0xAB, 0xFF}, "01abff", "01ABFF"},
      {hex("00112233"), "00112233", "00112233 "},
      {hex("0011223344556677"), "0011223344556677", "00112233 44556677 "},
      {hex("000102030405060708090A0B0C0D0E0F"), "000102030405060708090a0b0c0d0e0f",
       "00010203 04050607 08090A0B 0C0D0E0F\n"},
      // The seventeenth byte starts the next line.
      {hex("000102030405060708090A0B0C0D0E0F10"), "000102030405060708090a0b0c0d0e0f10",
       "00010203 04050607 08090A0B 0C0D0E0F\n10"},
      {Bytes(32, 0xAB), "abababababababababababababababababababababababababababababababab",
       twoLines.c_str()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lower);
    std::string upper = c.lower;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(TQBleFinder::getHexString(c.data), c.lower);
    EXPECT_EQ(TQBleFinder::hexRepresentation(c.data, false), upper);
    EXPECT_EQ(TQBleFinder::hexRepresentation(c.data, true), c.separated);
  }
}

// --- Defaults -------------------------------------------------------------------

TEST(BeaconDefaults, SharedObjectIsMadeOnceWhenManyThreadsAskFirst) {
  constexpr int kThreads = 8;
  std::vector<std::shared_ptr<TQBeaconAP>> seen(kThreads);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      seen[i] = TQBeaconAP::sharedDefaults();
    });
  }
  go = true;
  for (auto& t : threads) t.join();
  ASSERT_NE(seen[0], nullptr);
  for (const auto& s : seen) EXPECT_EQ(s, seen[0]);
  // Fully initialised whichever thread got there first.
  const auto& ap = *seen[0];
  std::vector<std::string> texts;
  for (const auto& u : ap.supportedProximityUUIDs()) texts.push_back(u.UUIDString());
  EXPECT_EQ(texts, (std::vector<std::string>{"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
                                             "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
                                             "74278BDA-B644-4520-8F0C-720EAF059935"}));
  EXPECT_EQ(ap.defaultProximityUUID(), ap.supportedProximityUUIDs().at(0));
  // Made from the integer, so it reads back as an integer, not a double.
  ASSERT_TRUE(ap.defaultPower());
  EXPECT_EQ(ap.defaultPower()->kind(), Number::Kind::Signed);
  EXPECT_EQ(ap.defaultPower()->intValue(), -59);
  // init() builds the same values afresh on another object.
  auto fresh = std::make_shared<TQBeaconAP>();
  EXPECT_EQ(fresh->init(), fresh);
  EXPECT_EQ(fresh->supportedProximityUUIDs(), ap.supportedProximityUUIDs());
}

}  // namespace
}  // namespace lumora
