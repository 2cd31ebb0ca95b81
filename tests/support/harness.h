// What the in-process tests share beyond the fakes: a manager that records its
// pushes, a manager and client manager wired as a host wires them, and the
// table of refusals every public entry is checked with.
#ifndef KT_TESTS_SUPPORT_HARNESS_H_
#define KT_TESTS_SUPPORT_HARNESS_H_

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "registry/registry_manager.h"
#include "registry/registry.h"
#include "remote/client_command_method.h"
#include "state/peer_state.h"
#include "state/publisher_state.h"
#include "support/fakes.h"

namespace MetricsFramework {
namespace testing_fakes {

// A real extension manager whose pushes are recorded instead of routed: the
// sample is copied and (with `drain`) released.
class FakeManager : public DefaultExtensionManager {
 public:
  struct Push {
    unsigned long conduit;
    unsigned long binding;
    std::string sample;
  };
  KT_STATUS PushDataToConsumers(unsigned long conduit, unsigned long binding,
                                const IReadBuffer* data) override;

  Registry& registry = GetRegistry();
  bool drain = true;
  std::vector<Push> pushes;
};

// The far side of a peer mount: hands out a client manager, counts releases.
class FakePeer : public IPeer {
 public:
  explicit FakePeer(IClientManager* clientManager = nullptr) : clientManager(clientManager) {}
  void Release() override {}
  IClientManager* GetClientManager() override { return clientManager; }
  IClientManager* clientManager;
};

// Keeps the state events a registry sends, as (event, handle).
using Events = std::vector<std::pair<unsigned int, unsigned long>>;
struct EventLog {
  static void Record(void* context, unsigned int event, unsigned long a, unsigned long) {
    static_cast<EventLog*>(context)->events.emplace_back(event, a);
  }
  void Listen(Registry& registry) { registry.AddStateListener(&EventLog::Record, this); }
  Events events;
};

// A command method that serves with a given client manager (a manager built
// directly, not through the export table, hands its extensions none).
class LoadedCommandMethod : public ClientCommandMethod {
 public:
  void Load(IExtensionManager* manager, IClientManager*, unsigned long handle,
            IExtensionLoader* loader) override {
    ClientCommandMethod::Load(manager, client, handle, loader);
  }
  IClientManager* client = nullptr;
};

// An extension manager and its client manager wired as a host wires them.
// Members are declared so that the client manager goes before the manager
// whose registry it works on, and the extensions after both.
struct LiveManager {
  LiveManager();
  KT_STATUS Add(const char* name, IExtension* extension) {
    return manager.Add(ExtensionBinaryDesc{}, name, extension, &loader);
  }
  KT_STATUS Remove(const char* name, IExtension* extension) {
    return manager.Remove(ExtensionBinaryDesc{}, name, extension, &loader);
  }
  Registry& registry() { return manager.GetRegistry(); }
  unsigned long UnknownHandle();  // a handle of this registry that names no node
  // The payload of the node `handle` names, as a T; null when it is none.
  template <typename T>
  T* StateAt(unsigned long handle) {
    Path* node = registry().ResolveHandle(handle);
    return node != nullptr ? dynamic_cast<T*>(node->GetPayload()) : nullptr;
  }
  unsigned long Publish(IPublisher* publisher, const Metric::Description& d);  // its handle

  LoadedCommandMethod command;
  DefaultExtensionManager manager;
  HostLoader loader;
  std::unique_ptr<DefaultClientManager> client;
};

constexpr KT_STATUS kArgument = KT_STATUS_INVALID_ARGUMENT;
constexpr KT_STATUS kObject = KT_STATUS_INVALID_OBJECT;

// The argument the calling thread's last refusal named, then forgets it;
// "(none)" when none was named since.
std::string Refusal();
constexpr const char* kNone = "(none)";

// One row of a table of refusals: the call, the status it must return and the
// argument its refusal must name (null where only the status can be seen, as
// through the remote protocol).
struct RefusalCase {
  const char* entry;
  std::function<KT_STATUS()> call;
  KT_STATUS status;
  const char* argument;
};

// Runs every row; a failure names the row's call.
void ExpectRefusals(const std::vector<RefusalCase>& cases);

}  // namespace testing_fakes
}  // namespace MetricsFramework

// A row named by the text of its call.
#define REFUSAL(call, status, argument) \
  ::MetricsFramework::testing_fakes::RefusalCase{#call, [&] { return call; }, status, argument}

#endif  // KT_TESTS_SUPPORT_HARNESS_H_
