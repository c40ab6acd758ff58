// Dispatch queues, the once-only guard and the run loop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <latch>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "Foundation/Dispatch.h"
#include "Foundation/RunLoop.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;

TEST(Dispatch, MainQueueRunsInOrderOnlyWhenDriven) {
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) DispatchQueue::main()->async([&, i] { order.push_back(i); });
  EXPECT_TRUE(order.empty()) << "main queue work ran before the loop was driven";
  dispatch::settle();
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
}

// main -> global (fan out two) -> main -> ... ten levels deep: settle() waits
// for all of it, and each queue's work runs only on that queue's threads.
TEST(Dispatch, SettleWaitsForWorkThatPostsMoreAcrossQueues) {
  ASSERT_TRUE(isMainThread());
  auto global = dispatch_get_global_queue(0, 0);
  EXPECT_FALSE(global->isCurrent());
  std::atomic<int> mainSteps{0}, globalSteps{0};
  std::atomic<bool> wrongThread{false};
  std::function<void(int)> onMain = [&](int depth) {
    if (!isMainThread() || !DispatchQueue::main()->isCurrent()) wrongThread = true;
    ++mainSteps;
    if (depth == 0) return;
    for (int fan = 0; fan < 2; ++fan) {
      global->async([&, depth] {
        if (isMainThread() || !global->isCurrent() || DispatchQueue::main()->isCurrent())
          wrongThread = true;
        ++globalSteps;
        DispatchQueue::main()->async([&, depth] { onMain(depth - 1); });
      });
    }
  };
  DispatchQueue::main()->async([&] { onMain(10); });
  dispatch::settle();
  // Level k of the tree has 2^k main steps; global steps are one level behind.
  EXPECT_EQ(mainSteps, (1 << 11) - 1);
  EXPECT_EQ(globalSteps, (1 << 11) - 2);
  EXPECT_FALSE(wrongThread);
}

TEST(Dispatch, GlobalWorkRunsConcurrently) {
  // Each item waits for the other: a serial pool would never let the second
  // start. The bounded wait only turns that fault into a failure, not a hang.
  std::mutex mutex;
  std::condition_variable cv;
  int arrived = 0;
  std::atomic<int> metTheOther{0};
  for (int i = 0; i < 2; ++i) {
    DispatchQueue::global()->async([&] {
      std::unique_lock lock(mutex);
      ++arrived;
      cv.notify_all();
      if (cv.wait_for(lock, 10s, [&] { return arrived == 2; })) ++metTheOther;
    });
  }
  dispatch::waitForGlobalIdle();
  EXPECT_EQ(metTheOther, 2);
}

TEST(Dispatch, OnceRunsOnceAndOthersWaitForIt) {
  static dispatch_once_t once;
  std::atomic<int> runs{0}, sawUnfinished{0};
  std::atomic<bool> done{false};
  std::latch start(8);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      dispatch_once(once, [&] {
        ++runs;
        for (volatile int spin = 0; spin < 100000;) spin = spin + 1;
        done = true;
      });
      if (!done) ++sawUnfinished;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(sawUnfinished, 0);
}

// Ready work runs by due time (a posted task is due when posted), timers of
// one deadline in insertion order, and drain() runs what callbacks add too.
TEST(RunLoop, DrainRunsDueWorkInOrderUnlessCancelled) {
  RunLoop loop;
  const auto base = RunLoop::Clock::now() - 1h;  // all due: no waiting
  std::vector<std::string> fired;
  auto note = [&](const char* name) { return [&fired, name] { fired.push_back(name); }; };
  RunLoop::TimerId later = 0;
  loop.addTimer(base + 30s, note("30"));
  const auto cancelled = loop.addTimer(base + 5s, note("5"));
  loop.addTimer(base + 10s, note("10a"));
  loop.addTimer(RunLoop::Clock::now() + 1h, note("future"));
  loop.addTimer(base + 15s, [&] {
    fired.push_back("15");
    loop.cancelTimer(later);  // a callback cancels a timer that is already due
    loop.post(note("posted"));
    loop.addTimer(RunLoop::Clock::duration::zero(), note("timer"));
  });
  later = loop.addTimer(base + 20s, note("20"));
  loop.addTimer(base + 10s, note("10b"));
  loop.cancelTimer(cancelled);
  loop.cancelTimer(9999);  // unknown: ignored
  EXPECT_EQ(loop.drain(), 6u);
  EXPECT_EQ(fired, (std::vector<std::string>{"10a", "10b", "15", "30", "posted", "timer"}));
  EXPECT_EQ(loop.drain(), 0u);
}

TEST(RunLoop, NearestTimerEndsTheWait) {
  RunLoop loop;
  bool fired = false;
  loop.addTimer(1h, [] {});  // a later timer must not hide the nearer one
  loop.addTimer(2ms, [&] {
    fired = true;
    loop.stop();
  });
  loop.run();
  EXPECT_TRUE(fired);
}

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  int fds[2] = {-1, -1};
};

TEST(RunLoop, SourcesFireForTheirEventsUntilRemoved) {
  RunLoop loop;
  Pipe first, second, third;
  int firstCalls = 0;
  char byte = 0;
  short secondSeen = 0, writableSeen = 0;
  // The first pipe stays readable: a source that failed to go away would be
  // reported again in the round that reads the second.
  RunLoop::SourceId firstId = loop.addSource(first.fds[0], POLLIN, [&](short) {
    ++firstCalls;
    loop.removeSource(firstId);
  });
  loop.addSource(second.fds[0], POLLIN, [&](short revents) {
    secondSeen = revents;
    ASSERT_EQ(::read(second.fds[0], &byte, 1), 1);
  });
  const auto writable =
      loop.addSource(third.fds[1], 0, [&](short revents) { writableSeen = revents; });
  ASSERT_EQ(::write(first.fds[1], "f", 1), 1);
  std::thread writer([&] { ASSERT_EQ(::write(second.fds[1], "z", 1), 1); });
  EXPECT_TRUE(loop.runUntil([&] { return secondSeen != 0; }, 10s));
  writer.join();
  EXPECT_EQ(firstCalls, 1);
  EXPECT_TRUE(secondSeen & POLLIN);
  EXPECT_EQ(byte, 'z');
  EXPECT_EQ(writableSeen, 0) << "a source waiting for no event fired";

  loop.updateSource(writable, POLLOUT);
  EXPECT_TRUE(loop.runUntil([&] { return writableSeen != 0; }, 10s));
  EXPECT_TRUE(writableSeen & POLLOUT);
  EXPECT_EQ(firstCalls, 1);
}

// Another thread posts work (which must run on the loop's thread), then stops
// the loop while it is blocked in poll, or about to be.
TEST(RunLoop, PostAndStopFromAnotherThread) {
  RunLoop loop;
  std::promise<void> ran;
  std::thread::id ranOn;
  bool runningInside = false;
  std::thread other([&] {
    loop.post([&] {
      ranOn = std::this_thread::get_id();
      runningInside = loop.isRunningOnCurrentThread();
      ran.set_value();
    });
    ran.get_future().wait();
    loop.stop();
  });
  loop.run();
  other.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(runningInside);
  EXPECT_FALSE(loop.isRunningOnCurrentThread());
}

}  // namespace
}  // namespace lumora
