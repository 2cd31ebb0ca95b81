// Requests and replies: docs/remote_records.md.
#include "remote/client_command_method.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "client/default_client_manager.h"
#include "foundation/diagnostics.h"
#include "registry/registry.h"
#include "remote/descriptor_blob.h"
#include "remote/proxy_buffer.h"
#include "transport/queue_buffer.h"

namespace MetricsFramework {

namespace {

constexpr unsigned long kResourceRecordSize = 64;
constexpr unsigned long kResourceWordsOffset = 32;
constexpr unsigned long kPayloadOffset = 20;  // op u32, method u64, length u64

// How many Run calls may be nested on one thread. A request may call a method
// that is this one again, under the well-known handle or its own, and each
// level carries the next request inside its payload: without a bound, a
// crafted request would run the thread out of stack.
constexpr unsigned int kMaxNestedRuns = 8;
thread_local unsigned int t_nestedRuns = 0;

class NestedRun {
 public:
  NestedRun() { ++t_nestedRuns; }
  ~NestedRun() { --t_nestedRuns; }
  NestedRun(const NestedRun&) = delete;
  NestedRun& operator=(const NestedRun&) = delete;
  bool TooDeep() const { return t_nestedRuns > kMaxNestedRuns; }
};

Path* PeersNode(DefaultClientManager* cm) { return cm->GetRegistry().GetChild("peers", 0); }

// The "peers" node to take out of a listing of `parent`: only a listed one
// appears in the listing, so only a listed one may be subtracted.
unsigned long PeersToHide(DefaultClientManager* cm, unsigned long parent) {
  const unsigned long peers = ClientCommandMethod::GetLocalPeers(cm, parent);
  if (peers == 0) return 0;
  Path* node = PeersNode(cm);
  return node != nullptr && node->IsListed() ? peers : 0;
}

// Each operation decodes its request without looking at the decoder's
// answer (a short request leaves the defaults), performs the call with routing
// off and writes its reply records; the result is the operation's status.

KT_STATUS ServeGetPath(DefaultClientManager* cm, const IReadBuffer* request, IWriteBuffer* reply) {
  unsigned long start = 0;
  const char* path = "";
  ProxyBuffer::Read(request, start, &path);
  if (path == nullptr) path = "";
  unsigned long handle = 0;
  const KT_STATUS status = cm->__GetPath(start, path, &handle, false);
  ProxyBuffer::Write(reply, status, &handle, sizeof(handle));
  return status;
}

KT_STATUS ServeGetChildCount(DefaultClientManager* cm, const IReadBuffer* request,
                             IWriteBuffer* reply) {
  unsigned long parent = 0;
  ProxyBuffer::Read(request, parent);
  unsigned int count = 0;
  const KT_STATUS status = cm->__GetChildCount(parent, &count, false);
  // Only a count that was answered and includes "peers" loses it; a failed
  // call's 0 must not wrap around.
  if (status == KT_STATUS_SUCCESS && count > 0 && PeersToHide(cm, parent) != 0) --count;
  ProxyBuffer::Write(reply, status, &count, sizeof(count));
  return status;
}

KT_STATUS ServeGetChildren(DefaultClientManager* cm, const IReadBuffer* request,
                           IWriteBuffer* reply) {
  unsigned long parent = 0;
  unsigned int count = 0;
  ProxyBuffer::Read(request, parent, count);
  unsigned int existing = 0;
  KT_STATUS status = cm->__GetChildCount(parent, &existing, false);
  // `count` comes from another process: it is checked against the children
  // before anything of its size is allocated.
  if (status == KT_STATUS_SUCCESS && count > existing) {
    status = Fail(KT_STATUS_INVALID_SIZE, "count");
  }
  if (status != KT_STATUS_SUCCESS) {
    ProxyBuffer::Write(reply, status, nullptr, 0);
    return status;
  }
  // With "peers" among the children, one more is fetched so that taking it
  // out still leaves `count` real children when there are that many.
  const unsigned long peers = PeersToHide(cm, parent);
  const unsigned int fetched = peers != 0 && count < existing ? count + 1 : count;
  std::vector<unsigned long> children(fetched, 0);
  status = cm->__GetChildren(parent, children.data(), fetched, false);
  if (peers != 0) {
    auto found = std::find(children.begin(), children.end(), peers);
    // Intended: the later entries move down one place and the last slot
    // keeps its old value, as clients know the listing.
    if (found != children.end()) std::copy(found + 1, children.end(), found);
  }
  ProxyBuffer::Write(reply, status, children.data(),
                     static_cast<unsigned int>(count * sizeof(unsigned long)));
  return status;
}

KT_STATUS ServeGetResourceInfo(DefaultClientManager* cm, const IReadBuffer* request,
                               IWriteBuffer* reply) {
  unsigned long handle = 0;
  ProxyBuffer::Read(request, handle);
  ResourceInfo info{};
  const KT_STATUS status = cm->__GetResourceInfo(handle, &info, false);
  // The in-memory record carries a string object, meaningless in another
  // process: the name travels as its bytes.
  const std::string record = EncodeResourceInfo(info);
  ProxyBuffer::Write(reply, status, record.data(), static_cast<unsigned int>(record.size()));
  return status;
}

KT_STATUS ServeGetMetricDescriptor(DefaultClientManager* cm, const IReadBuffer* request,
                                   IWriteBuffer* reply) {
  unsigned long metric = 0;
  ProxyBuffer::Read(request, metric);
  Metric::Description desc;
  const KT_STATUS status = cm->__GetMetricDescriptor(metric, &desc, false);
  // Both records also on failure, then with the default description.
  const std::string blob = EncodeDescription(desc);
  const auto blobSize = static_cast<unsigned int>(blob.size());
  ProxyBuffer::Write(reply, status, &blobSize, sizeof(blobSize));
  ProxyBuffer::Write(reply, status, blob.data(), blobSize);
  return status;
}

KT_STATUS ServeSubscription(DefaultClientManager* cm, unsigned int op,
                            const IReadBuffer* request, IWriteBuffer* reply) {
  unsigned long consumer = 0;
  unsigned long conduit = 0;
  unsigned long metric = 0;
  ProxyBuffer::Read(request, consumer, conduit, metric);
  const KT_STATUS status = op == kOpSubscribeMetric
                               ? cm->__SubscribeMetric(consumer, conduit, metric, false)
                               : cm->__UnsubscribeMetric(consumer, conduit, metric, false);
  ProxyBuffer::Write(reply, status, nullptr, 0);
  return status;
}

KT_STATUS ServeFlushMetrics(DefaultClientManager* cm, const IReadBuffer* request,
                            IWriteBuffer* reply) {
  unsigned long conduit = 0;
  ProxyBuffer::Read(request, conduit);
  const KT_STATUS status = cm->__FlushMetrics(conduit);
  ProxyBuffer::Write(reply, status, nullptr, 0);
  return status;
}

// Runs the method named in the request with the request's payload; the
// method writes into `reply` itself. A payload that claims more bytes than
// the request holds is refused without a reply: its length comes from another
// process and must not decide what is read or allocated.
KT_STATUS ServeCallRemoteMethod(DefaultClientManager* cm, const IReadBuffer* request,
                                IWriteBuffer* reply) {
  unsigned long method = 0;
  unsigned long length = 0;
  const void* payload = nullptr;
  ProxyBuffer::Read(request, method, length, &payload);
  const void* record = nullptr;
  unsigned long size = 0;
  request->GetData(&record, &size);
  if (length > 0 && (size < kPayloadOffset || length > size - kPayloadOffset)) {
    return KT_STATUS_INVALID_SIZE;
  }
  QueueBuffer args(0, nullptr, 0, 0, 0);
  if (length > 0) {
    void* block = args.Reserve(length);
    if (payload != nullptr) {
      std::memcpy(block, payload, length);
    } else {
      std::memset(block, 0, length);
    }
    args.Commit(block);
  }
  const unsigned long conduit = cm->GetConduitHandle(0, method);
  return cm->__CallRemoteMethodSync(conduit, method, &args, reply, false);
}

KT_STATUS Serve(DefaultClientManager* cm, unsigned int op, const IReadBuffer* request,
                IWriteBuffer* reply) {
  switch (op) {
    case kOpGetPath: return ServeGetPath(cm, request, reply);
    case kOpGetChildCount: return ServeGetChildCount(cm, request, reply);
    case kOpGetChildren: return ServeGetChildren(cm, request, reply);
    case kOpGetResourceInfo: return ServeGetResourceInfo(cm, request, reply);
    case kOpGetMetricDescriptor: return ServeGetMetricDescriptor(cm, request, reply);
    case kOpSubscribeMetric:
    case kOpUnsubscribeMetric: return ServeSubscription(cm, op, request, reply);
    case kOpFlushMetrics: return ServeFlushMetrics(cm, request, reply);
    case kOpCallRemoteMethod: return ServeCallRemoteMethod(cm, request, reply);
  }
  return KT_STATUS_INVALID_OPERATION;  // unknown: no reply
}

}  // namespace

IKTExtensionBase* ClientCommandMethod::Create() { return new ClientCommandMethod(); }

void* ClientCommandMethod::CastTo(const char* name) {
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, "ClientCommandMethod") == 0) return this;
  if (std::strcmp(name, "IRemoteMethod") == 0) return static_cast<IRemoteMethod*>(this);
  return IKTExtensionBase::CastTo(name);
}

// The buffers are used only through their interfaces and ProxyBuffer's static
// forms: a conduit, or a local client calling the well-known handle, passes
// buffers of its own classes, and the write face is the second base of a
// read-write buffer, so a cast to ProxyBuffer would land beside the object.
bool ClientCommandMethod::Run(const IReadBuffer* request, IWriteBuffer* reply) {
  if (request == nullptr || reply == nullptr) return false;
  auto* cm = dynamic_cast<DefaultClientManager*>(GetClientManager());
  if (cm == nullptr) return false;
  const unsigned int op = ProxyBuffer::GetOp(request);
  if (op == 0 || op > kOpCallRemoteMethod) return false;
  NestedRun nested;
  if (nested.TooDeep()) return false;
  try {
    return Serve(cm, op, request, reply) == KT_STATUS_SUCCESS;
  } catch (const std::bad_alloc&) {
    // A request's sizes come from another process; running out of memory on
    // one fails that request, not the process serving it.
    return false;
  }
}

void ClientCommandMethod::GetRemoteMethodDesc(RemoteMethodDesc& desc) {
  std::memset(desc.m_name, 0, sizeof(desc.m_name));
  std::strcpy(desc.m_name, "command");
  desc.m_inputCount = 0;
  desc.m_outputCount = 0;
}

unsigned long ClientCommandMethod::GetLocalPeers(DefaultClientManager* cm, unsigned long handle) {
  unsigned long root = 0;
  if (cm->__GetPath(0, "", &root, false) != KT_STATUS_SUCCESS || root != handle) return 0;
  // Looked up directly: a root without peers is the common case, not a
  // failure worth a log line.
  Path* peers = PeersNode(cm);
  return peers != nullptr ? peers->GetHandle() : 0;
}

std::string EncodeResourceInfo(const ResourceInfo& info) {
  std::string record(kResourceRecordSize, '\0');
  const unsigned long words[4] = {info.data, info.kind, info.parent, info.target};
  std::memcpy(&record[kResourceWordsOffset], words, sizeof(words));
  record.append(info.name);
  record.push_back('\0');
  return record;
}

bool DecodeResourceInfo(const void* record, unsigned long size, ResourceInfo* info) {
  if (record == nullptr || size <= kResourceRecordSize) return false;
  const auto* bytes = static_cast<const char*>(record);
  const char* name = bytes + kResourceRecordSize;
  const void* end = std::memchr(name, '\0', size - kResourceRecordSize);
  if (end == nullptr) return false;
  unsigned long words[4];
  std::memcpy(words, bytes + kResourceWordsOffset, sizeof(words));
  info->name.assign(name, static_cast<const char*>(end) - name);
  info->data = words[0];
  info->kind = words[1];
  info->parent = words[2];
  info->target = words[3];
  return true;
}

}  // namespace MetricsFramework
