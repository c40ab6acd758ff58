// The system log: sinks, the default line format, serialisation.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "Foundation/NSLog.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

// Sends stderr to a file while alive; text() reads what was written.
class StderrCapture {
 public:
  StderrCapture() : file_(dir_.file("stderr")) {
    saved_ = ::dup(STDERR_FILENO);
    const int fd = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~StderrCapture() { restore(); }
  void restore() {
    if (saved_ < 0) return;
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }
  std::string text() const {
    std::ifstream in(file_);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

 private:
  test::TempDir dir_;
  std::filesystem::path file_;
  int saved_ = -1;
};

std::string stampPattern(const std::string& text) {
  return R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )" + std::string(program_invocation_short_name) +
         R"(\[)" + std::to_string(getpid()) + R"(\] )" + text + "\n";
}

TEST(Log, DefaultSinkStampsEachLine) {
  StderrCapture capture;
  NSLog("Scanning started");
  NSLog("TQBeacon Conneting...");
  capture.restore();
  EXPECT_TRUE(std::regex_match(
      capture.text(),
      std::regex(stampPattern("Scanning started") + stampPattern(R"(TQBeacon Conneting\.\.\.)"))))
      << capture.text();
}

TEST(Log, SinkGetsTheBareLineAndIsReplaceable) {
  std::vector<std::string> outer, inner;
  auto original = setLogSink([&](std::string_view line) { outer.emplace_back(line); });
  NSLog("one");
  auto previous = setLogSink([&](std::string_view line) { inner.emplace_back(line); });
  NSLog("two");
  ASSERT_TRUE(previous);
  previous("direct");  // the returned sink is the one that was installed
  setLogSink(std::move(previous));
  NSLog("three");
  setLogSink(std::move(original));
  EXPECT_EQ(outer, (std::vector<std::string>{"one", "direct", "three"}));
  EXPECT_EQ(inner, (std::vector<std::string>{"two"}));
}

TEST(Log, EmptySinkRestoresTheDefault) {
  auto original = setLogSink([](std::string_view) {});
  StderrCapture capture;
  setLogSink({});
  NSLog("back to stderr");
  capture.restore();
  setLogSink(std::move(original));
  EXPECT_TRUE(std::regex_match(capture.text(), std::regex(stampPattern("back to stderr"))))
      << capture.text();
}

TEST(Log, SinkThatLogsDoesNotDeadlock) {
  std::vector<std::string> lines;
  StderrCapture capture;
  auto original = setLogSink([&](std::string_view line) {
    lines.emplace_back(line);
    NSLog("nested");  // not allowed, but must not hang or recurse
  });
  NSLog("outer");
  setLogSink(std::move(original));
  capture.restore();
  EXPECT_EQ(lines, (std::vector<std::string>{"outer"}));
  EXPECT_TRUE(std::regex_match(capture.text(), std::regex(stampPattern("nested"))))
      << capture.text();
}

TEST(Log, LinesFromManyThreadsNeverOverlap) {
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  test::LogCapture capture;  // restores the previous sink afterwards
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
  NSLog("after");
  EXPECT_EQ(capture.count("after"), 1u);
}

}  // namespace
}  // namespace lumora
