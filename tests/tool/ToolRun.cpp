#include "ToolRun.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "support/TempDir.h"

extern char** environ;

namespace lumora::test {
namespace {

std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& extra,
                                          const std::string& defaultsFile) {
  std::map<std::string, std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    auto eq = entry.find('=');
    if (eq == std::string::npos) continue;
    env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  env.erase("LUMORA_BACKEND");
  env["LUMORA_DEFAULTS"] = defaultsFile;
  for (const auto& [k, v] : extra) env[k] = v;
  std::vector<std::string> out;
  for (const auto& [k, v] : env) out.push_back(k + "=" + v);
  return out;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (auto& s : strings) p.push_back(s.data());
  p.push_back(nullptr);
  return p;
}

}  // namespace

std::vector<std::string> ToolResult::outLines() const {
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<nlohmann::json> ToolResult::jsonLines() const {
  std::vector<nlohmann::json> records;
  for (const auto& line : outLines()) {
    auto j = nlohmann::json::parse(line, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << "not JSON: " << line;
    EXPECT_TRUE(j.is_object()) << "not an object: " << line;
    records.push_back(std::move(j));
  }
  return records;
}

ToolResult runTool(const std::vector<std::string>& args, const ToolRunOptions& options) {
  static TempDir folder;  // settings of every run stay in here
  ToolResult result;
  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);

  std::vector<std::string> argv{LUMORA_TOOL_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  auto envStrings = childEnvironment(options.env, folder.file("defaults.json").string());
  auto argvPointers = pointers(argv);
  auto envPointers = pointers(envStrings);

  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0].c_str(), &actions, nullptr, argvPointers.data(),
                                  envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (spawned != 0) {
    ADD_FAILURE() << "cannot run " << argv[0] << ": " << std::strerror(spawned);
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    return result;
  }

  // Both pipes are read as they fill, so a chatty child never blocks.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(options.limitSeconds);
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  bool killed = false;
  bool interrupted = false;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::kill(pid, SIGKILL);
      killed = true;
      break;
    }
    if (::poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
        if (i == 0 && options.interruptAfterFirstLine && !interrupted &&
            result.out.find('\n') != std::string::npos) {
          ::kill(pid, SIGINT);
          interrupted = true;
        }
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& fd : fds) {
    if (fd.fd >= 0) ::close(fd.fd);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (killed) ADD_FAILURE() << "lumora ran longer than " << options.limitSeconds << " s";
  if (WIFEXITED(status)) result.exit = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.exit = 128 + WTERMSIG(status);
  return result;
}

}  // namespace lumora::test
