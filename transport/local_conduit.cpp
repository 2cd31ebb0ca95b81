#include "transport/local_conduit.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "foundation/diagnostics.h"
#include "kt/extension_manager.h"

namespace MetricsFramework {

LocalConduit::LocalConduit() : self(this), refillCount(8) {}

LocalConduit::~LocalConduit() {
  // A pointer given back twice sits in the pool twice, and may be live as
  // well: every buffer is freed exactly once.
  std::set<IReadWriteBuffer*> owned(liveBuffers);
  owned.insert(freeBuffers.begin(), freeBuffers.end());
  for (IReadWriteBuffer* buffer : owned) delete buffer;
}

void LocalConduit::OnSubscribed(unsigned long) {}

void LocalConduit::OnUnsubscribed(unsigned long) {}

KT_STATUS LocalConduit::CreateBuffer(unsigned long bindingHandle, IReadWriteBuffer** outBuffer) {
  if (outBuffer == nullptr) return Fail(KT_STATUS_INVALID_ARGUMENT, "outBuffer");
  IReadWriteBuffer* buffer = nullptr;
  {
    std::unique_lock<std::mutex> hold(poolMutex);
    while (freeBuffers.empty()) {
      // Made outside the lock: a new buffer looks up the conduit's node in
      // the registry, and the pool mutex stays a leaf. Two threads refilling
      // at once both add their batch.
      hold.unlock();
      std::vector<std::unique_ptr<IReadWriteBuffer>> batch;
      for (int i = 0; i < refillCount; ++i) batch.emplace_back(allocator.Alloc(self));
      hold.lock();
      for (auto& made : batch) freeBuffers.push_back(made.release());
    }
    buffer = freeBuffers.front();
    freeBuffers.pop_front();
    liveBuffers.insert(buffer);
  }
  // The buffer is ours alone now: no other caller can take it from the pool.
  allocator.Reset(buffer, bindingHandle);
  *outBuffer = buffer;
  return KT_STATUS_SUCCESS;
}

void LocalConduit::DestroyBuffer(IReadWriteBuffer* buffer) {
  if (buffer == nullptr) return;  // would otherwise be handed out as a buffer
  std::lock_guard<std::mutex> hold(poolMutex);
  // A buffer that is neither lent nor pooled was not made here. Taken into
  // the pool it would be lent out as one of ours and freed with the conduit,
  // a second time if its owner frees it too, so it is left alone.
  if (liveBuffers.erase(buffer) == 0 &&
      std::find(freeBuffers.begin(), freeBuffers.end(), buffer) == freeBuffers.end()) {
    return;
  }
  freeBuffers.push_back(buffer);
}

KT_STATUS LocalConduit::Transact(unsigned long methodHandle, const IReadBuffer* request,
                                 IWriteBuffer* reply) {
  IExtensionManager* manager = GetExtensionManager();
  if (manager == nullptr) return Fail(KT_STATUS_INVALID_OPERATION, "extensionManager");
  return manager->DispatchRemoteMethod(methodHandle, request, reply);
}

unsigned long LocalConduit::GetRemoteHandle() { return GetHandle(); }

}  // namespace MetricsFramework
