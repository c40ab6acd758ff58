#include "CoreBluetooth/SerialDelivery.h"

#include <iterator>
#include <utility>

namespace lumora::detail {

std::shared_ptr<SerialDelivery> SerialDelivery::make(DispatchQueuePtr queue) {
  return std::make_shared<SerialDelivery>(std::move(queue));
}

SerialDelivery::SerialDelivery(DispatchQueuePtr queue)
    : queue_(queue ? std::move(queue) : DispatchQueue::main()) {}

bool SerialDelivery::claimDrainLocked() {
  if (held_ || draining_ || pending_.empty()) return false;
  draining_ = true;
  return true;
}

void SerialDelivery::post(std::function<void()> work) {
  bool start = false;
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(work));
    start = claimDrainLocked();
  }
  if (start) queue_->async([self = shared_from_this()] { self->drain(); });
}

void SerialDelivery::release() {
  bool start = false;
  {
    std::lock_guard lock(mutex_);
    held_ = false;
    start = claimDrainLocked();
  }
  if (start) queue_->async([self = shared_from_this()] { self->drain(); });
}

void SerialDelivery::drain() {
  std::deque<std::function<void()>> batch;
  {
    std::lock_guard lock(mutex_);
    batch.swap(pending_);
  }
  // The line stays claimed (draining_) while the batch runs, so nothing
  // posted meanwhile can overtake it on another worker.
  try {
    while (!batch.empty()) {
      // Popped before running so the item's captures (the manager among
      // them) are released before the next delivery starts.
      auto work = std::move(batch.front());
      batch.pop_front();
      work();
    }
  } catch (...) {
    // A throwing delegate must not wedge the line: what had not run yet
    // goes back in front, in order, and a fresh task takes over.
    finishDrain(std::move(batch));
    throw;
  }
  finishDrain({});
}

void SerialDelivery::finishDrain(std::deque<std::function<void()>> unrun) {
  bool again = false;
  {
    std::lock_guard lock(mutex_);
    pending_.insert(pending_.begin(), std::make_move_iterator(unrun.begin()),
                    std::make_move_iterator(unrun.end()));
    draining_ = false;
    again = claimDrainLocked();
  }
  if (again) queue_->async([self = shared_from_this()] { self->drain(); });
}

}  // namespace lumora::detail
