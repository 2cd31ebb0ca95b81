#include "bench/bench_host.h"

#include <cstdio>
#include <cstdlib>

#include "registry/registry.h"
#include "state/conduit_state.h"

namespace kt_bench {

namespace {

// A benchmark whose setup failed would measure nothing: stop at once.
void Require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "benchmark setup failed: %s\n", what);
  std::abort();
}

}  // namespace

BenchHost::BenchHost()
    : manager(DefaultExtensionManager::Create()),
      client(DefaultExtensionManager::CreateClientManager()) {
  loader.manager = manager;
}

BenchHost::~BenchHost() {
  // Consumers first (their conduits go with them), publishers last.
  for (auto it = m_added.rbegin(); it != m_added.rend(); ++it) {
    manager->Remove(ExtensionBinaryDesc{}, it->first.c_str(), it->second, &loader);
  }
  delete client;
  delete manager;
}

BenchPublisher* BenchHost::AddPublisher(const std::string& name) {
  m_publishers.push_back(std::make_unique<BenchPublisher>());
  BenchPublisher* publisher = m_publishers.back().get();
  Require(manager->Add(ExtensionBinaryDesc{}, name.c_str(), publisher, &loader) ==
              KT_STATUS_SUCCESS,
          "add publisher");
  m_added.emplace_back(name, publisher);
  return publisher;
}

unsigned long BenchHost::AddConsumer(const std::string& name, IConsumer* consumer) {
  Require(manager->Add(ExtensionBinaryDesc{}, name.c_str(), consumer, &loader) ==
              KT_STATUS_SUCCESS,
          "add consumer");
  m_added.emplace_back(name, consumer);
  return consumer->GetHandle();
}

unsigned long BenchHost::Publish(BenchPublisher* publisher, const std::string& uri,
                                 unsigned int tag, unsigned int group, unsigned int flags) {
  Metric::Description desc;
  desc.uri = uri;
  desc.word1 = tag;
  desc.word4 = group;
  desc.flags = flags;
  unsigned long handle = 0;
  Require(manager->PublishMetric(publisher, desc, &handle) == KT_STATUS_SUCCESS, "publish");
  return handle;
}

void BenchHost::Subscribe(unsigned long consumer, unsigned long metric) {
  Require(client->SubscribeMetric(consumer, metric) == KT_STATUS_SUCCESS, "subscribe");
}

void BenchHost::MarkBatched(unsigned long consumer, unsigned long metric) {
  Path* node = manager->GetRegistry().ResolveHandle(client->GetConduitHandle(consumer, metric));
  auto* conduit = node != nullptr ? dynamic_cast<ConduitState*>(node->GetPayload()) : nullptr;
  Require(conduit != nullptr, "conduit state");
  conduit->AddBatchMetric(metric);
}

}  // namespace kt_bench
