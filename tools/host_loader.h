// HostLoader: kt-host's loader of extension modules. It opens the manager
// library and every module with dlopen, reads their export tables, creates
// the managers from the library's first two rows, and files every extension
// with the extension manager (IExtensionLoader, which the library also calls
// to file and drop the private extensions it makes).
//
// Ownership: the loader owns the modules it opened, the extensions their
// factories made, the extension manager and the client manager. Extensions
// that the library files through AddExtension stay the library's. Shutdown()
// removes every filed extension in the order the manager expects (conduits,
// consumers, methods, loggers, publishers), destroys the client manager, then
// the manager, then the extensions, and closes the modules and the library.
//
// Threads: everything here runs on the host's main thread, except that the
// library may call AddExtension and RemoveExtension from a client's thread;
// kt-host has no such client, so the loader keeps no lock.
#ifndef KT_TOOLS_HOST_LOADER_H_
#define KT_TOOLS_HOST_LOADER_H_

#include <memory>
#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/export_table.h"
#include "kt/extension.h"
#include "kt/extension_manager.h"

namespace kt_host {

class HostLoader : public MetricsFramework::IExtensionLoader {
 public:
  HostLoader() = default;
  ~HostLoader() override;
  HostLoader(const HostLoader&) = delete;
  HostLoader& operator=(const HostLoader&) = delete;

  // Opens the manager library at `path`, checks its table, creates the
  // extension manager (row 1) and the client manager (row 2) and adds the
  // client command method (row 3). On failure returns false and describes
  // the fault in Error(); nothing is left created.
  bool OpenLibrary(const std::string& path);
  // Opens the module at `path` and checks its table without creating
  // anything; false (and Error()) when it cannot be opened or has no valid
  // table.
  bool OpenModule(const std::string& path);
  // Creates and adds the extensions of every module opened so far and not yet
  // added. An extension the manager refuses is reported on standard error,
  // removed (what it had filed before the refusal) and destroyed; the others
  // stay. False when any was refused.
  bool AddOpenedModules();
  // Removes every filed extension in the manager's order and destroys
  // everything the loader owns. Runs at most once; the destructor calls it.
  void Shutdown();

  // The symbol `name` of the opened module at `path`; null when the module is
  // not open or has no such symbol.
  void* FindSymbol(const std::string& path, const char* name) const;

  const std::string& Error() const { return m_error; }
  MetricsFramework::IExtensionManager* Manager() const { return m_manager; }
  MetricsFramework::IClientManager* Client() const { return m_client; }

  // IExtensionLoader.
  MetricsFramework::KT_STATUS LoadModule(const char* path) override;
  MetricsFramework::KT_STATUS UnloadModule(const char* path) override;
  unsigned int GetModuleCount() override;
  const MetricsFramework::ExtensionBinaryDesc* GetModule(unsigned int index) override;
  MetricsFramework::IExtension* FindExtension(const char* name) override;
  MetricsFramework::KT_STATUS AddExtension(const char* name,
                                           MetricsFramework::IKTExtensionBase* extension,
                                           const MetricsFramework::ExtensionBinaryDesc* desc) override;
  MetricsFramework::KT_STATUS RemoveExtension(
      MetricsFramework::IKTExtensionBase* extension) override;

 private:
  struct Module {
    std::string path;
    void* handle = nullptr;
    const MetricsFramework::ExtensionExportRow* rows = nullptr;
    unsigned int rowCount = 0;  // without the terminator
    MetricsFramework::ExtensionBinaryDesc desc{};
    bool added = false;
  };
  // One extension the manager has filed.
  struct Filed {
    std::string name;
    MetricsFramework::IExtension* extension;
    MetricsFramework::IKTExtensionBase* base;  // the library's key in RemoveExtension
    int rank;  // position in the removal order
  };

  bool Fail(const std::string& message);
  bool ReadTable(Module& module);
  bool AddModule(Module& module);
  MetricsFramework::KT_STATUS File(const MetricsFramework::ExtensionBinaryDesc& desc,
                                   const char* name, MetricsFramework::IExtension* extension);
  void RemoveFiled(size_t index);
  void RemoveModuleExtensions(const Module& module);

  std::string m_error;
  void* m_library = nullptr;
  MetricsFramework::IExtensionManager* m_manager = nullptr;
  MetricsFramework::IClientManager* m_client = nullptr;
  std::vector<std::unique_ptr<Module>> m_modules;
  std::vector<Filed> m_filed;  // in the order they were filed
  // Extensions made by a factory, with the module they came from (null for
  // the library's own row 3): the loader deletes them.
  std::vector<std::pair<MetricsFramework::IExtension*, const Module*>> m_owned;
  bool m_shutDown = false;
};

}  // namespace kt_host

#endif  // KT_TOOLS_HOST_LOADER_H_
