// A value read and replaced indivisibly, one access at a time.
//
//   lumora::Atomic<std::shared_ptr<Thing>> current;
//   current.store(std::make_shared<Thing>());
//   auto held = current.load();   // a reference of its own: safe to use
//
// This is how atomic properties and shared variables of non-trivial types are
// kept (std::atomic serves the trivial ones). Each load or store is guarded on
// its own; nothing guards a sequence of accesses, so a test-then-set of two
// accesses may interleave with another thread, exactly as two property
// accesses would. Constant-initialised, so it is safe as a global.
#pragma once

#include <mutex>
#include <utility>

namespace lumora {

template <class T>
class Atomic {
 public:
  constexpr Atomic() = default;
  explicit Atomic(T value) : value_(std::move(value)) {}
  Atomic(const Atomic&) = delete;
  Atomic& operator=(const Atomic&) = delete;

  T load() const {
    std::lock_guard lock(mutex_);
    return value_;
  }
  void store(T value) {
    // The old value is released after the lock is dropped: its destructor may
    // run arbitrary code (a manager tearing down its radio session).
    {
      std::lock_guard lock(mutex_);
      std::swap(value_, value);
    }
  }
  T exchange(T value) {
    std::lock_guard lock(mutex_);
    std::swap(value_, value);
    return value;
  }
  /// Calls `fn` with the value under the lock and returns a copy of what it
  /// returns: a look at a large value without copying it. `fn` must not
  /// reach back into this object.
  template <class Fn>
  auto read(Fn&& fn) const {
    std::lock_guard lock(mutex_);
    return std::forward<Fn>(fn)(std::as_const(value_));
  }

 private:
  mutable std::mutex mutex_;
  T value_{};
};

}  // namespace lumora
