// The finder's Bluetooth path through the simulated air: scan by name,
// connection, GATT discovery (which characteristics the finder keeps, and when
// a service confirms the link with a second connect request), and the two
// kinds of disconnection told apart by "DisconnectFlag".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// The beacon device's profile: major, minor and both data characteristics
/// in one service, which confirms the link with a second connect request.
std::vector<sim::ServiceSpec> fullProfile() {
  return {service({kMajorUUID, kMinorUUID, kWriteUUID, kReadUUID})};
}

TEST(Connection, EventsFromNameToConfirmedLinkThenAReconnectThatIgnoresTheName) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.log.clear();

  rig.finder->TQBeacon_Connect("12");
  // Sent synchronously, before anything is scanned.
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting));
  EXPECT_EQ(rig.finder->peripheral_uuid(), "12");

  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral, kStopScan));
  EXPECT_TRUE(device->isConnected());
  const auto peripheral = rig.finder->peripheral();
  ASSERT_NE(peripheral, nullptr);
  EXPECT_EQ(peripheral->address(), device->address());
  EXPECT_TRUE(rig.finder->is_connectBeacon());
  EXPECT_TRUE(rig.finder->is_TQFinderState());
  for (const auto& e : rig.recorder.events()) {
    EXPECT_TRUE(e.onMainThread) << e.message;
    EXPECT_FALSE(e.data) << e.message;
  }
  const auto connecting = StartsWith("Connecting to peripheral <CBPeripheral");
  EXPECT_THAT(rig.log.lines(),
              ElementsAre("Scanning started",
                          AllOf(connecting, HasSubstr(peripheral->identifier().UUIDString())),
                          "Peripheral Connected", "DiscoverServices", connecting));

  // Connecting while a peripheral is held reconnects it and ignores the name.
  const auto manager = rig.finder->centralManager();
  rig.recorder.clear();
  rig.connect("other");
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStopScan));
  EXPECT_EQ(rig.finder->peripheral_uuid(), "12");
  EXPECT_EQ(rig.finder->centralManager(), manager);
  EXPECT_EQ(rig.finder->peripheral(), peripheral);
  EXPECT_TRUE(device->isConnected());
}

TEST(Connection, ScanWaitsForPowerOnRestartsAfterAPowerCycleAndMatchesOnlyTheExactName) {
  for (const auto& wanted :
       {std::optional<std::string>("Beacon-A"), std::optional<std::string>()}) {
    SCOPED_TRACE(wanted.value_or("(null)"));
    FinderRig rig({.initialState = CBManagerState::PoweredOff});
    for (const auto& decoy : {std::optional<std::string>("beacon-a"), std::optional<std::string>(),
                              std::optional<std::string>("Beacon-AB")}) {
      rig.air->addDevice(beaconDevice(decoy, {}));
    }
    auto config = beaconDevice("Beacon-A", {});
    config.advertising = false;
    auto device = rig.air->addDevice(config);
    rig.finder->TQBeacon_Connect(wanted);
    rig.air->advance(1s);
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting));
    for (const auto state :
         {CBManagerState::PoweredOn, CBManagerState::PoweredOff, CBManagerState::PoweredOn}) {
      rig.air->setAdapterState(state);
      rig.air->advance(1s);
    }
    // Still searching: the scan runs on and nothing else is reported.
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kConneting, kStartScan, kStartScan));
    EXPECT_EQ(rig.finder->peripheral(), nullptr);
    // A null name matches nothing, not even the named device.
    device->setAdvertising(true);
    rig.air->advance(2s);
    EXPECT_EQ(device->isConnected(), wanted.has_value());
    std::vector<State> expected{kConneting, kStartScan, kStartScan};
    if (wanted) expected.insert(expected.end(), {kStopScan, kConnectPeripheral});
    EXPECT_EQ(rig.recorder.states(), expected);
  }
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
  ASSERT_NE(rig.finder->peripheral(), nullptr);
  EXPECT_EQ(rig.finder->peripheral()->address(), firstHeard);
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral));
  EXPECT_NE(first->isConnected(), second->isConnected());
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

// --- Discovery -----------------------------------------------------------------------

constexpr const char* kBeaconUuidText = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

TEST(Discovery, ClassifiesAndCountsPerService) {
  const CBUUID &Ma = kMajorUUID, &Mi = kMinorUUID, &W = kWriteUUID, &R = kReadUUID;
  const CBUUID B = CBUUID::UUIDWithString(kBeaconUuidText);
  const CBUUID battery = CBUUID::UUIDWithString("2A19");
  const CBUUID longW = CBUUID::UUIDWithString("0000FF0C-0000-1000-8000-00805F9B34FB");
  const struct {
    const char* name;
    std::vector<std::vector<CBUUID>> services;  // characteristics per service
    bool setUuid;                               // the finder's `uuid` is the beacon UUID
    std::size_t confirmations;                  // second connect requests
    std::optional<CBUUID> data;                 // dataCharacteristic afterwards
    const char* kept;                           // M major, N minor, B beacon UUID characteristic
  } cases[] = {
      {"FourInOneService", {{Ma, Mi, W, R}}, false, 1, R, "MN"},
      {"LaterDataCharacteristicWins", {{Ma, Mi, R, W}}, false, 1, W, "MN"},
      {"SpreadOverTwoServices", {{Ma, Mi}, {W, R}}, false, 0, R, "MN"},
      {"FourDuplicatesCount", {{W, W, W, W}}, false, 1, W, ""},
      {"UnknownDoesNotCount", {{Ma, Mi, W, battery}}, false, 0, W, "MN"},
      {"NullUuidNeverMatches", {{B, Ma, Mi, W}}, false, 0, W, "MN"},
      {"UuidSetFillsTheBeaconUuidCharacteristic", {{B, Ma, Mi, W}}, true, 1, W, "MNB"},
      {"LongFormOfAShortUuid", {{Ma, Mi, longW, R}}, false, 1, R, "MN"},
      {"EachFullServiceConfirms", {{Ma, Mi, W, R}, {W, R, R, W}}, false, 2, W, "MN"},
      {"NoServices", {}, false, 0, std::nullopt, ""},
      {"EmptyService", {{}}, false, 0, std::nullopt, ""},
  };
  const auto uuidOf = [](const std::shared_ptr<CBCharacteristic>& ch) {
    return ch ? std::optional(ch->UUID()) : std::nullopt;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FinderRig rig;
    if (c.setUuid) rig.finder->setUuid(Uuid::fromString(kBeaconUuidText));
    std::vector<sim::ServiceSpec> services;
    for (const auto& list : c.services) {
      services.push_back(
          service(list, CBUUID::fromUInt16(static_cast<std::uint16_t>(0xFFC0 + services.size()))));
    }
    rig.air->addDevice(beaconDevice("12", services));
    rig.connect("12");

    std::vector<State> expected{kConneting, kStartScan, kStopScan, kConnectPeripheral};
    expected.insert(expected.end(), c.confirmations, kStopScan);
    EXPECT_EQ(rig.recorder.states(), expected);
    EXPECT_EQ(rig.log.count("DiscoverServices"), 1u);
    EXPECT_TRUE(rig.finder->is_connectBeacon());
    const auto kept = [&](char code, const CBUUID& uuid) {
      return std::string(c.kept).find(code) != std::string::npos ? std::optional(uuid)
                                                                 : std::nullopt;
    };
    EXPECT_EQ(uuidOf(rig.finder->dataCharacteristic()), c.data);
    EXPECT_EQ(uuidOf(rig.finder->majorCharacteristic()), kept('M', Ma));
    EXPECT_EQ(uuidOf(rig.finder->minorCharacteristic()), kept('N', Mi));
    EXPECT_EQ(uuidOf(rig.finder->iBeaconUUIDCharacteristic()), kept('B', B));
    EXPECT_EQ(rig.finder->batteryLevelBroadCastCharacteristic(), nullptr);
  }
}

TEST(Discovery, CallbacksWithoutListsDoNothing) {
  FinderRig rig;
  rig.log.clear();
  rig.finder->didDiscoverServices(nullptr, std::nullopt);
  EXPECT_EQ(rig.log.count("DiscoverServices"), 1u);
  auto undiscovered = std::make_shared<CBService>(kWriteUUID, true);
  rig.finder->didDiscoverCharacteristicsForService(nullptr, undiscovered, std::nullopt);
  rig.finder->didDiscoverCharacteristicsForService(nullptr, nullptr, std::nullopt);
  EXPECT_TRUE(rig.recorder.states().empty());
  EXPECT_EQ(rig.finder->dataCharacteristic(), nullptr);
}

// --- Disconnection ------------------------------------------------------------------

TEST(Disconnection, RequestedWithTheFlagIsQuietAndConsumesItEvenAcrossARestart) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.connect("12");
  ASSERT_NE(rig.finder->dataCharacteristic(), nullptr);
  const auto held = rig.finder->peripheral();
  rig.recorder.clear();
  rig.log.clear();

  rig.setFlag(Number::numberWithBool(true));
  // A new process reads the store from its file.
  NSUserDefaults::resetStandardUserDefaults();
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
  // The reset to false reached the file.
  EXPECT_EQ(numberValue(rig.storedFlag()), Number::numberWithBool(false));
  EXPECT_EQ(rig.finder->peripheral(), nullptr);
  for (const auto& ch : {rig.finder->iBeaconUUIDCharacteristic(), rig.finder->majorCharacteristic(),
                         rig.finder->minorCharacteristic(), rig.finder->dataCharacteristic(),
                         rig.finder->batteryLevelBroadCastCharacteristic()}) {
    EXPECT_EQ(ch, nullptr);
  }
  // Kept: nothing reconnects by itself.
  EXPECT_EQ(rig.finder->peripheral_uuid(), "12");
  EXPECT_NE(rig.finder->centralManager(), nullptr);

  // Without the flag a requested disconnection is reported as a loss.
  rig.connect("12");
  rig.recorder.clear();
  rig.finder->TQBeacon_Disconnect();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected, kDidDisconnect, kLost));

  // With no link it still reports and clears the request.
  rig.recorder.clear();
  rig.finder->setIs_connectBeacon(true);
  rig.finder->TQBeacon_Disconnect();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDisconnected));
  EXPECT_FALSE(rig.finder->is_TQFinderState());
  EXPECT_EQ(rig.log.count("Disconnecting to peripheral (null)"), 1u);
}

TEST(Disconnection, DropIsALossSeenWithTheLinkStillHeldUnlessTheFlagIsSet) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", fullProfile()));
  rig.connect("12");
  const auto firstManager = rig.finder->centralManager();
  const auto held = rig.finder->peripheral();
  std::vector<std::shared_ptr<CBPeripheral>> heldAtEvent;
  rig.recorder.setHook(
      [&](const FinderEvent&) { heldAtEvent.push_back(rig.finder->peripheral()); });
  rig.recorder.clear();

  device->dropLink();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kDidDisconnect, kLost));
  for (const auto& e : rig.recorder.events()) EXPECT_TRUE(e.onMainThread);
  // Both events see the link's peripheral still held; then it is cleared.
  EXPECT_EQ(heldAtEvent, (std::vector<std::shared_ptr<CBPeripheral>>{held, held}));
  EXPECT_EQ(rig.finder->peripheral(), nullptr);
  EXPECT_EQ(rig.finder->dataCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->majorCharacteristic(), nullptr);
  EXPECT_TRUE(rig.finder->is_TQFinderState());  // the connection stays requested
  EXPECT_FALSE(rig.storedFlag());               // the finder never stores a flag of its own

  // With no peripheral held the search starts over on a new manager.
  rig.recorder.setHook({});
  rig.recorder.clear();
  rig.connect("12");
  EXPECT_THAT(rig.recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral, kStopScan));
  EXPECT_NE(rig.finder->centralManager(), firstManager);

  // The flag is the boolean reading of the stored object, and a drop takes it too.
  const struct {
    const char* name;
    std::optional<Object> stored;
    bool quiet;
  } cases[] = {
      {"True", Number::numberWithBool(true), true},
      {"False", Number::numberWithBool(false), false},
      {"NonZeroNumber", Number(2), true},
      {"ZeroNumber", Number(0), false},
      {"TextYes", std::string("YES"), true},
      {"TextNo", std::string("NO"), false},
      {"Bytes", Bytes{0x01}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rig.connect("12");
    ASSERT_TRUE(device->isConnected());
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
}

}  // namespace
}  // namespace lumora::test
