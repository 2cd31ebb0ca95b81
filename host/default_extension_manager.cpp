#include "host/default_extension_manager.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <typeinfo>

#include "client/default_client_manager.h"
#include "client/extension_call.h"
#include "foundation/diagnostics.h"
#include "foundation/logger.h"
#include "kt/client_manager.h"
#include "kt/conduit.h"
#include "kt/consumer.h"
#include "kt/logger.h"
#include "kt/probe.h"
#include "kt/publisher.h"
#include "kt/remote_method.h"
#include "remote/client_command_method.h"
#include "state/conduit_state.h"
#include "state/consumer_state.h"
#include "state/logger_state.h"
#include "state/method_state.h"
#include "state/metric_state.h"
#include "state/publisher_state.h"

namespace MetricsFramework {

namespace {

// Set by Create and never cleared here: the host owns every manager it made.
// Atomic because extensions read it from their own threads.
std::atomic<DefaultExtensionManager*> g_processExtensionManager{nullptr};

// The line Log hands to the loggers: at most 1023 characters and a NUL.
constexpr int kLogLineSize = 1024;

// Branches and nodes of an extension's roles: found or made, listed,
// registered; unlisted for a conduit, and for the other roles of an extension
// that is also a conduit.
constexpr unsigned char kListedNode = kPathCreate;
constexpr unsigned char kUnlistedNode = kPathCreate | kPathUnlisted;

// The face `name` of `extension`: a run-time cast first, then the extension's
// own answer, since a module built apart may not share our type information.
template <typename Face>
Face* FaceOf(IExtension* extension, const char* name) {
  if (extension == nullptr) return nullptr;
  if (auto* face = dynamic_cast<Face*>(extension)) return face;
  return static_cast<Face*>(extension->CastTo(name));
}

// The client command method: a run-time cast first, then its own answer to
// its class name, since a copy built into another module does not share our
// type information.
bool IsClientCommandMethod(IExtension* extension) {
  if (dynamic_cast<ClientCommandMethod*>(extension) != nullptr) return true;
  return extension->CastTo("ClientCommandMethod") != nullptr;
}

// The state filed under `handle`, when it is a `State`; null otherwise.
template <typename State>
State* StateAt(Registry& registry, unsigned long handle) {
  Path* node = registry.ResolveHandle(handle);
  return node != nullptr ? dynamic_cast<State*>(node->GetPayload()) : nullptr;
}

}  // namespace

DefaultExtensionManager::DefaultExtensionManager()
    : m_loader(nullptr), m_clientManager(nullptr), m_consoleTrace(false) {
  GetLogger().RegisterLogTag(KTString("DefaultExtensionManager"), LOG_LEVEL_ERROR);
  m_consoleTrace = ConsoleTraceRequested();
}

// Intended to be empty: ~Registry tears the tree down, once. Repeating its
// steps here would run the teardown twice. No extension is told, and the
// client manager belongs to the host.
DefaultExtensionManager::~DefaultExtensionManager() = default;

DefaultExtensionManager* DefaultExtensionManager::Create() {
  auto* manager = new DefaultExtensionManager();
  // An earlier manager is left alive: the host that made it still owns it.
  g_processExtensionManager.store(manager, std::memory_order_release);
  return manager;
}

DefaultClientManager* DefaultExtensionManager::CreateClientManager() {
  DefaultExtensionManager* manager = g_processExtensionManager.load(std::memory_order_acquire);
  // A host that skips the first row gets nothing rather than a client manager
  // without a registry.
  if (manager == nullptr) return nullptr;
  auto* client = new DefaultClientManager(manager->m_registry);
  manager->m_clientManager = client;
  return client;
}

// Only the names of something that accepts extensions: the manager has no
// extension base of its own, and its manager face is never asked for by name.
void* DefaultExtensionManager::CastTo(const char* name) {
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, "IExtensionHandler") == 0) return static_cast<IExtensionHandler*>(this);
  if (std::strcmp(name, "IExtension") == 0) return static_cast<IExtension*>(this);
  return nullptr;
}

template <typename Call>
KT_STATUS DefaultExtensionManager::CallInto(const char* name, const char* call, Call&& body) {
  std::string what;
  if (CallExtension(body, &what)) return KT_STATUS_SUCCESS;
  // The loggers hear of it too, since the global Logger keeps nothing; a
  // logger that throws as well is not heard.
  std::string ignored;
  CallExtension([&] { Log(1, "DefaultExtensionManager", "%s threw from %s: %s", name, call,
                          what.c_str()); }, &ignored);
  return Fail(KT_STATUS_INVALID_OPERATION, call, name, ": ", what.c_str());
}

KT_STATUS DefaultExtensionManager::Add(const ExtensionBinaryDesc& desc, const char* name,
                                       IExtension* extension, IExtensionLoader* loader) {
  if (extension == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "extension");
  if (name == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "instance_name");
  // Whatever the extension throws while it is filed (its CastTo, Load,
  // OnLoad, method description) fails the Add; the roles filed before stay,
  // as after any early return, for the host to Remove.
  KT_STATUS status = KT_STATUS_SUCCESS;
  const KT_STATUS thrown =
      CallInto(name, "Add", [&] { status = AddRoles(desc, name, extension, loader); });
  return thrown != KT_STATUS_SUCCESS ? thrown : status;
}

KT_STATUS DefaultExtensionManager::AddRoles(const ExtensionBinaryDesc& desc, const char* name,
                                            IExtension* extension, IExtensionLoader* loader) {
  if (m_loader == nullptr) {
    m_loader = loader;
    if (m_clientManager != nullptr) m_clientManager->m_loader = loader;
  }
  if (FaceOf<IClientManager>(extension, "IClientManager") != nullptr) return KT_STATUS_SUCCESS;

  const Filing filing{name, desc.m_descriptor, loader};
  bool filed = false;
  // Filed as a logger or a conduit in this call: the consumer and method
  // roles then go unannounced.
  bool silent = false;
  unsigned char laterFlags = kListedNode;
  KT_STATUS status;
  if (IPublisher* publisher = FaceOf<IPublisher>(extension, "IPublisher")) {
    status = FileRole(filing, "publishers", kListedNode, publisher, true,
                      [publisher](Path* at) { return new PublisherState(publisher, at); });
    if (status != KT_STATUS_SUCCESS) return status;
    status = CallOnLoad(publisher, name);
    if (status != KT_STATUS_SUCCESS) return status;
    filed = true;
  }
  if (ILogger* logger = FaceOf<ILogger>(extension, "ILogger")) {
    status = FileRole(filing, "loggers", kListedNode, logger, false,
                      [logger](Path* at) { return new LoggerState(logger, at); });
    if (status != KT_STATUS_SUCCESS) return status;
    filed = silent = true;
  }
  if (IConduit* conduit = FaceOf<IConduit>(extension, "IConduit")) {
    status = FileRole(filing, "conduits", kUnlistedNode, conduit, false,
                      [conduit](Path* at) { return new ConduitState(conduit, at); });
    if (status != KT_STATUS_SUCCESS) return status;
    filed = silent = true;
    laterFlags = kUnlistedNode;
  }
  if (IConsumer* consumer = FaceOf<IConsumer>(extension, "IConsumer")) {
    status = FileRole(filing, "consumers", laterFlags, consumer, !silent,
                      [consumer](Path* at) { return new ConsumerState(consumer, at); });
    if (status != KT_STATUS_SUCCESS) return status;
    filed = true;
  }
  if (IRemoteMethod* method = FaceOf<IRemoteMethod>(extension, "IRemoteMethod")) {
    return FileMethod(filing, extension, method, laterFlags, !silent);
  }
  return filed ? KT_STATUS_SUCCESS : KT_STATUS_UNSUPPORTED_EXTENSION;
}

KT_STATUS DefaultExtensionManager::FileRole(const Filing& filing, const char* branch,
                                            unsigned char flags, IKTExtensionBase* face,
                                            bool announce,
                                            const std::function<PathData*(Path*)>& build,
                                            Path** out_node) {
  if (ExtensionAlreadyExists(branch, filing.name)) return KT_STATUS_ALREADY_EXISTS;
  Path* parent = m_registry.GetChild(branch, flags);
  if (parent == nullptr) return Fail(KT_STATUS_NON_UNIQUE, "instance_name", filing.name);
  Path* node;
  {
    // The node and its state are made under the branch's write lock: whoever
    // walks the branch (Log, availability notices) must never meet the node
    // with its placeholder payload or with a state still being built.
    WriteGuard hold(parent->GetLock());
    // Instance names are taken whole, as the states look them up again.
    node = parent->GetChildNamed(filing.name, flags);
    if (node == nullptr) return Fail(KT_STATUS_NON_UNIQUE, "instance_name", filing.name);
    PathData* state = build(node);
    // The module's descriptor word; clients read it back with the node.
    state->m_data = filing.descriptor;
  }
  // `face` reaches the extension's one extension base through the role's
  // virtual base. Load keeps only its first values: an extension of several
  // roles keeps the handle of its first.
  const KT_STATUS status = CallInto(filing.name, "Load", [&] {
    face->Load(this, m_clientManager, node->GetHandle(), filing.loader);
  });
  if (status != KT_STATUS_SUCCESS) return status;
  if (announce) m_registry.NotifyStateListeners(kEventExtensionAdded, node->GetHandle(), 0);
  if (out_node != nullptr) *out_node = node;
  return KT_STATUS_SUCCESS;
}

KT_STATUS DefaultExtensionManager::FileMethod(const Filing& filing, IExtension* extension,
                                              IRemoteMethod* method, unsigned char flags,
                                              bool announce) {
  // The description belongs to the state: it is there before anyone can see
  // the node.
  auto build = [method](Path* at) {
    auto* state = new MethodState(method, at);
    state->LoadDesc();
    return state;
  };
  Path* node = nullptr;
  const KT_STATUS status = FileRole(filing, "methods", flags, method, announce, build, &node);
  if (status != KT_STATUS_SUCCESS) return status;
  if (IsClientCommandMethod(extension)) {
    // A peer reaches this method without having been told its handle.
    if (Path* handles = m_registry.GetChild("handles", 0)) {
      handles->AddAliasSymlink(kClientCommandHandle, node);
    }
  }
  return KT_STATUS_SUCCESS;
}

KT_STATUS DefaultExtensionManager::CallOnLoad(IPublisher* publisher, const char* name) {
  if (m_consoleTrace) {
    std::printf("    DefaultExtensionManager::Add: calling OnLoad on %s...", name);
  }
  std::fflush(stdout);
  const KT_STATUS status = CallInto(name, "OnLoad", [publisher] { publisher->OnLoad(); });
  if (m_consoleTrace) std::printf("...DONE\n");
  std::fflush(stdout);
  return status;
}

KT_STATUS DefaultExtensionManager::Remove(const ExtensionBinaryDesc&, const char* name,
                                          IExtension* extension, IExtensionLoader*) {
  // A throw of the extension's own unload calls does not stop the removal:
  // its nodes go all the same, and the status tells the host.
  KT_STATUS status = KT_STATUS_SUCCESS;
  const char* shown = name != nullptr ? name : "";
  const KT_STATUS thrown =
      CallInto(shown, "Remove", [&] { status = RemoveRoles(name, extension); });
  return thrown != KT_STATUS_SUCCESS ? thrown : status;
}

KT_STATUS DefaultExtensionManager::RemoveRoles(const char* name, IExtension* extension) {
  IKTExtensionBase* base = FaceOf<IKTExtensionBase>(extension, "IKTExtensionBase");
  if (base == nullptr) return KT_STATUS_SUCCESS;
  const char* shown = name != nullptr ? name : "";
  KT_STATUS status = KT_STATUS_SUCCESS;

  // Intended order, unlike Add's: conduits first, so that no data flows while
  // the rest goes; the publisher last, told before its node goes. Once a
  // conduit or logger role is gone, the later roles go unannounced.
  bool notify = true;
  if (FaceOf<IConduit>(extension, "IConduit") != nullptr) {
    DestroyObject("conduits", name, false);
    notify = false;
  }
  if (FaceOf<IConsumer>(extension, "IConsumer") != nullptr) {
    DestroyObject("consumers", name, notify);
  }
  if (FaceOf<IRemoteMethod>(extension, "IRemoteMethod") != nullptr) {
    DestroyObject("methods", name, notify);
  }
  if (FaceOf<ILogger>(extension, "ILogger") != nullptr) {
    DestroyObject("loggers", name, false);
    notify = false;
  }
  if (IPublisher* publisher = FaceOf<IPublisher>(extension, "IPublisher")) {
    status = CallInto(shown, "OnUnload", [publisher] { publisher->OnUnload(); });
    DestroyObject("publishers", name, notify);
  }
  const KT_STATUS unloaded = CallInto(shown, "Unload", [base] { base->Unload(); });
  return status != KT_STATUS_SUCCESS ? status : unloaded;
}

bool DefaultExtensionManager::ExtensionAlreadyExists(const char* branch, const char* name) {
  Path* parent = m_registry.GetChild(branch, 0);
  return parent != nullptr && parent->GetChildNamed(name, 0) != nullptr;
}

void DefaultExtensionManager::DestroyObject(const char* branch, const char* name, bool notify) {
  Path* parent = m_registry.GetChild(branch, kListedNode);
  if (parent == nullptr || name == nullptr) return;
  Path* node = parent->GetChildNamed(name, 0);
  if (node == nullptr) return;
  if (notify) m_registry.NotifyStateListeners(kEventExtensionRemoved, node->GetHandle(), 0);
  {
    // The node leaves its branch before it is destroyed: whoever walks the
    // branch (Log, availability notices) waits for this and then no longer
    // meets it, instead of meeting its state while it is freed. The branch is
    // not held during the destruction itself, which calls out to conduits
    // that may be waiting for a consumer that walks this branch.
    WriteGuard hold(parent->GetLock());
    if (parent->GetChildNamed(name, 0) != node) return;  // destroyed meanwhile
    parent->DetachChild(node);
  }
  delete node;
}

KT_STATUS DefaultExtensionManager::Log(unsigned int level, const char*, const char* format, ...) {
  Path* loggers = m_registry.GetChild("loggers", 0);
  if (loggers == nullptr) return KT_STATUS_INVALID_OPERATION;
  if (format == nullptr) return KT_STATUS_SUCCESS;

  char line[kLogLineSize];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (length < 0) return KT_STATUS_SUCCESS;
  // A cut line (1023 characters or more) is delivered as it stands, without
  // a line feed; so is an empty one.
  if (length >= 1 && length <= kLogLineSize - 2 && line[length - 1] != '\n') {
    line[length] = '\n';
    line[length + 1] = '\0';
  }

  // ForEachChild holds the branch's read lock while the loggers run and
  // releases it also when one of them throws; removing a logger waits for it.
  // Intended: what a logger throws reaches Log's caller.
  loggers->ForEachChild([&](Path* child) {
    auto* state = dynamic_cast<LoggerState*>(child->GetPayload());
    if (state != nullptr && state->GetLogger() != nullptr) state->GetLogger()->Log(level, line);
  });
  return KT_STATUS_SUCCESS;
}

PublisherState* DefaultExtensionManager::PublisherStateOf(IPublisher* publisher) {
  // Without a publisher there is no node to find (the group-order and
  // set-name routers check no arguments).
  if (publisher == nullptr) return nullptr;
  // The handle the publisher was given at Load, through its extension base.
  IKTExtensionBase* base = publisher;
  return StateAt<PublisherState>(m_registry, base->GetHandle());
}

KT_STATUS DefaultExtensionManager::PublishMetric(IPublisher* owner, const Metric::Description& desc,
                                                 unsigned long* out_metricHandle) {
  if (owner == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "owner");
  if (out_metricHandle == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_metricHandle");
  PublisherState* state = PublisherStateOf(owner);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "publisherPath");
  return state->PublishMetric(desc, out_metricHandle);
}

KT_STATUS DefaultExtensionManager::UnpublishMetric(IPublisher* owner, unsigned long metricHandle) {
  if (owner == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "owner");
  if (metricHandle == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "metricHandle");
  PublisherState* state = PublisherStateOf(owner);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "publisherPath");
  return state->UnpublishMetric(metricHandle);
}

KT_STATUS DefaultExtensionManager::PublishGroupOrder(IPublisher* publisher,
                                                     std::vector<std::string>& order) {
  PublisherState* state = PublisherStateOf(publisher);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "publisherPath");
  return state->PublishGroupOrder(order);
}

KT_STATUS DefaultExtensionManager::PublishSetNames(
    IPublisher* publisher, const std::vector<std::pair<unsigned int, std::string>>& names) {
  PublisherState* state = PublisherStateOf(publisher);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "publisherPath");
  return state->PublishSetNames(names);
}

KT_STATUS DefaultExtensionManager::PublishProbe(IProbePublisher* publisher, const ProbeDesc& desc,
                                                unsigned long* out_query) {
  if (publisher == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "publisher");
  if (out_query == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "out_query");
  PublisherState* state = PublisherStateOf(publisher);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "publisherPath");
  return state->PublishProbe(&desc, out_query);
}

KT_STATUS DefaultExtensionManager::UnpublishProbe(IProbePublisher* publisher, unsigned long query) {
  if (publisher == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "publisher");
  PublisherState* state = PublisherStateOf(publisher);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "publisherPath");
  return state->UnpublishProbe(query);
}

KT_STATUS DefaultExtensionManager::PushDataToConsumers(unsigned long conduitHandle,
                                                       unsigned long bindingHandle,
                                                       const IReadBuffer* data) {
  if (data == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "data");
  auto* state = StateAt<ConduitState>(m_registry, conduitHandle);
  // "data" is the name this failure has always been reported under.
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "data");
  return state->PushData(bindingHandle, data);
}

bool DefaultExtensionManager::PushesEndAtConduitNodes() const {
  return typeid(*this) == typeid(DefaultExtensionManager);
}

KT_STATUS DefaultExtensionManager::DispatchRemoteMethod(unsigned long handle,
                                                        const IReadBuffer* args,
                                                        IWriteBuffer* returns) {
  if (args == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "args");
  if (returns == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "returns");
  if (handle == 0) return Fail(KT_STATUS_INVALID_ARGUMENT, "handle");
  auto* state = StateAt<MethodState>(m_registry, handle);
  if (state == nullptr) return Fail(KT_STATUS_INVALID_OBJECT, "remotePath");
  // A method that throws fails as one whose Run answers false does.
  KT_STATUS status = KT_STATUS_SUCCESS;
  const KT_STATUS thrown = CallInto(state->m_path->GetName().c_str(), "Run",
                                    [&] { status = state->Dispatch(args, returns); });
  return thrown != KT_STATUS_SUCCESS ? thrown : status;
}

void DefaultExtensionManager::NotifyState(unsigned int event, unsigned long a, unsigned long b) {
  m_registry.NotifyStateListeners(event, a, b);
}

}  // namespace MetricsFramework

MetricsFramework::IExtensionManager* GetExtensionManager() {
  return MetricsFramework::g_processExtensionManager.load(std::memory_order_acquire);
}
