#include "fuzz/served_process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kt/metric.h"
#include "registry/registry.h"

namespace MetricsFramework {
namespace fuzz {

ServedProcess::ServedProcess()
    : m_loader(&m_manager),
      m_client(std::make_unique<DefaultClientManager>(m_manager.GetRegistry())) {
  m_client->m_loader = &m_loader;
  m_command.client = m_client.get();
  Populate();
}

ServedProcess::~ServedProcess() { m_client.reset(); }

void ServedProcess::Add(const char* name, IExtension* extension) {
  if (m_loader.AddExtension(name, dynamic_cast<IKTExtensionBase*>(extension), nullptr) ==
      KT_STATUS_SUCCESS) {
    return;
  }
  std::fprintf(stderr, "served process: cannot add %s\n", name);
  std::abort();
}

void ServedProcess::Populate() {
  Add("ClientCommandMethod", &m_command);
  Add("p", &m_publisher);
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
    m_manager.PublishMetric(&m_publisher, desc, &metric);
  }
  desc.uri = "pm";
  desc.flags = Metric::kFlagProbe;
  m_manager.PublishMetric(&m_publisher, desc, &metric);
  ProbeDesc probe{};
  std::strcpy(probe.m_name, "type");
  probe.m_metrics = &metric;
  probe.m_metricCount = 1;
  unsigned long type = 0;
  m_manager.PublishProbe(&m_publisher, probe, &type);

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
