#include "Output.h"

#include <unistd.h>
#include <chrono>
#include <cstdio>

namespace lumora::tool {
namespace {

constexpr auto kProgressPeriod = std::chrono::milliseconds(250);

void writeAll(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

}  // namespace

std::string dumpLine(const Json& record) {
  return record.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Output::Output(bool json) : json_(json), terminal_(::isatty(STDERR_FILENO) == 1) {}

Output::~Output() {
  stopProgress();
}

void Output::emit(std::string_view text, const Json& record) {
  clearProgressLine();
  std::string line = json_ ? dumpLine(record) : std::string(text);
  line += '\n';
  writeAll(stdout, line);
}

void Output::text(std::string_view text) {
  if (json_) return;
  clearProgressLine();
  std::string line(text);
  line += '\n';
  writeAll(stdout, line);
}

void Output::note(std::string_view text) {
  clearProgressLine();
  std::string line = "lumora: ";
  line += text;
  line += '\n';
  writeAll(stderr, line);
}

void Output::startProgress(std::function<std::string()> status) {
  if (!terminal_) return;
  status_ = std::move(status);
  drawProgress();
  scheduleProgress();
}

void Output::stopProgress() {
  if (timerArmed_) {
    RunLoop::main().cancelTimer(timer_);
    timerArmed_ = false;
  }
  status_ = nullptr;
  clearProgressLine();
}

void Output::clearProgressLine() {
  if (!progressShown_) return;
  writeAll(stderr, "\r\033[K");
  progressShown_ = false;
}

void Output::drawProgress() {
  if (!status_) return;
  writeAll(stderr, "\r\033[K" + status_());
  progressShown_ = true;
}

void Output::scheduleProgress() {
  timerArmed_ = true;
  timer_ = RunLoop::main().addTimer(kProgressPeriod, [this] {
    timerArmed_ = false;
    if (!status_) return;
    drawProgress();
    scheduleProgress();
  });
}

}  // namespace lumora::tool
