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

TEST_F(ClientManagerTest, NullConsumerIsRegisteredOnceUnderConsumers) {
  const unsigned long first = client->GetNullConsumerHandle();
  const unsigned long second = client->GetNullConsumerHandle();

  ASSERT_NE(first, 0u);
  EXPECT_EQ(second, first);
  EXPECT_EQ(loader.added, (std::vector<std::string>{"_NullConsumer"}));
  Path* node = registry().GetChild("consumers", 0)->GetChildNamed("_NullConsumer", 0);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->GetHandle(), first);
  EXPECT_NE(dynamic_cast<ConsumerState*>(node->GetPayload()), nullptr);
}

TEST_F(ClientManagerTest, RefusedNullConsumerRegistrationGivesNoHandle) {
  loader.addStatus = KT_STATUS_OUT_OF_RESOURCES;

  EXPECT_EQ(client->GetNullConsumerHandle(), 0u);
  EXPECT_EQ(client->GetNullConsumerHandle(), 0u);

  EXPECT_EQ(loader.added.size(), 2u) << "a failed registration is tried again";
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

  EXPECT_EQ(client->GetProxyForComponent(foreign, &found), KT_STATUS_INVALID_OBJECT) << "no peers";
  MountPeer(elsewhere.GetLocalGuid(), peer);
  EXPECT_EQ(client->GetProxyForComponent(own, &found), KT_STATUS_INVALID_OBJECT);
  ASSERT_EQ(client->GetProxyForComponent(foreign, &found), KT_STATUS_SUCCESS);
  EXPECT_EQ(found, &far);

  found = nullptr;
  MountPeer(registry().GetLocalGuid(), peer);
  EXPECT_EQ(client->GetProxyForComponent(own, &found), KT_STATUS_SUCCESS)
      << "the own GUID listed under peers";
  EXPECT_EQ(found, &far);
}

TEST_F(ClientManagerTest, PeersNodeThatIsNoPeerMountAnswersForNothing) {
  Registry elsewhere;
  const unsigned long key = static_cast<unsigned long>(elsewhere.GetLocalGuid()) << 32;
  Path* node = registry().GetChild("peers", kPathCreate)->GetChild(key, kPathCreate | kPathNoHandleEntry);
  new PathData(node);
  node->GetPayload()->m_type = RESOURCE_TYPE_PEER;  // the kind word alone proves nothing
  MountPeer(registry().GetLocalGuid(), NewPeer(nullptr));
  IClientManager* found = nullptr;

  EXPECT_EQ(client->GetProxyForComponent(key | 5, &found), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(client->GetProxyForComponent(publisherNode->GetHandle(), &found),
            KT_STATUS_INVALID_OBJECT)
      << "a mount without a client manager";
  EXPECT_EQ(found, nullptr);
}

TEST_F(ClientManagerTest, DestructorHandsItsExtensionsBackToTheLoader) {
  const unsigned long nullConsumer = client->GetNullConsumerHandle();
  const unsigned long conduit = client->GetConduitHandle(0, 0);

  client.reset();

  EXPECT_EQ(loader.removed.size(), 2u);
  EXPECT_EQ(registry().ResolveHandle(nullConsumer), nullptr);
  EXPECT_EQ(registry().ResolveHandle(conduit), nullptr);
}

// Left filed, the nodes would outlive the objects they hold: the conduit
// state would give buffers back to a conduit that is gone.
TEST_F(ClientManagerTest, DestructorDeletesTheNodesTheLoaderLeavesBehind) {
  loader.keepNodes = true;
  const unsigned long nullConsumer = client->GetNullConsumerHandle();
  const unsigned long conduit = client->GetConduitHandle(0, 0);
  const unsigned long metric = Publish("m");
  ASSERT_EQ(client->__SubscribeMetric(nullConsumer, conduit, metric, true), KT_STATUS_SUCCESS);

  client.reset();

  EXPECT_EQ(registry().ResolveHandle(nullConsumer), nullptr);
  EXPECT_EQ(registry().ResolveHandle(conduit), nullptr);
  EXPECT_EQ(publisher.unbinds, 1);
}

TEST_F(ClientManagerTest, DestructorKeepsANodeOfTheSameNameHoldingAnotherObject) {
  LocalConduit stranger;
  Path* node = loader.Branch("conduits")->GetChildNamed("LocalConduit_DefaultClientManager",
                                                        kPathCreate);
  new ConduitState(&stranger, node);
  const unsigned long handle = node->GetHandle();

  client.reset();

  EXPECT_EQ(registry().ResolveHandle(handle), node);
  delete node;  // before `stranger`
}

// ---------------------------------------------------------------------------
// Namespace queries.

TEST_F(ClientManagerTest, GetPathResolvesNamesBelowTheRootOrAGivenNode) {
  const unsigned long metric = Publish("m");
  unsigned long handle = 0;

  ASSERT_EQ(client->GetPath(0, "", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, registry().GetHandle());
  ASSERT_EQ(client->GetPath(0, "publishers/p/m", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, metric);
  ASSERT_EQ(client->GetPath(publisherNode->GetHandle(), "m", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, metric);
  ASSERT_EQ(client->GetPath(publisherNode->GetHandle(), "", &handle), KT_STATUS_SUCCESS);
  EXPECT_EQ(handle, publisherNode->GetHandle());
}

TEST_F(ClientManagerTest, GetPathRefusals) {
  unsigned long handle = 99;

  EXPECT_EQ(client->GetPath(0, nullptr, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "out_handle");
  EXPECT_EQ(client->GetPath(0, nullptr, &handle), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "pathname");
  EXPECT_EQ(client->GetPath(0x4242, "p", &handle), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "root");
  EXPECT_EQ(client->GetPath(0, "nowhere/x", &handle), KT_STATUS_DOES_NOT_EXIST);
  EXPECT_EQ(Refused(), "root");
  EXPECT_EQ(client->GetPath(0, "publishers/p/missing", &handle), KT_STATUS_DOES_NOT_EXIST)
      << "stopped at a node that is no peer mount";
  EXPECT_EQ(Refused(), "root");
  EXPECT_EQ(handle, 99u) << "nothing written on failure";
}

TEST_F(ClientManagerTest, PathThroughAPeerMountIsResolvedInThePeer) {
  Registry elsewhere;
  DefaultClientManager far(elsewhere);
  const unsigned long target = elsewhere.GetChild("a/b", kPathCreate)->GetHandle();
  new PeerState(NewPeer(&far), registry().GetChild("remote", kPathCreate));
  unsigned long handle = 0;

  ASSERT_EQ(client->GetPath(0, "remote/a/b", &handle), KT_STATUS_SUCCESS);

  EXPECT_EQ(handle, target);
  EXPECT_EQ(client->GetPath(0, "remote/a/zz", &handle), KT_STATUS_DOES_NOT_EXIST)
      << "the peer's own answer";
}

TEST_F(ClientManagerTest, PeerKindWithoutAPeerStateIsNoMount) {
  Path* fake = registry().GetChild("remote", kPathCreate);
  new PathData(fake);
  fake->GetPayload()->m_type = RESOURCE_TYPE_PEER;
  unsigned long handle = 0;

  EXPECT_EQ(client->GetPath(0, "remote/a", &handle), KT_STATUS_DOES_NOT_EXIST);
  EXPECT_EQ(Refused(), "root");
}

TEST_F(ClientManagerTest, ChildrenAreCountedAndListedInChildOrder) {
  for (const char* uri : {"a", "b", "c"}) Publish(uri);
  const unsigned long p = publisherNode->GetHandle();
  unsigned int count = 0;
  ASSERT_EQ(client->GetChildCount(p, &count), KT_STATUS_SUCCESS);
  ASSERT_EQ(count, 3u);
  unsigned long expected[3] = {0, 0, 0};
  publisherNode->GetChildHandles(3, expected);

  unsigned long all[3] = {0, 0, 0};
  unsigned long first[2] = {0, 0};
  EXPECT_EQ(client->GetChildren(p, all, 3), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->GetChildren(p, first, 2), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->GetChildren(p, nullptr, 0), KT_STATUS_SUCCESS);

  EXPECT_EQ(std::vector<unsigned long>(all, all + 3), std::vector<unsigned long>(expected, expected + 3));
  EXPECT_EQ(std::vector<unsigned long>(first, first + 2),
            std::vector<unsigned long>(expected, expected + 2));
}

TEST_F(ClientManagerTest, ChildQueriesRefusals) {
  const unsigned long p = publisherNode->GetHandle();
  Publish("a");
  unsigned long buffer[4] = {0, 0, 0, 0};
  unsigned int count = 0;

  EXPECT_EQ(client->GetChildCount(p, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "out_count");
  EXPECT_EQ(client->GetChildCount(0x4242, &count), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "parent");
  EXPECT_EQ(client->GetChildren(0x4242, nullptr, 1), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "out_children");
  EXPECT_EQ(client->GetChildren(0x4242, buffer, 1), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "parent");
  EXPECT_EQ(client->GetChildren(p, buffer, 2), KT_STATUS_INVALID_SIZE);
  EXPECT_EQ(Refused(), "count");
  EXPECT_EQ(buffer[0], 0u);
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
  EXPECT_EQ(client->GetResourceInfo(metric, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "out_resource");
  EXPECT_EQ(client->GetResourceInfo(0x4242, &info), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "handle");
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

TEST_F(ClientManagerTest, MetricDescriptorRefusals) {
  Metric::Description d;

  EXPECT_EQ(client->GetMetricDescriptor(0, &d), KT_STATUS_INVALID_OBJECT) << "0 is not the root";
  EXPECT_EQ(Refused(), "metric");
  EXPECT_EQ(client->GetMetricDescriptor(Publish("m"), nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "out_desc");
  EXPECT_EQ(client->GetMetricDescriptor(publisherNode->GetHandle(), &d), KT_STATUS_INVALID_OBJECT)
      << "a node that is no metric";
  EXPECT_EQ(Refused(), "metric");
}

TEST_F(ClientManagerTest, PublisherWithTimeBasedMetricsMarksItsOtherMetrics) {
  const unsigned long plain = Publish("plain");
  const unsigned long timed = Publish("timed", 1, kUngrouped, Metric::kFlagTimeBased);
  Metric::Description d;

  ASSERT_EQ(client->GetMetricDescriptor(plain, &d), KT_STATUS_SUCCESS);
  EXPECT_EQ(d.flags & 0x20, 0x20u);
  EXPECT_EQ(MetricAt(plain)->m_description.flags & 0x20, 0x20u) << "kept in the registry";
  ASSERT_EQ(client->GetMetricDescriptor(timed, &d), KT_STATUS_SUCCESS);
  EXPECT_EQ(d.flags & 0x20, 0u);
}

// The parent's payload is taken for a publisher's only when its type word
// says so.
TEST_F(ClientManagerTest, ParentIsReadAsAPublisherOnlyByItsTypeWord) {
  const unsigned long plain = Publish("plain");
  Publish("timed", 1, kUngrouped, Metric::kFlagTimeBased);
  publisherState->m_type = RESOURCE_TYPE_NODE;
  Path* loose = registry().GetChild("loose/m", kPathCreate);
  new MetricState(Metric::Description(), loose);
  Metric::Description d;

  ASSERT_EQ(client->GetMetricDescriptor(plain, &d), KT_STATUS_SUCCESS);
  EXPECT_EQ(d.flags & 0x20, 0u);
  ASSERT_EQ(client->GetMetricDescriptor(loose->GetHandle(), &d), KT_STATUS_SUCCESS);
  EXPECT_EQ(d.flags & 0x20, 0u);
}

// ---------------------------------------------------------------------------
// Probes.

class CountingProbe : public Metrics::IProbe {
 public:
  KT_STATUS Begin(unsigned long a, unsigned long b, Metrics::EventType type, void* c) override {
    calls.push_back(RecordingClientManager::Call("Begin", a, b, static_cast<unsigned int>(type), c));
    return 99;
  }
  KT_STATUS End(unsigned long a, Metrics::EventType type, void* c) override {
    calls.push_back(RecordingClientManager::Call("End", a, static_cast<unsigned int>(type), c));
    return 99;
  }
  KT_STATUS Handle() override {
    calls.push_back("Handle");
    return 99;
  }
  std::vector<std::string> calls;
};

class CommandListProbe : public CountingProbe {
 public:
  KT_STATUS OnChangeStateCommandList(void* a, void* b, Metrics::CommandListState s) override {
    calls.push_back(RecordingClientManager::Call("Command", a, b, static_cast<unsigned int>(s)));
    return 99;
  }
};

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

  CountingProbe probe;
};

TEST_F(ProbeTest, CreatedProbeIsFiledUnderItsTypeAndDestroyedByItsSite) {
  publisher.probeToMake = &probe;
  const unsigned long type = PublishProbeType();
  unsigned long site = 0;

  ASSERT_EQ(client->CreateProbe(type, nullptr, &site), KT_STATUS_SUCCESS);
  EXPECT_EQ(site, Address(&probe));
  EXPECT_EQ(publisher.lastProbeType, type);
  Path* node = registry().ResolveHandle(site);
  ASSERT_NE(node, nullptr);
  EXPECT_NE(dynamic_cast<ProbeState*>(node->GetPayload()), nullptr);

  EXPECT_EQ(client->DestroyProbe(site), KT_STATUS_SUCCESS);
  EXPECT_EQ(registry().ResolveHandle(site), nullptr);
  EXPECT_EQ(client->DestroyProbe(site), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "sitePath");
}

TEST_F(ProbeTest, CreateProbeRefusals) {
  unsigned long site = 0;

  EXPECT_EQ(client->CreateProbe(0x4242, nullptr, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "out_site");
  EXPECT_EQ(client->CreateProbe(0x4242, nullptr, &site), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "query") << "an unknown type is reported as the query";
  EXPECT_EQ(client->CreateProbe(PublishProbeType(), nullptr, &site), KT_STATUS_INVALID_ARGUMENT)
      << "the publisher made no probe";
  EXPECT_EQ(site, 0u);
}

// Any other payload is refused as a type without a probe publisher would be,
// and so is a type whose owner node is missing.
TEST_F(ProbeTest, CreateProbeRefusesWhatIsNoProbeTypeWithAnOwner) {
  publisher.probeToMake = &probe;
  Path* orphan = registry().GetChild("orphan", kPathCreate);
  new ProbeTypeState(nullptr, orphan);
  Path* plain = registry().GetChild("plain", kPathCreate);
  unsigned long site = 0;

  EXPECT_EQ(client->CreateProbe(Publish("m"), nullptr, &site), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "qpub");
  EXPECT_EQ(client->CreateProbe(orphan->GetHandle(), nullptr, &site), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "qpub");
  EXPECT_EQ(client->CreateProbe(plain->GetHandle(), nullptr, &site), KT_STATUS_INVALID_OBJECT);
  EXPECT_EQ(Refused(), "qpub");
  EXPECT_EQ(site, 0u);
}

// Deleting the root would delete the registry the extension manager holds.
TEST_F(ProbeTest, DestroyProbeDeletesNothingButAProbeSite) {
  const unsigned long metric = Publish("m");

  EXPECT_EQ(client->DestroyProbe(registry().GetHandle()), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "sitePath");
  EXPECT_EQ(client->DestroyProbe(metric), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "sitePath");
  EXPECT_EQ(client->DestroyProbe(0x4242), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "sitePath");

  EXPECT_NE(registry().ResolveHandle(metric), nullptr);
  EXPECT_NE(registry().ResolveHandle(registry().GetHandle()), nullptr);
}

TEST_F(ProbeTest, EventsReachTheProbeAndAlwaysSucceed) {
  int context = 0;
  const auto type = static_cast<Metrics::EventType>(3);

  EXPECT_EQ(client->BeginProbe(Address(&probe), 1, 2, type, &context), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->EndProbe(Address(&probe), 4, type, &context), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->HandleProbe(Address(&probe)), KT_STATUS_SUCCESS);
  EXPECT_EQ(client->OnChangeStateCommandList(Address(&probe), &context, nullptr,
                                             Metrics::kCommandListIdle),
            KT_STATUS_SUCCESS)
      << "the default operation";

  EXPECT_EQ(probe.calls, (std::vector<std::string>{
                             RecordingClientManager::Call("Begin", 1ul, 2ul, 3u, &context),
                             RecordingClientManager::Call("End", 4ul, 3u, &context), "Handle"}));
}

TEST_F(ProbeTest, CommandListStateReachesAProbeThatTakesIt) {
  CommandListProbe listening;
  int a = 0, b = 0;

  EXPECT_EQ(client->OnChangeStateCommandList(Address(&listening), &a, &b,
                                             static_cast<Metrics::CommandListState>(2)),
            KT_STATUS_SUCCESS);

  EXPECT_EQ(listening.calls,
            (std::vector<std::string>{RecordingClientManager::Call("Command", &a, &b, 2u)}));
}

// ---------------------------------------------------------------------------
// Remote method calls.

TEST_F(ClientManagerTest, RemoteMethodRunsThroughTheClientManagersLocalConduit) {
  FakeBuffer args;
  FakeBuffer returns;
  manager.dispatchStatus = KT_STATUS_INVALID_OPERATION;

  EXPECT_EQ(client->CallRemoteMethodSync(0x1234, &args, &returns), KT_STATUS_INVALID_OPERATION);

  EXPECT_EQ(manager.dispatched.handle, 0x1234u);
  EXPECT_EQ(manager.dispatched.args, &args);
  EXPECT_EQ(manager.dispatched.returns, &returns);
  EXPECT_EQ(loader.added, (std::vector<std::string>{"LocalConduit_DefaultClientManager"}));
}

TEST_F(ClientManagerTest, RemoteMethodRefusals) {
  FakeBuffer buffer;
  const unsigned long conduit = client->GetConduitHandle(0, 0);

  EXPECT_EQ(client->CallRemoteMethodSync(0x1234, nullptr, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "args");
  EXPECT_EQ(client->CallRemoteMethodSync(0x1234, &buffer, nullptr), KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "returns");
  EXPECT_EQ(client->CallRemoteMethodSync(0x4242, 0x1234, nullptr, &buffer),
            KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "args");
  EXPECT_EQ(client->__CallRemoteMethodSync(0, 0x1234, &buffer, &buffer, true),
            KT_STATUS_INVALID_ARGUMENT);
  EXPECT_EQ(Refused(), "conduit") << "an argument error, not an unknown object";
  EXPECT_EQ(client->CallRemoteMethodSync(publisherNode->GetHandle(), 0x1234, &buffer, &buffer),
            KT_STATUS_INVALID_ARGUMENT)
      << "a node that is no conduit";
  EXPECT_EQ(Refused(), "conduit");
  EXPECT_EQ(manager.dispatched.handle, 0u);
  EXPECT_EQ(client->CallRemoteMethodSync(conduit, 0x1234, &buffer, &buffer), KT_STATUS_SUCCESS);
}

}  // namespace
}  // namespace MetricsFramework
