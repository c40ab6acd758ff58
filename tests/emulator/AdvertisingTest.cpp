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
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), Number(-65));
  EXPECT_TRUE(emulator->enabled());
  EXPECT_FALSE(emulator->is_TQBeaconState());
  ASSERT_NE(emulator->numberFormatter(), nullptr);
  EXPECT_EQ(emulator->numberFormatter()->numberStyle(), NSNumberFormatter::DecimalStyle);
  EXPECT_THAT(log.lines(), ElementsAre("Peripheral Manager did change state"));

  air->setAdapterState(CBManagerState::PoweredOn);
  air->settle();
  EXPECT_TRUE(emulator->is_TQBeaconState());  // before the service is confirmed
  EXPECT_EQ(journal->count("startAdvertising"), 0u);
  air->advance(100ms);

  EXPECT_THAT(journal->entries(), ElementsAre("openPeripheral", "state 5",
                                              "addService CC00FFC0-0451-4000-B000-000000000000",
                                              "serviceAdded", "startAdvertising 12"));
  auto ads = radioLog->advertised();
  ASSERT_EQ(ads.size(), 1u);
  auto ad = decode(ads[0]);
  ASSERT_TRUE(ad);
  EXPECT_EQ(ad->uuid, kBeaconUuid);
  EXPECT_EQ(ad->major, 1);
  EXPECT_EQ(ad->minor, 2);
  EXPECT_EQ(ad->measuredPower, -65);
  EXPECT_EQ(ad->localName, "12");

  auto built = region.load();
  ASSERT_NE(built, nullptr);
  EXPECT_EQ(built->identifier(), BeaconIdentifier);
  EXPECT_EQ(built->proximityUUID(), kBeaconUuid);
  EXPECT_THAT(log.lines(), ElementsAre("Peripheral Manager did change state"));
}

TEST_F(AdvertisingTest, PublishesOnePrimaryServiceWithWriteThenReadCharacteristic) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  powerOn();

  auto services = radioLog->added();
  ASSERT_EQ(services.size(), 1u);
  const auto& service = services[0];
  EXPECT_EQ(service.uuid, kServiceUuid);
  EXPECT_TRUE(service.primary);
  ASSERT_EQ(service.characteristics.size(), 2u);
  const auto& write = service.characteristics[0];
  const auto& read = service.characteristics[1];
  EXPECT_EQ(write.uuid, kWriteChar);
  EXPECT_EQ(write.properties, CBCharacteristicPropertyWrite);
  EXPECT_EQ(write.permissions, CBAttributePermissionsWriteable);
  EXPECT_FALSE(write.value.has_value());  // every write comes to the emulator
  EXPECT_EQ(read.uuid, kReadChar);
  EXPECT_EQ(read.properties, CBCharacteristicPropertyRead);
  EXPECT_EQ(read.permissions, CBAttributePermissionsReadable);
  EXPECT_FALSE(read.value.has_value());  // every read is asked of the application

  // The instance keeps the objects it published.
  ASSERT_NE(emulator->customService(), nullptr);
  EXPECT_EQ(emulator->customService()->UUID(), kServiceUuid);
  EXPECT_EQ(emulator->customCharacteristic_Write()->UUID(), kWriteChar);
  EXPECT_EQ(emulator->customCharacteristic_Read()->UUID(), kReadChar);
  EXPECT_EQ(emulator->customCharacteristic_Write()->permissions(), CBAttributePermissionsWriteable);

  // A central sees the same layout, in the same order.
  auto central = connectedCentral("12");
  auto discovered = central->discover();
  ASSERT_EQ(discovered.size(), 1u);
  EXPECT_EQ(discovered[0].first, kServiceUuid);
  EXPECT_THAT(discovered[0].second, ElementsAre(kWriteChar, kReadChar));
}

TEST_F(AdvertisingTest, NothingStartsOrStopsUntilPoweredOn) {
  LogCapture log;
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);

  EXPECT_THAT(log.lines(), ElementsAre("Peripheral Manager did change state"));
  EXPECT_FALSE(emulator->StartTQBeacon());
  EXPECT_FALSE(emulator->is_TQBeaconState());
  auto manager = peripheralManager.load();
  EXPECT_FALSE(emulator->StopTQBeacon());
  EXPECT_EQ(peripheralManager.load(), manager);  // kept
  EXPECT_EQ(journal->count("addService"), 0u);
  EXPECT_EQ(journal->count("stopAdvertising"), 0u);
  EXPECT_EQ(journal->count("removeAllServices"), 0u);

  // Power on: the emulator starts itself, without a call from the application.
  powerOn();
  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_EQ(journal->count("startAdvertising 12"), 1u);
}

TEST_F(AdvertisingTest, WithoutAManagerStartAndStopRefuse) {
  auto emulator = std::make_shared<TQBleProcess>();
  EXPECT_FALSE(emulator->StartTQBeacon());
  EXPECT_FALSE(emulator->StopTQBeacon());
  EXPECT_FALSE(emulator->is_TQBeaconState());
  EXPECT_EQ(peripheralManager.load(), nullptr);
}

TEST_F(AdvertisingTest, RestartStopsAdvertisingFirstAndPublishesASecondService) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  powerOn();
  auto mark = journal->size();

  EXPECT_TRUE(emulator->StartTQBeacon());
  EXPECT_TRUE(emulator->is_TQBeaconState());  // before the service is confirmed
  EXPECT_THAT(journal->since(mark),
              ElementsAre("stopAdvertising", "addService CC00FFC0-0451-4000-B000-000000000000"));
  air->advance(100ms);
  EXPECT_THAT(journal->since(mark),
              ElementsAre("stopAdvertising", "addService CC00FFC0-0451-4000-B000-000000000000",
                          "serviceAdded", "startAdvertising 12"));

  auto central = connectedCentral("12");
  auto discovered = central->discover();
  ASSERT_EQ(discovered.size(), 2u);  // the earlier copy stays until a stop
  EXPECT_EQ(discovered[0].first, kServiceUuid);
  EXPECT_EQ(discovered[1].first, kServiceUuid);
  EXPECT_THAT(discovered[1].second, ElementsAre(kWriteChar, kReadChar));
}

TEST_F(AdvertisingTest, StopWhilePoweredOnReleasesTheManagerAndLaterStartsRefuse) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
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

  EXPECT_FALSE(emulator->StartTQBeacon());
  EXPECT_FALSE(emulator->StopTQBeacon());
  // Region and power outlive the manager.
  EXPECT_NE(region.load(), nullptr);
  EXPECT_TRUE(power.load().has_value());

  // A new configuration brings a new manager.
  emulator->initStartTQBeacon(kBeaconUuid, Number(1), Number(2), std::nullopt);
  EXPECT_NE(peripheralManager.load(), nullptr);
  EXPECT_EQ(journal->count("openPeripheral"), 2u);
}

TEST_F(AdvertisingTest, DestroyReleasesTheManagerWithoutAskingAnythingOfIt) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  powerOn();
  auto mark = journal->size();

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
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
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
              ElementsAre("stopAdvertising", "addService CC00FFC0-0451-4000-B000-000000000000",
                          "serviceAdded", "startAdvertising 12"));
  EXPECT_TRUE(emulator->is_TQBeaconState());
}

TEST_F(AdvertisingTest, DisabledStartIsAcceptedButPublishesNothing) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  emulator->setEnabled(false);
  powerOn();

  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_TRUE(emulator->StartTQBeacon());
  air->advance(100ms);
  EXPECT_EQ(journal->count("addService"), 0u);
  EXPECT_EQ(journal->count("startAdvertising"), 0u);
  EXPECT_EQ(region.load(), nullptr);
}

TEST_F(AdvertisingTest, FailedRegistrationLeavesItStartedSilentAndNeverAdvertising) {
  air->failNextServiceRegistration(Error{CBErrorDomain, static_cast<int>(CBError::Unknown), "no"});
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  LogCapture log;
  powerOn();
  air->advance(1s);

  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_EQ(journal->count("serviceAdded error"), 1u);
  EXPECT_EQ(journal->count("startAdvertising"), 0u);
  EXPECT_EQ(region.load(), nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(air->addCentral()->connectByName("12"));
}

TEST_F(AdvertisingTest, WithoutAUuidNoRegionIsBuiltAndNothingIsAdvertised) {
  auto emulator = configured(std::nullopt, Number(1), Number(2), std::nullopt);
  powerOn();
  EXPECT_TRUE(emulator->is_TQBeaconState());
  EXPECT_EQ(journal->count("serviceAdded"), 1u);
  EXPECT_EQ(journal->count("startAdvertising"), 0u);
  EXPECT_EQ(region.load(), nullptr);
}

TEST_F(AdvertisingTest, PowerIsReplacedUntilARegionExistsAndDefaultsWhenNull) {
  auto defaultPower = TQBeaconAP::sharedDefaults()->defaultPower();
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
  auto ads = radioLog->advertised();
  ASSERT_FALSE(ads.empty());
  EXPECT_EQ(decode(ads.back())->measuredPower, -40);
}

TEST_F(AdvertisingTest, OnceARegionExistsEveryConfigurationKeepsItsIdentityAndPower) {
  auto first = configured(kBeaconUuid, Number(7), Number(9), Number(-70));
  powerOn();
  ASSERT_NE(region.load(), nullptr);

  auto second = configured(kOtherUuid, Number(100), Number(200), Number(-40));
  EXPECT_EQ(second->uuid(), kBeaconUuid);
  EXPECT_EQ(second->major(), Number(7));
  EXPECT_EQ(second->minor(), Number(9));
  EXPECT_EQ(power.load(), Number(-70));
  EXPECT_EQ(peripheralManager.load()->delegate().get(),
            static_cast<CBPeripheralManagerDelegate*>(second.get()));

  // Even after the manager was released and made anew.
  second->DestroyTQBeacon();
  air->setAdapterState(CBManagerState::PoweredOff);
  auto third = configured(std::nullopt, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(third->uuid(), kBeaconUuid);
  EXPECT_EQ(third->major(), Number(7));
  powerOn();
  auto ad = decode(radioLog->advertised().back());
  ASSERT_TRUE(ad);
  EXPECT_EQ(ad->uuid, kBeaconUuid);
  EXPECT_EQ(ad->localName, "79");
  EXPECT_EQ(ad->measuredPower, -70);
}

TEST_F(AdvertisingTest, TwoInstancesShareOneManagerAndTheLastConfiguredIsCalledBack) {
  auto first = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  auto manager = peripheralManager.load();
  auto second = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
  EXPECT_EQ(peripheralManager.load(), manager);
  EXPECT_EQ(journal->count("openPeripheral"), 1u);

  powerOn();
  EXPECT_FALSE(first->is_TQBeaconState());  // the powered-on report went to the second
  EXPECT_TRUE(second->is_TQBeaconState());

  // Stopping through either releases the manager for both.
  EXPECT_TRUE(first->StopTQBeacon());
  EXPECT_FALSE(second->StartTQBeacon());
}

// The adapter is on before the emulator exists: the manager's first report is
// what starts it, as in an application's usual run.
TEST_F(AdapterOnTest, FirstReportOfANewManagerStartsTheEmulator) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt);
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
  long long major;
  long long minor;
  std::uint16_t advertisedMajor;
  std::uint16_t advertisedMinor;
  const char* localName;
};

class IdentityTest : public EmulatorTest, public ::testing::WithParamInterface<Identity> {};

TEST_P(IdentityTest, AdvertisesSixteenBitNumbersAndTheirHexName) {
  const auto& row = GetParam();
  auto heard = std::make_shared<std::vector<radio::AdvertisingReport>>();
  auto heardMutex = std::make_shared<std::mutex>();
  auto observation = air->observeAdvertisements([heard, heardMutex](const auto& report) {
    std::lock_guard lock(*heardMutex);
    heard->push_back(report);
  });

  auto emulator = configured(kBeaconUuid, Number(row.major), Number(row.minor), Number(-59));
  powerOn();
  air->advance(500ms);

  auto ads = radioLog->advertised();
  ASSERT_EQ(ads.size(), 1u);
  auto ad = decode(ads[0]);
  ASSERT_TRUE(ad);
  EXPECT_EQ(ad->major, row.advertisedMajor);
  EXPECT_EQ(ad->minor, row.advertisedMinor);
  EXPECT_EQ(ad->localName, row.localName);
  ASSERT_NE(region.load(), nullptr);
  EXPECT_EQ(region.load()->major(), Number(static_cast<unsigned>(row.advertisedMajor)));
  EXPECT_EQ(region.load()->minor(), Number(static_cast<unsigned>(row.advertisedMinor)));

  // And that is what goes on the air.
  std::lock_guard lock(*heardMutex);
  auto match = std::find_if(heard->begin(), heard->end(), [&](const auto& report) {
    return report.advertisement.localName == std::string(row.localName) &&
           report.advertisement.manufacturerData == ads[0].manufacturerData;
  });
  EXPECT_NE(match, heard->end());
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, IdentityTest,
    ::testing::Values(Identity{1, 2, 1, 2, "12"}, Identity{4660, 171, 4660, 171, "1234ab"},
                      Identity{0, 0, 0, 0, "00"}, Identity{18, 3, 18, 3, "123"},
                      Identity{1, 35, 1, 35, "123"}, Identity{70000, 1, 4464, 1, "11701"},
                      Identity{-1, 0, 65535, 0, "ffff0"}, Identity{65536, -2, 0, 65534, "0fffe"}));

}  // namespace
}  // namespace lumora::test
