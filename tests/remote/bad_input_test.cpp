// Bad input at the remote entries: the client manager proxy's slots and the
// client command method's Run with truncated, oversize and unknown requests.
// The proxy here talks to this process's own command method, so every refusal
// comes back through the protocol (docs/bad_input.md).
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <tuple>

#include "remote/client_manager_proxy.h"
#include "remote/proxy_buffer.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using namespace testing_fakes;

template <typename T>
std::string Bytes(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}
std::string Op(unsigned int op) { return Bytes(op); }

// A transport whose far side answers every request with one record claiming a
// blob of 2^32 - 1 bytes.
class ForgingConduit : public FakeConduit {
 public:
  KT_STATUS Transact(unsigned long, const IReadBuffer*, IWriteBuffer* reply) override {
    const unsigned int claimed = 0xFFFFFFFFu;
    ProxyBuffer::Write(reply, KT_STATUS_SUCCESS, &claimed, sizeof claimed);
    return KT_STATUS_SUCCESS;
  }
};

class RemoteBadInputTest : public ::testing::Test {
 protected:
  RemoteBadInputTest() {
    EXPECT_EQ(host.Add("ClientCommandMethod", &host.command), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("pub", &publisher), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("con", &consumer), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("echo", &echo), KT_STATUS_SUCCESS);
    EXPECT_EQ(host.Add("liar", &liar), KT_STATUS_SUCCESS);
    metric = host.Publish(&publisher, Describe("m"));
    transport = host.client->GetConduitHandle(0, 0);
  }

  // Runs `request` through the command method; Run's answer, and the status
  // of the first reply record (KT_STATUS_INVALID_OPERATION when none).
  std::pair<bool, KT_STATUS> Serve(const std::string& request) {
    HostBuffer in(request);
    ProxyBuffer reply;
    const bool ran = host.command.Run(&in, &reply);
    return {ran, reply.ReadBack(nullptr, 0)};
  }

  CountingPublisher publisher;
  RecordingConsumer consumer;
  RecordingMethod echo;
  ForgingConduit liar;
  LiveManager host;
  unsigned long metric = 0, transport = 0;
};

// A forwarded operation that the peer refuses also fails the peer's method
// run, so its transport status (KT_STATUS_INVALID_OPERATION) is OR'ed into
// the peer's status, as the protocol combines them.
constexpr KT_STATUS kRunFailed = KT_STATUS_INVALID_OPERATION;

TEST_F(RemoteBadInputTest, ProxyPassesThePeersRefusalsBackAndRefusesWhatItCannotSend) {
  ClientManagerProxy p(1, 2, "peer", host.client.get(), transport, transport);
  ClientManagerProxy unwired(1, 2, "peer", nullptr, transport, transport);
  ClientManagerProxy noConduit(1, 2, "peer", host.client.get(), transport, 0);
  ClientManagerProxy forged(1, 2, "peer", host.client.get(), liar.GetHandle(), 0);
  const unsigned long unknown = host.UnknownHandle(), con = consumer.GetHandle();
  const unsigned long batch[] = {0, unknown};
  unsigned long out = 0, children[2] = {};
  unsigned int count = 0;
  ResourceInfo info;
  Metric::Description desc;
  desc.uri = "kept";
  HostBuffer args, returns;
  ExpectRefusals({
      REFUSAL(unwired.GetChildCount(0, &count), kObject | kRunFailed, nullptr),
      REFUSAL(p.GetPath(0, nullptr, &out), kArgument, nullptr),
      REFUSAL(p.GetPath(0, "publishers", nullptr), KT_STATUS_SUCCESS, nullptr),
      REFUSAL(p.GetChildCount(unknown, &count), kObject | kRunFailed, nullptr),
      REFUSAL(p.GetChildren(0, children, UINT_MAX), KT_STATUS_INVALID_SIZE | kRunFailed, nullptr),
      REFUSAL(p.GetChildren(0, nullptr, 1), KT_STATUS_SUCCESS, nullptr),
      REFUSAL(p.GetResourceInfo(unknown, &info), kObject | kRunFailed, nullptr),
      REFUSAL(p.GetResourceInfo(0, nullptr), KT_STATUS_SUCCESS, nullptr),
      REFUSAL(p.GetMetricDescriptor(con, &desc), kObject, nullptr),
      REFUSAL(p.GetMetricDescriptor(metric, nullptr), KT_STATUS_SUCCESS, nullptr),
      REFUSAL(forged.GetMetricDescriptor(metric, &desc), KT_STATUS_INVALID_OPERATION, nullptr),
      REFUSAL(p.SubscribeMetric(0, metric), kArgument | kRunFailed, nullptr),
      REFUSAL(p.SubscribeMetric(con, 0), kArgument | kRunFailed, nullptr),
      REFUSAL(p.UnsubscribeMetric(con, unknown), KT_STATUS_DOES_NOT_EXIST | kRunFailed, nullptr),
      REFUSAL(noConduit.FlushMetrics(con), kArgument | kRunFailed, nullptr),
      REFUSAL(p.SubscribeMetrics(con, nullptr, 2, nullptr), kArgument, nullptr),
      REFUSAL(p.SubscribeMetrics(con, nullptr, 0, nullptr), KT_STATUS_SUCCESS, nullptr),
      REFUSAL(p.UnsubscribeMetrics(con, batch, 2, nullptr), KT_STATUS_PARTIAL_FAILURE, nullptr),
      REFUSAL(p.CallRemoteMethodSync(metric, &args, nullptr), kArgument, nullptr),
      REFUSAL(p.CallRemoteMethodSync(0, &args, &returns), KT_STATUS_INVALID_OPERATION, nullptr),
      REFUSAL(p.CallRemoteMethodSync(unknown, nullptr, &returns), KT_STATUS_INVALID_OPERATION, nullptr),
      REFUSAL(p.CreateProbe(0, nullptr, nullptr), KT_STATUS_INVALID_OPERATION, nullptr),
      REFUSAL(p.DestroyProbe(0), KT_STATUS_INVALID_OPERATION, nullptr),
  });
  EXPECT_EQ(std::make_tuple(out, children[0], desc.uri), std::make_tuple(0ul, 0ul, "kept"));
}

TEST_F(RemoteBadInputTest, CommandMethodAnswersTruncatedOversizeAndUnknownRequests) {
  const std::string op9 = Op(kOpCallRemoteMethod) + Bytes(metric);
  struct Request {
    const char* what;
    std::string bytes;
    bool ran;
    KT_STATUS reply;
  };
  constexpr KT_STATUS kNoReply = KT_STATUS_INVALID_OPERATION;  // no reply record
  const Request requests[] = {
      {"empty record", "", false, kNoReply},
      {"two bytes", "\x01\x00", false, kNoReply},
      {"op 0", Op(0), false, kNoReply},
      {"op 10", Op(10), false, kNoReply},
      {"GetPath without text", Op(kOpGetPath), true, KT_STATUS_SUCCESS},
      {"GetPath unterminated", Op(kOpGetPath) + Bytes(0ul) + "publishers", true, KT_STATUS_SUCCESS},
      {"GetChildCount truncated", Op(kOpGetChildCount), true, KT_STATUS_SUCCESS},
      {"GetChildren oversize", Op(kOpGetChildren) + Bytes(0ul) + Bytes(UINT_MAX),
       false, KT_STATUS_INVALID_SIZE},
      {"GetResourceInfo truncated", Op(kOpGetResourceInfo), true, KT_STATUS_SUCCESS},
      {"GetMetricDescriptor truncated", Op(kOpGetMetricDescriptor), false, kObject},
      {"Subscribe truncated", Op(kOpSubscribeMetric) + Bytes(1ul), false, kArgument},
      {"Unsubscribe truncated", Op(kOpUnsubscribeMetric), false, kArgument},
      {"Flush truncated", Op(kOpFlushMetrics), false, kArgument},
      {"Call truncated", Op(kOpCallRemoteMethod), false, kNoReply},
      {"Call payload past the record", op9 + Bytes(64ul) + "abc", false, kNoReply},
      {"Call payload running 7 bytes past the record",
       Op(kOpCallRemoteMethod) + Bytes(echo.GetHandle()) + Bytes(10ul) + "abc", false, kNoReply},
      {"Call payload of 2^63 bytes", op9 + Bytes(1ul << 63), false, kNoReply},
  };
  for (const Request& r : requests) {
    const std::pair<bool, KT_STATUS> answer = Serve(r.bytes);
    EXPECT_EQ(answer.first, r.ran) << r.what;
    EXPECT_EQ(answer.second, r.reply) << r.what;
  }
  EXPECT_EQ(echo.runs, 0);
  ProxyBuffer reply;
  HostBuffer request(Op(kOpGetChildCount));
  LoadedCommandMethod unloaded;
  EXPECT_FALSE(host.command.Run(nullptr, &reply));
  EXPECT_FALSE(host.command.Run(&request, nullptr));
  EXPECT_FALSE(unloaded.Run(&request, &reply));  // no client manager to serve it
  EXPECT_EQ(reply.ReadBack(nullptr, 0), KT_STATUS_INVALID_OPERATION);
  HostBuffer exhausted;  // a reply that cannot be allocated
  exhausted.failReserve = true;
  EXPECT_FALSE(host.command.Run(&request, &exhausted));
  EXPECT_TRUE(exhausted.records.empty());
}

}  // namespace
}  // namespace MetricsFramework
