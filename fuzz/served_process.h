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

#include <memory>
#include <string>
#include <vector>

#include "client/default_client_manager.h"
#include "host/default_extension_manager.h"
#include "support/fakes.h"
#include "support/harness.h"
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
  void Add(const char* name, IExtension* extension);
  void Populate();
  void Collect(const char* path);

  testing_fakes::CountingPublisher m_publisher;
  testing_fakes::LoadedCommandMethod m_command;
  testing_fakes::RecordingConsumer m_consumer;
  LocalConduit m_conduit;
  testing_fakes::RecordingMethod m_echo;
  DefaultExtensionManager m_manager;
  testing_fakes::HostLoader m_loader;
  std::unique_ptr<DefaultClientManager> m_client;
  std::vector<unsigned long> m_handles;
};
}  // namespace fuzz
}  // namespace MetricsFramework

#endif  // KT_FUZZ_SERVED_PROCESS_H_
