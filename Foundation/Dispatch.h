// Dispatch queues, the once-only guard and the main thread.
//
//   auto main = lumora::DispatchQueue::main();        // runs in RunLoop::main()
//   auto pool = lumora::dispatch_get_global_queue(0, 0);  // worker threads
//   pool->async([] { /* on a worker, never the main thread */ });
//
//   static lumora::dispatch_once_t once;
//   lumora::dispatch_once(once, [] { /* exactly once, others wait */ });
//
// The main queue is serial and runs wherever the application runs the main
// run loop (RunLoop::main().run() in a program; tests drive it with
// dispatch::settle()). The global queue is a concurrent pool of worker
// threads shared by the whole process; work on it runs in parallel and in no
// promised order.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace lumora {

class DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;
  /// Queues `work`; returns at once. Thread-safe.
  virtual void async(std::function<void()> work) = 0;
  /// True when the calling thread is one that runs this queue's work.
  virtual bool isCurrent() const = 0;
  virtual const std::string& label() const = 0;

  /// The main queue (serial; the main run loop's thread).
  static std::shared_ptr<DispatchQueue> main();
  /// The process's global concurrent queue. Every priority maps to the same
  /// pool; the priority is accepted for the platform's signature.
  static std::shared_ptr<DispatchQueue> global(long priority = 0);
};

using DispatchQueuePtr = std::shared_ptr<DispatchQueue>;

inline DispatchQueuePtr dispatch_get_main_queue() {
  return DispatchQueue::main();
}
inline DispatchQueuePtr dispatch_get_global_queue(long identifier, unsigned long /*flags*/) {
  return DispatchQueue::global(identifier);
}

using dispatch_once_t = std::once_flag;
/// Runs `block` exactly once per `predicate`, even when several threads arrive
/// first together; the others wait until it has run.
template <class F>
void dispatch_once(dispatch_once_t& predicate, F&& block) {
  std::call_once(predicate, std::forward<F>(block));
}

/// True on the process's main thread (the thread that ran static
/// initialisation and main()).
bool isMainThread();

namespace dispatch {
/// Blocks until the global pool has no queued or running work. Called from
/// work on the pool, the caller's own item does not count.
///
/// At process exit the pool drops the work still queued and waits for the
/// work already running, so work on the global queue must not block forever.
/// A forked child has no pool threads: it must leave with _exit().
void waitForGlobalIdle();
/// Runs the main queue and waits for the global pool, over and over, until
/// neither has work left: everything already set going has finished. Call it
/// on the main thread (tests, and the simulated air's virtual clock).
void settle();
}  // namespace dispatch

}  // namespace lumora
