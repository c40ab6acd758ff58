// The air's event queue must give exactly the (time, seq) order, ties on
// time included: every simulated run repeats only if it does.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "backends/sim/DueQueue.h"

namespace lumora::sim::detail {
namespace {

using Due = DueQueue::Due;

bool earlier(const Due& a, const Due& b) {
  return a.time != b.time ? a.time < b.time : a.seq < b.seq;
}

TEST(DueQueue, PopsInTimeThenSeqOrderUnderInterleavedPushes) {
  std::mt19937_64 rng(7);
  // Few distinct times, so that ties on time are common.
  std::uniform_int_distribution<int> time(0, 40);
  DueQueue queue;
  std::vector<Due> reference;  // kept sorted, earliest last
  std::uint64_t seq = 0;
  for (int step = 0; step < 20000; ++step) {
    if (reference.empty() || rng() % 3 != 0) {
      const Due due{std::chrono::nanoseconds(time(rng)), ++seq, nullptr,
                    static_cast<std::uint64_t>(step)};
      queue.push(due);
      reference.insert(std::upper_bound(reference.begin(), reference.end(), due,
                                        [](const Due& a, const Due& b) { return earlier(b, a); }),
                       due);
    } else {
      ASSERT_EQ(queue.top().detail, reference.back().detail) << "step " << step;
      const Due popped = queue.pop();
      ASSERT_EQ(popped.detail, reference.back().detail) << "step " << step;
      reference.pop_back();
    }
    ASSERT_EQ(queue.size(), reference.size());
    // What comes after the top, which the air fetches ahead.
    const Due* second = queue.second();
    ASSERT_EQ(second != nullptr, reference.size() >= 2);
    if (second) {
      ASSERT_EQ(second->detail, reference[reference.size() - 2].detail);
    }
  }
  while (!reference.empty()) {
    ASSERT_EQ(queue.pop().detail, reference.back().detail);
    reference.pop_back();
  }
  EXPECT_TRUE(queue.empty());
}

}  // namespace
}  // namespace lumora::sim::detail
