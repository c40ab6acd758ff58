// CBUUID forms, the advertisement dictionary and the process-wide radio slot.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "CoreBluetooth/CBAdvertisementData.h"
#include "CoreBluetooth/CBUUID.h"
#include "support/FakeRadio.h"

namespace lumora {
namespace {

// Every text form parses to the value that prints in its shortest form and
// is sent as the shortest bytes; forms of one value compare equal.
TEST(CBUUID, ParsesEveryFormAndPrintsTheShortestOne) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // text, UUIDString(), data()
      {"FF0C", "FF0C", "<ff0c>"},
      {"ff0c", "FF0C", "<ff0c>"},
      {"0000", "0000", "<0000>"},
      {"0000ff0c-0000-1000-8000-00805f9b34fb", "FF0C", "<ff0c>"},  // long form on the base
      {"0000FF0C", "FF0C", "<ff0c>"},                              // 32-bit text of a 16-bit value
      {"12345678", "12345678", "<12345678>"},
      {"12345678-0000-1000-8000-00805F9B34FB", "12345678", "<12345678>"},
      {"b0702882-a295-a8ab-f734-031a98a512de", "B0702882-A295-A8AB-F734-031A98A512DE",
       "<b0702882a295a8abf734031a98a512de>"},
      // One byte off the base: not an alias.
      {"0000FF0C-0000-1000-8000-00805F9B34FC", "0000FF0C-0000-1000-8000-00805F9B34FC",
       "<0000ff0c00001000800000805f9b34fc>"},
  };
  for (const auto& [text, printed, bytes] : cases) {
    SCOPED_TRACE(text);
    const auto uuid = CBUUID::UUIDWithString(text);
    EXPECT_EQ(uuid.UUIDString(), printed);
    EXPECT_EQ(test::hex(uuid.data()), bytes);
    // What is printed and what is sent on the air read back as the same UUID.
    EXPECT_EQ(CBUUID::UUIDWithString(uuid.UUIDString()), uuid);
    EXPECT_EQ(CBUUID::fromData(uuid.data()), uuid);
    EXPECT_TRUE(uuid.isEqual(text));
    EXPECT_EQ(uuid.shortValue().has_value(), std::string_view(printed).size() == 4);
  }
  const auto ff0c = CBUUID::UUIDWithString("FF0C");
  EXPECT_EQ(ff0c, CBUUID::fromUInt16(0xFF0C));
  EXPECT_EQ(ff0c, CBUUID::fromUInt32(0x0000FF0C));
  EXPECT_EQ(ff0c.shortValue(), std::optional<std::uint16_t>(0xFF0C));
  EXPECT_EQ(CBUUID::fromUInt32(0x12345678), CBUUID::UUIDWithString("12345678"));
  EXPECT_EQ(CBUUID(), CBUUID::UUIDWithString("0000"));
  EXPECT_NE(ff0c, CBUUID::UUIDWithString("FF0C0000"));
  EXPECT_FALSE(ff0c.isEqual("FFCC"));
  const auto proximity = CBUUID::UUIDWithString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  EXPECT_TRUE(proximity.isEqual(CBUUID::fromUuid(proximity.uuid())));
}

TEST(CBUUID, RejectsMalformedText) {
  // Wrong lengths (the 36-character one is 35 long), blanks, a wrong
  // separator, a digit that is not hex.
  const char* bad[] = {"",
                       "FF0",
                       "1234567",
                       "GGGG",
                       " FF0C",
                       "FF0C ",
                       "0000FF0C-0000-1000-8000-00805F9B34F",
                       "0000FF0C+0000-1000-8000-00805F9B34FB",
                       "0000FF0C-0000-1000-8000-00805F9B34FG"};
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    EXPECT_EQ(CBUUID::fromString(text), std::nullopt);
    EXPECT_THROW(CBUUID::UUIDWithString(text), std::invalid_argument);
    EXPECT_FALSE(CBUUID().isEqual(text));  // "0000" never equals garbage
  }
  for (const Bytes& data : {Bytes{0xFF}, Bytes{0x00, 0xFF, 0x0C}, Bytes(17, 0)}) {
    EXPECT_EQ(CBUUID::fromData(data), std::nullopt) << data.size() << " bytes";
  }
}

TEST(CBAdvertisementData, DictionaryViewTakesOnlyValuesOfTheRightKind) {
  CBAdvertisementData ad;
  EXPECT_TRUE(ad.setObject(std::string("12"), "kCBAdvDataLocalName"));
  EXPECT_TRUE(ad.setObject(Bytes{0x4C, 0x00}, CBAdvertisementDataManufacturerDataKey));
  EXPECT_TRUE(ad.setObject(Number(-59.7), CBAdvertisementDataTxPowerLevelKey));
  EXPECT_TRUE(ad.setObject(Number(true), CBAdvertisementDataIsConnectable));

  EXPECT_FALSE(ad.setObject(Number(1), CBAdvertisementDataLocalNameKey));
  EXPECT_FALSE(ad.setObject(std::string("x"), CBAdvertisementDataTxPowerLevelKey));
  EXPECT_FALSE(ad.setObject(std::string("FF0C"), CBAdvertisementDataServiceUUIDsKey));
  EXPECT_FALSE(ad.setObject(std::string("x"), "kCBAdvDataSomethingElse"));

  EXPECT_EQ(ad.localName, "12");
  EXPECT_EQ(ad.manufacturerData, Data(Bytes{0x4C, 0x00}));
  EXPECT_EQ(ad.txPowerLevel, -59);
  EXPECT_EQ(ad.isConnectable, true);
  EXPECT_EQ(stringValue(ad.objectForKey(CBAdvertisementDataLocalNameKey)), "12");
  EXPECT_EQ(numberValue(ad.objectForKey("kCBAdvDataTxPowerLevel"))->intValue(), -59);
  EXPECT_TRUE(numberValue(ad.objectForKey("kCBAdvDataIsConnectable"))->boolValue());
  EXPECT_EQ(ad.objectForKey("kCBAdvDataManufacturerData"),
            std::optional<Object>(Bytes{0x4C, 0x00}));
  EXPECT_EQ(CBAdvertisementData().objectForKey(CBAdvertisementDataLocalNameKey), std::nullopt);
}

TEST(Backend, CurrentIsOneSlotSharedByEveryThread) {
  auto a = std::make_shared<test::FakeRadio>();
  auto b = std::make_shared<test::FakeRadio>();
  radio::Backend::setCurrent(a);
  EXPECT_EQ(radio::Backend::current(), a);
  // Readers always get one of the installed radios, never a torn or dropped one.
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) radio::Backend::setCurrent(i % 2 ? a : b);
  });
  for (int i = 0; i < 2000; ++i) {
    const auto current = radio::Backend::current();
    ASSERT_TRUE(current == a || current == b);
  }
  writer.join();
  radio::Backend::setCurrent(b);
  EXPECT_EQ(radio::Backend::current(), b);
  radio::Backend::setCurrent(nullptr);
}

}  // namespace
}  // namespace lumora
