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
                         const ExtensionBinaryDesc*) override;
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override;
  IExtensionManager* manager;
  std::map<IKTExtensionBase*, std::string> names;
};

// One binding of a metric: keeps the buffer it is attached to and notes
// "attach C", "detach C" and "flush C".
class BoundMetric : public IBoundMetric {
 public:
  explicit BoundMetric(unsigned long metric) : metric(metric) {}
  void AttachBuffer(unsigned long conduit, IWriteBuffer* buffer) override;
  void DetachBuffer(unsigned long conduit) override;
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return attached != nullptr; }
  void Flush(unsigned long conduit) override;
  unsigned long metric;
  IWriteBuffer* attached = nullptr;
  std::vector<std::string> calls;
};

// A probe publisher that counts its calls and keeps every binding it made;
// `refuseBinding` makes BindMetric answer null; CreateProbe answers
// `probeToMake`.
class CountingPublisher : public IProbePublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override;
  void UnbindMetric(unsigned long, IBoundMetric* metric) override;
  void OnLoad() override { ++loads; }
  void OnUnload() override { ++unloads; }
  Metrics::IProbe* CreateProbe(void*, unsigned long type) override;
  // The buffers `metric` is attached to, one per conduit.
  std::vector<IWriteBuffer*> WritersOf(unsigned long metric) const;

  bool refuseBinding = false;
  int binds = 0, unbinds = 0, loads = 0, unloads = 0;
  IBoundMetric* lastUnbound = nullptr;
  unsigned long lastProbeType = 0;
  Metrics::IProbe* probeToMake = nullptr;
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

// A probe that records each event as "Begin a b type context", "End a type
// context", "Handle", "Command a b state" (pointers as numbers), answering 99.
class RecordingProbe : public Metrics::IProbe {
 public:
  KT_STATUS Begin(unsigned long a, unsigned long b, Metrics::EventType type, void* c) override;
  KT_STATUS End(unsigned long a, Metrics::EventType type, void* c) override;
  KT_STATUS Handle() override { return Note("Handle"); }
  KT_STATUS OnChangeStateCommandList(void* a, void* b, Metrics::CommandListState s) override;
  KT_STATUS Note(const std::string& call) { return calls.push_back(call), 99; }
  std::vector<std::string> calls;
};

// A buffer of its own class. Each committed record is followed by 8 guard
// bytes of 0xEE, poisoned under the address sanitizer: a reader that runs past
// a record sees 0xEE or is stopped. Commit queues the oldest reservation;
// GetData shows the oldest record and MakeAvailable drops it. `refuse` makes
// Reserve answer null, `failReserve` makes it throw as an exhausted allocator
// does; ClaimNullData makes GetData answer null data of `size` bytes.
class HostBuffer : public IReadWriteBuffer {
 public:
  explicit HostBuffer(const std::string& record = "");
  ~HostBuffer() override;
  HostBuffer(const HostBuffer&) = delete;
  HostBuffer& operator=(const HostBuffer&) = delete;
  void ClaimNullData(unsigned long size) { nullData = true, claimed = size; }
  void GetData(const void** data, unsigned long* size) const override;
  void MakeAvailable(const void*) const override;
  void Flush() override { ++flushes; }
  void* Reserve(unsigned long size) override;
  void Commit(void*) override;
  void CommitTimeBasedMetric(void* data) override { Commit(data); }
  // The committed records, oldest first.
  std::vector<std::string> Records() const;

  bool refuse = false;
  bool failReserve = false;
  bool nullData = false;
  unsigned long claimed = 0;
  int flushes = 0;
  mutable int releases = 0;
  std::vector<unsigned long> reserved;
  std::deque<std::vector<char>> pending;
  mutable std::deque<std::vector<char>> records;
};

// A conduit whose buffers are HostBuffers; `createStatus` makes CreateBuffer
// refuse. Transact notes the method and answers `transactStatus`;
// GetRemoteHandle answers `remote`, or the conduit's own handle while that is 0.
class FakeConduit : public IConduit {
 public:
  void OnSubscribed(unsigned long) override {}
  void OnUnsubscribed(unsigned long) override {}
  KT_STATUS CreateBuffer(unsigned long, IReadWriteBuffer** out) override;
  void DestroyBuffer(IReadWriteBuffer* buffer) override { returned.push_back(buffer); }
  KT_STATUS Transact(unsigned long method, const IReadBuffer*, IWriteBuffer*) override {
    transacted.push_back(method);
    return transactStatus;
  }
  unsigned long GetRemoteHandle() override { return remote != 0 ? remote : GetHandle(); }

  KT_STATUS createStatus = KT_STATUS_SUCCESS;
  KT_STATUS transactStatus = KT_STATUS_SUCCESS;
  unsigned long remote = 0;
  std::vector<std::unique_ptr<HostBuffer>> buffers;
  std::vector<IReadWriteBuffer*> returned;
  std::vector<unsigned long> transacted;
};

// A method named `name` that answers `reply` followed by the bytes of its
// argument record and returns `result`; counts its runs.
class RecordingMethod : public IRemoteMethod {
 public:
  explicit RecordingMethod(const char* name = "echo", const char* reply = "")
      : name(name), reply(reply) {}
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override;
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override;
  std::string name;
  std::string reply;
  bool result = true;
  unsigned int inputs = 0, outputs = 0;
  int runs = 0;
};

// Keeps every line as "level:text". Thread-safe.
class RecordingLogger : public ILogger {
 public:
  void Log(unsigned int level, const char* line) override;
  std::vector<std::string> Lines();
  std::mutex mutex;
  std::vector<std::string> lines;
};

// The client manager of another process: records every call as its name and
// arguments (pointers as numbers) and answers `status`. On success it writes
// `handle`, `count`, `info` and `description` to the matching out-parameter.
class RecordingClientManager : public IClientManager {
 public:
  using Listing = std::vector<std::pair<unsigned long, Metric::Description>>;
  using Listener = IClientManagerErrorListener;
  KT_STATUS GetPath(unsigned long root, const char* name, unsigned long* out) const override {
    Record("GetPath", root, std::string(name != nullptr ? name : "(null)"), out);
    return Answer(out, handle);
  }
  KT_STATUS GetChildCount(unsigned long parent, unsigned int* out) const override {
    Record("GetChildCount", parent, out);
    return Answer(out, count);
  }
  KT_STATUS GetChildren(unsigned long parent, unsigned long* out, unsigned int n) const override {
    return Record("GetChildren", parent, out, n);
  }
  KT_STATUS GetMetrics(unsigned long h, Listing&, std::vector<std::string>*,
                       std::map<unsigned int, std::string>*) const override {
    return Record("GetMetrics", h);
  }
  KT_STATUS GetResourceInfo(unsigned long h, ResourceInfo* out) const override {
    Record("GetResourceInfo", h, out);
    return Answer(out, info);
  }
  KT_STATUS GetMetricDescriptor(unsigned long metric, Metric::Description* out) const override {
    Record("GetMetricDescriptor", metric, out);
    return Answer(out, description);
  }
  KT_STATUS SubscribeMetric(unsigned long consumer, unsigned long metric) override {
    return Record("SubscribeMetric", consumer, metric), subscribeStatus;
  }
  KT_STATUS UnsubscribeMetric(unsigned long consumer, unsigned long metric) override {
    return Record("UnsubscribeMetric", consumer, metric);
  }
  KT_STATUS SubscribeMetrics(unsigned long consumer, const unsigned long* metrics, unsigned int n,
                             Listener*) override {
    return Record("SubscribeMetrics", consumer, metrics, n);
  }
  KT_STATUS UnsubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                               unsigned int n, Listener*) override {
    return Record("UnsubscribeMetrics", consumer, metrics, n);
  }
  KT_STATUS FlushMetrics(unsigned long consumer) override {
    return Record("FlushMetrics", consumer);
  }
  KT_STATUS CallRemoteMethodSync(unsigned long method, const IReadBuffer* args,
                                 IWriteBuffer* returns) override {
    return Record("CallRemoteMethodSync", method, args, returns);
  }
  KT_STATUS CreateProbe(unsigned long type, void* query, unsigned long* out) override {
    return Record("CreateProbe", type, query, out);
  }
  KT_STATUS DestroyProbe(unsigned long site) override { return Record("DestroyProbe", site); }
  KT_STATUS BeginProbe(unsigned long, unsigned long, unsigned long, Metrics::EventType,
                       void*) const override {
    return Record("BeginProbe");
  }
  KT_STATUS EndProbe(unsigned long, unsigned long, Metrics::EventType, void*) const override {
    return Record("EndProbe");
  }
  KT_STATUS HandleProbe(unsigned long) const override { return Record("HandleProbe"); }
  KT_STATUS OnChangeStateCommandList(unsigned long, void*, void*,
                                     Metrics::CommandListState) const override {
    return Record("OnChangeStateCommandList");
  }

  // "Operation arg arg ..." as Record writes it.
  template <typename... Args>
  static std::string Call(const char* operation, const Args&... args) {
    std::string line = operation;
    for (const std::string& arg : {std::string(), Text(args)...}) {
      if (!arg.empty()) line += " " + arg;
    }
    return line;
  }

  KT_STATUS status = 77;  // no status of the table: it can only come from here
  KT_STATUS subscribeStatus = 77;  // SubscribeMetric's answer
  unsigned long handle = 0;
  unsigned int count = 0;
  ResourceInfo info{};
  Metric::Description description;
  mutable std::vector<std::string> calls;

 private:
  static std::string Text(const std::string& text) { return text; }
  static std::string Text(unsigned long value) { return std::to_string(value); }
  static std::string Text(unsigned int value) { return std::to_string(value); }
  template <typename T>
  static std::string Text(T* pointer) {
    return std::to_string(reinterpret_cast<unsigned long>(pointer));
  }
  template <typename... Args>
  KT_STATUS Record(const char* operation, const Args&... args) const {
    calls.push_back(Call(operation, args...));
    return status;
  }
  template <typename T>
  KT_STATUS Answer(T* out, const T& value) const {
    if (status == KT_STATUS_SUCCESS && out != nullptr) *out = value;
    return status;
  }
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
Metric::Description Describe(const std::string& uri, unsigned int tag = 1,
                             unsigned int group = 0xFFFFFFFF, unsigned int flags = 0);
// A description with every field set, named `uri`.
Metric::Description FullDescription(const std::string& uri, unsigned int flags = 0);

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_SUPPORT_FAKES_H_
