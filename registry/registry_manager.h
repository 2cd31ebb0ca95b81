// IRegistryManager: an extension manager that files everything in a Registry
// of this library. The library's own objects (queue buffers) reach the
// registry of their conduit's manager through it. It only appends an
// operation after the slots of IExtensionManager, which hosts and other
// modules see unchanged.
#ifndef KT_REGISTRY_REGISTRY_MANAGER_H_
#define KT_REGISTRY_REGISTRY_MANAGER_H_

#include "kt/extension_manager.h"
#include "registry/registry.h"

namespace MetricsFramework {

class IRegistryManager : public IExtensionManager {
 public:
  // Slot 15: the registry the manager files everything in.
  virtual Registry& GetRegistry() = 0;
  // Slot 16: whether PushDataToConsumers ends in the push of the payload
  // filed under the conduit's handle and does nothing else, so that a buffer
  // may go to that payload directly. False unless a manager says so.
  virtual bool PushesEndAtConduitNodes() const { return false; }
};

}  // namespace MetricsFramework

#endif  // KT_REGISTRY_REGISTRY_MANAGER_H_
