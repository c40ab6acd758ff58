#include "Foundation/RunLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

namespace lumora {

namespace {

// The loops the calling thread is inside, innermost first. A thread may run a
// loop from a callback of another loop, so this is a chain, not one pointer.
struct RunningFrame {
  const void* loop;
  RunningFrame* outer;
};
thread_local RunningFrame* tRunning = nullptr;

class FrameGuard {
 public:
  explicit FrameGuard(const void* loop) : frame_{loop, tRunning} { tRunning = &frame_; }
  ~FrameGuard() { tRunning = frame_.outer; }
  FrameGuard(const FrameGuard&) = delete;
  FrameGuard& operator=(const FrameGuard&) = delete;

 private:
  RunningFrame frame_;
};

}  // namespace

struct RunLoop::Impl {
  using Task = std::function<void()>;
  using SourceFn = std::function<void(short)>;

  struct Source {
    int fd;
    short events;
    // Shared so that the callback survives its own removeSource() while it runs.
    std::shared_ptr<SourceFn> fn;
  };

  Impl() {
    wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Impl() { ::close(wakeFd); }

  // A burst of posts costs one write: while `wakePending` is set, the
  // eventfd is (or is about to be) readable, so the loop will wake anyway and
  // then see every task pushed before the flag was found set.
  void wake() const {
    // A plain load first: a loop that has not slept since the last wake-up
    // costs a post no atomic exchange.
    if (wakePending.load(std::memory_order_relaxed) || wakePending.exchange(true)) return;
    const std::uint64_t one = 1;
    // EAGAIN means the counter is already non-zero: the loop is awake anyway.
    [[maybe_unused]] const ssize_t ignored = ::write(wakeFd, &one, sizeof one);
  }

  // Read first, then clear: a post that skipped its write meanwhile pushed
  // its task before, and the loop checks the tasks before it sleeps again.
  void clearWake() const {
    std::uint64_t count;
    [[maybe_unused]] const ssize_t ignored = ::read(wakeFd, &count, sizeof count);
    wakePending.store(false);
  }

  // `queued` is written under the lock and read without it only as a hint
  // (runOne's fast path): a release store is enough, and on x86 it is a
  // plain move where a sequentially consistent one is an exchange.
  void recountLocked() { queued.store(tasks.size() + timers.size(), std::memory_order_release); }

  // Tasks are stamped only to order them against timers; with no timer
  // pending, a task is ready before any timer added later, and the clock
  // need not be read at all.
  Clock::time_point stampLocked() const {
    return timers.empty() ? Clock::time_point::min() : Clock::now();
  }

  // Runs the one piece of ready work (task or due timer) that became ready
  // first. Returns false when nothing is ready. Never holds the mutex while
  // the work runs.
  bool runOne() {
    // A settle that finds the loop empty does not take the lock.
    if (queued.load(std::memory_order_acquire) == 0) return false;
    Task work;
    {
      std::lock_guard lock(mutex);
      const bool timerDue = !timers.empty() && timers.begin()->first.first <= Clock::now();
      if (!tasks.empty() && (!timerDue || tasks.front().first <= timers.begin()->first.first)) {
        work = std::move(tasks.front().second);
        tasks.pop_front();
        recountLocked();
      } else if (timerDue) {
        auto it = timers.begin();
        work = std::move(it->second);
        timerDeadlines.erase(it->first.second);
        timers.erase(it);
        recountLocked();
      } else {
        return false;
      }
    }
    work();
    return true;
  }

  std::size_t readyCount() {
    std::lock_guard lock(mutex);
    std::size_t count = tasks.size();
    if (timers.empty()) return count;
    const auto now = Clock::now();
    for (auto it = timers.begin(); it != timers.end() && it->first.first <= now; ++it) ++count;
    return count;
  }

  bool takeStop() {
    std::lock_guard lock(mutex);
    return std::exchange(stopRequested, false);
  }

  bool stopPending() {
    std::lock_guard lock(mutex);
    return stopRequested;
  }

  // The loop behind run(), runFor() and runUntil().
  void runLoop(std::optional<Clock::time_point> deadline, const std::function<bool()>* done) {
    FrameGuard frame(this);
    const auto finished = [&] { return stopPending() || (done != nullptr && (*done)()); };
    while (true) {
      if (takeStop()) return;
      if (done != nullptr && (*done)()) return;

      // Work that is ready now, bounded so that sources get their turn even
      // when tasks keep posting tasks.
      const std::size_t budget = readyCount();
      bool interrupted = false;
      for (std::size_t i = 0; i < budget && runOne(); ++i) {
        if (finished()) {
          interrupted = true;
          break;
        }
      }
      if (interrupted) continue;

      std::vector<pollfd> fds;
      std::vector<SourceId> ids;
      std::optional<Clock::time_point> wakeAt = deadline;
      bool readyNow = false;
      {
        std::lock_guard lock(mutex);
        readyNow = stopRequested || !tasks.empty();
        if (!timers.empty()) {
          const auto next = timers.begin()->first.first;
          if (!wakeAt || next < *wakeAt) wakeAt = next;
        }
        fds.reserve(sources.size() + 1);
        ids.reserve(sources.size());
        fds.push_back({wakeFd, POLLIN, 0});
        for (const auto& [id, source] : sources) {
          fds.push_back({source.fd, source.events, 0});
          ids.push_back(id);
        }
      }
      const auto now = Clock::now();
      if (!readyNow && deadline && now >= *deadline) return;

      timespec timeout{};
      timespec* timeoutPtr = nullptr;
      if (readyNow) {
        timeoutPtr = &timeout;
      } else if (wakeAt) {
        const auto left = std::max(Clock::duration::zero(), *wakeAt - now);
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        timeout.tv_sec = static_cast<time_t>(ns / 1000000000);
        timeout.tv_nsec = static_cast<long>(ns % 1000000000);
        timeoutPtr = &timeout;
      }
      const int ready = ::ppoll(fds.data(), fds.size(), timeoutPtr, nullptr);
      if (ready <= 0) continue;  // timeout or EINTR: recheck timers and stop
      if (fds[0].revents != 0) clearWake();
      for (std::size_t i = 1; i < fds.size(); ++i) {
        if (fds[i].revents == 0) continue;
        std::shared_ptr<SourceFn> fn;
        {
          // An earlier callback of this round may have removed the source.
          std::lock_guard lock(mutex);
          const auto it = sources.find(ids[i - 1]);
          if (it == sources.end() || it->second.fd != fds[i].fd) continue;
          fn = it->second.fn;
        }
        (*fn)(fds[i].revents);
        if (finished()) break;  // unreported events are level-triggered: polled again
      }
    }
  }

  mutable std::mutex mutex;
  int wakeFd = -1;
  mutable std::atomic<bool> wakePending{false};
  std::atomic<std::size_t> queued{0};  // tasks plus timers, written under the lock
  std::deque<std::pair<Clock::time_point, Task>> tasks;  // stamped with their post time
  std::map<std::pair<Clock::time_point, TimerId>, Task> timers;
  std::unordered_map<TimerId, Clock::time_point> timerDeadlines;
  std::map<SourceId, Source> sources;
  std::uint64_t nextId = 1;  // timer and source ids, never reused
  bool stopRequested = false;
};

RunLoop::RunLoop() : impl_(std::make_unique<Impl>()) {}

RunLoop::~RunLoop() = default;

RunLoop& RunLoop::main() {
  // Never destroyed: worker threads may still post to it while the process
  // exits, and a destroyed loop would turn that into a use after free.
  static RunLoop* loop = new RunLoop;
  return *loop;
}

void RunLoop::post(std::function<void()> task) {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->tasks.emplace_back(impl_->stampLocked(), std::move(task));
    impl_->recountLocked();
  }
  impl_->wake();
}

RunLoop::TimerId RunLoop::addTimer(Clock::time_point when, std::function<void()> fn) {
  TimerId id;
  {
    std::lock_guard lock(impl_->mutex);
    id = impl_->nextId++;
    impl_->timers.emplace(std::make_pair(when, id), std::move(fn));
    impl_->recountLocked();
    impl_->timerDeadlines.emplace(id, when);
  }
  impl_->wake();
  return id;
}

void RunLoop::cancelTimer(TimerId id) {
  Impl::Task cancelled;  // destroyed after the lock: its captures may do anything
  std::lock_guard lock(impl_->mutex);
  const auto it = impl_->timerDeadlines.find(id);
  if (it == impl_->timerDeadlines.end()) return;
  const auto timer = impl_->timers.find(std::make_pair(it->second, id));
  if (timer != impl_->timers.end()) {
    cancelled = std::move(timer->second);
    impl_->timers.erase(timer);
    impl_->recountLocked();
  }
  impl_->timerDeadlines.erase(it);
}

RunLoop::SourceId RunLoop::addSource(int fd, short events, std::function<void(short)> fn) {
  SourceId id;
  {
    std::lock_guard lock(impl_->mutex);
    id = impl_->nextId++;
    impl_->sources.emplace(
        id, Impl::Source{fd, events, std::make_shared<Impl::SourceFn>(std::move(fn))});
  }
  impl_->wake();
  return id;
}

void RunLoop::updateSource(SourceId id, short events) {
  {
    std::lock_guard lock(impl_->mutex);
    const auto it = impl_->sources.find(id);
    if (it == impl_->sources.end()) return;
    it->second.events = events;
  }
  impl_->wake();
}

void RunLoop::removeSource(SourceId id) {
  std::shared_ptr<Impl::SourceFn> removed;  // released after the lock
  {
    std::lock_guard lock(impl_->mutex);
    const auto it = impl_->sources.find(id);
    if (it == impl_->sources.end()) return;
    removed = std::move(it->second.fn);
    impl_->sources.erase(it);
  }
  impl_->wake();
}

void RunLoop::run() {
  impl_->runLoop(std::nullopt, nullptr);
}

void RunLoop::runFor(Clock::duration duration) {
  impl_->runLoop(Clock::now() + duration, nullptr);
}

bool RunLoop::runUntil(const std::function<bool()>& done, Clock::duration timeout) {
  impl_->runLoop(Clock::now() + timeout, &done);
  return done();
}

void RunLoop::stop() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopRequested = true;
  }
  impl_->wake();
}

std::size_t RunLoop::drain() {
  FrameGuard frame(impl_.get());
  std::size_t count = 0;
  while (impl_->runOne()) ++count;
  return count;
}

bool RunLoop::isRunningOnCurrentThread() const {
  for (const RunningFrame* f = tRunning; f != nullptr; f = f->outer) {
    if (f->loop == impl_.get()) return true;
  }
  return false;
}

}  // namespace lumora
