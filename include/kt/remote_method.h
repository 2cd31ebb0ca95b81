// SPDX-License-Identifier: Apache-2.0
//
// IRemoteMethod: the extension interface of a method that answers calls
// arriving as buffers, and RemoteMethodDesc, the record a method describes
// itself with.
//
// A remote method extension is owned by the host and filed under "methods"
// when the host adds it; the extension manager asks it once for its
// description and then routes every DispatchRemoteMethod call for its handle
// to Run. Run is called on the caller's thread, from any thread and from
// several at once, so implementations must be reentrant. The argument buffer
// belongs to the caller and is only read; the method writes its results into
// the return buffer, which also belongs to the caller.
//
// The slot numbers in the comments are a binary contract shared with
// separately compiled modules: never insert, remove or reorder.
#ifndef KT_REMOTE_METHOD_H_
#define KT_REMOTE_METHOD_H_

#include <cstddef>
#include <cstring>

#include "kt/buffer.h"
#include "kt/extension.h"
#include "kt/visibility.h"

namespace MetricsFramework {

// What a method tells the manager about itself; 520 bytes. The library reads
// only the name; the two words and the block between them are carried
// unread. A method that serves client-manager calls is named "command" with
// both words 0.
struct RemoteMethodDesc {
  char m_name[384] = {};               // offset 0: zero-terminated
  unsigned int m_inputCount = 0;       // offset 384: 0 when unset
  unsigned char m_reserved[128] = {};  // offset 388: not read by this library
  unsigned int m_outputCount = 0;      // offset 516: 0 when unset
};
static_assert(sizeof(RemoteMethodDesc) == 520, "a method description is 520 bytes");
static_assert(offsetof(RemoteMethodDesc, m_name) == 0 &&
                  offsetof(RemoteMethodDesc, m_inputCount) == 384 &&
                  offsetof(RemoteMethodDesc, m_reserved) == 388 &&
                  offsetof(RemoteMethodDesc, m_outputCount) == 516,
              "name at 0, words at 384 and 516, the unread block at 388");

class KT_EXPORT IRemoteMethod : public virtual IKTExtensionBase {
 public:
  // Slot 0: answers "IRemoteMethod" with this object, "IKTExtensionBase" and
  // "IExtension" with its extension base, and null for any other name.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IRemoteMethod") == 0) return static_cast<IRemoteMethod*>(this);
    return IKTExtensionBase::CastTo(name);
  }

  // Slot 1: serves one call. Reads the call's arguments from `args` and writes
  // its results into `returns`; true on success, false on failure, in which
  // case whatever the method wrote stays in `returns` as it left it. Neither
  // buffer is null when the manager calls.
  virtual bool Run(const IReadBuffer* args, IWriteBuffer* returns) = 0;

  // Slot 2: fills `desc` with this method's name and words. Called by the
  // extension manager once, when it files the method.
  virtual void GetRemoteMethodDesc(RemoteMethodDesc& desc) = 0;

  ~IRemoteMethod() override {}  // slots 3, 4
};

}  // namespace MetricsFramework

#endif  // KT_REMOTE_METHOD_H_
