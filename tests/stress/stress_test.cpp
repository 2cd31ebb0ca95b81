// Threads against one extension manager for a bounded time: every publisher
// commits on its own consumer's local conduit while one client thread churns
// a second subscription of each and another enumerates. Every sample carries a
// sequence number and a checksum; the steady metrics must arrive exactly once
// each, in commit order.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kt/consumer.h"
#include "kt/publisher.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

// Two seconds, or KT_STRESS_MILLISECONDS when set: the memcheck run, which is
// slowed many times over, runs the same test for a shorter time.
std::chrono::milliseconds RunTime() {
  const char* text = std::getenv("KT_STRESS_MILLISECONDS");
  const long ms = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return std::chrono::milliseconds(ms > 0 ? ms : 2000);
}
constexpr int kPublishers = 3;

// A sample: its sequence number and a mix of it with the metric, so that a
// sample delivered under another metric's handle fails too.
struct Sample { uint64_t seq, check; };
uint64_t Checksum(uint64_t seq, unsigned long metric) {
  uint64_t z = seq + 0x9E3779B97F4A7C15ull * (metric + 1);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  return z ^ (z >> 27);
}

// Holds every thread until the last one arrives.
void ArriveAndWait(std::atomic<int>& waiting) {
  for (--waiting; waiting.load() > 0;) std::this_thread::yield();
}

// One binding; its buffer is read and written under the publisher's mutex,
// so that nothing is written after DetachBuffer returns.
struct StressBound : IBoundMetric {
  StressBound(unsigned long metric, std::mutex& guard) : metric(metric), guard(guard) {}
  void AttachBuffer(unsigned long, IWriteBuffer* writer) override {
    std::lock_guard<std::mutex> hold(guard);
    buffer = writer;
  }
  void DetachBuffer(unsigned long) override { AttachBuffer(0, nullptr); }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override {
    std::lock_guard<std::mutex> hold(guard);
    return buffer != nullptr;
  }
  void Flush(unsigned long) override {}
  const unsigned long metric;
  std::mutex& guard;
  IWriteBuffer* buffer = nullptr;
};

// Publishes "steady" and "churn" and writes one sample to every bound buffer
// per round; counts what it committed per metric.
class StressPublisher : public IPublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    auto bound = std::make_unique<StressBound>(metric, m_mutex);
    StressBound* made = bound.get();
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound[made] = std::move(bound);
    return made;
  }
  void UnbindMetric(unsigned long, IBoundMetric* bound) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound.erase(bound);
  }
  void OnLoad() override {
    GetExtensionManager()->PublishMetric(this, testing_fakes::Describe("steady", 1), &steady);
    GetExtensionManager()->PublishMetric(this, testing_fakes::Describe("churn", 2), &churn);
  }
  void OnUnload() override {}
  void WriteRound() {
    std::lock_guard<std::mutex> hold(m_mutex);
    for (auto& entry : m_bound) {
      StressBound* bound = entry.second.get();
      const unsigned long metric = bound->metric;
      if (bound->buffer == nullptr) continue;
      const Sample sample{committed[metric], Checksum(committed[metric], metric)};
      void* block = bound->buffer->Reserve(sizeof sample);
      std::memcpy(block, &sample, sizeof sample);
      bound->buffer->Commit(block);
      ++committed[metric];
    }
  }

  unsigned long steady = 0, churn = 0;
  std::map<unsigned long, uint64_t> committed;  // read after the writer is joined

 private:
  std::mutex m_mutex;  // guards m_bound and every bound metric's buffer
  std::map<IBoundMetric*, std::unique_ptr<StressBound>> m_bound;
};

// Verifies every sample of one publisher. Called one push at a time per
// conduit: the counters are plain, so that overlapping calls show up as races,
// and `inside` catches them in a plain build.
struct CheckingConsumer : IConsumer {
  CheckingConsumer(unsigned long steady, unsigned long churn) : steady(steady), churn(churn) {}
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long*,
                       const void** data, unsigned long* sizes) override {
    if (inside.exchange(true)) ++overlaps;
    for (unsigned int i = 0; i < count; ++i) {
      Sample sample{};
      const bool sized = sizes != nullptr && sizes[i] == sizeof sample;
      if (sized) std::memcpy(&sample, data[i], sizeof sample);
      // Steady samples come in commit order, each exactly once; churn samples
      // may miss the unsubscribed stretches but never go back.
      const bool inOrder = handles[i] == steady ? sample.seq == steadyCount++
                           : handles[i] == churn ? (churnCount++ == 0 || sample.seq >= nextChurn)
                                                 : false;
      if (!sized || !inOrder || sample.check != Checksum(sample.seq, handles[i])) ++bad;
      if (handles[i] == churn) nextChurn = sample.seq + 1;
    }
    inside = false;
  }

  const unsigned long steady, churn;
  uint64_t steadyCount = 0, churnCount = 0, nextChurn = 0, bad = 0;
  std::atomic<bool> inside{false};
  std::atomic<int> overlaps{0};
};

class StressTest : public ::testing::Test {
 protected:
  unsigned long Handle(const std::string& path) {
    return live.registry().GetChild(path.c_str(), 0)->GetHandle();
  }
  // Walks the tree below `node` to `depth`. Nodes below the publishers never
  // change during the run and must answer; bindings come and go, so a node
  // that vanished between two calls may refuse.
  void Walk(unsigned long node, int depth, bool stable, std::atomic<int>& errors) {
    unsigned int count = 0;
    KT_STATUS status = client->GetChildCount(node, &count);
    std::vector<unsigned long> children(count);
    if (status == KT_STATUS_SUCCESS) status = client->GetChildren(node, children.data(), count);
    if (status != KT_STATUS_SUCCESS) return void(errors += stable);
    for (unsigned long child : children) {
      ResourceInfo info{};
      if (client->GetResourceInfo(child, &info) != KT_STATUS_SUCCESS) errors += stable;
      else if (depth > 0) Walk(child, depth - 1, stable, errors);
    }
  }

  testing_fakes::LiveManager live;
  std::unique_ptr<DefaultClientManager>& client = live.client;
};

TEST_F(StressTest, SamplesArriveOnceAndIntactWhileClientsChurnAndEnumerate) {
  StressPublisher publishers[kPublishers];
  std::vector<std::unique_ptr<CheckingConsumer>> consumers;
  std::vector<unsigned long> consumerHandles;
  for (int i = 0; i < kPublishers; ++i) {
    const std::string n = std::to_string(i);
    ASSERT_EQ(live.Add(("pub" + n).c_str(), &publishers[i]), KT_STATUS_SUCCESS);
    consumers.push_back(
        std::make_unique<CheckingConsumer>(publishers[i].steady, publishers[i].churn));
    ASSERT_EQ(live.Add(("con" + n).c_str(), consumers[i].get()), KT_STATUS_SUCCESS);
    consumerHandles.push_back(Handle("consumers/con" + n));
    // Registers the consumer's local conduit here, on the adding thread.
    ASSERT_EQ(client->SubscribeMetric(consumerHandles[i], publishers[i].steady), 0u);
  }
  const unsigned long publisherBranch = Handle("publishers"), conduitBranch = Handle("conduits");
  // What the publishers list never changes during the run.
  std::vector<std::pair<unsigned long, Metric::Description>> listed;
  ASSERT_EQ(client->GetMetrics(publisherBranch, listed, nullptr, nullptr), KT_STATUS_SUCCESS);

  std::atomic<bool> stop{false};
  std::atomic<int> churnErrors{0}, walkErrors{0};
  long cycles = 0, walks = 0;
  std::atomic<int> gate{kPublishers + 3};
  std::vector<std::thread> threads;
  for (int i = 0; i < kPublishers; ++i) {
    threads.emplace_back([&, i] {
      ArriveAndWait(gate);
      // Yields outside the publisher's mutex: lets binds and detaches in.
      for (; !stop.load(std::memory_order_relaxed); std::this_thread::yield())
        publishers[i].WriteRound();
    });
  }
  threads.emplace_back([&] {
    ArriveAndWait(gate);
    for (; !stop.load(std::memory_order_relaxed); ++cycles) {
      for (int i = 0; i < kPublishers; ++i)
        churnErrors += client->SubscribeMetric(consumerHandles[i], publishers[i].churn) != 0;
      for (int i = 0; i < kPublishers; ++i)
        churnErrors += client->UnsubscribeMetric(consumerHandles[i], publishers[i].churn) != 0;
    }
  });
  threads.emplace_back([&] {
    ArriveAndWait(gate);
    for (; !stop.load(std::memory_order_relaxed); ++walks) {
      std::vector<std::pair<unsigned long, Metric::Description>> metrics;
      std::vector<std::string> groups;
      std::map<unsigned int, std::string> sets;
      walkErrors += client->GetMetrics(publisherBranch, metrics, &groups, &sets) != 0 ||
                    metrics.size() != listed.size();
      Walk(publisherBranch, 2, true, walkErrors);
      Walk(conduitBranch, 3, false, walkErrors);
    }
  });
  ArriveAndWait(gate);
  std::this_thread::sleep_for(RunTime());
  stop = true;
  for (std::thread& thread : threads) thread.join();

  uint64_t churned = 0;
  for (int i = 0; i < kPublishers; ++i) {
    SCOPED_TRACE(i);
    const CheckingConsumer& consumer = *consumers[i];
    std::map<unsigned long, uint64_t>& committed = publishers[i].committed;
    EXPECT_EQ(consumer.bad + consumer.overlaps.load(), 0u);
    EXPECT_GT(consumer.steadyCount, 0u);
    EXPECT_EQ(consumer.steadyCount, committed[consumer.steady]);
    EXPECT_LE(consumer.churnCount, committed[consumer.churn]);
    churned += consumer.churnCount;
  }
  EXPECT_EQ(churnErrors.load() + walkErrors.load(), 0) << churnErrors << " " << walkErrors;
  EXPECT_TRUE(cycles > 0 && walks > 0 && churned > 0) << cycles << " " << walks << " " << churned;

  for (int i = 0; i < kPublishers; ++i) {
    const std::string n = std::to_string(i);
    EXPECT_EQ(live.Remove(("con" + n).c_str(), consumers[i].get()), KT_STATUS_SUCCESS);
    EXPECT_EQ(live.Remove(("pub" + n).c_str(), &publishers[i]), KT_STATUS_SUCCESS);
  }
  unsigned int left = 99;
  EXPECT_EQ(client->GetChildCount(publisherBranch, &left), KT_STATUS_SUCCESS);
  EXPECT_EQ(left, 0u);
  client.reset();
}

}  // namespace
}  // namespace MetricsFramework
