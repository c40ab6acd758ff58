#include "Foundation/Number.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace lumora {

namespace {

// 2^63 as a double: the first value above the signed 64-bit range. Every
// double below it (and at or above -2^63) truncates into range.
constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

std::int64_t saturatingTruncate(double d) {
  if (std::isnan(d)) return 0;
  if (d >= kTwoTo63) return std::numeric_limits<std::int64_t>::max();
  if (d < -kTwoTo63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

// An integer of either signedness, as sign and magnitude, so that values of
// different kinds compare without overflow.
struct Integral {
  bool negative;
  std::uint64_t magnitude;
  friend bool operator==(const Integral&, const Integral&) = default;
};

Integral fromSigned(std::int64_t v) {
  if (v >= 0) return {false, static_cast<std::uint64_t>(v)};
  // Negate in unsigned arithmetic: well defined for INT64_MIN too.
  return {true, std::uint64_t{0} - static_cast<std::uint64_t>(v)};
}

// The exact integer a double holds, if it holds one that fits 64 bits.
std::optional<Integral> exactIntegral(double d) {
  if (!std::isfinite(d) || std::trunc(d) != d) return std::nullopt;
  if (d >= 0) {
    if (d >= kTwoTo64) return std::nullopt;
    return Integral{false, static_cast<std::uint64_t>(d)};
  }
  if (d < -kTwoTo63) return std::nullopt;
  return fromSigned(static_cast<std::int64_t>(d));
}

}  // namespace

std::int64_t Number::longLongValue() const {
  switch (kind_) {
    case Kind::Bool:
    case Kind::Signed:
      return i_;
    case Kind::Unsigned:
      // Modular, as the platform reinterprets an unsigned long long.
      return static_cast<std::int64_t>(u_);
    case Kind::Double:
      return saturatingTruncate(d_);
  }
  return 0;
}

std::int32_t Number::intValue() const {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(longLongValue()));
}

std::int16_t Number::shortValue() const {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(longLongValue()));
}

std::uint16_t Number::unsignedShortValue() const {
  return static_cast<std::uint16_t>(longLongValue());
}

std::int8_t Number::charValue() const {
  return static_cast<std::int8_t>(static_cast<std::uint8_t>(longLongValue()));
}

double Number::doubleValue() const {
  switch (kind_) {
    case Kind::Bool:
    case Kind::Signed:
      return static_cast<double>(i_);
    case Kind::Unsigned:
      return static_cast<double>(u_);
    case Kind::Double:
      return d_;
  }
  return 0;
}

bool Number::boolValue() const {
  switch (kind_) {
    case Kind::Bool:
    case Kind::Signed:
      return i_ != 0;
    case Kind::Unsigned:
      return u_ != 0;
    case Kind::Double:
      return d_ != 0;  // NaN compares unequal to zero: true
  }
  return false;
}

std::string Number::stringValue() const {
  switch (kind_) {
    case Kind::Bool:
      return i_ != 0 ? "1" : "0";
    case Kind::Signed:
      return std::to_string(i_);
    case Kind::Unsigned:
      return std::to_string(u_);
    case Kind::Double: {
      if (std::isnan(d_)) return "nan";
      if (std::isinf(d_)) return d_ > 0 ? "inf" : "-inf";
      char buffer[64];
      const auto result = std::to_chars(buffer, buffer + sizeof buffer, d_);
      return std::string(buffer, result.ptr);
    }
  }
  return {};
}

bool operator==(const Number& a, const Number& b) {
  using Kind = Number::Kind;
  const auto integral = [](const Number& n) -> std::optional<Integral> {
    switch (n.kind_) {
      case Kind::Bool:
      case Kind::Signed:
        return fromSigned(n.i_);
      case Kind::Unsigned:
        return Integral{false, n.u_};
      case Kind::Double:
        return exactIntegral(n.d_);
    }
    return std::nullopt;
  };
  if (a.kind_ == Kind::Double && b.kind_ == Kind::Double) return a.d_ == b.d_;
  // An integer equals a double only when the double holds exactly that
  // integer; comparing through double would call 2^53+1 equal to 2^53.
  const auto ia = integral(a);
  const auto ib = integral(b);
  return ia && ib && *ia == *ib;
}

}  // namespace lumora
