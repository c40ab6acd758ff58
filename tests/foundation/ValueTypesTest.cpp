// Bytes text forms and UUIDs: the value types every layer passes around.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <unordered_set>

#include "Foundation/Bytes.h"
#include "Foundation/Uuid.h"

namespace lumora {
namespace {

TEST(Bytes, DescriptionMatchesPlatformTextAndReadsBack) {
  const std::pair<Data, const char*> cases[] = {
      {std::nullopt, "(null)"},
      {Bytes{}, "<>"},
      {Bytes{0x4C, 0x00, 0x02, 0x15}, "<4c000215>"},
      {Bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06}, "<01020304 0506>"},
      {Bytes{0xAB, 0xCD, 0xEF, 0xFF, 0x10, 0x20, 0x30, 0x40}, "<abcdefff 10203040>"},
      {Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9}, "<01020304 05060708 09>"},
  };
  for (const auto& [data, text] : cases) EXPECT_EQ(description(data), text);

  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<std::uint8_t>(i));
  const std::string text = description(all);
  EXPECT_EQ(bytesFromHex(text.substr(1, text.size() - 2)), all);  // without the brackets
}

TEST(Bytes, FromHexAcceptsSeparatorsBetweenPairsOnly) {
  const Bytes abc = {0x4C, 0x00, 0x02};
  const std::pair<const char*, std::optional<Bytes>> cases[] = {
      {"", Bytes{}},
      {"4C0002", abc},
      {"4c 00 02", abc},
      {"4C:00:02", abc},
      {"4C-00-02", abc},
      {"  aBcD  ", Bytes{0xAB, 0xCD}},
      {"4C0", std::nullopt},     // odd number of digits
      {"4 C", std::nullopt},     // separator inside a pair
      {"0x4C", std::nullopt},    // prefix is not hex
      {"4G", std::nullopt},      // not a digit
      {"4C\n00", std::nullopt},  // only blanks, colons and dashes separate
  };
  for (const auto& [text, bytes] : cases)
    EXPECT_EQ(bytesFromHex(text), bytes) << '"' << text << '"';
}

TEST(Uuid, ParsesOnlyTheCanonicalShape) {
  const char* valid[] = {"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
                         "e2C56dB5-DFfb-48d2-B060-d0F5A71096e0"};
  for (const char* text : valid) {
    const auto u = Uuid::fromString(text);
    ASSERT_TRUE(u) << text;
    EXPECT_EQ(u->UUIDString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  }
  const char* invalid[] = {
      "",
      "E2C56DB5DFFB48D2B060D0F5A71096E0",       // no hyphens
      "E2C56DB5-DFFB-48D2-B060-D0F5A71096E",    // 35 characters
      "E2C56DB5-DFFB-48D2-B060-D0F5A71096E00",  // 37 characters
      "E2C56DB5-DFFB-48D2-B060D-0F5A71096E0",   // hyphen moved
      "E2C56DB5-DFFB-48D2-B060-D0F5A71096EG",   // not hex
      "{2C56DB5-DFFB-48D2-B060-D0F5A71096E}",
      "E2C56DB5-DFFB-48D2-B060-D0F5A7109-E0",  // extra hyphen in place of a digit
  };
  for (const char* text : invalid) EXPECT_FALSE(Uuid::fromString(text)) << text;
}

TEST(Uuid, KeepsBytesInTextOrderAndWritesExactly36Characters) {
  const auto u = Uuid::fromString("e2c56db5-dffb-48d2-b060-d0f5a71096e0");
  ASSERT_TRUE(u);
  const Uuid::Storage expected = {0xE2, 0xC5, 0x6D, 0xB5, 0xDF, 0xFB, 0x48, 0xD2,
                                  0xB0, 0x60, 0xD0, 0xF5, 0xA7, 0x10, 0x96, 0xE0};
  EXPECT_EQ(u->bytes(), expected);
  EXPECT_EQ(Uuid::fromBytes(expected.data()), *u);
  char out[38];
  std::fill(std::begin(out), std::end(out), '#');
  u->writeString(out);
  EXPECT_EQ(std::string(out, 36), u->UUIDString());
  EXPECT_EQ(out[36], '#') << "writeString wrote past the 36 characters";
}

TEST(Uuid, RandomIsVersion4AndUniqueAndHashesApart) {
  std::set<Uuid> seen;
  std::unordered_set<std::size_t> hashes;
  UuidText reused;
  EXPECT_EQ(reused, Uuid().UUIDString());
  for (int i = 0; i < 1000; ++i) {
    const Uuid u = Uuid::random();
    EXPECT_EQ(u.bytes()[6] >> 4, 4);
    EXPECT_EQ(u.bytes()[8] & 0xC0, 0x80);
    EXPECT_EQ(Uuid::fromString(u.UUIDString()), u);
    // The inline text and a reused one rewritten in place say the same.
    UuidText text(u);
    EXPECT_EQ(text, u.UUIDString());
    reused.assign(u);
    EXPECT_EQ(reused, text);
    EXPECT_EQ(std::strlen(reused.c_str()), UuidText::size());
    seen.insert(u);
    hashes.insert(std::hash<Uuid>{}(Uuid::nameBased(Uuid(), std::to_string(i))));
  }
  EXPECT_EQ(seen.size(), 1000u);
  EXPECT_GT(hashes.size(), 990u);
  // Uuids differing in the last byte only hash apart.
  Uuid::Storage a{}, b{};
  b[15] = 1;
  EXPECT_NE(std::hash<Uuid>{}(Uuid(a)), std::hash<Uuid>{}(Uuid(b)));
}

TEST(Uuid, NameBasedMatchesVersion5Vectors) {
  const auto dns = *Uuid::fromString("6ba7b810-9dad-11d1-80b4-00c04fd430c8");
  const auto url = *Uuid::fromString("6ba7b811-9dad-11d1-80b4-00c04fd430c8");
  const std::tuple<Uuid, std::string, const char*> cases[] = {
      {dns, "python.org", "886313E1-3B8A-5372-9B90-0C9AEE199E5D"},
      {url, "", "1B4DB7EB-4057-5DDF-91E0-36DEC72071F5"},
      // Namespace plus name spans two SHA-1 blocks.
      {dns, std::string(100, 'a'), "56596F37-716C-57A9-A735-2561F8608390"},
  };
  for (const auto& [ns, name, expected] : cases) {
    EXPECT_EQ(Uuid::nameBased(ns, name).UUIDString(), expected) << name;
  }
}

}  // namespace
}  // namespace lumora
