// The emulator's advertising life: configuration, start, restart, stop,
// destroy and the adapter's power state, watched at the radio.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Lumora/TQBeaconAP.h"
#include "emulator/EmulatorHarness.h"
#include "support/LogCapture.h"

namespace lumora::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class AdvertisingTest : public EmulatorTest {};

TEST_F(AdvertisingTest, StartsByItselfOncePoweredOnAndAdvertisesAfterTheServiceIsConfirmed) {
  LogCapture log;
  // Before any manager exists, start and stop refuse.
  auto bare = std::make_shared<TQBleProcess>();
  EXPECT_FALSE(bare->StartTQBeacon());
  EXPECT_FALSE(bare->StopTQBeacon());

  auto emulator = configured(kBeaconUuid, Number(1), Number(2), Number(-65));
  EXPECT_FALSE(emulator->is_TQBeaconState());
  EXPECT_THAT(log.lines(), ElementsAre("Peripheral Manager did change state"));
  // Nothing starts or stops until powered on; the manager is kept.
  const auto manager = peripheralManager.load();
  EXPECT_FALSE(emulator->StartTQBeacon());
  EXPECT_FALSE(emulator->StopTQBeacon());
  EXPECT_FALSE(emulator->is_TQBeaconState());
  EXPECT_EQ(peripheralManager.load(), manager);
  EXPECT_THAT(journal->since(), ElementsAre("openPeripheral"));

  // Power on: the emulator starts itself, without a call from the application.
  air->setAdapterState(CBManagerState::PoweredOn);
  air->settle();
  EXPECT_TRUE(emulator->is_TQBeaconState());  // before the service is confirmed
  EXPECT_EQ(journal->count("startAdvertising"), 0u);
  air->advance(100ms);
  EXPECT_THAT(journal->since(), ElementsAre("openPeripheral", "state 5", kAddService,
                                            "serviceAdded", "startAdvertising 12"));
  const auto ads = journal->advertised();
  ASSERT_EQ(ads.size(), 1u);
  EXPECT_EQ(decode(ads[0]), (Advertised{kBeaconUuid, 1, 2, -65, "12"}));
  const auto built = region.load();
  ASSERT_NE(built, nullptr);
  EXPECT_EQ(built->identifier(), BeaconIdentifier);
  EXPECT_EQ(built->proximityUUID(), kBeaconUuid);
  EXPECT_THAT(log.lines(), ElementsAre("Peripheral Manager did change state"));

  // One primary service, write then read characteristic, with no values of
  // their own: every write comes to the emulator, every read is asked of the
  // application.
  const auto services = journal->services();
  ASSERT_EQ(services.size(), 1u);
  EXPECT_EQ(services[0].uuid, kServiceUuid);
  EXPECT_TRUE(services[0].primary);
  ASSERT_EQ(services[0].characteristics.size(), 2u);
  const auto& write = services[0].characteristics[0];
  const auto& read = services[0].characteristics[1];
  EXPECT_EQ(std::tuple(write.uuid, write.properties, write.permissions, write.value),
            std::tuple(kWriteChar, CBCharacteristicPropertyWrite, CBAttributePermissionsWriteable,
                       Data()));
  EXPECT_EQ(
      std::tuple(read.uuid, read.properties, read.permissions, read.value),
      std::tuple(kReadChar, CBCharacteristicPropertyRead, CBAttributePermissionsReadable, Data()));
}

TEST_F(AdvertisingTest, RestartStopsAdvertisingFirstAndPublishesASecondService) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2));
  powerOn();
  auto mark = journal->size();

  EXPECT_TRUE(emulator->StartTQBeacon());
  EXPECT_TRUE(emulator->is_TQBeaconState());  // before the service is confirmed
  EXPECT_THAT(journal->since(mark), ElementsAre("stopAdvertising", kAddService));
  air->advance(100ms);
  EXPECT_THAT(journal->since(mark),
              ElementsAre("stopAdvertising", kAddService, "serviceAdded", "startAdvertising 12"));
  // A central sees the published layout; the earlier copy stays until a stop.
  auto central = connectedCentral("12");
  const std::pair expected(kServiceUuid, std::vector<CBUUID>{kWriteChar, kReadChar});
  EXPECT_THAT(central->discover(), ElementsAre(expected, expected));
}

TEST_F(AdvertisingTest, StopReleasesTheManagerAndDestroyDoesWithoutAskingAnythingOfIt) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2));
  powerOn();
  auto mark = journal->size();
  EXPECT_TRUE(emulator->StopTQBeacon());
  EXPECT_FALSE(emulator->is_TQBeaconState());
  EXPECT_EQ(peripheralManager.load(), nullptr);
  air->advance(100ms);
  auto after = journal->since(mark);
  ASSERT_GE(after.size(), 2u);
  EXPECT_EQ(after[0], "stopAdvertising");
  EXPECT_EQ(after[1], "removeAllServices");
  EXPECT_FALSE(air->addCentral()->connectByName("12"));  // no longer to be found
  EXPECT_FALSE(emulator->StartTQBeacon());
  EXPECT_FALSE(emulator->StopTQBeacon());
  // Region and power outlive the manager.
  EXPECT_NE(region.load(), nullptr);
  EXPECT_TRUE(power.load().has_value());

  // A new configuration brings a new manager, which a destroy lets go of.
  emulator->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
  EXPECT_NE(peripheralManager.load(), nullptr);
  EXPECT_EQ(journal->count("openPeripheral"), 2u);
  air->advance(100ms);
  ASSERT_TRUE(emulator->is_TQBeaconState());
  mark = journal->size();
  emulator->DestroyTQBeacon();
  EXPECT_FALSE(emulator->is_TQBeaconState());
  EXPECT_EQ(peripheralManager.load(), nullptr);
  air->advance(100ms);
  for (const auto& entry : journal->since(mark)) {
    EXPECT_NE(entry, "stopAdvertising");
    EXPECT_NE(entry, "removeAllServices");
  }
  EXPECT_FALSE(emulator->StartTQBeacon());
  EXPECT_NE(region.load(), nullptr);
}

TEST_F(AdvertisingTest, AdapterOffKeepsTheStartedFlagAndPowerOnRestarts) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2));
  powerOn();
  LogCapture log;
  auto manager = peripheralManager.load();

  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(100ms);
  EXPECT_THAT(log.lines(), ElementsAre("Peripheral Manager did change state"));
  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_FALSE(emulator->StopTQBeacon());
  EXPECT_EQ(peripheralManager.load(), manager);
  EXPECT_TRUE(emulator->is_TQBeaconState());

  auto mark = journal->size();
  powerOn();
  auto after = journal->since(mark);
  std::erase_if(after, [](const std::string& e) { return e.starts_with("state"); });
  EXPECT_THAT(after,
              ElementsAre("stopAdvertising", kAddService, "serviceAdded", "startAdvertising 12"));
  EXPECT_TRUE(emulator->is_TQBeaconState());
}

// Three ways to end up started but silent: disabled, a failed registration,
// no UUID to advertise.
enum class Silent { Disabled, FailedRegistration, NoUuid };

class SilentTest : public EmulatorTest, public ::testing::WithParamInterface<Silent> {};

TEST_P(SilentTest, StartedButNeverAdvertising) {
  const Silent why = GetParam();
  if (why == Silent::FailedRegistration) {
    air->failNextServiceRegistration(
        Error{CBErrorDomain, static_cast<int>(CBError::Unknown), "no"});
  }
  auto emulator = configured(why == Silent::NoUuid ? std::nullopt : std::optional(kBeaconUuid),
                             Number(1), Number(2));
  if (why == Silent::Disabled) emulator->setEnabled(false);
  LogCapture log;
  powerOn();
  if (why == Silent::Disabled) {
    EXPECT_TRUE(emulator->StartTQBeacon());  // accepted all the same
  }
  air->advance(1s);

  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_EQ(journal->count("addService"), why == Silent::Disabled ? 0u : 1u);
  EXPECT_EQ(journal->count("serviceAdded error"), why == Silent::FailedRegistration ? 1u : 0u);
  EXPECT_EQ(journal->count("startAdvertising"), 0u);
  EXPECT_EQ(region.load(), nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(air->addCentral()->connectByName("12"));
}

INSTANTIATE_TEST_SUITE_P(Ways, SilentTest,
                         ::testing::Values(Silent::Disabled, Silent::FailedRegistration,
                                           Silent::NoUuid));

TEST_F(AdvertisingTest, IdentityAndPowerAreReplacedUntilARegionExistsAndKeptAfterwards) {
  const auto defaultPower = TQBeaconAP::sharedDefaults()->defaultPower();
  ASSERT_TRUE(defaultPower);
  // The adapter is off, so no region exists between these calls.
  auto first = std::make_shared<TQBleProcess>();
  first->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), Number(-70));
  EXPECT_EQ(power.load(), Number(-70));
  first->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
  EXPECT_EQ(power.load(), defaultPower);  // replaced even by null, then defaulted
  EXPECT_EQ(power.load()->intValue(), -59);
  first->initStartTQBeacon(kOtherUuid, Number(3), Number(4), Number(-40));
  EXPECT_EQ(power.load(), Number(-40));
  EXPECT_EQ(first->uuid(), kOtherUuid);
  EXPECT_EQ(first->major(), Number(3));
  powerOn();
  ASSERT_NE(region.load(), nullptr);
  EXPECT_EQ(decode(journal->advertised().back()), (Advertised{kOtherUuid, 3, 4, -40, "34"}));

  // Once a region exists every configuration keeps its identity and power.
  auto second = configured(kBeaconUuid, Number(100), Number(200), Number(-70));
  EXPECT_EQ(second->uuid(), kOtherUuid);
  EXPECT_EQ(second->major(), Number(3));
  EXPECT_EQ(second->minor(), Number(4));
  EXPECT_EQ(power.load(), Number(-40));
  EXPECT_EQ(peripheralManager.load()->delegate().get(),
            static_cast<CBPeripheralManagerDelegate*>(second.get()));
  // Even after the manager was released and made anew.
  second->DestroyTQBeacon();
  air->setAdapterState(CBManagerState::PoweredOff);
  auto third = configured(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(third->uuid(), kOtherUuid);
  EXPECT_EQ(third->major(), Number(3));
  powerOn();
  EXPECT_EQ(decode(journal->advertised().back()), (Advertised{kOtherUuid, 3, 4, -40, "34"}));
}

// The adapter is on before the emulator exists: the manager's first report is
// what starts it, as in an application's usual run.
TEST_F(AdapterOnTest, FirstReportOfANewManagerStartsTheEmulator) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2));
  air->advance(100ms);
  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_EQ(journal->count("startAdvertising 12"), 1u);

  // So does the first report of the manager that a configuration after a stop makes.
  ASSERT_TRUE(emulator->StopTQBeacon());
  emulator->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
  air->advance(100ms);
  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_EQ(journal->count("startAdvertising 12"), 2u);
}

struct Identity {
  long long major, minor;
  std::uint16_t advertisedMajor, advertisedMinor;
  const char* localName;
};

class IdentityTest : public EmulatorTest, public ::testing::WithParamInterface<Identity> {};

TEST_P(IdentityTest, AdvertisesSixteenBitNumbersAndTheirHexName) {
  const auto& row = GetParam();
  auto emulator = configured(kBeaconUuid, Number(row.major), Number(row.minor), Number(-59));
  powerOn();
  const auto ads = journal->advertised();
  ASSERT_EQ(ads.size(), 1u);
  EXPECT_EQ(decode(ads[0]), (Advertised{kBeaconUuid, row.advertisedMajor, row.advertisedMinor, -59,
                                        row.localName}));
}

INSTANTIATE_TEST_SUITE_P(Numbers, IdentityTest,
                         // Unpadded hex: 18/3 and 1/35 share a name; numbers wrap to 16 bits.
                         ::testing::Values(Identity{4660, 171, 4660, 171, "1234ab"},
                                           Identity{0, 0, 0, 0, "00"},
                                           Identity{18, 3, 18, 3, "123"},
                                           Identity{1, 35, 1, 35, "123"},
                                           Identity{70000, 1, 4464, 1, "11701"},
                                           Identity{-1, -2, 65535, 65534, "fffffffe"}));

}  // namespace
}  // namespace lumora::test
