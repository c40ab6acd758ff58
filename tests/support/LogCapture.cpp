#include "support/LogCapture.h"

#include <algorithm>

namespace lumora::test {

LogCapture::LogCapture() {
  previous_ = setLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() {
  setLogSink(std::move(previous_));
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

std::size_t LogCapture::count(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
}

}  // namespace lumora::test
