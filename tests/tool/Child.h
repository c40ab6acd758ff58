// A child process for the tests that run real programs (the tool, and the bus
// daemon and bluetoothd stand-in of tests/bluez): stdin from /dev/null, stdout
// on a pipe read as it fills, stderr appended to a file.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace lumora::test {

class Child {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  /// Starts `argv` (a full path first); throws when it cannot.
  Child(std::vector<std::string> argv, const std::string& errFile) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (rc != 0) {
      ::close(fds[0]);
      throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
    }
    out_ = fds[0];
  }
  ~Child() { stop(SIGKILL); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Appends what the child prints to `text` until `enough(text)` (true), or
  /// the end of its output or `deadline` (false).
  bool read(std::string& text, Deadline deadline,
            const std::function<bool(const std::string&)>& enough) {
    while (!enough(text)) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{out_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buffer[4096];
      const ssize_t n = ::read(out_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      text.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
  }
  /// The first line the child prints, or "" when none comes within 15 s.
  std::string firstLine() {
    std::string text;
    read(text, std::chrono::steady_clock::now() + std::chrono::seconds(15),
         [](const std::string& t) { return t.find('\n') != std::string::npos; });
    return text.find('\n') == std::string::npos ? "" : text.substr(0, text.find('\n'));
  }
  /// Sends `signal` (0: none) and waits; the exit status, or 128 + the signal that ended it.
  int stop(int signal) {
    int status = 0;
    if (pid_ > 0) {
      if (signal != 0) ::kill(pid_, signal);
      ::waitpid(pid_, &status, 0);
    }
    if (out_ >= 0) ::close(out_);
    pid_ = out_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  void signal(int signal) const { ::kill(pid_, signal); }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

}  // namespace lumora::test
