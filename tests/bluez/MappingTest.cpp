// The pure translations between BlueZ's vocabulary and the radio interface.
// No bus needed.
#include <gtest/gtest.h>

#include "backends/bluez/Mapping.h"

namespace lumora::bluez {
namespace {

using Flags = std::vector<std::string>;

TEST(BlueZMapping, CharacteristicFlagsFollowPropertiesAndPermissions) {
  struct Case {
    std::uint8_t properties;
    std::uint8_t permissions;
    Flags flags;
  };
  // Plain "read" and "write" go through the bus in PeripheralTest and CentralTest.
  const Case cases[] = {
      {CBCharacteristicPropertyRead | CBCharacteristicPropertyNotify,
       CBAttributePermissionsReadEncryptionRequired,
       {"encrypt-read", "notify"}},
      {CBCharacteristicPropertyWriteWithoutResponse | CBCharacteristicPropertyWrite,
       CBAttributePermissionsWriteEncryptionRequired,
       {"write-without-response", "encrypt-write"}},
      {CBCharacteristicPropertyBroadcast | CBCharacteristicPropertyIndicate |
           CBCharacteristicPropertyAuthenticatedSignedWrites |
           CBCharacteristicPropertyExtendedProperties,
       0,
       {"broadcast", "indicate", "authenticated-signed-writes", "extended-properties"}},
      {0, 0, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.properties));
    const auto flags = characteristicFlags(c.properties, c.permissions);
    EXPECT_EQ(flags, c.flags);
    // What a remote BlueZ peer shows reads back as the same properties.
    EXPECT_EQ(characteristicProperties(flags), c.properties);
  }
  EXPECT_EQ(characteristicProperties({"secure-read", "reliable-write", "authorize", "bogus"}),
            CBCharacteristicPropertyRead | CBCharacteristicPropertyExtendedProperties);
}

TEST(BlueZMapping, ServerResultsBecomeTheErrorsBluetoothdTranslates) {
  struct Case {
    int result;
    const char* name;
    const char* message;
  };
  const Case cases[] = {
      // 0x03 and 0x0F are answered through the bus in PeripheralTest.
      {0x02, "org.bluez.Error.NotPermitted", "Read not permitted"},
      {0x06, "org.bluez.Error.NotSupported", "Request not supported"},
      {0x07, "org.bluez.Error.InvalidOffset", "Invalid offset"},
      {0x08, "org.bluez.Error.NotAuthorized", "Not authorized"},
      {0x0D, "org.bluez.Error.InvalidValueLength", "Invalid value length"},
      // No name of its own: 5.66 sends it as 0x0E.
      {0x0E, "org.bluez.Error.Failed", "0x0e"},
      // Application codes pass through.
      {0x9F, "org.bluez.Error.Failed", "0x9f"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.result);
    const auto error = serverError(static_cast<CBATTError>(c.result));
    ASSERT_TRUE(error);
    EXPECT_EQ(*error, (DBusError{c.name, c.message}));
  }
  EXPECT_FALSE(serverError(CBATTError::Success));
}

TEST(BlueZMapping, ClientErrorsSplitIntoAttAndLinkFailures) {
  struct Case {
    const char* name;
    const char* message;
    bool write;
    const std::string& domain;
    int code;
  };
  const Case cases[] = {
      {"org.bluez.Error.NotPermitted", "Read not permitted", false, CBATTErrorDomain, 0x02},
      {"org.bluez.Error.NotPermitted", "Not paired", false, CBATTErrorDomain, 0x05},
      {"org.bluez.Error.NotPermitted", "", true, CBATTErrorDomain, 0x03},
      {"org.bluez.Error.InvalidArguments", "Invalid offset", false, CBATTErrorDomain, 0x07},
      {"org.bluez.Error.InvalidArguments", "Invalid Length", true, CBATTErrorDomain, 0x0D},
      {"org.bluez.Error.NotAuthorized", "", false, CBATTErrorDomain, 0x08},
      {"org.bluez.Error.NotSupported", "", true, CBATTErrorDomain, 0x06},
      // "Operation failed with ATT error: 0x81" goes through the bus in CentralTest.
      {"org.bluez.Error.Failed", "Operation failed with ATT error: 0xzz", true, CBErrorDomain, 0},
      {"org.bluez.Error.Failed", "Not connected", false, CBErrorDomain, 3},
      {"org.bluez.Error.InProgress", "In Progress", false, CBErrorDomain, 0},
      {"org.freedesktop.DBus.Error.NoReply", "", false, CBErrorDomain, 6},
      {"org.freedesktop.DBus.Error.UnknownObject", "", true, CBErrorDomain, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.message);
    const auto error = clientError({c.name, c.message}, c.write);
    EXPECT_EQ(error.domain, c.domain);
    EXPECT_EQ(error.code, c.code);
    EXPECT_FALSE(error.text.empty());
  }
  EXPECT_EQ(connectError({"org.bluez.Error.Failed", "le-connection-timeout"}).code,
            static_cast<int>(CBError::ConnectionTimeout));
  const auto refused = connectError({"org.bluez.Error.Failed", "le-connection-abort-by-local"});
  EXPECT_EQ(refused.code, static_cast<int>(CBError::ConnectionFailed));
  EXPECT_NE(refused.text.find("le-connection-abort-by-local"), std::string::npos);
}

TEST(BlueZMapping, DevicePropertiesBecomeAnAdvertisement) {
  const Bytes payload = *bytesFromHex("0215 E2C56DB5DFFB48D2B060D0F5A71096E0 0001 0002 C5");
  dbus::Props device{
      {"Address", std::string("AA:BB:CC:DD:EE:01")},
      {"Name", std::string("12")},
      {"Alias", std::string("12")},
      {"ManufacturerData", std::map<std::uint16_t, Bytes>{{0x004C, payload}, {0x0590, {1}}}},
      {"UUIDs", std::vector<std::string>{"0000180f-0000-1000-8000-00805f9b34fb", "not-a-uuid"}},
      {"TxPower", std::int64_t{-59}},
  };
  auto ad = advertisementFromDevice(device);
  EXPECT_EQ(ad.localName, std::optional<std::string>("12"));
  Bytes expected{0x4C, 0x00};
  expected.insert(expected.end(), payload.begin(), payload.end());
  EXPECT_EQ(ad.manufacturerData, Data(expected));  // lowest company id, little-endian first
  EXPECT_EQ(ad.serviceUUIDs, std::vector<CBUUID>{CBUUID::UUIDWithString("180F")});
  EXPECT_EQ(ad.txPowerLevel, std::optional<int>(-59));

  struct NameCase {
    dbus::Props props;
    std::optional<std::string> name;
  };
  // The address-shaped alias goes through the bus in CentralTest.
  const NameCase names[] = {
      {{{"Alias", std::string("Kitchen")}}, std::string("Kitchen")},
      {{{"Alias", std::string("")}}, std::nullopt},
      // Wrong types (the stock dbusmock template sends aa{qv}) are ignored.
      {{{"Name", std::int64_t{5}}, {"ManufacturerData", std::monostate{}}}, std::nullopt},
  };
  for (const auto& c : names) {
    const auto result = advertisementFromDevice(c.props);
    EXPECT_EQ(result.localName, c.name);
    EXPECT_EQ(result.manufacturerData, std::nullopt);
  }
}

TEST(BlueZMapping, AdvertisementsArePlannedIntoLegacyLimits) {
  CBAdvertisementData beacon;
  beacon.manufacturerData =
      *bytesFromHex("4C00 0215 E2C56DB5DFFB48D2B060D0F5A71096E0 0001 0002 C5");
  beacon.localName = "12";
  beacon.serviceUUIDs = {CBUUID::UUIDWithString("FFF0")};
  auto plan = std::get<AdvertisementPlan>(planAdvertisement(beacon));
  EXPECT_EQ(plan.company, std::optional<std::uint16_t>(0x004C));
  EXPECT_EQ(plan.manufacturerPayload.size(), 23u);
  EXPECT_EQ(plan.manufacturerPayload.front(), 0x02);
  EXPECT_EQ(plan.dataLength, 27u);
  EXPECT_TRUE(plan.serviceUUIDs.empty());  // 4 more bytes do not fit beside the beacon
  EXPECT_EQ(plan.localName, std::optional<std::string>("12"));

  CBAdvertisementData services;
  services.serviceUUIDs = {CBUUID::UUIDWithString("FFF0"), CBUUID::UUIDWithString("FFF1"),
                           CBUUID::UUIDWithString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0")};
  plan = std::get<AdvertisementPlan>(planAdvertisement(services));
  EXPECT_EQ(plan.serviceUUIDs, (std::vector<std::string>{"0000fff0-0000-1000-8000-00805f9b34fb",
                                                         "0000fff1-0000-1000-8000-00805f9b34fb",
                                                         "e2c56db5-dffb-48d2-b060-d0f5a71096e0"}));
  EXPECT_EQ(plan.dataLength, 6u + 18u);

  CBAdvertisementData longName;
  longName.localName = std::string(28, 'a') + "\xC3\xA9";  // 30 bytes, the last character two
  plan = std::get<AdvertisementPlan>(planAdvertisement(longName));
  EXPECT_EQ(plan.localName, std::optional<std::string>(std::string(28, 'a')));

  struct Refusal {
    Data manufacturer;
    CBError code;
  };
  const Refusal refusals[] = {
      {Bytes{0x4C}, CBError::InvalidParameters},  // no room for a company id
      {Bytes(27, 0x11), CBError::OutOfSpace},     // 2 + 27 > 28
  };
  for (const auto& r : refusals) {
    CBAdvertisementData ad;
    ad.manufacturerData = r.manufacturer;
    const auto result = planAdvertisement(ad);
    ASSERT_TRUE(std::holds_alternative<Error>(result));
    EXPECT_EQ(std::get<Error>(result).code, static_cast<int>(r.code));
  }
  CBAdvertisementData largest;
  largest.manufacturerData = Bytes(26, 0x11);
  EXPECT_TRUE(std::holds_alternative<AdvertisementPlan>(planAdvertisement(largest)));
}

TEST(BlueZMapping, ObjectPaths) {
  EXPECT_EQ(handleFromPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01/service000a", "service"),
            std::optional<std::uint16_t>(0x000a));
  EXPECT_EQ(handleFromPath("/x/service000a/char00Ff", "char"), std::optional<std::uint16_t>(0xff));
  for (const char* bad : {"/x/service0a", "/x/service000g", "/x/char000b", "/x/service000ab", ""}) {
    EXPECT_EQ(handleFromPath(bad, "service"), std::nullopt) << bad;
  }
  EXPECT_EQ(addressFromDevicePath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"), "AA:BB:CC:DD:EE:01");
  for (const char* bad : {"/org/bluez/hci0", "/x/dev_AA_BB_CC_DD_EE", "/x/dev_AA:BB_CC_DD_EE_01",
                          "/x/dev_AA_BB_CC_DD_EE_0G"}) {
    EXPECT_EQ(addressFromDevicePath(bad), "") << bad;
  }
  EXPECT_EQ(devicePath("/org/bluez/hci1", "aa:bb:cc:dd:ee:01"),
            "/org/bluez/hci1/dev_AA_BB_CC_DD_EE_01");
  EXPECT_TRUE(isBelow("/org/bluez/hci0/dev_1", "/org/bluez/hci0"));
  EXPECT_FALSE(isBelow("/org/bluez/hci0", "/org/bluez/hci0"));
  EXPECT_FALSE(isBelow("/org/bluez/hci01", "/org/bluez/hci0"));
}

// Power, a missing adapter, bluetoothd restarting or absent and the bus going
// are driven through the bus in LifecycleTest; the rows left tell apart what
// one stand-in set-up changes together (roles and managers) or cannot make.
TEST(BlueZMapping, AdapterStateModel) {
  using S = CBManagerState;
  // A powered adapter with both managers, changed by `change`.
  const auto view = [](auto change) {
    AdapterView v;
    v.powered = v.advertisingManager = v.gattManager = true;
    change(v);
    return v;
  };
  const struct {
    const char* name;
    AdapterView view;
    S central, peripheral;
  } cases[] = {
      {"powered", view([](auto&) {}), S::PoweredOn, S::PoweredOn},
      {"no advertising manager", view([](auto& v) { v.advertisingManager = false; }), S::PoweredOn,
       S::Unsupported},
      {"central role only", view([](auto& v) { v.roles = std::vector<std::string>{"central"}; }),
       S::PoweredOn, S::Unsupported},
      {"denied", view([](auto& v) { v.accessDenied = true; }), S::Unauthorized, S::Unauthorized},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(centralState(c.view), c.central);
    EXPECT_EQ(peripheralState(c.view), c.peripheral);
  }
}

}  // namespace
}  // namespace lumora::bluez
