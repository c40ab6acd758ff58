// GATT discovery: which characteristics the finder keeps, and when a service
// confirms the link with a second connect request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::ElementsAreArray;

constexpr const char* kBeaconUuidText = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
const CBUUID kBeaconUuidCharacteristic = CBUUID::UUIDWithString(kBeaconUuidText);
const CBUUID kBattery = CBUUID::UUIDWithString("2A19");

struct DiscoveryCase {
  const char* name;
  std::vector<std::vector<CBUUID>> services;  // characteristics per service
  bool setUuid = false;                       // the finder's `uuid` is the beacon UUID
  int confirmations = 0;                      // second connect requests
  std::optional<CBUUID> data = std::nullopt;  // dataCharacteristic afterwards
  bool major = false;
  bool minor = false;
  bool beaconUuid = false;
};

class Discovery : public testing::TestWithParam<DiscoveryCase> {};

TEST_P(Discovery, ClassifiesAndCountsPerService) {
  const auto& c = GetParam();
  FinderRig rig;
  if (c.setUuid) rig.finder->setUuid(Uuid::fromString(kBeaconUuidText));
  std::vector<sim::ServiceSpec> services;
  int n = 0;
  for (const auto& list : c.services) {
    services.push_back(service(list, CBUUID::fromUInt16(static_cast<std::uint16_t>(0xFFC0 + n++))));
  }
  rig.air->addDevice(beaconDevice("12", services));
  rig.connect("12");

  std::vector<State> expected{kConneting, kStartScan, kStopScan, kConnectPeripheral};
  for (int i = 0; i < c.confirmations; ++i) expected.push_back(kStopScan);
  EXPECT_THAT(rig.recorder.states(), ElementsAreArray(expected));
  EXPECT_EQ(rig.log.count("DiscoverServices"), 1u);
  EXPECT_TRUE(rig.finder->is_connectBeacon());

  const auto uuidOf = [](const std::shared_ptr<CBCharacteristic>& ch) {
    return ch ? std::optional<CBUUID>(ch->UUID()) : std::nullopt;
  };
  EXPECT_EQ(uuidOf(rig.finder->dataCharacteristic()), c.data);
  EXPECT_EQ(uuidOf(rig.finder->majorCharacteristic()),
            c.major ? std::optional(kMajorUUID) : std::nullopt);
  EXPECT_EQ(uuidOf(rig.finder->minorCharacteristic()),
            c.minor ? std::optional(kMinorUUID) : std::nullopt);
  EXPECT_EQ(uuidOf(rig.finder->iBeaconUUIDCharacteristic()),
            c.beaconUuid ? std::optional(kBeaconUuidCharacteristic) : std::nullopt);
  EXPECT_EQ(rig.finder->batteryLevelBroadCastCharacteristic(), nullptr);
}

const CBUUID kLongFF0C = CBUUID::UUIDWithString("0000FF0C-0000-1000-8000-00805F9B34FB");

INSTANTIATE_TEST_SUITE_P(
    Profiles, Discovery,
    testing::Values(
        DiscoveryCase{.name = "FourInOneService",
                      .services = {{kMajorUUID, kMinorUUID, kWriteUUID, kReadUUID}},
                      .confirmations = 1,
                      .data = kReadUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "LaterDataCharacteristicWins",
                      .services = {{kMajorUUID, kMinorUUID, kReadUUID, kWriteUUID}},
                      .confirmations = 1,
                      .data = kWriteUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "SpreadOverTwoServices",
                      .services = {{kMajorUUID, kMinorUUID}, {kWriteUUID, kReadUUID}},
                      .data = kReadUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "FourDuplicatesCount",
                      .services = {{kWriteUUID, kWriteUUID, kWriteUUID, kWriteUUID}},
                      .confirmations = 1,
                      .data = kWriteUUID},
        DiscoveryCase{.name = "UnknownDoesNotCount",
                      .services = {{kMajorUUID, kMinorUUID, kWriteUUID, kBattery}},
                      .data = kWriteUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "NullUuidNeverMatches",
                      .services = {{kBeaconUuidCharacteristic, kMajorUUID, kMinorUUID, kWriteUUID}},
                      .data = kWriteUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "UuidSetFillsTheBeaconUuidCharacteristic",
                      .services = {{kBeaconUuidCharacteristic, kMajorUUID, kMinorUUID, kWriteUUID}},
                      .setUuid = true,
                      .confirmations = 1,
                      .data = kWriteUUID,
                      .major = true,
                      .minor = true,
                      .beaconUuid = true},
        DiscoveryCase{.name = "LongFormOfAShortUuid",
                      .services = {{kMajorUUID, kMinorUUID, kLongFF0C, kReadUUID}},
                      .confirmations = 1,
                      .data = kReadUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "EachFullServiceConfirms",
                      .services = {{kMajorUUID, kMinorUUID, kWriteUUID, kReadUUID},
                                   {kWriteUUID, kReadUUID, kReadUUID, kWriteUUID}},
                      .confirmations = 2,
                      .data = kWriteUUID,
                      .major = true,
                      .minor = true},
        DiscoveryCase{.name = "NoServices", .services = {}},
        DiscoveryCase{.name = "EmptyService", .services = {{}}}),
    [](const auto& info) { return info.param.name; });

TEST(Discovery, ANewLinkOverwritesOnlyWhatItFinds) {
  FinderRig rig;
  auto full = rig.air->addDevice(beaconDevice("full", {service({kMajorUUID, kWriteUUID})}));
  rig.air->addDevice(beaconDevice("data", {service({kReadUUID})}));
  rig.connect("full");
  ASSERT_NE(rig.finder->majorCharacteristic(), nullptr);
  full->dropLink();
  rig.air->advance(1s);
  rig.connect("data");
  // The drop cleared everything; the second device fills only its own.
  EXPECT_EQ(rig.finder->majorCharacteristic(), nullptr);
  ASSERT_NE(rig.finder->dataCharacteristic(), nullptr);
  EXPECT_EQ(rig.finder->dataCharacteristic()->UUID(), kReadUUID);
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

}  // namespace
}  // namespace lumora::test
