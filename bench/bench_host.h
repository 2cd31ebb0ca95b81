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

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "kt/consumer.h"
#include "kt/metric.h"
#include "kt/publisher.h"

namespace kt_bench {

using namespace MetricsFramework;

// Files extensions with the manager under the name it was given.
class BenchLoader : public IExtensionLoader {
 public:
  KT_STATUS LoadModule(const char*) override { return KT_STATUS_SUCCESS; }
  KT_STATUS UnloadModule(const char*) override { return KT_STATUS_SUCCESS; }
  unsigned int GetModuleCount() override { return 0; }
  const ExtensionBinaryDesc* GetModule(unsigned int) override { return nullptr; }
  IExtension* FindExtension(const char*) override { return nullptr; }
  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc*) override {
    names[extension] = name;
    return manager->Add(ExtensionBinaryDesc{}, name, extension, this);
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    const std::string name = names[extension];
    names.erase(extension);
    return manager->Remove(ExtensionBinaryDesc{}, name.c_str(), extension, this);
  }
  IExtensionManager* manager = nullptr;
  std::map<IKTExtensionBase*, std::string> names;
};

// One binding of a metric to one conduit's buffer.
class BenchBound : public IBoundMetric {
 public:
  explicit BenchBound(unsigned long metric) : metric(metric) {}
  void AttachBuffer(unsigned long, IWriteBuffer* writer) override { buffer = writer; }
  void DetachBuffer(unsigned long) override { buffer = nullptr; }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return buffer != nullptr; }
  void Flush(unsigned long) override {}
  unsigned long metric;
  IWriteBuffer* buffer = nullptr;
};

class BenchPublisher : public IPublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override {
    bounds.push_back(std::make_unique<BenchBound>(metric));
    return bounds.back().get();
  }
  void UnbindMetric(unsigned long, IBoundMetric* bound) override {
    for (auto it = bounds.begin(); it != bounds.end(); ++it) {
      if (it->get() != bound) continue;
      bounds.erase(it);
      return;
    }
  }
  void OnLoad() override {}
  void OnUnload() override { bounds.clear(); }

  // The write sides `metric` is bound to, one per subscribed conduit.
  std::vector<IWriteBuffer*> WritersOf(unsigned long metric) const {
    std::vector<IWriteBuffer*> writers;
    for (const auto& bound : bounds) {
      if (bound->metric == metric && bound->buffer != nullptr) writers.push_back(bound->buffer);
    }
    return writers;
  }

  std::vector<std::unique_ptr<BenchBound>> bounds;
};

// Counts samples and reads the first byte of each, so that the call is not
// empty.
class CountingConsumer : public IConsumer {
 public:
  void OnMetricUpdated(unsigned int count, unsigned long*, const unsigned long*,
                       const void** data, unsigned long*) override {
    samples += count;
    for (unsigned int i = 0; i < count; ++i) checksum += *static_cast<const unsigned char*>(data[i]);
  }
  unsigned long samples = 0;
  unsigned long checksum = 0;
};

class BatchedConsumer : public IConsumer2 {
 public:
  void OnMetricUpdated(unsigned int count, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    samples += count;
  }
  void OnBatchMetricUpdated(unsigned long, unsigned long, const void* data) override {
    ++samples;
    checksum += *static_cast<const unsigned char*>(data);
  }
  unsigned long samples = 0;
  unsigned long checksum = 0;
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
  BenchLoader loader;

 private:
  std::vector<std::pair<std::string, IExtension*>> m_added;
  std::vector<std::unique_ptr<BenchPublisher>> m_publishers;
};

}  // namespace kt_bench

#endif  // KT_BENCH_BENCH_HOST_H_
