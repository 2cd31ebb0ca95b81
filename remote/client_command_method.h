// ClientCommandMethod: the serving side of the client-manager protocol. A
// peer's ClientManagerProxy sends it one request per client-manager call
// (docs/remote_records.md); Run performs the call on this process's
// DefaultClientManager through its private twins with routing off, so that a
// request that has crossed a process boundary is answered here and never sent
// on, and writes the reply records.
//
// The library exports it under the name "ClientCommandMethod"; the extension
// manager files it under "methods" as the method "command" and links it under
// the well-known handle kClientCommandHandle, through which a peer reaches it
// without knowing its handle. The host owns the object.
//
// Threads: Run is reentrant and keeps its state on the stack; it may run on
// any thread and on several at once. Locking is the client manager's.
#ifndef KT_REMOTE_CLIENT_COMMAND_METHOD_H_
#define KT_REMOTE_CLIENT_COMMAND_METHOD_H_

#include <string>

#include "kt/client_manager.h"
#include "kt/remote_method.h"

namespace MetricsFramework {

class DefaultClientManager;

class ClientCommandMethod : public IRemoteMethod {
 public:
  ClientCommandMethod() = default;

  // The export table's factory: a new method, owned by the caller.
  static IKTExtensionBase* Create();

  // Slot 0: "ClientCommandMethod" and "IRemoteMethod" answer this object;
  // "IKTExtensionBase" and "IExtension" its extension base; anything else
  // null.
  void* CastTo(const char* name) override;
  // Slot 1: serves one request of `request`, writing the reply records into
  // `reply` (any buffer classes will do). True when the operation succeeded.
  // False, with no reply written, for an unknown op, a missing client
  // manager, a payload that does not fit its request, an allocation failure
  // or calls nested too deep into this method; otherwise the failure's status
  // travels in the reply.
  bool Run(const IReadBuffer* request, IWriteBuffer* reply) override;
  // Slot 2: the name "command" and both words 0.
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override;

  // The handle of the root's child "peers" when `handle` is the root of the
  // client manager's registry and that child exists; 0 otherwise. Run hides
  // that node from a peer's listings of the root.
  static unsigned long GetLocalPeers(DefaultClientManager* cm, unsigned long handle);
};

// The reply of the resource query: a 64-byte record, its first 32 bytes zero
// and the words data, kind, parent and target at offsets 32, 40, 48 and 56,
// followed by the name's bytes and a NUL.
std::string EncodeResourceInfo(const ResourceInfo& info);
// Decodes `size` bytes of `record` into `*info`. False, with `*info`
// untouched, when the record is shorter than 64 bytes or its name has no NUL.
bool DecodeResourceInfo(const void* record, unsigned long size, ResourceInfo* info);

}  // namespace MetricsFramework

#endif  // KT_REMOTE_CLIENT_COMMAND_METHOD_H_
