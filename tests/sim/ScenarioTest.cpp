// Scenario files: what a good one builds, what a bad one is told, and the
// built-in demo scenario.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

#include "Recorders.h"
#include "support/TempDir.h"

namespace lumora::sim::test {
namespace {

struct BadCase {
  std::string json;
  const char* message;  // must appear in what()
};

class ScenarioErrors : public ::testing::TestWithParam<BadCase> {};

TEST_P(ScenarioErrors, NameTheFaultAndItsPath) {
  try {
    loadScenario(GetParam().json);
    FAIL() << "accepted: " << GetParam().json;
  } catch (const ScenarioError& e) {
    EXPECT_NE(std::string(e.what()).find(GetParam().message), std::string::npos)
        << "message was: " << e.what();
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
  }
}

// One row per check of the loader, each naming the path to the fault.
INSTANTIATE_TEST_SUITE_P(
    Table, ScenarioErrors,
    ::testing::Values(
        // Refused before the parser could run out of stack.
        BadCase{"{\"devices\": " + std::string(100000, '[') + std::string(100000, ']') + "}",
                "scenario: nested deeper than 64 levels"},
        BadCase{R"({"devices": [)", "scenario: invalid JSON"},
        BadCase{"[]", "scenario: expected an object"},
        BadCase{R"({"seed": -1})", "seed: expected an integer"},
        BadCase{R"({"adapter": "on"})", "adapter: expected one of: unknown, resetting"},
        BadCase{R"({"adapter": 6})", "adapter: expected an integer 0..5"},
        BadCase{R"({"linkLatencyMs": -5})", "linkLatencyMs: expected a number 0..60000"},
        BadCase{R"({"devices": {}})", "devices: expected an array"},
        BadCase{R"({"devices": [{"ibeacon": {"major": 1, "minor": 1}}]})",
                "devices[0].ibeacon.uuid: required"},
        BadCase{R"({"devices": [{"ibeacon": {"uuid": "FF0C", "major": 1, "minor": 1}}]})",
                "devices[0].ibeacon.uuid: expected a proximity UUID"},
        BadCase{R"({"devices": [{"manufacturerData": "4C0"}]})",
                "devices[0].manufacturerData: expected hex bytes"},
        BadCase{R"({"devices": [{"manufacturerData": "4C00", "ibeacon": {}}]})",
                "devices[0].ibeacon: give either manufacturerData or ibeacon"},
        BadCase{R"({"devices": [{"nmae": "x"}]})", "devices[0].nmae: unknown key"},
        BadCase{R"({"devices": [{"name": 5}]})", "devices[0].name: expected a string"},
        BadCase{R"({"devices": [{"address": "C0:FF:EE:00:00"}]})",
                "devices[0].address: expected an address"},
        BadCase{
            R"({"devices": [{"address": "C0:FF:EE:00:00:01"}, {"address": "c0:ff:ee:00:00:01"}]})",
            "devices[1].address: duplicate address C0:FF:EE:00:00:01"},
        BadCase{R"({"devices": [{"path": []}]})",
                "devices[0].path: expected at least one waypoint"},
        BadCase{R"({"devices": [{"path": [{"t": 2, "x": 0, "y": 0}, {"t": 1, "x": 0, "y": 0}]}]})",
                "devices[0].path[1].t: waypoints must be in time order"},
        BadCase{R"({"devices": [{"services": [{"uuid": "XYZ"}]}]})",
                "devices[0].services[0].uuid: expected a UUID"},
        BadCase{
            R"({"devices": [{"services": [{"uuid": "180F", "characteristics": [{"uuid": "2A19", "properties": ["read", "fly"]}]}]}]})",
            "devices[0].services[0].characteristics[0].properties[1]: expected a property"},
        BadCase{
            R"({"devices": [{"services": [{"uuid": "180F", "characteristics": [{"uuid": "2A19", "reply": "ecko"}]}]}]})",
            "devices[0].services[0].characteristics[0].reply: expected \"echo\""},
        BadCase{
            R"({"devices": [{"services": [{"uuid": "180F", "characteristics": [{"uuid": "2A19", "reply": ["scripted"]}]}]}]})",
            "characteristics[0].reply: a script needs at least one answer"},
        BadCase{R"({"events": [{"at": 1}]})", "events[0]: expected exactly one action"},
        BadCase{R"({"events": [{"at": 1, "device": "C0:FF:EE:00:00:09", "dropLink": true}]})",
                "events[0].device: no device of this scenario has address C0:FF:EE:00:00:09"},
        BadCase{
            R"({"devices": [{"address": "C0:FF:EE:00:00:01"}], "events": [{"at": 1, "device": "C0:FF:EE:00:00:01", "power": "poweredOff"}]})",
            "events[0].device: not used with power"},
        BadCase{
            R"({"devices": [{"address": "C0:FF:EE:00:00:01"}], "events": [{"at": 1, "device": "C0:FF:EE:00:00:01", "dropLink": false}]})",
            "events[0].dropLink: expected true"}));

TEST(Scenario, BuildsTheDescribedAir) {
  auto air = loadScenario(R"({
    "seed": 99,
    "adapter": "poweredOff",
    "locationAuthorization": "denied",
    "linkLatencyMs": 20,
    "devices": [
      {"address": "c0:ff:ee:00:00:01", "name": "Beacon",
       "ibeacon": {"uuid": "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0", "major": 258, "minor": 772,
                   "power": -65},
       "distance": 1.0, "noiseSigma": 0},
      {"name": "Plain", "manufacturerData": "59 00 01", "advertising": false}
    ]
  })");
  EXPECT_EQ(air->adapterState(), CBManagerState::PoweredOff);
  EXPECT_EQ(air->locationAuthorizationStatus(), 2);
  ASSERT_EQ(air->deviceAddresses().size(), 2u);
  EXPECT_EQ(air->deviceAddresses()[0], "C0:FF:EE:00:00:01");

  ReportSink sink;
  sink.observe(*air);
  air->setAdapterState(CBManagerState::PoweredOn);
  air->advance(1s);
  ASSERT_FALSE(sink.reports->empty());
  const auto& report = sink.reports->front();
  EXPECT_EQ(report.address, "C0:FF:EE:00:00:01");
  EXPECT_EQ(report.advertisement.localName, "Beacon");
  // Apple's company id (little-endian), iBeacon type and length, the
  // proximity UUID, major 0x0102, minor 0x0304, measured power -65 (0xBF).
  EXPECT_EQ(*report.advertisement.manufacturerData,
            *bytesFromHex("4C00 0215 E2C56DB5DFFB48D2B060D0F5A71096E0 0102 0304 BF"));
  // The measured power is what is heard at one metre.
  EXPECT_EQ(report.rssi, -65);
  for (const auto& r : *sink.reports) EXPECT_EQ(r.address, report.address);  // "Plain" is silent
}

TEST(Scenario, ScriptedAndFixedRepliesAnswerReads) {
  auto air = loadScenario(R"({
    "devices": [{"address": "C0:FF:EE:00:00:01", "services": [{"uuid": "180F",
      "characteristics": [
        {"uuid": "2A19", "reply": ["scripted", "01", {"error": 14}, "0203"]},
        {"uuid": "2A1A", "properties": ["read"], "reply": "CAFE"}
      ]}]}]
  })");
  auto recorder = std::make_shared<CentralRecorder>();
  auto session = air->openCentral(recorder);
  const std::string d = "C0:FF:EE:00:00:01";
  recorder->discoverAll(*air, *session, d);
  const auto scripted = recorder->characteristics().at(0);
  const auto fixed = recorder->characteristics().at(1);
  EXPECT_EQ(scripted.properties, CBCharacteristicPropertyRead | CBCharacteristicPropertyWrite);
  for (int i = 0; i < 4; ++i) session->read(d, scripted.handle);
  session->write(d, fixed.handle, {0x01}, true);  // read-only: refused
  session->read(d, fixed.handle);
  air->advance(10ms);
  const std::string s = std::to_string(scripted.handle), f = std::to_string(fixed.handle);
  EXPECT_EQ(recorder->log(),
            (Lines{"value " + d + " " + s + " <01> ok", "value " + d + " " + s + " null att 14",
                   "value " + d + " " + s + " <0203> ok", "value " + d + " " + s + " <0203> ok",
                   "written " + d + " " + f + " att 3", "value " + d + " " + f + " <cafe> ok"}));
}

TEST(Scenario, TimedEventsHappenAtTheirTime) {
  auto air = loadScenario(R"({
    "devices": [{"address": "C0:FF:EE:00:00:01", "name": "A", "noiseSigma": 0},
                {"address": "C0:FF:EE:00:00:02", "name": "B"}],
    "events": [
      {"at": 1.0, "device": "C0:FF:EE:00:00:01", "distance": 10},
      {"at": 2.0, "device": "C0:FF:EE:00:00:01", "advertising": false},
      {"at": 2.5, "device": "C0:FF:EE:00:00:02", "remove": true},
      {"at": 2.6, "device": "C0:FF:EE:00:00:02", "advertising": true},
      {"at": 3.0, "power": "poweredOff"},
      {"at": 3.5, "locationAuthorization": "authorizedWhenInUse"}
    ]
  })");
  ReportSink sink;
  sink.observe(*air);
  air->advance(4s);
  int lastA = 0;
  for (const auto& r : *sink.reports) {
    if (r.address != "C0:FF:EE:00:00:01") continue;
    EXPECT_EQ(r.rssi, r.time < 1s ? -59 : -79);
    EXPECT_LT(r.time, 2s);
    lastA = r.rssi;
  }
  EXPECT_EQ(lastA, -79);
  for (const auto& r : *sink.reports) {
    if (r.address == "C0:FF:EE:00:00:02") {
      EXPECT_LT(r.time, 2500ms);
    }
  }
  EXPECT_EQ(air->deviceAddresses(), Lines{"C0:FF:EE:00:00:01"});
  EXPECT_EQ(air->adapterState(), CBManagerState::PoweredOff);
  EXPECT_EQ(air->locationAuthorizationStatus(), 4);
}

// The tool's tests talk to the demo device; this pins the beacons around it.
TEST(Scenario, DefaultScenarioHasTheDemoDeviceAndThreeBeaconIdentities) {
  auto air = loadScenario(defaultScenarioJson());
  EXPECT_EQ(air->deviceAddresses().size(), 6u);
  ReportSink sink;
  sink.observe(*air);
  air->advance(2s);
  std::set<std::string> names;
  std::set<std::string> proximity;
  for (const auto& r : *sink.reports) {
    if (r.advertisement.localName) names.insert(*r.advertisement.localName);
    const Data& m = r.advertisement.manufacturerData;
    if (m && m->size() == 25 && (*m)[0] == 0x4C && (*m)[2] == 0x02) {
      proximity.insert(Uuid::fromBytes(m->data() + 4).UUIDString());
    }
  }
  EXPECT_TRUE(names.count("LumoraDemo"));
  EXPECT_GE(names.size(), 5u);
  EXPECT_EQ(proximity, (std::set<std::string>{"5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
                                              "74278BDA-B644-4520-8F0C-720EAF059935",
                                              "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"}));
}

TEST(Scenario, TheDocumentedExampleLoads) {
  std::ifstream doc(std::string(LUMORA_SOURCE_DIR) + "/docs/scenarios.md");
  ASSERT_TRUE(doc) << "docs/scenarios.md";
  std::stringstream text;
  text << doc.rdbuf();
  const std::string all = text.str();
  const auto start = all.find("```json\n");
  ASSERT_NE(start, std::string::npos);
  const auto end = all.find("```", start + 8);
  auto air = loadScenario(all.substr(start + 8, end - start - 8));
  EXPECT_EQ(air->deviceAddresses().size(), 3u);
}

TEST(Scenario, FilesAreReadAndTheirErrorsNameTheFile) {
  lumora::test::TempDir dir;
  const std::string good = dir.file("good.json").string();
  const std::string bad = dir.file("bad.json").string();
  std::ofstream(good) << R"({"devices": [{"address": "C0:FF:EE:00:00:07"}]})";
  std::ofstream(bad) << R"({"devices": [{"distance": "far"}]})";

  EXPECT_EQ(loadScenarioFile(good)->deviceAddresses(), Lines{"C0:FF:EE:00:00:07"});
  try {
    loadScenarioFile(bad);
    FAIL();
  } catch (const ScenarioError& e) {
    EXPECT_NE(std::string(e.what()).find(bad + ": devices[0].distance: expected a number"),
              std::string::npos)
        << e.what();
  }
  EXPECT_THROW(loadScenarioFile(dir.file("missing.json").string()), ScenarioError);
}

}  // namespace
}  // namespace lumora::sim::test
