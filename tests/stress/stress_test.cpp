// Threads against one extension manager for a bounded time: every publisher
// commits on its own consumer's local conduit while one client thread
// subscribes and unsubscribes a second metric of each publisher on the same
// conduits and another enumerates the metrics.
// Every sample carries its sequence number and a checksum that the consumer
// verifies; the metrics subscribed throughout must arrive exactly once each,
// in commit order. Add and Remove run on the test's own thread only.
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

// The checksum of sample `seq` of the metric `metric`: a mix of both, so that
// a sample delivered under another metric's handle fails too.
uint64_t Checksum(uint64_t seq, unsigned long metric) {
  uint64_t z = seq + 0x9E3779B97F4A7C15ull * (metric + 1);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

struct Sample {
  uint64_t seq;
  uint64_t check;
};

// Holds every thread until the last one arrives.
void ArriveAndWait(std::atomic<int>& waiting) {
  for (--waiting; waiting.load() > 0;) std::this_thread::yield();
}

// One binding; its buffer is read and written under the publisher's mutex,
// so that nothing is written after DetachBuffer returns.
class StressBound : public IBoundMetric {
 public:
  StressBound(unsigned long metric, std::mutex& guard) : m_metric(metric), m_guard(guard) {}
  void AttachBuffer(unsigned long, IWriteBuffer* buffer) override {
    std::lock_guard<std::mutex> hold(m_guard);
    m_buffer = buffer;
  }
  void DetachBuffer(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    m_buffer = nullptr;
  }
  unsigned long GetMetricHandle() override { return m_metric; }
  bool IsAttached(unsigned long) override {
    std::lock_guard<std::mutex> hold(m_guard);
    return m_buffer != nullptr;
  }
  void Flush(unsigned long) override {}

  // The caller holds the publisher's mutex. True when a sample was committed.
  bool WriteLocked(uint64_t seq) {
    if (m_buffer == nullptr) return false;
    void* block = m_buffer->Reserve(sizeof(Sample));
    const Sample sample{seq, Checksum(seq, m_metric)};
    std::memcpy(block, &sample, sizeof sample);
    m_buffer->Commit(block);
    return true;
  }

 private:
  const unsigned long m_metric;
  std::mutex& m_guard;
  IWriteBuffer* m_buffer = nullptr;
};

// Publishes "steady" and "churn" and writes one sample to every bound buffer
// per round; counts what it committed per metric.
class StressPublisher : public IPublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override {
    auto bound = std::make_unique<StressBound>(metric, m_mutex);
    IBoundMetric* made = bound.get();
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound[made] = std::move(bound);
    return made;
  }
  void UnbindMetric(unsigned long, IBoundMetric* bound) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound.erase(bound);
  }
  void OnLoad() override {
    for (unsigned long* handle : {&steady, &churn}) {
      Metric::Description desc;
      desc.uri = handle == &steady ? "steady" : "churn";
      desc.word1 = handle == &steady ? 1 : 2;
      GetExtensionManager()->PublishMetric(this, desc, handle);
    }
  }
  void OnUnload() override {
    std::lock_guard<std::mutex> hold(m_mutex);
    m_bound.clear();
  }

  void WriteRound() {
    std::lock_guard<std::mutex> hold(m_mutex);
    for (auto& entry : m_bound) {
      const unsigned long metric = entry.second->GetMetricHandle();
      if (entry.second->WriteLocked(committed[metric])) ++committed[metric];
    }
  }

  unsigned long steady = 0;
  unsigned long churn = 0;
  std::map<unsigned long, uint64_t> committed;  // read after the writer is joined

 private:
  std::mutex m_mutex;  // guards m_bound and every bound metric's buffer
  std::map<IBoundMetric*, std::unique_ptr<StressBound>> m_bound;
};

// Verifies every sample of one publisher. Called one push at a time per
// conduit: the counters are plain, so that overlapping calls show up as races,
// and `inside` catches them in a plain build.
class CheckingConsumer : public IConsumer {
 public:
  CheckingConsumer(unsigned long steady, unsigned long churn) : m_steady(steady), m_churn(churn) {}
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long*,
                       const void** data, unsigned long* sizes) override {
    if (inside.exchange(true)) ++overlaps;
    for (unsigned int i = 0; i < count; ++i) Check(handles[i], data[i], sizes, i);
    inside = false;
  }

  uint64_t steadyCount = 0;
  uint64_t churnCount = 0;
  uint64_t bad = 0;
  std::atomic<bool> inside{false};
  std::atomic<int> overlaps{0};

 private:
  void Check(unsigned long metric, const void* data, const unsigned long* sizes, unsigned int i) {
    Sample sample{};
    if (sizes == nullptr || sizes[i] != sizeof sample) return void(++bad);
    std::memcpy(&sample, data, sizeof sample);
    if (sample.check != Checksum(sample.seq, metric)) return void(++bad);
    if (metric == m_steady) {
      // In commit order, each exactly once.
      if (sample.seq != steadyCount) ++bad;
      ++steadyCount;
    } else if (metric == m_churn) {
      if (churnCount != 0 && sample.seq < m_nextChurn) ++bad;
      m_nextChurn = sample.seq + 1;
      ++churnCount;
    } else {
      ++bad;
    }
  }

  const unsigned long m_steady;
  const unsigned long m_churn;
  uint64_t m_nextChurn = 0;
};

class StressTest : public ::testing::Test {
 protected:
  unsigned long Handle(const std::string& path) {
    unsigned long handle = 0;
    EXPECT_EQ(client->GetPath(0, path.c_str(), &handle), KT_STATUS_SUCCESS) << path;
    return handle;
  }

  // Walks the tree below `node` to `depth`. Nodes below the publishers never
  // change during the run and must answer; bindings come and go,
  // so a node that vanished between two calls may refuse.
  void Walk(unsigned long node, int depth, bool stable, std::atomic<int>& errors) {
    unsigned int count = 0;
    KT_STATUS status = client->GetChildCount(node, &count);
    std::vector<unsigned long> children(count);
    if (status == KT_STATUS_SUCCESS) status = client->GetChildren(node, children.data(), count);
    if (status != KT_STATUS_SUCCESS) {
      if (stable) ++errors;
      return;
    }
    for (unsigned long child : children) {
      ResourceInfo info{};
      if (client->GetResourceInfo(child, &info) != KT_STATUS_SUCCESS) {
        if (stable) ++errors;
        continue;
      }
      if (depth > 0) Walk(child, depth - 1, stable, errors);
    }
  }

  testing_fakes::LiveManager live;
  std::unique_ptr<DefaultClientManager>& client = live.client;
};

TEST_F(StressTest, SamplesArriveOnceAndIntactWhileClientsChurnEnumerateAndLog) {
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
    ASSERT_EQ(client->SubscribeMetric(consumerHandles[i], publishers[i].steady),
              KT_STATUS_SUCCESS);
  }
  const unsigned long publisherBranch = Handle("publishers");
  const unsigned long conduitBranch = Handle("conduits");
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
      while (!stop.load(std::memory_order_relaxed)) {
        publishers[i].WriteRound();
        // Outside the publisher's mutex: lets binds and detaches in.
        std::this_thread::yield();
      }
    });
  }
  threads.emplace_back([&] {
    ArriveAndWait(gate);
    for (; !stop.load(std::memory_order_relaxed); ++cycles) {
      for (int i = 0; i < kPublishers; ++i) {
        if (client->SubscribeMetric(consumerHandles[i], publishers[i].churn) != 0) ++churnErrors;
      }
      for (int i = 0; i < kPublishers; ++i) {
        if (client->UnsubscribeMetric(consumerHandles[i], publishers[i].churn) != 0) ++churnErrors;
      }
    }
  });
  threads.emplace_back([&] {
    ArriveAndWait(gate);
    for (; !stop.load(std::memory_order_relaxed); ++walks) {
      std::vector<std::pair<unsigned long, Metric::Description>> metrics;
      std::vector<std::string> groups;
      std::map<unsigned int, std::string> sets;
      if (client->GetMetrics(publisherBranch, metrics, &groups, &sets) != KT_STATUS_SUCCESS ||
          metrics.size() != listed.size()) {
        ++walkErrors;
      }
      Walk(publisherBranch, 2, true, walkErrors);
      Walk(conduitBranch, 3, false, walkErrors);
    }
  });
  ArriveAndWait(gate);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_until(start + RunTime());
  stop = true;
  for (std::thread& thread : threads) thread.join();

  uint64_t churned = 0;
  for (int i = 0; i < kPublishers; ++i) {
    const CheckingConsumer& consumer = *consumers[i];
    EXPECT_EQ(consumer.bad, 0u) << "consumer " << i;
    EXPECT_EQ(consumer.overlaps.load(), 0) << "consumer " << i;
    EXPECT_GT(consumer.steadyCount, 0u) << "consumer " << i;
    EXPECT_EQ(consumer.steadyCount, publishers[i].committed[publishers[i].steady])
        << "consumer " << i;
    EXPECT_LE(consumer.churnCount, publishers[i].committed[publishers[i].churn])
        << "consumer " << i;
    churned += consumer.churnCount;
  }
  EXPECT_EQ(churnErrors.load(), 0);
  EXPECT_EQ(walkErrors.load(), 0);
  EXPECT_GT(cycles, 0);
  EXPECT_GT(walks, 0);
  EXPECT_GT(churned, 0u);

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
