// Small working extensions for the tests, the benchmarks and the fuzz targets.
// They see only include/, so that tests built as a separate host can use them.
// Each records what reached it; none is thread-safe unless it says so.
#ifndef KT_TESTS_SUPPORT_FAKES_H_
#define KT_TESTS_SUPPORT_FAKES_H_

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kt/buffer.h"
#include "kt/client_manager.h"
#include "kt/conduit.h"
#include "kt/consumer.h"
#include "kt/extension.h"
#include "kt/extension_manager.h"
#include "kt/logger.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/publisher.h"
#include "kt/remote_method.h"

namespace MetricsFramework {
namespace testing_fakes {

// A loader whose every entry does nothing and succeeds.
class StubLoader : public IExtensionLoader {
 public:
  KT_STATUS LoadModule(const char*) override { return 0; }
  KT_STATUS UnloadModule(const char*) override { return 0; }
  unsigned int GetModuleCount() override { return 0; }
  const ExtensionBinaryDesc* GetModule(unsigned int) override { return nullptr; }
  IExtension* FindExtension(const char*) override { return nullptr; }
  KT_STATUS AddExtension(const char*, IKTExtensionBase*, const ExtensionBinaryDesc*) override {
    return 0;
  }
  KT_STATUS RemoveExtension(IKTExtensionBase*) override { return 0; }
};

// Files what the library asks it to file with `manager`, under the name it was
// given, as a host does.
class HostLoader : public StubLoader {
 public:
  explicit HostLoader(IExtensionManager* manager = nullptr) : manager(manager) {}
  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc*) override {
    names[extension] = name;
    return manager->Add(ExtensionBinaryDesc{}, name, dynamic_cast<IExtension*>(extension), this);
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    const std::string name = names[extension];
    names.erase(extension);
    return manager->Remove(ExtensionBinaryDesc{}, name.c_str(),
                           dynamic_cast<IExtension*>(extension), this);
  }
  IExtensionManager* manager;
  std::map<IKTExtensionBase*, std::string> names;
};

// One binding of a metric: keeps the buffer it is attached to and notes
// "attach C", "detach C" and "flush C".
class BoundMetric : public IBoundMetric {
 public:
  explicit BoundMetric(unsigned long metric) : metric(metric) {}
  void AttachBuffer(unsigned long conduit, IWriteBuffer* buffer) override {
    calls.push_back("attach " + std::to_string(conduit)), attached = buffer;
  }
  void DetachBuffer(unsigned long conduit) override {
    calls.push_back("detach " + std::to_string(conduit)), attached = nullptr;
  }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return attached != nullptr; }
  void Flush(unsigned long conduit) override { calls.push_back("flush " + std::to_string(conduit)); }
  unsigned long metric;
  IWriteBuffer* attached = nullptr;
  std::vector<std::string> calls;
};

// A probe publisher that counts its calls and keeps every binding it made;
// CreateProbe notes the type and makes no probe.
class CountingPublisher : public IProbePublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override {
    ++binds;
    return bound.emplace_back(std::make_unique<BoundMetric>(metric)).get();
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override { ++unbinds; }
  void OnLoad() override { ++loads; }
  void OnUnload() override { ++unloads; }
  Metrics::IProbe* CreateProbe(void*, unsigned long type) override {
    return lastProbeType = type, nullptr;
  }
  // The buffers `metric` is attached to, one per conduit.
  std::vector<IWriteBuffer*> WritersOf(unsigned long metric) const;

  int binds = 0, unbinds = 0, loads = 0, unloads = 0;
  unsigned long lastProbeType = 0;
  std::vector<std::unique_ptr<BoundMetric>> bound;
};

// Counts the samples it receives and sums their first bytes; with `keep` it
// also copies every sample (the samples go back to their buffers after the
// call).
class RecordingConsumer : public IConsumer {
 public:
  struct Sample {
    unsigned long handle;
    unsigned long tag;
    bool withoutSizes;
    std::string bytes;
  };
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long* tags,
                       const void** data, unsigned long* sizes) override;
  bool keep = true;
  unsigned long received = 0;
  unsigned long checksum = 0;
  std::vector<Sample> samples;
  std::vector<std::vector<Sample>> calls;
};

// A consumer that takes batches, one sample per call: (handle, tag, text).
class BatchedConsumer : public IConsumer2 {
 public:
  struct Batch {
    unsigned long handle;
    unsigned long tag;
    std::string first;
  };
  void OnMetricUpdated(unsigned int count, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {
    received += count;
  }
  void OnBatchMetricUpdated(unsigned long handle, unsigned long tag, const void* data) override;
  bool keep = true;
  unsigned long received = 0;
  unsigned long checksum = 0;
  std::vector<Batch> batches;
};

// A consumer that also hears availability changes: (handle, available).
class ListeningConsumer : public RecordingConsumer, public IMetricStateListener {
 public:
  void* CastTo(const char* name) override { return RecordingConsumer::CastTo(name); }
  void OnMetricAvailable(unsigned long handle, Path*) override { notices.push_back({handle, true}); }
  void OnMetricUnavailable(unsigned long handle, Path*) override {
    notices.push_back({handle, false});
  }
  std::vector<std::pair<unsigned long, bool>> notices;
};

// A buffer of its own class. Each committed record is followed by 8 guard
// bytes of 0xEE, poisoned under the address sanitizer: a reader that runs past
// a record sees 0xEE or is stopped. Commit queues the oldest reservation;
// GetData shows the oldest record and MakeAvailable drops it. `failReserve`
// makes Reserve throw as an exhausted allocator does.
class HostBuffer : public IReadWriteBuffer {
 public:
  explicit HostBuffer(const std::string& record = "");
  ~HostBuffer() override;
  HostBuffer(const HostBuffer&) = delete;
  HostBuffer& operator=(const HostBuffer&) = delete;
  void GetData(const void** data, unsigned long* size) const override;
  void MakeAvailable(const void*) const override;
  void Flush() override { ++flushes; }
  void* Reserve(unsigned long size) override;
  void Commit(void*) override;
  void CommitTimeBasedMetric(void* data) override { Commit(data); }
  // The committed records, oldest first.
  std::vector<std::string> Records() const;

  bool failReserve = false;
  int flushes = 0;
  mutable int releases = 0;
  std::deque<std::vector<char>> pending;
  mutable std::deque<std::vector<char>> records;
};

// A conduit whose buffers are HostBuffers. Transact succeeds and does nothing;
// GetRemoteHandle answers `remote`, or the conduit's own handle while that is 0.
class FakeConduit : public IConduit {
 public:
  void OnSubscribed(unsigned long) override {}
  void OnUnsubscribed(unsigned long) override {}
  KT_STATUS CreateBuffer(unsigned long, IReadWriteBuffer** out) override {
    *out = buffers.emplace_back(std::make_unique<HostBuffer>()).get();
    return KT_STATUS_SUCCESS;
  }
  void DestroyBuffer(IReadWriteBuffer* buffer) override { returned.push_back(buffer); }
  KT_STATUS Transact(unsigned long, const IReadBuffer*, IWriteBuffer*) override { return 0; }
  unsigned long GetRemoteHandle() override { return remote != 0 ? remote : GetHandle(); }

  unsigned long remote = 0;
  std::vector<std::unique_ptr<HostBuffer>> buffers;
  std::vector<IReadWriteBuffer*> returned;
};

// A method named `name` that answers `reply` followed by the bytes of its
// argument record; counts its runs.
class RecordingMethod : public IRemoteMethod {
 public:
  explicit RecordingMethod(const char* name = "echo", const char* reply = "")
      : name(name), reply(reply) {}
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override;
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override;
  std::string name;
  std::string reply;
  int runs = 0;
};

// Keeps every line as "level:text". Thread-safe.
class RecordingLogger : public ILogger {
 public:
  void Log(unsigned int level, const char* line) override {
    std::lock_guard<std::mutex> hold(mutex);
    lines.push_back(std::to_string(level) + ":" + (line != nullptr ? line : "(null)"));
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> hold(mutex);
    return lines;
  }
  std::mutex mutex;
  std::vector<std::string> lines;
};

// Keeps every (metric, status) it is told of.
class RecordingErrorListener : public IClientManagerErrorListener {
 public:
  void OnError(unsigned long metric, unsigned int status) override {
    errors.emplace_back(metric, status);
  }
  std::vector<std::pair<unsigned long, unsigned int>> errors;
};

// A description named `uri` whose tag (word1) is `tag`, in group `group`
// (word4), with `flags`.
inline Metric::Description Describe(const std::string& uri, unsigned int tag = 1,
                                    unsigned int group = 0xFFFFFFFF, unsigned int flags = 0) {
  Metric::Description d;
  d.uri = uri, d.word1 = tag, d.word4 = group, d.flags = flags;
  return d;
}

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_SUPPORT_FAKES_H_
