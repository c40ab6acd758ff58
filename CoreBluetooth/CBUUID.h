// Bluetooth UUIDs: 16-, 32- and 128-bit, compared by value.
//
//   auto data = lumora::CBUUID::UUIDWithString("FF0C");
//   data == lumora::CBUUID::UUIDWithString("0000FF0C-0000-1000-8000-00805F9B34FB");  // true
//   data.UUIDString();   // "FF0C"
//
// A 16- or 32-bit UUID is an alias on the Bluetooth base UUID
// (0000xxxx-0000-1000-8000-00805F9B34FB); equality compares the 128-bit
// expansions, so a short UUID equals its long form.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Bytes.h"
#include "Foundation/Uuid.h"

namespace lumora {

class CBUUID {
 public:
  /// The base UUID itself (0000 on the base).
  CBUUID() = default;

  /// UUIDWithString: 4 or 8 hex digits (short form) or the 36-character form,
  /// either case. Malformed text raises std::invalid_argument, as the platform
  /// raises an exception; use fromString() to test text from outside.
  static CBUUID UUIDWithString(std::string_view text);
  static std::optional<CBUUID> fromString(std::string_view text);
  static CBUUID fromUInt16(std::uint16_t value);
  static CBUUID fromUInt32(std::uint32_t value);
  static CBUUID fromUuid(const Uuid& uuid);
  /// From 2, 4 or 16 big-endian bytes; anything else gives an empty optional.
  static std::optional<CBUUID> fromData(const Bytes& bytes);

  /// "FF0C" for a 16-bit alias, 8 digits for a 32-bit alias, otherwise the
  /// upper-case 36-character form. A long form that lies on the base UUID is
  /// printed short, as the platform does.
  std::string UUIDString() const;
  /// Big-endian bytes: 2 for a 16-bit alias, 4 for 32-bit, else 16.
  Bytes data() const;
  /// The 128-bit expansion.
  const Uuid& uuid() const { return full_; }
  /// The 16-bit value when this UUID is a 16-bit alias on the base.
  std::optional<std::uint16_t> shortValue() const;

  /// isEqual: with a text: true when `text` parses as a UUID of the same
  /// value (short or long form, any case); malformed text is never equal.
  bool isEqual(std::string_view text) const;
  bool isEqual(const CBUUID& other) const { return *this == other; }

  friend bool operator==(const CBUUID& a, const CBUUID& b) { return a.full_ == b.full_; }
  friend auto operator<=>(const CBUUID& a, const CBUUID& b) { return a.full_ <=> b.full_; }

 private:
  // The Bluetooth base UUID, 00000000-0000-1000-8000-00805F9B34FB: short
  // aliases occupy its first four bytes.
  static constexpr Uuid::Storage kBase{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                       0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB};

  explicit CBUUID(const Uuid& full) : full_(full) {}
  /// True when the last twelve bytes are those of the base UUID.
  bool onBase() const;

  Uuid full_{kBase};
};

}  // namespace lumora
