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

#include <unistd.h>

#include <sdbus-c++/sdbus-c++.h>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "tool/Child.h"

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
        "bus.err");
    address_ = bus_->firstLine();
    if (address_.empty()) {
      bus_.reset();
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
    if (standIn_) standIn_->stop(SIGTERM);
    bus_->stop(SIGTERM);
    ::unsetenv("LUMORA_BLUEZ_BUS");
  }
  MockBluez(const MockBluez&) = delete;
  MockBluez& operator=(const MockBluez&) = delete;

  /// Starts the stand-in (again, after killStandIn()).
  void startStandIn() {
    if (standIn_) return;
    std::vector<std::string> argv{"DBUS_SYSTEM_BUS_ADDRESS=" + address_,
                                  "/usr/bin/python3",
                                  "-m",
                                  "dbusmock",
                                  "--template",
                                  std::string(LUMORA_SOURCE_DIR) + "/tests/bluez/lumora_bluez.py",
                                  "-l",
                                  dir_.file("bluez.log").string()};
    if (!parameters_.empty()) argv.insert(argv.end(), {"-p", parameters_});
    standIn_ = spawn(argv, "bluez.err");
    if (standIn_->firstLine() != "lumora-bluez-mock ready") {
      standIn_.reset();
      throw std::runtime_error("the bluetoothd stand-in did not start: " + readFile("bluez.err"));
    }
  }
  /// SIGKILL: bluetoothd crashing.
  void killStandIn() { standIn_.reset(); }
  /// SIGTERM to the bus daemon itself.
  void killBus() {
    control_.reset();
    connection_.reset();
    bus_->stop(SIGTERM);
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
  // Debian's python or point it at another system bus; stderr goes into the
  // file `err` of our folder.
  std::unique_ptr<Child> spawn(std::vector<std::string> argv, const char* err) {
    argv.insert(argv.begin(), {"/usr/bin/env", "-u", "PYTHONPATH", "-u", "PYTHONHOME", "-u",
                               "DBUS_SYSTEM_BUS_ADDRESS"});
    return std::make_unique<Child>(std::move(argv), dir_.file(err).string());
  }
  std::string readFile(const char* name) const {
    std::stringstream text;
    text << std::ifstream(dir_.file(name)).rdbuf();
    return text.str();
  }

  TempDir dir_;
  std::string address_;
  std::string parameters_;
  std::unique_ptr<Child> bus_;
  std::unique_ptr<Child> standIn_;  // SIGKILL on reset: bluetoothd crashing
  std::unique_ptr<sdbus::IConnection> connection_;
  std::unique_ptr<sdbus::IProxy> control_;
};

}  // namespace lumora::test
