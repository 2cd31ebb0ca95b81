#include "fuzz/served_process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kt/metric.h"
#include "registry/registry.h"

namespace MetricsFramework {
namespace fuzz {

class ServedProcess::HostLoader : public IExtensionLoader {
 public:
  explicit HostLoader(DefaultExtensionManager& manager) : m_manager(manager) {}
  KT_STATUS LoadModule(const char*) override { return KT_STATUS_SUCCESS; }
  KT_STATUS UnloadModule(const char*) override { return KT_STATUS_SUCCESS; }
  unsigned int GetModuleCount() override { return 0; }
  const ExtensionBinaryDesc* GetModule(unsigned int) override { return nullptr; }
  IExtension* FindExtension(const char*) override { return nullptr; }
  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc*) override {
    m_names[extension] = name;
    return m_manager.Add(ExtensionBinaryDesc{}, name, extension, this);
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    const std::string name = m_names[extension];
    m_names.erase(extension);
    return m_manager.Remove(ExtensionBinaryDesc{}, name.c_str(), extension, this);
  }

 private:
  DefaultExtensionManager& m_manager;
  std::map<IKTExtensionBase*, std::string> m_names;
};

class ServedProcess::Publisher : public IProbePublisher {
 public:
  class Bound : public IBoundMetric {
   public:
    explicit Bound(unsigned long metric) : m_metric(metric) {}
    void AttachBuffer(unsigned long, IWriteBuffer* buffer) override { m_buffer = buffer; }
    void DetachBuffer(unsigned long) override { m_buffer = nullptr; }
    unsigned long GetMetricHandle() override { return m_metric; }
    bool IsAttached(unsigned long) override { return m_buffer != nullptr; }
    void Flush(unsigned long) override {}

   private:
    unsigned long m_metric;
    IWriteBuffer* m_buffer = nullptr;
  };

  IBoundMetric* BindMetric(unsigned long metric, Path*, IReadWriteBuffer*,
                           IBoundMetric**) override {
    m_bound.push_back(std::make_unique<Bound>(metric));
    return m_bound.back().get();
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override {}
  void OnLoad() override {}
  void OnUnload() override {}
  Metrics::IProbe* CreateProbe(void*, unsigned long) override { return nullptr; }

 private:
  std::vector<std::unique_ptr<Bound>> m_bound;
};

bool ServedProcess::Echo::Run(const IReadBuffer* args, IWriteBuffer* returns) {
  const void* data = nullptr;
  unsigned long size = 0;
  args->GetData(&data, &size);
  void* block = returns->Reserve(size);
  if (size > 0) std::memcpy(block, data, size);
  returns->Commit(block);
  return true;
}

void ServedProcess::Echo::GetRemoteMethodDesc(RemoteMethodDesc& desc) {
  std::strcpy(desc.m_name, "echo");
}

ServedProcess::ServedProcess()
    : m_publisher(std::make_unique<Publisher>()),
      m_loader(std::make_unique<HostLoader>(m_manager)),
      m_client(std::make_unique<DefaultClientManager>(m_manager.GetRegistry())) {
  m_client->m_loader = m_loader.get();
  m_command.client = m_client.get();
  Populate();
}

ServedProcess::~ServedProcess() { m_client.reset(); }

void ServedProcess::Add(const char* name, IExtension* extension) {
  if (m_loader->AddExtension(name, dynamic_cast<IKTExtensionBase*>(extension), nullptr) ==
      KT_STATUS_SUCCESS) {
    return;
  }
  std::fprintf(stderr, "served process: cannot add %s\n", name);
  std::abort();
}

void ServedProcess::Populate() {
  Add("ClientCommandMethod", &m_command);
  Add("p", m_publisher.get());
  Add("k", &m_consumer);
  Add("local", &m_conduit);
  Add("echo", &m_echo);

  Metric::Description desc;
  desc.word1 = 5;
  desc.list1 = {1, 2};
  desc.setIds = {3};
  desc.text1 = "unit";
  unsigned long metric = 0;
  for (const char* uri : {"m", "m2"}) {
    desc.uri = uri;
    m_manager.PublishMetric(m_publisher.get(), desc, &metric);
  }
  desc.uri = "pm";
  desc.flags = Metric::kFlagProbe;
  m_manager.PublishMetric(m_publisher.get(), desc, &metric);
  ProbeDesc probe{};
  std::strcpy(probe.m_name, "type");
  probe.m_metrics = &metric;
  probe.m_metricCount = 1;
  unsigned long type = 0;
  m_manager.PublishProbe(m_publisher.get(), probe, &type);

  Registry& registry = m_manager.GetRegistry();
  const std::string longName(300, 'n');
  for (const char* path : {"tree/a/b/c", "tree/x", "peers", longName.c_str()}) {
    registry.GetChild(path, kPathCreate);
  }

  // The order of fuzz/make_corpus.py's NODES: the seeds name nodes by it.
  for (const char* path :
       {"", "publishers", "publishers/p", "publishers/p/m", "publishers/p/m2", "publishers/p/pm",
        "publishers/p/probe_types/type", "consumers", "consumers/k", "conduits", "conduits/local",
        "methods", "methods/ClientCommandMethod", "methods/echo", "tree", "tree/a/b", "tree/a/b/c",
        "peers", longName.c_str()}) {
    Collect(path);
  }
  m_handles.push_back(kClientCommandHandle);
}

void ServedProcess::Collect(const char* path) {
  Registry& registry = m_manager.GetRegistry();
  Path* node = *path == '\0' ? &registry : registry.GetChild(path, 0);
  if (node != nullptr) {
    m_handles.push_back(node->GetHandle());
    return;
  }
  std::fprintf(stderr, "served process: no node %s\n", path);
  std::abort();
}

}  // namespace fuzz
}  // namespace MetricsFramework
