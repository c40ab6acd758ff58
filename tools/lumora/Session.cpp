#include "Session.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "Foundation/Dispatch.h"
#include "Foundation/NSLog.h"
#include "Output.h"
#include "Text.h"
#include "backends/Radio.h"

namespace lumora::tool {
namespace {

// The self-pipe that carries Ctrl-C from the signal handler to the run loop;
// the handler may only write(2) to it.
int gInterruptPipe[2] = {-1, -1};
// Touched only on the main thread (the pipe's run-loop source).
bool gInterrupted = false;

extern "C" void onInterruptSignal(int) {
  const int saved = errno;
  const char byte = 1;
  [[maybe_unused]] auto n = ::write(gInterruptPipe[1], &byte, 1);
  errno = saved;
}

void installInterruptHandler() {
  if (gInterruptPipe[0] >= 0) return;
  if (::pipe2(gInterruptPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw Failure(fmt::format("cannot make the Ctrl-C pipe: {}", std::strerror(errno)));
  }
  struct sigaction action {};
  action.sa_handler = onInterruptSignal;
  sigemptyset(&action.sa_mask);
  // The first Ctrl-C asks the command to tidy up; the handler then resets, so
  // a second one ends the process even if tidying up hangs.
  action.sa_flags = SA_RESETHAND | SA_RESTART;
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

Session::Session(const GlobalOptions& options, Output& out) : options_(options), out_(out) {}

Session::~Session() {
  if (!radioOpen_) return;
  RunLoop::main().removeSource(interruptSource_);
  // Work already set going (emulator callbacks on workers, deliveries on the
  // main queue) finishes before the radio is given back.
  dispatch::waitForGlobalIdle();
  RunLoop::main().drain();
  radio::Backend::setCurrent(nullptr);
  air_.reset();
  RunLoop::main().drain();
  if (capture_) {
    out_.note(fmt::format("{} packet{} captured in {}{}", capture_->packets(),
                          capture_->packets() == 1 ? "" : "s", printable(capture_->path()),
                          capture_->ok() ? "" : " (writing failed; the file is cut short)"));
  }
}

void Session::openRadio() {
  std::string radioName = options_.backend;
  std::string origin = "--backend";
  if (radioName.empty()) {
    if (const char* env = std::getenv("LUMORA_BACKEND"); env != nullptr && *env != '\0') {
      radioName = env;
      origin = "LUMORA_BACKEND";
    }
  }

  sim::AirOptions airOptions{.clock = sim::ClockMode::RealTime};
  const auto loadFile = [&](const std::string& path) {
    try {
      air_ = sim::loadScenarioFile(path, airOptions);
    } catch (const sim::ScenarioError& e) {
      // The loader's message usually names the file already.
      const std::string what = printable(e.what());
      if (what.find(printable(path)) != std::string::npos) throw UsageError("scenario " + what);
      throw UsageError(fmt::format("scenario {}: {}", printable(path), what));
    }
    radioDescription_ = fmt::format("simulated air (scenario {})", printable(path));
  };

  std::shared_ptr<radio::Backend> backend;
  if (radioName.empty() || radioName == "sim") {
    if (!options_.scenario.empty()) {
      loadFile(options_.scenario);
    } else {
      air_ = sim::loadScenario(sim::defaultScenarioJson(), airOptions);
      radioDescription_ = "simulated air (built-in scenario)";
    }
    backend = air_;
  } else if (startsWith(radioName, "sim:")) {
    if (!options_.scenario.empty()) {
      throw UsageError(fmt::format("--scenario and {}={} both name a scenario", origin, radioName));
    }
    loadFile(radioName.substr(4));
    backend = air_;
  } else if (radioName == "bluez" || startsWith(radioName, "bluez:")) {
    if (!options_.scenario.empty()) {
      throw UsageError(fmt::format("--scenario needs the simulated air, not {}", radioName));
    }
    if (!options_.pcap.empty()) {
      throw UsageError(fmt::format("--pcap needs the simulated air, not {}", radioName));
    }
    try {
      backend = radio::makeBackend(radioName);
    } catch (const radio::BackendError& e) {
      throw Failure(fmt::format("{}: {}", radioName, e.what()));
    }
    radioDescription_ = backend->name();
  } else {
    throw UsageError(
        fmt::format("{}: unknown radio '{}' (want sim, sim:SCENARIO.json, bluez or bluez:hciN)",
                    origin, printable(radioName)));
  }

  if (!options_.pcap.empty()) {
    try {
      capture_ = sim::Capture::start(air_, options_.pcap);
    } catch (const sim::CaptureError& e) {
      throw UsageError(fmt::format("--pcap {}", printable(e.what())));
    }
  }

  installInterruptHandler();
  interruptSource_ = RunLoop::main().addSource(gInterruptPipe[0], POLLIN, [](short) {
    char buffer[16];
    while (::read(gInterruptPipe[0], buffer, sizeof buffer) > 0) {
    }
    gInterrupted = true;
    // A task of its own, so that a wait re-checks its condition now.
    RunLoop::main().post([] {});
  });
  radio::Backend::setCurrent(backend);
  radioOpen_ = true;
}

bool Session::interrupted() const {
  return gInterrupted;
}

bool Session::waitUntil(const std::function<bool()>& done, std::optional<Seconds> limit,
                        bool evenAfterCtrlC) {
  const auto finished = [&] { return (gInterrupted && !evenAfterCtrlC) || done(); };
  if (finished()) return done();
  // Without a limit the wait ends only by done() or Ctrl-C; ten years stands
  // for "never" and still fits the clock.
  const auto timeout =
      limit ? std::chrono::duration_cast<RunLoop::Clock::duration>(*limit)
            : std::chrono::duration_cast<RunLoop::Clock::duration>(std::chrono::hours(24 * 3650));
  if (timeout.count() > 0) RunLoop::main().runUntil(finished, timeout);
  return done();
}

void Session::runFor(std::optional<Seconds> duration) {
  waitUntil([] { return false; }, duration);
}

Deadline::Deadline(std::optional<Seconds> limit) : start_(RunLoop::Clock::now()) {
  if (limit) end_ = start_ + std::chrono::duration_cast<RunLoop::Clock::duration>(*limit);
}

std::optional<Seconds> Deadline::left() const {
  if (!end_) return std::nullopt;
  const auto now = RunLoop::Clock::now();
  if (now >= *end_) return Seconds(0);
  return std::chrono::duration_cast<Seconds>(*end_ - now);
}

bool Deadline::passed() const {
  auto l = left();
  return l && l->count() <= 0;
}

std::string Deadline::describe() const {
  if (auto l = left()) return fmt::format("{:.0f} s left", std::ceil(l->count()));
  const Seconds elapsed = RunLoop::Clock::now() - start_;
  return fmt::format("{:.0f} s, Ctrl-C to stop", std::floor(elapsed.count()));
}

void routeLibraryLog(bool show) {
  if (show) {
    setLogSink({});
  } else {
    setLogSink([](std::string_view) {});
  }
}

}  // namespace lumora::tool
