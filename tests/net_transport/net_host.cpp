#include "net_host.h"

#include <dlfcn.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>

#include "kt/export_table.h"
#include "kt/metric.h"
#include "kt/publisher.h"
#include "kt/remote_method.h"
#include "net_transport/record_buffer.h"

// The messaging engine's library is not built for the thread sanitizer: its
// lock-free queues hand messages between its threads with atomics the
// sanitizer cannot see, so what it does inside is taken on trust. Every
// process of these tests links this host.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libzmq.so.5\nrace:libzmq.so.5\n";
}

namespace net_test {

using namespace MetricsFramework;
using kt_net::RecordBuffer;

namespace {

// Files what the library and the transport ask it to, under a lock.
class Loader : public IExtensionLoader {
 public:
  KT_STATUS LoadModule(const char*) override { return KT_STATUS_INVALID_OPERATION; }
  KT_STATUS UnloadModule(const char*) override { return KT_STATUS_INVALID_OPERATION; }
  unsigned int GetModuleCount() override { return 0; }
  const ExtensionBinaryDesc* GetModule(unsigned int) override { return nullptr; }
  IExtension* FindExtension(const char*) override { return nullptr; }
  KT_STATUS AddExtension(const char* name, IKTExtensionBase* extension,
                         const ExtensionBinaryDesc* desc) override {
    std::lock_guard<std::mutex> hold(mutex);
    return manager->Add(desc != nullptr ? *desc : ExtensionBinaryDesc{}, name, extension, this);
  }
  KT_STATUS RemoveExtension(IKTExtensionBase* extension) override {
    std::lock_guard<std::mutex> hold(mutex);
    for (auto it = names.begin(); it != names.end(); ++it) {
      if (it->second != extension) continue;
      manager->Remove(ExtensionBinaryDesc{}, it->first.c_str(), extension, this);
      names.erase(it);
      break;
    }
    return KT_STATUS_SUCCESS;
  }
  std::mutex mutex;
  IExtensionManager* manager = nullptr;
  std::vector<std::pair<std::string, IKTExtensionBase*>> names;
};

class PeerPublisher : public IPublisher {
 public:
  void OnLoad() override {
    Metric::Description cpu;
    cpu.uri = "cpu_percent";
    cpu.id = 17;
    cpu.word1 = 101;
    cpu.word4 = 1;
    cpu.list1 = {3, 1, 4};
    cpu.setIds = {7, 8};
    cpu.byte1 = 2;
    cpu.block[0] = 5;
    cpu.block[1] = 6;
    cpu.text1 = "share of CPU time spent busy";
    cpu.text2 = "%";
    cpu.text3 = "sampled every 500 ms";
    Metric::Description mem;
    mem.uri = "mem_used";
    mem.word1 = 102;
    mem.setIds = {7};
    mem.text1 = "memory in use";
    mem.text2 = "MiB";
    unsigned long handle = 0;
    GetExtensionManager()->PublishMetric(this, cpu, &handle);
    GetExtensionManager()->PublishMetric(this, mem, &handle);
  }
  void OnUnload() override {}
  IBoundMetric* BindMetric(unsigned long, Path*, IReadWriteBuffer*, IBoundMetric**) override {
    return nullptr;
  }
  void UnbindMetric(unsigned long, IBoundMetric*) override {}
};

class Method : public IRemoteMethod {
 public:
  using Run_ = std::function<bool(const std::string& argument, IWriteBuffer* returns)>;
  Method(const char* name, Run_ run) : m_name(name), m_run(std::move(run)) {}
  bool Run(const IReadBuffer* args, IWriteBuffer* returns) override {
    const void* data = nullptr;
    unsigned long size = 0;
    args->GetData(&data, &size);
    return m_run(data != nullptr ? std::string(static_cast<const char*>(data), size) : "", returns);
  }
  void GetRemoteMethodDesc(RemoteMethodDesc& desc) override {
    std::strncpy(desc.m_name, m_name, sizeof desc.m_name - 1);
  }

 private:
  const char* m_name;
  Run_ m_run;
};

void Reply(IWriteBuffer* returns, const std::string& text) {
  kt_net::CommitRecord(returns, text.data(), text.size());
}

template <typename T>
T Symbol(void* module, const char* name) {
  return reinterpret_cast<T>(dlsym(module, name));
}

}  // namespace

struct NetHost::Impl {
  void* library = nullptr;
  void* module = nullptr;
  IExtensionManager* manager = nullptr;
  IClientManager* client = nullptr;
  KTNetTransportConfigureFn configure = nullptr;
  KTNetTransportGetEndpointFn endpoint = nullptr;
  Loader loader;
  // Added in this order, removed in the reverse.
  std::vector<std::pair<std::string, IExtension*>> added;
  IExtension* transport = nullptr;
  bool transportAdded = false;
  std::mutex stopMutex;
  std::condition_variable stopped;
  bool stopping = false;

  KT_STATUS Add(const char* name, IExtension* extension) {
    const KT_STATUS status = manager->Add(ExtensionBinaryDesc{}, name, extension, &loader);
    added.emplace_back(name, extension);
    return status;
  }
  bool Block(const std::string& argument) {
    const long ms = argument.empty() ? 10000 : std::stol(argument);
    std::unique_lock<std::mutex> hold(stopMutex);
    return !stopped.wait_for(hold, std::chrono::milliseconds(ms), [this] { return stopping; });
  }
  bool Relay(const std::string& argument, IWriteBuffer* returns) {
    if (argument.size() < 8) return false;
    unsigned long next = 0;
    std::memcpy(&next, argument.data(), 8);
    RecordBuffer rest;
    if (argument.size() > 8) kt_net::CommitRecord(&rest, argument.data() + 8, argument.size() - 8);
    return client->CallRemoteMethodSync(next, &rest, returns) == KT_STATUS_SUCCESS;
  }
};

NetHost::NetHost() : m_impl(std::make_unique<Impl>()) {}

NetHost::~NetHost() { Stop(); }

bool NetHost::Open(const std::string& library, const std::string& module) {
  Impl& h = *m_impl;
  h.library = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  h.module = h.library != nullptr ? dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
  if (h.module == nullptr) return m_error = dlerror(), false;
  auto* rows = Symbol<const ExtensionExportRow*>(h.library, "__extension_export_table__");
  auto* moduleRows = Symbol<const ExtensionExportRow*>(h.module, "__extension_export_table__");
  h.configure = Symbol<KTNetTransportConfigureFn>(h.module, "KTNetTransportConfigure");
  h.endpoint = Symbol<KTNetTransportGetEndpointFn>(h.module, "KTNetTransportGetEndpoint");
  if (rows == nullptr || moduleRows == nullptr || h.configure == nullptr || h.endpoint == nullptr) {
    return m_error = "a table or a function is missing", false;
  }
  h.manager = dynamic_cast<IExtensionManager*>(rows[0].factory());
  h.client = static_cast<IClientManager*>(rows[1].factory()->CastTo("IClientManager"));
  h.loader.manager = h.manager;
  h.Add("ClientCommandMethod", rows[2].factory());
  h.Add("PeerPublisher", static_cast<IPublisher*>(new PeerPublisher));
  h.Add("echo", static_cast<IRemoteMethod*>(new Method("echo", [](const std::string& a, IWriteBuffer* r) {
          Reply(r, "echo:" + a);
          return true;
        })));
  h.Add("block", static_cast<IRemoteMethod*>(new Method("block", [&h](const std::string& a, IWriteBuffer* r) {
          if (!h.Block(a)) return false;
          Reply(r, "unblocked");
          return true;
        })));
  h.Add("relay", static_cast<IRemoteMethod*>(new Method("relay", [&h](const std::string& a, IWriteBuffer* r) {
          return h.Relay(a, r);
        })));
  // The first call makes the client manager's conduit: the registry's
  // branches are all there before anyone lists them.
  CallMethod(h.client, PathHandle(h.client, "methods/echo"), "", nullptr);
  h.transport = moduleRows[0].factory();
  return true;
}

KT_STATUS NetHost::Configure(const char* key, const std::string& value) {
  return m_impl->configure(key, value.c_str());
}

KT_STATUS NetHost::Start() {
  Impl& h = *m_impl;
  const KT_STATUS status = h.manager->Add(ExtensionBinaryDesc{}, "NetTransport", h.transport, &h.loader);
  h.transportAdded = true;
  return status;
}

void NetHost::StopTransport() {
  Impl& h = *m_impl;
  if (!h.transportAdded) return;
  h.transportAdded = false;
  h.manager->Remove(ExtensionBinaryDesc{}, "NetTransport", h.transport, &h.loader);
}

std::string NetHost::Endpoint(unsigned int index) {
  char out[1024] = {};
  return m_impl->endpoint(index, out, sizeof out) == KT_STATUS_SUCCESS ? out : "";
}

void NetHost::Stop() {
  Impl& h = *m_impl;
  if (h.manager == nullptr) {
    delete h.transport;
    h.transport = nullptr;
    return;
  }
  {
    std::lock_guard<std::mutex> hold(h.stopMutex);
    h.stopping = true;
  }
  h.stopped.notify_all();
  StopTransport();
  for (auto it = h.added.rbegin(); it != h.added.rend(); ++it) {
    h.manager->Remove(ExtensionBinaryDesc{}, it->first.c_str(), it->second, &h.loader);
  }
  delete h.client;
  delete h.manager;
  h.manager = nullptr;
  delete h.transport;
  h.transport = nullptr;
  for (auto& [name, extension] : h.added) delete extension;
  h.added.clear();
  if (h.module != nullptr) dlclose(h.module);
  h.module = nullptr;
}

IClientManager* NetHost::Client() const { return m_impl->client; }

unsigned int NetHost::Guid() const {
  unsigned long root = 0;
  m_impl->client->GetPath(0, "", &root);
  return static_cast<unsigned int>(root >> 32);
}

// ---------------------------------------------------------------------------
// Answers.

unsigned long PathHandle(IClientManager* client, const std::string& path) {
  unsigned long handle = 0;
  return client->GetPath(0, path.c_str(), &handle) == KT_STATUS_SUCCESS ? handle : 0;
}

KT_STATUS CallMethod(IClientManager* client, unsigned long method, const std::string& argument,
                     std::string* reply) {
  RecordBuffer args;
  RecordBuffer returns;
  if (!argument.empty()) kt_net::CommitRecord(&args, argument.data(), argument.size());
  const KT_STATUS status = client->CallRemoteMethodSync(method, &args, &returns);
  if (reply != nullptr) *reply = returns.Records().empty() ? "" : returns.Records().front();
  return status;
}

namespace {

template <typename T>
std::string List(const std::vector<T>& values) {
  std::ostringstream out;
  for (const T& value : values) out << value << ',';
  return out.str();
}

std::string Describe(const Metric::Description& d) {
  std::ostringstream out;
  out << d.id << ' ' << d.flags << " [" << List(d.list1) << "] " << d.word1 << " ["
      << List(d.setIds) << "] " << d.word2 << ' ' << int{d.byte1} << " '" << d.uri << "' '"
      << d.text1 << "' '" << d.text2 << "' '" << d.text3 << "' '" << d.text4 << "' '" << d.text5
      << "' " << d.word3 << " '" << d.text6 << "' " << int{d.byte2} << ' ' << d.block[0] << ':'
      << d.block[1] << ' ' << int{d.byte3} << ' ' << d.word4 << ' ' << d.word5;
  return out.str();
}

}  // namespace

std::string Answers(IClientManager* client, const std::string& prefix) {
  auto below = [&prefix](const std::string& path) {
    return prefix.empty() ? path : prefix + "/" + path;
  };
  std::ostringstream out;
  out << std::hex;
  const unsigned long root = PathHandle(client, prefix);
  const unsigned long publisher = PathHandle(client, below("publishers/PeerPublisher"));
  unsigned long handle = 0;
  const KT_STATUS missing = client->GetPath(0, below("publishers/nothing").c_str(), &handle);
  out << "op1 " << root << ' ' << publisher << " missing " << missing << '\n';
  for (unsigned long parent : {root, publisher}) {
    unsigned int count = 0;
    const KT_STATUS counted = client->GetChildCount(parent, &count);
    std::vector<unsigned long> children(count);
    const KT_STATUS listed = client->GetChildren(parent, children.data(), count);
    out << "op2 " << counted << ' ' << count << " op3 " << listed << ' ' << List(children) << '\n';
  }
  for (const char* metric : {"cpu_percent", "mem_used"}) {
    unsigned long found = 0;
    const KT_STATUS status = client->GetPath(publisher, metric, &found);
    ResourceInfo info{};
    const KT_STATUS infoStatus = client->GetResourceInfo(found, &info);
    Metric::Description desc;
    const KT_STATUS descStatus = client->GetMetricDescriptor(found, &desc);
    out << "op1 " << status << ' ' << found << " op4 " << infoStatus << " '" << info.name << "' "
        << info.data << ' ' << info.kind << ' ' << info.parent << ' ' << info.target << " op5 "
        << descStatus << ' ' << Describe(desc) << '\n';
  }
  std::string reply;
  const unsigned long echo = PathHandle(client, below("methods/echo"));
  const KT_STATUS called = CallMethod(client, echo, "hi", &reply);
  out << "op9 " << echo << ' ' << called << " '" << reply << "'\n";
  return out.str();
}

}  // namespace net_test
