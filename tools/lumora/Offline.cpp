// The commands that need no radio: decode, distance, hex, and the version.
#include <fmt/format.h>

#include "Commands.h"
#include "Lumora/Lumora.h"
#include "Output.h"
#include "Text.h"

namespace lumora::tool {

using json = Json;

std::string versionProject() {
  const std::string_view text(reinterpret_cast<const char*>(LumoraVersionString));
  constexpr std::string_view kField = "PROJECT:";
  const auto at = text.find(kField);
  if (at == std::string_view::npos) return {};
  const auto value = text.substr(at + kField.size());
  return std::string(value.substr(0, value.find_first_of(" \t\r\n")));
}

std::string versionText() {
  return fmt::format("lumora {:.1f} ({})", LumoraVersionNumber, versionProject());
}

int runDecode(Output& out, const DecodeOptions& options) {
  // Every argument is checked before anything is printed, so a typo in the
  // third one does not leave half an answer behind.
  std::vector<Bytes> frames;
  frames.reserve(options.hex.size());
  for (const auto& text : options.hex) frames.push_back(parseHexArgument(text, "decode"));

  for (const auto& frame : frames) {
    const std::string label = frame.empty() ? std::string("(empty)") : hex(frame);
    json record{{"event", "decode"}, {"data", hex(frame)}};
    if (!TQBleFinder::advDataIsBeacon(frame)) {
      record["ibeacon"] = false;
      out.emit(fmt::format("{}: not an iBeacon", label), record);
      continue;
    }
    record["ibeacon"] = true;
    auto info = TQBleFinder::getBeaconInfoFromData(frame);
    if (!info) {
      record["complete"] = false;
      out.emit(fmt::format("{}: iBeacon header, but {} bytes are too few to decode (25 needed)",
                           label, frame.size()),
               record);
      continue;
    }
    record["complete"] = true;
    record["uuid"] = info->uuid.str();
    record["major"] = info->major.unsignedShortValue();
    record["minor"] = info->minor.unsignedShortValue();
    record["power"] = info->power.intValue();
    out.emit(fmt::format("{}: iBeacon  uuid {}  major {}  minor {}  power {}", label,
                         info->uuid.view(), info->major.unsignedShortValue(),
                         info->minor.unsignedShortValue(), info->power.intValue()),
             record);
  }
  return 0;
}

int runDistance(Output& out, const DistanceOptions& options) {
  const auto distance =
      TQBleFinder::calculatedDistance(Number(options.power), Number(options.rssi));
  json record{{"event", "distance"},
              {"power", options.power},
              {"rssi", options.rssi},
              {"distance", distance ? json(distance->doubleValue()) : json(nullptr)}};
  out.emit(distance ? metres(distance->doubleValue()) : std::string("unknown"), record);
  return 0;
}

int runHex(Output& out, const HexOptions& options) {
  // Each argument must hold whole bytes on its own: joined first, "0" "1"
  // would pass as one byte.
  Bytes bytes;
  for (const auto& text : options.hex) {
    Bytes part = parseHexArgument(text, "hex");
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  const std::string result = options.lower ? TQBleFinder::getHexString(bytes)
                                           : TQBleFinder::hexRepresentation(bytes, options.spaces);
  // The helpers' own line feed (after every sixteenth byte with --spaces)
  // ends the output line instead of adding an empty one.
  std::string_view line = result;
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  out.emit(line, json{{"event", "hex"}, {"hex", result}});
  return 0;
}

}  // namespace lumora::tool
