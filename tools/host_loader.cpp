#include "host_loader.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kt_host {

using namespace MetricsFramework;

namespace {

// A table longer than this is taken for one without its terminator.
constexpr unsigned int kMaxRows = 1024;

const char* const kLibraryRows[] = {"DefaultExtensionManager", "DefaultClientManager",
                                    "ClientCommandMethod"};

// The position of an extension in the removal order the manager expects:
// conduits first, so that no data flows while the rest goes; publishers last.
int RemovalRank(IExtension* extension) {
  static const char* const kRoles[] = {"IConduit", "IConsumer", "IRemoteMethod", "ILogger",
                                       "IPublisher"};
  int rank = 0;
  for (const char* role : kRoles) {
    if (extension->CastTo(role) != nullptr) return rank;
    ++rank;
  }
  return rank;
}

std::string StatusText(KT_STATUS status) {
  const char* name = StatusName(status);
  return name != nullptr ? name : std::to_string(status);
}

}  // namespace

HostLoader::~HostLoader() { Shutdown(); }

bool HostLoader::Fail(const std::string& message) {
  m_error = message;
  return false;
}

bool HostLoader::ReadTable(Module& module) {
  const auto* rows =
      static_cast<const ExtensionExportRow*>(dlsym(module.handle, "__extension_export_table__"));
  if (rows == nullptr) return Fail(module.path + ": no __extension_export_table__");
  unsigned int i = 0;
  for (;; ++i) {
    if (i == kMaxRows) return Fail(module.path + ": export table has no terminator row");
    const ExtensionExportRow& row = rows[i];
    if (row.name == nullptr) return Fail(module.path + ": export row " + std::to_string(i) + " has no name");
    if (row.name[0] == '\0') break;
    if ((row.magic >> 16) != (kExportRowMagic >> 16) || row.factory == nullptr) {
      return Fail(module.path + ": export row " + std::to_string(i) + " (" + row.name +
                  ") is not a valid row");
    }
  }
  module.rows = rows;
  module.rowCount = i;
  std::strncpy(module.desc.m_path, module.path.c_str(), sizeof module.desc.m_path - 1);
  module.desc.m_descriptor = m_modules.size() + 1;
  module.desc.m_module = module.handle;
  module.desc.m_exportTable = rows;
  return true;
}

bool HostLoader::OpenModule(const std::string& path) {
  auto module = std::make_unique<Module>();
  module->path = path;
  module->handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module->handle == nullptr) return Fail(std::string("cannot load module: ") + dlerror());
  if (!ReadTable(*module)) {
    dlclose(module->handle);
    return false;
  }
  m_modules.push_back(std::move(module));
  return true;
}

void* HostLoader::FindSymbol(const std::string& path, const char* name) const {
  for (const auto& module : m_modules) {
    if (module->path == path) return dlsym(module->handle, name);
  }
  return nullptr;
}

bool HostLoader::OpenLibrary(const std::string& path) {
  // RTLD_NODELETE: the registry's "handles" branch is freed by design only
  // with the process, and a leak checker can name its origin only while the
  // library's symbols stay mapped after dlclose.
  m_library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (m_library == nullptr) return Fail(std::string("cannot load library: ") + dlerror());
  Module library;
  library.path = path;
  library.handle = m_library;
  if (!ReadTable(library)) return false;
  library.desc.m_descriptor = 0;
  for (unsigned int i = 0; i < 3; ++i) {
    if (i >= library.rowCount || std::strcmp(library.rows[i].name, kLibraryRows[i]) != 0) {
      return Fail(path + ": export row " + std::to_string(i) + " is not " + kLibraryRows[i]);
    }
  }
  // Row 2's factory works on the manager made by row 1: the order matters.
  IExtension* made = library.rows[0].factory();
  m_manager = dynamic_cast<IExtensionManager*>(made);
  if (m_manager == nullptr) {
    delete made;
    return Fail(path + ": row 1 did not make an extension manager");
  }
  made = library.rows[1].factory();
  m_client = made != nullptr ? static_cast<IClientManager*>(made->CastTo("IClientManager")) : nullptr;
  if (m_client == nullptr) {
    delete made;
    return Fail(path + ": row 2 did not make a client manager");
  }
  IExtension* method = library.rows[2].factory();
  m_owned.emplace_back(method, nullptr);
  const KT_STATUS status = File(library.desc, kLibraryRows[2], method);
  if (status != KT_STATUS_SUCCESS) return Fail(path + ": adding the client command method: " + StatusText(status));
  return true;
}

bool HostLoader::AddOpenedModules() {
  bool all = true;
  for (auto& module : m_modules) {
    if (!module->added) all = AddModule(*module) && all;
  }
  return all;
}

bool HostLoader::AddModule(Module& module) {
  module.added = true;
  bool all = true;
  for (const ExtensionExportRow* row = module.rows; row->name[0] != '\0'; ++row) {
    IExtension* extension = row->factory();
    if (extension == nullptr) continue;
    const KT_STATUS status = File(module.desc, row->name, extension);
    if (status == KT_STATUS_SUCCESS) {
      m_owned.emplace_back(extension, &module);
      continue;
    }
    std::fprintf(stderr, "kt-host: %s from %s not added: %s\n", row->name, module.path.c_str(),
                 StatusText(status).c_str());
    all = false;
    // The roles filed before the refusal go before the extension does; under
    // a name that was taken already, the node is the earlier extension's.
    if (status != KT_STATUS_ALREADY_EXISTS) {
      m_manager->Remove(module.desc, row->name, extension, this);
    }
    delete extension;
  }
  return all;
}

KT_STATUS HostLoader::File(const ExtensionBinaryDesc& desc, const char* name,
                           IExtension* extension) {
  const KT_STATUS status = m_manager->Add(desc, name, extension, this);
  if (status != KT_STATUS_SUCCESS) return status;
  auto* base = static_cast<IKTExtensionBase*>(extension->CastTo("IKTExtensionBase"));
  m_filed.push_back({name, extension, base, RemovalRank(extension)});
  return KT_STATUS_SUCCESS;
}

void HostLoader::RemoveFiled(size_t index) {
  // Out of the list before Remove: removing a consumer makes the library drop
  // its private conduit through RemoveExtension, which comes back here.
  const Filed filed = m_filed[index];
  m_filed.erase(m_filed.begin() + static_cast<long>(index));
  const KT_STATUS status = m_manager->Remove(ExtensionBinaryDesc{}, filed.name.c_str(),
                                             filed.extension, this);
  if (status != KT_STATUS_SUCCESS) {
    std::fprintf(stderr, "kt-host: removing %s: %s\n", filed.name.c_str(), StatusText(status).c_str());
  }
}

void HostLoader::RemoveModuleExtensions(const Module& module) {
  for (;;) {
    size_t pick = m_filed.size();
    for (size_t i = 0; i < m_filed.size(); ++i) {
      const bool fromModule = std::any_of(m_owned.begin(), m_owned.end(), [&](const auto& owned) {
        return owned.first == m_filed[i].extension && owned.second == &module;
      });
      if (fromModule && (pick == m_filed.size() || m_filed[i].rank < m_filed[pick].rank)) pick = i;
    }
    if (pick == m_filed.size()) return;
    RemoveFiled(pick);
  }
}

void HostLoader::Shutdown() {
  if (m_shutDown) return;
  m_shutDown = true;
  if (m_manager != nullptr) {
    while (!m_filed.empty()) {
      size_t pick = 0;
      for (size_t i = 1; i < m_filed.size(); ++i) {
        if (m_filed[i].rank < m_filed[pick].rank) pick = i;
      }
      RemoveFiled(pick);
    }
  }
  // The client manager goes before the registry it works on.
  delete m_client;
  m_client = nullptr;
  delete m_manager;
  m_manager = nullptr;
  for (auto it = m_owned.rbegin(); it != m_owned.rend(); ++it) delete it->first;
  m_owned.clear();
  for (auto it = m_modules.rbegin(); it != m_modules.rend(); ++it) dlclose((*it)->handle);
  m_modules.clear();
  if (m_library != nullptr) dlclose(m_library);
  m_library = nullptr;
}

KT_STATUS HostLoader::LoadModule(const char* path) {
  if (path == nullptr || !OpenModule(path)) return KT_STATUS_DOES_NOT_EXIST;
  return AddOpenedModules() ? KT_STATUS_SUCCESS : KT_STATUS_PARTIAL_FAILURE;
}

KT_STATUS HostLoader::UnloadModule(const char* path) {
  auto it = std::find_if(m_modules.begin(), m_modules.end(),
                         [path](const auto& module) { return path != nullptr && module->path == path; });
  if (it == m_modules.end()) return KT_STATUS_DOES_NOT_EXIST;
  const Module* module = it->get();
  RemoveModuleExtensions(*module);
  for (auto owned = m_owned.begin(); owned != m_owned.end();) {
    if (owned->second != module) {
      ++owned;
      continue;
    }
    delete owned->first;
    owned = m_owned.erase(owned);
  }
  dlclose(module->handle);
  m_modules.erase(it);
  return KT_STATUS_SUCCESS;
}

unsigned int HostLoader::GetModuleCount() { return static_cast<unsigned int>(m_modules.size()); }

const ExtensionBinaryDesc* HostLoader::GetModule(unsigned int index) {
  return index < m_modules.size() ? &m_modules[index]->desc : nullptr;
}

IExtension* HostLoader::FindExtension(const char* name) {
  for (const Filed& filed : m_filed) {
    if (name != nullptr && filed.name == name) return filed.extension;
  }
  return nullptr;
}

KT_STATUS HostLoader::AddExtension(const char* name, IKTExtensionBase* extension,
                                   const ExtensionBinaryDesc* desc) {
  if (name == nullptr || extension == nullptr) return KT_STATUS_INVALID_ARGUMENT;
  return File(desc != nullptr ? *desc : ExtensionBinaryDesc{}, name, extension);
}

KT_STATUS HostLoader::RemoveExtension(IKTExtensionBase* extension) {
  // Unknown is normal: the client manager drops its private extensions when it
  // is destroyed, after the host has removed them.
  for (size_t i = 0; i < m_filed.size(); ++i) {
    if (m_filed[i].base != extension) continue;
    RemoveFiled(i);
    return KT_STATUS_SUCCESS;
  }
  return KT_STATUS_DOES_NOT_EXIST;
}

}  // namespace kt_host
