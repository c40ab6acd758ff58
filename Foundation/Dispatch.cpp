#include "Foundation/Dispatch.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <thread>
#include <vector>

#include "Foundation/RunLoop.h"

namespace lumora {

namespace {

// Recorded during static initialisation, which runs on the thread that then
// runs main(). The early priority puts it ahead of other units' initialisers,
// which may already ask isMainThread() (a static that creates a manager).
const std::thread::id gMainThreadId __attribute__((init_priority(101))) =
    std::this_thread::get_id();

thread_local bool tOnPoolWorker = false;

// The process's worker pool behind the global queue. Work starts in the order
// it was queued and runs concurrently on up to `workers.size()` threads.
class Pool {
 public:
  Pool() {
    const unsigned count = std::max(2u, std::thread::hardware_concurrency());
    workers_.reserve(count);
    for (unsigned i = 0; i < count; ++i) workers_.emplace_back([this] { workerMain(); });
  }

  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Runs among the static destructors at exit. Work still queued is dropped
  // (its captures are destroyed here, outside the lock); work already running
  // is waited for, so no worker touches the process while it is being torn
  // down. Joining rather than abandoning the threads keeps ThreadSanitizer
  // free of races with the exit path; the price is that work must not block
  // forever, or exit would wait for it. The Pool object itself is never
  // destroyed: a static destroyed later may still queue work, which is then
  // dropped instead of touching a dead object.
  void shutdown() {
    std::deque<std::function<void()>> dropped;
    {
      std::lock_guard lock(mutex_);
      if (shutdown_) return;
      shutdown_ = true;
      dropped.swap(queue_);
      pending_ -= dropped.size();
    }
    workAvailable_.notify_all();
    idle_.notify_all();
    for (auto& worker : workers_) {
      if (worker.joinable() && worker.get_id() != std::this_thread::get_id()) worker.join();
    }
  }

  void async(std::function<void()> work) {
    {
      std::lock_guard lock(mutex_);
      if (shutdown_) return;  // the process is exiting: nothing will run it
      queue_.push_back(std::move(work));
      ++pending_;
    }
    workAvailable_.notify_one();
  }

  /// Waits until the pool is idle; returns how many items had completed by
  /// then.
  std::uint64_t waitForIdle() {
    // Fast path for a settle that finds nothing queued. Both counters change
    // under the lock, completed_ before pending_ drops, so seeing pending_ at
    // zero means every finished item is already counted.
    if (!tOnPoolWorker && pending_.load() == 0) return completed_.load();
    std::unique_lock lock(mutex_);
    // A worker waiting for the pool counts its own running item as busy; the
    // pool is idle once everything but the waiting workers has finished.
    const std::size_t own = tOnPoolWorker ? 1 : 0;
    waitingWorkers_ += own;
    if (own != 0) idle_.notify_all();
    idle_.wait(lock, [&] { return pending_ <= waitingWorkers_ || shutdown_; });
    waitingWorkers_ -= own;
    return completed_;
  }

  std::uint64_t completed() const { return completed_.load(); }

 private:
  void workerMain() {
    tOnPoolWorker = true;
    pthread_setname_np(pthread_self(), "lumora.global");
    std::unique_lock lock(mutex_);
    while (true) {
      workAvailable_.wait(lock, [&] { return shutdown_ || !queue_.empty(); });
      if (shutdown_) return;
      auto work = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      work();
      work = nullptr;  // captures are released before the work counts as done
      lock.lock();
      ++completed_;  // before pending_ drops: see waitForIdle()
      --pending_;
      if (pending_ <= waitingWorkers_) idle_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable workAvailable_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> queue_;
  // Written under mutex_; atomic so that an idle pool can be seen without it.
  std::atomic<std::size_t> pending_{0};  // queued plus running
  std::size_t waitingWorkers_ = 0;
  std::atomic<std::uint64_t> completed_{0};
  bool shutdown_ = false;
  std::vector<std::thread> workers_;  // last: started after the rest is built
};

// Stops the pool's threads at exit; see Pool::shutdown().
struct PoolReaper {
  Pool* pool;
  ~PoolReaper() { pool->shutdown(); }
};

Pool& pool() {
  static Pool* instance = new Pool;
  static PoolReaper reaper{instance};
  return *instance;
}

class MainQueue final : public DispatchQueue {
 public:
  void async(std::function<void()> work) override { RunLoop::main().post(std::move(work)); }
  bool isCurrent() const override {
    return isMainThread() || RunLoop::main().isRunningOnCurrentThread();
  }
  const std::string& label() const override { return label_; }

 private:
  std::string label_ = "lumora.main";
};

class GlobalQueue final : public DispatchQueue {
 public:
  void async(std::function<void()> work) override { pool().async(std::move(work)); }
  bool isCurrent() const override { return tOnPoolWorker; }
  const std::string& label() const override { return label_; }

 private:
  std::string label_ = "lumora.global";
};

}  // namespace

std::shared_ptr<DispatchQueue> DispatchQueue::main() {
  // Leaked on purpose: queues are handed out to objects that may outlive
  // static destruction order guarantees.
  static auto* queue = new std::shared_ptr<DispatchQueue>(std::make_shared<MainQueue>());
  return *queue;
}

std::shared_ptr<DispatchQueue> DispatchQueue::global(long /*priority*/) {
  static auto* queue = new std::shared_ptr<DispatchQueue>(std::make_shared<GlobalQueue>());
  return *queue;
}

bool isMainThread() {
  return std::this_thread::get_id() == gMainThreadId;
}

namespace dispatch {

void waitForGlobalIdle() {
  pool().waitForIdle();
}

void settle() {
  // Quiet once a round runs nothing on the main queue and the pool completed
  // nothing since the round before went idle.
  std::uint64_t before = pool().completed();
  while (true) {
    const std::size_t ranOnMain = RunLoop::main().drain();
    const std::uint64_t after = pool().waitForIdle();
    if (ranOnMain == 0 && after == before) return;
    before = after;
  }
}

}  // namespace dispatch

}  // namespace lumora
