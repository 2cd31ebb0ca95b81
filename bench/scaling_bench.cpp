// Samples per second with one and with two publisher threads, each thread
// writing its own metric into the buffer of its own conduit (two publishers,
// two consumers, so two conduits). items_per_second is the sum over threads.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_host.h"

namespace kt_bench {
namespace {

// Built once and kept for the whole run, so that the threads of a run never
// race its construction or destruction.
struct TwoConduits {
  TwoConduits() {
    for (int i = 0; i < 2; ++i) {
      BenchPublisher* publisher = host.AddPublisher("publisher" + std::to_string(i));
      const unsigned long metric = host.Publish(publisher, "sample", 42);
      const unsigned long consumer = host.AddConsumer("consumer" + std::to_string(i), consumers[i]);
      host.Subscribe(consumer, metric);
      writers[i] = publisher->WritersOf(metric).at(0);
    }
  }
  // Each consumer on a cache line of its own: two counters side by side would
  // make the two threads share a line that neither shares in the library.
  struct alignas(64) OwnLine {
    CountingConsumer consumer;
  };
  OwnLine lines[2];
  CountingConsumer* consumers[2] = {&lines[0].consumer, &lines[1].consumer};
  BenchHost host;
  IWriteBuffer* writers[2] = {nullptr, nullptr};
};

TwoConduits& Rig() {
  static auto* rig = new TwoConduits;
  return *rig;
}

// Writes `count` samples of 64 bytes into `writer`.
void WriteSamples(IWriteBuffer* writer, int count) {
  unsigned char payload[64];
  std::memset(payload, 7, sizeof payload);
  for (int i = 0; i < count; ++i) {
    void* block = writer->Reserve(sizeof payload);
    std::memcpy(block, payload, sizeof payload);
    writer->Commit(block);
  }
}

// Each iteration starts `threads` publisher threads that write kSamples each
// and times them from start to the last join, so that items_per_second is the
// samples per second of all threads together.
void BM_PublisherThreads(benchmark::State& state) {
  constexpr int kSamples = 50000;
  const int threads = static_cast<int>(state.range(0));
  TwoConduits& rig = Rig();
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) running.emplace_back(WriteSamples, rig.writers[t], kSamples);
    for (std::thread& thread : running) thread.join();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations() * threads * kSamples);
}
BENCHMARK(BM_PublisherThreads)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same shape without the library: each thread copies its samples into a
// hand-off of its own (a std::mutex-guarded std::deque) and drains it into its
// own counting consumer. Its ratio of two threads to one is what this machine
// gives two independent streams of work, the ceiling for the figure above.
struct alignas(64) OwnHandoff {
  std::mutex mutex;
  std::deque<std::vector<unsigned char>> samples;
  CountingConsumer consumer;
};

void HandOffSamples(OwnHandoff* handoff, int count) {
  unsigned char payload[64];
  std::memset(payload, 7, sizeof payload);
  for (int i = 0; i < count; ++i) {
    {
      std::lock_guard<std::mutex> hold(handoff->mutex);
      handoff->samples.emplace_back(payload, payload + sizeof payload);
    }
    std::vector<unsigned char> sample;
    {
      std::lock_guard<std::mutex> hold(handoff->mutex);
      sample = std::move(handoff->samples.front());
      handoff->samples.pop_front();
    }
    const void* data = sample.data();
    unsigned long size = sample.size();
    handoff->consumer.OnMetricUpdated(1, nullptr, nullptr, &data, &size);
  }
}

void BM_HandoffThreads(benchmark::State& state) {
  constexpr int kSamples = 50000;
  const int threads = static_cast<int>(state.range(0));
  static auto* handoffs = new OwnHandoff[2];
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) running.emplace_back(HandOffSamples, &handoffs[t], kSamples);
    for (std::thread& thread : running) thread.join();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations() * threads * kSamples);
}
BENCHMARK(BM_HandoffThreads)->Arg(1)->Arg(2)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kt_bench
