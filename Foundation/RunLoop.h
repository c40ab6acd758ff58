// The main run loop: posted tasks, timers and file-descriptor sources.
//
//   auto& loop = lumora::RunLoop::main();
//   loop.addTimer(std::chrono::seconds(5), [&] { loop.stop(); });
//   loop.run();   // blocks in poll(2) until stop()
//
// The loop sleeps in poll(2) on its sources, an eventfd for wake-ups and the
// nearest timer's deadline: it never spins. Every operation may be called from
// any thread; tasks, timers and source callbacks run on the thread that runs
// the loop, one at a time, in the order they became ready (posted tasks in
// posting order). The main queue (DispatchQueue::main()) posts here.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace lumora {

class RunLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimerId = std::uint64_t;
  using SourceId = std::uint64_t;

  RunLoop();
  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// The process's main run loop.
  static RunLoop& main();

  /// Queues `task` to run on the loop's thread.
  void post(std::function<void()> task);

  /// Runs `fn` once at `when` (or as soon as the loop runs after it).
  TimerId addTimer(Clock::time_point when, std::function<void()> fn);
  TimerId addTimer(Clock::duration delay, std::function<void()> fn) {
    return addTimer(Clock::now() + delay, std::move(fn));
  }
  /// Cancels a timer that has not fired; unknown ids are ignored.
  void cancelTimer(TimerId id);

  /// Watches `fd` for `events` (POLLIN, POLLOUT...); `fn` gets the revents.
  /// A source stays until removeSource() (POLLHUP/POLLERR are delivered too).
  SourceId addSource(int fd, short events, std::function<void(short revents)> fn);
  /// Changes the events a source waits for (sd-bus style loops need this).
  void updateSource(SourceId id, short events);
  void removeSource(SourceId id);

  /// Runs until stop() is called (from any thread or from a task).
  void run();
  /// Runs for `duration` of real time, or until stop().
  void runFor(Clock::duration duration);
  /// Runs until `done()` is true (checked after every task) or `timeout`
  /// passes; returns done().
  bool runUntil(const std::function<bool()>& done, Clock::duration timeout);
  /// Ends the innermost run(), runFor() or runUntil() after the callback in
  /// progress. A stop() that arrives while the loop is not running is kept and
  /// ends the next run at once, so a stop sent from another thread just
  /// before run() is never lost.
  void stop();

  /// Runs every task and due timer that is ready now, again until none is
  /// left, without blocking. Returns how many ran.
  std::size_t drain();

  /// True while the calling thread is inside run(), runFor(), runUntil() or
  /// drain() of this loop: the thread the loop's work is running on.
  bool isRunningOnCurrentThread() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace lumora
