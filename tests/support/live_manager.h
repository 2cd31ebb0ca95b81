// An extension manager and a client manager wired as a host wires them, for
// tests that drive the public entries end to end: a loader that files what
// the library registers through the manager, and a client command method
// loaded with the client manager (a manager built directly, not through the
// export table, hands its extensions none). Refusal() tells which argument
// the calling thread's last refusal named.
#ifndef KT_TESTS_SUPPORT_LIVE_MANAGER_H_
#define KT_TESTS_SUPPORT_LIVE_MANAGER_H_

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "foundation/diagnostics.h"
#include "remote/client_command_method.h"
#include "support/stub_loader.h"

namespace MetricsFramework {
namespace testing_fakes {

class HostLoader : public StubLoader {
 public:
  explicit HostLoader(DefaultExtensionManager& manager) : manager(manager) {}
  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc*) override {
    names[extension] = name;
    return manager.Add(ExtensionBinaryDesc{}, name, extension, this);
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    const std::string name = names[extension];
    names.erase(extension);
    return manager.Remove(ExtensionBinaryDesc{}, name.c_str(), extension, this);
  }
  DefaultExtensionManager& manager;
  std::map<IKTExtensionBase*, std::string> names;
};

class LoadedCommandMethod : public ClientCommandMethod {
 public:
  void Load(IExtensionManager* manager, IClientManager*, unsigned long handle,
            IExtensionLoader* loader) override {
    ClientCommandMethod::Load(manager, client, handle, loader);
  }
  IClientManager* client = nullptr;
};

// Members are declared so that the client manager goes before the manager
// whose registry it works on.
struct LiveManager {
  LiveManager() : loader(manager), client(new DefaultClientManager(manager.GetRegistry())) {
    client->m_loader = &loader;
    command.client = client.get();
  }
  KT_STATUS Add(const char* name, IExtension* extension) {
    return manager.Add(ExtensionBinaryDesc{}, name, extension, &loader);
  }
  unsigned long UnknownHandle() {
    return (static_cast<unsigned long>(manager.GetRegistry().GetLocalGuid()) << 32) | 0x5eed1234;
  }

  LoadedCommandMethod command;
  DefaultExtensionManager manager;
  HostLoader loader;
  std::unique_ptr<DefaultClientManager> client;
};

// The argument the calling thread's last refusal named, and forgets it;
// "(none)" when none was named since.
inline std::string Refusal() {
  const char* argument = TakeLastFailureArgument();
  return argument != nullptr ? argument : "(none)";
}

// One row of a table of refusals: the entry called, the call, the status it
// must return and the argument its refusal must name.
struct RefusalCase {
  const char* entry;
  std::function<KT_STATUS()> call;
  KT_STATUS status;
  const char* argument;  // "(none)" when the refusal names no argument
};

constexpr const char* kNone = "(none)";

// Runs every row; a failure names the row's entry.
inline void ExpectRefusals(const std::vector<RefusalCase>& cases) {
  for (const RefusalCase& c : cases) {
    Refusal();  // forget what came before
    EXPECT_EQ(c.call(), c.status) << c.entry;
    EXPECT_EQ(Refusal(), c.argument) << c.entry;
  }
}

}  // namespace testing_fakes
}  // namespace MetricsFramework

// A row named by the text of its call.
#define REFUSAL(call, status, argument) \
  ::MetricsFramework::testing_fakes::RefusalCase{#call, [&] { return call; }, status, argument}

#endif  // KT_TESTS_SUPPORT_LIVE_MANAGER_H_
