#include "transport/ring_queue.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <deque>
#include <vector>

namespace MetricsFramework {
namespace {

std::vector<int> Contents(const RingQueue<int>& ring) {
  std::vector<int> out;
  for (std::size_t i = 0; i < ring.Size(); ++i) out.push_back(ring[i]);
  return out;
}

// Every operation, with the ring wrapped around and growing while wrapped,
// keeps the same entries in the same order as a deque given the same steps.
TEST(RingQueueTest, KeepsOrderThroughWraparoundGrowthAndErase) {
  RingQueue<int> ring;
  std::deque<int> model;
  unsigned int seed = 12345;
  auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
  for (int step = 0; step < 4000; ++step) {
    const unsigned int op = next() % 8;
    if (op < 4 || model.empty()) {
      ring.PushBack(step);
      model.push_back(step);
    } else if (op == 4) {
      ring.PopFront();
      model.pop_front();
    } else if (op == 5) {
      ring.PopBack();
      model.pop_back();
    } else {
      const std::size_t at = next() % model.size();
      ring.Erase(at);
      model.erase(model.begin() + static_cast<long>(at));
    }
    ASSERT_EQ(Contents(ring), std::vector<int>(model.begin(), model.end())) << "step " << step;
  }
  EXPECT_GT(ring.Capacity(), 8u) << "the walk grew the ring";
}

}  // namespace
}  // namespace MetricsFramework
