// kt-host serving its registry to peers, met by a raw ZeroMQ client written
// here from the frame layout alone (docs/net_frames.md): hostile messages,
// three processes, and CURVE.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "raw_zmq.h"
#include "served_host.h"

namespace kt_net_test {
namespace {

struct Reply {
  bool arrived = false;
  uint32_t status = 0;
  std::vector<std::string> records;
};

class NetworkTest : public ::testing::Test {
 protected:
  // The reply of the call `correlation`, heartbeats and other frames skipped.
  static Reply AwaitReply(Socket& peer, uint64_t correlation) {
    Reply reply;
    for (int i = 0; i < 50 && !reply.arrived; ++i) {
      const std::vector<std::string> got = peer.Receive(100);
      if (got.size() != 1 || got[0].size() < 32 || got[0][5] != kReply ||
          Get<uint64_t>(got[0], 8) != correlation) {
        continue;
      }
      const std::string& frame = got[0];
      reply.arrived = true;
      reply.status = Get<uint32_t>(frame, 24);
      size_t at = 32;
      for (uint32_t k = Get<uint32_t>(frame, 28); k > 0 && at + 4 <= frame.size(); --k) {
        const uint32_t size = Get<uint32_t>(frame, at);
        reply.records.push_back(frame.substr(at + 4, size));
        at += 4 + size;
      }
    }
    return reply;
  }
  // "frames from peers N, refused M" from a stopped host.
  static void Counters(const ServedHost& host, unsigned long* frames, unsigned long* refused) {
    const size_t at = host.Output().find("frames from peers ");
    ASSERT_NE(at, std::string::npos) << host.Output();
    std::sscanf(host.Output().c_str() + at, "frames from peers %lu, refused %lu", frames, refused);
  }

  Context context;
};

TEST_F(NetworkTest, HostileMessagesAreRefusedOrAnsweredAsTheProtocolSaysAndOthersStayServed) {
  ServedHost host;
  ASSERT_TRUE(host.Start({"serve", "--listen", "tcp://127.0.0.1:0", "--serve", "browse"}))
      << host.Output();
  Socket hostile(context, ZMQ_DEALER);
  ASSERT_TRUE(hostile.Connect(host.Endpoint()));
  ASSERT_TRUE(hostile.Send({Request(1, Record(4))}));  // before any hello
  ASSERT_TRUE(Handshake(hostile, 0x0BAD0001));

  std::string wrongLength = Request(2, Record(4, {0}));
  wrongLength[20] += 1;
  std::string recordPastBody = Request(3, Record(4, {0}));
  recordPastBody[32] += 1;
  std::string replyBody;
  Put(replyBody, uint32_t{0});
  Put(replyBody, uint32_t{0});
  const uint32_t kOk = 0, kInvalidOperation = 4, kInvalidSize = 10;
  struct Row {
    const char* what;
    std::string message;
    bool malformed;             // refused and counted; no answer awaited
    uint64_t correlation;       // 0: no answer awaited
    uint32_t dispatch;          // the reply's dispatch status: 4 when the method failed
    size_t records;             // how many reply records
    uint32_t recordStatus;      // the first record's status word
  };
  const Row rows[] = {
      {"empty message", "", true, 0, 0, 0, 0},
      {"one byte", "K", true, 0, 0, 0, 0},
      {"wrong magic", Frame(kHeartbeat, "", 0, 0, 1, 0x12345678), true, 0, 0, 0, 0},
      {"wrong version", Frame(kHeartbeat, "", 0, 0, 9), true, 0, 0, 0, 0},
      {"body length past the message", wrongLength, true, 0, 0, 0, 0},
      {"record length past the body", recordPastBody, true, 0, 0, 0, 0},
      {"reply to no call", Frame(kReply, replyBody, 0xDEAD), false, 0, 0, 0, 0},
      {"op 4, record cut after the op: handle 0, the root", Request(10, Record(4)), false, 10,
       kOk, 1, kOk},
      {"op 1, text without NUL: the empty path", Request(11, Record(1, {0}, "publishers")), false,
       11, kOk, 1, kOk},
      {"op 0: no reply record", Request(12, Record(0, {0})), false, 12, kInvalidOperation, 0, 0},
      {"op 10: no reply record", Request(13, Record(10, {0})), false, 13, kInvalidOperation, 0, 0},
      {"op 3, count 0xFFFFFFFF", Request(14, Record(3, {0}, std::string("\xFF\xFF\xFF\xFF", 4))),
       false, 14, kInvalidOperation, 1, kInvalidSize},
      {"op 9 beyond browse", Request(15, Record(9, {kCommand, 0})), false, 15, kInvalidOperation,
       0, 0},
  };
  size_t malformed = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ASSERT_TRUE(hostile.Send({Frame(kHeartbeat, "")}));
    ASSERT_TRUE(hostile.Send({row.message}));
    malformed += row.malformed;
    if (row.correlation == 0) continue;
    const Reply reply = AwaitReply(hostile, row.correlation);
    ASSERT_TRUE(reply.arrived);
    EXPECT_EQ(reply.status, row.dispatch);
    ASSERT_EQ(reply.records.size(), row.records);
    if (row.records > 0) {
      EXPECT_EQ(Get<uint32_t>(reply.records[0], 0), row.recordStatus);
    }
  }
  Socket oversized(context, ZMQ_DEALER);
  ASSERT_TRUE(oversized.Connect(host.Endpoint()));
  ASSERT_TRUE(oversized.Send({std::string((4u << 20) + 1, 'x')}));

  Socket good(context, ZMQ_DEALER);
  ASSERT_TRUE(good.Connect(host.Endpoint()));
  ASSERT_TRUE(Handshake(good, 0x600D0001));
  ASSERT_TRUE(good.Send({Request(99, Record(1, {0}, std::string("publishers", 11)))}));
  const Reply reply = AwaitReply(good, 99);
  ASSERT_TRUE(reply.arrived);
  ASSERT_EQ(reply.records.size(), 1u);
  EXPECT_EQ(Get<uint32_t>(reply.records[0], 0), kOk);
  EXPECT_EQ(Get<uint64_t>(reply.records[0], 4) >> 32, host.Guid());

  EXPECT_EQ(host.Stop(), 0);
  unsigned long frames = 0, refused = 0;
  Counters(host, &frames, &refused);
  EXPECT_GE(refused, malformed);
}

// Runs kt-host with `args` to its end; its output.
std::string RunHost(const std::string& args) {
  std::string output;
  FILE* pipe = popen((std::string(KT_HOST_PATH) + " " + args + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return output;
  char chunk[4096];
  for (size_t got; (got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) output.append(chunk, got);
  pclose(pipe);
  return output;
}

TEST_F(NetworkTest, AHostDiallingTwoOthersListsBothUnderPeersWithDistinctNamesAndGuids) {
  ServedHost first, second;
  ASSERT_TRUE(first.Start({"serve", "--listen", "tcp://127.0.0.1:0"})) << first.Output();
  ASSERT_TRUE(second.Start({"serve", "--listen", "tcp://127.0.0.1:0"})) << second.Output();

  const std::string tree =
      RunHost("--connect " + first.Endpoint() + " --connect " + second.Endpoint() + " tree");

  // A mount's line: four spaces, its name, and a handle whose upper half is
  // the peer's GUID.
  std::set<std::string> names;
  std::set<unsigned int> guids;
  std::istringstream lines(tree);
  for (std::string line; std::getline(lines, line);) {
    char name[256];
    unsigned int guid = 0;
    if (line.compare(0, 4, "    ") == 0 && line[4] != ' ' &&
        std::sscanf(line.c_str(), "%255s [node, kind 16] handle 0x%8x", name, &guid) == 2 &&
        line.find("00000000") != std::string::npos) {
      names.insert(name);
      guids.insert(guid);
    }
  }
  EXPECT_EQ(names.size(), 2u) << tree;
  EXPECT_EQ(guids, (std::set<unsigned int>{first.Guid(), second.Guid()})) << tree;
}

// The key of a key file written by kt-host keygen.
std::string KeyOf(const std::string& path) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != '#') return line;
  }
  return "";
}

TEST_F(NetworkTest, ACurveListenerDecodesNothingFromUnknownKeysOrPlainClients) {
  TempDir keys;
  for (const char* name : {"server", "client", "stranger"}) {
    ASSERT_NE(RunHost("keygen " + keys.Path() + " --name " + name).find("public key"),
              std::string::npos);
  }
  const std::string dir = keys.Path() + "/";
  std::ofstream(dir + "allow") << KeyOf(dir + "client.public") << "\n";
  ServedHost host;
  ASSERT_TRUE(host.Start({"serve", "--listen", "tcp://127.0.0.1:0", "--curve-secret-key",
                          dir + "server.secret", "--curve-allow", dir + "allow"}))
      << host.Output();

  struct Row {
    const char* client;
    const char* key;  // null: no CURVE
    bool welcomed;
  };
  const Row rows[] = {{"unknown key", "stranger", false},
                      {"plain client", nullptr, false},
                      {"allowed key", "client", true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.client);
    Socket peer(context, ZMQ_DEALER);
    if (row.key != nullptr) {
      const std::string server = KeyOf(dir + "server.public");
      const std::string pub = KeyOf(dir + row.key + ".public");
      const std::string sec = KeyOf(dir + row.key + ".secret");
      zmq_setsockopt(peer.Get(), ZMQ_CURVE_SERVERKEY, server.c_str(), server.size() + 1);
      zmq_setsockopt(peer.Get(), ZMQ_CURVE_PUBLICKEY, pub.c_str(), pub.size() + 1);
      zmq_setsockopt(peer.Get(), ZMQ_CURVE_SECRETKEY, sec.c_str(), sec.size() + 1);
    }
    ASSERT_TRUE(peer.Connect(host.Endpoint()));
    EXPECT_EQ(Handshake(peer, 0x0C0C0001, row.welcomed ? 5000 : 1000), row.welcomed);
  }

  EXPECT_EQ(host.Stop(), 0);
  unsigned long frames = 0, refused = 0;
  Counters(host, &frames, &refused);
  EXPECT_EQ(frames, 1u) << "only the allowed client's hello reaches the decoder";
  const std::string& log = host.Output();
  const std::string refusal = "refused CURVE key " + KeyOf(dir + "stranger.public");
  EXPECT_NE(log.find(refusal), std::string::npos) << log;
  EXPECT_EQ(log.find(refusal), log.rfind(refusal)) << "a refused key is logged once";
}

}  // namespace
}  // namespace kt_net_test
