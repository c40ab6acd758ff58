// Internal to the CoreBluetooth layer: the per-manager delivery line.
//
// Every callback of a manager (its peripherals' included) goes through one
// SerialDelivery on the manager's queue. Work runs one item at a time in the
// order it was posted, even on the global concurrent queue: at most one drain
// task of a line is queued or running at any moment, and it runs the items
// that were waiting when it started before handing over to a fresh task.
//
// On the main queue, which is a serial first-in first-out queue itself, a
// released line hands every item straight to the queue: the order is the
// same, and an item costs no lock and no drain task of the line's own (one
// item per advertisement heard while scanning).
//
// A line starts held: items posted while the manager is still being wired
// (its radio session may raise events at once) wait until release().
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "Foundation/Dispatch.h"

namespace lumora::detail {

class SerialDelivery : public std::enable_shared_from_this<SerialDelivery> {
 public:
  /// A held line on `queue` (null: the main queue).
  static std::shared_ptr<SerialDelivery> make(DispatchQueuePtr queue);

  /// Queues `work` after everything posted before it. Thread-safe, never
  /// blocks on the work itself, never runs it on the calling thread.
  void post(std::function<void()> work);
  /// Lets held and later work run.
  void release();

  const DispatchQueuePtr& queue() const { return queue_; }

  explicit SerialDelivery(DispatchQueuePtr queue);  // use make()

 private:
  // Called with mutex_ held; true when a drain task must be queued.
  bool claimDrainLocked();
  // The drain task owns a reference to the line: the pool drops queued work
  // at exit.
  void queueDrain();
  void drain();
  using Batch = std::vector<std::function<void()>>;
  // Ends a drain task: puts back what it did not run (`batch` from `next`
  // on) and hands over to a fresh task when work is waiting.
  void finishDrain(Batch batch, std::size_t next);

  DispatchQueuePtr queue_;
  std::mutex mutex_;
  Batch pending_;
  // The storage of the last batch, reused by the next one: a busy line (one
  // delivery per advertisement heard) allocates nothing to queue its work.
  Batch spare_;
  bool held_ = true;
  bool draining_ = false;
  const bool onMain_;
  // Main queue only: set once by release(), after the held items went to
  // the queue; from then on post() bypasses the lock.
  std::atomic<bool> direct_{false};
};

}  // namespace lumora::detail
