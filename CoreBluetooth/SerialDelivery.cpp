#include "CoreBluetooth/SerialDelivery.h"

#include <iterator>
#include <utility>

namespace lumora::detail {

std::shared_ptr<SerialDelivery> SerialDelivery::make(DispatchQueuePtr queue) {
  return std::make_shared<SerialDelivery>(std::move(queue));
}

SerialDelivery::SerialDelivery(DispatchQueuePtr queue)
    : queue_(queue ? std::move(queue) : DispatchQueue::main()),
      onMain_(queue_ == DispatchQueue::main()) {}

bool SerialDelivery::claimDrainLocked() {
  if (held_ || draining_ || pending_.empty()) return false;
  draining_ = true;
  return true;
}

void SerialDelivery::queueDrain() {
  queue_->async([self = shared_from_this()] { self->drain(); });
}

void SerialDelivery::post(std::function<void()> work) {
  if (direct_.load(std::memory_order_acquire)) {
    queue_->async(std::move(work));
    return;
  }
  bool start = false;
  {
    std::lock_guard lock(mutex_);
    if (direct_.load(std::memory_order_relaxed)) {
      // Released meanwhile: everything held has gone to the queue already.
      queue_->async(std::move(work));
      return;
    }
    pending_.push_back(std::move(work));
    start = claimDrainLocked();
  }
  if (start) queueDrain();
}

void SerialDelivery::release() {
  bool start = false;
  {
    std::lock_guard lock(mutex_);
    held_ = false;
    if (onMain_) {
      // Held items go first, in order, under the lock that later posts
      // check before they go straight to the queue.
      for (auto& work : pending_) queue_->async(std::move(work));
      pending_.clear();
      direct_.store(true, std::memory_order_release);
      return;
    }
    start = claimDrainLocked();
  }
  if (start) queueDrain();
}

void SerialDelivery::drain() {
  Batch batch;
  {
    std::lock_guard lock(mutex_);
    batch.swap(pending_);
    pending_.swap(spare_);
  }
  // The line stays claimed (draining_) while the batch runs, so nothing
  // posted meanwhile can overtake it on another worker.
  std::size_t next = 0;
  try {
    while (next < batch.size()) {
      // Moved out before running so the item's captures (the manager among
      // them) are released before the next delivery starts.
      auto work = std::move(batch[next++]);
      work();
    }
  } catch (...) {
    // A throwing delegate must not wedge the line: what had not run yet
    // goes back in front, in order, and a fresh task takes over.
    finishDrain(std::move(batch), next);
    throw;
  }
  finishDrain(std::move(batch), next);
}

void SerialDelivery::finishDrain(Batch batch, std::size_t next) {
  bool again = false;
  {
    std::lock_guard lock(mutex_);
    pending_.insert(pending_.begin(), std::make_move_iterator(batch.begin() + next),
                    std::make_move_iterator(batch.end()));
    batch.clear();
    if (batch.capacity() > spare_.capacity()) spare_.swap(batch);
    draining_ = false;
    again = claimDrainLocked();
  }
  if (again) queueDrain();
}

}  // namespace lumora::detail
