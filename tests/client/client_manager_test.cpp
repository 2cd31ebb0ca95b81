// The client manager's own extensions, its lifetime, the namespace queries,
// probes and remote method calls, all on one registry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "client_test_support.h"
#include "state/probe_state.h"
#include "state/probe_type_state.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

// ---------------------------------------------------------------------------
// Private extensions, routing lookup and lifetime.

TEST_F(ClientManagerTest, NullConsumerIsRegisteredOnceUnderConsumersAfterRefusalsAreRetried) {
  loader.addStatus = KT_STATUS_OUT_OF_RESOURCES;
  EXPECT_EQ(client->GetNullConsumerHandle(), 0u);
  EXPECT_EQ(client->GetNullConsumerHandle(), 0u);
  loader.addStatus = KT_STATUS_SUCCESS;

  const unsigned long first = client->GetNullConsumerHandle();
  ASSERT_NE(first, 0u);
  EXPECT_EQ(client->GetNullConsumerHandle(), first);
  EXPECT_EQ(loader.added.size(), 3u) << "each failed registration is tried again, then none";
  Path* node = registry().GetChild("consumers", 0)->GetChildNamed("_NullConsumer", 0);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->GetHandle(), first);
  EXPECT_NE(dynamic_cast<ConsumerState*>(node->GetPayload()), nullptr);
}

TEST_F(ClientManagerTest, LocalConduitNeedsTheLoaderAndIsRegisteredOnce) {
  client->m_loader = nullptr;
  EXPECT_EQ(client->GetConduitHandle(0, 0x1234), 0u);
  EXPECT_TRUE(loader.added.empty());

  client->m_loader = &loader;
  const unsigned long handle = client->GetConduitHandle(0, 0x1234);
  EXPECT_EQ(client->GetConduitHandle(0, 0x5678), handle);

  ASSERT_NE(handle, 0u);
  EXPECT_EQ(loader.added, (std::vector<std::string>{"LocalConduit_DefaultClientManager"}));
  EXPECT_NE(ConduitAt(handle), nullptr);
}

TEST_F(ClientManagerTest, ThreadsAskingForTheLocalConduitAtOnceRegisterItOnce) {
  std::vector<unsigned long> handles(4, 0);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < handles.size(); ++i) {
    threads.emplace_back([this, &handles, i] { handles[i] = client->GetConduitHandle(0, 1); });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(loader.added.size(), 1u);
  for (unsigned long handle : handles) EXPECT_EQ(handle, handles[0]);
}

TEST_F(ClientManagerTest, ConsumerConduitLeadsToTheMetricsProcessOnly) {
  const unsigned long k = AddConsumer("k", &consumer);
  const unsigned long metric = Publish("m");
  Registry elsewhere;
  const unsigned long foreign = elsewhere.GetChild("x", kPathCreate)->GetHandle();

  const unsigned long conduit = client->GetConduitHandle(k, metric);

  EXPECT_NE(ConduitAt(conduit), nullptr);
  EXPECT_EQ(registry().GetChild("conduits", 0)->GetChildNamed("LocalConduit_k", 0)->GetHandle(),
            conduit);
  EXPECT_EQ(client->GetConduitHandle(k, foreign), 0u) << "no conduit to another process";
  EXPECT_EQ(client->GetConduitHandle(0x4242, metric), 0u) << "unknown consumer";
  EXPECT_EQ(client->GetConduitHandle(publisherNode->GetHandle(), metric), 0u)
      << "a publisher is no consumer";
}

TEST_F(ClientManagerTest, ProxyIsFoundOnlyForAProcessMountedUnderPeers) {
  RecordingClientManager far;
  FakePeer* peer = NewPeer(&far);
  Registry elsewhere;
  const unsigned long foreign = elsewhere.GetChild("x", kPathCreate)->GetHandle();
  const unsigned long own = publisherNode->GetHandle();
  IClientManager* found = nullptr;

  EXPECT_EQ(client->GetProxyForComponent(foreign, &found), kObject) << "no peers";
  MountPeer(elsewhere.GetLocalGuid(), peer);
  EXPECT_EQ(client->GetProxyForComponent(own, &found), kObject);
  ASSERT_EQ(client->GetProxyForComponent(foreign, &found), KT_STATUS_SUCCESS);
  EXPECT_EQ(found, &far);

  found = nullptr;
  MountPeer(registry().GetLocalGuid(), peer);
  EXPECT_EQ(client->GetProxyForComponent(own, &found), KT_STATUS_SUCCESS)
      << "the own GUID listed under peers";
  EXPECT_EQ(found, &far);
}

// Left filed, the nodes would outlive the objects they hold: the conduit
// state would give buffers back to a conduit that is gone.
TEST_F(ClientManagerTest, DestructorHandsItsExtensionsBackAndDeletesTheirNodes) {
  const unsigned long nullConsumer = client->GetNullConsumerHandle();
  const unsigned long conduit = client->GetConduitHandle(0, 0);
  const unsigned long metric = Publish("m");
  ASSERT_EQ(client->__SubscribeMetric(nullConsumer, conduit, metric, true), KT_STATUS_SUCCESS);

  client.reset();

  EXPECT_EQ(loader.removed.size(), 2u);
  EXPECT_EQ(registry().ResolveHandle(nullConsumer), nullptr);
  EXPECT_EQ(registry().ResolveHandle(conduit), nullptr);
  EXPECT_EQ(publisher.unbinds, 1);
}

TEST_F(ClientManagerTest, DestructorKeepsANodeOfTheSameNameHoldingAnotherObject) {
  LocalConduit stranger;
  Path* node = registry().GetChild("conduits", kPathCreate)
                   ->GetChildNamed("LocalConduit_DefaultClientManager", kPathCreate);
  new ConduitState(&stranger, node);
  const unsigned long handle = node->GetHandle();

  client.reset();

  EXPECT_EQ(registry().ResolveHandle(handle), node);
  delete node;  // before `stranger`
}

// ---------------------------------------------------------------------------
// Namespace queries.

TEST_F(ClientManagerTest, GetPathResolvesBelowTheRootOrAGivenNodeAndRefusesTheRest) {
  const unsigned long metric = Publish("m");
  const unsigned long p = publisherNode->GetHandle();
  const struct {
    unsigned long root;
    const char* path;
    unsigned long expected;
  } found[] = {{0, "", registry().GetHandle()}, {0, "publishers/p/m", metric}, {p, "m", metric},
               {p, "", p}};
  for (const auto& row : found) {
    SCOPED_TRACE(std::to_string(row.root) + " " + row.path);
    unsigned long handle = 0;
    ASSERT_EQ(client->GetPath(row.root, row.path, &handle), KT_STATUS_SUCCESS);
    EXPECT_EQ(handle, row.expected);
  }
  unsigned long handle = 99;
  EXPECT_EQ(client->GetPath(0, "publishers/p/missing", &handle), KT_STATUS_DOES_NOT_EXIST);
  EXPECT_EQ(handle, 99u) << "nothing written on failure";
}

TEST_F(ClientManagerTest, PathThroughAPeerMountIsResolvedInThePeerButNotThroughAPeerKindAlone) {
  Registry elsewhere;
  DefaultClientManager far(elsewhere);
  const unsigned long target = elsewhere.GetChild("a/b", kPathCreate)->GetHandle();
  new PeerState(NewPeer(&far), registry().GetChild("remote", kPathCreate));
  Path* fake = registry().GetChild("fake", kPathCreate);
  new PathData(fake);
  fake->GetPayload()->m_type = RESOURCE_TYPE_PEER;
  unsigned long handle = 0;

  ASSERT_EQ(client->GetPath(0, "remote/a/b", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, target);
  EXPECT_EQ(client->GetPath(0, "remote/a/zz", &handle), KT_STATUS_DOES_NOT_EXIST)
      << "the peer's own answer";
  EXPECT_EQ(client->GetPath(0, "fake/a", &handle), KT_STATUS_DOES_NOT_EXIST);
}

TEST_F(ClientManagerTest, ChildrenAreCountedAndListedInChildOrder) {
  for (const char* uri : {"a", "b", "c"}) Publish(uri);
  const unsigned long p = publisherNode->GetHandle();
  unsigned int count = 0;
  ASSERT_EQ(client->GetChildCount(p, &count), KT_STATUS_SUCCESS);
  ASSERT_EQ(count, 3u);
  std::vector<unsigned long> expected(3), all(3), first(2);
  publisherNode->GetChildHandles(3, expected.data());

  EXPECT_EQ(client->GetChildren(p, all.data(), 3), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->GetChildren(p, first.data(), 2), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->GetChildren(p, nullptr, 0), KT_STATUS_SUCCESS);

  EXPECT_EQ(all, expected);
  EXPECT_EQ(first, std::vector<unsigned long>(expected.begin(), expected.begin() + 2));
  ASSERT_EQ(client->GetChildCount(0, &count), KT_STATUS_SUCCESS);
  EXPECT_EQ(count, registry().ChildCount()) << "0 is the root";
}

TEST_F(ClientManagerTest, ResourceInfoDescribesTheNodeAndItsPayload) {
  const unsigned long metric = Publish("m");
  MetricAt(metric)->m_data = 0x77;
  ResourceInfo info{"old name that is overwritten", 1, 1, 1, 1};

  ASSERT_EQ(client->GetResourceInfo(metric, &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, "m");
  EXPECT_EQ(info.data, 0x77u);
  EXPECT_EQ(info.kind, RESOURCE_TYPE_METRIC);
  EXPECT_EQ(info.parent, publisherNode->GetHandle());
  EXPECT_EQ(info.target, publisherNode->GetHandle()) << "the metric's owner";

  ASSERT_EQ(client->GetResourceInfo(0, &info), KT_STATUS_SUCCESS);
  EXPECT_EQ(info.name, "root");
  EXPECT_EQ(info.parent, 0u);
}

TEST_F(ClientManagerTest, MetricDescriptorIsACopyOfTheMetricsDescription) {
  Metric::Description published = FullDescription("full");
  unsigned long metric = 0;
  ASSERT_EQ(publisherState->PublishMetric(published, &metric), KT_STATUS_SUCCESS);
  Metric::Description d;
  d.text1 = "replaced";

  ASSERT_EQ(client->GetMetricDescriptor(metric, &d), KT_STATUS_SUCCESS);
  EXPECT_EQ(d.uri, "full");
  EXPECT_EQ(d.text1, "one");
  EXPECT_EQ(d.word4, 10u);
  EXPECT_EQ(d.flags, published.flags | Metric::kFlagAvailable);

}

// A publisher with a time-based metric marks its other metrics (0x20), but
// the parent's payload is taken for a publisher's only when its type word
// says so.
TEST_F(ClientManagerTest, PublisherWithTimeBasedMetricsMarksItsOtherMetrics) {
  const unsigned long plain = Publish("plain");
  const unsigned long timed = Publish("timed", 1, kUngrouped, Metric::kFlagTimeBased);
  Path* loose = registry().GetChild("loose/m", kPathCreate);
  new MetricState(Metric::Description(), loose);
  auto marked = [this](unsigned long metric) {
    Metric::Description d;
    EXPECT_EQ(client->GetMetricDescriptor(metric, &d), KT_STATUS_SUCCESS);
    return (d.flags & 0x20) != 0;
  };

  EXPECT_TRUE(marked(plain));
  EXPECT_EQ(MetricAt(plain)->m_description.flags & 0x20, 0x20u) << "kept in the registry";
  EXPECT_FALSE(marked(timed));
  EXPECT_FALSE(marked(loose->GetHandle()));

  MetricAt(plain)->m_description.flags &= ~0x20u;
  publisherState->m_type = RESOURCE_TYPE_NODE;
  EXPECT_FALSE(marked(plain));
}

// ---------------------------------------------------------------------------
// Probes.

class ProbeTest : public ClientManagerTest {
 protected:
  unsigned long PublishProbeType() {
    ProbeDesc desc{};
    std::strcpy(desc.m_name, "type");
    unsigned long type = 0;
    EXPECT_EQ(publisherState->PublishProbe(&desc, &type), KT_STATUS_SUCCESS);
    return type;
  }
  unsigned long Address(Metrics::IProbe* probe) { return reinterpret_cast<unsigned long>(probe); }

  RecordingProbe probe;
};

TEST_F(ProbeTest, CreatedProbeIsFiledUnderItsTypeAndDestroyedByItsSite) {
  const unsigned long type = PublishProbeType();
  unsigned long site = 0;
  EXPECT_EQ(client->CreateProbe(type, nullptr, &site), kArgument) << "the publisher made none";
  publisher.probeToMake = &probe;

  ASSERT_EQ(client->CreateProbe(type, nullptr, &site), KT_STATUS_SUCCESS);
  EXPECT_EQ(site, Address(&probe));
  EXPECT_EQ(publisher.lastProbeType, type);
  Path* node = registry().ResolveHandle(site);
  ASSERT_NE(node, nullptr);
  EXPECT_NE(dynamic_cast<ProbeState*>(node->GetPayload()), nullptr);

  EXPECT_EQ(client->DestroyProbe(site), KT_STATUS_SUCCESS);
  EXPECT_EQ(registry().ResolveHandle(site), nullptr);
  EXPECT_EQ(client->DestroyProbe(site), kArgument);
}

TEST_F(ProbeTest, EventsReachTheProbeAndAlwaysSucceed) {
  int context = 0, a = 0, b = 0;
  const auto type = static_cast<Metrics::EventType>(3);
  RecordingProbe listening;

  EXPECT_EQ(client->BeginProbe(Address(&probe), 1, 2, type, &context), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->EndProbe(Address(&probe), 4, type, &context), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->HandleProbe(Address(&probe)), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->OnChangeStateCommandList(Address(&listening), &a, &b,
                                             static_cast<Metrics::CommandListState>(2)),
            KT_STATUS_SUCCESS);

  EXPECT_EQ(probe.calls, (std::vector<std::string>{
                             RecordingClientManager::Call("Begin", 1ul, 2ul, 3u, &context),
                             RecordingClientManager::Call("End", 4ul, 3u, &context), "Handle"}));
  EXPECT_EQ(listening.calls,
            (std::vector<std::string>{RecordingClientManager::Call("Command", &a, &b, 2u)}));
}

// ---------------------------------------------------------------------------
// Remote method calls.

TEST_F(ClientManagerTest, RemoteMethodRunsThroughTheClientManagersLocalConduit) {
  HostBuffer args, returns;
  manager.dispatchStatus = KT_STATUS_INVALID_OPERATION;

  EXPECT_EQ(client->CallRemoteMethodSync(0x1234, &args, &returns), KT_STATUS_INVALID_OPERATION);

  EXPECT_EQ(manager.dispatched, 0x1234u);
  EXPECT_EQ(loader.added, (std::vector<std::string>{"LocalConduit_DefaultClientManager"}));
}

}  // namespace
}  // namespace MetricsFramework
