#include "Foundation/NSNumberFormatter.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>

namespace lumora {

namespace {

// A finite non-negative decimal as digit strings, rounded in decimal (on the
// shortest text that reads back as the double), the way the platform rounds:
// 0.125 to two places is a tie and goes to the even 0.12.
struct Decimal {
  std::string whole;     // at least one digit
  std::string fraction;  // no trailing zeros after rounding
};

Decimal shortestDecimal(double magnitude) {
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, magnitude, std::chars_format::scientific);
  const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
  const auto e = text.find('e');
  std::string digits;
  for (char c : text.substr(0, e)) {
    if (c != '.') digits.push_back(c);
  }
  int exponent = 0;
  std::from_chars(text.data() + e + 1 + (text[e + 1] == '+' ? 1 : 0), text.data() + text.size(),
                  exponent);
  // digits is d.ddd × 10^exponent: the point sits after exponent + 1 digits.
  const int point = exponent + 1;
  Decimal d;
  if (point <= 0) {
    d.whole = "0";
    d.fraction = std::string(static_cast<std::size_t>(-point), '0') + digits;
  } else if (static_cast<std::size_t>(point) >= digits.size()) {
    d.whole = digits + std::string(static_cast<std::size_t>(point) - digits.size(), '0');
  } else {
    d.whole = digits.substr(0, static_cast<std::size_t>(point));
    d.fraction = digits.substr(static_cast<std::size_t>(point));
  }
  return d;
}

void roundHalfEven(Decimal& d, std::size_t places) {
  if (d.fraction.size() > places) {
    const char first = d.fraction[places];
    const bool restNonZero = d.fraction.find_first_not_of('0', places + 1) != std::string::npos;
    d.fraction.resize(places);
    bool up = first > '5' || (first == '5' && restNonZero);
    if (first == '5' && !restNonZero) {
      const char last = places > 0 ? d.fraction.back() : d.whole.back();
      up = (last - '0') % 2 == 1;
    }
    if (up) {
      // Carry through the fraction, then the whole part.
      int i = static_cast<int>(d.fraction.size()) - 1;
      for (; i >= 0 && d.fraction[static_cast<std::size_t>(i)] == '9'; --i) {
        d.fraction[static_cast<std::size_t>(i)] = '0';
      }
      if (i >= 0) {
        ++d.fraction[static_cast<std::size_t>(i)];
      } else {
        int j = static_cast<int>(d.whole.size()) - 1;
        for (; j >= 0 && d.whole[static_cast<std::size_t>(j)] == '9'; --j) {
          d.whole[static_cast<std::size_t>(j)] = '0';
        }
        if (j >= 0) {
          ++d.whole[static_cast<std::size_t>(j)];
        } else {
          d.whole.insert(d.whole.begin(), '1');
        }
      }
    }
  }
  while (!d.fraction.empty() && d.fraction.back() == '0') d.fraction.pop_back();
}

std::string grouped(const std::string& digits) {
  std::string out;
  out.reserve(digits.size() + digits.size() / 3);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i != 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Digits of the whole part with their grouping commas checked and removed:
// "1,234,567" is fine, "12,34" and "1,,234" are not.
std::optional<std::string> ungroup(std::string_view text) {
  if (text.find(',') == std::string_view::npos) return std::string(text);
  std::string digits;
  std::size_t group = 0;
  bool first = true;
  for (char c : text) {
    if (c == ',') {
      if (group == 0 || group > 3 || (!first && group != 3)) return std::nullopt;
      first = false;
      group = 0;
      continue;
    }
    digits.push_back(c);
    ++group;
  }
  if (group != 3) return std::nullopt;
  return digits;
}

constexpr std::string_view kNaN = "NaN";
constexpr std::string_view kInfinity = "\u221E";

}  // namespace

std::string NSNumberFormatter::stringFromNumber(const Number& number) const {
  const bool decimal = style_ == DecimalStyle;
  if (number.kind() != Number::Kind::Double) {
    // Integers are written exactly; a double would lose digits past 2^53.
    std::string text = number.stringValue();
    if (!decimal) return text;
    const bool negative = !text.empty() && text[0] == '-';
    return (negative ? "-" : "") + grouped(text.substr(negative ? 1 : 0));
  }
  const double value = number.doubleValue();
  if (std::isnan(value)) return std::string(kNaN);
  if (std::isinf(value)) return (value < 0 ? "-" : "") + std::string(kInfinity);
  Decimal d = shortestDecimal(std::fabs(value));
  roundHalfEven(d, decimal ? 3 : 0);
  std::string text;
  // A value that rounds to zero is written without a sign.
  const bool zero = d.whole == "0" && d.fraction.empty();
  if (std::signbit(value) && !zero) text.push_back('-');
  text += decimal ? grouped(d.whole) : d.whole;
  if (!d.fraction.empty()) {
    text.push_back('.');
    text += d.fraction;
  }
  return text;
}

std::optional<Number> NSNumberFormatter::numberFromString(std::string_view text) const {
  if (text == kNaN) return Number(std::numeric_limits<double>::quiet_NaN());
  bool negative = false;
  std::string_view body = text;
  if (!body.empty() && (body[0] == '-' || body[0] == '+')) {
    negative = body[0] == '-';
    body.remove_prefix(1);
  }
  if (body == kInfinity) {
    return Number(negative ? -std::numeric_limits<double>::infinity()
                           : std::numeric_limits<double>::infinity());
  }
  const auto point = body.find('.');
  const std::string_view wholeText = body.substr(0, point);
  const std::string_view fractionText =
      point == std::string_view::npos ? std::string_view{} : body.substr(point + 1);
  for (char c : wholeText) {
    if (!isDigit(c) && !(c == ',' && style_ == DecimalStyle)) return std::nullopt;
  }
  for (char c : fractionText) {
    if (!isDigit(c)) return std::nullopt;
  }
  const auto whole = ungroup(wholeText);
  if (!whole || (whole->empty() && fractionText.empty())) return std::nullopt;

  if (point == std::string_view::npos) {
    // Integers stay integers when they fit, so that large ones keep every digit.
    std::uint64_t magnitude = 0;
    const auto [end, error] =
        std::from_chars(whole->data(), whole->data() + whole->size(), magnitude);
    if (error == std::errc() && end == whole->data() + whole->size()) {
      constexpr auto kMaxSigned =
          static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
      if (!negative && magnitude <= kMaxSigned) return Number(static_cast<long long>(magnitude));
      if (!negative) return Number(static_cast<unsigned long long>(magnitude));
      if (magnitude <= kMaxSigned + 1) {
        return Number(static_cast<long long>(std::uint64_t{0} - magnitude));
      }
    }
  }
  std::string plain = (negative ? "-" : "") + (whole->empty() ? std::string("0") : *whole);
  if (!fractionText.empty()) {
    plain.push_back('.');
    plain += fractionText;
  }
  double value = 0;
  const auto [end, error] = std::from_chars(plain.data(), plain.data() + plain.size(), value);
  if (error != std::errc() || end != plain.data() + plain.size()) return std::nullopt;
  return Number(value);
}

}  // namespace lumora
