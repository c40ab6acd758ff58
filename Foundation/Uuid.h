// 128-bit UUIDs: the library's NSUUID.
//
//   auto u = lumora::Uuid::fromString("e2c56db5-dffb-48d2-b060-d0f5a71096e0");
//   if (u) std::puts(u->UUIDString().c_str());  // E2C56DB5-DFFB-48D2-B060-D0F5A71096E0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace lumora {

class Uuid {
 public:
  using Storage = std::array<std::uint8_t, 16>;

  /// The nil UUID (all zero).
  constexpr Uuid() = default;
  /// The 16 bytes in text order: bytes()[0] gives the first two hex digits.
  constexpr explicit Uuid(const Storage& bytes) : bytes_(bytes) {}

  /// initWithUUIDString: exactly 36 characters, 8-4-4-4-12 hex digits of either
  /// case with hyphens. Anything else gives an empty optional.
  static std::optional<Uuid> fromString(std::string_view text);
  /// Sixteen bytes starting at `bytes` (caller guarantees they exist).
  static Uuid fromBytes(const std::uint8_t* bytes);
  /// A fresh random (version 4) UUID.
  static Uuid random();
  /// A stable name-based (version 5 style, SHA-1) UUID of `name` in `ns`; used
  /// to give peripherals identified by an address a stable identifier.
  static Uuid nameBased(const Uuid& ns, std::string_view name);

  /// Canonical 36-character upper-case text form.
  std::string UUIDString() const;
  /// Writes the 36 characters of UUIDString() into `out` (no terminator);
  /// allocation-free for hot paths.
  void writeString(char* out) const;

  const Storage& bytes() const { return bytes_; }

  friend bool operator==(const Uuid&, const Uuid&) = default;
  friend auto operator<=>(const Uuid&, const Uuid&) = default;

 private:
  Storage bytes_{};
};

}  // namespace lumora

template <>
struct std::hash<lumora::Uuid> {
  std::size_t operator()(const lumora::Uuid& u) const noexcept;
};
