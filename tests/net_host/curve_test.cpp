// CURVE on real sockets: a ROUTER made a CURVE server with its allow-list
// checked by the ZAP handler, met by DEALERs with the allowed key, an unknown
// key, no CURVE at all, and a pinned server key that is not the server's.
#include "net_transport/curve.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "raw_zmq.h"

namespace kt_net {
namespace {

using namespace MetricsFramework;

using kt_net_test::Context;
using kt_net_test::Socket;
using kt_net_test::TempDir;

constexpr int kEventTimeoutMs = 5000;

class CurveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir.Path().empty());
    for (const char* name : {"server", "client", "stranger"}) {
      std::string pub, sec, error;
      ASSERT_TRUE(WriteKeyPair(dir.Path(), name, &pub, &sec, &error)) << error;
    }
    std::ofstream(File("allow")) << "# the one client\n" << Key("client.public") << "\n";
  }
  std::string File(const std::string& name) const { return dir.Path() + "/" + name; }
  std::string Key(const std::string& name) const {
    std::string key, error;
    EXPECT_TRUE(ReadKeyFile(File(name), &key, &error)) << error;
    return key;
  }
  CurveConfig Config(const std::vector<std::pair<const char*, std::string>>& keys) const {
    CurveConfig config;
    std::string error;
    for (const auto& key : keys) {
      EXPECT_EQ(config.Set(key.first, File(key.second).c_str(), &error), KT_STATUS_SUCCESS)
          << error;
    }
    return config;
  }

  // The next handshake event of the monitored server: true for success.
  static bool HandshakeSucceeded(Socket& monitor) {
    const std::vector<std::string> event = monitor.Receive(kEventTimeoutMs);
    EXPECT_EQ(event.size(), 2u) << "no handshake event";
    if (event.empty() || event[0].size() < 2) return false;
    const uint16_t id = static_cast<uint8_t>(event[0][0]) | static_cast<uint8_t>(event[0][1]) << 8;
    return id == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
  }

  TempDir dir;
};

TEST_F(CurveTest, OnlyAnAllowedKeyWithThePinnedServerKeyGetsAMessageThrough) {
  struct Row {
    const char* client;
    std::vector<std::pair<const char*, std::string>> keys;  // none: a plain client
    bool delivered;
    unsigned long refusedByZap;
  };
  const Row rows[] = {
      {"allowed key", {{"curve-secret-key", "client.secret"}, {"curve-server-key", "server.public"}},
       true, 0},
      {"unknown key",
       {{"curve-secret-key", "stranger.secret"}, {"curve-server-key", "server.public"}}, false, 1},
      {"plain client", {}, false, 0},
      {"wrong server key pinned",
       {{"curve-secret-key", "client.secret"}, {"curve-server-key", "stranger.public"}}, false, 0},
  };
  const CurveConfig server =
      Config({{"curve-secret-key", "server.secret"}, {"curve-allow", "allow"}});
  std::string error;
  ASSERT_TRUE(server.Check(true, &error)) << error;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.client);
    Context context;
    ZapHandler zap(nullptr);
    ASSERT_TRUE(zap.Start(context.Get(), server.Allowed(), &error)) << error;
    Socket router(context, ZMQ_ROUTER);
    ASSERT_TRUE(server.ApplyServer(router.Get(), &error)) << error;
    ASSERT_EQ(zmq_socket_monitor(router.Get(), "inproc://monitor",
                                 ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH |
                                     ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                                     ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL),
              0);
    Socket monitor(context, ZMQ_PAIR);
    ASSERT_TRUE(monitor.Connect("inproc://monitor"));
    const std::string endpoint = router.Bind("tcp://127.0.0.1:*");
    ASSERT_FALSE(endpoint.empty());

    Socket dealer(context, ZMQ_DEALER);
    if (!row.keys.empty()) {
      ASSERT_TRUE(Config(row.keys).ApplyClient(dealer.Get(), &error)) << error;
    }
    ASSERT_TRUE(dealer.Connect(endpoint));
    ASSERT_TRUE(dealer.Send({"hello"}));

    EXPECT_EQ(HandshakeSucceeded(monitor), row.delivered);
    const std::vector<std::string> got = router.Receive(row.delivered ? kEventTimeoutMs : 200);
    EXPECT_EQ(got.size() == 2 && got[1] == "hello", row.delivered);
    EXPECT_EQ(zap.Refused(), row.refusedByZap);
    zmq_socket_monitor(router.Get(), nullptr, 0);
  }
}

TEST_F(CurveTest, KeygenWritesAPrivateSecretAndNeverOverwrites) {
  struct stat secret {};
  ASSERT_EQ(stat(File("server.secret").c_str(), &secret), 0);
  EXPECT_EQ(secret.st_mode & 0777, 0600u);
  const std::string before = Key("server.secret");
  std::string pub, sec, error;
  EXPECT_FALSE(WriteKeyPair(dir.Path(), "server", &pub, &sec, &error));
  EXPECT_NE(error.find("exists"), std::string::npos) << error;
  EXPECT_EQ(Key("server.secret"), before);
}

TEST_F(CurveTest, ConfigurationRefusesKeysThatDoNotFit) {
  std::ofstream(File("garbage")) << "not a key\n";
  struct Row {
    const char* key;
    std::string file;
    KT_STATUS status;
  };
  const Row rows[] = {
      {"curve-secret-key", "missing", KT_STATUS_INVALID_ARGUMENT},
      {"curve-allow", "garbage", KT_STATUS_INVALID_ARGUMENT},
      {"curve-public-key", "client.public", KT_STATUS_INVALID_ARGUMENT},  // not server's
      {"curve-secrets", "server.secret", KT_STATUS_DOES_NOT_EXIST},
  };
  for (const Row& row : rows) {
    CurveConfig config = Config({{"curve-secret-key", "server.secret"}});
    std::string error;
    EXPECT_EQ(config.Set(row.key, File(row.file).c_str(), &error), row.status) << row.key;
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(config.PublicKey(), Key("server.public")) << row.key;
  }
  std::string error;
  EXPECT_FALSE(Config({{"curve-secret-key", "server.secret"}}).Check(true, &error));
  EXPECT_FALSE(Config({{"curve-server-key", "server.public"}}).Check(false, &error));
}

}  // namespace
}  // namespace kt_net
