// Text helpers of the lumora tool: what it accepts on the command line and how
// it prints what came from the air.
//
// Everything here is pure and runs on the main thread only because the tool
// has no other thread of its own.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "CoreBluetooth/CBTypes.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Bytes.h"
#include "Foundation/Uuid.h"

namespace lumora::tool {

/// Bad input on the command line: the tool says "lumora: <what>" and exits 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Something that went wrong at run time (no connection, no radio): the tool
/// says "lumora: <what>" and exits 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Hex bytes as typed by a user ("4C000215", "4c 00 02 15", "4C:00"); throws
/// UsageError naming `what` and the reason (odd digit count, bad character).
Bytes parseHexArgument(std::string_view text, std::string_view what);

/// Why `text` is not hex bytes, or nothing when it is.
std::optional<std::string> hexProblem(std::string_view text);

/// A 36-character proximity UUID; throws UsageError naming `what`.
Uuid parseUuidArgument(std::string_view text, std::string_view what);

/// Text from the air made safe for a terminal: control characters (C0, DEL,
/// C1), bytes that are not UTF-8 and the backslash itself become \xNN (the
/// backslash becomes \\), so a hostile name cannot move the cursor or forge
/// a line of output.
std::string printable(std::string_view text);

/// Text from the air made safe for a JSON string: only bytes that are not
/// UTF-8 become \xNN (JSON escapes control characters itself).
std::string jsonSafe(std::string_view text);

/// Lower-case hex without separators ("0a0b"), the form JSON lines carry.
std::string hex(const Bytes& bytes);

/// "immediate", "near", "far" or "unknown".
std::string_view proximityName(CLProximity proximity);

/// "powered on", "powered off", "unauthorized", ...
std::string_view stateName(CBManagerState state);

/// Metres for people: "3.472 m".
std::string metres(double value);

/// Local name of an emulator with this major and minor ("%x%x": 1, 2 -> "12").
std::string emulatorName(std::uint16_t major, std::uint16_t minor);

}  // namespace lumora::tool
