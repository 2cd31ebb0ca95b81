// An extension that throws from a call the library makes into it fails that
// call with a status; the library's locks are released and the host goes on.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "kt/consumer.h"
#include "kt/metric.h"
#include "kt/probe.h"
#include "kt/remote_method.h"
#include "support/fakes.h"
#include "support/harness.h"

namespace MetricsFramework {
namespace {

using testing_fakes::LiveManager;

// Throws from the call named in `throwing`; with "" it never throws.
class ThrowingProbe : public Metrics::IProbe {
 public:
  explicit ThrowingProbe(const std::string& throwing) : m_throwing(throwing) {}
  KT_STATUS Begin(unsigned long, unsigned long, Metrics::EventType, void*) override {
    if (m_throwing == "Begin") throw std::runtime_error("Begin");
    return 0;
  }
  KT_STATUS End(unsigned long, Metrics::EventType, void*) override { return 0; }
  KT_STATUS Handle() override { return 0; }

 private:
  const std::string& m_throwing;
};

// A publisher of one metric "m" and one probe type "p", a consumer and a
// remote method in one object: the roles whose calls the library guards.
class ThrowingExtension : public IProbePublisher, public IConsumer, public IRemoteMethod {
 public:
  void* CastTo(const char* name) override {
    Throw("CastTo");
    if (void* face = IProbePublisher::CastTo(name)) return face;
    if (void* face = IConsumer::CastTo(name)) return face;
    return IRemoteMethod::CastTo(name);
  }
  void Load(IExtensionManager* manager, IClientManager* client, unsigned long handle,
            IExtensionLoader* loader) override {
    Throw("Load");
    IKTExtensionBase::Load(manager, client, handle, loader);
  }
  void Unload() override {
    Throw("Unload");
    IKTExtensionBase::Unload();
  }
  void OnLoad() override {
    Throw("OnLoad");
    Metric::Description desc;
    desc.uri = "m";
    unsigned long handle = 0;
    GetExtensionManager()->PublishMetric(this, desc, &handle);
    ProbeDesc probe{"p", nullptr, 0};
    GetExtensionManager()->PublishProbe(this, probe, &handle);
  }
  void OnUnload() override { Throw("OnUnload"); }
  IBoundMetric* BindMetric(unsigned long, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    Throw("BindMetric");
    return &m_bound;
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override { Throw("UnbindMetric"); }
  Metrics::IProbe* CreateProbe(void*, unsigned long) override {
    Throw("CreateProbe");
    return &m_probe;
  }
  bool Run(const IReadBuffer*, IWriteBuffer*) override {
    Throw("Run");
    return true;
  }
  void GetRemoteMethodDesc(RemoteMethodDesc&) override {}
  void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                       unsigned long*) override {}

  std::string throwing;

 private:
  void Throw(const char* call) {
    if (throwing == call) throw std::runtime_error(std::string(call) + " failed");
  }
  testing_fakes::BoundMetric m_bound{0};
  ThrowingProbe m_probe{throwing};
};

class ExtensionThrowTest : public ::testing::Test {
 protected:
  unsigned long Handle(const char* path) {
    unsigned long handle = 0;
    live.client->GetPath(0, path, &handle);
    return handle;
  }
  KT_STATUS Subscribe() {
    return live.client->SubscribeMetric(Handle("consumers/x"), Handle("publishers/x/m"));
  }
  KT_STATUS CreateProbe() {
    return live.client->CreateProbe(Handle("publishers/x/probe_types/p"), nullptr, &probe);
  }

  unsigned long probe = 0;
  testing_fakes::HostBuffer buffer;

  LiveManager live;
  ThrowingExtension extension;
};

TEST_F(ExtensionThrowTest, AThrowFailsTheCallAndTheHostGoesOn) {
  struct Row {
    const char* call;                    // the extension's call that throws
    std::function<KT_STATUS()> prepare;  // runs before the call throws
    std::function<KT_STATUS()> act;
  };
  const auto none = [] { return KT_STATUS_SUCCESS; };
  const auto add = [&] { return live.Add("x", &extension); };
  const auto remove = [&] { return live.manager.Remove({}, "x", &extension, &live.loader); };
  const Row rows[] = {
      {"CastTo", none, add},
      {"Load", none, add},
      {"OnLoad", none, add},
      {"OnUnload", add, remove},
      {"Unload", add, remove},
      {"BindMetric", add, [&] { return Subscribe(); }},
      {"UnbindMetric", [&] { return add() | Subscribe(); },
       [&] { return live.client->UnsubscribeMetric(Handle("consumers/x"), Handle("publishers/x/m")); }},
      {"CreateProbe", add, [&] { return CreateProbe(); }},
      {"Run", add,
       [&] { return live.manager.DispatchRemoteMethod(Handle("methods/x"), &buffer, &buffer); }},
      {"Begin", [&] { return add() | CreateProbe(); },
       [&] { return live.client->BeginProbe(probe, 0, 0, Metrics::kEventNone, nullptr); }},
  };
  for (const Row& row : rows) {
    extension.throwing = "";
    ASSERT_EQ(row.prepare(), KT_STATUS_SUCCESS) << row.call;
    extension.throwing = row.call;

    EXPECT_EQ(row.act(), KT_STATUS_INVALID_OPERATION) << row.call;

    // From another thread: a lock the throw left held would stop it there.
    extension.throwing = "";
    ThrowingExtension other;
    std::thread later([&] {
      EXPECT_EQ(remove(), KT_STATUS_SUCCESS) << row.call;
      EXPECT_EQ(live.Add("y", &other), KT_STATUS_SUCCESS) << row.call;
      EXPECT_EQ(live.manager.Remove({}, "y", &other, &live.loader), KT_STATUS_SUCCESS) << row.call;
    });
    later.join();
  }
}

}  // namespace
}  // namespace MetricsFramework
