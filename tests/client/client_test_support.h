// What the client manager tests share: a loader that files extensions the way
// the extension manager does, a client manager of another process that
// records what reaches it, a peer that hands it out, and a fixture that builds
// a registry with a client manager on it.
#ifndef KT_TESTS_CLIENT_CLIENT_TEST_SUPPORT_H_
#define KT_TESTS_CLIENT_CLIENT_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "client/default_client_manager.h"
#include "foundation/diagnostics.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/metric_state.h"
#include "state/peer_state.h"
#include "state/publisher_state.h"
#include "state/state_fakes.h"
#include "support/fake_manager.h"
#include "support/filing_loader.h"

namespace MetricsFramework {
namespace testing_fakes {

// The client manager of another process: records every call that reaches it,
// as the operation's name and its arguments (pointers as numbers), and
// answers `status`. On success it writes `handle`, `count`, `info` and
// `description` where the operation has such an out-parameter.
class RecordingClientManager : public IClientManager {
 public:
  KT_STATUS GetPath(unsigned long root, const char* pathname,
                    unsigned long* out_handle) const override {
    Record("GetPath", root, std::string(pathname != nullptr ? pathname : "(null)"), out_handle);
    return Answer(out_handle, handle);
  }
  KT_STATUS GetChildCount(unsigned long parent, unsigned int* out_count) const override {
    Record("GetChildCount", parent, out_count);
    return Answer(out_count, count);
  }
  KT_STATUS GetChildren(unsigned long parent, unsigned long* out_children,
                        unsigned int n) const override {
    return Record("GetChildren", parent, out_children, n);
  }
  KT_STATUS GetMetrics(unsigned long h, std::vector<std::pair<unsigned long, Metric::Description>>&,
                       std::vector<std::string>*,
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
    Record("SubscribeMetric", consumer, metric);
    return subscribeStatus;
  }
  KT_STATUS UnsubscribeMetric(unsigned long consumer, unsigned long metric) override {
    return Record("UnsubscribeMetric", consumer, metric);
  }
  KT_STATUS SubscribeMetrics(unsigned long consumer, const unsigned long* metrics, unsigned int n,
                             IClientManagerErrorListener*) override {
    return Record("SubscribeMetrics", consumer, metrics, n);
  }
  KT_STATUS UnsubscribeMetrics(unsigned long consumer, const unsigned long* metrics,
                               unsigned int n, IClientManagerErrorListener*) override {
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
    return status;
  }
  KT_STATUS EndProbe(unsigned long, unsigned long, Metrics::EventType, void*) const override {
    return status;
  }
  KT_STATUS HandleProbe(unsigned long) const override { return status; }
  KT_STATUS OnChangeStateCommandList(unsigned long, void*, void*,
                                     Metrics::CommandListState) const override {
    return status;
  }

  // "Operation arg arg ..." for a call made with these arguments.
  template <typename... Args>
  static std::string Call(const char* operation, const Args&... args) {
    std::string line = operation;
    (void)((line += " " + Text(args)), ...);
    return line;
  }

  KT_STATUS status = 77;  // no status of the table: it can only come from here
  KT_STATUS subscribeStatus = 77;
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
  // `status`, writing `value` to `out` when it is success.
  template <typename T>
  KT_STATUS Answer(T* out, const T& value) const {
    if (status == KT_STATUS_SUCCESS && out != nullptr) *out = value;
    return status;
  }
};

// A registry with a client manager on it, a publisher "publishers/p" and a
// loader that files what the client manager registers. Members are declared
// so that the client manager goes first and the objects the tree points at
// go last.
using Refusal = std::pair<KT_STATUS, std::string>;

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
  unsigned long Publish(const std::string& uri, unsigned long tag = 1,
                        unsigned int group = kUngrouped, unsigned int flags = 0) {
    Metric::Description d;
    d.uri = uri;
    d.word1 = static_cast<unsigned int>(tag);
    d.word4 = group;
    d.flags = flags;
    unsigned long handle = 0;
    EXPECT_EQ(publisherState->PublishMetric(d, &handle), KT_STATUS_SUCCESS);
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

  // `status` with the argument the last refused call of this thread named
  // ("(none)" for none); forgets it. Compare with Refusal{status, argument}.
  static Refusal Refused(KT_STATUS status) {
    const char* argument = TakeLastFailureArgument();
    return {status, argument != nullptr ? argument : "(none)"};
  }

  FakePublisher publisher;
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
