// The fixture of the client manager tests: a registry with a client manager
// on it, without an extension manager.
#ifndef KT_TESTS_CLIENT_CLIENT_TEST_SUPPORT_H_
#define KT_TESTS_CLIENT_CLIENT_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "client/default_client_manager.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/metric_state.h"
#include "state/peer_state.h"
#include "state/publisher_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace testing_fakes {

// A registry with a client manager on it, a publisher "publishers/p" and a
// loader that files what the client manager registers. Members are declared
// so that the client manager goes first and the objects the tree points at
// go last.
class ClientManagerTest : public ::testing::Test {
 protected:
  ClientManagerTest() : loader(manager), client(new DefaultClientManager(manager.registry)) {
    client->m_loader = &loader;
    loader.clientManager = client.get();
    publisherNode = registry().GetChild("publishers/p", kPathCreate);
    publisherState = new PublisherState(&publisher, publisherNode);
  }

  Registry& registry() { return manager.registry; }

  // Publishes a metric of the publisher "p"; `tag` and `group` go to word1
  // and word4.
  unsigned long Publish(const std::string& uri, unsigned int tag = 1,
                        unsigned int group = kUngrouped, unsigned int flags = 0) {
    unsigned long handle = 0;
    EXPECT_EQ(publisherState->PublishMetric(Describe(uri, tag, group, flags), &handle),
              KT_STATUS_SUCCESS);
    return handle;
  }
  MetricState* MetricAt(unsigned long handle) {
    Path* node = registry().ResolveHandle(handle);
    return node != nullptr ? dynamic_cast<MetricState*>(node->GetPayload()) : nullptr;
  }

  // Files `consumer` as the consumer `name` and returns its handle.
  unsigned long AddConsumer(const char* name, IConsumer* consumer) {
    EXPECT_EQ(loader.AddExtension(name, consumer, nullptr), KT_STATUS_SUCCESS);
    return consumer->GetHandle();
  }
  // The conduit state filed under `handle`.
  ConduitState* ConduitAt(unsigned long handle) {
    Path* node = registry().ResolveHandle(handle);
    return node != nullptr ? dynamic_cast<ConduitState*>(node->GetPayload()) : nullptr;
  }

  // A peer that lives as long as the fixture: a PeerState releases its peer
  // when the registry goes.
  FakePeer* NewPeer(IClientManager* clientManager) {
    peers.push_back(std::make_unique<FakePeer>(clientManager));
    return peers.back().get();
  }
  // Mounts `peer` under "peers" for the process `guid`.
  void MountPeer(unsigned int guid, IPeer* peer) {
    Path* node = registry()
                     .GetChild("peers", kPathCreate)
                     ->GetChild(static_cast<unsigned long>(guid) << 32,
                                kPathCreate | kPathNoHandleEntry);
    new PeerState(peer, node);
  }


  CountingPublisher publisher;
  RecordingConsumer consumer;
  std::vector<std::unique_ptr<FakePeer>> peers;
  FakeManager manager;
  FilingLoader loader;
  std::unique_ptr<DefaultClientManager> client;
  Path* publisherNode;
  PublisherState* publisherState;
};

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_CLIENT_CLIENT_TEST_SUPPORT_H_
