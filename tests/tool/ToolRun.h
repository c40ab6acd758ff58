// Runs the built lumora binary and collects what it printed.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Child.h"
#include "support/TempDir.h"

namespace lumora::test {

struct ToolResult {
  int exit = -1;  // the exit status, or 128 + signal
  std::string out;
  std::string err;

  /// Every stdout line parsed as a JSON object (a line that is not one fails the test).
  std::vector<nlohmann::json> jsonLines() const {
    std::vector<nlohmann::json> records;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
      records.push_back(nlohmann::json::parse(line, nullptr, false));
      EXPECT_TRUE(records.back().is_object()) << "not a JSON object: " << line;
    }
    return records;
  }
};

struct ToolRunOptions {
  std::map<std::string, std::string> env;
  /// Sends SIGINT as soon as the first line reaches stdout.
  bool interruptAfterFirstLine = false;
  int limitSeconds = 60;
};

/// Every member of `fields` is in `record` with that value.
inline ::testing::AssertionResult hasFields(const nlohmann::json& record,
                                            const nlohmann::json& fields) {
  for (const auto& [key, value] : fields.items()) {
    if (!record.contains(key) || record[key] != value) {
      return ::testing::AssertionFailure() << record.dump() << " lacks " << key << ": " << value;
    }
  }
  return ::testing::AssertionSuccess();
}

/// Runs the tool with `args`. The child's environment is this process's
/// without LUMORA_BACKEND (so the simulated air is the radio) and with
/// LUMORA_DEFAULTS pointing into a private folder (so no run touches the
/// user's settings), then `options.env` on top. A run that outlives
/// `options.limitSeconds` is killed and fails the test.
inline ToolResult runTool(const std::vector<std::string>& args,
                          const ToolRunOptions& options = {}) {
  static TempDir folder;  // settings and stderr of every run stay in here
  // env(1) sets the child's environment up and then becomes the tool.
  std::vector<std::string> argv{"/usr/bin/env", "-u", "LUMORA_BACKEND",
                                "LUMORA_DEFAULTS=" + folder.file("defaults.json").string()};
  for (const auto& [k, v] : options.env) argv.push_back(k + "=" + v);
  argv.push_back(LUMORA_TOOL_PATH);
  argv.insert(argv.end(), args.begin(), args.end());
  const auto errFile = folder.file("stderr");
  std::filesystem::remove(errFile);

  ToolResult result;
  Child child(argv, errFile.string());
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(options.limitSeconds);
  const auto hasLine = [](const std::string& text) { return text.find('\n') != std::string::npos; };
  if (options.interruptAfterFirstLine && child.read(result.out, deadline, hasLine)) {
    child.signal(SIGINT);
  }
  child.read(result.out, deadline, [](const std::string&) { return false; });
  const bool late = std::chrono::steady_clock::now() >= deadline;
  EXPECT_FALSE(late) << "lumora ran longer than " << options.limitSeconds << " s";
  result.exit = child.stop(late ? SIGKILL : 0);
  std::stringstream err;
  err << std::ifstream(errFile).rdbuf();
  result.err = err.str();
  return result;
}

}  // namespace lumora::test
