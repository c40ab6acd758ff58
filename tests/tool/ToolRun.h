// Runs the built lumora binary and collects what it printed.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/TempDir.h"

extern char** environ;

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
  ToolResult result;
  // env(1) sets the child's environment up and then becomes the tool.
  std::vector<std::string> argv{"/usr/bin/env", "-u", "LUMORA_BACKEND",
                                "LUMORA_DEFAULTS=" + folder.file("defaults.json").string()};
  for (const auto& [k, v] : options.env) argv.push_back(k + "=" + v);
  argv.push_back(LUMORA_TOOL_PATH);
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> pointers;
  for (auto& s : argv) pointers.push_back(s.data());
  pointers.push_back(nullptr);

  // Stdout comes through a pipe, read as it fills; stderr goes to a file.
  int outPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    return result;
  }
  const auto errFile = folder.file("stderr").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = 0;
  const int spawned =
      posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  if (spawned != 0) {
    ADD_FAILURE() << "cannot run " << LUMORA_TOOL_PATH << ": " << std::strerror(spawned);
    ::close(outPipe[0]);
    return result;
  }

  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(options.limitSeconds);
  bool interrupted = false;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::kill(pid, SIGKILL);
      ADD_FAILURE() << "lumora ran longer than " << options.limitSeconds << " s";
      break;
    }
    pollfd fd{outPipe[0], POLLIN, 0};
    if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[4096];
    const ssize_t n = ::read(outPipe[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    result.out.append(buffer, static_cast<std::size_t>(n));
    if (options.interruptAfterFirstLine && !interrupted &&
        result.out.find('\n') != std::string::npos) {
      ::kill(pid, SIGINT);
      interrupted = true;
    }
  }
  ::close(outPipe[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.exit = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.exit = 128 + WTERMSIG(status);
  std::stringstream err;
  err << std::ifstream(errFile).rdbuf();
  result.err = err.str();
  return result;
}

}  // namespace lumora::test
