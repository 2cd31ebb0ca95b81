// kt-host's network commands end to end: keygen, a CURVE host serving its
// registry to raw ZeroMQ clients written here from the frame layout alone
// (docs/net_frames.md), and a second kt-host that dials it.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "net_kit.h"

namespace kt_net_test {
namespace {

// The reply frame of the call `correlation`, "" when none comes within 5 s.
std::string AwaitReply(Socket& peer, uint64_t correlation) {
  for (int i = 0; i < 50; ++i) {
    const std::vector<std::string> got = peer.Receive(100);
    if (got.size() == 1 && got[0].size() >= 32 && got[0][5] == kReply &&
        Get<uint64_t>(got[0], 8) == correlation) {
      return got[0];
    }
  }
  return "";
}

// Runs kt-host with `args` to its end (at most 20 s); its output.
std::string RunHost(const std::vector<std::string>& args) {
  ServedHost run;
  run.Start(KT_HOST_PATH, args);
  return run.Output();
}

class NetworkTest : public ::testing::Test {
 protected:
  std::string File(const std::string& name) const { return keys.Path() + "/" + name; }
  // The key in a key file of keygen's: its first line that is not a comment.
  std::string Key(const std::string& name) const {
    std::ifstream in(File(name));
    std::string line;
    while (std::getline(in, line) && line.rfind('#', 0) == 0) {
    }
    return line;
  }
  // Makes `socket` a CURVE client of the host with the key pair `name`.
  void Curve(Socket& socket, const std::string& name) {
    for (const auto& [option, key] : {std::pair{ZMQ_CURVE_SERVERKEY, Key("server.public")},
                                      {ZMQ_CURVE_PUBLICKEY, Key(name + ".public")},
                                      {ZMQ_CURVE_SECRETKEY, Key(name + ".secret")}}) {
      ASSERT_EQ(zmq_setsockopt(socket.Get(), option, key.c_str(), key.size() + 1), 0);
    }
  }

  TempDir keys;
};

TEST_F(NetworkTest, ACurveHostAnswersAllowedPeersAsTheProtocolSaysAndNoOneElse) {
  for (const char* name : {"server", "client", "stranger"}) {
    ASSERT_NE(RunHost({"keygen", keys.Path(), "--name", name}).find("public key"), std::string::npos);
  }
  std::ofstream(File("allow")) << Key("client.public") << "\n";
  ServedHost host;
  ASSERT_TRUE(host.Start(KT_HOST_PATH, {"--no-examples", "serve", "--listen", "tcp://127.0.0.1:0",
                                        "--serve", "subscribe", "--name", "served",
                                        "--curve-secret-key", File("server.secret"),
                                        "--curve-allow", File("allow")}))
      << host.Output();
  Socket stranger(ZMQ_DEALER), plain(ZMQ_DEALER), hostile(ZMQ_DEALER), good(ZMQ_DEALER);
  for (auto [socket, key] : {std::pair{&stranger, "stranger"}, {&hostile, "client"}, {&good, "client"}}) {
    Curve(*socket, key);
  }
  for (Socket* peer : {&stranger, &plain, &hostile, &good}) {
    ASSERT_TRUE(peer->Connect(host.Endpoint()));
    ASSERT_TRUE(peer->Send({Request(1, 4)}));  // before its hello: an error, if decoded
  }
  EXPECT_FALSE(Handshake(stranger, 0x0BAD0002, 1000)) << "a key not allowed";
  EXPECT_FALSE(Handshake(plain, 0x0BAD0003, 1000)) << "no CURVE";
  ASSERT_TRUE(Handshake(hostile, 0x0BAD0001));

  std::string wrongLength = Request(2, 4, {0}), recordPastBody = Request(3, 4, {0});
  wrongLength[20] += 1;
  recordPastBody[32] += 1;
  const uint32_t kInvalidOperation = 4, kInvalidArgument = 7, kInvalidSize = 10;
  struct Row {
    const char* what;
    std::string message;
    bool malformed;            // counted as an error, not answered
    uint32_t dispatch = 0;     // a request's reply: its status, 4 when the op failed or was refused,
    uint32_t records = 0;      // its record count,
    uint32_t recordStatus = 0; // and the first record's status word
  };
  const Row rows[] = {
      {"empty message", "", true},
      {"one byte", "K", true},
      {"wrong magic", Frame(kHeartbeat, "", 0, 0, 1, 0x12345678), true},
      {"wrong version", Frame(kHeartbeat, "", 0, 0, 9), true},
      {"body length past the message", wrongLength, true},
      {"record length past the body", recordPastBody, true},
      {"reply to no call", Frame(kReply, std::string(8, '\0'), 0xDEAD), false},
      {"op 4 cut after the op: the root", Request(10, 4), false, 0, 1, 0},
      {"op 1 without NUL: the empty path", Request(11, 1, {0}, "publishers"), false, 0, 1, 0},
      {"op 0", Request(12, 0, {0}), false, kInvalidOperation},
      {"op 10", Request(13, 10, {0}), false, kInvalidOperation},
      {"op 3, count 0xFFFFFFFF", Request(14, 3, {0}, std::string(4, '\xFF')), false,
       kInvalidOperation, 1, kInvalidSize},
      {"op 8 within subscribe", Request(15, 8, {0}), false, kInvalidOperation, 1, kInvalidArgument},
      {"op 9 beyond subscribe", Request(16, 9, {kCommand, 0}), false, kInvalidOperation},
  };
  size_t malformed = 2;  // the allowed clients' requests before their hellos
  for (const Row& row : rows) {
    ASSERT_TRUE(hostile.Send({Frame(kHeartbeat, "")}));
    ASSERT_TRUE(hostile.Send({row.message}));
    malformed += row.malformed;
    if (row.malformed || row.message[5] != kRequest) continue;
    const std::string reply = AwaitReply(hostile, Get<uint64_t>(row.message, 8));
    EXPECT_EQ(std::make_tuple(reply.size() >= 32, Get<uint32_t>(reply, 24), Get<uint32_t>(reply, 28),
                              Get<uint32_t>(reply, 36)),
              std::make_tuple(true, row.dispatch, row.records, row.recordStatus))
        << row.what;
  }
  ASSERT_TRUE(hostile.Send({std::string((4u << 20) + 1, 'x')}));  // refused by the engine

  // Another peer is served as ever, and another kt-host lists the host under
  // its peers.
  ASSERT_TRUE(Handshake(good, 0x600D0001));
  ASSERT_TRUE(good.Send({Request(99, 1, {0}, std::string("publishers", 11))}));
  EXPECT_EQ(Get<uint64_t>(AwaitReply(good, 99), 40) >> 32, host.Guid());
  const std::string tree = RunHost({"--no-examples", "--connect", host.Endpoint(), "--curve-secret-key",
                                    File("client.secret"), "--curve-server-key", File("server.public"), "tree"});
  char mount[64];
  std::snprintf(mount, sizeof mount, "served  [node, kind 16]  handle 0x%08x00000000", host.Guid());
  EXPECT_NE(tree.find(mount), std::string::npos) << tree;

  EXPECT_EQ(host.Stop(), 0);
  const std::string& log = host.Output();
  unsigned long frames = 0, refused = 0;
  ASSERT_EQ(std::sscanf(log.c_str() + std::min(log.size(), log.find("frames from peers ")),
                        "frames from peers %lu, refused %lu", &frames, &refused), 2) << log;
  EXPECT_EQ(refused, malformed) << "the stranger's and the plain client's never reached a decoder";
  const std::string refusal = "refused CURVE key " + Key("stranger.public");
  EXPECT_NE(log.find(refusal), std::string::npos) << log;
  EXPECT_EQ(log.find(refusal), log.rfind(refusal)) << "a refused key is logged once";
}

}  // namespace
}  // namespace kt_net_test
