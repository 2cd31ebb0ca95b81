#include "state/consumer_state.h"

#include <string>
#include <vector>

#include "foundation/diagnostics.h"
#include "foundation/logger.h"
#include "registry/registry.h"
#include "state/conduit_state.h"

namespace MetricsFramework {

IConsumer2* BatchedFaceOf(IConsumer* consumer) {
  if (consumer == nullptr) return nullptr;
  if (auto* batched = dynamic_cast<IConsumer2*>(consumer)) return batched;
  return static_cast<IConsumer2*>(consumer->CastTo("IConsumer2"));
}

ConsumerState::ConsumerState(IConsumer* consumer, Path* path)
    : PathData(path),
      consumer(consumer),
      conduitHandles(1),
      stateLock(true),
      isConsumer2(BatchedFaceOf(consumer) != nullptr),
      castFace(dynamic_cast<IConsumer2*>(consumer)) {
  conduitHandles.max_load_factor(1.0f);
  m_type = RESOURCE_TYPE_CONSUMER;
  GetLogger().RegisterLogTag("RegistryState", LOG_LEVEL_ERROR);
}

ConsumerState::~ConsumerState() {
  if (m_path == nullptr) return;
  Registry* registry = RegistryOf(m_path);
  // Copied under the lock and called out after it: the conduit side takes the
  // locks of its own subscriptions and waits for pushes in flight.
  std::vector<unsigned long> conduits;
  m_path->ForEachChild([&](Path* conduit) { conduits.push_back(conduit->GetHandle()); });
  for (unsigned long handle : conduits) {
    Path* conduit = registry != nullptr ? registry->ResolveHandle(handle) : nullptr;
    auto* state = conduit != nullptr ? dynamic_cast<ConduitState*>(conduit->GetPayload()) : nullptr;
    if (state != nullptr) state->Unsubscribe(m_path->GetHandle());
    m_path->RemoveSymlink(handle);  // in case the conduit side did not reach it
  }

  WriteGuard hold(stateLock);
  if (localConduit.GetHandle() == 0) return;
  conduitHandles.clear();
  // The local conduit's node goes before the conduit itself: its state holds
  // the conduit, and its bindings hold the conduit's buffers.
  Path* conduitBranch = registry != nullptr ? registry->GetChild("conduits", 0) : nullptr;
  Path* node = conduitBranch != nullptr
                   ? conduitBranch->GetChildNamed("LocalConduit_" + m_path->GetName(), 0)
                   : nullptr;
  if (node != nullptr && dynamic_cast<ConduitState*>(node->GetPayload()) != nullptr &&
      static_cast<ConduitState*>(node->GetPayload())->m_conduit == &localConduit) {
    delete node;
  }
  // While the registry is torn down, the loader is not asked (its manager is
  // going); otherwise it drops the extension, which it must never free.
  if (registry != nullptr && registry->NotificationsEnabled()) localConduit.Unregister();
}

IConsumer2* ConsumerState::GetBatchedFace() const {
  return castFace != nullptr ? castFace : BatchedFaceOf(consumer);
}

KT_STATUS ConsumerState::Subscribe(Path* conduitPath) {
  if (m_path->GetChild(conduitPath->GetHandle(), 0) != nullptr) {
    return Fail(KT_STATUS_INVALID_OBJECT, "conduitPath", conduitPath->GetHandle());
  }
  m_path->AddSymlink(conduitPath);
  return KT_STATUS_SUCCESS;
}

KT_STATUS ConsumerState::Unsubscribe(Path* conduitPath) {
  if (!m_path->RemoveSymlink(conduitPath->GetHandle())) {
    return Fail(KT_STATUS_INVALID_OBJECT, "conduitPath", conduitPath->GetHandle());
  }
  return KT_STATUS_SUCCESS;
}

unsigned long ConsumerState::GetConduitHandle(unsigned int guid) {
  {
    ReadGuard hold(stateLock);
    auto it = conduitHandles.find(guid);
    if (it != conduitHandles.end()) return it->second;
  }
  Registry* registry = RegistryOf(m_path);
  if (registry == nullptr || guid != registry->GetLocalGuid()) return 0;

  WriteGuard hold(stateLock);
  if (localConduit.GetHandle() == 0) {
    const std::string name = "LocalConduit_" + m_path->GetName();
    IExtensionLoader* loader = consumer != nullptr ? consumer->GetLoader() : nullptr;
    if (loader == nullptr) {
      LogUnder("RegistryState", "Can't create local conduit for ", name,
               " because there is no IExtensionLoader.");
      return 0;
    }
    if (loader->AddExtension(name.c_str(), &localConduit, nullptr) != KT_STATUS_SUCCESS) return 0;
  }
  conduitHandles[guid] = localConduit.GetHandle();
  return localConduit.GetHandle();
}

void ConsumerState::SetConduitHandle(unsigned int guid, unsigned long conduitHandle) {
  WriteGuard hold(stateLock);
  conduitHandles[guid] = conduitHandle;
}

KT_STATUS ConsumerState::FlushConduits() {
  ReadGuard hold(stateLock);
  Registry* registry = RegistryOf(m_path);
  Path* node = registry != nullptr ? registry->ResolveHandle(localConduit.GetHandle()) : nullptr;
  auto* state = node != nullptr ? dynamic_cast<ConduitState*>(node->GetPayload()) : nullptr;
  return state != nullptr ? state->FlushMetrics() : KT_STATUS_SUCCESS;
}

}  // namespace MetricsFramework
