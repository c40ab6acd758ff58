// The tool's command line: exit codes, error lines, and the exact output of
// the commands that need no radio.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "ToolRun.h"
#include "support/TempDir.h"

namespace lumora::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A complete iBeacon frame, byte by byte:
//   4C 00            company identifier 0x004C, little-endian
//   02 15            beacon type, 21 bytes follow
//   E2C56DB5-DFFB-48D2-B060-D0F5A71096E0   proximity UUID, text order
//   00 01            major 1, big-endian
//   00 02            minor 2, big-endian
//   C5               measured power -59 dBm
constexpr const char* kFrame = "4C000215E2C56DB5DFFB48D2B060D0F5A71096E000010002C5";

struct BadInput {
  std::vector<std::string> args;
  std::string mentions;  // what the one-line error must name
};

// Shows the command line in test names and failure messages.
void PrintTo(const BadInput& input, std::ostream* os) {
  *os << "lumora";
  for (const auto& arg : input.args) *os << ' ' << arg;
}

class ToolBadInput : public ::testing::TestWithParam<BadInput> {};

TEST_P(ToolBadInput, ExitsTwoWithOneLineNamingTheProblem) {
  const auto r = runTool(GetParam().args);
  EXPECT_EQ(r.exit, 2) << r.err;
  EXPECT_THAT(r.err, StartsWith("lumora: "));
  EXPECT_THAT(r.err, HasSubstr(GetParam().mentions));
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.out, "");
}

std::string brokenScenario() {
  static TempDir dir;
  const auto path = dir.file("broken.json");
  std::ofstream(path) << "{ not json";
  return path.string();
}

INSTANTIATE_TEST_SUITE_P(
    Table, ToolBadInput,
    ::testing::ValuesIn(std::vector<BadInput>{
        {{"decode", "ABC"}, "odd number of hex digits"},
        {{"decode", kFrame, "4G"}, "invalid character 'G'"},
        {{"decode", "4C 0 002"}, "splits a byte"},
        {{"hex", "0"}, "odd number of hex digits"},
        {{"hex", "--spaces", "--lower", "00"}, "--lower"},
        {{"distance", "--power", "200", "--rssi", "-60"}, "--power"},
        {{"distance", "--power", "-59", "--rssi", "abc"}, "--rssi"},
        {{"distance", "--rssi", "-60"}, "--power"},
        {{"emulate", "--major", "70000", "--minor", "1"}, "70000"},
        {{"emulate", "--major", "1", "--minor", "-1"}, "--minor"},
        {{"emulate", "--major", "1", "--minor", "2", "--power", "200"}, "--power"},
        {{"emulate", "--major", "1", "--minor", "2", "--reply", "0x01"}, "--reply"},
        {{"emulate", "--uuid", "E2C56DB5-DFFB-48D2-B060", "--major", "1", "--minor", "2"},
         "malformed UUID"},
        {{"range", "--uuid", "not-a-uuid"}, "malformed UUID"},
        {{"range", "--major", "1"}, "--uuid"},
        {{"connect", "LumoraDemo", "--send", "123"}, "--send"},
        {{"scan", "--frobnicate"}, "--frobnicate"},
        {{"frobnicate"}, "frobnicate"},
        {{}, "no command"},
        {{"--backend", "wifi", "scan", "--seconds", "0"}, "unknown radio 'wifi'"},
        {{"--backend", "bluez", "--scenario", "x.json", "scan"}, "--scenario"},
        {{"--scenario", "/nonexistent/lumora.json", "scan", "--seconds", "0"}, "scenario"},
        {{"--scenario", brokenScenario(), "scan", "--seconds", "0"}, "scenario"},
    }));

TEST(ToolCommandLine, PrintsExactly) {
  const struct {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"decode", kFrame, "4C000215", "4C00021500",
        "4C000216E2C56DB5DFFB48D2B060D0F5A71096E000010002C5",
        "4C000215E2C56DB5DFFB48D2B060D0F5A71096E01234000280"},
       "4c000215e2c56db5dffb48d2b060d0f5a71096e000010002c5: iBeacon  "
       "uuid E2C56DB5-DFFB-48D2-B060-D0F5A71096E0  major 1  minor 2  power -59\n"
       "4c000215: not an iBeacon\n"
       "4c00021500: iBeacon header, but 5 bytes are too few to decode (25 needed)\n"
       "4c000216e2c56db5dffb48d2b060d0f5a71096e000010002c5: not an iBeacon\n"
       "4c000215e2c56db5dffb48d2b060d0f5a71096e01234000280: iBeacon  "
       "uuid E2C56DB5-DFFB-48D2-B060-D0F5A71096E0  major 4660  minor 2  power -128\n"},
      // Distance at ratio 1 takes the upper branch (1.01076), below it ratio^10.
      {{"distance", "--power", "-59", "--rssi", "-59"}, "1.011 m\n"},
      {{"distance", "--power", "-59", "--rssi", "0"}, "unknown\n"},  // no reading
      // Hex prints the finder's text.
      {{"hex", "--lower", "01ABFF"}, "01abff\n"},
      {{"hex", "--spaces", "00112233"}, "00112233 \n"},
      {{"hex", "4c", "00:02", "15"}, "4C000215\n"},
      // A full line already ends with a line feed; no second one is added.
      {{"hex", "--spaces", "000102030405060708090A0B0C0D0E0F"},
       "00010203 04050607 08090A0B 0C0D0E0F\n"},
      {{"--version"}, "lumora 1.0 (Lumora-1)\n"},
  };
  for (const auto& c : cases) {
    const auto r = runTool(c.args);
    EXPECT_EQ(r.exit, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, c.out) << c.args.back();
  }
}

TEST(ToolCommandLine, JsonRecordsCarryTheFields) {
  const struct {
    std::vector<std::string> args;
    std::vector<json> records;  // the fields each must have
  } cases[] = {
      {{"decode", kFrame, "0102"},
       {{{"event", "decode"},
         {"ibeacon", true},
         {"uuid", "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"},
         {"major", 1},
         {"minor", 2},
         {"power", -59}},
        {{"data", "0102"}, {"ibeacon", false}}}},
      {{"distance", "--power", "-59", "--rssi", "0"}, {{{"distance", nullptr}, {"power", -59}}}},
      {{"hex", "--spaces", "00112233"}, {{{"hex", "00112233 "}}}},
      {{"--version"}, {{{"project", "Lumora-1"}, {"version", 1.0}}}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args{"--json"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto r = runTool(args);
    ASSERT_EQ(r.exit, 0) << r.err;
    const auto records = r.jsonLines();
    ASSERT_EQ(records.size(), c.records.size()) << r.out;
    for (std::size_t i = 0; i < records.size(); ++i) {
      EXPECT_TRUE(hasFields(records[i], c.records[i]));
    }
    if (c.args[0] == "decode") {
      EXPECT_FALSE(records[1].contains("uuid"));
    }
  }
}

}  // namespace
}  // namespace lumora::test
