// The host the benchmarks run in: a real DefaultExtensionManager and
// DefaultClientManager, a loader that files what the library asks it to file,
// a publisher that writes into every buffer its metrics are bound to, and
// consumers that count what they receive. Everything is filed with Add and
// subscribed with SubscribeMetric, as a host and its clients do.
//
// Threads: build, subscribe and tear down on one thread. Write() may run on
// any one thread per publisher; the consumers' counters are plain integers,
// each consumer called from one pushing thread only.
#ifndef KT_BENCH_BENCH_HOST_H_
#define KT_BENCH_BENCH_HOST_H_

#include <memory>
#include <string>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "support/fakes.h"

namespace kt_bench {

using namespace MetricsFramework;

using BenchPublisher = testing_fakes::CountingPublisher;

// The consumers count and sum what they receive, keeping no copies.
struct CountingConsumer : testing_fakes::RecordingConsumer {
  CountingConsumer() { keep = false; }
};
struct BatchedConsumer : testing_fakes::BatchedConsumer {
  BatchedConsumer() { keep = false; }
};

// A manager, its client manager and the extensions filed with them.
class BenchHost {
 public:
  BenchHost();
  // The host's order: extensions removed, then the client manager, then the
  // manager.
  ~BenchHost();
  BenchHost(const BenchHost&) = delete;
  BenchHost& operator=(const BenchHost&) = delete;

  // Files a publisher named `name`; the host owns it.
  BenchPublisher* AddPublisher(const std::string& name);
  // Files `consumer` (owned by the caller) as `name`; returns its handle.
  unsigned long AddConsumer(const std::string& name, IConsumer* consumer);
  // Publishes `uri` with `tag`, `group` and `flags`; returns its handle.
  unsigned long Publish(BenchPublisher* publisher, const std::string& uri, unsigned int tag,
                        unsigned int group = 0xFFFFFFFF, unsigned int flags = 0);
  // SubscribeMetric; aborts the benchmark binary when it fails.
  void Subscribe(unsigned long consumer, unsigned long metric);
  // Marks `metric` batched on the conduit of `consumer`. No client operation
  // does this; the conduit's state is reached through the registry.
  void MarkBatched(unsigned long consumer, unsigned long metric);

  DefaultExtensionManager* manager;
  DefaultClientManager* client;
  testing_fakes::HostLoader loader;

 private:
  std::vector<std::pair<std::string, IExtension*>> m_added;
  std::vector<std::unique_ptr<BenchPublisher>> m_publishers;
};

}  // namespace kt_bench

#endif  // KT_BENCH_BENCH_HOST_H_
