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
#include <thread>
#include <vector>

#include "Foundation/Dispatch.h"
#include "Foundation/RunLoop.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;

TEST(Dispatch, GlobalWorkRunsOnWorkersOnly) {
  ASSERT_TRUE(isMainThread());
  auto global = dispatch_get_global_queue(0, 0);
  EXPECT_FALSE(global->isCurrent());
  std::atomic<int> onMain{0}, notCurrent{0}, mainQueueCurrent{0}, ran{0};
  for (int i = 0; i < 64; ++i) {
    global->async([&] {
      if (isMainThread()) ++onMain;
      if (!dispatch_get_global_queue(0, 0)->isCurrent()) ++notCurrent;
      if (DispatchQueue::main()->isCurrent()) ++mainQueueCurrent;
      ++ran;
    });
  }
  dispatch::waitForGlobalIdle();
  EXPECT_EQ(ran, 64);
  EXPECT_EQ(onMain, 0);
  EXPECT_EQ(notCurrent, 0);
  EXPECT_EQ(mainQueueCurrent, 0);
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

TEST(Dispatch, MainQueueRunsInOrderOnTheSettlingThread) {
  auto main = dispatch_get_main_queue();
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  std::atomic<bool> currentInside{true};
  for (int i = 0; i < 100; ++i) {
    main->async([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
      if (!DispatchQueue::main()->isCurrent()) currentInside = false;
    });
  }
  EXPECT_TRUE(order.empty()) << "main queue work ran before the loop was driven";
  dispatch::settle();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  for (const auto& id : threads) EXPECT_EQ(id, std::this_thread::get_id());
  EXPECT_TRUE(currentInside);
}

TEST(Dispatch, SettleWaitsForWorkThatPostsMoreAcrossQueues) {
  std::atomic<int> mainSteps{0}, globalSteps{0};
  std::atomic<bool> wrongThread{false};
  // main -> global (fan out two) -> main -> ... ten levels deep.
  std::function<void(int)> onMain = [&](int depth) {
    if (!isMainThread()) wrongThread = true;
    ++mainSteps;
    if (depth == 0) return;
    for (int fan = 0; fan < 2; ++fan) {
      DispatchQueue::global()->async([&, depth] {
        if (isMainThread()) wrongThread = true;
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

TEST(Dispatch, OnceRunsOnceAndOthersWaitForIt) {
  static dispatch_once_t once;
  std::atomic<int> runs{0};
  std::atomic<bool> done{false};
  std::atomic<int> sawUnfinished{0};
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

TEST(RunLoop, TimersFireByDeadlineThenInsertionOrder) {
  RunLoop loop;
  const auto base = RunLoop::Clock::now() - 1h;  // all due: no waiting
  std::vector<std::string> fired;
  loop.addTimer(base + 30s, [&] { fired.push_back("30"); });
  loop.addTimer(base + 10s, [&] { fired.push_back("10a"); });
  loop.addTimer(RunLoop::Clock::now() + 1h, [&] { fired.push_back("future"); });
  loop.addTimer(base + 20s, [&] { fired.push_back("20"); });
  loop.addTimer(base + 10s, [&] { fired.push_back("10b"); });
  EXPECT_EQ(loop.drain(), 4u);
  EXPECT_EQ(fired, (std::vector<std::string>{"10a", "10b", "20", "30"}));
}

TEST(RunLoop, CancelledTimersNeverFire) {
  RunLoop loop;
  const auto past = RunLoop::Clock::now() - 1s;
  std::vector<int> fired;
  RunLoop::TimerId later = 0;
  const auto first = loop.addTimer(past, [&] { fired.push_back(1); });
  loop.addTimer(past + 1ms, [&] {
    fired.push_back(2);
    loop.cancelTimer(later);  // a callback cancels a timer that is already due
  });
  later = loop.addTimer(past + 2ms, [&] { fired.push_back(3); });
  loop.addTimer(past + 3ms, [&] { fired.push_back(4); });
  loop.cancelTimer(first);
  loop.cancelTimer(9999);  // unknown: ignored
  loop.drain();
  EXPECT_EQ(fired, (std::vector<int>{2, 4}));
}

TEST(RunLoop, CallbacksMayPostAndAddTimers) {
  RunLoop loop;
  std::vector<std::string> ran;
  loop.post([&] {
    ran.push_back("task");
    loop.post([&] { ran.push_back("posted"); });
    loop.addTimer(RunLoop::Clock::duration::zero(), [&] { ran.push_back("timer"); });
  });
  EXPECT_EQ(loop.drain(), 3u);
  EXPECT_EQ(ran, (std::vector<std::string>{"task", "posted", "timer"}));
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
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
      read = fds[0];
      write = fds[1];
    }
  }
  ~Pipe() {
    ::close(read);
    ::close(write);
  }
  int read = -1;
  int write = -1;
};

TEST(RunLoop, PipeSourceFiresWithPollin) {
  RunLoop loop;
  Pipe pipe;
  ASSERT_GE(pipe.read, 0);
  short seen = 0;
  char byte = 0;
  loop.addSource(pipe.read, POLLIN, [&](short revents) {
    seen = revents;
    ASSERT_EQ(::read(pipe.read, &byte, 1), 1);
  });
  std::thread writer([&] { ASSERT_EQ(::write(pipe.write, "z", 1), 1); });
  EXPECT_TRUE(loop.runUntil([&] { return seen != 0; }, 10s));
  writer.join();
  EXPECT_TRUE(seen & POLLIN);
  EXPECT_EQ(byte, 'z');
}

TEST(RunLoop, SourceRemovedInItsCallbackFiresNoMore) {
  RunLoop loop;
  Pipe first, second;
  int firstCalls = 0;
  RunLoop::SourceId firstId = 0;
  // The first pipe stays readable: a source that failed to go away would be
  // reported again in the very round that stops the loop.
  firstId = loop.addSource(first.read, POLLIN, [&](short) {
    ++firstCalls;
    loop.removeSource(firstId);
    ASSERT_EQ(::write(second.write, "s", 1), 1);
  });
  loop.addSource(second.read, POLLIN, [&](short) { loop.stop(); });
  ASSERT_EQ(::write(first.write, "f", 1), 1);
  loop.run();
  EXPECT_EQ(firstCalls, 1);
}

TEST(RunLoop, UpdateSourceChangesAwaitedEvents) {
  RunLoop loop;
  Pipe pipe;
  short seen = 0;
  const auto id = loop.addSource(pipe.write, 0, [&](short revents) { seen = revents; });
  loop.post([&] {
    EXPECT_EQ(seen, 0) << "a source waiting for no event fired";
    loop.updateSource(id, POLLOUT);
  });
  EXPECT_TRUE(loop.runUntil([&] { return seen != 0; }, 10s));
  EXPECT_TRUE(seen & POLLOUT);
}

TEST(RunLoop, StopFromAnotherThreadEndsRun) {
  RunLoop loop;
  std::promise<void> running;
  loop.post([&] { running.set_value(); });
  std::thread stopper([&] {
    running.get_future().wait();
    loop.stop();  // the loop is blocked in poll by now, or about to be
  });
  loop.run();
  stopper.join();
  SUCCEED();
}

TEST(RunLoop, PostFromAnotherThreadRunsOnTheLoopThread) {
  RunLoop loop;
  std::thread::id ranOn;
  std::thread poster([&] {
    loop.post([&] {
      ranOn = std::this_thread::get_id();
      EXPECT_TRUE(loop.isRunningOnCurrentThread());
      loop.stop();
    });
  });
  loop.run();
  poster.join();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(loop.isRunningOnCurrentThread());
}

}  // namespace
}  // namespace lumora
