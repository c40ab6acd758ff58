#include "Foundation/Bytes.h"

namespace lumora {

namespace {

constexpr char kLowerHex[] = "0123456789abcdef";

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string description(const Bytes& bytes) {
  std::string text;
  // Two digits per byte, a blank per full group of four, and the brackets.
  text.reserve(bytes.size() * 2 + bytes.size() / 4 + 2);
  text.push_back('<');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0 && i % 4 == 0) text.push_back(' ');
    text.push_back(kLowerHex[bytes[i] >> 4]);
    text.push_back(kLowerHex[bytes[i] & 0x0F]);
  }
  text.push_back('>');
  return text;
}

std::string description(const Data& data) {
  return data ? description(*data) : std::string("(null)");
}

std::optional<Bytes> bytesFromHex(std::string_view text) {
  Bytes out;
  out.reserve(text.size() / 2);
  int high = -1;  // the first digit of a pair still waiting for its partner
  for (char c : text) {
    if (c == ' ' || c == ':' || c == '-') {
      // Separators sit between pairs, never inside one.
      if (high >= 0) return std::nullopt;
      continue;
    }
    const int digit = hexDigit(c);
    if (digit < 0) return std::nullopt;
    if (high < 0) {
      high = digit;
    } else {
      out.push_back(static_cast<std::uint8_t>((high << 4) | digit));
      high = -1;
    }
  }
  if (high >= 0) return std::nullopt;
  return out;
}

}  // namespace lumora
