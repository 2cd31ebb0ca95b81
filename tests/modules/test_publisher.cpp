// A publisher module built against include/ only, with its own export table.
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "kt/metric.h"
#include "kt/publisher.h"
#include "test_extensions.h"

namespace {

using namespace MetricsFramework;

class Bound : public IBoundMetric {
 public:
  explicit Bound(unsigned long metric) : metric(metric) {}
  void AttachBuffer(unsigned long, IWriteBuffer* writer) override { buffer = writer; }
  void DetachBuffer(unsigned long) override { buffer = nullptr; }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return buffer != nullptr; }
  void Flush(unsigned long) override {}
  unsigned long metric;
  IWriteBuffer* buffer = nullptr;
};

class TestPublisher : public IPublisher, public kt_test::ITestPublisher {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "ITestPublisher") == 0) return static_cast<ITestPublisher*>(this);
    return IPublisher::CastTo(name);
  }
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    auto bound = std::make_unique<Bound>(metric);
    IBoundMetric* made = bound.get();
    bounds[made] = std::move(bound);
    return made;
  }
  void UnbindMetric(unsigned long, IBoundMetric* bound) override { bounds.erase(bound); }
  void OnLoad() override {
    Publish("cpu", 11, 0xFFFFFFFF);
    Publish("user", 21, 1);
    Publish("system", 22, 1);
    std::vector<std::string> order{"usage"};
    GetExtensionManager()->PublishGroupOrder(this, order);
    GetExtensionManager()->PublishSetNames(this, {{1, "usage"}});
  }
  void OnUnload() override {
    // Told before the node goes: stop writing and let every bound metric go.
    unloaded = true;
    bounds.clear();
  }

  bool Write(const char* uri, const std::string& bytes) override {
    const unsigned long metric = handles[uri];
    for (auto& entry : bounds) {
      Bound* bound = entry.second.get();
      if (bound->metric != metric || bound->buffer == nullptr) continue;
      void* block = bound->buffer->Reserve(bytes.size());
      std::memcpy(block, bytes.data(), bytes.size());
      bound->buffer->Commit(block);
      return true;
    }
    return false;
  }
  int BoundCount() override { return static_cast<int>(bounds.size()); }
  bool Unloaded() override { return unloaded; }

 private:
  void Publish(const char* uri, unsigned int tag, unsigned int group) {
    Metric::Description desc;
    desc.uri = uri;
    desc.word1 = tag;
    desc.word4 = group;
    GetExtensionManager()->PublishMetric(this, desc, &handles[uri]);
  }

  std::map<IBoundMetric*, std::unique_ptr<Bound>> bounds;
  std::map<std::string, unsigned long> handles;
  bool unloaded = false;
};

IExtension* CreateTestPublisher() { return static_cast<IPublisher*>(new TestPublisher); }

}  // namespace

extern "C" __attribute__((visibility("default"))) const ExtensionExportRow
    __extension_export_table__[2] = {
        {"TestPublisher", kExportKindExtension, kExportRowMagic, 0, &CreateTestPublisher},
        {"", 0, 0, 0, nullptr},
};
