// DefaultExtensionManager: the hub of the framework. The host hands it every
// extension it loads; the manager files the extension in its Registry under
// one branch per role ("publishers", "loggers", "conduits", "consumers",
// "methods"), wraps it in the role's state object, tells it its handle through
// IKTExtensionBase::Load and announces it to the state listeners. Extensions
// then publish metrics and probe types, push samples and dispatch remote
// calls through it; it finds the caller's node by handle and hands the request
// to the state object there.
//
// Ownership: the host owns the extensions and the client manager; the manager
// owns its registry and every state object in it. The host removes its
// extensions and destroys the client manager before it destroys the manager.
//
// Threads: Add and Remove are expected from the host's loading thread, and
// state listeners must be registered before extensions run; the routers and
// Log may be called from any thread (the tree's node locks protect them).
#ifndef KT_HOST_DEFAULT_EXTENSION_MANAGER_H_
#define KT_HOST_DEFAULT_EXTENSION_MANAGER_H_

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "registry/registry_manager.h"
#include "kt/extension.h"
#include "registry/registry.h"

namespace MetricsFramework {

class DefaultClientManager;
class IRemoteMethod;
class PathData;
class PublisherState;

class DefaultExtensionManager : public IRegistryManager {
 public:
  DefaultExtensionManager();
  // Tears the registry down: notifications off, every state object destroyed.
  // No extension is told.
  ~DefaultExtensionManager() override;
  DefaultExtensionManager(const DefaultExtensionManager&) = delete;
  DefaultExtensionManager& operator=(const DefaultExtensionManager&) = delete;

  // The export table's first row: a new manager, which becomes the
  // process-wide one returned by GetExtensionManager().
  static DefaultExtensionManager* Create();
  // The export table's second row: a client manager on the process-wide
  // manager's registry, recorded as that manager's client manager; null when
  // no manager has been created.
  static DefaultClientManager* CreateClientManager();

  // Answers "IExtensionHandler" and "IExtension" only.
  void* CastTo(const char* name) override;
  // Files `extension`, named `name` (taken whole), under every role it plays:
  // publisher, logger, conduit, consumer, remote method, in that order. Loads
  // it with the handle of its first role and announces it (event 1; a logger
  // or conduit role silences the later roles). Keeps the first loader it is
  // given, for itself and the client manager. KT_STATUS_SUCCESS, also for a
  // client manager, which is filed nowhere; KT_STATUS_ALREADY_EXISTS when a
  // role's branch has the name already (earlier roles stay filed);
  // KT_STATUS_UNSUPPORTED_EXTENSION for no role; KT_STATUS_INVALID_ARGUMENT
  // for a null extension or name.
  KT_STATUS Add(const ExtensionBinaryDesc& desc, const char* name, IExtension* extension,
                IExtensionLoader* loader) override;
  // Removes what Add filed, conduits first and the publisher last (told
  // OnUnload before its node goes), then unloads the extension. Always
  // KT_STATUS_SUCCESS; an extension without extension base is left alone.
  KT_STATUS Remove(const ExtensionBinaryDesc& desc, const char* name, IExtension* extension,
                   IExtensionLoader* loader) override;

  // The routers find the caller's state by handle (a publisher's is the one
  // it was given at Load) and hand the request over. KT_STATUS_INVALID_ARGUMENT
  // for a required argument that is null (or a zero handle), checked first;
  // KT_STATUS_INVALID_OBJECT when the handle names no state of the right
  // kind; otherwise the state's own status.
  KT_STATUS PublishMetric(IPublisher* owner, const Metric::Description& desc,
                          unsigned long* out_metricHandle) override;
  KT_STATUS UnpublishMetric(IPublisher* owner, unsigned long metricHandle) override;
  KT_STATUS PublishGroupOrder(IPublisher* publisher, std::vector<std::string>& order) override;
  KT_STATUS PublishSetNames(
      IPublisher* publisher,
      const std::vector<std::pair<unsigned int, std::string>>& names) override;
  KT_STATUS PushDataToConsumers(unsigned long conduitHandle, unsigned long bindingHandle,
                                const IReadBuffer* data) override;
  KT_STATUS DispatchRemoteMethod(unsigned long handle, const IReadBuffer* args,
                                 IWriteBuffer* returns) override;
  KT_STATUS PublishProbe(IProbePublisher* publisher, const ProbeDesc& desc,
                         unsigned long* out_query) override;
  KT_STATUS UnpublishProbe(IProbePublisher* publisher, unsigned long query) override;
  // Calls every state listener, in the order of their addresses, unless the
  // registry's notifications are off.
  void NotifyState(unsigned int event, unsigned long a, unsigned long b) override;
  // Formats one line (at most 1023 characters; one of 1 to 1022 characters
  // gets a closing line feed when it has none) and hands it to every logger.
  // KT_STATUS_INVALID_OPERATION when no logger branch was ever made;
  // otherwise KT_STATUS_SUCCESS, also when formatting fails (nothing is
  // delivered then). An exception from a logger passes through.
  KT_STATUS Log(unsigned int level, const char* source, const char* format, ...) override;
  Registry& GetRegistry() override { return m_registry; }
  // True for this class itself only: a class derived from it may route pushes
  // elsewhere.
  bool PushesEndAtConduitNodes() const override;

  // True when the root has a child `branch` that has a child `name`.
  bool ExtensionAlreadyExists(const char* branch, const char* name);
  // Destroys the node `name` of the branch `branch` (made empty when
  // missing), telling the listeners (event 2) when `notify` is true.
  void DestroyObject(const char* branch, const char* name, bool notify);

  DefaultClientManager* GetClientManager() const { return m_clientManager; }

 private:
  // What one Add files each role of an extension with.
  struct Filing {
    const char* name;
    unsigned long descriptor;  // ExtensionBinaryDesc::m_descriptor
    IExtensionLoader* loader;
  };
  // Files one role of an extension: the node `filing.name` in `branch` (both
  // made with `flags`), the state `build` puts on it, the descriptor word in
  // that state; then Load on `face` and, when `announce`, event 1.
  // KT_STATUS_ALREADY_EXISTS when the branch has the name already,
  // KT_STATUS_NON_UNIQUE when no node can be made; nothing is changed then.
  // On success *out_node (when given) is the node.
  KT_STATUS FileRole(const Filing& filing, const char* branch, unsigned char flags,
                     IKTExtensionBase* face, bool announce,
                     const std::function<PathData*(Path*)>& build, Path** out_node = nullptr);
  // Files the remote-method role, with the method's description, and links a
  // client command method under the well-known handle.
  KT_STATUS FileMethod(const Filing& filing, IExtension* extension, IRemoteMethod* method,
                       unsigned char flags, bool announce);
  // Add and Remove without the boundary that stops an extension's throw.
  KT_STATUS AddRoles(const ExtensionBinaryDesc& desc, const char* name, IExtension* extension,
                     IExtensionLoader* loader);
  KT_STATUS RemoveRoles(const char* name, IExtension* extension);
  // Runs `body`, a call named `call` into the extension `name`. When it
  // throws, writes one line naming both (to the log and to the loggers) and
  // returns KT_STATUS_INVALID_OPERATION; otherwise KT_STATUS_SUCCESS.
  template <typename Call>
  KT_STATUS CallInto(const char* name, const char* call, Call&& body);
  // Calls the publisher's OnLoad, framed by the console trace when it is on;
  // KT_STATUS_INVALID_OPERATION when it throws.
  KT_STATUS CallOnLoad(IPublisher* publisher, const char* name);
  // The state filed under the publisher's handle; null when there is none.
  PublisherState* PublisherStateOf(IPublisher* publisher);

  IExtensionLoader* m_loader;
  Registry m_registry;
  DefaultClientManager* m_clientManager;
  bool m_consoleTrace;
};

}  // namespace MetricsFramework

#endif  // KT_HOST_DEFAULT_EXTENSION_MANAGER_H_
