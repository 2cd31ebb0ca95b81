// ServedProcess: a process's worth of the library for the client-command fuzz
// target, built fresh for every input. An extension manager and its client
// manager, a host loader that files what the library asks it to, and the
// extensions a real process has: the client command method (serving with
// this client manager), a probe publisher with two metrics and a probe type,
// a consumer, a local conduit and an echo method, plus a few nested plain
// nodes, a long name and a listed "peers" node.
//
// Handles embed addresses and the registry's GUID, so they differ from run
// to run; Handles() lists the nodes' handles in a fixed order, by which the
// fuzz inputs name them.
//
// Ownership: the process owns everything; the extensions outlive the
// registry, the client manager goes before the extension manager.
// Threads: one thread.
#ifndef KT_FUZZ_SERVED_PROCESS_H_
#define KT_FUZZ_SERVED_PROCESS_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "kt/consumer.h"
#include "kt/probe.h"
#include "kt/remote_method.h"
#include "remote/client_command_method.h"
#include "transport/local_conduit.h"

namespace MetricsFramework {
namespace fuzz {

class ServedProcess {
 public:
  ServedProcess();
  ~ServedProcess();
  ServedProcess(const ServedProcess&) = delete;
  ServedProcess& operator=(const ServedProcess&) = delete;

  IRemoteMethod& Command() { return m_command; }
  const std::vector<unsigned long>& Handles() const { return m_handles; }

 private:
  // Files what the library asks to file with the manager, as a host does.
  class HostLoader;
  // A command method that serves with this process's client manager (a
  // manager made by the export table hands it over at Load).
  class ServedCommand : public ClientCommandMethod {
   public:
    void Load(IExtensionManager* manager, IClientManager*, unsigned long handle,
              IExtensionLoader* loader) override {
      ClientCommandMethod::Load(manager, client, handle, loader);
    }
    IClientManager* client = nullptr;
  };
  // Binds by handing out a bound metric that only records its buffer.
  class Publisher;
  class Consumer : public IConsumer {
   public:
    void OnMetricUpdated(unsigned int, unsigned long*, const unsigned long*, const void**,
                         unsigned long*) override {}
  };
  // Answers its argument record back.
  class Echo : public IRemoteMethod {
   public:
    bool Run(const IReadBuffer* args, IWriteBuffer* returns) override;
    void GetRemoteMethodDesc(RemoteMethodDesc& desc) override;
  };

  void Add(const char* name, IExtension* extension);
  void Populate();
  void Collect(const char* path);

  std::unique_ptr<Publisher> m_publisher;
  ServedCommand m_command;
  Consumer m_consumer;
  LocalConduit m_conduit;
  Echo m_echo;
  DefaultExtensionManager m_manager;
  std::unique_ptr<HostLoader> m_loader;
  std::unique_ptr<DefaultClientManager> m_client;
  std::vector<unsigned long> m_handles;
};

}  // namespace fuzz
}  // namespace MetricsFramework

#endif  // KT_FUZZ_SERVED_PROCESS_H_
