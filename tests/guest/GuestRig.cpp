#include "GuestRig.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "Foundation/Dispatch.h"
#include "Foundation/NSUserDefaults.h"
#include "backends/Radio.h"

extern char** environ;

namespace lumora::test {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string hexText(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 0x0F];
  }
  return out;
}

}  // namespace

bool runUntil(const std::function<bool()>& done, RunLoop::Clock::duration timeout) {
  return RunLoop::main().runUntil(done, timeout);
}

// --- EmulatorProcess -------------------------------------------------------------

EmulatorProcess::EmulatorProcess(const Options& options) {
  std::vector<std::string> args{LUMORA_TOOL_PATH,
                                "--json",
                                "--log",
                                "--backend",
                                "bluez:" + options.adapter,
                                "--defaults",
                                home_.file("defaults.json").string(),
                                "emulate",
                                "--uuid",
                                options.uuid.UUIDString(),
                                "--major",
                                std::to_string(options.major),
                                "--minor",
                                std::to_string(options.minor),
                                "--power",
                                std::to_string(options.power)};
  if (options.reply) {
    args.push_back("--reply");
    args.push_back(hexText(*options.reply));
  }
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    ended_ = true;
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  const int spawned = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  if (spawned != 0) {
    ::close(pipeFds[0]);
    pid_ = -1;
    ended_ = true;
    ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(spawned);
    return;
  }
  out_ = pipeFds[0];
  ::fcntl(out_, F_SETFL, ::fcntl(out_, F_GETFL) | O_NONBLOCK);
  source_ = RunLoop::main().addSource(out_, POLLIN, [this](short) { readOutput(); });
}

EmulatorProcess::~EmulatorProcess() {
  if (pid_ > 0) stop(5s);
  if (source_ != 0) RunLoop::main().removeSource(source_);
  if (out_ >= 0) ::close(out_);
}

// Main thread, from the run loop: the tool writes whole JSON lines, which may
// still arrive in pieces.
void EmulatorProcess::readOutput() {
  char buffer[4096];
  while (true) {
    const ssize_t n = ::read(out_, buffer, sizeof buffer);
    if (n > 0) {
      pending_.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
      ended_ = true;
      RunLoop::main().removeSource(source_);
      source_ = 0;
    }
    break;
  }
  std::size_t end;
  while ((end = pending_.find('\n')) != std::string::npos) {
    const std::string line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    auto parsed = nlohmann::json::parse(line, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) {
      ADD_FAILURE() << "the emulator printed a line that is not a JSON object: " << line;
      continue;
    }
    lines_.push_back(std::move(parsed));
  }
}

std::vector<nlohmann::json> EmulatorProcess::eventsNamed(const std::string& name) const {
  std::vector<nlohmann::json> out;
  for (const auto& line : lines_) {
    if (line.value("event", "") == name) out.push_back(line);
  }
  return out;
}

bool EmulatorProcess::waitUntilAdvertising(RunLoop::Clock::duration timeout) {
  const auto outcome = [&] { return ended_ || !eventsNamed("advertising").empty(); };
  runUntil(outcome, timeout);
  const auto events = eventsNamed("advertising");
  return !events.empty() && !events.front().contains("error");
}

bool EmulatorProcess::waitForWrites(std::size_t count, RunLoop::Clock::duration timeout) {
  return runUntil([&] { return ended_ || eventsNamed("write").size() >= count; }, timeout) &&
         eventsNamed("write").size() >= count;
}

bool EmulatorProcess::waitForReads(std::size_t count, RunLoop::Clock::duration timeout) {
  return runUntil([&] { return ended_ || reads() >= count; }, timeout) && reads() >= count;
}

int EmulatorProcess::stop(RunLoop::Clock::duration timeout) {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  // The tool withdraws its advertisement and service from bluetoothd before
  // it exits; its end of the pipe closes with it.
  runUntil([&] { return ended_; }, timeout);
  int status = 0;
  if (!ended_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return -1;
  }
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::optional<std::string> EmulatorProcess::advertisedName() const {
  const auto events = eventsNamed("advertising");
  if (events.empty()) return std::nullopt;
  return events.front().value("name", "");
}

std::vector<Data> EmulatorProcess::writes() const {
  std::vector<Data> out;
  for (const auto& e : eventsNamed("write")) {
    const auto& data = e["data"];
    out.push_back(data.is_string() ? bytesFromHex(data.get<std::string>()) : std::nullopt);
  }
  return out;
}

std::size_t EmulatorProcess::reads() const {
  return eventsNamed("read").size();
}

std::string EmulatorProcess::transcript() const {
  std::string out = "emulator output:";
  for (const auto& line : lines_) out += "\n  " + line.dump();
  if (ended_) out += "\n  (ended)";
  return out;
}

// --- RealBluezTest -------------------------------------------------------------------

void RealBluezTest::SetUp() {
  finderAdapter = environment("LUMORA_GUEST_FINDER_ADAPTER");
  emulatorAdapter = environment("LUMORA_GUEST_EMULATOR_ADAPTER");
  ASSERT_FALSE(finderAdapter.empty() || emulatorAdapter.empty())
      << "set LUMORA_GUEST_FINDER_ADAPTER and LUMORA_GUEST_EMULATOR_ADAPTER to two adapters of "
         "a running bluetoothd (scripts/vm/real-bluez.sh runs this program in a guest that has "
         "them)";
  NSUserDefaults::setStandardPath(defaultsDir.file("defaults.json"));
  NSUserDefaults::resetStandardUserDefaults();
}

void RealBluezTest::TearDown() {
  if (finder) finder->setDelegate(nullptr);
  finder.reset();
  // Work the finder's manager queued while closing runs before the radio goes.
  dispatch::waitForGlobalIdle();
  RunLoop::main().drain();
  radio::Backend::setCurrent(nullptr);
  RunLoop::main().drain();
  NSUserDefaults::setStandardPath({});
  NSUserDefaults::resetStandardUserDefaults();
}

void RealBluezTest::makeFinder(
    const std::function<std::shared_ptr<radio::Backend>(std::shared_ptr<radio::Backend>)>& wrap) {
  std::shared_ptr<radio::Backend> radio;
  try {
    radio = radio::makeBackend("bluez:" + finderAdapter);
  } catch (const radio::BackendError& e) {
    FAIL() << "no BlueZ radio on " << finderAdapter << ": " << e.what();
  }
  radio::Backend::setCurrent(wrap ? wrap(radio) : radio);
  finder = std::make_shared<TQBleFinder>();
  finder->setDelegate(&recorder);
  finder->initTQFinder();
}

bool RealBluezTest::waitForScan() {
  return runUntil([&] { return recorder.count(kStartScan.code, kStartScan.message) > 0; }, 30s);
}

bool RealBluezTest::waitForCharacteristics() {
  return runUntil([&] { return finder->dataCharacteristic() != nullptr; }, 30s);
}

std::string RealBluezTest::statesText() const {
  std::ostringstream out;
  out << "status events:";
  for (const auto& s : recorder.states()) out << "\n  " << s;
  return out.str();
}

}  // namespace lumora::test
