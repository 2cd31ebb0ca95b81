// A loader that files consumers and conduits the way the extension manager
// does, for tests that need the library's private extensions registered.
#ifndef KT_TESTS_SUPPORT_FILING_LOADER_H_
#define KT_TESTS_SUPPORT_FILING_LOADER_H_

#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/conduit.h"
#include "kt/consumer.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "support/fake_manager.h"
#include "support/stub_loader.h"

namespace MetricsFramework {
namespace testing_fakes {

// Files consumers under "consumers" with a ConsumerState and conduits under
// "conduits" with a ConduitState, then loads the extension with its node's
// handle; RemoveExtension deletes the node again (unless `keepNodes`) and
// unloads the extension. `addStatus` makes AddExtension refuse.
class FilingLoader : public StubLoader {
 public:
  explicit FilingLoader(FakeManager& manager) : manager(manager) {}

  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc*) override {
    added.push_back(name);
    if (addStatus != KT_STATUS_SUCCESS) return addStatus;
    Path* node = nullptr;
    if (auto* consumer = dynamic_cast<IConsumer*>(extension)) {
      node = Branch("consumers")->GetChildNamed(name, kPathCreate);
      new ConsumerState(consumer, node);
    } else if (auto* conduit = dynamic_cast<IConduit*>(extension)) {
      node = Branch("conduits")->GetChildNamed(name, kPathCreate);
      new ConduitState(conduit, node);
    } else {
      return KT_STATUS_UNSUPPORTED_EXTENSION;
    }
    extension->Load(&manager, clientManager, node->GetHandle(), this);
    return KT_STATUS_SUCCESS;
  }

  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    removed.push_back(extension);
    Path* node = manager.registry.ResolveHandle(extension->GetHandle());
    if (!keepNodes && node != nullptr && Holds(node, extension)) delete node;
    extension->Unload();
    return KT_STATUS_SUCCESS;
  }

  Path* Branch(const char* name) { return manager.registry.GetChild(name, kPathCreate); }

  static bool Holds(Path* node, IKTExtensionBase* extension) {
    auto* consumer = dynamic_cast<ConsumerState*>(node->GetPayload());
    auto* conduit = dynamic_cast<ConduitState*>(node->GetPayload());
    return (consumer != nullptr && consumer->GetConsumer() == dynamic_cast<IConsumer*>(extension)) ||
           (conduit != nullptr && conduit->m_conduit == dynamic_cast<IConduit*>(extension));
  }

  FakeManager& manager;
  IClientManager* clientManager = nullptr;
  KT_STATUS addStatus = KT_STATUS_SUCCESS;
  bool keepNodes = false;
  std::vector<std::string> added;
  std::vector<IKTExtensionBase*> removed;
};

}  // namespace testing_fakes
}  // namespace MetricsFramework

#endif  // KT_TESTS_SUPPORT_FILING_LOADER_H_
