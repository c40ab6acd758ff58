// Captures NSLog lines for the lifetime of the object (the previous sink is
// restored afterwards). Thread-safe: lines logged on workers are kept too.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Foundation/NSLog.h"

namespace lumora::test {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  void clear();
  /// How many captured lines equal `line` exactly.
  std::size_t count(const std::string& line) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  LogSink previous_;
};

}  // namespace lumora::test
