// Where the tool's output goes.
//
// Results go to stdout, one line each: readable text, or with --json one JSON
// object per line. Notes and errors go to stderr. On a terminal a progress
// line (time left, what has been seen) is kept on stderr with \r and erased
// before every result line, so a pipe never sees it.
//
// Main thread only: work that starts on a worker (the emulator's delegate)
// posts its output to the main queue first.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Foundation/RunLoop.h"

namespace lumora::tool {

/// JSON records keep their keys in the order written ("event" first).
using Json = nlohmann::ordered_json;

class Output {
 public:
  explicit Output(bool json);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool json() const { return json_; }

  /// One result: `text` in text mode, `record` (one line) with --json.
  void emit(std::string_view text, const Json& record);
  /// A result line in text mode only (headings of the demo's story).
  void text(std::string_view text);
  /// A note for the person at the terminal ("lumora: <note>" on stderr).
  void note(std::string_view text);

  /// Shows `status()` as a progress line, refreshed a few times a second
  /// while the main run loop runs; only when stderr is a terminal.
  void startProgress(std::function<std::string()> status);
  /// Erases the progress line and stops refreshing it.
  void stopProgress();

 private:
  void clearProgressLine();
  void drawProgress();
  void scheduleProgress();

  bool json_;
  bool terminal_;
  bool progressShown_ = false;
  std::function<std::string()> status_;
  RunLoop::TimerId timer_ = 0;
  bool timerArmed_ = false;
};

/// Shows a progress line for as long as it lives: the status function
/// usually refers to the caller's locals, so it must not outlive them, even
/// when an exception ends the command.
class Progress {
 public:
  Progress(Output& out, std::function<std::string()> status) : out_(out) {
    out_.startProgress(std::move(status));
  }
  ~Progress() { out_.stopProgress(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  Output& out_;
};

/// Dumps `record` as one line, never throwing on text that is not UTF-8.
std::string dumpLine(const Json& record);

}  // namespace lumora::tool
