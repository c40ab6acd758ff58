// What every command that uses the radio shares: the chosen radio, Ctrl-C,
// and waiting on the main run loop.
//
// The tool is single-threaded from its own point of view: commands run on
// the main thread and wait by running RunLoop::main(), where the finder's
// callbacks and the simulated air's real-time clock run too. Ctrl-C (SIGINT,
// SIGTERM) is turned into an ordinary run-loop event through a self-pipe, so
// a wait ends between two callbacks and the command can tidy up (disconnect,
// stop advertising) before it returns. A second Ctrl-C ends the process.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Foundation/RunLoop.h"
#include "backends/sim/Air.h"
#include "backends/sim/Pcap.h"

namespace lumora::tool {

class Output;

/// Options that every command accepts.
struct GlobalOptions {
  bool json = false;
  std::string backend;   // empty: LUMORA_BACKEND, else the simulated air
  std::string scenario;  // a scenario file for the simulated air
  std::string defaults;  // a user-defaults file instead of the standard one
  bool log = false;      // show the library's log lines on stderr
  std::string pcap;      // a capture file of the simulated air (scan, demo)
};

/// Exit status of a command stopped by Ctrl-C before it was done.
inline constexpr int kInterruptedExit = 130;

using Seconds = std::chrono::duration<double>;

class Session {
 public:
  Session(const GlobalOptions& options, Output& out);
  /// Lets queued work finish and gives the radio back.
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Chooses the radio, starts the --pcap capture and installs the Ctrl-C
  /// handler. Throws UsageError for an unknown radio, a scenario file that
  /// does not load or a capture file that cannot be made (or --pcap with
  /// BlueZ), Failure when the radio cannot be had.
  void openRadio();
  /// The simulated air when that is the radio (null for BlueZ).
  std::shared_ptr<sim::Air> air() const { return air_; }
  /// "simulated air (built-in scenario)", "bluez:hci0", ...
  const std::string& radioDescription() const { return radioDescription_; }

  /// Runs the main run loop until `done()` holds, `limit` passes (none: no
  /// limit) or, unless `evenAfterCtrlC`, Ctrl-C. Returns done(). Tidying up
  /// after Ctrl-C waits with `evenAfterCtrlC` and a short limit.
  bool waitUntil(const std::function<bool()>& done, std::optional<Seconds> limit,
                 bool evenAfterCtrlC = false);
  /// Runs the main run loop for `duration` (none: until Ctrl-C).
  void runFor(std::optional<Seconds> duration);
  bool interrupted() const;

  Output& out() { return out_; }
  const GlobalOptions& options() const { return options_; }

 private:
  GlobalOptions options_;
  Output& out_;
  std::shared_ptr<sim::Air> air_;
  std::shared_ptr<sim::Capture> capture_;
  std::string radioDescription_;
  RunLoop::SourceId interruptSource_ = 0;
  bool radioOpen_ = false;
};

/// Time left until a deadline, for progress lines and limits.
class Deadline {
 public:
  explicit Deadline(std::optional<Seconds> limit);
  /// None when there is no deadline; zero once it has passed.
  std::optional<Seconds> left() const;
  bool passed() const;
  /// "4 s left" or "12 s" (elapsed, when there is no deadline).
  std::string describe() const;

 private:
  RunLoop::Clock::time_point start_;
  std::optional<RunLoop::Clock::time_point> end_;
};

/// Runs `fn` when it goes out of scope, however the scope is left: tidying
/// up (stopping an emulator before its delegate goes) must happen even when
/// an exception ends a command.
template <class F>
class Finally {
 public:
  explicit Finally(F fn) : fn_(std::move(fn)) {}
  ~Finally() { fn_(); }
  Finally(const Finally&) = delete;
  Finally& operator=(const Finally&) = delete;

 private:
  F fn_;
};

/// Leaves the library's log lines on stderr (with --log) or drops them.
void routeLibraryLog(bool show);

}  // namespace lumora::tool
