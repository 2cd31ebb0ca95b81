// The transport's link figures as a client meets them: metrics of the
// transport's publisher node, described by the value convention, whose
// samples follow a link to a kt-host process through its calls, the peer's
// death and its restart, after which the old link's conduit is freed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kt/value_convention.h"
#include "net_host.h"
#include "raw_zmq.h"
#include "served_host.h"
#include "support/fakes.h"

namespace {

using namespace MetricsFramework;
using namespace MetricsFramework::ValueConvention;
using kt_net_test::ServedHost;
using kt_net_test::TempDir;
using net_test::PathHandle;

// The kt-host peers take libzmq on trust under the thread sanitizer, as this
// process does (net_host.cpp); other builds ignore the variable.
const bool g_peersSuppress = [] {
  const char* options = getenv("TSAN_OPTIONS");
  const std::string value = std::string(options != nullptr ? options : "") +
                            ":suppressions=" KT_ZMQ_TSAN_SUPPRESSIONS;
  return setenv("TSAN_OPTIONS", value.c_str(), 1) == 0;
}();

// Keeps the last sample of each metric; samples come on the transport's thread.
class LastSamples : public IConsumer {
 public:
  void OnMetricUpdated(unsigned int count, unsigned long* handles, const unsigned long*,
                       const void** data, unsigned long* sizes) override {
    std::lock_guard<std::mutex> hold(m_mutex);
    for (unsigned int i = 0; i < count; ++i) {
      m_last[handles[i]].assign(static_cast<const char*>(data[i]), sizes != nullptr ? sizes[i] : 8);
    }
  }
  std::string Last(unsigned long handle) {
    std::lock_guard<std::mutex> hold(m_mutex);
    return m_last[handle];
  }

 private:
  std::mutex m_mutex;
  std::map<unsigned long, std::string> m_last;
};

class LinkFiguresTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(host.Open(KT_LIBRARY_PATH, KT_NET_MODULE_PATH)) << host.Error();
    // kt-host beats every 500 ms: this side must not hear silence sooner.
    const std::pair<const char*, const char*> settings[] = {
        {"listen", ""},       {"connect", ""},         {"serve", "browse"}, {"name", "local"},
        {"mount", "dialled"}, {"heartbeat-ms", "500"}, {"deadline-ms", "300"}, {"grace-ms", "800"}};
    for (const auto& [key, value] : settings) ASSERT_EQ(host.Configure(key, value), 0) << key;
    // The consumer's conduit is filed through the loader on first use.
    loader.manager = GetExtensionManager();
    ASSERT_EQ(loader.manager->Add(ExtensionBinaryDesc{}, "LastSamples", &samples, &loader), 0);
  }
  void TearDown() override {
    if (loader.manager != nullptr) {
      loader.manager->Remove(ExtensionBinaryDesc{}, "LastSamples", &samples, &loader);
    }
    host.Stop();
  }
  Metric::Description Described(const std::string& figure) {
    Metric::Description desc;
    host.Client()->GetMetricDescriptor(PathHandle(host.Client(), kNode + figure), &desc);
    return desc;
  }
  // The figure's last sample, -1 before the first.
  double Figure(const std::string& figure) {
    const std::string bytes = samples.Last(PathHandle(host.Client(), kNode + figure));
    double value = -1;
    Decode(EncodingOf(Described(figure)), bytes.data(), bytes.size(), &value);
    return value;
  }
  // Whether `done` holds within ten seconds.
  template <typename Done>
  static bool Within(Done done) {
    for (int i = 0; i < 200 && !done(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
  }

  const std::string kNode = "publishers/NetTransport/";  // the figures' node
  net_test::NetHost host;
  testing_fakes::HostLoader loader;
  LastSamples samples;
};

TEST_F(LinkFiguresTest, FiguresFollowCallsAKilledPeerAndTheRestartThatFreesItsConduit) {
  const TempDir dir;
  const std::string endpoint = "ipc://" + dir.Path() + "/peer";
  auto peer = std::make_unique<ServedHost>();
  ASSERT_TRUE(peer->Start({"serve", "--listen", endpoint})) << peer->Output();
  ASSERT_EQ(host.Configure("connect", endpoint), 0);
  ASSERT_EQ(host.Start(), 0);
  const unsigned long node = PathHandle(host.Client(), kNode);
  unsigned int count = 0;
  ASSERT_EQ(host.Client()->GetChildCount(node, &count), 0);
  std::vector<unsigned long> figures(count);
  ASSERT_EQ(host.Client()->GetChildren(node, figures.data(), count), 0);
  for (unsigned long figure : figures) {
    ASSERT_EQ(host.Client()->SubscribeMetric(samples.GetHandle(), figure), 0);
  }
  const std::tuple<const char*, const char*, Encoding, Type> rows[] = {
      {"links_up", "", kEncodingUnsigned, kTypeGauge},
      {"calls", "", kEncodingUnsigned, kTypeCounter},
      {"received_bytes", "B", kEncodingUnsigned, kTypeCounter},
      {"round_trip", "ms", kEncodingDouble, kTypeGauge}};
  for (const auto& [figure, unit, encoding, type] : rows) {
    const Metric::Description d = Described(figure);
    EXPECT_TRUE(!d.text1.empty() && d.text2 == unit && EncodingOf(d) == encoding && TypeOf(d) == type)
        << figure;
  }

  // Calls across the link move the calls and the frames each way.
  ASSERT_TRUE(Within([&] {
    return Figure("links_up") == 1 && Figure("conduits_alive") == 1 &&
           PathHandle(host.Client(), "peers") != 0;
  }));
  const double calls = Figure("calls"), sent = Figure("sent_frames"),
               received = Figure("received_frames");
  const unsigned long root = static_cast<unsigned long>(peer->Guid()) << 32;
  for (int i = 0; i < 5; ++i) ASSERT_EQ(host.Client()->GetChildCount(root, &count), 0);
  EXPECT_TRUE(Within([&] {
    return Figure("calls") >= calls + 5 && Figure("sent_frames") >= sent + 5 &&
           Figure("received_frames") >= received + 5 && Figure("round_trip") > 0;
  })) << Figure("calls") << " calls, " << Figure("sent_frames") << " frames sent";
  EXPECT_EQ(Figure("calls_failed"), 0);

  peer.reset();  // SIGKILL
  EXPECT_EQ(host.Client()->GetChildCount(root, &count), KT_STATUS_NOT_AVAILABLE);
  EXPECT_TRUE(Within([&] {
    return Figure("links_up") == 0 && Figure("links_down") >= 1 && Figure("calls_failed") >= 1;
  }));

  // The restarted peer gets a link and a conduit of its own; the old link's
  // conduit is freed once the link is gone.
  peer = std::make_unique<ServedHost>();
  ASSERT_TRUE(peer->Start({"serve", "--listen", endpoint})) << peer->Output();
  EXPECT_TRUE(Within([&] {
    return Figure("links_up") == 1 && PathHandle(host.Client(), "conduits/NetLink-2") != 0 &&
           Figure("conduits_alive") == 1;
  })) << Figure("conduits_alive") << " conduits alive";
}

}  // namespace
