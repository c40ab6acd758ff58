// The tool's commands. Each returns the process's exit status and throws
// UsageError (exit 2) or Failure (exit 1) with a one-line explanation.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Session.h"

namespace lumora::tool {

class Output;

struct DecodeOptions {
  std::vector<std::string> hex;
};
struct DistanceOptions {
  int power = 0;
  double rssi = 0;
};
struct HexOptions {
  std::vector<std::string> hex;
  bool spaces = false;
  bool lower = false;
};
struct RangeOptions {
  std::string uuid;
  std::optional<int> major;
  std::optional<int> minor;
  std::optional<double> seconds;
};
struct ScanOptions {
  std::optional<double> seconds;
};
struct ConnectOptions {
  std::string name;
  std::vector<std::string> send;
  bool read = false;
  bool quietDisconnect = false;
  double seconds = 10;
};
struct EmulateOptions {
  std::string uuid;
  int major = 0;
  int minor = 0;
  std::optional<int> power;
  std::optional<std::string> reply;
  std::optional<double> seconds;
};

int runDecode(Output& out, const DecodeOptions& options);
int runDistance(Output& out, const DistanceOptions& options);
int runHex(Output& out, const HexOptions& options);
int runRange(Session& session, const RangeOptions& options);
int runScan(Session& session, const ScanOptions& options);
int runConnect(Session& session, const ConnectOptions& options);
int runEmulate(Session& session, const EmulateOptions& options);
int runDemo(Session& session);

/// "lumora 1.0 (Lumora-1)": LumoraVersionNumber and the PROJECT field of
/// LumoraVersionString.
std::string versionText();
/// The PROJECT field alone ("Lumora-1").
std::string versionProject();

}  // namespace lumora::tool
