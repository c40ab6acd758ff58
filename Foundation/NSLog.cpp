#include "Foundation/NSLog.h"

#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace lumora {

namespace {

// One mutex serialises every line and guards the sink. It is recursive so
// that a sink may replace itself (setLogSink from inside the sink); a sink
// must not call NSLog, and if it does anyway the nested line goes straight to
// the default sink instead of recursing or deadlocking.
std::recursive_mutex& logMutex() {
  static auto* mutex = new std::recursive_mutex;  // outlives every static destructor
  return *mutex;
}

// Held by shared_ptr so that a sink replaced while it runs stays alive until
// it returns. Guarded by logMutex().
std::shared_ptr<const LogSink>& currentSink() {
  static auto* sink = new std::shared_ptr<const LogSink>;
  return *sink;
}

thread_local bool tInsideSink = false;

void writeDefault(std::string_view text) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char stamp[64];
  const int stampLength =
      std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03ld ",
                    local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                    local.tm_min, local.tm_sec, static_cast<long>(now.tv_nsec / 1000000));
  std::string line(stamp, stampLength > 0 ? static_cast<std::size_t>(stampLength) : 0);
  line += program_invocation_short_name;
  line += '[';
  line += std::to_string(getpid());
  line += "] ";
  line += text;
  line += '\n';
  // One write(2) per line, so that lines from other processes sharing the
  // terminal interleave whole.
  const char* data = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    const ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report a failing stderr
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
}

}  // namespace

void NSLog(std::string_view line) {
  if (tInsideSink) {
    writeDefault(line);
    return;
  }
  std::lock_guard lock(logMutex());
  const std::shared_ptr<const LogSink> sink = currentSink();
  if (!sink) {
    writeDefault(line);
    return;
  }
  tInsideSink = true;
  try {
    (*sink)(line);
  } catch (...) {
    // A throwing sink must not unwind through the library's callers.
  }
  tInsideSink = false;
}

LogSink setLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> replacement;
  if (sink) replacement = std::make_shared<const LogSink>(std::move(sink));
  std::shared_ptr<const LogSink> previous;
  {
    // Taking the line mutex also waits for a line in progress: once this
    // returns, the old sink is never called again (LogCapture relies on it).
    std::lock_guard lock(logMutex());
    previous = std::exchange(currentSink(), std::move(replacement));
  }
  if (!previous) return {};
  return *previous;
}

}  // namespace lumora
