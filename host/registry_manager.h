// IRegistryManager: an extension manager that files everything in a Registry
// of this library. The library's own objects (queue buffers) reach the
// registry of their conduit's manager through it. It only appends an
// operation after the slots of IExtensionManager, which hosts and other
// modules see unchanged.
#ifndef KT_HOST_REGISTRY_MANAGER_H_
#define KT_HOST_REGISTRY_MANAGER_H_

#include "kt/extension_manager.h"
#include "registry/registry.h"

namespace MetricsFramework {

class IRegistryManager : public IExtensionManager {
 public:
  // Slot 15: the registry the manager files everything in.
  virtual Registry& GetRegistry() = 0;
};

}  // namespace MetricsFramework

#endif  // KT_HOST_REGISTRY_MANAGER_H_
