// SPDX-License-Identifier: Apache-2.0
//
// The root of every extension (IExtension), the base class every extension of
// the framework derives from (IKTExtensionBase), the host's module loader
// (IExtensionLoader) and the host's description of a loaded module
// (ExtensionBinaryDesc).
//
// Interfaces are asked for by name: CastTo("IConsumer") answers a pointer to
// that face of the object, or null. Every extension answers its own interface
// names first and then "IKTExtensionBase" and "IExtension". Names are compared
// exactly, case included; a null name is no name and answers null.
//
// IKTExtensionBase records what the extension manager hands an extension when
// it files it: the manager, the client manager, the extension's registry handle
// and the loader. The first Load() wins; Unload() forgets the loader only.
// Load, Unload and the getters are plain accesses, made by the manager on the
// host's loading thread; Unregister() is safe from any thread and hands the
// extension back to its loader at most once.
//
// The virtual slot order of every interface here is a binary contract shared
// with separately compiled hosts and modules: never insert, remove or reorder.
// In every public header, slots are counted from 0, the first entry of the
// interface's table of virtual operations; a virtual destructor takes two.
#ifndef KT_EXTENSION_H_
#define KT_EXTENSION_H_

#include <cstddef>
#include <cstring>

#include "kt/lock.h"
#include "kt/status.h"
#include "kt/visibility.h"

namespace MetricsFramework {

class IClientManager;
class IExtensionManager;
class IExtensionLoader;

class KT_EXPORT IExtension {
 public:
  // Slot 0: the face named `name`, or null when the object has none or
  // `name` is null.
  virtual void* CastTo(const char* name) = 0;
  virtual ~IExtension() {}  // slots 1, 2
};

// The host's description of the module an extension came from. The library
// reads only the descriptor word at byte offset 256; the other fields are the
// host's.
struct ExtensionBinaryDesc {
  char m_path[256];             // offset 0: the module's file name
  unsigned long m_descriptor;   // offset 256: filed with every state object
  void* m_module;               // offset 264: the host's handle of the module
  const void* m_exportTable;    // offset 272: the module's export table
};
static_assert(offsetof(ExtensionBinaryDesc, m_descriptor) == 256,
              "the manager reads the descriptor word at byte 256");

class KT_EXPORT IKTExtensionBase : public IExtension {
 public:
  IKTExtensionBase()
      : m_extensionManager(nullptr), m_clientManager(nullptr), m_handle(0), m_loader(nullptr) {}
  IKTExtensionBase(const IKTExtensionBase&) = delete;
  IKTExtensionBase& operator=(const IKTExtensionBase&) = delete;

  // Slot 0: answers "IKTExtensionBase" and "IExtension" with this object.
  void* CastTo(const char* name) override {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IKTExtensionBase") == 0) return static_cast<IKTExtensionBase*>(this);
    if (std::strcmp(name, "IExtension") == 0) return static_cast<IExtension*>(this);
    return nullptr;
  }

  ~IKTExtensionBase() override {}  // slots 1, 2

  // Slot 3: records the four values unless a loader is already recorded; a
  // second Load never overwrites the first.
  virtual void Load(IExtensionManager* manager, IClientManager* clientManager,
                    unsigned long handle, IExtensionLoader* loader) {
    if (m_loader != nullptr) return;
    m_extensionManager = manager;
    m_clientManager = clientManager;
    m_handle = handle;
    m_loader = loader;
  }

  // Slot 4: forgets the loader; manager, client manager and handle stay.
  virtual void Unload() { m_loader = nullptr; }

  virtual IExtensionManager* GetExtensionManager() { return m_extensionManager; }  // slot 5
  virtual IClientManager* GetClientManager() { return m_clientManager; }           // slot 6
  virtual unsigned long GetHandle() { return m_handle; }                           // slot 7
  virtual operator unsigned long() { return m_handle; }                            // slot 8
  virtual IExtensionLoader* GetLoader() { return m_loader; }                       // slot 9

  // Slot 10: takes the loader out under the monitor and, outside it, asks that
  // loader to drop this extension. Runs the drop at most once however often it
  // is called.
  virtual void Unregister();

 private:
  IExtensionManager* m_extensionManager;
  IClientManager* m_clientManager;
  unsigned long m_handle;
  IExtensionLoader* m_loader;
  Monitor m_monitor;
};

// The host's loader of extension modules, implemented by the host and owned
// by it. The library calls only AddExtension (slot 7) and RemoveExtension
// (slot 8), from the thread of the client or the host that makes it register
// or drop a private extension; slots 2 to 6 are the host's own and the library
// never calls them.
class KT_EXPORT IExtensionLoader {
 public:
  virtual ~IExtensionLoader() {}                                        // slots 0, 1
  virtual KT_STATUS LoadModule(const char* path) = 0;                   // slot 2: never called
  virtual KT_STATUS UnloadModule(const char* path) = 0;                 // slot 3: never called
  virtual unsigned int GetModuleCount() = 0;                            // slot 4: never called
  virtual const ExtensionBinaryDesc* GetModule(unsigned int index) = 0; // slot 5: never called
  virtual IExtension* FindExtension(const char* name) = 0;              // slot 6: never called

  // Slot 7: files `extension` under `name` with the extension manager, which
  // gives it its handle through Load. `desc` is null for an extension that did
  // not come from a module of its own.
  virtual KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                                 const ExtensionBinaryDesc* desc) = 0;

  // Slot 8: removes `extension` from the extension manager and drops it.
  virtual KT_STATUS RemoveExtension(IKTExtensionBase* extension) = 0;
};

inline void IKTExtensionBase::Unregister() {
  m_monitor.Lock();
  IExtensionLoader* loader = m_loader;
  m_loader = nullptr;
  m_monitor.Unlock();
  // Outside the monitor: the loader may call back into this extension.
  if (loader != nullptr) loader->RemoveExtension(this);
}

}  // namespace MetricsFramework

#endif  // KT_EXTENSION_H_
