#include "state/method_state.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "registry/registry.h"
#include "state/logger_state.h"
#include "state/peer_state.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using testing_fakes::FakePeer;
using Calls = std::vector<std::string>;

// A return buffer that records the calls made on it.
class RecordingBuffer : public IReadWriteBuffer {
 public:
  void GetData(const void**, unsigned long*) const override {}
  void MakeAvailable(const void*) const override {}
  void Flush() override { calls.push_back("Flush"); }
  void* Reserve(unsigned long) override { return calls.push_back("Reserve"), nullptr; }
  void Commit(void*) override { calls.push_back("Commit"); }
  void CommitTimeBasedMetric(void*) override { calls.push_back("CommitTimeBasedMetric"); }
  Calls calls;
};

// Writes a reply, then answers `succeed`.
class FakeMethod : public IRemoteMethod {
 public:
  bool Run(const IReadBuffer* a, IWriteBuffer* returns) override {
    args = a;
    returns->Commit(returns->Reserve(8));
    return succeed;
  }
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override {
    std::strcpy(desc.m_name, "command");
    desc.m_inputCount = 3;
    desc.m_reserved[127] = 0x5A;
    desc.m_outputCount = 5;
  }
  bool succeed = true;
  const IReadBuffer* args = nullptr;
};

class MethodStateTest : public ::testing::Test {
 protected:
  MethodStateTest()
      : node(registry.GetChild("methods/m", kPathCreate)), state(new MethodState(&method, node)) {}

  Registry registry;
  FakeMethod method;
  RecordingBuffer args;
  RecordingBuffer returns;
  Path* node;
  MethodState* state;
};

TEST_F(MethodStateTest, RunGetsTheCallersBuffersAndAFailedRunLeavesThemAsTheMethodLeftThem) {
  EXPECT_EQ(state->Dispatch(&args, &returns), KT_STATUS_SUCCESS);
  EXPECT_EQ(method.args, &args);
  EXPECT_EQ(returns.calls, (Calls{"Reserve", "Commit"}));

  method.succeed = false;
  EXPECT_EQ(state->Dispatch(&args, &returns), KT_STATUS_INVALID_OPERATION);
  EXPECT_EQ(returns.calls, (Calls{"Reserve", "Commit", "Reserve", "Commit"}));
}

TEST_F(MethodStateTest, MissingMethodFailsLikeAFailedRun) {
  auto* empty = new MethodState(nullptr, node);
  empty->LoadDesc();

  EXPECT_EQ(empty->Dispatch(&args, &returns), KT_STATUS_INVALID_OPERATION);
  EXPECT_TRUE(returns.calls.empty());
  EXPECT_STREQ(empty->GetDesc().m_name, "");
}

TEST_F(MethodStateTest, DescIsEmptyUntilLoadedThenCarriesEveryField) {
  ASSERT_EQ(node->GetPayload(), state);
  EXPECT_EQ(state->m_type, RESOURCE_TYPE_REMOTE_METHOD);
  EXPECT_STREQ(state->GetDesc().m_name, "");

  state->LoadDesc();

  const RemoteMethodDesc& desc = state->GetDesc();
  EXPECT_STREQ(desc.m_name, "command");
  EXPECT_EQ(desc.m_inputCount, 3u);
  EXPECT_EQ(desc.m_reserved[127], 0x5A);
  EXPECT_EQ(desc.m_outputCount, 5u);
}

TEST(LoggerStateTest, HoldsItsLoggerOnAPlainNode) {
  class : public ILogger {
    void Log(unsigned int, const char*) override {}
  } logger;
  Path node;

  auto* state = new LoggerState(&logger, &node);

  ASSERT_EQ(node.GetPayload(), state);
  EXPECT_EQ(state->GetLogger(), &logger);
  EXPECT_EQ(state->m_type, RESOURCE_TYPE_NODE);
}

TEST(PeerStateTest, ReleasesItsPeerExactlyOnceThroughTheThirdEntry) {
  FakePeer replaced;
  FakePeer destroyed;
  {
    Path node;
    Path other;
    Path bare;
    new PeerState(nullptr, &bare);  // nothing to release
    EXPECT_EQ((new PeerState(&replaced, &node))->m_type, RESOURCE_TYPE_PEER);
    new PeerState(&destroyed, &other);

    new PathData(&node);  // destroys the peer's state

    EXPECT_EQ(replaced.releases, 1);
    EXPECT_EQ(destroyed.releases, 0);
  }
  EXPECT_EQ(replaced.releases, 1);
  EXPECT_EQ(destroyed.releases, 1);
  // Peers come from other modules: Release must stay the third table entry.
  IPeer* face = &replaced;
  reinterpret_cast<void (*)(IPeer*)>((*reinterpret_cast<void***>(face))[2])(face);
  EXPECT_EQ(replaced.releases, 2);
}

}  // namespace
}  // namespace MetricsFramework
