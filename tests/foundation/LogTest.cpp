// The system log: sinks, the default line format, serialisation.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Foundation/NSLog.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

// Sends stderr to a file while alive; text() puts stderr back and reads it.
class StderrCapture {
 public:
  StderrCapture() : saved_(::dup(STDERR_FILENO)) {
    const int fd = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~StderrCapture() { restore(); }
  std::string text() {
    restore();
    std::ifstream in(file_);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }
  test::TempDir dir_;
  std::filesystem::path file_ = dir_.file("stderr");
  int saved_;
};

// Whether `line` is `text` as the default sink writes it: a local time stamp
// with milliseconds, then the program and its process id. (No std::regex:
// GCC warns inside <regex> in the sanitizer builds.)
bool stamped(std::string_view line, std::string_view text) {
  constexpr std::string_view kShape = "0000-00-00 00:00:00.000 ";  // 0: any digit
  if (line.size() < kShape.size()) return false;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool digit = line[i] >= '0' && line[i] <= '9';
    if (kShape[i] == '0' ? !digit : line[i] != kShape[i]) return false;
  }
  const std::string rest = std::string(program_invocation_short_name) + "[" +
                           std::to_string(getpid()) + "] " + std::string(text);
  return line.substr(kShape.size()) == rest;
}

// The default sink stamps each line; setLogSink hands back the sink it
// replaced (LogCapture restores with it); a line logged from inside a sink
// skips the sink (no hang, no recursion); an empty sink brings the default back.
TEST(Log, DefaultSinkStampsEachLineOnStderrAndSinksGetTheBareLine) {
  StderrCapture capture;
  NSLog("Scanning started");
  NSLog("TQBeacon Conneting...");
  std::vector<std::string> lines;
  auto original = setLogSink([&](std::string_view line) {
    lines.emplace_back(line);
    NSLog("nested");
  });
  NSLog("outer");
  auto mine = setLogSink({});
  ASSERT_TRUE(mine);
  mine("direct");  // the returned sink is the one that was installed
  NSLog("back to stderr");
  setLogSink(std::move(original));
  EXPECT_EQ(lines, (std::vector<std::string>{"outer", "direct"}));
  const std::string text = capture.text();
  const std::vector<std::string> expected{"Scanning started", "TQBeacon Conneting...", "nested",
                                          "nested", "back to stderr"};
  std::vector<std::string> got;
  for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    got.push_back(text.substr(at, end - at));
  }
  ASSERT_EQ(got.size(), expected.size()) << text;
  EXPECT_TRUE(text.ends_with('\n')) << text;
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_TRUE(stamped(got[i], expected[i])) << got[i];
  }
}

TEST(Log, LinesFromManyThreadsNeverOverlap) {
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto previous = setLogSink([&](std::string_view) {
    if (inside.fetch_add(1) != 0) overlapped = true;
    for (volatile int spin = 0; spin < 200;) spin = spin + 1;
    inside.fetch_sub(1);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) NSLog("thread " + std::to_string(t));
    });
  }
  for (auto& th : threads) th.join();
  setLogSink(std::move(previous));
  EXPECT_FALSE(overlapped);
}

}  // namespace
}  // namespace lumora
