// The tool's radio commands, run on the built-in simulated air in real time:
// the connection's exact event sequence, the quiet-disconnection flag, the
// demo's story, and what scan, range and emulate print.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "Foundation/NSUserDefaults.h"
#include "ToolRun.h"
#include "support/TempDir.h"

namespace lumora::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

json status(int code, const char* message, json data = nullptr) {
  return {{"event", "status"}, {"code", code}, {"message", message}, {"data", data}};
}

std::string writeFile(const TempDir& dir, const std::string& name, const std::string& content) {
  auto path = dir.file(name);
  std::ofstream(path) << content;
  return path.string();
}

// "hello from LumoraDemo": what the built-in LumoraDemo answers on FFCC.
constexpr const char* kHello = "68656c6c6f2066726f6d204c756d6f726144656d6f";

TEST(ToolConnect, PrintsEveryStatusEventInOrder) {
  const auto r = runTool({"--json", "connect", "LumoraDemo", "--send", "0102", "--read"});
  ASSERT_EQ(r.exit, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<json> expected{
      status(90, "TQBeacon Conneting..."), status(90, "Start Scan peripherals"),
      status(90, "Stop Scan peripherals"),  // the name matched
      status(50, "Connect Peripheral"),
      // The device's first service holds four recognised characteristics:
      // the finder confirms the link with a second connect request.
      status(90, "Stop Scan peripherals"), status(90, "TQBeacon SendData : <0102>"),
      status(80, "BLE RECV DATA", "0102"),  // LumoraDemo echoes writes as notifications
      status(90, "TQBeacon ReadData"), status(80, "BLE RECV DATA", kHello),
      status(90, "TQBeacon Disconnected"), status(51, "didDisconnectPeripheral"),
      status(90, "beacon connection lost"),  // no flag stored: reported as a loss
  };
  const auto records = r.jsonLines();
  ASSERT_EQ(records.size(), expected.size()) << r.out;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_TRUE(hasFields(records[i], expected[i])) << "event " << i;
  }
}

TEST(ToolConnect, StaleFlagDoesNotSilenceADropButAQuietDisconnectionResetsIt) {
  TempDir dir;
  const auto defaults = dir.file("settings.json").string();
  // A flag left true by an earlier, interrupted run.
  NSUserDefaults(defaults).setObject(Number::numberWithBool(true), "DisconnectFlag");
  auto r = runTool({"connect", "LumoraDemo"}, {.env = {{"LUMORA_DEFAULTS", defaults}}});
  ASSERT_EQ(r.exit, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("51 didDisconnectPeripheral\n90 beacon connection lost\n"));

  r = runTool({"--defaults", defaults, "--json", "connect", "LumoraDemo", "--quiet-disconnect",
               "--seconds", "5"});
  ASSERT_EQ(r.exit, 0) << r.err;
  const auto records = r.jsonLines();
  ASSERT_GE(records.size(), 2u);
  EXPECT_TRUE(hasFields(records[records.size() - 2], status(90, "TQBeacon Disconnected")));
  EXPECT_TRUE(hasFields(records.back(), status(51, "didDisconnectPeripheral")));
  // The tool stored true before disconnecting; the finder consumed it.
  NSUserDefaults after(defaults);
  ASSERT_TRUE(after.objectForKey("DisconnectFlag").has_value());
  EXPECT_FALSE(after.boolForKey("DisconnectFlag"));
}

TEST(ToolConnect, AbsentNameFailsWhenTheTimeIsUp) {
  const auto r = runTool({"connect", "NoSuchDevice", "--seconds", "0.5"});
  EXPECT_EQ(r.exit, 1);
  EXPECT_EQ(r.err, "lumora: no device named \"NoSuchDevice\" connected within 0.5 s\n");
  EXPECT_EQ(r.out, "90 TQBeacon Conneting...\n90 Start Scan peripherals\n");
}

TEST(ToolRun, CtrlCStopsAWaitingConnectionAndIsTheOrdinaryEndOfRanging) {
  const ToolRunOptions interrupt{.env = {}, .interruptAfterFirstLine = true, .limitSeconds = 20};
  auto r = runTool({"connect", "NoSuchDevice", "--seconds", "50"}, interrupt);
  EXPECT_EQ(r.exit, 130) << r.err;
  EXPECT_THAT(r.out, HasSubstr("90 TQBeacon Conneting..."));
  r = runTool({"range"}, interrupt);
  EXPECT_EQ(r.exit, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("major"));
}

TEST(ToolDemo, TellsTheWholeStory) {
  TempDir dir;
  const auto userDefaults = dir.file("user.json");
  const auto r = runTool({"demo"}, {.env = {{"LUMORA_DEFAULTS", userDefaults.string()}}});
  ASSERT_EQ(r.exit, 0) << r.err << r.out;
  EXPECT_EQ(r.err, "");
  for (const char* line : {
           "    emulator  advertising as \"ab\"\n",
           "major 10  minor 11  near",
           "    finder    50 Connect Peripheral\n",
           "    emulator  a central wrote 010203\n",
           "    finder    80 BLE RECV DATA  data 4c756d6f7261\n",
           "    finder    51 didDisconnectPeripheral\n    \"DisconnectFlag\" now reads false\n",
           "    finder    51 didDisconnectPeripheral\n    finder    90 beacon connection lost\n",
           "Demo finished in ",
       }) {
    EXPECT_THAT(r.out, HasSubstr(line));
  }
  // The demo keeps its flag in a file of its own.
  EXPECT_FALSE(std::filesystem::exists(userDefaults));
}

TEST(ToolScan, PrintsEachDeviceOnceAsJson) {
  const auto r = runTool({"--json", "scan", "--seconds", "0.6"});
  ASSERT_EQ(r.exit, 0) << r.err;
  EXPECT_EQ(r.err, "");  // not a terminal: no progress line
  std::set<std::string> addresses;
  bool sawDemo = false, sawNear = false;
  for (const auto& record : r.jsonLines()) {
    EXPECT_EQ(record["event"], "advertisement");
    EXPECT_TRUE(record["rssi"].is_number_integer());
    EXPECT_TRUE(addresses.insert(record["address"].get<std::string>()).second)
        << "reported twice: " << record.dump();
    if (record["name"] == "LumoraDemo") {
      sawDemo = true;
      EXPECT_TRUE(hasFields(record, {{"connectable", true}, {"ibeacon", nullptr}}));
    }
    if (record["name"] == "Lumora-Near") {
      sawNear = true;
      EXPECT_TRUE(hasFields(record["ibeacon"], {{"uuid", "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"},
                                                {"major", 1},
                                                {"minor", 1},
                                                {"power", -59}}));
    }
  }
  EXPECT_TRUE(sawDemo);
  EXPECT_TRUE(sawNear);
}

TEST(ToolScan, EscapesControlCharactersInNames) {
  TempDir dir;
  // BEL, ESC [31m (a colour change) and a backslash in an advertised name.
  const auto scenario = writeFile(dir, "names.json", R"({"devices": [
      {"address": "C0:FF:EE:00:00:42", "name": "Bad\u0007\u001b[31mName\\"}]})");
  auto r = runTool({"--scenario", scenario, "scan", "--seconds", "0.4"});
  ASSERT_EQ(r.exit, 0) << r.err;
  EXPECT_EQ(r.out.find('\x1b'), std::string::npos);
  EXPECT_THAT(r.out, HasSubstr("\"Bad\\x07\\x1B[31mName\\\\\""));

  r = runTool({"--json", "--scenario", scenario, "scan", "--seconds", "0.4"});
  ASSERT_EQ(r.exit, 0) << r.err;
  const auto records = r.jsonLines();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["name"], "Bad\a\x1b[31mName\\");
}

TEST(ToolRange, PrintsBeaconsWithTheirDistance) {
  const auto r = runTool(
      {"--json", "range", "--uuid", "74278BDA-B644-4520-8F0C-720EAF059935", "--seconds", "2.2"});
  ASSERT_EQ(r.exit, 0) << r.err;
  const auto records = r.jsonLines();
  ASSERT_FALSE(records.empty());
  for (const auto& record : records) {
    // The power is the one the beacon advertises, not the default.
    EXPECT_TRUE(hasFields(record, {{"event", "beacon"},
                                   {"uuid", "74278BDA-B644-4520-8F0C-720EAF059935"},
                                   {"major", 3},
                                   {"minor", 3},
                                   {"power", -61}}));
    EXPECT_TRUE(record["rssi"].is_number_integer());
    ASSERT_TRUE(record["distance"].is_number()) << record.dump();
    EXPECT_GT(record["distance"].get<double>(), 1.0);  // the beacon is 6 m away
    EXPECT_TRUE(record.contains("proximity") && record.contains("accuracy"));
  }
}

TEST(ToolEmulate, AdvertisesUnderItsHexName) {
  const auto r = runTool({"--json", "emulate", "--major", "4660", "--minor", "171", "--reply",
                          "0a0b", "--seconds", "0.5"});
  ASSERT_EQ(r.exit, 0) << r.err;
  const auto records = r.jsonLines();
  ASSERT_FALSE(records.empty());
  EXPECT_TRUE(hasFields(records[0], {{"event", "advertising"}, {"name", "1234ab"}}));
}

TEST(ToolPoweredOff, RadioCommandsFailAtRunTime) {
  TempDir dir;
  const auto scenario = writeFile(dir, "off.json", R"({"adapter": "poweredOff", "devices": []})");
  auto r = runTool({"--scenario", scenario, "scan", "--seconds", "0.3"});
  EXPECT_EQ(r.exit, 1);
  EXPECT_THAT(r.err, HasSubstr("never powered on"));
  r = runTool(
      {"--scenario", scenario, "emulate", "--major", "1", "--minor", "2", "--seconds", "0.3"});
  EXPECT_EQ(r.exit, 1);
  EXPECT_THAT(r.err, HasSubstr("never advertised"));
}

}  // namespace
}  // namespace lumora::test
