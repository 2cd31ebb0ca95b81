// Fakes shared by the state tests: a publisher that counts its calls, the bound
// metrics it makes, a conduit with a trivial buffer, consumers, and a recorder
// of the registry's state events.
#ifndef KT_TESTS_STATE_STATE_FAKES_H_
#define KT_TESTS_STATE_STATE_FAKES_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kt/buffer.h"
#include "kt/conduit.h"
#include "kt/consumer.h"
#include "kt/extension_manager.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "registry/registry.h"
#include "state/peer_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {
namespace testing_fakes {

class FakeBoundMetric : public IBoundMetric {
 public:
  explicit FakeBoundMetric(unsigned long metric) : metric(metric) {}
  void AttachBuffer(unsigned long conduit, IWriteBuffer* buffer) override {
    calls.push_back("attach " + std::to_string(conduit));
    attached = buffer;
  }
  void DetachBuffer(unsigned long conduit) override {
    calls.push_back("detach " + std::to_string(conduit));
    attached = nullptr;
  }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return attached != nullptr; }
  void Flush(unsigned long conduit) override { calls.push_back("flush " + std::to_string(conduit)); }

  unsigned long metric;
  IWriteBuffer* attached = nullptr;
  std::vector<std::string> calls;
};

// A probe publisher that counts its calls; `refuseBinding` makes BindMetric
// answer null, and CreateProbe answers `probeToMake`.
class FakePublisher : public IProbePublisher {
 public:
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    ++binds;
    if (refuseBinding) return nullptr;
    bound.push_back(std::make_unique<FakeBoundMetric>(metric));
    return bound.back().get();
  }
  void UnbindMetric(unsigned long, IBoundMetric* metric) override {
    ++unbinds;
    lastUnbound = metric;
  }
  void OnLoad() override {}
  void OnUnload() override {}
  Metrics::IProbe* CreateProbe(void*, unsigned long type) override {
    lastProbeType = type;
    return probeToMake;
  }

  bool refuseBinding = false;
  int binds = 0;
  int unbinds = 0;
  IBoundMetric* lastUnbound = nullptr;
  unsigned long lastProbeType = 0;
  Metrics::IProbe* probeToMake = nullptr;
  std::vector<std::unique_ptr<FakeBoundMetric>> bound;
};

// A publisher that offers no probe face at all (neither cast nor CastTo).
class PlainPublisher : public IPublisher {
 public:
  IBoundMetric* BindMetric(unsigned long, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    return nullptr;
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override {}
  void OnLoad() override {}
  void OnUnload() override {}
};

class FakeBuffer : public IReadWriteBuffer {
 public:
  void GetData(const void** data, unsigned long* size) const override {
    *data = nullptr;
    if (size != nullptr) *size = 0;
  }
  void MakeAvailable(const void*) const override {}
  void Flush() override { ++flushes; }
  void* Reserve(unsigned long) override { return nullptr; }
  void Commit(void*) override {}
  void CommitTimeBasedMetric(void*) override {}
  int flushes = 0;
};

class FakeConduit : public IConduit {
 public:
  void OnSubscribed(unsigned long) override {}
  void OnUnsubscribed(unsigned long) override {}
  KT_STATUS CreateBuffer(unsigned long, IReadWriteBuffer** out) override {
    if (createStatus != KT_STATUS_SUCCESS) return createStatus;
    buffers.push_back(std::make_unique<FakeBuffer>());
    *out = buffers.back().get();
    return KT_STATUS_SUCCESS;
  }
  void DestroyBuffer(IReadWriteBuffer* buffer) override { returned.push_back(buffer); }
  KT_STATUS Transact(unsigned long, const IReadBuffer*, IWriteBuffer*) override { return 0; }
  unsigned long GetRemoteHandle() override { return GetHandle(); }

  KT_STATUS createStatus = KT_STATUS_SUCCESS;
  std::vector<std::unique_ptr<FakeBuffer>> buffers;
  std::vector<IReadWriteBuffer*> returned;
};

// Records every call and every sample it is given (the bytes are copied: the
// samples go back to their buffers after the call).
class RecordingConsumer : public IConsumer {
 public:
  struct Sample {
    unsigned long handle;
    unsigned long tag;
    const void* data;
    bool withoutSizes;
    std::string bytes;
  };
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long* tags,
                       const void** data, unsigned long* sizes) override {
    calls.emplace_back();
    for (unsigned int i = 0; i < count; ++i) {
      Sample sample{handles[i], tags[i], data[i], sizes == nullptr, ""};
      if (sizes != nullptr) sample.bytes.assign(static_cast<const char*>(data[i]), sizes[i]);
      samples.push_back(sample);
      calls.back().push_back(sample);
    }
  }
  std::vector<Sample> samples;
  std::vector<std::vector<Sample>> calls;
};

// A consumer that hears availability changes through inheritance.
class ListeningConsumer : public RecordingConsumer, public IMetricStateListener {
 public:
  void* CastTo(const char* name) override { return RecordingConsumer::CastTo(name); }
  void OnMetricAvailable(unsigned long handle, Path*) override { notices.push_back({handle, true}); }
  void OnMetricUnavailable(unsigned long handle, Path*) override {
    notices.push_back({handle, false});
  }
  std::vector<std::pair<unsigned long, bool>> notices;
};

// A consumer whose listener face is reached only through CastTo.
class AskedListenerConsumer : public RecordingConsumer {
 public:
  class Listener : public IMetricStateListener {
   public:
    void* CastTo(const char*) override { return nullptr; }
    void OnMetricAvailable(unsigned long handle, Path*) override {
      notices.push_back({handle, true});
    }
    void OnMetricUnavailable(unsigned long handle, Path*) override {
      notices.push_back({handle, false});
    }
    std::vector<std::pair<unsigned long, bool>> notices;
  };
  void* CastTo(const char* name) override {
    if (std::string(name) == "IMetricStateListener") return &listener;
    return RecordingConsumer::CastTo(name);
  }
  Listener listener;
};

// A consumer that takes batches: records each as (handle, tag, first text).
class BatchedConsumer : public IConsumer2 {
 public:
  struct Batch {
    unsigned long handle;
    unsigned long tag;
    std::string first;
  };
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {}
  void OnBatchMetricUpdated(unsigned long handle, unsigned long tag, const void* data) override {
    batches.push_back({handle, tag, data != nullptr ? static_cast<const char*>(data) : ""});
  }
  std::vector<Batch> batches;
};

// The far side of a peer mount: hands out a client manager and counts its
// releases.
class FakePeer : public IPeer {
 public:
  explicit FakePeer(IClientManager* clientManager = nullptr) : clientManager(clientManager) {}
  void Release() override { ++releases; }
  IClientManager* GetClientManager() override { return clientManager; }
  IClientManager* clientManager;
  int releases = 0;
};

// Keeps the state events the registry sends, as (event, handle).
struct EventLog {
  static void Record(void* context, unsigned int event, unsigned long a, unsigned long) {
    static_cast<EventLog*>(context)->events.emplace_back(event, a);
  }
  void Listen(Registry& registry) { registry.AddStateListener(&EventLog::Record, this); }
  std::vector<std::pair<unsigned int, unsigned long>> events;
};

using Events = std::vector<std::pair<unsigned int, unsigned long>>;

// The two refusals the tables name most.
constexpr KT_STATUS kArgument = KT_STATUS_INVALID_ARGUMENT;
constexpr KT_STATUS kObject = KT_STATUS_INVALID_OBJECT;

// Publishes the metric `uri` with `flags` through a publisher's state, or
// through a manager for `owner`; the metric's handle.
inline unsigned long Published(PublisherState* state, const std::string& uri,
                               unsigned int flags = 0) {
  Metric::Description d;
  d.uri = uri;
  d.flags = flags;
  unsigned long handle = 0;
  EXPECT_EQ(state->PublishMetric(d, &handle), KT_STATUS_SUCCESS) << uri;
  return handle;
}
inline unsigned long Published(IExtensionManager& manager, IPublisher* owner,
                               const std::string& uri, unsigned int flags = 0) {
  Metric::Description d;
  d.uri = uri;
  d.flags = flags;
  unsigned long handle = 0;
  EXPECT_EQ(manager.PublishMetric(owner, d, &handle), KT_STATUS_SUCCESS) << uri;
  return handle;
}

// A description with every field set, named `uri`.
inline Metric::Description FullDescription(const std::string& uri, unsigned int flags = 0) {
  Metric::Description d;
  d.id = 17;
  d.flags = flags | 0x100;
  d.list1 = {1, 2};
  d.word1 = 3;
  d.word2 = 5;
  d.byte1 = 6;
  d.uri = uri;
  d.text1 = "one";
  d.text2 = "two";
  d.text3 = "three";
  d.text4 = "four";
  d.text5 = "five";
  d.word3 = 7;
  d.text6 = "six";
  d.byte2 = 8;
  d.block[0] = 0x1111;
  d.block[1] = 0x2222;
  d.byte3 = 9;
  d.word4 = 10;
  d.word5 = 11;
  return d;
}

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_STATE_STATE_FAKES_H_
