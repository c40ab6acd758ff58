// Runs the built lumora binary and collects what it printed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace lumora::test {

struct ToolResult {
  int exit = -1;  // the exit status, or 128 + signal
  std::string out;
  std::string err;

  std::vector<std::string> outLines() const;
  /// Every stdout line parsed as JSON (a line that does not parse fails the test).
  std::vector<nlohmann::json> jsonLines() const;
};

struct ToolRunOptions {
  std::map<std::string, std::string> env;
  /// Sends SIGINT as soon as the first line reaches stdout.
  bool interruptAfterFirstLine = false;
  int limitSeconds = 60;
};

/// Runs the tool with `args`. The child's environment is this process's
/// without LUMORA_BACKEND (so the simulated air is the radio) and with
/// LUMORA_DEFAULTS pointing into a private folder (so no run touches the
/// user's settings), then `options.env` on top. A run that outlives
/// `options.limitSeconds` is killed and fails the test.
ToolResult runTool(const std::vector<std::string>& args, const ToolRunOptions& options = {});

}  // namespace lumora::test
