// Byte buffers: the library's NSData.
//
//   lumora::Bytes payload{0x4C, 0x00, 0x02, 0x15};
//   lumora::Data maybe = payload;              // nullable, like an NSData*
//   std::string text = lumora::description(maybe);   // "<4c000215>"
//
// `Bytes` is an immutable-by-convention value; `Data` adds null, which stays
// distinct from empty wherever behaviour differs (a null read value versus an
// empty one).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora {

using Bytes = std::vector<std::uint8_t>;
using Data = std::optional<Bytes>;

/// The platform's text form of a byte buffer: lower-case hex between angle
/// brackets, a blank after every four bytes ("<01020304 0506>"); "<>" for an
/// empty buffer.
std::string description(const Bytes& bytes);
/// As above; "(null)" for a null buffer.
std::string description(const Data& data);

/// Parses hex text ("4C0002", "4c 00 02", "4C:00:02") into bytes. Blanks,
/// colons and dashes between byte pairs are skipped; anything else, or an odd
/// number of digits, gives an empty optional.
std::optional<Bytes> bytesFromHex(std::string_view text);

}  // namespace lumora
