// The air's queue of what is due, earliest first, ties broken by seq so that
// the order is total and runs repeat exactly. An entry is an advertisement
// (the advertiser and its generation, in the entry itself: the next
// advertiser can be fetched ahead) or a step waiting in the air's slots.
//
// A 4-ary heap rather than a binary one: with thousands of advertisers an
// advertisement pops the top, and the sift-down of a binary heap visits one
// entry per level, the lowest levels each on a page of their own. Four
// children per node halve the levels, and a node's children share a cache
// line or two. Not thread-safe: the air guards it with its mutex.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace lumora::sim::detail {

struct Advertiser;

class DueQueue {
 public:
  struct Due {
    std::chrono::nanoseconds time{0};
    std::uint64_t seq = 0;
    Advertiser* advertiser = nullptr;  // an advertisement ...
    std::uint64_t detail = 0;          // ... of this generation; else a slot
  };

  bool empty() const { return heap_.empty(); }
  std::size_t size() const { return heap_.size(); }
  /// The earliest entry; the queue must not be empty.
  const Due& top() const { return heap_.front(); }

  void push(const Due& due) {
    heap_.push_back(due);
    std::size_t hole = heap_.size() - 1;
    while (hole > 0) {
      const std::size_t parent = (hole - 1) / kArity;
      if (!before(due, heap_[parent])) break;
      heap_[hole] = heap_[parent];
      hole = parent;
    }
    heap_[hole] = due;
  }

  /// The entry that comes after the top (if nothing is pushed meanwhile);
  /// null when there is none.
  const Due* second() const {
    const std::size_t end = heap_.size() < kArity + 1 ? heap_.size() : kArity + 1;
    const Due* least = nullptr;
    for (std::size_t c = 1; c < end; ++c) {
      if (!least || before(heap_[c], *least)) least = &heap_[c];
    }
    return least;
  }

  /// Removes and returns the earliest entry; the queue must not be empty.
  Due pop() {
    const Due first = heap_.front();
    const Due last = heap_.back();
    heap_.pop_back();
    if (heap_.empty()) return first;
    const std::size_t size = heap_.size();
    std::size_t hole = 0;
    for (;;) {
      const std::size_t child = kArity * hole + 1;
      if (child >= size) break;
      std::size_t least = child;
      const std::size_t end = child + kArity < size ? child + kArity : size;
      for (std::size_t c = child + 1; c < end; ++c) {
        if (before(heap_[c], heap_[least])) least = c;
      }
      if (!before(heap_[least], last)) break;
      heap_[hole] = heap_[least];
      hole = least;
    }
    heap_[hole] = last;
    return first;
  }

 private:
  static constexpr std::size_t kArity = 4;

  static bool before(const Due& a, const Due& b) {
    return a.time != b.time ? a.time < b.time : a.seq < b.seq;
  }

  std::vector<Due> heap_;
};

}  // namespace lumora::sim::detail
