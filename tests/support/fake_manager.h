// A stand-in for the extension manager's routing, shared by the tests: it owns
// a Registry and records every push. With `route`, a push goes where the
// manager sends it, to the conduit state filed under the conduit's handle;
// otherwise the fake reads the oldest sample and (when `drain`) releases it.
// It records the last dispatch and answers it with `dispatchStatus`. Every
// other operation does nothing.
#ifndef KT_TESTS_SUPPORT_FAKE_MANAGER_H_
#define KT_TESTS_SUPPORT_FAKE_MANAGER_H_

#include <string>
#include <utility>
#include <vector>

#include "registry/registry_manager.h"
#include "kt/buffer.h"
#include "state/conduit_state.h"

namespace MetricsFramework {
namespace testing_fakes {

class FakeManager : public IRegistryManager {
 public:
  struct Push {
    unsigned long conduit;
    unsigned long binding;
    std::string sample;
  };
  struct Dispatch {
    unsigned long handle;
    const IReadBuffer* args;
    IWriteBuffer* returns;
  };

  KT_STATUS PushDataToConsumers(unsigned long conduit, unsigned long binding,
                                const IReadBuffer* data) override {
    if (route) {
      Path* node = registry.ResolveHandle(conduit);
      auto* state = node != nullptr ? dynamic_cast<ConduitState*>(node->GetPayload()) : nullptr;
      pushes.push_back({conduit, binding, ""});
      return state != nullptr ? state->PushData(binding, data) : KT_STATUS_INVALID_OBJECT;
    }
    const void* sample = nullptr;
    unsigned long size = 0;
    data->GetData(&sample, &size);
    const char* bytes = static_cast<const char*>(sample);
    pushes.push_back({conduit, binding, bytes != nullptr ? std::string(bytes, size) : ""});
    if (drain && sample != nullptr) data->MakeAvailable(sample);
    return KT_STATUS_SUCCESS;
  }
  KT_STATUS DispatchRemoteMethod(unsigned long handle, const IReadBuffer* args,
                                 IWriteBuffer* returns) override {
    dispatched = {handle, args, returns};
    return dispatchStatus;
  }
  Registry& GetRegistry() override { return registry; }

  void* CastTo(const char*) override { return nullptr; }
  KT_STATUS Add(const ExtensionBinaryDesc&, const char*, IExtension*, IExtensionLoader*) override {
    return 0;
  }
  KT_STATUS Remove(const ExtensionBinaryDesc&, const char*, IExtension*,
                   IExtensionLoader*) override {
    return 0;
  }
  KT_STATUS PublishMetric(IPublisher*, const Metric::Description&, unsigned long*) override {
    return 0;
  }
  KT_STATUS UnpublishMetric(IPublisher*, unsigned long) override { return 0; }
  KT_STATUS PublishGroupOrder(IPublisher*, std::vector<std::string>&) override { return 0; }
  KT_STATUS PublishSetNames(IPublisher*,
                            const std::vector<std::pair<unsigned int, std::string>>&) override {
    return 0;
  }
  KT_STATUS PublishProbe(IProbePublisher*, const ProbeDesc&, unsigned long*) override { return 0; }
  KT_STATUS UnpublishProbe(IProbePublisher*, unsigned long) override { return 0; }
  void NotifyState(unsigned int, unsigned long, unsigned long) override {}
  KT_STATUS Log(unsigned int, const char*, const char*, ...) override { return 0; }

  Registry registry;
  bool route = false;
  bool drain = true;
  std::vector<Push> pushes;
  Dispatch dispatched{};
  KT_STATUS dispatchStatus = KT_STATUS_SUCCESS;
};

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_SUPPORT_FAKE_MANAGER_H_
