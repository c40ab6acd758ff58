// Test harness: a private dbus-daemon with the scripted bluetoothd
// (lumora_bluez.py in python3-dbusmock) on it, and blocking control calls to
// the stand-in. The backend under test reaches it through LUMORA_BLUEZ_BUS.
//
//   MockBluez bluez;                      // daemon + stand-in with one adapter hci0
//   bluez.call("SetPowered", "hci0", false);
//   auto state = bluez.state();           // JSON
//
// Control calls block, so the stand-in never calls back into them; anything
// that makes it call the backend (remote reads and writes, registrations)
// returns at once and completes while the test runs the main run loop.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TempDir.h"

extern char** environ;

namespace lumora::test {

class MockBluez {
 public:
  struct Config {
    /// dbusmock template parameters (JSON); empty: one adapter hci0, powered,
    /// peripheral-capable.
    std::string parameters{};
    /// Start the stand-in (false: a bus without bluetoothd).
    bool startStandIn = true;
    /// The bus policy denies every message to org.bluez.
    bool denyBluez = false;
  };

  /// Why the harness cannot run here ("" when dbus-daemon and Debian's
  /// /usr/bin/python3 with dbusmock are present).
  static const std::string& missingTools() {
    static const std::string reason = [] {
      if (::access("/usr/bin/dbus-daemon", X_OK) != 0) return "dbus-daemon is missing";
      if (::access("/usr/bin/python3", X_OK) != 0) return "/usr/bin/python3 is missing";
      if (std::system("/usr/bin/env -u PYTHONPATH -u PYTHONHOME /usr/bin/python3 -c "
                      "'import dbusmock, dbus.mainloop.glib, gi.repository.GLib' "
                      ">/dev/null 2>&1") != 0) {
        return "python3-dbusmock is missing for /usr/bin/python3";
      }
      return "";
    }();
    return reason;
  }

  MockBluez() : MockBluez(Config{}) {}
  explicit MockBluez(const Config& config) : parameters_(config.parameters) {
    const auto conf = dir_.file("bus.conf");
    std::ofstream(conf)
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n  <listen>unix:path="
        << dir_.file("bus").string()
        << "</listen>\n  <auth>EXTERNAL</auth>\n  <policy context=\"default\">\n"
           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n"
        << (config.denyBluez ? "    <deny send_destination=\"org.bluez\"/>\n" : "")
        << "  </policy>\n</busconfig>\n";
    bus_ = spawn(
        {"/usr/bin/dbus-daemon", "--config-file=" + conf.string(), "--print-address", "--nofork"},
        "bus.err", &busOut_);
    address_ = readLine(busOut_);
    if (address_.empty()) {
      stop(bus_, busOut_, SIGKILL);
      throw std::runtime_error("dbus-daemon did not start: " + readFile("bus.err"));
    }
    ::setenv("LUMORA_BLUEZ_BUS", address_.c_str(), 1);
    connection_ = sdbus::createSessionBusConnectionWithAddress(address_);
    control_ = sdbus::createProxy(*connection_, "org.bluez", "/");
    if (config.startStandIn) startStandIn();
  }
  ~MockBluez() {
    control_.reset();
    connection_.reset();
    stop(standIn_, standInOut_, SIGTERM);
    stop(bus_, busOut_, SIGTERM);
    ::unsetenv("LUMORA_BLUEZ_BUS");
  }
  MockBluez(const MockBluez&) = delete;
  MockBluez& operator=(const MockBluez&) = delete;

  /// Starts the stand-in (again, after killStandIn()).
  void startStandIn() {
    if (standIn_ > 0) return;
    std::vector<std::string> argv{"DBUS_SYSTEM_BUS_ADDRESS=" + address_,
                                  "/usr/bin/python3",
                                  "-m",
                                  "dbusmock",
                                  "--template",
                                  std::string(LUMORA_SOURCE_DIR) + "/tests/bluez/lumora_bluez.py",
                                  "-l",
                                  dir_.file("bluez.log").string()};
    if (!parameters_.empty()) argv.insert(argv.end(), {"-p", parameters_});
    standIn_ = spawn(argv, "bluez.err", &standInOut_);
    if (readLine(standInOut_) != "lumora-bluez-mock ready") {
      stop(standIn_, standInOut_, SIGKILL);
      throw std::runtime_error("the bluetoothd stand-in did not start: " + readFile("bluez.err"));
    }
  }
  /// SIGKILL: bluetoothd crashing.
  void killStandIn() { stop(standIn_, standInOut_, SIGKILL); }
  /// SIGTERM to the bus daemon itself.
  void killBus() {
    control_.reset();
    connection_.reset();
    stop(bus_, busOut_, SIGTERM);
  }

  /// A blocking call to org.lumora.BluezMock on "/".
  template <class... Args>
  void call(const std::string& method, const Args&... args) {
    control_->callMethod(method).onInterface(kControl).withArguments(args...);
  }
  template <class Result, class... Args>
  Result ask(const std::string& method, const Args&... args) {
    Result result{};
    control_->callMethod(method).onInterface(kControl).withArguments(args...).storeResultsTo(
        result);
    return result;
  }

  nlohmann::json state() { return nlohmann::json::parse(ask<std::string>("State")); }
  /// The stand-in's log (method calls, signals), for failure messages.
  std::string log() const { return readFile("bluez.log") + readFile("bluez.err"); }

 private:
  static constexpr const char* kControl = "org.lumora.BluezMock";

  // Starts `argv` through env(1), which first takes away what would redirect
  // Debian's python or point it at another system bus; stdout on a pipe
  // (returned in `out`), stderr into the file `err` of our folder.
  pid_t spawn(std::vector<std::string> argv, const char* err, int* out) {
    const std::string program = argv[0];
    argv.insert(argv.begin(), {"/usr/bin/env", "-u", "PYTHONPATH", "-u", "PYTHONHOME", "-u",
                               "DBUS_SYSTEM_BUS_ADDRESS"});
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, dir_.file(err).c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    if (rc != 0) {
      ::close(fds[0]);
      throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc));
    }
    *out = fds[0];
    return pid;
  }
  // One line from `fd`, waiting at most 15 s; empty on end of file or time-out.
  static std::string readLine(int fd) {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (char c; std::chrono::steady_clock::now() < deadline;) {
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      if (::read(fd, &c, 1) <= 0) return {};
      if (c == '\n') return line;
      line += c;
    }
    return {};
  }
  static void stop(pid_t& pid, int& out, int signal) {
    if (pid > 0) {
      ::kill(pid, signal);
      ::waitpid(pid, nullptr, 0);
    }
    if (out >= 0) ::close(out);
    pid = out = -1;
  }
  std::string readFile(const char* name) const {
    std::stringstream text;
    text << std::ifstream(dir_.file(name)).rdbuf();
    return text.str();
  }

  TempDir dir_;
  std::string address_;
  std::string parameters_;
  pid_t bus_ = -1;
  int busOut_ = -1;
  pid_t standIn_ = -1;
  int standInOut_ = -1;
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> control_;
};

}  // namespace lumora::test
