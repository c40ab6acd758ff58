#include "CoreBluetooth/CBUUID.h"

#include <algorithm>
#include <stdexcept>

namespace lumora {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Four or eight hex digits, nothing else.
std::optional<std::uint32_t> parseShort(std::string_view text) {
  if (text.size() != 4 && text.size() != 8) return std::nullopt;
  std::uint32_t value = 0;
  for (char c : text) {
    const int digit = hexValue(c);
    if (digit < 0) return std::nullopt;
    value = (value << 4) | static_cast<std::uint32_t>(digit);
  }
  return value;
}

void appendHex(std::string& out, std::uint8_t byte) {
  out.push_back(kHexDigits[byte >> 4]);
  out.push_back(kHexDigits[byte & 0x0F]);
}

}  // namespace

bool CBUUID::onBase() const {
  return std::equal(kBase.begin() + 4, kBase.end(), full_.bytes().begin() + 4);
}

CBUUID CBUUID::UUIDWithString(std::string_view text) {
  auto parsed = fromString(text);
  if (!parsed) {
    throw std::invalid_argument("CBUUID: invalid UUID string \"" + std::string(text) + "\"");
  }
  return *parsed;
}

std::optional<CBUUID> CBUUID::fromString(std::string_view text) {
  if (auto alias = parseShort(text)) return fromUInt32(*alias);
  if (auto full = Uuid::fromString(text)) return CBUUID(*full);
  return std::nullopt;
}

CBUUID CBUUID::fromUInt16(std::uint16_t value) {
  return fromUInt32(value);
}

CBUUID CBUUID::fromUInt32(std::uint32_t value) {
  Uuid::Storage bytes = kBase;
  bytes[0] = static_cast<std::uint8_t>(value >> 24);
  bytes[1] = static_cast<std::uint8_t>(value >> 16);
  bytes[2] = static_cast<std::uint8_t>(value >> 8);
  bytes[3] = static_cast<std::uint8_t>(value);
  return CBUUID(Uuid(bytes));
}

CBUUID CBUUID::fromUuid(const Uuid& uuid) {
  return CBUUID(uuid);
}

std::optional<CBUUID> CBUUID::fromData(const Bytes& bytes) {
  switch (bytes.size()) {
    case 2:
      return fromUInt16(static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]));
    case 4:
      return fromUInt32((std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
                        (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]});
    case 16:
      return CBUUID(Uuid::fromBytes(bytes.data()));
    default:
      return std::nullopt;
  }
}

std::string CBUUID::UUIDString() const {
  if (!onBase()) return full_.UUIDString();
  const auto& b = full_.bytes();
  std::string out;
  if (b[0] != 0 || b[1] != 0) {
    appendHex(out, b[0]);
    appendHex(out, b[1]);
  }
  appendHex(out, b[2]);
  appendHex(out, b[3]);
  return out;
}

Bytes CBUUID::data() const {
  const auto& b = full_.bytes();
  if (!onBase()) return Bytes(b.begin(), b.end());
  if (b[0] != 0 || b[1] != 0) return Bytes(b.begin(), b.begin() + 4);
  return Bytes(b.begin() + 2, b.begin() + 4);
}

std::optional<std::uint16_t> CBUUID::shortValue() const {
  const auto& b = full_.bytes();
  if (!onBase() || b[0] != 0 || b[1] != 0) return std::nullopt;
  return static_cast<std::uint16_t>((b[2] << 8) | b[3]);
}

bool CBUUID::isEqual(std::string_view text) const {
  auto other = fromString(text);
  return other && *other == *this;
}

}  // namespace lumora
