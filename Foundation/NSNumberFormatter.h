// Number formatting: the library's NSNumberFormatter.
//
//   lumora::NSNumberFormatter f;
//   f.setNumberStyle(lumora::NSNumberFormatter::DecimalStyle);
//   f.stringFromNumber(1234.5);   // "1,234.5"
//
// Locale-independent (en_US_POSIX grouping): "," groups thousands, "." is the
// decimal point; decimal style shows at most three fraction digits, rounded
// half to even as the platform does.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Number.h"

namespace lumora {

class NSNumberFormatter {
 public:
  enum Style { NoStyle = 0, DecimalStyle = 1 };

  void setNumberStyle(Style style) { style_ = style; }
  Style numberStyle() const { return style_; }

  /// NoStyle: integers in full, doubles rounded to an integer. DecimalStyle:
  /// grouped, up to three fraction digits.
  std::string stringFromNumber(const Number& number) const;
  /// Parses what stringFromNumber writes (grouping optional); empty optional
  /// when the text is not a number.
  std::optional<Number> numberFromString(std::string_view text) const;

 private:
  Style style_ = NoStyle;
};

}  // namespace lumora
