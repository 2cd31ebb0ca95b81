// MethodState: the payload of a remote method's node under "methods".
//
// It remembers the method extension (owned by the host, not by the state) and
// a copy of the method's description, empty until the extension manager loads
// it when it files the method. Dispatch runs on the caller's thread and takes
// no lock of its own: the method is expected to be reentrant. The description
// is written once, on the host's loading thread, before any call arrives.
#ifndef KT_STATE_METHOD_STATE_H_
#define KT_STATE_METHOD_STATE_H_

#include "kt/remote_method.h"
#include "kt/status.h"
#include "registry/path.h"
#include "registry/path_data.h"

namespace MetricsFramework {

class MethodState : public PathData {
 public:
  // Becomes `path`'s payload with resource type 128 and an empty description.
  MethodState(IRemoteMethod* method, Path* path);

  // Runs the method with the caller's buffers. KT_STATUS_SUCCESS when Run
  // answers true; KT_STATUS_INVALID_OPERATION when it answers false or there
  // is no method. Nothing is written to `returns` here, on either path.
  KT_STATUS Dispatch(const IReadBuffer* args, IWriteBuffer* returns);

  // Asks the method for its description and keeps it; does nothing without a
  // method.
  void LoadDesc();

  IRemoteMethod* GetMethod() const { return m_method; }
  const RemoteMethodDesc& GetDesc() const { return m_desc; }

 private:
  IRemoteMethod* m_method;
  RemoteMethodDesc m_desc;
};

}  // namespace MetricsFramework

#endif  // KT_STATE_METHOD_STATE_H_
