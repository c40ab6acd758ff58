// Number objects: the library's NSNumber.
//
//   auto n = lumora::Number::numberWithInt(70000);
//   n.shortValue();          // 4464: the low 16 bits
//   n.unsignedShortValue();  // 4464
//   lumora::Number(-59.9).intValue();  // -59: truncated toward zero
//
// A Number remembers whether it was made from a boolean, a signed or unsigned
// integer, or a double, and converts on demand the way applications expect of
// NSNumber. Conversions never have undefined behaviour: a double that is NaN
// converts to integer 0, and one outside the 64-bit range saturates before
// the low bits are taken.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace lumora {

class Number {
 public:
  enum class Kind { Bool, Signed, Unsigned, Double };

  constexpr Number() = default;  // integer 0
  constexpr Number(bool v) : kind_(Kind::Bool), i_(v ? 1 : 0) {}
  constexpr Number(int v) : kind_(Kind::Signed), i_(v) {}
  constexpr Number(long v) : kind_(Kind::Signed), i_(v) {}
  constexpr Number(long long v) : kind_(Kind::Signed), i_(v) {}
  constexpr Number(unsigned v) : kind_(Kind::Unsigned), u_(v) {}
  constexpr Number(unsigned long v) : kind_(Kind::Unsigned), u_(v) {}
  constexpr Number(unsigned long long v) : kind_(Kind::Unsigned), u_(v) {}
  constexpr Number(double v) : kind_(Kind::Double), d_(v) {}

  static constexpr Number numberWithBool(bool v) { return Number(v); }
  static constexpr Number numberWithInt(std::int32_t v) {
    return Number(static_cast<long long>(v));
  }
  static constexpr Number numberWithShort(std::int16_t v) {
    return Number(static_cast<long long>(v));
  }
  static constexpr Number numberWithUnsignedShort(std::uint16_t v) {
    return Number(static_cast<unsigned long long>(v));
  }
  static constexpr Number numberWithChar(std::int8_t v) {
    return Number(static_cast<long long>(v));
  }
  static constexpr Number numberWithLongLong(std::int64_t v) {
    return Number(static_cast<long long>(v));
  }
  static constexpr Number numberWithDouble(double v) { return Number(v); }

  Kind kind() const { return kind_; }

  /// Signed 64-bit reading (double truncated toward zero, saturated).
  std::int64_t longLongValue() const;
  /// Low 32 bits of longLongValue(): -59.9 gives -59, 2^32+5 gives 5.
  std::int32_t intValue() const;
  /// Low 16 bits as signed: 70000 gives 4464, 65535 gives -1.
  std::int16_t shortValue() const;
  /// Low 16 bits as unsigned: 70000 gives 4464, -1 gives 65535.
  std::uint16_t unsignedShortValue() const;
  /// Low 8 bits as signed.
  std::int8_t charValue() const;
  double doubleValue() const;
  /// Non-zero is true (NaN is true, as in C).
  bool boolValue() const;

  /// Decimal text as NSNumber's description gives it: "1" / "0" for booleans,
  /// integers in full, doubles in the shortest form that reads back ("1.5").
  std::string stringValue() const;

  /// NSNumber isEqual: equal numeric value across kinds (1 == 1.0 == true).
  friend bool operator==(const Number& a, const Number& b);

 private:
  Kind kind_ = Kind::Signed;
  union {
    std::int64_t i_ = 0;
    std::uint64_t u_;
    double d_;
  };
};

/// A nullable number, as a nullable NSNumber* property holds it.
using NumberRef = std::optional<Number>;

}  // namespace lumora
