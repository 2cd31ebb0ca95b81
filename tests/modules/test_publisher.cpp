// A publisher module built against include/ only, with its own export table.
#include <cstring>
#include <map>
#include <string>
#include <tuple>

#include "kt/export_table.h"
#include "kt/extension_manager.h"
#include "kt/metric.h"
#include "kt/publisher.h"
#include "test_extensions.h"

namespace {

using namespace MetricsFramework;

struct Bound : IBoundMetric {
  void AttachBuffer(unsigned long, IWriteBuffer* writer) override { buffer = writer; }
  void DetachBuffer(unsigned long) override { buffer = nullptr; }
  unsigned long GetMetricHandle() override { return metric; }
  bool IsAttached(unsigned long) override { return buffer != nullptr; }
  void Flush(unsigned long) override {}
  unsigned long metric = 0;
  IWriteBuffer* buffer = nullptr;
};

class TestPublisher : public IPublisher, public kt_test::ITestPublisher {
 public:
  void* CastTo(const char* name) override {
    if (std::strcmp(name, "ITestPublisher") == 0) return static_cast<ITestPublisher*>(this);
    return IPublisher::CastTo(name);
  }
  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    Bound& bound = bounds[metric];
    bound.metric = metric;
    return &bound;
  }
  void UnbindMetric(unsigned long metric, IBoundMetric*) override { bounds.erase(metric); }
  void OnLoad() override {
    using Row = std::tuple<const char*, unsigned int, unsigned int>;  // uri, tag, group
    for (const auto& [uri, tag, group] :
         {Row{"cpu", 11, 0xFFFFFFFF}, Row{"user", 21, 1}, Row{"system", 22, 1}}) {
      Metric::Description desc;
      desc.uri = uri, desc.word1 = tag, desc.word4 = group;
      GetExtensionManager()->PublishMetric(this, desc, &handles[uri]);
    }
  }
  void OnUnload() override { bounds.clear(); }  // told before the node goes
  bool Write(const char* uri, const std::string& bytes) override {
    auto bound = bounds.find(handles[uri]);
    if (bound == bounds.end() || bound->second.buffer == nullptr) return false;
    void* block = bound->second.buffer->Reserve(bytes.size());
    std::memcpy(block, bytes.data(), bytes.size());
    bound->second.buffer->Commit(block);
    return true;
  }

  std::map<unsigned long, Bound> bounds;  // by metric handle
  std::map<std::string, unsigned long> handles;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ExtensionExportRow
    __extension_export_table__[2] = {
        {"TestPublisher", kExportKindExtension, kExportRowMagic, 0,
         []() -> IExtension* { return static_cast<IPublisher*>(new TestPublisher); }},
        {"", 0, 0, 0, nullptr},
};
