// The sample path through the real managers, and the two baselines it is
// measured against in the same run:
//   BM_Direct   a virtual call of each consumer with the sample pointer: the floor.
//   BM_Handoff  a std::mutex-guarded std::deque of samples, drained by a callback
//               that calls each consumer: what a user would write by hand.
// Every figure is per published sample (per group cycle for the group of 3).
// Each consumer subscribes through its own conduit, as SubscribeMetric files
// it, so the publisher writes one block per consumer.
#include <benchmark/benchmark.h>

#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/alloc_counter.h"
#include "bench/bench_host.h"

namespace kt_bench {
namespace {

constexpr unsigned int kTag = 42;

void SampleArgs(benchmark::internal::Benchmark* b) {
  for (int consumers : {1, 4, 16}) {
    for (int bytes : {8, 64, 1024}) b->Args({consumers, bytes});
  }
}

std::vector<unsigned char> Payload(size_t bytes) {
  std::vector<unsigned char> payload(bytes);
  for (size_t i = 0; i < bytes; ++i) payload[i] = static_cast<unsigned char>(i + 1);
  return payload;
}

void Write(IWriteBuffer* writer, const std::vector<unsigned char>& payload) {
  void* block = writer->Reserve(payload.size());
  std::memcpy(block, payload.data(), payload.size());
  writer->Commit(block);
}

// Allocations per sample, counted over a short untimed run after the loop.
template <typename Step>
void CountAllocations(benchmark::State& state, Step step) {
  constexpr int kRuns = 1000;
  AllocCounter::Start();
  for (int i = 0; i < kRuns; ++i) step();
  AllocCounter::Stop();
  state.counters["allocs_per_sample"] =
      static_cast<double>(AllocCounter::Allocations()) / kRuns;
}

void BM_Direct(benchmark::State& state) {
  const int consumerCount = static_cast<int>(state.range(0));
  const std::vector<unsigned char> payload = Payload(state.range(1));
  std::vector<std::unique_ptr<CountingConsumer>> owned;
  std::vector<IConsumer*> consumers;
  for (int i = 0; i < consumerCount; ++i) {
    owned.push_back(std::make_unique<CountingConsumer>());
    consumers.push_back(owned.back().get());
  }
  std::vector<unsigned char> block(payload.size());
  unsigned long handle = 0x1234;
  unsigned long tag = kTag;
  unsigned long size = payload.size();
  for (auto _ : state) {
    std::memcpy(block.data(), payload.data(), payload.size());
    const void* data = block.data();
    benchmark::DoNotOptimize(data);
    for (IConsumer* consumer : consumers) consumer->OnMetricUpdated(1, &handle, &tag, &data, &size);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Direct)->Apply(SampleArgs);

// The hand-written hand-off: samples copied into a queue under a mutex, and a
// drain that takes them out one at a time and hands each to a callback.
class Handoff {
 public:
  void Push(const void* data, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::lock_guard<std::mutex> hold(m_mutex);
    m_samples.emplace_back(bytes, bytes + size);
  }
  void Drain(const std::function<void(const std::vector<unsigned char>&)>& callback) {
    for (;;) {
      std::vector<unsigned char> sample;
      {
        std::lock_guard<std::mutex> hold(m_mutex);
        if (m_samples.empty()) return;
        sample = std::move(m_samples.front());
        m_samples.pop_front();
      }
      callback(sample);
    }
  }

 private:
  std::mutex m_mutex;
  std::deque<std::vector<unsigned char>> m_samples;
};

void BM_Handoff(benchmark::State& state) {
  const int consumerCount = static_cast<int>(state.range(0));
  const std::vector<unsigned char> payload = Payload(state.range(1));
  std::vector<std::unique_ptr<CountingConsumer>> owned;
  std::vector<IConsumer*> consumers;
  for (int i = 0; i < consumerCount; ++i) {
    owned.push_back(std::make_unique<CountingConsumer>());
    consumers.push_back(owned.back().get());
  }
  Handoff handoff;
  unsigned long handle = 0x1234;
  unsigned long tag = kTag;
  const std::function<void(const std::vector<unsigned char>&)> deliver =
      [&](const std::vector<unsigned char>& sample) {
        const void* data = sample.data();
        unsigned long size = sample.size();
        for (IConsumer* consumer : consumers) {
          consumer->OnMetricUpdated(1, &handle, &tag, &data, &size);
        }
      };
  auto step = [&] {
    handoff.Push(payload.data(), payload.size());
    handoff.Drain(deliver);
  };
  for (auto _ : state) step();
  state.SetItemsProcessed(state.iterations());
  CountAllocations(state, step);
}
BENCHMARK(BM_Handoff)->Apply(SampleArgs);

// One publisher, `consumerCount` consumers each subscribed to one metric.
struct SampleRig {
  SampleRig(int consumerCount, unsigned int flags, bool batched) {
    publisher = host.AddPublisher("bench_publisher");
    metric = host.Publish(publisher, "sample", kTag, 0xFFFFFFFF, flags);
    for (int i = 0; i < consumerCount; ++i) {
      IConsumer* consumer = nullptr;
      if (batched) {
        batchedConsumers.push_back(std::make_unique<BatchedConsumer>());
        consumer = batchedConsumers.back().get();
      } else {
        consumers.push_back(std::make_unique<CountingConsumer>());
        consumer = consumers.back().get();
      }
      const unsigned long handle = host.AddConsumer("consumer" + std::to_string(i), consumer);
      host.Subscribe(handle, metric);
      if (batched) host.MarkBatched(handle, metric);
    }
    writers = publisher->WritersOf(metric);
  }
  unsigned long Delivered() const {
    unsigned long total = 0;
    for (const auto& c : consumers) total += c->received;
    for (const auto& c : batchedConsumers) total += c->received;
    return total;
  }

  // Destroyed before the consumers: the host removes them while they live.
  std::vector<std::unique_ptr<CountingConsumer>> consumers;
  std::vector<std::unique_ptr<BatchedConsumer>> batchedConsumers;
  BenchHost host;
  BenchPublisher* publisher = nullptr;
  unsigned long metric = 0;
  std::vector<IWriteBuffer*> writers;
};

// Stops the benchmark with an error when the samples did not all arrive.
void CheckDelivered(benchmark::State& state, const SampleRig& rig, unsigned long expected) {
  if (rig.Delivered() != expected) state.SkipWithError("samples lost on the way");
}

void RunSamplePath(benchmark::State& state, unsigned int flags, bool batched) {
  SampleRig rig(static_cast<int>(state.range(0)), flags, batched);
  const std::vector<unsigned char> payload = Payload(state.range(1));
  auto step = [&] {
    for (IWriteBuffer* writer : rig.writers) Write(writer, payload);
  };
  for (auto _ : state) step();
  state.SetItemsProcessed(state.iterations());
  CheckDelivered(state, rig, state.iterations() * rig.writers.size());
  CountAllocations(state, step);
}

void BM_SamplePath(benchmark::State& state) { RunSamplePath(state, 0, false); }
BENCHMARK(BM_SamplePath)->Apply(SampleArgs);

void BM_SamplePathBatched(benchmark::State& state) { RunSamplePath(state, 0, true); }
BENCHMARK(BM_SamplePathBatched)->Args({1, 64})->Args({4, 64})->Args({16, 64});

void BM_SamplePathTimeBased(benchmark::State& state) {
  SampleRig rig(static_cast<int>(state.range(0)), Metric::kFlagTimeBased, false);
  const std::vector<unsigned char> payload = Payload(state.range(1));
  auto step = [&] {
    for (IWriteBuffer* writer : rig.writers) {
      void* block = writer->Reserve(payload.size());
      std::memcpy(block, payload.data(), payload.size());
      writer->CommitTimeBasedMetric(block);
    }
  };
  for (auto _ : state) step();
  state.SetItemsProcessed(state.iterations());
  CheckDelivered(state, rig, state.iterations() * rig.writers.size());
  CountAllocations(state, step);
}
BENCHMARK(BM_SamplePathTimeBased)->Args({1, 64})->Args({4, 64})->Args({16, 64});

// A group of 3 metrics: one consumer call per cycle once all three committed.
void BM_SamplePathGroupOf3(benchmark::State& state) {
  CountingConsumer consumer;
  BenchHost host;
  BenchPublisher* publisher = host.AddPublisher("bench_publisher");
  const unsigned long handle = host.AddConsumer("consumer", &consumer);
  std::vector<IWriteBuffer*> writers;
  for (const char* uri : {"a", "b", "c"}) {
    const unsigned long metric = host.Publish(publisher, uri, kTag, 1);
    host.Subscribe(handle, metric);
    writers.push_back(publisher->WritersOf(metric).at(0));
  }
  const std::vector<unsigned char> payload = Payload(state.range(0));
  auto step = [&] {
    for (IWriteBuffer* writer : writers) Write(writer, payload);
  };
  for (auto _ : state) step();
  state.SetItemsProcessed(state.iterations());
  if (consumer.received != static_cast<unsigned long>(state.iterations()) * 3) state.SkipWithError("group samples lost");
  CountAllocations(state, step);
}
BENCHMARK(BM_SamplePathGroupOf3)->Arg(64);

// The floor for a group: three samples handed to the consumer in one call.
void BM_DirectGroupOf3(benchmark::State& state) {
  CountingConsumer owned;
  IConsumer* consumer = &owned;
  const std::vector<unsigned char> payload = Payload(state.range(0));
  std::vector<unsigned char> blocks[3] = {payload, payload, payload};
  unsigned long handles[3] = {1, 2, 3};
  unsigned long tags[3] = {kTag, kTag, kTag};
  unsigned long sizes[3] = {payload.size(), payload.size(), payload.size()};
  for (auto _ : state) {
    const void* data[3];
    for (int i = 0; i < 3; ++i) {
      std::memcpy(blocks[i].data(), payload.data(), payload.size());
      data[i] = blocks[i].data();
    }
    benchmark::DoNotOptimize(data);
    consumer->OnMetricUpdated(3, handles, tags, data, sizes);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DirectGroupOf3)->Arg(64);

}  // namespace
}  // namespace kt_bench
