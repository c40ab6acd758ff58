#include "Text.h"

#include <fmt/format.h>
#include <cctype>

#include "Lumora/TQBleFinder.h"

namespace lumora::tool {
namespace {

bool isHexDigit(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

bool isSeparator(char c) {
  return c == ' ' || c == ':' || c == '-';
}

// Length of the well-formed UTF-8 sequence at text[i] and its code point, or
// 0 when the byte there does not start one (stray continuation byte, overlong
// form, surrogate, beyond U+10FFFF, or cut short by the end of the text).
std::size_t utf8Sequence(std::string_view text, std::size_t i, char32_t& cp) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char b0 = byte(i);
  std::size_t length = 0;
  char32_t min = 0;
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  } else if ((b0 & 0xE0) == 0xC0) {
    length = 2, cp = b0 & 0x1F, min = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    length = 3, cp = b0 & 0x0F, min = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    length = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (text.size() - i < length) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

void appendEscaped(std::string& out, std::string_view bytes) {
  for (unsigned char c : bytes) out += fmt::format("\\x{:02X}", c);
}

}  // namespace

std::optional<std::string> hexProblem(std::string_view text) {
  std::size_t digits = 0;
  for (char c : text) {
    if (isHexDigit(c)) {
      ++digits;
    } else if (!isSeparator(c)) {
      return fmt::format("invalid character '{}'", printable(std::string_view(&c, 1)));
    }
  }
  if (digits % 2 != 0) return fmt::format("odd number of hex digits ({})", digits);
  if (!bytesFromHex(text)) return std::string("a separator splits a byte");
  return std::nullopt;
}

Bytes parseHexArgument(std::string_view text, std::string_view what) {
  if (auto problem = hexProblem(text)) {
    throw UsageError(fmt::format("{}: '{}' is not hex bytes: {}", what, printable(text), *problem));
  }
  return *bytesFromHex(text);
}

Uuid parseUuidArgument(std::string_view text, std::string_view what) {
  auto uuid = Uuid::fromString(text);
  if (!uuid) {
    throw UsageError(
        fmt::format("{}: malformed UUID '{}' (want 8-4-4-4-12 hex digits)", what, printable(text)));
  }
  return *uuid;
}

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    char32_t cp = 0;
    const std::size_t n = utf8Sequence(text, i, cp);
    if (n == 0) {
      appendEscaped(out, text.substr(i, 1));
      ++i;
      continue;
    }
    if (cp == '\\') {
      out += "\\\\";
    } else if (cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp <= 0x9F)) {
      appendEscaped(out, text.substr(i, n));
    } else {
      out.append(text.substr(i, n));
    }
    i += n;
  }
  return out;
}

std::string jsonSafe(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    char32_t cp = 0;
    const std::size_t n = utf8Sequence(text, i, cp);
    if (n == 0) {
      appendEscaped(out, text.substr(i, 1));
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  return out;
}

std::string hex(const Bytes& bytes) {
  return TQBleFinder::getHexString(bytes);
}

std::string_view proximityName(CLProximity proximity) {
  switch (proximity) {
    case CLProximity::Immediate:
      return "immediate";
    case CLProximity::Near:
      return "near";
    case CLProximity::Far:
      return "far";
    case CLProximity::Unknown:
      break;
  }
  return "unknown";
}

std::string_view stateName(CBManagerState state) {
  switch (state) {
    case CBManagerState::Resetting:
      return "resetting";
    case CBManagerState::Unsupported:
      return "unsupported";
    case CBManagerState::Unauthorized:
      return "unauthorized";
    case CBManagerState::PoweredOff:
      return "powered off";
    case CBManagerState::PoweredOn:
      return "powered on";
    case CBManagerState::Unknown:
      break;
  }
  return "in an unknown state";
}

std::string metres(double value) {
  return fmt::format("{:.3f} m", value);
}

std::string emulatorName(std::uint16_t major, std::uint16_t minor) {
  return fmt::format("{:x}{:x}", major, minor);
}

}  // namespace lumora::tool
