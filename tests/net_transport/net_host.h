// NetHost: a host as hosts are built, for the network transport's tests and
// their helper program (net_peer): it opens the manager library and the
// transport module with dlopen, creates the managers from the library's
// table, adds its command method, a publisher with described metrics
// ("PeerPublisher": cpu_percent and mem_used) and three remote methods, and
// then the transport. The same host runs in the test process and in every
// helper process, so that answers given here and across a link can be
// compared.
//
// Methods: "echo" answers "echo:" and its argument; "block" waits the
// milliseconds its argument names (10 s by default), or until the host stops;
// "relay" takes an argument of method handles (u64 each), calls the first
// through the client manager with the rest as its argument, and answers what
// that call answered, or fails with its status.
//
// Threads: Open, Start and Stop from one thread; Client() may be used from
// any. The loader files what the library asks it to under a lock, since the
// transport files conduits from its own thread.
#ifndef KT_TESTS_NET_TRANSPORT_NET_HOST_H_
#define KT_TESTS_NET_TRANSPORT_NET_HOST_H_

#include <memory>
#include <string>
#include <vector>

#include "kt/client_manager.h"
#include "kt/extension_manager.h"
#include "kt/net_transport.h"

namespace net_test {

class NetHost {
 public:
  NetHost();
  ~NetHost();
  NetHost(const NetHost&) = delete;
  NetHost& operator=(const NetHost&) = delete;

  // Opens the library and the module and adds everything but the transport;
  // false, with the reason in Error(), on failure.
  bool Open(const std::string& library, const std::string& module);
  // Sets a key of the module; every test host sets every key it relies on,
  // since the module's settings live as long as it is loaded.
  MetricsFramework::KT_STATUS Configure(const char* key, const std::string& value);
  // Adds the transport (which starts it) and removes it.
  MetricsFramework::KT_STATUS Start();
  void StopTransport();
  // The resolved listening endpoint `index`, "" when none.
  std::string Endpoint(unsigned int index = 0);
  // Everything added is removed, the managers destroyed, the module closed.
  void Stop();

  MetricsFramework::IClientManager* Client() const;
  unsigned int Guid() const;
  const std::string& Error() const { return m_error; }

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  std::string m_error;
};

// The answers of ops 1 to 5 and 9 for this host's own nodes, asked through
// `client` below `prefix` ("" in the serving process, "peers/<name>" across a
// mount), one line per call: statuses, handles, names and every field of
// every description. Equal text means equal answers.
std::string Answers(MetricsFramework::IClientManager* client, const std::string& prefix);

// The handle of `path` below the root, 0 when it fails.
unsigned long PathHandle(MetricsFramework::IClientManager* client, const std::string& path);

// Calls `method` with `argument`; the first reply record goes to *reply.
MetricsFramework::KT_STATUS CallMethod(MetricsFramework::IClientManager* client,
                                       unsigned long method, const std::string& argument,
                                       std::string* reply);

}  // namespace net_test

#endif  // KT_TESTS_NET_TRANSPORT_NET_HOST_H_
