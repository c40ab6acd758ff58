// 128-bit UUIDs: the library's NSUUID.
//
//   auto u = lumora::Uuid::fromString("e2c56db5-dffb-48d2-b060-d0f5a71096e0");
//   if (u) std::puts(u->UUIDString().c_str());  // E2C56DB5-DFFB-48D2-B060-D0F5A71096E0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
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
  static Uuid fromBytes(const std::uint8_t* bytes) {
    Uuid uuid;
    std::memcpy(uuid.bytes_.data(), bytes, uuid.bytes_.size());
    return uuid;
  }
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

/// The canonical text of a UUID held inline: what decoders hand out for every
/// advertisement, so making one allocates nothing (36 characters do not fit
/// a std::string's small buffer). Reads as a string_view; str() copies.
///
///   UuidText text(uuid);
///   std::puts(text.c_str());
///   if (text == "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0") ...
class UuidText {
 public:
  static constexpr std::size_t kLength = 36;

  /// The nil UUID's text.
  constexpr UuidText() noexcept : chars_{"00000000-0000-0000-0000-000000000000"} {}
  explicit UuidText(const Uuid& uuid) noexcept : UuidText() { assign(uuid); }
  /// Rewrites the text in place (decoders fill a record where it lies).
  void assign(const Uuid& uuid) noexcept { uuid.writeString(chars_.data()); }

  const char* data() const noexcept { return chars_.data(); }
  const char* c_str() const noexcept { return chars_.data(); }
  static constexpr std::size_t size() noexcept { return kLength; }
  std::string_view view() const noexcept { return {chars_.data(), kLength}; }
  operator std::string_view() const noexcept { return view(); }
  std::string str() const { return std::string(view()); }

  friend bool operator==(const UuidText& a, const UuidText& b) noexcept {
    return a.view() == b.view();
  }
  friend bool operator==(const UuidText& a, std::string_view b) noexcept { return a.view() == b; }
  friend bool operator==(const UuidText& a, const char* b) noexcept { return a.view() == b; }
  friend std::ostream& operator<<(std::ostream& out, const UuidText& text);

 private:
  std::array<char, kLength + 1> chars_;
};

}  // namespace lumora

template <>
struct std::hash<lumora::Uuid> {
  std::size_t operator()(const lumora::Uuid& u) const noexcept;
};
