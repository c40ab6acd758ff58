// The finder's Bluetooth path through the simulated air: scan by name,
// connection, the second connect after discovery, and the two kinds of
// disconnection told apart by "DisconnectFlag".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The beacon device's profile: major, minor and both data characteristics
/// in one service, which confirms the link with a second connect request.
std::vector<sim::ServiceSpec> fullProfile() {
  return {service({kMajorUUID, kMinorUUID, kWriteUUID, kReadUUID})};
}

std::size_t linesStartingWith(const LogCapture& log, const std::string& prefix) {
  const auto lines = log.lines();
  return static_cast<std::size_t>(std::count_if(
      lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
}

TEST(Connection, EventsFromNameToConfirmedLink) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.log.clear();

  rig.finder->TQBeacon_Connect("12");
  // Sent synchronously, before anything is scanned.
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting));
  EXPECT_EQ(rig.finder->peripheral_uuid(), "12");
  ASSERT_NE(rig.finder->centralManager(), nullptr);

  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral, kStopScan));
  EXPECT_TRUE(device->isConnected());
  ASSERT_NE(rig.finder->peripheral(), nullptr);
  EXPECT_EQ(rig.finder->peripheral()->address(), device->address());
  EXPECT_TRUE(rig.finder->is_connectBeacon());
  EXPECT_TRUE(rig.finder->is_TQFinderState());
  for (const auto& e : rig.recorder.events()) {
    EXPECT_TRUE(e.onMainThread) << e.message;
    EXPECT_FALSE(e.data) << e.message;
  }

  const auto lines = rig.log.lines();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[0], "Scanning started");
  EXPECT_EQ(lines[1].rfind("Connecting to peripheral <CBPeripheral", 0), 0u) << lines[1];
  EXPECT_NE(lines[1].find(rig.finder->peripheral()->identifier().UUIDString()), std::string::npos);
  EXPECT_EQ(lines[2], "Peripheral Connected");
  EXPECT_EQ(lines[3], "DiscoverServices");
  EXPECT_EQ(lines[4].rfind("Connecting to peripheral <CBPeripheral", 0), 0u) << lines[4];
}

TEST(Connection, WithoutFourCharacteristicsThereIsNoSecondConnect) {
  FinderRig rig;
  rig.air->addDevice(beaconDevice("12", {service({kWriteUUID, kReadUUID})}));
  rig.connect("12");
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral));
  EXPECT_EQ(linesStartingWith(rig.log, "Connecting to peripheral"), 1u);
}

struct NameCase {
  const char* name;
  std::optional<std::string> advertised;
  std::optional<std::string> wanted;
  bool connects;
};

class NameMatch : public testing::TestWithParam<NameCase> {};

TEST_P(NameMatch, ExactTextOnly) {
  const auto& c = GetParam();
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice(c.advertised, {}));
  rig.connect(*c.wanted);
  EXPECT_EQ(device->isConnected(), c.connects);
  EXPECT_EQ(rig.recorder.count(50, "Connect Peripheral"), c.connects ? 1u : 0u);
  EXPECT_EQ(rig.finder->is_TQFinderState(), c.connects);
  if (!c.connects) {
    // Still searching: the scan runs on and nothing else is reported.
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStartScan));
    EXPECT_EQ(rig.finder->peripheral(), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Names, NameMatch,
    testing::Values(NameCase{"Exact", "Beacon-A", "Beacon-A", true},
                    NameCase{"CaseMatters", "Beacon-A", "beacon-a", false},
                    NameCase{"NoAdvertisedName", std::nullopt, "Beacon-A", false},
                    NameCase{"PrefixIsNotEnough", "Beacon-AB", "Beacon-A", false}),
    [](const auto& info) { return info.param.name; });

TEST(Connection, NullNameMatchesNothing) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {}));
  rig.finder->TQBeacon_Connect(std::nullopt);
  rig.air->advance(2s);
  EXPECT_FALSE(device->isConnected());
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStartScan));
}

TEST(Connection, TwoDevicesWithOneNameTheFirstHeardWins) {
  FinderRig rig;
  rig.air->setTraceLimit(100000);
  auto silent = beaconDevice("Twin", {});
  silent.advertising = false;
  auto first = rig.air->addDevice(silent);
  auto second = rig.air->addDevice(silent);
  rig.finder->TQBeacon_Connect("Twin");
  rig.air->settle();
  ASSERT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStartScan));
  // Both start advertising only once the scan runs, so the first
  // advertisement in the trace is the first one the finder heard.
  first->setAdvertising(true);
  second->setAdvertising(true);
  rig.air->advance(2s);

  std::string firstHeard;
  for (const auto& e : rig.air->trace()) {
    if (e.kind == "adv" && (e.from == first->address() || e.from == second->address())) {
      firstHeard = e.from;
      break;
    }
  }
  ASSERT_FALSE(firstHeard.empty());
  ASSERT_NE(rig.finder->peripheral(), nullptr);
  EXPECT_EQ(rig.finder->peripheral()->address(), firstHeard);
  EXPECT_EQ(rig.recorder.count(90, "Stop Scan peripherals"), 1u);
  EXPECT_EQ(rig.recorder.count(50, "Connect Peripheral"), 1u);
  EXPECT_NE(first->isConnected(), second->isConnected());
}

TEST(Connection, PoweredOffWaitsForPowerOn) {
  FinderRig rig({.initialState = CBManagerState::PoweredOff});
  auto device = rig.air->addDevice(beaconDevice("12", {}));
  rig.connect("12");
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting));
  EXPECT_FALSE(device->isConnected());

  rig.air->setAdapterState(CBManagerState::PoweredOn);
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral));
  EXPECT_TRUE(device->isConnected());
}

TEST(Connection, PowerCycleRestartsTheScan) {
  FinderRig rig;
  rig.finder->TQBeacon_Connect("nobody");
  rig.air->advance(1s);
  rig.air->setAdapterState(CBManagerState::PoweredOff);
  rig.air->advance(1s);
  rig.air->setAdapterState(CBManagerState::PoweredOn);
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStartScan, kStartScan));
}

TEST(Connection, ConnectWhileHoldingAPeripheralReconnectsItAndIgnoresTheName) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {}));
  rig.connect("12");
  const auto manager = rig.finder->centralManager();
  const auto peripheral = rig.finder->peripheral();
  ASSERT_NE(peripheral, nullptr);
  rig.recorder.clear();

  rig.finder->TQBeacon_Connect("other");
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStopScan));
  EXPECT_EQ(rig.finder->peripheral_uuid(), "12");
  EXPECT_EQ(rig.finder->centralManager(), manager);
  EXPECT_EQ(rig.finder->peripheral(), peripheral);
  EXPECT_TRUE(device->isConnected());
}

// --- Disconnection ------------------------------------------------------------------

TEST(Disconnection, RequestedWithTheFlagIsQuietAndConsumesIt) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.connect("12");
  ASSERT_NE(rig.finder->dataCharacteristic(), nullptr);
  const auto held = rig.finder->peripheral();
  rig.recorder.clear();
  rig.log.clear();

  rig.setFlag(Number::numberWithBool(true));
  rig.finder->TQBeacon_Disconnect();
  // Reported at once; the peripheral stays held until the platform confirms.
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected));
  EXPECT_FALSE(rig.finder->is_connectBeacon());
  EXPECT_EQ(rig.finder->peripheral(), held);
  EXPECT_EQ(rig.log.count("Disconnecting to peripheral " + description(held)), 1u);

  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected, kDidDisconnect));
  EXPECT_FALSE(device->isConnected());
  EXPECT_FALSE(rig.finder->is_TQFinderState());
  const auto flag = rig.storedFlag();
  ASSERT_TRUE(numberValue(flag));
  EXPECT_FALSE(numberValue(flag)->boolValue());

  EXPECT_EQ(rig.finder->peripheral(), nullptr);
  EXPECT_EQ(rig.finder->iBeaconUUIDCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->majorCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->minorCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->dataCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->batteryLevelBroadCastCharacteristic(), nullptr);
  // Kept: nothing reconnects by itself.
  EXPECT_EQ(rig.finder->peripheral_uuid(), "12");
  EXPECT_NE(rig.finder->centralManager(), nullptr);
}

TEST(Disconnection, RequestedWithoutTheFlagIsReportedAsLost) {
  FinderRig rig;
  rig.air->addDevice(beaconDevice("12", {}));
  rig.connect("12");
  rig.recorder.clear();
  rig.finder->TQBeacon_Disconnect();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected, kDidDisconnect, kLost));
  EXPECT_FALSE(rig.storedFlag());  // the finder never stores true, nor false here
}

TEST(Disconnection, UnrequestedDropKeepsTheConnectionRequested) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.connect("12");
  rig.recorder.clear();

  device->dropLink();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDidDisconnect, kLost));
  EXPECT_EQ(rig.finder->peripheral(), nullptr);
  EXPECT_EQ(rig.finder->dataCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->majorCharacteristic(), nullptr);
  EXPECT_TRUE(rig.finder->is_TQFinderState());
  for (const auto& e : rig.recorder.events()) EXPECT_TRUE(e.onMainThread);
}

TEST(Disconnection, FlagIsConsumedByWhicheverDisconnectionComesFirst) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {}));
  rig.connect("12");
  rig.setFlag(Number::numberWithBool(true));
  device->dropLink();
  rig.air->advance(1s);
  // The drop took the flag: the next disconnection counts as lost again.
  rig.connect("12");
  ASSERT_TRUE(device->isConnected());
  rig.recorder.clear();
  device->dropLink();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDidDisconnect, kLost));
}

struct FlagCase {
  const char* name;
  std::optional<Object> stored;
  bool quiet;
};

class FlagReading : public testing::TestWithParam<FlagCase> {};

TEST_P(FlagReading, BooleanReadingOfTheStoredObject) {
  const auto& c = GetParam();
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {}));
  rig.connect("12");
  rig.setFlag(c.stored);
  rig.recorder.clear();
  device->dropLink();
  rig.air->advance(1s);
  if (c.quiet) {
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kDidDisconnect));
    EXPECT_EQ(numberValue(rig.storedFlag()), Number::numberWithBool(false));
  } else {
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kDidDisconnect, kLost));
  }
}

INSTANTIATE_TEST_SUITE_P(Values, FlagReading,
                         testing::Values(FlagCase{"Absent", std::nullopt, false},
                                         FlagCase{"True", Number::numberWithBool(true), true},
                                         FlagCase{"False", Number::numberWithBool(false), false},
                                         FlagCase{"NonZeroNumber", Number(2), true},
                                         FlagCase{"ZeroNumber", Number(0), false},
                                         FlagCase{"TextYes", std::string("YES"), true},
                                         FlagCase{"TextNo", std::string("NO"), false},
                                         FlagCase{"Bytes", Bytes{0x01}, false}),
                         [](const auto& info) { return info.param.name; });

TEST(Disconnection, FlagSurvivesARestartOfTheProgram) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {}));
  rig.connect("12");
  rig.setFlag(Number::numberWithBool(true));
  // A new process reads the store from its file.
  NSUserDefaults::resetStandardUserDefaults();
  rig.recorder.clear();
  rig.finder->TQBeacon_Disconnect();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected, kDidDisconnect));
  // The reset to false reached the file too.
  NSUserDefaults file(rig.defaultsDir.file("defaults.json"));
  EXPECT_EQ(numberValue(file.objectForKey("DisconnectFlag")), Number::numberWithBool(false));
}

TEST(Disconnection, WithNoLinkStillReportsAndClearsTheRequest) {
  FinderRig rig;
  rig.finder->setIs_connectBeacon(true);
  rig.finder->TQBeacon_Disconnect();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected));
  EXPECT_FALSE(rig.finder->is_TQFinderState());
  EXPECT_EQ(rig.log.count("Disconnecting to peripheral (null)"), 1u);
}

TEST(Disconnection, EventsComeBeforeTheFieldsAreClearedAndANewSearchFollows) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID})}));
  rig.connect("12");
  const auto firstManager = rig.finder->centralManager();
  const auto held = rig.finder->peripheral();
  std::vector<std::shared_ptr<CBPeripheral>> heldAtEvent;
  rig.recorder.setHook(
      [&](const FinderEvent&) { heldAtEvent.push_back(rig.finder->peripheral()); });
  rig.recorder.clear();
  device->dropLink();
  rig.air->advance(1s);
  // Both events see the link's peripheral still held.
  EXPECT_EQ(heldAtEvent, (std::vector<std::shared_ptr<CBPeripheral>>{held, held}));
  EXPECT_EQ(rig.finder->peripheral(), nullptr);

  rig.recorder.setHook({});
  rig.recorder.clear();
  rig.connect("12");
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral));
  EXPECT_TRUE(device->isConnected());
  // With no peripheral held the search starts over on a new manager.
  EXPECT_NE(rig.finder->centralManager(), firstManager);
}

TEST(Connection, NullDelegateDropsEventsButTheFinderGoesOn) {
  FinderRig rig;
  rig.finder->setDelegate(nullptr);
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.connect("12");
  EXPECT_TRUE(device->isConnected());
  rig.finder->TQBeacon_SendData(Bytes{0x01});
  rig.finder->TQBeacon_ReqReadData();
  rig.air->advance(1s);
  EXPECT_EQ(device->writesTo(kWriteUUID), std::vector<Bytes>{Bytes{0x01}});
  device->dropLink();
  rig.air->advance(1s);
  EXPECT_EQ(rig.finder->peripheral(), nullptr);
  EXPECT_THAT(rig.recorder.events(), IsEmpty());
}

}  // namespace
}  // namespace lumora::test
