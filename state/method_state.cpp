#include "state/method_state.h"

#include "foundation/diagnostics.h"

namespace MetricsFramework {

MethodState::MethodState(IRemoteMethod* method, Path* path)
    : PathData(path), m_method(method), m_desc() {
  m_type = RESOURCE_TYPE_REMOTE_METHOD;
}

KT_STATUS MethodState::Dispatch(const IReadBuffer* args, IWriteBuffer* returns) {
  if (m_method != nullptr && m_method->Run(args, returns)) return KT_STATUS_SUCCESS;
  // Without a method there is nothing to run; the caller gets the status of a
  // failed run rather than a crash.
  const unsigned long handle = m_path != nullptr ? m_path->GetHandle() : 0;
  return Fail(KT_STATUS_INVALID_OPERATION, "m_path->GetHandle()", handle);
}

void MethodState::LoadDesc() {
  if (m_method == nullptr) return;
  m_method->GetRemoteMethodDesc(m_desc);
}

}  // namespace MetricsFramework
