// The registry: handle resolution over 1 thousand to 1 million registered
// nodes, name resolution of a 4-level path, GetMetrics over 10 thousand
// metrics under 10 publishers, and the heap bytes one published metric costs.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "bench/alloc_counter.h"
#include "bench/bench_host.h"
#include "registry/registry.h"

namespace kt_bench {
namespace {

// A registry with `count` nodes under one parent, every one registered in
// "handles". Built once per size and kept for the whole run: building a
// million nodes takes seconds.
struct NodeTree {
  explicit NodeTree(int count) {
    Path* parent = registry.GetChild("bench", kPathCreate);
    handles.reserve(count);
    for (int i = 0; i < count; ++i) {
      handles.push_back(parent->NewChild(0, "n" + std::to_string(i), true, true)->GetHandle());
    }
    collisions = handles.size() - std::unordered_set<unsigned long>(handles.begin(), handles.end()).size();
  }
  Registry registry;
  std::vector<unsigned long> handles;
  size_t collisions = 0;
};

NodeTree& TreeOf(int count) {
  static auto* trees = new std::map<int, std::unique_ptr<NodeTree>>;
  std::unique_ptr<NodeTree>& tree = (*trees)[count];
  if (!tree) tree = std::make_unique<NodeTree>(count);
  return *tree;
}

void BM_ResolveHandle(benchmark::State& state) {
  NodeTree& tree = TreeOf(static_cast<int>(state.range(0)));
  const size_t n = tree.handles.size();
  // Visited with a large odd stride, out of creation order, so that the larger
  // trees do not run from cache.
  std::vector<unsigned long> order(n);
  for (size_t k = 0; k < n; ++k) order[k] = tree.handles[(k * 7919) % n];
  size_t i = 0;
  for (auto _ : state) {
    Path* node = tree.registry.ResolveHandle(order[i]);
    benchmark::DoNotOptimize(node);
    if (++i == n) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["handle_collisions"] = static_cast<double>(tree.collisions);
}
BENCHMARK(BM_ResolveHandle)->Arg(1000)->Arg(100000)->Arg(1000000);

void BM_GetPath4Levels(benchmark::State& state) {
  BenchHost host;
  host.manager->GetRegistry().GetChild("level1/level2/level3/level4", kPathCreate);
  for (auto _ : state) {
    unsigned long handle = 0;
    benchmark::DoNotOptimize(host.client->GetPath(0, "level1/level2/level3/level4", &handle));
    benchmark::DoNotOptimize(handle);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetPath4Levels);

void BM_PathGetChild4Levels(benchmark::State& state) {
  Registry registry;
  registry.GetChild("level1/level2/level3/level4", kPathCreate);
  for (auto _ : state) {
    benchmark::DoNotOptimize(registry.GetChild("level1/level2/level3/level4", 0));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PathGetChild4Levels);

void BM_GetMetrics10k(benchmark::State& state) {
  BenchHost host;
  for (int p = 0; p < 10; ++p) {
    BenchPublisher* publisher = host.AddPublisher("publisher" + std::to_string(p));
    for (int m = 0; m < 1000; ++m) host.Publish(publisher, "metric" + std::to_string(m), m);
  }
  unsigned long branch = 0;
  host.client->GetPath(0, "publishers", &branch);
  size_t listed = 0;
  for (auto _ : state) {
    std::vector<std::pair<unsigned long, Metric::Description>> metrics;
    std::vector<std::string> groups;
    std::map<unsigned int, std::string> sets;
    benchmark::DoNotOptimize(host.client->GetMetrics(branch, metrics, &groups, &sets));
    listed = metrics.size();
  }
  state.SetItemsProcessed(state.iterations() * 10000);
  state.counters["listed"] = static_cast<double>(listed);
}
BENCHMARK(BM_GetMetrics10k)->Unit(benchmark::kMillisecond);

// Heap bytes of one published metric (node, map entries, handle entry,
// state), and of one subscription of it (binding, conduit tables, buffer).
void BM_MetricMemory(benchmark::State& state) {
  constexpr int kMetrics = 1000;
  double perMetric = 0;
  double perSubscription = 0;
  for (auto _ : state) {
    CountingConsumer consumer;
    BenchHost host;
    BenchPublisher* publisher = host.AddPublisher("publisher");
    const unsigned long consumerHandle = host.AddConsumer("consumer", &consumer);
    host.Subscribe(consumerHandle, host.Publish(publisher, "warm", 1));  // the conduit exists
    std::vector<unsigned long> metrics;
    metrics.reserve(kMetrics);
    AllocCounter::Start();
    for (int m = 0; m < kMetrics; ++m) {
      metrics.push_back(host.Publish(publisher, "metric" + std::to_string(m), m));
    }
    perMetric = static_cast<double>(AllocCounter::LiveBytes()) / kMetrics;
    AllocCounter::Start();
    for (unsigned long metric : metrics) host.Subscribe(consumerHandle, metric);
    perSubscription = static_cast<double>(AllocCounter::LiveBytes()) / kMetrics;
    AllocCounter::Stop();
  }
  state.counters["bytes_per_metric"] = perMetric;
  state.counters["bytes_per_subscription"] = perSubscription;
}
BENCHMARK(BM_MetricMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kt_bench
