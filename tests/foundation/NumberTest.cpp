// Number conversions and the number formatter.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <span>

#include "Foundation/NSNumberFormatter.h"
#include "Foundation/Number.h"

namespace lumora {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr std::int64_t kMin64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax64 = std::numeric_limits<std::int64_t>::max();
constexpr auto kMaxU64 = std::numeric_limits<std::uint64_t>::max();
using Formatter = NSNumberFormatter;

TEST(NumberConversions, FollowPlatformSemantics) {
  const struct {
    const char* name;
    Number n;
    std::int64_t longLong;
    std::int32_t i;
    std::int16_t s;
    std::uint16_t us;
    std::int8_t c;
    bool b;
    const char* text;
  } cases[] = {
      {"-59.9 truncates toward zero", Number(-59.9), -59, -59, -59, 65477, -59, true, "-59.9"},
      {"70000 keeps low 16 bits", Number::numberWithInt(70000), 70000, 70000, 4464, 4464, 112, true,
       "70000"},
      {"-1", Number::numberWithInt(-1), -1, -1, -1, 65535, -1, true, "-1"},
      {"65535 unsigned short", Number::numberWithUnsignedShort(65535), 65535, 65535, -1, 65535, -1,
       true, "65535"},
      {"2^32+5 keeps low 32 bits", Number(4294967301LL), 4294967301LL, 5, 5, 5, 5, true,
       "4294967301"},
      {"NaN converts to 0", Number(kNaN), 0, 0, 0, 0, 0, true, "nan"},
      {"1e30 saturates", Number(1e30), kMax64, -1, -1, 65535, -1, true, "1e+30"},
      {"-1e30 saturates", Number(-1e30), kMin64, 0, 0, 0, 0, true, "-1e+30"},
      {"true", Number(true), 1, 1, 1, 1, 1, true, "1"},
      {"0.0", Number(0.0), 0, 0, 0, 0, 0, false, "0"},
      {"0.25 is true", Number(0.25), 0, 0, 0, 0, 0, true, "0.25"},
      {"max unsigned", Number(kMaxU64), -1, -1, -1, 65535, -1, true, "18446744073709551615"},
      {"min signed", Number(static_cast<long long>(kMin64)), kMin64, 0, 0, 0, 0, true,
       "-9223372036854775808"},
      {"char -128", Number::numberWithChar(-128), -128, -128, -128, 65408, -128, true, "-128"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.n.longLongValue(), c.longLong);
    EXPECT_EQ(c.n.intValue(), c.i);
    EXPECT_EQ(c.n.shortValue(), c.s);
    EXPECT_EQ(c.n.unsignedShortValue(), c.us);
    EXPECT_EQ(c.n.charValue(), c.c);
    EXPECT_EQ(c.n.boolValue(), c.b);
    EXPECT_EQ(c.n.stringValue(), c.text);
  }
}

TEST(NumberEquality, ComparesValueAcrossKinds) {
  const struct {
    Number a, b;
    bool equal;
  } cases[] = {{Number(1), Number(1.0), true},
               {Number(1), Number(true), true},
               {Number(1.0), Number(true), true},
               {Number(-0.0), Number(0), true},
               {Number(5u), Number(5), true},
               {Number(-59), Number(-59.9), false},
               {Number(2), Number(true), false},
               // -1 and the largest unsigned share their bits, not their value.
               {Number(-1), Number(kMaxU64), false},
               // 2^53 + 1 is not the double 2^53, though converting it to double says so.
               {Number(9007199254740993LL), Number(9007199254740992.0), false},
               {Number(9007199254740992LL), Number(9007199254740992.0), true},
               {Number(kMaxU64), Number(18446744073709551616.0), false},
               {Number(kNaN), Number(0), false},
               {Number(kNaN), Number(kNaN), false}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.a == c.b, c.equal) << c.a.stringValue() << " vs " << c.b.stringValue();
    EXPECT_EQ(c.b == c.a, c.equal) << "not symmetric: " << c.a.stringValue();
  }
}

TEST(NumberFormatter, WritesStyles) {
  using Row = std::pair<Number, const char*>;
  // Ties go to the even digit: 0.1235 up, 0.1245 stays.
  const Row decimal[] = {
      {Number(1234.5), "1,234.5"}, {Number(-1234567), "-1,234,567"}, {Number(-999), "-999"},
      {Number(1000.0), "1,000"},   {Number(0.125), "0.125"},         {Number(0.1235), "0.124"},
      {Number(0.1245), "0.124"},   {Number(0.12451), "0.125"},       {Number(999.9996), "1,000"},
      {Number(-0.0001), "0"},      {Number(-59.9), "-59.9"},         {Number(true), "1"},
      {Number(kNaN), "NaN"},
  };
  const Row wide[] = {
      {Number(1e30), "1,000,000,000,000,000,000,000,000,000,000"},
      {Number(static_cast<long long>(kMin64)), "-9,223,372,036,854,775,808"},
      {Number(kMaxU64), "18,446,744,073,709,551,615"},
  };
  const Row plain[] = {
      {Number(1234.5), "1234"}, {Number(1235.5), "1236"},  {Number(-2.5), "-2"},
      {Number(-59.9), "-60"},   {Number(9999.5), "10000"},
  };
  auto check = [](Formatter::Style style, std::span<const Row> rows) {
    Formatter f;
    f.setNumberStyle(style);
    for (const auto& [n, text] : rows) {
      EXPECT_EQ(f.stringFromNumber(n), text) << n.stringValue() << " style " << style;
    }
  };
  check(Formatter::DecimalStyle, decimal);
  check(Formatter::DecimalStyle, wide);
  check(Formatter::NoStyle, plain);
}

TEST(NumberFormatter, ParsesWhatItWrites) {
  const struct {
    Formatter::Style style;
    const char* text;
    std::optional<Number> n;  // and its kind
  } cases[] = {
      {Formatter::DecimalStyle, "1,234.5", Number(1234.5)},
      {Formatter::DecimalStyle, "1234.5", Number(1234.5)},
      {Formatter::DecimalStyle, "-1,234", Number(-1234)},
      {Formatter::DecimalStyle, ".5", Number(0.5)},
      {Formatter::DecimalStyle, "-9,223,372,036,854,775,808",
       Number(static_cast<long long>(kMin64))},
      {Formatter::DecimalStyle, "18,446,744,073,709,551,615", Number(kMaxU64)},
      {Formatter::DecimalStyle, "18446744073709551616", Number(18446744073709551616.0)},
      {Formatter::NoStyle, "1234", Number(1234)},
  };
  for (const auto& c : cases) {
    Formatter f;
    f.setNumberStyle(c.style);
    const auto parsed = f.numberFromString(c.text);
    ASSERT_TRUE(parsed) << c.text;
    EXPECT_EQ(*parsed, *c.n) << c.text;
    EXPECT_EQ(parsed->kind(), c.n->kind()) << c.text;
  }
  const char* bad[] = {"12,34", ",123", "1234,567", "1.2.3", "1.2,3", "", "-", ".", "12a", " 12"};
  Formatter decimal;
  decimal.setNumberStyle(Formatter::DecimalStyle);
  for (const char* text : bad) EXPECT_FALSE(decimal.numberFromString(text)) << '"' << text << '"';
  EXPECT_FALSE(Formatter().numberFromString("1,234"));
}

}  // namespace
}  // namespace lumora
