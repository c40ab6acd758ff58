#include "MockBluez.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

extern char** environ;

namespace lumora::test {

namespace {

constexpr const char* kPython = "/usr/bin/python3";
constexpr auto kStartupBound = std::chrono::seconds(15);

std::string templatePath() {
  return std::string(LUMORA_SOURCE_DIR) + "/tests/bluez/lumora_bluez.py";
}

// Environment of a child: ours, minus what would redirect Debian's python,
// plus `extra`.
std::vector<std::string> childEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    if (entry.rfind("PYTHONPATH=", 0) == 0 || entry.rfind("PYTHONHOME=", 0) == 0 ||
        entry.rfind("DBUS_SYSTEM_BUS_ADDRESS=", 0) == 0) {
      continue;
    }
    env.push_back(entry);
  }
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

// Starts `argv` with stdout on a pipe (returned) and stderr into `errFile`.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env,
            const std::string& errFile, int* out) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (rc != 0) {
    ::close(fds[0]);
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  }
  *out = fds[0];
  return pid;
}

// One line from `fd`, waiting at most kStartupBound; empty on EOF or time-out.
std::string readLine(int fd) {
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + kStartupBound;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return {};
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char c;
    const ssize_t n = ::read(fd, &c, 1);
    if (n <= 0) return {};
    if (c == '\n') return line;
    line += c;
  }
}

void stop(pid_t& pid, int& out, int signal) {
  if (pid > 0) {
    ::kill(pid, signal);
    int status = 0;
    ::waitpid(pid, &status, 0);
  }
  if (out >= 0) ::close(out);
  pid = -1;
  out = -1;
}

int runQuietly(const std::vector<std::string>& argv) {
  int out = -1;
  pid_t pid = -1;
  try {
    pid = spawn(argv, childEnvironment({}), "/dev/null", &out);
  } catch (const std::exception&) {
    return -1;
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::close(out);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

const std::string& MockBluez::missingTools() {
  static const std::string reason = [] {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) return std::string("dbus-daemon is missing");
    if (::access(kPython, X_OK) != 0) return std::string("/usr/bin/python3 is missing");
    if (runQuietly({kPython, "-c", "import dbusmock, dbus.mainloop.glib, gi.repository.GLib"}) !=
        0) {
      return std::string("python3-dbusmock is missing for /usr/bin/python3");
    }
    return std::string();
  }();
  return reason;
}

MockBluez::MockBluez(const Config& config) : parameters_(config.parameters) {
  const auto conf = dir_.file("bus.conf");
  {
    std::ofstream out(conf);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <listen>unix:path="
        << dir_.file("bus").string()
        << "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n"
           "    <allow own=\"*\"/>\n"
        << (config.denyBluez ? "    <deny send_destination=\"org.bluez\"/>\n" : "")
        << "  </policy>\n"
           "</busconfig>\n";
  }
  bus_ = spawn(
      {"/usr/bin/dbus-daemon", "--config-file=" + conf.string(), "--print-address", "--nofork"},
      childEnvironment({}), dir_.file("bus.err").string(), &busOut_);
  address_ = readLine(busOut_);
  if (address_.empty()) {
    stop(bus_, busOut_, SIGKILL);
    throw std::runtime_error("dbus-daemon did not start: " + readFile(dir_.file("bus.err")));
  }
  ::setenv("LUMORA_BLUEZ_BUS", address_.c_str(), 1);
  connection_ = sdbus::createSessionBusConnectionWithAddress(address_);
  control_ = sdbus::createProxy(*connection_, "org.bluez", "/");
  if (config.startStandIn) startStandIn(parameters_);
}

MockBluez::~MockBluez() {
  control_.reset();
  connection_.reset();
  stop(standIn_, standInOut_, SIGTERM);
  stop(bus_, busOut_, SIGTERM);
  ::unsetenv("LUMORA_BLUEZ_BUS");
}

void MockBluez::startStandIn(const std::string& parameters) {
  if (standIn_ > 0) return;
  std::vector<std::string> argv{kPython,
                                "-m",
                                "dbusmock",
                                "--template",
                                templatePath(),
                                "-l",
                                dir_.file("bluez.log").string()};
  const auto& p = parameters.empty() ? parameters_ : parameters;
  if (!p.empty()) {
    argv.push_back("-p");
    argv.push_back(p);
  }
  standIn_ = spawn(argv, childEnvironment({"DBUS_SYSTEM_BUS_ADDRESS=" + address_}),
                   dir_.file("bluez.err").string(), &standInOut_);
  if (readLine(standInOut_) != "lumora-bluez-mock ready") {
    stop(standIn_, standInOut_, SIGKILL);
    throw std::runtime_error("the bluetoothd stand-in did not start: " +
                             readFile(dir_.file("bluez.err")));
  }
}

void MockBluez::killStandIn() {
  stop(standIn_, standInOut_, SIGKILL);
}

void MockBluez::killBus() {
  control_.reset();
  connection_.reset();
  stop(bus_, busOut_, SIGTERM);
}

nlohmann::json MockBluez::state() {
  return nlohmann::json::parse(ask<std::string>("State"));
}

std::string MockBluez::log() const {
  return readFile(dir_.file("bluez.log")) + readFile(dir_.file("bluez.err"));
}

}  // namespace lumora::test
